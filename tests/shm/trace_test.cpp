// The trace channels: set-up calls and results, the stored line, the cut, the console echo, and the weak
// hook. Each case runs in a forked child, so that it starts from the library's initial state.
#include "fcadmin.h"
#include "shm/trace.h"
#include "tests/support/fake_platform.h"

#include <dlfcn.h>
#include <unistd.h>

using namespace fcadmin_test;
using fcadmin::TraceChannel;

// The program's own hook replaces the library's weak one at link time.
extern "C" int32_t esm_trace(int32_t value) { return value + 1000; }

namespace {

std::string taken(const std::string &name) {
    std::string out;
    for (const auto &call : calls())
        if (call.name == name) out += call.text().substr(name.size() + 1) + "\n";
    reset_platform();
    return out;
}

TEST(Trace, SetUpDoesWhatIsMissingAndReturnsTheLastOutcome) {
    const std::string general = "305 2048 FCADMIN 1 128 0 0 0\n", detail = "312 2048 FCADMIN 1 128 0 0 0\n";
    in_child([&] {
        // The general set-up fails (its handle stays -1); the call returns the detail channel's result.
        script("trace_module_init handle", {-1, 8});
        script("trace_module_init", {-2, 4});
        EXPECT_EQ(admin_trace_init(), 4);
        EXPECT_EQ(taken("trace_module_init"), general + detail);
        EXPECT_EQ(admin_trhdl + 100 * admin_detail_trhdl, 799);
        // The next call sets up the general channel alone; once both are up, it calls nothing and gives -1.
        script("trace_module_init", {5});
        EXPECT_EQ(admin_trace_init(), 5);
        EXPECT_EQ(taken("trace_module_init"), general);
        EXPECT_EQ(admin_trhdl, 7);
        EXPECT_EQ(admin_trace_init(), -1);
        admin_detail_trhdl = -1;
        script("trace_module_init", {-9});
        EXPECT_EQ(admin_trace_init(), -9);
        EXPECT_EQ(taken("trace_module_init"), detail);
    });
}

TEST(Trace, LinesAreStoredCutAtTheBufferAndGeneralOnesEchoedUnderTheMarker) {
    in_child([] {
        // Before the set-up the lines go out with handle -1 and nothing fails; the store's result is ignored.
        fcadmin::trace_line(TraceChannel::general, "early %d", 1);
        fcadmin::trace_line(TraceChannel::detail, "early %s", "two");
        admin_trace_init();
        script("trace_module_store_lvl", {-1});
        fcadmin::trace_line(TraceChannel::detail, "%s", std::string(200, 'x').c_str());
        fcadmin::trace_line(TraceChannel::detail, "tid=[%ld]", 7L);
        // The whole buffer is cleared before each line, so nothing of the long line survives.
        EXPECT_EQ(std::string(admin_detail_msg_buff, 128), "tid=[7]" + std::string(121, '\0'));
        const std::string echoed = captured(STDOUT_FILENO, [] {
            fcadmin::trace_general_echo("quiet %d", 1);
            write_file(FCADMIN_DEBUG_MARKER, "");
            fcadmin::trace_general_echo("attach %s pid=[%d]", "done", 12);
            fcadmin::trace_line(TraceChannel::general, "not echoed");
            unlink(FCADMIN_DEBUG_MARKER);
        });
        EXPECT_EQ(echoed, "\nattach done pid=[12]\n");
        EXPECT_EQ(taken("trace_module_store_lvl"), "-1 305 2 5 early 1\n-1 312 1 5 early two\n8 312 1 5 " +
                                                       std::string(127, 'x') + "\n8 312 1 5 tid=[7]\n7 305 2 5 quiet 1\n"
                                                       "7 305 2 5 attach done pid=[12]\n7 305 2 5 not echoed\n");
    });
}

TEST(Trace, WeakHookReturnsItsArgumentAndAStrongOneReplacesIt) {
    EXPECT_EQ(esm_trace(42), 1042);
    // The library's own definition, reached through the shared library's local scope.
    std::string library = getenv("FCADMIN_TOOL");
    library = library.substr(0, library.rfind("/bin/")) + "/lib/libfcadmin.so";
    void *handle = dlopen(library.c_str(), RTLD_LAZY | RTLD_LOCAL);
    ASSERT_NE(handle, nullptr) << dlerror();
    EXPECT_EQ(reinterpret_cast<int32_t (*)(int32_t)>(dlsym(handle, "esm_trace"))(42), 42);
    dlclose(handle);
}

}  // namespace
