// Byte-order helpers and the population count.
#include "fcadmin.h"

#include <cstring>

extern "C" {

uint32_t endian_swap_32(uint32_t value) {
    return (value << 24) | (value >> 24) | ((value << 8) & 0x00FF0000u) | ((value >> 8) & 0x0000FF00u);
}

// ((value << 8) | (value >> 8)) & 0xFFFF on the whole 32-bit argument: bits 16 to 23 of a larger
// argument are not cleared first and end up ORed into the high byte of the result. Callers pass 16-bit
// quantities; keep it so. Spelled out byte by byte because clang 14 at -O1 and above turns the short
// form into a plain 16-bit byte swap, losing bits 16 to 23 (0x00AB1234 gave 0x3412, not 0xBF12).
uint32_t endian_swap_16(uint32_t value) {
    const uint32_t high = (value & 0xFFu) | ((value >> 16) & 0xFFu);
    const uint32_t low = (value >> 8) & 0xFFu;
    return (high << 8) | low;
}

int32_t endian_check(void) {
    const unsigned char bytes[2] = {0x01, 0x00};
    int16_t probe;
    memcpy(&probe, bytes, sizeof probe);
    return probe == 1 ? 1 : 2;
}

// A fixed 32 rounds of an arithmetic shift, so negative values count right (-1 gives 32).
int32_t _count_bits(int32_t value) {
    int32_t count = 0;
    for (int round = 0; round < 32; ++round) {
        count += value & 1;
        value >>= 1;
    }
    return count;
}

}  // extern "C"
