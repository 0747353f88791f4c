// Decimal numbers in a text.
#pragma once

#include <cstddef>

[[nodiscard]] inline bool isDigit(char character) {
  return character >= '0' && character <= '9';
}

/// The number that |text| begins with, of |mostDigits| digits at most and nine at the very most;
/// |text| then stands behind it. Without a digit there it stays, and the number is 0.
[[nodiscard]] inline unsigned int readDecimal(const char*& text, std::ptrdiff_t mostDigits) {
  unsigned int value = 0;
  for (const char* const start = text; isDigit(*text) && text - start < mostDigits; ++text) {
    value = value * 10 + static_cast<unsigned int>(*text - '0');
  }
  return value;
}
