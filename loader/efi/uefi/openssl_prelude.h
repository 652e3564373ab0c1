// Force-included before OpenSSL's headers in the firmware build.
//
// libcrypto is configured for its UEFI target, whose <openssl/e_os2.h> takes
// the fixed-width integer types from the firmware's type names instead of
// <stdint.h>; this supplies those names (the same types the firmware headers
// give them) to code that never includes the firmware headers.
#pragma once

#include <stdint.h>

typedef int8_t INT8;
typedef uint8_t UINT8;
typedef int16_t INT16;
typedef uint16_t UINT16;
typedef int32_t INT32;
typedef uint32_t UINT32;
typedef int64_t INT64;
typedef uint64_t UINT64;
typedef int64_t INTN;
typedef uint64_t UINTN;

#ifndef MAX_INTN
#define MAX_INTN INT64_MAX
#endif
