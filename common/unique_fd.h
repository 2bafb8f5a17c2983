// Owners of descriptors and other resources, and a retry helper for interrupted system calls.
#pragma once

#include <cerrno>
#include <unistd.h>
#include <utility>

namespace fcadmin {

// Retries a system call that failed with EINTR; any other outcome is returned as it is.
template <typename F>
auto retry_eintr(F &&call) -> decltype(call()) {
    decltype(call()) result;
    do {
        result = call();
    } while (result == -1 && errno == EINTR);
    return result;
}

class unique_fd {
public:
    unique_fd() = default;
    explicit unique_fd(int fd) : fd_(fd) {}
    unique_fd(const unique_fd &) = delete;
    unique_fd &operator=(const unique_fd &) = delete;
    unique_fd(unique_fd &&other) noexcept : fd_(other.release()) {}
    unique_fd &operator=(unique_fd &&other) noexcept {
        reset(other.release());
        return *this;
    }
    ~unique_fd() { reset(); }

    int get() const { return fd_; }
    bool valid() const { return fd_ >= 0; }
    int release() { return std::exchange(fd_, -1); }
    // Closes the descriptor now and returns the result of close (0 when there was none).
    int reset(int fd = -1) {
        int result = 0;
        if (fd_ >= 0) result = ::close(fd_);
        fd_ = fd;
        return result;
    }

private:
    int fd_ = -1;
};

// Runs a callable when the scope ends, unless released first.
template <typename F>
class scope_exit {
public:
    explicit scope_exit(F fn) : fn_(std::move(fn)) {}
    scope_exit(const scope_exit &) = delete;
    scope_exit &operator=(const scope_exit &) = delete;
    ~scope_exit() {
        if (armed_) fn_();
    }
    void release() { armed_ = false; }

private:
    F fn_;
    bool armed_ = true;
};

}  // namespace fcadmin
