// The platform trace service on a host: modules get handles, and every stored line goes to the
// in-process ring, is appended to the file that FCADMIN_TRACE_FILE names, if any, and goes to the
// system log with FCADMIN_TRACE=syslog.
#include "fcadmin_platform.h"

#include "common/format.h"
#include "common/unique_fd.h"
#include "host/trace_ring.h"
#include "host/trace_syslog.h"

#include <fcntl.h>
#include <pthread.h>
#include <sys/time.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <ctime>

namespace {

constexpr int32_t kMaxModules = 64;
constexpr const char *kTraceFileVariable = "FCADMIN_TRACE_FILE";

struct Modules {
    pthread_mutex_t lock = PTHREAD_MUTEX_INITIALIZER;
    int32_t ids[kMaxModules] = {};
    int32_t count = 0;
};

Modules modules;

// A module registered again gets its first handle back, so that a second set-up in one process (a
// library loaded twice, a channel set up after a failure) does not use up the table.
int32_t register_module(int32_t module_id) {
    pthread_mutex_lock(&modules.lock);
    int32_t handle = -1;
    for (int32_t i = 0; i < modules.count && handle < 0; ++i)
        if (modules.ids[i] == module_id) handle = i;
    if (handle < 0 && modules.count < kMaxModules) {
        handle = modules.count;
        modules.ids[handle] = module_id;
        __atomic_store_n(&modules.count, handle + 1, __ATOMIC_RELEASE);
    }
    pthread_mutex_unlock(&modules.lock);
    return handle;
}

// Handles are never taken back, so the count alone tells a known one, without the lock.
bool known_handle(int32_t handle) { return handle >= 0 && handle < __atomic_load_n(&modules.count, __ATOMIC_ACQUIRE); }

// The date and time of a line to the second, formatted again only when the second changes.
struct Stamp {
    time_t second = -1;
    char text[32] = {};
};

// "2024-05-01T12:00:00.123456Z 305 2 text": UTC, so that lines of processes in different time
// zones (a daemon, a login shell) sort together in one trace file.
size_t format_line(char *line, size_t size, int32_t module_id, int32_t level, const char *text) {
    struct timespec now = {};
    clock_gettime(CLOCK_REALTIME, &now);
    thread_local Stamp stamp;
    if (now.tv_sec != stamp.second) {
        struct tm utc = {};
        gmtime_r(&now.tv_sec, &utc);
        strftime(stamp.text, sizeof stamp.text, "%Y-%m-%dT%H:%M:%S", &utc);
        stamp.second = now.tv_sec;
    }
    char micro[7];
    long rest = now.tv_nsec / 1000;
    for (int i = 5; i >= 0; --i, rest /= 10) micro[i] = static_cast<char>('0' + rest % 10);
    micro[6] = '\0';
    size_t n = static_cast<size_t>(fcadmin::bounded_format(line, size, "%s.%sZ %d %d %s", stamp.text, micro,
                                                           module_id, level, text));
    // One line per store: a newline inside the text would split it in the file and the dump.
    if (strpbrk(text, "\r\n") != nullptr)
        for (size_t i = 0; i < n; ++i)
            if (line[i] == '\n' || line[i] == '\r') line[i] = ' ';
    return n;
}

// The file is opened for each line: the variable may change between lines, and one write() of a
// whole line to an O_APPEND descriptor keeps lines of concurrent processes from interleaving.
void append_to_trace_file(const char *line, size_t length) {
    const char *path = getenv(kTraceFileVariable);
    if (path == nullptr || *path == '\0') return;
    fcadmin::unique_fd fd(fcadmin::retry_eintr(
        [&] { return open(path, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC | O_NOCTTY, 0644); }));
    if (!fd.valid()) return;
    char buffer[fcadmin::host::kTraceLineSize + 1];
    memcpy(buffer, line, length);
    buffer[length] = '\n';
    fcadmin::retry_eintr([&] { return write(fd.get(), buffer, length + 1); });
}

}  // namespace

extern "C" {

FCADMIN_PLATFORM_API int32_t trace_module_init(int32_t *handle, int32_t module_id, int32_t /*size*/,
                                               const char * /*name*/, uint32_t * /*descriptor*/) {
    if (handle == nullptr) return -1;
    int32_t assigned = register_module(module_id);
    if (assigned < 0) return -1;
    *handle = assigned;
    return 0;
}

// A handle of -1 (a channel that was never set up, or whose set-up failed) is dropped without a word:
// the library stores without testing its handles first.
FCADMIN_PLATFORM_API int32_t trace_module_store_lvl(int32_t handle, int32_t module_id, int32_t level,
                                                    int32_t /*flags*/, const char *text) {
    if (handle == -1) return 0;
    if (!known_handle(handle) || text == nullptr) return -1;
    char line[fcadmin::host::kTraceLineSize];
    size_t length = format_line(line, sizeof line, module_id, level, text);
    fcadmin::host::trace_ring_append(line);
    append_to_trace_file(line, length);
    fcadmin::host::trace_to_syslog(module_id, level, text);
    return 0;
}

}  // extern "C"
