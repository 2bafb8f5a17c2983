// Bounded formatting and copying into fixed buffers: the text is cut, never grown, and always terminated.
#pragma once

#include <cstdarg>
#include <cstddef>

namespace fcadmin {

// Formats into buf[0..size) like snprintf; returns the number of characters stored (after the cut).
int bounded_vformat(char *buf, size_t size, const char *format, va_list args)
    __attribute__((format(printf, 3, 0)));
int bounded_format(char *buf, size_t size, const char *format, ...) __attribute__((format(printf, 3, 4)));

// Copies at most size - 1 bytes of src and terminates; returns the number of bytes copied.
size_t bounded_copy(char *dst, size_t size, const char *src);

template <size_t N>
size_t bounded_copy(char (&dst)[N], const char *src) {
    return bounded_copy(dst, N, src);
}

}  // namespace fcadmin
