// The trace channels: set-up calls and results, the stored line, the cut, the console echo and the weak
// hook. Every case runs in a forked child so that it starts from the library's initial state.
#include "fcadmin.h"
#include "shm/trace.h"
#include "tests/support/fake_platform.h"
#include "tests/support/helpers.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <unistd.h>

#include <string>
#include <vector>

using namespace fcadmin_test;
using fcadmin::TraceChannel;
using fcadmin::trace_general_echo;
using fcadmin::trace_line;

// The program's own hook replaces the library's weak one at link time.
extern "C" int32_t esm_trace(int32_t value) { return value + 1000; }

namespace {

using Args = std::vector<std::string>;

const Args kGeneralInit = {"305", "2048", "FCADMIN", "1", "128", "0", "0", "0"};
const Args kDetailInit = {"312", "2048", "FCADMIN", "1", "128", "0", "0", "0"};

std::vector<Args> calls_of(const std::string &name) {
    std::vector<Args> out;
    for (const auto &call : platform_calls_of(name)) out.push_back(call.args);
    return out;
}

// Runs body with standard output going to a file and returns what it printed.
template <typename F>
std::string capture_stdout(F body) {
    fflush(stdout);
    const std::string path = "/tmp/trace_test_stdout";
    const int saved = dup(1);
    const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    dup2(fd, 1);
    close(fd);
    body();
    fflush(stdout);
    dup2(saved, 1);
    close(saved);
    return read_file(path);
}

}  // namespace

TEST(TraceInit, SetsUpBothChannelsOnceAndReturnsTheLastOutcome) {
    EXPECT_EQ(run_in_child([&] {
        reset_platform();
        EXPECT_EQ(admin_trhdl, -1);
        EXPECT_EQ(admin_detail_trhdl, -1);
        script_results("trace_module_init", {3, 4});
        EXPECT_EQ(admin_trace_init(), 4);
        EXPECT_EQ(calls_of("trace_module_init"), (std::vector<Args>{kGeneralInit, kDetailInit}));
        EXPECT_EQ(admin_trhdl, 7);
        EXPECT_EQ(admin_detail_trhdl, 8);
        EXPECT_EQ(admin_trace_buff[0], 1u);
        EXPECT_EQ(admin_trace_buff[1], 128u);
        EXPECT_EQ(admin_detail_trace_buff[1], 128u);

        // Both set up: nothing is called and the result is -1.
        reset_platform();
        EXPECT_EQ(admin_trace_init(), -1);
        EXPECT_TRUE(platform_calls().empty());
    }), 0);
}

TEST(TraceInit, SetsUpOnlyTheChannelThatIsMissing) {
    EXPECT_EQ(run_in_child([&] {
        // General already up: only the detail channel, and its result.
        reset_platform();
        admin_trhdl = 11;
        script_results("trace_module_init", {-9});
        EXPECT_EQ(admin_trace_init(), -9);
        EXPECT_EQ(calls_of("trace_module_init"), (std::vector<Args>{kDetailInit}));
        EXPECT_EQ(admin_trhdl, 11);
    }), 0);
    EXPECT_EQ(run_in_child([&] {
        // A general set-up that failed (handle still -1) is tried again on the next call, alone, and
        // that call returns its result.
        reset_platform();
        script_trace_handles({-1, 8});
        script_results("trace_module_init", {-2, 0});
        EXPECT_EQ(admin_trace_init(), 0);
        EXPECT_EQ(admin_trhdl, -1);
        reset_platform();
        script_results("trace_module_init", {5});
        EXPECT_EQ(admin_trace_init(), 5);
        EXPECT_EQ(calls_of("trace_module_init"), (std::vector<Args>{kGeneralInit}));
        EXPECT_EQ(admin_trhdl, 7);
    }), 0);
}

