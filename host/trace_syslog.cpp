// The system-log sink of the host trace service: one datagram per line to /dev/log, in the format of
// syslog(3). It does not use syslog(3) itself, whose openlog() identity is the whole process's: the
// program that loads the library keeps its own.
#include "host/trace_syslog.h"

#include "common/format.h"
#include "common/unique_fd.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <syslog.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <ctime>

namespace fcadmin::host {
namespace {

constexpr const char kTraceVariable[] = "FCADMIN_TRACE";
constexpr const char kSyslogSink[] = "syslog";
constexpr const char kLogSocket[] = "/dev/log";
constexpr const char kIdentifier[] = "fcadmin";
constexpr int32_t kDetailLevel = 1;
constexpr size_t kDatagramSize = 512;
constexpr const char *kMonths[] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                   "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};

bool wanted() {
    const char *sink = getenv(kTraceVariable);
    return sink != nullptr && strcmp(sink, kSyslogSink) == 0;
}

}  // namespace

void trace_to_syslog(int32_t module_id, int32_t level, const char *text) {
    if (!wanted()) return;
    const int priority = LOG_USER | (level <= kDetailLevel ? LOG_DEBUG : LOG_INFO);
    const time_t now = time(nullptr);
    struct tm local = {};
    localtime_r(&now, &local);
    // "<14>May  1 12:00:00 fcadmin[42]: 305 2 text", one line; the month in English whatever the locale,
    // as the log daemons parse it.
    char datagram[kDatagramSize];
    const int length = bounded_format(datagram, sizeof datagram, "<%d>%s %2d %02d:%02d:%02d %s[%d]: %d %d %s",
                                      priority, kMonths[local.tm_mon], local.tm_mday, local.tm_hour, local.tm_min,
                                      local.tm_sec, kIdentifier, static_cast<int>(getpid()), module_id, level, text);
    for (int i = 0; i < length; ++i)
        if (datagram[i] == '\n' || datagram[i] == '\r') datagram[i] = ' ';

    unique_fd fd(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    if (!fd.valid()) return;
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    bounded_copy(address.sun_path, kLogSocket);
    // The library traces while it holds its locks: a full log socket drops the line rather than wait.
    retry_eintr([&] {
        return sendto(fd.get(), datagram, static_cast<size_t>(length), MSG_DONTWAIT | MSG_NOSIGNAL,
                      reinterpret_cast<const sockaddr *>(&address), sizeof address);
    });
}

}  // namespace fcadmin::host
