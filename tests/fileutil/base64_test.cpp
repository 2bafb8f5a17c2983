// Base64 decoding into a caller-freed buffer that always ends in a 0 byte.
#include "fcadmin.h"

#include <gtest/gtest.h>

#include <openssl/evp.h>

#include <cstdlib>
#include <cstring>
#include <string>

namespace {

struct Decoded {
    bool null = true;
    std::string bytes;
    uint32_t length = 0xDEADBEEF;
    bool terminated = false;
};

Decoded decode(const char *text, uint32_t length) {
    Decoded result;
    unsigned char *buffer = base64decode(text, length, &result.length);
    if (buffer == nullptr) return result;
    result.null = false;
    result.bytes.assign(reinterpret_cast<char *>(buffer), result.length);
    result.terminated = buffer[result.length] == 0;
    free(buffer);
    return result;
}

TEST(Base64Decode, DecodesIntoTerminatedBuffer) {
    Decoded abc = decode("QUJD", 4);
    ASSERT_FALSE(abc.null);
    EXPECT_EQ(abc.bytes, "ABC");
    EXPECT_EQ(abc.length, 3u);
    EXPECT_TRUE(abc.terminated);

    Decoded padded = decode("QUJDRA==", 8);
    EXPECT_EQ(padded.bytes, "ABCD");
    EXPECT_TRUE(padded.terminated);

    // Only `length` characters of the text count.
    EXPECT_EQ(decode("QUJDREVG", 4).bytes, "ABC");

    // Binary data of every length class survives a round trip, NUL bytes included.
    for (int size : {1, 2, 3, 299, 3000}) {
        std::string data(static_cast<size_t>(size), '\0');
        for (int i = 0; i < size; ++i) data[static_cast<size_t>(i)] = static_cast<char>(i * 37);
        std::string text(static_cast<size_t>(4 * ((size + 2) / 3) + 1), '\0');
        int n = EVP_EncodeBlock(reinterpret_cast<unsigned char *>(text.data()),
                                reinterpret_cast<const unsigned char *>(data.data()), size);
        Decoded back = decode(text.c_str(), static_cast<uint32_t>(n));
        EXPECT_EQ(back.bytes, data) << "size " << size;
        EXPECT_TRUE(back.terminated);
    }
}

TEST(Base64Decode, EmptyInvalidAndNullInput) {
    Decoded empty = decode("", 0);
    ASSERT_FALSE(empty.null);
    EXPECT_EQ(empty.length, 0u);
    EXPECT_TRUE(empty.terminated);

    // Not Base64: a buffer still comes back, holding nothing.
    Decoded invalid = decode("@@@@", 4);
    ASSERT_FALSE(invalid.null);
    EXPECT_EQ(invalid.length, 0u);
    EXPECT_TRUE(invalid.terminated);
    // Line breaks are not taken as Base64 text.
    EXPECT_EQ(decode("QUJD\nREVG\n", 10).length, 0u);

    uint32_t length = 77;
    EXPECT_EQ(base64decode(nullptr, 4, &length), nullptr);
    EXPECT_EQ(length, 0u);
    EXPECT_EQ(base64decode("QUJD", 4, nullptr), nullptr);
}

}  // namespace
