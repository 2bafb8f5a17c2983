// Bounded formatting and copying into fixed buffers.
#include "common/format.h"

#include <cstdio>
#include <cstring>

namespace fcadmin {

int bounded_vformat(char *buf, size_t size, const char *format, va_list args) {
    if (buf == nullptr || size == 0) return 0;
    int n = vsnprintf(buf, size, format, args);
    if (n < 0) {
        buf[0] = '\0';
        return 0;
    }
    return static_cast<size_t>(n) >= size ? static_cast<int>(size - 1) : n;
}

int bounded_format(char *buf, size_t size, const char *format, ...) {
    va_list args;
    va_start(args, format);
    int n = bounded_vformat(buf, size, format, args);
    va_end(args);
    return n;
}

size_t bounded_copy(char *dst, size_t size, const char *src) {
    if (dst == nullptr || size == 0) return 0;
    size_t n = src == nullptr ? 0 : strnlen(src, size - 1);
    memcpy(dst, src, n);
    dst[n] = '\0';
    return n;
}

}  // namespace fcadmin
