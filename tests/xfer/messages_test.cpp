// Result codes rendered to their fixed user messages.
#include "tests/support/helpers.h"

#include <climits>

namespace {

// Renders code into a record full of old bytes: "<record code> <text>", after checking the return value
// and that nothing of the old text survives behind the new one.
std::string render(int32_t code) {
    ResultMessage message;
    memset(&message, 'x', sizeof message);
    EXPECT_EQ(admin_lib_get_error_msg(&message, code, nullptr), code);
    const size_t length = strnlen(message.text, sizeof message.text);
    EXPECT_EQ(std::string(message.text + length, sizeof message.text - length), std::string(sizeof message.text - length, '\0'));
    return std::to_string(message.code) + " " + std::string(message.text, length);
}

TEST(ResultMessages, EveryTransferRowByteForByteInTableOrder) {
    // As users have always seen them, typos and the stray blank included.
    const std::pair<int32_t, const char *> rows[] = {
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
        {-50, "Failed to export the selected content to the remote location.\n"},
        {-51, "Nothing was exported: no content eligible for export was found.\n"},
        {-53, "A remote directory is required to export all content.\n"},
        {-54, "Invalid user name. Some special charecters are not allowed in user name\n"},
        {-55, "Invalid USB file path entered.\n"},
        {-57, "USB device either not present or not enabled.\n"},
    };
    size_t index = 0;
    for (const auto &[code, text] : rows) {
        EXPECT_EQ(render(code), std::to_string(code) + " " + text);
        while (result_message_table[index].text[0] != '\0' && result_message_table[index].code != code) ++index;
        EXPECT_EQ(result_message_table[index].code, code) << "out of order";
    }
    EXPECT_EQ(result_message_table[index + 1].text + std::to_string(result_message_table[index + 1].code), "0");
}

TEST(ResultMessages, ZeroAndCodesWithoutARow) {
    EXPECT_EQ(render(0), "0 ");
    // Code 1 belongs to callers with a context; without one it still renders safely.
    for (int32_t code : {-1, -13, -22, -52, 7, 1, INT32_MIN, INT32_MAX})
        EXPECT_EQ(render(code), "0 Undefined error. " + std::to_string(code) + "\n");
    EXPECT_EQ(admin_lib_get_error_msg(nullptr, -44, nullptr), -44);
    ResultMessage message;
    EXPECT_EQ(admin_lib_get_error_msg(&message, -5, &message), -5);  // a context is accepted and changes nothing
    EXPECT_STREQ(message.text, "Invalid password\n");
}

}  // namespace
