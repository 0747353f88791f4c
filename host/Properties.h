// Android system properties.
#pragma once

#include "host/Agreement.h"

/// Copies the value of property |key|, or |default_value| when it has none, into |value|, a
/// buffer of kPropertyValueMax bytes, NUL included. Returns the length of the text. Any thread.
extern "C" int property_get(const char* key, char* value, const char* default_value);
