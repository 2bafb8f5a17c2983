// Byte-order helpers and the bit count.
#include "fcadmin.h"

#include <gtest/gtest.h>

TEST(ByteOrder, SwapsProbeAndBitCount) {
    EXPECT_EQ(endian_swap_32(0x11223344u), 0x44332211u);
    EXPECT_EQ(endian_swap_16(0x1234u), 0x3412u);
    // Bits 16..23 of a wider argument are ORed into the high byte.
    EXPECT_EQ(endian_swap_16(0x00AB1234u), 0xBF12u);
    EXPECT_EQ(endian_check(), __BYTE_ORDER__ == __ORDER_BIG_ENDIAN__ ? 2 : 1);

    EXPECT_EQ(_count_bits(0), 0);
    EXPECT_EQ(_count_bits(-1), 32);
    EXPECT_EQ(_count_bits(static_cast<int32_t>(0x80000000u)), 1);
    EXPECT_EQ(_count_bits(0x0F0F), 8);
}
