// Base64 decoding into a caller-freed buffer that always ends in a 0 byte.
#include "fcadmin.h"

#include <gtest/gtest.h>

#include <openssl/evp.h>

#include <cstdlib>
#include <string>

namespace {

// The decoded bytes; fails the test unless a buffer came back with a 0 byte after the data.
std::string decode(const std::string &text, uint32_t length) {
    uint32_t decoded = 0xDEADBEEF;
    unsigned char *buffer = base64decode(text.c_str(), length, &decoded);
    if (buffer == nullptr) {
        ADD_FAILURE() << "no buffer for '" << text << "'";
        return "(null)";
    }
    std::string bytes(reinterpret_cast<char *>(buffer), decoded);
    EXPECT_EQ(buffer[decoded], 0) << text;
    free(buffer);
    return bytes;
}

TEST(Base64Decode, DecodesIntoATerminatedBuffer) {
    // Only `length` characters count; text that is not Base64, or that has line breaks, gives nothing.
    const struct {
        const char *text;
        uint32_t length;
        const char *bytes;
    } cases[] = {{"QUJD", 4, "ABC"}, {"QUJDRA==", 8, "ABCD"}, {"QUJDREVG", 4, "ABC"},
                 {"", 0, ""},        {"@@@@", 4, ""},         {"QUJD\nREVG\n", 10, ""}};
    for (const auto &c : cases) EXPECT_EQ(decode(c.text, c.length), c.bytes) << c.text;

    // Binary data of every length class survives a round trip, NUL bytes included.
    for (int size : {1, 2, 3, 299, 3000}) {
        std::string data(static_cast<size_t>(size), '\0');
        for (int i = 0; i < size; ++i) data[static_cast<size_t>(i)] = static_cast<char>(i * 37);
        std::string text(static_cast<size_t>(4 * ((size + 2) / 3) + 1), '\0');
        const int n = EVP_EncodeBlock(reinterpret_cast<unsigned char *>(text.data()),
                                      reinterpret_cast<const unsigned char *>(data.data()), size);
        EXPECT_EQ(decode(text, static_cast<uint32_t>(n)), data) << "size " << size;
    }

    uint32_t length = 77;
    EXPECT_EQ(base64decode(nullptr, 4, &length), nullptr);
    EXPECT_EQ(length, 0u);
    EXPECT_EQ(base64decode("QUJD", 4, nullptr), nullptr);
}

}  // namespace
