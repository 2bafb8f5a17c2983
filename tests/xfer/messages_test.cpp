// Result codes rendered to their fixed user messages; null records are in api/hostile_test.
#include "tests/support/helpers.h"

// "<record code> <text>" of code rendered into a record full of old bytes; old bytes behind the text would show.
static std::string render(int32_t code, const void *context = nullptr) {
    ResultMessage message;
    memset(&message, 'x', sizeof message);
    EXPECT_EQ(admin_lib_get_error_msg(&message, code, context), code);
    const std::string text(message.text, sizeof message.text);
    return std::to_string(message.code) + " " + text.substr(0, text.find_last_not_of('\0') + 1);
}

// Every row as users have always seen it (typos, stray blank), in table order; a context changes nothing; codes
// without a row (1 belongs to callers with a context) still render safely.
TEST(ResultMessages, EveryRowByteForByteInTableOrderAndCodesWithoutARow) {
    const std::string want =
        "-2 Invalid IP address entered\n-3 Invalid Protocol entered\n"
        "-4 Invalid user name. The length of the username allowed upto 383 characters \n-5 Invalid password\n"
        "-6 Invalid file or file is not accessible\n-8 Invalid input parameters\n"
        "-9 Failed to copy the file from remote location.\n-12 Failed to allocate memory.\n"
        "-17 The regular file exist with directory name.\n-18 Failed to create directory.\n-29 Incomplete command.\n"
        "-31 Failed to process the request\n-43 Invalid portnumber entered\n"
        "-44 The Server portnumber is not supported for ftp protocol\n"
        "-45 The password is not allowed when username is anonymous\n"
        "-47 User name cannot be anonymous for scp/sftp protocol.\n-49 Invalid directory or path is not accessible\n"
        "-50 Failed to export the selected content to the remote location.\n"
        "-51 Nothing was exported: no content eligible for export was found.\n"
        "-53 A remote directory is required to export all content.\n"
        "-54 Invalid user name. Some special charecters are not allowed in user name\n"
        "-55 Invalid USB file path entered.\n-57 USB device either not present or not enabled.\n";
    std::string rendered, table;
    const ResultMessageRow *row = result_message_table;
    for (; *row->text; ++row) table += std::to_string(row->code) + " " + row->text, rendered += render(row->code);
    EXPECT_EQ(rendered + table + std::to_string(row->code), want + want + "0");
    EXPECT_EQ(render(0) + render(-5, &want), "0 -5 Invalid password\n");
    for (int32_t code : {-1, -13, -22, -52, 7, 1, INT32_MIN, INT32_MAX})
        EXPECT_EQ(render(code), "0 Undefined error. " + std::to_string(code) + "\n");
}
