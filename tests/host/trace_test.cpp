// The host trace service: handles, the line format, the trace file, the ring's bound and its dump, and
// concurrent stores (this program also runs under ThreadSanitizer).
#include "fcadmin_platform.h"
#include "host/trace_ring.h"
#include "tests/support/helpers.h"

#include <regex>
#include <thread>

using namespace fcadmin_test;
namespace host = fcadmin::host;

namespace {

const std::string kStamp = R"(\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{6}Z )";

std::string ring_text() {
    std::string text;
    host::trace_ring_visit([](const char *line, void *out) { *static_cast<std::string *>(out) += line + std::string("\n"); },
                           &text);
    return text;
}

TEST(HostTrace, HandlesLinesAndTheTraceFile) {
    host::trace_ring_clear();
    int32_t general = -1, detail = -1, again = -1;
    EXPECT_EQ(trace_module_init(&general, 305, 2048, "FCADMIN", nullptr) +
                  trace_module_init(&detail, 312, 2048, "FCADMIN", nullptr) +
                  trace_module_init(&again, 305, 2048, "FCADMIN", nullptr),
              0);
    EXPECT_TRUE(general >= 0 && detail >= 0 && general != detail && again == general);
    EXPECT_EQ(trace_module_init(nullptr, 305, 2048, "FCADMIN", nullptr), -1);
    // A channel that was never set up stores quietly and leaves nothing behind.
    setenv("FCADMIN_TRACE_FILE", "/tmp/trace.log", 1);
    EXPECT_EQ(trace_module_store_lvl(-1, 305, 2, 5, "lost"), 0);
    EXPECT_EQ(trace_module_store_lvl(general, 305, 2, 5, nullptr) + trace_module_store_lvl(4711, 305, 2, 5, "?"), -2);
    EXPECT_EQ(trace_module_store_lvl(general, 305, 2, 5, "attach ok"), 0);
    EXPECT_EQ(trace_module_store_lvl(detail, 312, 1, 5, "two\nlines\r"), 0);
    // A line is cut to fit 256 bytes with its terminator, in the ring and in the file.
    EXPECT_EQ(trace_module_store_lvl(detail, 312, 1, 5, std::string(222, 'x').c_str()), 0);
    setenv("FCADMIN_TRACE_FILE", "/nonexistent/dir/trace.log", 1);  // must not fail the store
    EXPECT_EQ(trace_module_store_lvl(detail, 312, 1, 5, std::string(1000, 'y').c_str()), 0);
    unsetenv("FCADMIN_TRACE_FILE");
    const std::string lines = kStamp + "305 2 attach ok\n" + kStamp + "312 1 two lines \n" + kStamp + "312 1 x{221}\n";
    EXPECT_TRUE(std::regex_match(read_file("/tmp/trace.log"), std::regex(lines))) << read_file("/tmp/trace.log");
    EXPECT_TRUE(std::regex_match(ring_text(), std::regex(lines + kStamp + "312 1 y{221}\n"))) << ring_text();
    // 64 modules have handles; one more does not.
    for (int32_t id = 1; id <= 64; ++id) EXPECT_EQ(trace_module_init(&again, 1000 + id, 0, "", nullptr), id > 62 ? -1 : 0);
}

TEST(HostTrace, RingKeepsTheNewestLinesAndDumpsThem) {
    host::trace_ring_clear();
    int32_t handle = -1;
    ASSERT_EQ(trace_module_init(&handle, 305, 2048, "FCADMIN", nullptr), 0);
    for (size_t i = 0; i < 522; ++i) trace_module_store_lvl(handle, 305, 2, 5, ("line " + std::to_string(i)).c_str());
    EXPECT_EQ(host::trace_ring_dropped(), 10u);  // the newest 512 are kept
    EXPECT_EQ(host::trace_ring_size(), 512u);
    const std::string text = ring_text();
    EXPECT_TRUE(std::regex_match(text.substr(0, text.find('\n')), std::regex(kStamp + "305 2 line 10")));
    FILE *out = fopen("/tmp/trace.dump", "w");
    EXPECT_EQ(host::trace_ring_dump(out) + host::trace_ring_dump(nullptr), 512u);
    fclose(out);
    EXPECT_EQ(read_file("/tmp/trace.dump"), "(10 earlier lines dropped)\n" + text);
}

TEST(HostTrace, ConcurrentStoresKeepEveryLineWhole) {
    host::trace_ring_clear();
    int32_t handle = -1;
    ASSERT_EQ(trace_module_init(&handle, 312, 2048, "FCADMIN", nullptr), 0);
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t)
        threads.emplace_back([t, handle] {
            for (int i = 0; i < 100; ++i)
                trace_module_store_lvl(handle, 312, 1, 5, ("thread " + std::to_string(t) + " step " + std::to_string(i)).c_str());
        });
    for (auto &th : threads) th.join();
    EXPECT_TRUE(std::regex_match(ring_text(), std::regex("(" + kStamp + R"(312 1 thread [0-3] step \d{1,2}\n){400})")));
}

}  // namespace
