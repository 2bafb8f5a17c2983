// Credential encoders, the in-place conversion and the protocol-matching rule.
#include "fcadmin.h"
#include "xfer/protocol.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

namespace {

struct FreeDeleter {
    void operator()(char *p) const { free(p); }
};
using Encoded = std::unique_ptr<char, FreeDeleter>;

Encoded scp(const char *text, uint32_t n) { return Encoded(admin_convert_username_and_password_for_scp(text, n)); }
Encoded ftp(const char *text, uint32_t n) { return Encoded(admin_convert_username_and_password_for_ftp(text, n)); }

TransferRequest request(const char *protocol, const std::string &user, const std::string &password) {
    TransferRequest r{};
    strncpy(r.protocol, protocol, sizeof r.protocol - 1);
    strncpy(r.user_name, user.c_str(), sizeof r.user_name - 1);
    strncpy(r.password, password.c_str(), sizeof r.password - 1);
    return r;
}

TEST(ProtocolMatches, FieldIsComparedOverItsOwnLength) {
    using fcadmin::protocol_matches;
    for (const char *field : {"ftp", "f", ""}) EXPECT_TRUE(protocol_matches(field, "ftp")) << field;
    EXPECT_TRUE(protocol_matches("sf", "sftp"));
    EXPECT_FALSE(protocol_matches("sf", "scp"));
    for (const char *field : {"ftpx", "FTP", static_cast<const char *>(nullptr)})
        EXPECT_FALSE(protocol_matches(field, "ftp"));
    EXPECT_FALSE(protocol_matches("ftp", nullptr));
    // A field filled to its last byte is read no further than the field.
    std::unique_ptr<char[]> full(new char[fcadmin::kProtocolFieldSize]);
    memcpy(full.get(), "scpscpscps", fcadmin::kProtocolFieldSize);
    EXPECT_FALSE(protocol_matches(full.get(), "scp"));
}

TEST(Encoders, ListedValuesAndEdges) {
    EXPECT_STREQ(scp("a.b", 384).get(), "a\\.b");
    EXPECT_STREQ(scp("Ab9 :@\xe9", 384).get(), "Ab9\\ \\:\\@\\\xe9");
    EXPECT_STREQ(ftp("j.doe", 384).get(), "j%2edoe");
    EXPECT_STREQ(ftp("p w", 384).get(), "p%20w");
    EXPECT_STREQ(ftp("a:b\xff", 384).get(), "a%3ab%ff");
    // Size 0 or 1 leaves no room for a character, but an empty text still gives an empty string.
    for (auto encode : {scp, ftp}) {
        for (uint32_t size : {384u, 1u, 0u}) {
            Encoded empty = encode("", size);
            ASSERT_NE(empty, nullptr) << size;
            EXPECT_STREQ(empty.get(), "");
            EXPECT_EQ(encode("a", size) == nullptr, size < 2) << size;
        }
        EXPECT_EQ(encode(nullptr, 384), nullptr);
    }

    // A control character gets one digit; the terminator after it cuts off the rest.
    Encoded cut = ftp("a\tb", 384);
    ASSERT_NE(cut, nullptr);
    EXPECT_EQ(std::string(cut.get(), 5), std::string("a%9\0b", 5));

    // Room is tested before each character only: the pair that begins at size - 2 fills the last
    // byte, leaving no terminator inside the buffer.
    Encoded filled = scp("ab.", 4);
    ASSERT_NE(filled, nullptr);
    EXPECT_EQ(strnlen(filled.get(), 4), 4u);
    EXPECT_EQ(std::string(filled.get(), 4), "ab\\.");
    EXPECT_STREQ(scp("abc", 4).get(), "abc");
    EXPECT_EQ(scp("abcd", 4), nullptr);
    EXPECT_EQ(scp("abc.", 4), nullptr);
    // A percent escape that begins near the bound is written whole, past size.
    EXPECT_STREQ(ftp("ab:", 4).get(), "ab%3a");
    EXPECT_STREQ(ftp(":", 2).get(), "%3a");
    EXPECT_EQ(ftp("abc:", 4), nullptr);
}

TEST(Encoders, TouchNothingOutsideTheAllocation) {
    // Every size against every kind of tail: under AddressSanitizer any byte written or read outside
    // the allocation fails this test.
    const char *texts[] = {"a", ":", "a:", "::", "\x01", "a\x01", "ab:", "abc", "\xff\xff\xff", "x.y.z"};
    for (uint32_t size = 0; size <= 12; ++size) {
        for (const char *text : texts) {
            Encoded f = ftp(text, size), s = scp(text, size);
            EXPECT_TRUE(f == nullptr || strlen(f.get()) <= size_t{size} + 1) << text << " " << size;
            EXPECT_TRUE(s == nullptr || strnlen(s.get(), size) <= size_t{size}) << text << " " << size;
        }
    }
}

TEST(ConvertCredentials, OnlyFtpRequestsAreEncodedInPlace) {
    // An empty protocol and a prefix of "ftp" count as ftp.
    for (const char *protocol : {"ftp", "", "f"}) {
        TransferRequest r = request(protocol, "j.doe", "p w");
        EXPECT_EQ(admin_convert_username_and_password(&r), 0) << protocol;
        EXPECT_STREQ(r.user_name, "j%2edoe") << protocol;
        EXPECT_STREQ(r.password, "p%20w") << protocol;
    }
    for (const char *protocol : {"scp", "sftp", "usb", "ftpx"}) {
        TransferRequest r = request(protocol, "j.doe", "p w");
        const TransferRequest before = r;
        EXPECT_EQ(admin_convert_username_and_password(&r), 0) << protocol;
        EXPECT_EQ(memcmp(&r, &before, sizeof r), 0) << protocol;
    }
    EXPECT_EQ(admin_convert_username_and_password(nullptr), -8);

    TransferRequest fits = request("ftp", std::string(127, '#'), "");
    EXPECT_EQ(admin_convert_username_and_password(&fits), 0);
    std::string escaped;
    for (int i = 0; i < 127; ++i) escaped += "%23";
    EXPECT_EQ(fits.user_name, escaped);
    // 128 escapes fit by the per-character test but are cut to the field's 383 bytes.
    TransferRequest cut = request("ftp", std::string(128, '#'), "");
    EXPECT_EQ(admin_convert_username_and_password(&cut), 0);
    EXPECT_EQ(strlen(cut.user_name), 383u);
    TransferRequest too_long = request("ftp", std::string(129, '#'), "p w");
    const TransferRequest before = too_long;
    EXPECT_EQ(admin_convert_username_and_password(&too_long), -12);
    EXPECT_EQ(memcmp(&too_long, &before, sizeof too_long), 0);
    // A password that does not fit is not an error: the field is left empty.
    TransferRequest long_password = request("ftp", "u", std::string(129, '#'));
    EXPECT_EQ(admin_convert_username_and_password(&long_password), 0);
    EXPECT_STREQ(long_password.password, "");

    // Fields filled to their last byte are read no further than the record's fields.
    TransferRequest full = request("ftp", "", "");
    memset(full.user_name, 'u', sizeof full.user_name);
    memset(full.password, 'p', sizeof full.password);
    EXPECT_EQ(admin_convert_username_and_password(&full), -12);
    memset(full.user_name + 10, 0, sizeof full.user_name - 10);
    EXPECT_EQ(admin_convert_username_and_password(&full), 0);
    EXPECT_STREQ(full.user_name, "uuuuuuuuuu");
    EXPECT_STREQ(full.password, "");
}

}  // namespace
