// The library's system calls, interposed (the program's definitions come first): each is recorded while recording
// is on (file calls on labelled paths only), fails when scripted to, else forwards to the real call.
// _FORTIFY_SOURCE's inline wrappers of the same names would clash with these definitions.
#undef _FORTIFY_SOURCE
#include "tests/support/fake_platform.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <sys/sem.h>
#include <sys/shm.h>
#include <sys/stat.h>
#include <unistd.h>

#include <map>

namespace fcadmin_test {
static bool recording = false;
static std::map<std::string, std::string> labels;

static std::string label(const char *path) { return labels.count(path) != 0 ? labels[path] : ""; }
static std::string label(int fd) {
    char target[4096] = {};
    return readlink(("/proc/self/fd/" + std::to_string(fd)).c_str(), target, sizeof target - 1) > 0 ? label(target) : "";
}
static std::string str(const void *p) {  // as printf's %p: "(nil)" for a null pointer
    char t[32];
    return std::string(t, static_cast<size_t>(snprintf(t, sizeof t, "%p", p)));
}
static std::string str(const sembuf &o) {
    return "{" + std::to_string(o.sem_num) + "," + std::to_string(o.sem_op) + "," + std::to_string(o.sem_flg) + "}";
}
template <typename T>
static std::string str(T v) { return std::to_string(v); }

// Records the call (file calls only with a label); true with *result and errno when one is scripted.
static bool intercepted(const char *name, const Lines &args, long *result) {
    int err = 0;
    if (!recording || args.at(0).empty() || !record_call(name, args, result, &err)) return false;
    errno = err;
    return true;
}

void interpose(bool on) { recording = on; }
void label_paths(std::vector<std::pair<std::string, std::string>> list) { labels = {list.begin(), list.end()}; }

}  // namespace fcadmin_test

using namespace fcadmin_test;

#define FORWARD(type, name, params, args, ...)                                          \
    type name params {                                                                  \
        long r = 0;                                                                     \
        if (intercepted(#name, {__VA_ARGS__}, &r)) return (type)r;                      \
        return reinterpret_cast<type(*) params>(dlsym(RTLD_NEXT, #name)) args;          \
    }

extern "C" {

FORWARD(int, shmget, (key_t key, size_t size, int flags) noexcept, (key, size, flags), str(key), str(size), str(flags))
FORWARD(void *, shmat, (int id, const void *at, int flags) noexcept, (id, at, flags), str(id), str(at), str(flags))
FORWARD(int, shmdt, (const void *at) noexcept, (at), str(at))
FORWARD(int, semget, (key_t key, int count, int flags) noexcept, (key, count, flags), str(key), str(count), str(flags))
FORWARD(int, semop, (int id, struct sembuf *o, size_t n) noexcept, (id, o, n), str(id), str(*o), str(n))
FORWARD(int, usleep, (useconds_t us), (us), str(us))
FORWARD(ssize_t, read, (int fd, void *buf, size_t n), (fd, buf, n), label(fd))
FORWARD(ssize_t, write, (int fd, const void *buf, size_t n), (fd, buf, n), label(fd))
FORWARD(int, fsync, (int fd), (fd), label(fd))
FORWARD(int, rename, (const char *from, const char *to) noexcept, (from, to), label(from), label(to))

// Forwarded through fstatat, which the headers map to the same stat layout whatever symbol fstat has.
int fstat(int fd, struct stat *buf) noexcept {
    long r = 0;
    return intercepted("fstat", {label(fd)}, &r) ? int(r) : fstatat(fd, "", buf, AT_EMPTY_PATH);
}
// A failing close still releases the descriptor, as on Linux.
int close(int fd) {
    long r = 0;
    const bool failing = intercepted("close", {label(fd)}, &r);
    const int err = errno, result = reinterpret_cast<int (*)(int)>(dlsym(RTLD_NEXT, "close"))(fd);
    errno = failing ? err : errno;
    return failing ? int(r) : result;
}
int system(const char *command) {
    long r = 0;
    intercepted("system", {command}, &r);
    return reinterpret_cast<int (*)(const char *)>(dlsym(RTLD_NEXT, "system"))(command);
}

// A source of a petabyte must make the copy's allocation fail, under the address sanitizer too.
const char *__asan_default_options() { return "allocator_may_return_null=1"; }

}  // extern "C"
