// The platform console on a host: standard error, the stream that stays on the terminal when the
// caller's standard output is captured.
#include "fcadmin_platform.h"

#include <cstdarg>
#include <cstdio>

extern "C" FCADMIN_PLATFORM_API int32_t console_printf(const char *format, ...) {
    if (format == nullptr) return -1;
    va_list args;
    va_start(args, format);
    int n = vfprintf(stderr, format, args);
    va_end(args);
    fflush(stderr);
    return n;
}
