#pragma once

// The limits that <cutils/properties.h> takes from the platform's C library, with their terminating
// NUL. Debian has that header but not this one.
#define PROP_NAME_MAX 32
#define PROP_VALUE_MAX 92
