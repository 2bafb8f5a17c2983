// The host trace service's system-log sink: a socket bound at /dev/log takes one datagram per line.
#include "fcadmin_platform.h"
#include "tests/support/helpers.h"

#include <sched.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <regex>

using namespace fcadmin_test;

TEST(HostSyslog, TraceLinesGoToDevLogWithFcadminTraceSyslog) {
    EXPECT_EQ(run_in_child([] {
        // A /dev of this child's own, so that the socket shadows no log daemon of the machine.
        ASSERT_EQ(unshare(CLONE_NEWNS) | mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr), 0);
        ASSERT_EQ(mount("fcadmin-dev", "/dev", "tmpfs", 0, nullptr), 0);
        const int log = socket(AF_UNIX, SOCK_DGRAM, 0);
        const sockaddr_un address{AF_UNIX, "/dev/log"};
        ASSERT_EQ(bind(log, reinterpret_cast<const sockaddr *>(&address), sizeof address), 0);
        int32_t general = -1, detail = -1;
        ASSERT_EQ(trace_module_init(&general, 305, 2048, "FCADMIN", nullptr) |
                      trace_module_init(&detail, 312, 2048, "FCADMIN", nullptr), 0);
        const std::string header = "[A-Z][a-z]{2} [ 1-3][0-9] [0-2][0-9]:[0-5][0-9]:[0-6][0-9] fcadmin\\[" +
                                   std::to_string(getpid()) + "\\]: ";
        // The sink, the channel, the text, and the datagram's pattern (empty: none is sent).
        const std::tuple<const char *, int32_t, const char *, std::string> cases[] = {
            {"syslog", general, "attached\nonce", "<14>" + header + "305 2 attached once"},
            {"syslog", detail, "read lock taken", "<15>" + header + "312 1 read lock taken"},
            {"file", general, "not for the log", ""},
        };
        for (const auto &[sink, handle, text, datagram] : cases) {
            setenv("FCADMIN_TRACE", sink, 1);
            EXPECT_EQ(trace_module_store_lvl(handle, handle == general ? 305 : 312, handle == general ? 2 : 1, 5, text), 0);
            char received[512] = {};
            const ssize_t n = recv(log, received, sizeof received - 1, MSG_DONTWAIT);
            EXPECT_TRUE(n > 0 ? std::regex_match(received, std::regex(datagram)) : datagram.empty()) << received;
        }
    }), 0);
}
