// Bounded formatting and copying into fixed buffers.
#include "common/format.h"

#include <cstdio>
#include <cstring>

namespace fcadmin {
namespace {

// Stores what vsnprintf stores, cut at size - 1 and terminated, for the conversions that the library's
// own lines use (plain %s, %d, %ld and %%) without vsnprintf's cost: it was most of the price of a
// trace line, and a read lock pair writes three.
class Cut {
public:
    Cut(char *buf, size_t size) : buf_(buf), room_(size - 1) {}
    void put(const char *text, size_t n) {
        n = n < room_ - length_ ? n : room_ - length_;
        memcpy(buf_ + length_, text, n);
        length_ += n;
    }
    void put(const char *text) { put(text, strnlen(text, room_ - length_)); }
    void put(long number) {
        char digits[24];
        size_t n = sizeof digits;
        // Built from the negative side, where every long has a value, LONG_MIN included.
        long rest = number < 0 ? number : -number;
        do {
            digits[--n] = static_cast<char>('0' - rest % 10);
            rest /= 10;
        } while (rest != 0);
        if (number < 0) digits[--n] = '-';
        put(digits + n, sizeof digits - n);
    }
    int finish() {
        buf_[length_] = '\0';
        return static_cast<int>(length_);
    }

private:
    char *buf_;
    size_t room_;
    size_t length_ = 0;
};

// -1 at the first conversion it does not do (a flag, a width, a precision, another conversion).
int plain_vformat(char *buf, size_t size, const char *format, va_list args) {
    Cut out(buf, size);
    for (const char *p = format;;) {
        const char *percent = strchrnul(p, '%');
        out.put(p, static_cast<size_t>(percent - p));
        if (*percent == '\0') return out.finish();
        p = percent + 2;
        switch (percent[1]) {
        case '%': out.put("%", 1); break;
        case 's': {
            const char *text = va_arg(args, const char *);
            out.put(text != nullptr ? text : "(null)");
            break;
        }
        case 'd': out.put(static_cast<long>(va_arg(args, int))); break;
        case 'l':
            if (percent[2] != 'd') return -1;
            out.put(va_arg(args, long));
            ++p;
            break;
        default: return -1;
        }
    }
}

}  // namespace

int bounded_vformat(char *buf, size_t size, const char *format, va_list args) {
    if (buf == nullptr || size == 0) return 0;
    va_list again;
    va_copy(again, args);
    int n = plain_vformat(buf, size, format, args);
    // The caller's own format, passed on: its arguments were checked where the caller named it.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
    if (n < 0) n = vsnprintf(buf, size, format, again);
#pragma GCC diagnostic pop
    va_end(again);
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
