// Android system properties.
#pragma once

#include <cstddef>

/// Size of a property value with its NUL, in bytes (PROP_VALUE_MAX of <sys/system_properties.h>).
inline constexpr std::size_t kPropertyValueMax = 92;

/// Copies the value of property |key|, or |default_value| when it has none, into |value|, a
/// buffer of kPropertyValueMax bytes, NUL included. Returns the length of the text. Any thread.
extern "C" int property_get(const char* key, char* value, const char* default_value);
