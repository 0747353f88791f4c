#include "ctmgr/AddressText.h"

#include <netinet/in.h>

#include <array>
#include <cstddef>
#include <cstring>

#include "ctmgr/Decimal.h"

namespace {

constexpr std::int8_t kNoDigit = -1;

/// The values of lower-case hexadecimal digits, by character.
constexpr auto kHexValues = [] {
  std::array<std::int8_t, UINT8_MAX + 1> values{};
  for (auto& value : values) value = kNoDigit;
  for (std::int8_t i = 0; i < 10; ++i) values[std::size_t{'0'} + static_cast<std::size_t>(i)] = i;
  for (std::int8_t i = 10; i < 16; ++i)
    values[std::size_t{'a'} + static_cast<std::size_t>(i) - 10] = i;
  return values;
}();

int hexValue(char character) {
  return kHexValues[static_cast<unsigned char>(character)];
}

/// Reads four digits at |text| into two bytes; false where there are other characters.
bool readGroup(const char* text, std::uint8_t* bytes) {
  const int digits[] = {hexValue(text[0]), hexValue(text[1]), hexValue(text[2]), hexValue(text[3])};
  if ((digits[0] | digits[1] | digits[2] | digits[3]) < 0) return false;
  bytes[0] = static_cast<std::uint8_t>(digits[0] << 4 | digits[1]);
  bytes[1] = static_cast<std::uint8_t>(digits[2] << 4 | digits[3]);
  return true;
}

/// A number up to 255 at |text|, which then stands behind it; false where there is none.
bool readOctet(const char*& text, std::uint8_t& octet) {
  constexpr std::ptrdiff_t kMostDigits = 3;
  const char* const start = text;
  const unsigned int value = readDecimal(text, kMostDigits);
  const bool leadingZero = *start == '0' && text - start > 1;
  if (text == start || leadingZero || value > UINT8_MAX) return false;
  octet = static_cast<std::uint8_t>(value);
  return true;
}

}  // namespace

bool readDottedAddress(const char* text, std::uint8_t* address) {
  for (std::size_t i = 0; i < sizeof(in_addr); ++i) {
    if (i != 0 && *text++ != '.') return false;
    if (!readOctet(text, address[i])) return false;
  }
  return *text == '\0';
}

bool readExpandedAddress(const char* text, std::uint8_t* address) {
  constexpr std::size_t kGroups = 8;
  constexpr std::size_t kGroupStep = 5;  // four digits and what separates them from the next
  if (std::strlen(text) != kGroups * kGroupStep - 1) return false;
  for (std::size_t group = 0; group < kGroups; ++group, text += kGroupStep) {
    if (group != 0 && text[-1] != ':') return false;
    if (!readGroup(text, address + 2 * group)) return false;
  }
  return true;
}
