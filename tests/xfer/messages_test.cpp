// Result codes rendered to their fixed user messages.
#include "fcadmin.h"

#include <gtest/gtest.h>

#include <climits>
#include <cstring>
#include <string>
#include <utility>

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

// Renders code into a record full of old bytes; checks the return value and that nothing of the old
// text survives behind the new one. Gives the text and the record's code.
std::pair<std::string, int32_t> render(int32_t code) {
    ResultMessage message;
    memset(&message, 'x', sizeof message);
    EXPECT_EQ(admin_lib_get_error_msg(&message, code, nullptr), code);
    const size_t length = strnlen(message.text, sizeof message.text);
    for (size_t i = length; i < sizeof message.text; ++i) {
        if (message.text[i] != '\0') {
            ADD_FAILURE() << "code " << code << ": old byte left at " << i;
            break;
        }
    }
    return {std::string(message.text, length), message.code};
}

TEST(ResultMessages, TransferRowsByteForByteInTableOrder) {
    size_t previous = 0;
    for (const Row &row : kTransferRows) {
        EXPECT_EQ(render(row.code), std::make_pair(std::string(row.text), row.code));
        size_t index = 0;
        while (result_message_table[index].text[0] != '\0' && result_message_table[index].code != row.code) ++index;
        EXPECT_GE(index, previous) << "code " << row.code << " out of order";
        previous = index;
    }
    // The export's failure row: one line of its own.
    const auto [text, code] = render(-50);
    EXPECT_EQ(code, -50);
    EXPECT_NE(text.find("export"), std::string::npos);
    EXPECT_EQ(text.find('\n'), text.size() - 1);
}

TEST(ResultMessages, ZeroAndUndefinedCodes) {
    EXPECT_EQ(render(0), std::make_pair(std::string(), 0));
    // Code 1 belongs to callers with a context; without one it must still render safely.
    for (int32_t code : {-1, -13, -22, -52, 7, 1, INT32_MIN, INT32_MAX})
        EXPECT_EQ(render(code), std::make_pair("Undefined error. " + std::to_string(code) + "\n", 0));
    EXPECT_EQ(admin_lib_get_error_msg(nullptr, -44, nullptr), -44);
    // A context is accepted; the transfer texts do not depend on it.
    ResultMessage message;
    int context = 0;
    EXPECT_EQ(admin_lib_get_error_msg(&message, -5, &context), -5);
    EXPECT_STREQ(message.text, "Invalid password\n");
}

}  // namespace
