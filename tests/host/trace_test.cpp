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
namespace host = fcadmin::host;

namespace {

std::vector<std::string> ring_lines() {
    std::vector<std::string> lines;
    host::trace_ring_visit([](const char *line, void *out) { static_cast<std::vector<std::string> *>(out)->push_back(line); },
                           &lines);
    return lines;
}

// The ring's lines, oldest first, each ended by a newline.
std::string ring_text() {
    std::string text;
    for (const auto &line : ring_lines()) text += line + "\n";
    return text;
}

const std::string kStamp = R"(\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{6}Z )";

}  // namespace

TEST(HostTrace, HandlesLineFormatAndTheTraceFile) {
    host::trace_ring_clear();
    int32_t general = -1, detail = -1, again = -1;
    uint32_t descriptor[5] = {1, 128, 0, 0, 0};
    EXPECT_EQ(trace_module_init(&general, 305, 2048, "FCADMIN", descriptor), 0);
    EXPECT_EQ(trace_module_init(&detail, 312, 2048, "FCADMIN", descriptor), 0);
    EXPECT_EQ(trace_module_init(&again, 305, 2048, "FCADMIN", nullptr), 0);
    EXPECT_TRUE(general >= 0 && detail >= 0 && general != detail && again == general);
    EXPECT_EQ(trace_module_init(nullptr, 305, 2048, "FCADMIN", descriptor), -1);

    // A channel that was never set up stores quietly and leaves nothing behind, in the ring or the file.
    const std::string file = "/tmp/trace_test.log";
    setenv("FCADMIN_TRACE_FILE", file.c_str(), 1);
    EXPECT_EQ(trace_module_store_lvl(-1, 305, 2, 5, "lost"), 0);
    EXPECT_EQ(trace_module_store_lvl(general, 305, 2, 5, nullptr), -1);
    EXPECT_EQ(trace_module_store_lvl(4711, 305, 2, 5, "unknown handle"), -1);
    EXPECT_EQ(trace_module_store_lvl(general, 305, 2, 5, "attach ok"), 0);
    EXPECT_EQ(trace_module_store_lvl(detail, 312, 1, 5, "two\nlines\r"), 0);
    unsetenv("FCADMIN_TRACE_FILE");
    EXPECT_EQ(trace_module_store_lvl(detail, 312, 1, 5, std::string(1000, 'x').c_str()), 0);
    const std::string two_lines = kStamp + "305 2 attach ok\n" + kStamp + "312 1 two lines \n";
    EXPECT_TRUE(std::regex_match(read_file(file), std::regex(two_lines))) << read_file(file);
    EXPECT_TRUE(std::regex_match(ring_text(), std::regex(two_lines + kStamp + "312 1 x+\n"))) << ring_text();
    EXPECT_EQ(ring_lines().back().size(), host::kTraceLineSize - 1);

    // A file that cannot be written must not fail the store.
    setenv("FCADMIN_TRACE_FILE", "/nonexistent/dir/trace.log", 1);
    EXPECT_EQ(trace_module_store_lvl(general, 305, 2, 5, "still stored"), 0);
    unsetenv("FCADMIN_TRACE_FILE");
    EXPECT_TRUE(ring_text().ends_with(" still stored\n"));
}

TEST(HostTrace, RingKeepsTheNewestLinesAndDumpsThem) {
    host::trace_ring_clear();
    int32_t handle = -1;
    ASSERT_EQ(trace_module_init(&handle, 305, 2048, "FCADMIN", nullptr), 0);
    for (size_t i = 0; i < host::kTraceRingLines + 10; ++i)
        trace_module_store_lvl(handle, 305, 2, 5, ("line " + std::to_string(i)).c_str());
    EXPECT_EQ(host::trace_ring_dropped(), 10u);
    EXPECT_EQ(host::trace_ring_size(), host::kTraceRingLines);
    const std::string text = ring_text();
    EXPECT_TRUE(std::regex_match(ring_lines().front(), std::regex(kStamp + "305 2 line 10")));
    EXPECT_TRUE(text.ends_with(" line " + std::to_string(host::kTraceRingLines + 9) + "\n"));

    FILE *out = fopen("/tmp/trace_test.dump", "w");
    ASSERT_NE(out, nullptr);
    EXPECT_EQ(host::trace_ring_dump(out), host::kTraceRingLines);
    fclose(out);
    EXPECT_EQ(read_file("/tmp/trace_test.dump"), "(10 earlier lines dropped)\n" + text);
}

TEST(HostTrace, ConcurrentStoresKeepEveryLineWhole) {
    host::trace_ring_clear();
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
    const auto lines = ring_lines();
    EXPECT_EQ(lines.size(), 400u);
    const std::regex whole(kStamp + R"(312 1 thread [0-3] step \d{1,2} end)");
    for (const auto &line : lines) EXPECT_TRUE(std::regex_match(line, whole)) << line;
}
