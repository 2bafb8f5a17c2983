// Result codes rendered to their fixed user messages.
#include "fcadmin.h"

#include <gtest/gtest.h>

#include <climits>
#include <cstring>
#include <set>
#include <string>
#include <vector>

namespace {

struct Row {
    int32_t code;
    const char *text;
};

// The transfer messages as users have always seen them, typos and stray blank included, in table order.
const Row kTransferRows[] = {
    {-2, "Invalid IP address entered\n"},
    {-3, "Invalid Protocol entered\n"},
    {-4, "Invalid user name. The length of the username allowed upto 383 characters \n"},
    {-5, "Invalid password\n"},
    {-6, "Invalid file or file is not accessible\n"},
    {-8, "Invalid input parameters\n"},
    {-9, "Failed to copy the file from remote location.\n"},
    {-12, "Failed to allocate memory.\n"},
    {-17, "The regular file exist with directory name.\n"},
    {-18, "Failed to create directory.\n"},
    {-29, "Incomplete command.\n"},
    {-31, "Failed to process the request\n"},
    {-43, "Invalid portnumber entered\n"},
    {-44, "The Server portnumber is not supported for ftp protocol\n"},
    {-45, "The password is not allowed when username is anonymous\n"},
    {-47, "User name cannot be anonymous for scp/sftp protocol.\n"},
    {-49, "Invalid directory or path is not accessible\n"},
    {-54, "Invalid user name. Some special charecters are not allowed in user name\n"},
    {-55, "Invalid USB file path entered.\n"},
    {-57, "USB device either not present or not enabled.\n"},
};

std::string render(int32_t code, int32_t *record_code = nullptr, int32_t *returned = nullptr) {
    ResultMessage message;
    memset(&message, 'x', sizeof message);
    int32_t result = admin_lib_get_error_msg(&message, code, nullptr);
    if (record_code != nullptr) *record_code = message.code;
    if (returned != nullptr) *returned = result;
    return std::string(message.text, strnlen(message.text, sizeof message.text));
}

size_t table_index(int32_t code) {
    size_t i = 0;
    for (; result_message_table[i].text[0] != '\0'; ++i)
        if (result_message_table[i].code == code) return i;
    return SIZE_MAX;
}

TEST(ResultMessages, TransferRowsByteForByte) {
    size_t previous = 0;
    for (const Row &row : kTransferRows) {
        int32_t record_code = 0, returned = 0;
        EXPECT_EQ(render(row.code, &record_code, &returned), row.text) << "code " << row.code;
        EXPECT_EQ(record_code, row.code);
        EXPECT_EQ(returned, row.code);
        size_t index = table_index(row.code);
        ASSERT_NE(index, SIZE_MAX) << "code " << row.code;
        EXPECT_GE(index, previous) << "code " << row.code << " out of order";
        previous = index;
    }
    EXPECT_EQ(render(-44), "The Server portnumber is not supported for ftp protocol\n");

    // The export's own rows: one line each, ending in a newline.
    for (int32_t code : {-50, -51, -53}) {
        int32_t record_code = 0;
        std::string text = render(code, &record_code);
        EXPECT_EQ(record_code, code);
        ASSERT_GT(text.size(), 1u) << "code " << code;
        EXPECT_EQ(text.find('\n'), text.size() - 1) << "code " << code;
        EXPECT_EQ(text.find("Undefined"), std::string::npos);
    }
    EXPECT_NE(render(-50).find("export"), std::string::npos);
}

TEST(ResultMessages, UnknownCodesAndZero) {
    int32_t record_code = 1, returned = 1;
    EXPECT_EQ(render(0, &record_code, &returned), "");
    EXPECT_EQ(record_code, 0);
    EXPECT_EQ(returned, 0);

    // Code 1 belongs to callers with a context; without one it must still render safely.
    for (int32_t code : {-1, -13, -22, -52, 7, 1, INT32_MIN, INT32_MAX}) {
        record_code = 1;
        EXPECT_EQ(render(code, &record_code, &returned), "Undefined error. " + std::to_string(code) + "\n");
        EXPECT_EQ(record_code, 0) << "code " << code;
        EXPECT_EQ(returned, code);
    }

    EXPECT_EQ(admin_lib_get_error_msg(nullptr, -44, nullptr), -44);
    // A context is accepted; the transfer texts do not depend on it.
    ResultMessage message;
    int context = 0;
    EXPECT_EQ(admin_lib_get_error_msg(&message, -5, &context), -5);
    EXPECT_STREQ(message.text, "Invalid password\n");
}

TEST(ResultMessages, OldTextFullyCleared) {
    ResultMessage message;
    memset(message.text, 'x', sizeof message.text);
    message.code = -99;
    admin_lib_get_error_msg(&message, -5, nullptr);
    EXPECT_EQ(message.code, -5);
    size_t length = strlen("Invalid password\n");
    EXPECT_EQ(std::string(message.text, length), "Invalid password\n");
    for (size_t i = length; i < sizeof message.text; ++i) ASSERT_EQ(message.text[i], '\0') << "byte " << i;

    memset(message.text, 'x', sizeof message.text);
    admin_lib_get_error_msg(&message, 0, nullptr);
    for (char c : message.text) ASSERT_EQ(c, '\0');
}

TEST(ResultMessages, TableShape) {
    std::set<int32_t> codes;
    size_t rows = 0;
    for (; result_message_table[rows].text[0] != '\0'; ++rows) {
        const ResultMessageRow &row = result_message_table[rows];
        EXPECT_TRUE(codes.insert(row.code).second) << "duplicate code " << row.code;
        EXPECT_LT(row.code, 0);
        EXPECT_LT(strnlen(row.text, sizeof row.text), sizeof row.text);
    }
    EXPECT_EQ(result_message_table[rows].code, 0);
    EXPECT_EQ(rows, std::size(kTransferRows) + 3);
    for (int32_t code : {-1, -13, -22, -52}) EXPECT_EQ(codes.count(code), 0u) << "code " << code;
}

}  // namespace
