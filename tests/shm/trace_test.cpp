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
using fcadmin::trace_line;

// The program's own hook replaces the library's weak one at link time.
extern "C" int32_t esm_trace(int32_t value) { return value + 1000; }

namespace {

using Calls = std::vector<std::vector<std::string>>;

const std::vector<std::string> kGeneralInit = {"305", "2048", "FCADMIN", "1", "128", "0", "0", "0"};
const std::vector<std::string> kDetailInit = {"312", "2048", "FCADMIN", "1", "128", "0", "0", "0"};

Calls calls_of(const std::string &name) {
    Calls out;
    for (const auto &call : platform_calls_of(name)) out.push_back(call.args);
    reset_platform();
    return out;
}

void in_child(const std::function<void()> &body) { EXPECT_EQ(run_in_child(body), 0); }

}  // namespace

TEST(TraceInit, SetsUpWhatIsMissingAndReturnsTheLastOutcome) {
    in_child([&] {
        // The general set-up fails (its handle stays -1); the call returns the detail channel's result.
        EXPECT_EQ(admin_trhdl, -1);
        script_trace_handles({-1, 8});
        script_results("trace_module_init", {-2, 4});
        EXPECT_EQ(admin_trace_init(), 4);
        EXPECT_EQ(calls_of("trace_module_init"), (Calls{kGeneralInit, kDetailInit}));
        EXPECT_EQ(admin_trhdl, -1);
        EXPECT_EQ(admin_detail_trhdl, 8);
        // The next call tries the general channel again, alone; once both are up, it calls nothing.
        script_results("trace_module_init", {5});
        EXPECT_EQ(admin_trace_init(), 5);
        EXPECT_EQ(calls_of("trace_module_init"), (Calls{kGeneralInit}));
        EXPECT_EQ(admin_trhdl, 7);
        EXPECT_EQ(admin_trace_init(), -1);
        EXPECT_TRUE(platform_calls().empty());
        // General up, detail missing: only the detail channel, and its result.
        admin_detail_trhdl = -1;
        script_results("trace_module_init", {-9});
        EXPECT_EQ(admin_trace_init(), -9);
        EXPECT_EQ(calls_of("trace_module_init"), (Calls{kDetailInit}));
    });
}

TEST(TraceLine, StoresCutAtTheBufferAndEchoesGeneralLinesUnderTheMarker) {
    in_child([&] {
        // Before the set-up the lines go out with handle -1 and nothing fails; the store's result is ignored.
        trace_line(TraceChannel::general, "early %d", 1);
        trace_line(TraceChannel::detail, "early %s", "two");
        admin_trace_init();
        script_results("trace_module_store_lvl", {-1});
        trace_line(TraceChannel::detail, "%s", std::string(200, 'x').c_str());
        trace_line(TraceChannel::detail, "tid=[%ld]", 7L);
        // The whole buffer is cleared before each line, so nothing of the long line survives.
        EXPECT_EQ(std::string(admin_detail_msg_buff, sizeof admin_detail_msg_buff), "tid=[7]" + std::string(121, '\0'));

        // Only general lines written with the echo go to standard output, and only while the marker is readable.
        fflush(stdout);
        const int saved = dup(1), fd = open("/tmp/stdout", O_WRONLY | O_CREAT | O_TRUNC, 0600);
        dup2(fd, 1);
        fcadmin::trace_general_echo("quiet %d", 1);
        write_file(FCADMIN_DEBUG_MARKER, "");
        fcadmin::trace_general_echo("attach %s pid=[%d]", "done", 12);
        trace_line(TraceChannel::general, "not echoed");
        trace_line(TraceChannel::detail, "never echoed");
        fflush(stdout);
        dup2(saved, 1);
        unlink(FCADMIN_DEBUG_MARKER);
        EXPECT_EQ(read_file("/tmp/stdout"), "\nattach done pid=[12]\n");
        EXPECT_EQ(calls_of("trace_module_store_lvl"), (Calls{{"-1", "305", "2", "5", "early 1"},
                                                             {"-1", "312", "1", "5", "early two"},
                                                             {"8", "312", "1", "5", std::string(127, 'x')},
                                                             {"8", "312", "1", "5", "tid=[7]"},
                                                             {"7", "305", "2", "5", "quiet 1"},
                                                             {"7", "305", "2", "5", "attach done pid=[12]"},
                                                             {"7", "305", "2", "5", "not echoed"},
                                                             {"8", "312", "1", "5", "never echoed"}}));
    });
}

TEST(EsmTrace, WeakHookReturnsItsArgumentAndAStrongOneReplacesIt) {
    EXPECT_EQ(esm_trace(42), 1042);
    // The library's own definition, reached through the shared library's local scope.
    std::string library = getenv("FCADMIN_TOOL");
    library = library.substr(0, library.rfind('/'));
    library = library.substr(0, library.rfind('/')) + "/lib/libfcadmin.so";
    void *handle = dlopen(library.c_str(), RTLD_LAZY | RTLD_LOCAL);
    ASSERT_NE(handle, nullptr) << dlerror();
    auto weak_hook = reinterpret_cast<int32_t (*)(int32_t)>(dlsym(handle, "esm_trace"));
    ASSERT_NE(weak_hook, nullptr);
    EXPECT_EQ(weak_hook(42), 42);
    dlclose(handle);
}
