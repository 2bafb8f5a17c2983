// fcadmin errmsg: the fixed user message of a result code.
#include "tools/fcadmin/command.h"

#include "fcadmin.h"

#include <cstdio>

namespace fcadmin_tool {
namespace {

constexpr const char kErrmsgUsage[] =
    "usage: fcadmin errmsg CODE\n"
    "\n"
    "Prints the message of result code CODE (decimal, or 0x-prefixed hex) as the\n"
    "library renders it for a caller without a context. Code 0 prints nothing; a code\n"
    "without a message of its own prints \"Undefined error. CODE\".\n";

int run_errmsg(int argc, char **argv) {
    if (argc != 2) return usage_error(argv[0], argc < 2 ? "missing CODE" : "too many arguments");
    int32_t code = 0;
    if (!parse_int32(argv[1], &code)) return usage_error(argv[0], "CODE is not a 32-bit integer: " + std::string(argv[1]));
    ResultMessage message;
    admin_lib_get_error_msg(&message, code, nullptr);
    fputs(message.text, stdout);
    return fflush(stdout) == 0 ? 0 : 1;
}

}  // namespace

FCADMIN_SUBCOMMAND("errmsg", "print the message of a result code", kErrmsgUsage, run_errmsg);

}  // namespace fcadmin_tool
