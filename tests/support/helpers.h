// Test support: helper programs (the test binary re-run as a tool), forked children and private mounts.
#pragma once

#include "fcadmin.h"

#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

namespace fcadmin_test {

// A helper program is a function of the test binary that runs instead of the tests when the binary is
// started with FCADMIN_TEST_HELPER=<name> in its environment; its result is the exit status.
using HelperFn = int (*)(int argc, char **argv);
struct HelperRegistration {
    HelperRegistration(const char *name, HelperFn fn);
};
#define FCADMIN_TEST_HELPER(name)                                                            \
    static int fcadmin_helper_##name(int argc, char **argv);                                \
    static ::fcadmin_test::HelperRegistration fcadmin_helper_reg_##name(#name,              \
                                                                        fcadmin_helper_##name); \
    static int fcadmin_helper_##name([[maybe_unused]] int argc, [[maybe_unused]] char **argv)

// Absolute path of the running test binary.
std::string self_exe();

// Runs body in a forked child and returns the child's raw wait status. The child exits 0 when body
// raised no test failure, 1 otherwise; its failures are printed by the child itself.
int run_in_child(const std::function<void()> &body);
#define EXPECT_IN_CHILD(body) EXPECT_EQ(::fcadmin_test::run_in_child([&] { body; }), 0)

// Gives the calling process a mount namespace of its own (call it in a forked child).
void private_mounts();
// Bind-mounts source over target (both must exist).
void bind_mount(const std::string &source, const std::string &target);

// Small file helpers for tests.
std::string read_file(const std::string &path);
void write_file(const std::string &path, const std::string &content, int mode = 0644);
bool file_exists(const std::string &path);

// Runs argv (no shell), waits and returns the raw wait status; standard output goes into *out if given.
int run_program(const std::vector<std::string> &argv, std::string *out = nullptr,
                const std::vector<std::string> &extra_env = {});

// True when the suite runs under user-mode emulation (FCADMIN_UNDER_EMULATION=1, set for the tests of a
// cross build). A test that cannot work there only for the emulator's sake skips itself with the reason:
//   FCADMIN_SKIP_UNDER_EMULATION("the emulator does not pass ptrace through");
bool under_emulation();
#define FCADMIN_SKIP_UNDER_EMULATION(reason)                                     \
    do {                                                                         \
        if (::fcadmin_test::under_emulation())                                   \
            GTEST_SKIP() << "skipped under emulation: " << (reason);             \
    } while (0)

// A transfer request with the fields a fetch reads; the rest zeroed.
TransferRequest transfer_request(const char *protocol, const char *user, const char *password, const char *host,
                                 const char *remote_path, int32_t port = 22, uint32_t addr_type = 0);

}  // namespace fcadmin_test
