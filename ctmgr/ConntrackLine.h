// How the fields of a line of the kernel's conntrack table are read: as sscanf(3), inet_pton(3) and
// inet_ntop(3) would read them, for any text, and in one pass where the kernel wrote it.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace ctmgr {

/// The tokens that begin a line. A token that is longer than its buffer is cut there, and what is
/// left of it is read as the next one: the kernel's own tokens all fit.
struct LineStart {
  char layer3Name[16];
  char layer3Number[16];
  char layer4Name[16];
  char layer4Number[4];
};

/// As sscanf(|line|, "%15s %15s %15s %3s"); a token that |line| lacks is empty.
void readLineStart(const char* line, LineStart& start);

/// Where the first "src=" of |line| begins, or null.
[[nodiscard]] const char* findTuple(const char* line);

/// Where the next one begins behind that of |tuple|, or null.
[[nodiscard]] const char* findNextTuple(const char* tuple);

/// An address that stands in a line.
struct AddressToken {
  std::string_view text;  ///< as written, at most 47 characters; data() is null when it is lacking
  std::uint8_t address[16];  ///< network byte order; all zero when |text| is no address
  bool normal;  ///< |text| is dotted as inet_ntop writes it, or expanded as the kernel prints it
                ///< (%pI6)
};

/// As sscanf(|tuple|, "src=%47s"), read as an address of family |af|. |tuple| begins with "src=".
[[nodiscard]] AddressToken readSource(const char* tuple, std::uint16_t af);

/// What follows the source address of a direction.
struct Destination {
  AddressToken address{};
  std::uint16_t sport = 0;
  std::uint16_t dport = 0;
};

/// As sscanf(|source| and what follows it, "%*s dst=%47s sport=%hu dport=%hu"): from the first
/// field on that is lacking there, and wholly if |source| is, fields keep what they held.
void readDestination(const AddressToken& source, std::uint16_t af, Destination& destination);

/// The address that a whole text is in its normal form, which compares with others as bytes do.
class NormalAddress {
 public:
  explicit NormalAddress(const std::string& text);

  /// Whether the normal text of |token|, an address of family |af|, is this text.
  [[nodiscard]] bool equals(const AddressToken& token, std::uint16_t af) const;

 private:
  std::uint16_t af_ = 0;  ///< 0: no such text
  std::uint8_t address_[16] = {};
};

/// Reads |text| into 16 bytes if it is an expanded IPv6 address: eight groups of four lower-case
/// hexadecimal digits. Otherwise returns false, |address| being undefined.
[[nodiscard]] bool readExpandedAddress(const char* text, std::uint8_t* address);

}  // namespace ctmgr
