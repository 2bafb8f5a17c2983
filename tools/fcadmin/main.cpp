// fcadmin: the command-line tool over the library's services.
#include "fcadmin_platform.h"
#include "tools/fcadmin/command.h"
#include "tools/fcadmin/password.h"

#include <cstdarg>
#include <cstdio>

int main(int argc, char **argv) { return fcadmin_tool::tool_main(argc, argv); }

// The tool's console, in place of the host's: the command runner reports a tool it could not start with
// the whole command line, which holds the password of a password log-in, so the line is masked first.
extern "C" int32_t console_printf(const char *format, ...) {
    if (format == nullptr) return -1;
    char text[4096];
    va_list args;
    va_start(args, format);
    const int n = vsnprintf(text, sizeof text, format, args);
    va_end(args);
    fcadmin_tool::mask_hidden_password(text);
    fputs(text, stderr);
    fflush(stderr);
    return n;
}
