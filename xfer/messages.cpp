// Result codes and their fixed user messages.
#include "common/format.h"
#include "fcadmin.h"

#include <cstring>

// The rows, in table order, from this one list. The texts are the system's fixed user-visible
// messages: their wording ("upto", "exist", "charecters"), the blank before the newline of -4 and the
// missing full stops are kept exactly.
#define FCADMIN_RESULT_MESSAGES(X)                                                                   \
    X(-2, "Invalid IP address entered\n")                                                            \
    X(-3, "Invalid Protocol entered\n")                                                              \
    X(-4, "Invalid user name. The length of the username allowed upto 383 characters \n")            \
    X(-5, "Invalid password\n")                                                                      \
    X(-6, "Invalid file or file is not accessible\n")                                                \
    X(-8, "Invalid input parameters\n")                                                              \
    X(-9, "Failed to copy the file from remote location.\n")                                         \
    X(-12, "Failed to allocate memory.\n")                                                           \
    X(-17, "The regular file exist with directory name.\n")                                          \
    X(-18, "Failed to create directory.\n")                                                          \
    X(-29, "Incomplete command.\n")                                                                  \
    X(-31, "Failed to process the request\n")                                                        \
    X(-43, "Invalid portnumber entered\n")                                                           \
    X(-44, "The Server portnumber is not supported for ftp protocol\n")                              \
    X(-45, "The password is not allowed when username is anonymous\n")                              \
    X(-47, "User name cannot be anonymous for scp/sftp protocol.\n")                                 \
    X(-49, "Invalid directory or path is not accessible\n")                                          \
    X(-50, "Failed to export the selected content to the remote location.\n")                        \
    X(-51, "Nothing was exported: no content eligible for export was found.\n")                      \
    X(-53, "A remote directory is required to export all content.\n")                                \
    X(-54, "Invalid user name. Some special charecters are not allowed in user name\n")              \
    X(-55, "Invalid USB file path entered.\n")                                                       \
    X(-57, "USB device either not present or not enabled.\n")

#define FCADMIN_MESSAGE_ROW(code, text) {code, text},

extern "C" {

const ResultMessageRow result_message_table[] = {
    FCADMIN_RESULT_MESSAGES(FCADMIN_MESSAGE_ROW){0, ""},
};

// The context belongs to other operations of the system (a prefix, texts of their own for 1 and -1);
// this library accepts it and renders the table's texts without it, so code 1 is simply undefined here.
int32_t admin_lib_get_error_msg(ResultMessage *out, int32_t code, const void * /*context*/) {
    if (out == nullptr) return code;
    memset(out, 0, sizeof *out);
    for (const ResultMessageRow *row = result_message_table; row->text[0] != '\0'; ++row) {
        if (row->code != code) continue;
        fcadmin::bounded_copy(out->text, row->text);
        out->code = code;
        break;
    }
    if (out->text[0] == '\0' && code != 0)
        fcadmin::bounded_format(out->text, sizeof out->text, "Undefined error. %d\n", code);
    return code;
}

}  // extern "C"
