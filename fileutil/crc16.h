// The table-driven CRC-16/ARC over a byte buffer. Internal: reachable from the static library and the
// tool, never exported from the shared library.
#pragma once

#include <stddef.h>
#include <stdint.h>

#if defined(__cplusplus)
extern "C" {
#endif

// Low 16 bits hold the checksum (initial value 0, reflected, no final XOR); 0 for a null pointer or a
// length of 0 or less.
uint32_t crc16_compute(const unsigned char *data, int32_t length);

#if defined(__cplusplus)
}

namespace fcadmin {

// The two ways crc16_compute may take, each continuing from a running crc (0 to start): sixteen bytes
// a step through sixteen tables, on every processor; and carry-less multiplication on x86-64
// processors that have it (crc16_clmul_available), for buffers long enough to pay for it. crc16_clmul
// takes the tables wherever it cannot fold, so it is safe to call anywhere.
uint32_t crc16_portable(uint32_t crc, const unsigned char *data, size_t length);
bool crc16_clmul_available();
uint32_t crc16_clmul(uint32_t crc, const unsigned char *data, size_t length);

}  // namespace fcadmin
#endif
