// The trace channels from the library's initial state: set-up, stored line, cut, console echo; the weak hook.
#include "fcadmin.h"
#include "shm/trace.h"
#include "tests/support/fake_platform.h"

#include <dlfcn.h>
#include <unistd.h>

using namespace fcadmin_test;

// The program's own hook replaces the library's weak one at link time.
extern "C" int32_t esm_trace(int32_t value) { return value + 1000; }

static std::string taken() {  // the calls since the last look, one a line
    std::string out;
    for (const auto &call : std::exchange(calls(), {})) out += call.text() + "\n";
    return out;
}

TEST(Trace, LinesCutAndEchoedTheSetUpDoesWhatIsMissingAndTheWeakHook) {
    in_child([] {
        // Handle -1 before the set-up; under the debug marker a general line is echoed between newlines.
        EXPECT_EQ(captured(STDOUT_FILENO, [] {
                      fcadmin::trace_general_echo("early %d", 1);
                      fcadmin::trace_line(fcadmin::TraceChannel::detail, "%s", std::string(200, 'x').c_str());
                      write_file(FCADMIN_DEBUG_MARKER, "");
                      fcadmin::trace_line(fcadmin::TraceChannel::detail, "tid=[%ld]", 7L);
                      fcadmin::trace_general_echo("attach %s pid=[%d]", "done", 12);
                  }), "\nattach done pid=[12]\n");
        EXPECT_EQ(std::string(admin_detail_msg_buff, 128), "tid=[7]" + std::string(121, '\0'));  // cleared first
        EXPECT_EQ(taken(), "trace_module_store_lvl -1 305 2 5 early 1\ntrace_module_store_lvl -1 312 1 5 " +
                               std::string(127, 'x') + "\ntrace_module_store_lvl -1 312 1 5 tid=[7]\n"
                               "trace_module_store_lvl -1 305 2 5 attach done pid=[12]\n");
        // A failed set-up (handle -1; 0 is valid) is made again; the result: the last one made's, -1 if none.
        script("trace_module_init handle", {-1, 0});
        script("trace_module_init", {-2, 4, 5});
        EXPECT_EQ((std::vector{admin_trace_init(), admin_trace_init(), admin_trace_init()}), std::vector({4, 5, -1}));
        const std::string general = "trace_module_init 305 2048 FCADMIN 1 128 0 0 0\n";
        EXPECT_EQ(taken(), general + "trace_module_init 312 2048 FCADMIN 1 128 0 0 0\n" + general);
    });
    // The library's own hook returns its argument: reached through the shared library's local scope.
    const std::string tool = getenv("FCADMIN_TOOL");
    void *lib = dlopen((tool.substr(0, tool.rfind("/bin/")) + "/lib/libfcadmin.so").c_str(), RTLD_LAZY | RTLD_LOCAL);
    ASSERT_NE(lib, nullptr) << dlerror();
    EXPECT_EQ(reinterpret_cast<int32_t (*)(int32_t)>(dlsym(lib, "esm_trace"))(42), 42);
}
