// The host trace service: handles, lines, the trace file, the ring and its dump, stores from threads (under TSan
// too), and the system-log sink, a socket bound at /dev/log taking one datagram per line.
#include "fcadmin_platform.h"
#include "host/trace_ring.h"
#include "tests/support/helpers.h"

#include <sched.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <regex>
#include <thread>

using namespace fcadmin_test;
namespace host = fcadmin::host;

const std::string kStamp = R"(\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{6}Z )";

static std::string ring_text(std::string text = "") {
    host::trace_ring_visit([](const char *line, void *out) { static_cast<std::string *>(out)->append(line) += '\n'; }, &text);
    return text;
}

TEST(HostTrace, HandlesLinesTheTraceFileTheRingAndConcurrentStores) {
    host::trace_ring_clear();
    int32_t general = -1, detail = -1, again = -1;
    ASSERT_EQ(trace_module_init(&general, 305, 2048, "FCADMIN", nullptr) + trace_module_init(nullptr, 1, 0, "", nullptr), -1);
    ASSERT_EQ(trace_module_init(&detail, 312, 2048, "FCADMIN", nullptr) + trace_module_init(&again, 305, 0, "", nullptr), 0);
    EXPECT_TRUE(general >= 0 && detail >= 0 && general != detail && again == general);  // a module keeps its handle
    // A channel never set up stores quietly; one line a store, cut to fit 256 bytes, to the ring and the file named.
    setenv("FCADMIN_TRACE_FILE", "/tmp/trace.log", 1);
    EXPECT_EQ(trace_module_store_lvl(-1, 305, 2, 5, "lost"), 0);
    EXPECT_EQ(trace_module_store_lvl(general, 305, 2, 5, nullptr) + trace_module_store_lvl(4711, 305, 2, 5, "?"), -2);
    EXPECT_EQ(trace_module_store_lvl(general, 305, 2, 5, "attach ok"), 0);
    trace_module_store_lvl(detail, 312, 1, 5, "two\nlines\r");
    trace_module_store_lvl(detail, 312, 1, 5, std::string(222, 'x').c_str());
    unsetenv("FCADMIN_TRACE_FILE"), trace_module_store_lvl(detail, 312, 1, 5, std::string(1000, 'y').c_str());
    const std::string lines = kStamp + "305 2 attach ok\n" + kStamp + "312 1 two lines \n" + kStamp + "312 1 x{221}\n";
    EXPECT_TRUE(std::regex_match(read_file("/tmp/trace.log"), std::regex(lines))) << read_file("/tmp/trace.log");
    EXPECT_TRUE(std::regex_match(ring_text(), std::regex(lines + kStamp + "312 1 y{221}\n"))) << ring_text();
    host::trace_ring_clear();  // the ring keeps the newest 512 lines, and dumps them after a note of those dropped
    for (size_t i = 0; i < 522; ++i) trace_module_store_lvl(general, 305, 2, 5, ("line " + std::to_string(i)).c_str());
    EXPECT_EQ(ring_text().substr(28, 14), "305 2 line 10\n");  // after the stamp of 28 characters
    FILE *out = fopen("/tmp/trace.dump", "w");
    EXPECT_TRUE(host::trace_ring_dump(out) + host::trace_ring_dump(nullptr) == 512u && fclose(out) == 0);
    EXPECT_EQ(read_file("/tmp/trace.dump"), "(10 earlier lines dropped)\n" + ring_text());
    host::trace_ring_clear();  // stores from several threads (joined as the loop ends) leave every line whole
    for (std::vector<std::jthread> threads; int t : {0, 1, 2, 3}) threads.emplace_back([t, detail] {
        for (int i = 0; i < 100; ++i) trace_module_store_lvl(detail, 312, 1, 5, std::to_string(100 * t + i).c_str());
    });
    EXPECT_TRUE(std::regex_match(ring_text(), std::regex("(" + kStamp + R"(312 1 \d{1,3}\n){400})")));
    // 64 modules have handles; one more does not.
    for (int32_t id = 1; id <= 64; ++id) EXPECT_EQ(trace_module_init(&again, 1000 + id, 0, "", nullptr), id > 62 ? -1 : 0);
}

TEST(HostSyslog, TraceLinesGoToDevLogWithFcadminTraceSyslog) {
    in_child([] {
        const int log = socket(AF_UNIX, SOCK_DGRAM, 0);
        const sockaddr_un address{AF_UNIX, "/dev/log"};  // in a /dev of this child's own: it shadows no log daemon
        ASSERT_TRUE(unshare(CLONE_NEWNS) == 0 && mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
                    mount("fcadmin-dev", "/dev", "tmpfs", 0, nullptr) == 0 &&
                    bind(log, reinterpret_cast<const sockaddr *>(&address), sizeof address) == 0);
        int32_t general = -1, detail = -1;
        ASSERT_EQ(trace_module_init(&general, 305, 0, "", nullptr) + trace_module_init(&detail, 312, 0, "", nullptr), 0);
        const std::string header = R"([A-Z][a-z]{2} [ 123]\d \d\d:\d\d:\d\d fcadmin\[)" + std::to_string(getpid()) + R"(\]: )";
        const std::tuple<const char *, int32_t, const char *, std::string> cases[] = {  // sink, channel, text, datagram
            {"syslog", general, "attached\nonce", "<14>" + header + "305 2 attached once"}, {"file", general, "not sent", ""},
            {"syslog", detail, "read lock taken", "<15>" + header + "312 1 read lock taken"}};
        for (const auto &[sink, handle, text, datagram] : cases) {
            setenv("FCADMIN_TRACE", sink, 1);
            EXPECT_EQ(trace_module_store_lvl(handle, handle == general ? 305 : 312, handle == general ? 2 : 1, 5, text), 0);
            char received[512] = {};
            const ssize_t n = recv(log, received, sizeof received - 1, MSG_DONTWAIT);
            EXPECT_TRUE(n > 0 ? std::regex_match(received, std::regex(datagram)) : datagram.empty()) << received;
        }
    });
}