TEST(TraceLine, StoresWithHandleModuleLevelAndFive) {
    EXPECT_EQ(run_in_child([&] {
        reset_platform();
        // Before the set-up the lines go out with handle -1 and nothing fails.
        trace_line(TraceChannel::general, "early %d", 1);
        trace_line(TraceChannel::detail, "early %s", "two");
        admin_trace_init();
        script_results("trace_module_store_lvl", {-1});  // ignored
        trace_line(TraceChannel::general, "pid=[%d]", 42);
        trace_line(TraceChannel::detail, "tid=[%ld]", 7L);
        EXPECT_EQ(calls_of("trace_module_store_lvl"), (std::vector<Args>{
                                                           {"-1", "305", "2", "5", "early 1"},
                                                           {"-1", "312", "1", "5", "early two"},
                                                           {"7", "305", "2", "5", "pid=[42]"},
                                                           {"8", "312", "1", "5", "tid=[7]"},
                                                       }));
    }), 0);
}

TEST(TraceLine, CutsAt127AndClearsTheBuffer) {
    EXPECT_EQ(run_in_child([&] {
        reset_platform();
        admin_trace_init();
        const std::string longer(200, 'x');
        trace_line(TraceChannel::detail, "%s", longer.c_str());
        trace_line(TraceChannel::detail, "short");
        const auto stored = calls_of("trace_module_store_lvl");
        ASSERT_EQ(stored.size(), 2u);
        EXPECT_EQ(stored[0][4], std::string(127, 'x'));
        EXPECT_EQ(stored[1][4], "short");
        // The whole buffer is cleared before each line, so nothing of the long line survives.
        EXPECT_EQ(std::string(admin_detail_msg_buff, sizeof admin_detail_msg_buff),
                  "short" + std::string(128 - 5, '\0'));
        EXPECT_EQ(admin_msg_buff[0], '\0');
    }), 0);
}

TEST(TraceEcho, GeneralLinesEchoWhileTheMarkerIsReadable) {
    EXPECT_EQ(run_in_child([&] {
        reset_platform();
        admin_trace_init();
        unlink(FCADMIN_DEBUG_MARKER);
        EXPECT_EQ(capture_stdout([] { trace_general_echo("quiet %d", 1); }), "");

        write_file(FCADMIN_DEBUG_MARKER, "");
        EXPECT_EQ(capture_stdout([] {
                      trace_general_echo("attach %s pid=[%d]", "done", 12);
                      trace_line(TraceChannel::general, "not echoed");
                      trace_line(TraceChannel::detail, "never echoed");
                  }),
                  "\nattach done pid=[12]\n");
        unlink(FCADMIN_DEBUG_MARKER);

        const auto stored = calls_of("trace_module_store_lvl");
        ASSERT_EQ(stored.size(), 4u);
        EXPECT_EQ(stored[0], (Args{"7", "305", "2", "5", "quiet 1"}));
        EXPECT_EQ(stored[1], (Args{"7", "305", "2", "5", "attach done pid=[12]"}));
        EXPECT_EQ(stored[3], (Args{"8", "312", "1", "5", "never echoed"}));
    }), 0);
}

TEST(EsmTrace, WeakHookReturnsItsArgumentAndAStrongOneReplacesIt) {
    EXPECT_EQ(esm_trace(42), 1042);

    // The library's own definition, reached through the shared library's local scope.
    const char *tool = getenv("FCADMIN_TOOL");
    ASSERT_NE(tool, nullptr);
    std::string library = tool;
    library = library.substr(0, library.rfind('/'));
    library = library.substr(0, library.rfind('/')) + "/lib/libfcadmin.so";
    void *handle = dlopen(library.c_str(), RTLD_LAZY | RTLD_LOCAL);
    ASSERT_NE(handle, nullptr) << dlerror();
    auto weak_hook = reinterpret_cast<int32_t (*)(int32_t)>(dlsym(handle, "esm_trace"));
    ASSERT_NE(weak_hook, nullptr);
    EXPECT_EQ(weak_hook(42), 42);
    EXPECT_EQ(weak_hook(-7), -7);
    dlclose(handle);
}
