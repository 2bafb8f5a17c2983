// Test support: helper programs (the test binary re-run as a tool), forked children, files and output.
#pragma once

#include "fcadmin.h"

#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

namespace fcadmin_test {

using Lines = std::vector<std::string>;

// FCADMIN_TEST_HELPER(name) { ... } runs instead of the tests when the binary is started with
// FCADMIN_TEST_HELPER=name in its environment; its result is the exit status.
int register_helper(const char *name, int (*fn)(int argc, char **argv));
#define FCADMIN_TEST_HELPER(name)                                                         \
    static int fcadmin_helper_##name(int, char **);                                      \
    [[maybe_unused]] static const int fcadmin_registered_##name =                        \
        ::fcadmin_test::register_helper(#name, fcadmin_helper_##name);                    \
    static int fcadmin_helper_##name([[maybe_unused]] int argc, [[maybe_unused]] char **argv)

std::string self_exe();
// Runs body in a forked child (the library's state starts afresh there); the raw wait status, 0 when
// body raised no test failure. in_child expects that 0.
int run_in_child(const std::function<void()> &body);
void in_child(const std::function<void()> &body);
// Executes argv in place of this process (no shell), looked up on the search path; exits 127 if it cannot.
[[noreturn]] void exec_program(const Lines &argv);
// Runs argv (no shell); the raw wait status, and its standard output and error in *out.
int run_program(const Lines &argv, std::string *out = nullptr);
// What fn writes to descriptor fd while it runs, forked children included, and flushes before it returns.
std::string captured(int fd, const std::function<void()> &fn);
// Puts a fresh pseudo-terminal on standard input (call it in a forked child).
void terminal_on_stdin();

// Expects each line of got to equal its line of want, or to begin with it where that ends in '*'.
void expect_lines(const Lines &got, const Lines &want);

std::string read_file(const std::string &path);
void write_file(const std::string &path, const std::string &content, int mode = 0644);
bool file_exists(const std::string &path);

// True when the suite runs under user-mode emulation (FCADMIN_UNDER_EMULATION=1, set for a cross build's
// tests); a check that cannot work there says why it is left out.
bool under_emulation();

// A transfer request with the fields a fetch reads; the rest zeroed.
TransferRequest transfer_request(const char *protocol, const char *user, const char *password, const char *host,
                                 const char *remote_path, int32_t port = 22, uint32_t addr_type = 0);

}  // namespace fcadmin_test
