// The table-driven CRC-16/ARC over a byte buffer. Internal: reachable from the static library and the
// tool, never exported from the shared library.
#pragma once

#include <stdint.h>

#if defined(__cplusplus)
extern "C" {
#endif

// Low 16 bits hold the checksum (initial value 0, reflected, no final XOR); 0 for a null pointer or a
// length of 0 or less.
uint32_t crc16_compute(const unsigned char *data, int32_t length);

#if defined(__cplusplus)
}
#endif
