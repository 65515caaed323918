// Host stand-in for libcutils' system properties.
//
// On the host, property NAME is the content of the file "<root>/properties/NAME",
// where <root> is $VORD_ROOT, or /run/vord when that variable is unset. A missing
// or empty file means the property is unset. One trailing newline is not part of
// the value, so `echo 2 > file` sets "2".
#pragma once

#define PROPERTY_KEY_MAX 32
#define PROPERTY_VALUE_MAX 92

#ifdef __cplusplus
extern "C" {
#endif

// Copies the value (or default_value when unset) into value, which holds
// PROPERTY_VALUE_MAX bytes. Returns the length of the text copied.
int property_get(const char* key, char* value, const char* default_value);

// Sets the property; returns 0 on success, -1 on failure.
int property_set(const char* key, const char* value);

#ifdef __cplusplus
}
#endif
