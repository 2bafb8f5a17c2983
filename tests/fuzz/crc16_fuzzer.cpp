// crc16_compute against the bitwise CRC-16/ARC; the first byte picks the alignment of the input's start.
#include "tests/fuzz/fuzz.h"

FUZZ_TARGET(data, size) {
    const size_t align = size == 0 ? 0 : data[0] % 16;
    std::vector<unsigned char> copy(align + size);  // ends where the input does: no byte to spare
    std::copy(data, data + size, copy.begin() + static_cast<ptrdiff_t>(align));
    FUZZ_CHECK(crc16_compute(copy.data() + align, int32_t(size)) == fcadmin_test::bitwise_crc16(0, data, size));
}
