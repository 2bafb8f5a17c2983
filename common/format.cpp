// Bounded formatting and copying into fixed buffers.
#include "common/format.h"

#include <cstdio>
#include <cstring>

namespace fcadmin {
namespace {

// True when every conversion is a plain %s, %d, %ld or %%: no flags, widths, precisions or others.
bool plain_conversions_only(const char *format) {
    for (const char *p = strchr(format, '%'); p != nullptr; p = strchr(p + 1, '%')) {
        ++p;
        if (*p == 'l') ++p;
        if (*p != 'd' && !(p[-1] == '%' && (*p == 's' || *p == '%'))) return false;
    }
    return true;
}

// Stores what vsnprintf stores for such a format, cut at size - 1 and terminated, without its cost: it
// is most of the price of a trace line, and the lock calls write one for every step.
class Cut {
public:
    Cut(char *buf, size_t size) : buf_(buf), room_(size - 1) {}
    void put(char c) {
        if (length_ < room_) buf_[length_++] = c;
    }
    void put(const char *text) {
        const size_t n = strnlen(text, room_ - length_);
        memcpy(buf_ + length_, text, n);
        length_ += n;
    }
    void put(long number) {
        char digits[24];
        size_t n = 0;
        // Built from the negative side, where every long has a value, LONG_MIN included.
        long rest = number < 0 ? number : -number;
        do {
            digits[n++] = static_cast<char>('0' - rest % 10);
            rest /= 10;
        } while (rest != 0);
        if (number < 0) put('-');
        while (n > 0) put(digits[--n]);
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

int plain_vformat(char *buf, size_t size, const char *format, va_list args) {
    Cut out(buf, size);
    for (const char *p = format; *p != '\0'; ++p) {
        if (*p != '%') {
            out.put(*p);
            continue;
        }
        ++p;
        if (*p == '%') {
            out.put('%');
        } else if (*p == 's') {
            const char *text = va_arg(args, const char *);
            out.put(text != nullptr ? text : "(null)");
        } else if (*p == 'l') {
            ++p;
            out.put(va_arg(args, long));
        } else {
            out.put(static_cast<long>(va_arg(args, int)));
        }
    }
    return out.finish();
}

}  // namespace

int bounded_vformat(char *buf, size_t size, const char *format, va_list args) {
    if (buf == nullptr || size == 0) return 0;
    if (plain_conversions_only(format)) return plain_vformat(buf, size, format, args);
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
