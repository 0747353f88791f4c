// Address texts in the form in which they compare as plain strings.
#pragma once

#include <cstdint>

/// Reads |text| into the first 4 bytes of |address| if it is a dotted address as inet_ntop(3)
/// writes it: four decimal numbers up to 255 without leading zeros. Otherwise returns false,
/// |address| being undefined.
[[nodiscard]] bool readDottedAddress(const char* text, std::uint8_t* address);

/// The same for 16 bytes and an expanded IPv6 address: eight groups of four lower-case hexadecimal
/// digits, as the kernel prints it (%pI6 in Documentation/core-api/printk-formats.rst).
[[nodiscard]] bool readExpandedAddress(const char* text, std::uint8_t* address);
