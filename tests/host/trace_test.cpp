// The host trace service: handles, the line format, the ring's bound, the trace file.
#include "fcadmin_platform.h"
#include "host/trace_ring.h"
#include "tests/support/helpers.h"

#include <cstdlib>
#include <regex>
#include <string>
#include <thread>
#include <vector>

using namespace fcadmin_test;
using fcadmin::host::kTraceRingLines;

namespace {

std::vector<std::string> ring_lines() {
    std::vector<std::string> lines;
    fcadmin::host::trace_ring_visit(
        [](const char *line, void *context) { static_cast<std::vector<std::string> *>(context)->push_back(line); },
        &lines);
    return lines;
}

const std::regex kLineShape(R"(\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{6}Z (-?\d+) (-?\d+) (.*))");

}  // namespace

TEST(HostTrace, HandlesAndLineFormat) {
    fcadmin::host::trace_ring_clear();
    int32_t general = -1, detail = -1, again = -1;
    uint32_t descriptor[5] = {1, 128, 0, 0, 0};
    EXPECT_EQ(trace_module_init(&general, 305, 2048, "FCADMIN", descriptor), 0);
    EXPECT_EQ(trace_module_init(&detail, 312, 2048, "FCADMIN", descriptor), 0);
    EXPECT_EQ(trace_module_init(&again, 305, 2048, "FCADMIN", descriptor), 0);
    EXPECT_GE(general, 0);
    EXPECT_GE(detail, 0);
    EXPECT_NE(general, detail);
    EXPECT_EQ(again, general);
    EXPECT_EQ(trace_module_init(nullptr, 305, 2048, "FCADMIN", descriptor), -1);

    // A channel that was never set up stores quietly and leaves nothing behind.
    EXPECT_EQ(trace_module_store_lvl(-1, 305, 2, 5, "lost"), 0);
    EXPECT_EQ(trace_module_store_lvl(general, 305, 2, 5, nullptr), -1);
    EXPECT_EQ(trace_module_store_lvl(4711, 305, 2, 5, "unknown handle"), -1);
    EXPECT_EQ(fcadmin::host::trace_ring_size(), 0u);

    EXPECT_EQ(trace_module_store_lvl(general, 305, 2, 5, "attach ok"), 0);
    EXPECT_EQ(trace_module_store_lvl(detail, 312, 1, 5, "two\nlines\r"), 0);
    EXPECT_EQ(trace_module_store_lvl(detail, 312, 1, 5, std::string(1000, 'x').c_str()), 0);
    auto lines = ring_lines();
    ASSERT_EQ(lines.size(), 3u);
    std::smatch m;
    ASSERT_TRUE(std::regex_match(lines[0], m, kLineShape)) << lines[0];
    EXPECT_EQ(m[1], "305");
    EXPECT_EQ(m[2], "2");
    EXPECT_EQ(m[3], "attach ok");
    ASSERT_TRUE(std::regex_match(lines[1], m, kLineShape)) << lines[1];
    EXPECT_EQ(m[1], "312");
    EXPECT_EQ(m[3], "two lines ");
    EXPECT_EQ(lines[2].size(), fcadmin::host::kTraceLineSize - 1);
}

TEST(HostTrace, RingKeepsTheNewestLinesAndDumpsThem) {
    fcadmin::host::trace_ring_clear();
    int32_t handle = -1;
    ASSERT_EQ(trace_module_init(&handle, 305, 2048, "FCADMIN", nullptr), 0);
    for (size_t i = 0; i < kTraceRingLines + 10; ++i)
        trace_module_store_lvl(handle, 305, 2, 5, ("line " + std::to_string(i)).c_str());
    EXPECT_EQ(fcadmin::host::trace_ring_size(), kTraceRingLines);
    EXPECT_EQ(fcadmin::host::trace_ring_dropped(), 10u);
    auto lines = ring_lines();
    ASSERT_EQ(lines.size(), kTraceRingLines);
    EXPECT_TRUE(lines.front().ends_with(" line 10")) << lines.front();
    EXPECT_TRUE(lines.back().ends_with(" line " + std::to_string(kTraceRingLines + 9))) << lines.back();

    FILE *out = tmpfile();
    ASSERT_NE(out, nullptr);
    EXPECT_EQ(fcadmin::host::trace_ring_dump(out), kTraceRingLines);
    rewind(out);
    char first[128] = {}, second[300] = {};
    ASSERT_NE(fgets(first, sizeof first, out), nullptr);
    ASSERT_NE(fgets(second, sizeof second, out), nullptr);
    fclose(out);
    EXPECT_STREQ(first, "(10 earlier lines dropped)\n");
    EXPECT_EQ(std::string(second), lines.front() + "\n");
}

TEST(HostTrace, ConcurrentStoresKeepEveryLineWhole) {
    fcadmin::host::trace_ring_clear();
    int32_t handle = -1;
    ASSERT_EQ(trace_module_init(&handle, 312, 2048, "FCADMIN", nullptr), 0);
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t)
        threads.emplace_back([t, handle] {
            for (int i = 0; i < 100; ++i) {
                std::string text = "thread " + std::to_string(t) + " step " + std::to_string(i) + " end";
                trace_module_store_lvl(handle, 312, 1, 5, text.c_str());
            }
        });
    for (auto &th : threads) th.join();
    auto lines = ring_lines();
    ASSERT_EQ(lines.size(), 400u);
    const std::regex whole(R"(.*Z 312 1 thread [0-3] step \d{1,2} end)");
    for (const auto &line : lines) EXPECT_TRUE(std::regex_match(line, whole)) << line;
}

TEST(HostTrace, TraceFileGetsEveryLineWhileTheVariableIsSet) {
    int32_t handle = -1;
    ASSERT_EQ(trace_module_init(&handle, 305, 2048, "FCADMIN", nullptr), 0);
    const std::string path = "/tmp/trace_test.log";
    unlink(path.c_str());
    setenv("FCADMIN_TRACE_FILE", path.c_str(), 1);
    trace_module_store_lvl(handle, 305, 2, 5, "first");
    trace_module_store_lvl(-1, 305, 2, 5, "not set up");
    trace_module_store_lvl(handle, 305, 2, 5, "second");
    unsetenv("FCADMIN_TRACE_FILE");
    trace_module_store_lvl(handle, 305, 2, 5, "after unset");
    const std::regex two_lines(R"(\S+Z 305 2 first\n\S+Z 305 2 second\n)");
    EXPECT_TRUE(std::regex_match(read_file(path), two_lines)) << read_file(path);

    // A file that cannot be written must not fail the store.
    setenv("FCADMIN_TRACE_FILE", "/nonexistent/dir/trace.log", 1);
    EXPECT_EQ(trace_module_store_lvl(handle, 305, 2, 5, "still stored"), 0);
    unsetenv("FCADMIN_TRACE_FILE");
    EXPECT_TRUE(ring_lines().back().ends_with(" still stored"));
}
