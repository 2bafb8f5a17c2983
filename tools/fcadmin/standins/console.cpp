// Stand-in console service for a host library that does not supply one: formatted output to standard
// error. Linked after the host library, so it is used only when nothing there defines console_printf.
#include "fcadmin_platform.h"

#include <cstdarg>
#include <cstdio>

extern "C" {

int32_t console_printf(const char *format, ...) {
    va_list args;
    va_start(args, format);
    const int n = vfprintf(stderr, format, args);
    va_end(args);
    return n;
}

}  // extern "C"
