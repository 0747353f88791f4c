#include "ctmgr/ConntrackLine.h"

#include <arpa/inet.h>
#include <netinet/in.h>

#include <array>
#include <cstddef>
#include <cstdio>
#include <cstring>
#include <utility>

namespace ctmgr {

// Each reader takes where to read and returns where it ended, or null if the text has something
// else there.
namespace {

constexpr char kTupleStart[] = "src=";
constexpr std::size_t kTupleStartLength = sizeof(kTupleStart) - 1;
constexpr std::size_t kLongestAddress = 47;

/// Those of isspace(3).
bool isBlank(char character) {
  return character == ' ' || (character >= '\t' && character <= '\r');
}

/// Neither a blank nor the end of the text.
bool isOfToken(char character) {
  return static_cast<unsigned char>(character) > ' ' || (character != '\0' && !isBlank(character));
}

/// The value of a decimal digit; more than 9 for any other character.
unsigned int digitValue(char character) {
  return static_cast<unsigned int>(character) - '0';
}

const char* skipBlanks(const char* text) {
  while (isBlank(*text)) ++text;
  return text;
}

template <std::size_t... index>
bool startsWith(const char* text, const char* name, std::index_sequence<index...>) {
  return ((text[index] == name[index]) && ...);
}

/// |name|, behind any blanks.
template <std::size_t size>
const char* readName(const char* text, const char (&name)[size]) {
  text = skipBlanks(text);
  return startsWith(text, name, std::make_index_sequence<size - 1>()) ? text + size - 1 : nullptr;
}

/// A conversion "%s" whose width is that of |token|.
template <std::size_t size>
const char* readToken(const char* text, char (&token)[size]) {
  text = skipBlanks(text);
  if (*text == '\0') return nullptr;
  char* to = token;
  for (; to != token + size - 1 && isOfToken(*text); ++text) *to++ = *text;
  *to = '\0';
  return text;
}

/// What the library makes of a port behind blanks, with a sign, without digits or with too many: no
/// kernel prints such. Apart, so that the usual way needs no stack of its own.
[[gnu::cold, gnu::noinline]] const char* readStrangePort(const char* text, std::uint16_t& port) {
  int length = 0;
  return std::sscanf(text, "%hu%n", &port, &length) == 1 ? text + length : nullptr;
}

/// A conversion "%hu".
const char* readPort(const char* text, std::uint16_t& port) {
  constexpr std::ptrdiff_t kMostDigits = 9;  // what an unsigned int holds
  unsigned int value = 0;
  const char* end = text;
  for (unsigned int digit; (digit = digitValue(*end)) <= 9; ++end) value = value * 10 + digit;
  if (end != text && end - text <= kMostDigits) {
    port = static_cast<std::uint16_t>(value);
    return end;
  }
  return readStrangePort(text, port);
}

/// A number up to 255 without leading zeros, as far as its third digit.
const char* readOctet(const char* text, std::uint8_t& octet) {
  unsigned int value = digitValue(*text++);
  if (value > 9) return nullptr;
  unsigned int digit = digitValue(*text);
  if (digit <= 9) {
    if (value == 0) return nullptr;
    value = value * 10 + digit;
    digit = digitValue(*++text);
    if (digit <= 9) {
      value = value * 10 + digit;
      ++text;
    }
    if (value > UINT8_MAX) return nullptr;
  }
  octet = static_cast<std::uint8_t>(value);
  return text;
}

/// A dotted address as inet_ntop(3) writes it.
const char* readDotted(const char* text, std::uint8_t* address) {
  for (std::size_t i = 0; i < sizeof(in_addr); ++i) {
    if (i != 0 && *text++ != '.') return nullptr;
    text = readOctet(text, address[i]);
    if (text == nullptr) return nullptr;
  }
  return text;
}

constexpr std::int8_t kNoDigit = -1;

/// The values of lower-case hexadecimal digits, by character.
constexpr auto kHexValues = [] {
  std::array<std::int8_t, UINT8_MAX + 1> values{};
  for (auto& value : values) value = kNoDigit;
  for (std::int8_t i = 0; i < 16; ++i) {
    values[static_cast<unsigned char>("0123456789abcdef"[i])] = i;
  }
  return values;
}();

int hexValue(char character) {
  return kHexValues[static_cast<unsigned char>(character)];
}

/// Two digits; negative where there are other characters. Reads the second only behind a digit.
int readByte(const char* text) {
  const int high = hexValue(text[0]);
  return high < 0 ? high : high << 4 | hexValue(text[1]);
}

/// Eight groups of four digits with colons between.
const char* readExpanded(const char* text, std::uint8_t* address) {
  for (std::size_t i = 0; i < sizeof(in6_addr); i += 2) {
    if (i != 0 && *text++ != ':') return nullptr;
    const int first = readByte(text);
    if (first < 0) return nullptr;
    const int second = readByte(text + 2);
    if (second < 0) return nullptr;
    address[i] = static_cast<std::uint8_t>(first);
    address[i + 1] = static_cast<std::uint8_t>(second);
    text += 4;
  }
  return text;
}

const char* readNormal(const char* text, std::uint16_t af, std::uint8_t* address) {
  return af == AF_INET ? readDotted(text, address) : readExpanded(text, address);
}

/// The same for an address that is not in its normal form.
[[gnu::cold, gnu::noinline]] void readStrangeAddress(const char* text, std::uint16_t af,
                                                     AddressToken& token) {
  char copy[kLongestAddress + 1];
  const char* end = readToken(text, copy);
  token.text = {text, static_cast<std::size_t>(end - text)};
  std::memset(token.address, 0, sizeof(token.address));
  inet_pton(af, copy, token.address);
}

/// A conversion "%47s".
AddressToken readAddress(const char* text, std::uint16_t af) {
  AddressToken token{};
  text = skipBlanks(text);
  if (*text == '\0') return token;
  const char* end = readNormal(text, af, token.address);
  token.normal = end != nullptr && !isOfToken(*end);
  if (token.normal) {
    token.text = {text, static_cast<std::size_t>(end - text)};
    return token;
  }
  readStrangeAddress(text, af, token);
  return token;
}

}  // namespace

void readLineStart(const char* line, LineStart& start) {
  start.layer3Name[0] = start.layer3Number[0] = start.layer4Name[0] = start.layer4Number[0] = '\0';
  if ((line = readToken(line, start.layer3Name)) == nullptr) return;
  if ((line = readToken(line, start.layer3Number)) == nullptr) return;
  if ((line = readToken(line, start.layer4Name)) == nullptr) return;
  readToken(line, start.layer4Number);
}

const char* findTuple(const char* line) {
  // In a line of the kernel's it is what the first '=' belongs to.
  constexpr std::ptrdiff_t kNameLength = kTupleStartLength - 1;
  const char* equals = std::strchr(line, '=');
  if (equals == nullptr) return nullptr;
  const bool isTuple = equals - line >= kNameLength &&
                       std::memcmp(equals - kNameLength, kTupleStart, kTupleStartLength) == 0;
  return isTuple ? equals - kNameLength : std::strstr(equals, kTupleStart);
}

const char* findNextTuple(const char* tuple) {
  return std::strstr(tuple + kTupleStartLength, kTupleStart);
}

AddressToken readSource(const char* tuple, std::uint16_t af) {
  return readAddress(tuple + kTupleStartLength, af);
}

void readDestination(const AddressToken& source, std::uint16_t af, Destination& destination) {
  const char* at = source.text.data();
  if (at == nullptr) return;
  at = readName(at + source.text.size(), "dst=");
  if (at == nullptr) return;
  const AddressToken address = readAddress(at, af);
  if (address.text.data() == nullptr) return;
  destination.address = address;
  at = readName(address.text.data() + address.text.size(), "sport=");
  if (at != nullptr) at = readPort(at, destination.sport);
  if (at != nullptr) at = readName(at, "dport=");
  if (at != nullptr) readPort(at, destination.dport);
}

NormalAddress::NormalAddress(const std::string& text) {
  const char* const end = text.c_str() + text.size();
  constexpr std::uint16_t kFamilies[] = {AF_INET, AF_INET6};
  for (const std::uint16_t af : kFamilies) {
    std::memset(address_, 0, sizeof(address_));
    if (readNormal(text.c_str(), af, address_) != end) continue;
    af_ = af;
    return;
  }
}

bool NormalAddress::equals(const AddressToken& token, std::uint16_t af) const {
  return af_ == af && std::memcmp(address_, token.address, sizeof(address_)) == 0;
}

bool readExpandedAddress(const char* text, std::uint8_t* address) {
  const char* end = readExpanded(text, address);
  return end != nullptr && *end == '\0';
}

}  // namespace ctmgr
