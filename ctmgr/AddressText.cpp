#include "ctmgr/AddressText.h"

#include <netinet/in.h>

#include <array>
#include <cstddef>

namespace {

bool isDigit(char character) {
  return character >= '0' && character <= '9';
}

/// What every character but a digit is worth: more than a byte holds, whatever its half.
constexpr unsigned int kNoDigit = 0x100;

/// The values of lower-case hexadecimal digits, by character.
constexpr auto kHexValues = [] {
  std::array<std::uint16_t, UINT8_MAX + 1> values{};
  values.fill(kNoDigit);
  for (std::uint8_t i = 0; i < 10; ++i) values[std::size_t{'0'} + i] = i;
  for (std::uint8_t i = 10; i < 16; ++i) values[std::size_t{'a'} + i - 10] = i;
  return values;
}();

/// The byte that two characters at |text| stand for; above UINT8_MAX where they are no digits. The
/// second one is not looked at behind the end of the text.
unsigned int hexByte(const char* text) {
  const unsigned int high = kHexValues[static_cast<unsigned char>(text[0])];
  if (high == kNoDigit) return kNoDigit;
  return high << 4 | kHexValues[static_cast<unsigned char>(text[1])];
}

/// A number up to 255 at |text|, which then stands behind it; false where there is none.
bool readOctet(const char*& text, std::uint8_t& octet) {
  constexpr std::ptrdiff_t kMostDigits = 3;
  unsigned int value = 0;
  const char* const start = text;
  while (isDigit(*text) && text - start < kMostDigits) {
    value = value * 10 + static_cast<unsigned int>(*text++ - '0');
  }
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
  for (std::size_t i = 0; i < sizeof(in6_addr); ++i, text += 2) {
    if (i != 0 && i % 2 == 0 && *text++ != ':') return false;
    const unsigned int byte = hexByte(text);
    if (byte > UINT8_MAX) return false;
    address[i] = static_cast<std::uint8_t>(byte);
  }
  return *text == '\0';
}
