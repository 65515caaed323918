// The two sizes of bionic's <sys/system_properties.h> that libcutils'
// <cutils/properties.h> takes; glibc has no such header. Used only when building
// against Debian's android-lib*-dev.
#pragma once

#define PROP_NAME_MAX 32
#define PROP_VALUE_MAX 92
