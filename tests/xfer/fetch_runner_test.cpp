// The fetch through the library's own command runner: recording stand-ins over /usr/bin/scp,
// /usr/bin/sftp, /bin/wget and /bin/cp (the test binary re-run as the tool) show the argument vector
// each tool receives, in order; the password prompt runs on a pseudo-terminal.
#include "fcadmin.h"
#include "tests/support/fake_platform.h"
#include "tests/support/helpers.h"

#include <fcntl.h>
#include <pty.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

#include <climits>
#include <cstdlib>
#include <sstream>

using namespace fcadmin_test;

namespace {

const std::string kCalls = "/tmp/fetch-stub-calls";
using Lines = std::vector<std::string>;

Lines recorded_calls() {
    Lines lines;
    std::istringstream in(read_file(kCalls));
    for (std::string l; std::getline(in, l);) lines.push_back(l);
    return lines;
}

// The stand-in tool: appends its arguments, joined by '|', as one line to kCalls and exits with the
// next status of FETCH_STUB_RESULTS (0 once they run out).
FCADMIN_TEST_HELPER(fetch_tool) {
    const size_t index = recorded_calls().size();
    std::string line = argv[0];
    for (int i = 1; i < argc; ++i) line += std::string("|") + argv[i];
    const int fd = open(kCalls.c_str(), O_WRONLY | O_APPEND);
    if (fd < 0 || write(fd, (line + "\n").data(), line.size() + 1) < 0) return 98;
    std::istringstream results(getenv("FETCH_STUB_RESULTS"));
    int status = 0;
    for (size_t i = 0; i <= index; ++i)
        if (!(results >> status)) return 0;
    return status;
}

// In a forked child: the four tools replaced by the stand-in, which exits with results in turn.
void install_stubs(const std::string &results) {
    private_mounts();
    write_file(kCalls, "");
    for (const char *tool : {"/usr/bin/scp", "/usr/bin/sftp", "/bin/wget", "/bin/cp"}) {
        // /bin is a link to /usr/bin on current systems: bind over the file itself.
        char resolved[PATH_MAX];
        ASSERT_NE(realpath(tool, resolved), nullptr) << tool;
        bind_mount(self_exe(), resolved);
    }
    setenv("FCADMIN_TEST_HELPER", "fetch_tool", 1);
    setenv("FETCH_STUB_RESULTS", results.c_str(), 1);
    reset_platform();
}

bool stdin_echo() {
    termios t{};
    return tcgetattr(0, &t) == 0 && (t.c_lflag & ECHO) != 0;
}

TEST(FetchThroughRunner, ToolsReceiveTheirArgumentsInOrder) {
    EXPECT_IN_CHILD({
        install_stubs("1 1 0");
        TransferRequest r = transfer_request("scp", "admin", "s3cret", "10.0.0.9", "/fw/v2.bin", 2022);
        EXPECT_EQ(copyRemoteFileToLocalSystem(&r, "/tmp/v2.bin", 0), 0);
        EXPECT_EQ(recorded_calls(),
                  (Lines{"/usr/bin/scp|-q|-v|-oConnectTimeout=60|-oPreferredAuthentications=publickey|-oPort=2022|"
                         "-oStrictHostKeyChecking=no|admin@[10.0.0.9]:/fw/v2.bin|/tmp/v2.bin",
                         "/usr/bin/scp|-q|-v|-oConnectTimeout=60|-oPreferredAuthentications=keyboard-interactive|"
                         "-oChallengeResponseAuthentication=yes|-oPort=2022|-oStrictHostKeyChecking=no|"
                         "admin@[10.0.0.9]:/fw/v2.bin|/tmp/v2.bin",
                         "/usr/bin/scp|-q|-v|-oConnectTimeout=60|-oPort=2022|-oPreferredAuthentications=password|"
                         "-oSSHPassword=s3cret|-oStrictHostKeyChecking=no|admin@[10.0.0.9]:/fw/v2.bin|/tmp/v2.bin"}));
        EXPECT_EQ(platform_call_names(), (Lines{"geps_2env", "geps_2env"}));
    });
    EXPECT_IN_CHILD({
        install_stubs("5 0 1 1 1");
        TransferRequest r = transfer_request("sftp", "admin", "pw", "::1", "cfg", 22);
        EXPECT_EQ(copyRemoteFileToLocalSystem(&r, "/tmp/cfg", 0), 0);
        EXPECT_EQ(recorded_calls(),
                  (Lines{"/usr/bin/sftp|-q|-v|-oConnectTimeout=60|-oPort=22|-oPreferredAuthentications=publickey|"
                         "-oStrictHostKeyChecking=no|admin@[::1]:cfg|/tmp/cfg",
                         "/usr/bin/sftp|-q|-v|-oConnectTimeout=60|-oPort=22|-oPreferredAuthentications=keyboard-"
                         "interactive|-oChallengeResponseAuthentication=yes|-oStrictHostKeyChecking=no|"
                         "admin@[::1]:cfg|/tmp/cfg"}));
        // All three fail: -9 after the password attempt.
        EXPECT_EQ(copyRemoteFileToLocalSystem(&r, "/tmp/cfg", 0), -9);
        ASSERT_EQ(recorded_calls().size(), 5u);
        EXPECT_NE(recorded_calls()[4].find("|-oSSHPassword=pw|"), std::string::npos);
    });
    EXPECT_IN_CHILD({
        install_stubs("0 4 0 1");
        TransferRequest r = transfer_request("ftp", "j.doe", "p w", "::1", "sub/file.txt", 21, ADDR_TYPE_IPV6);
        EXPECT_EQ(copyRemoteFileToLocalSystem(&r, "/tmp/file.txt", 0), 0);
        r = transfer_request("ftp", "anonymous", "", "127.0.0.1", "pub/x", 21, 0);
        EXPECT_EQ(copyRemoteFileToLocalSystem(&r, "/tmp/x", 0), -9);
        r = transfer_request("usb", "", "", "", "/mnt/usb/fw.bin");
        EXPECT_EQ(copyRemoteFileToLocalSystem(&r, "/unused", 0), 0);
        EXPECT_EQ(copyRemoteFileToLocalSystem(&r, "/unused", 0), -9);
        // An unknown protocol starts no tool at all.
        r = transfer_request("gopher", "", "", "h", "f");
        EXPECT_EQ(copyRemoteFileToLocalSystem(&r, "/tmp/f", 0), -9);
        EXPECT_EQ(recorded_calls(),
                  (Lines{"/bin/wget|-q|-T|60|-t|1|-O|/tmp/file.txt|ftp://j%2edoe:p%20w@[::1]/sub/file.txt",
                         "/bin/wget|-q|-T|60|-t|1|-O|/tmp/x|ftp://anonymous:@127.0.0.1/pub/x",
                         "/bin/cp|/mnt/usb/fw.bin|" FCADMIN_USB_TMP_FILE,
                         "/bin/cp|/mnt/usb/fw.bin|" FCADMIN_USB_TMP_FILE}));
    });
}

TEST(FetchThroughRunner, PromptsOnTheTerminalOnlyAfterTheKeyBasedAttempts) {
    // Three rejected answers give -5 after exactly three prompts and no password attempt; an answer
    // accepted at the second prompt goes into the password attempt. Echo is off at every prompt.
    const struct {
        std::vector<int> verdicts;
        int32_t result;
        Lines password_attempt;
    } cases[] = {{{0, 0, 0}, -5, {}},
                 {{0, 1}, 0,
                  {"/usr/bin/scp|-q|-v|-oConnectTimeout=60|-oPort=22|-oPreferredAuthentications=password|"
                   "-oSSHPassword=two|-oStrictHostKeyChecking=no|admin@[h]:f|/tmp/f"}}};
    for (const auto &c : cases) {
        const int status = run_in_child([&] {
            install_stubs("1 1 0");
            int pty[2];
            ASSERT_EQ(openpty(&pty[0], &pty[1], nullptr, nullptr, nullptr), 0);
            ASSERT_EQ(dup2(pty[1], 0), 0);
            static std::vector<bool> echo;
            on_platform_call("ork_infra_scanf", [] { echo.push_back(stdin_echo()); });
            script_results("ork_verify_password", c.verdicts);
            script_answers({"one", "two", "three"});
            TransferRequest r = transfer_request("scp", "admin", "", "h", "f");
            EXPECT_EQ(copyRemoteFileToLocalSystem(&r, "/tmp/f", 0), c.result);
            EXPECT_EQ(echo, std::vector<bool>(c.verdicts.size(), false));
            EXPECT_TRUE(stdin_echo());
            Lines calls = recorded_calls();
            ASSERT_GE(calls.size(), 2u);
            EXPECT_EQ(Lines(calls.begin() + 2, calls.end()), c.password_attempt);
        });
        EXPECT_EQ(status, 0);
    }
    // No terminal to ask on: the process ends with status 1 and the message, after the two attempts.
    const std::string errors = "/tmp/fetch_prompt_stderr";
    const int status = run_in_child([&] {
        install_stubs("1 1");
        dup2(open("/dev/null", O_RDONLY), 0);
        dup2(open(errors.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600), 2);
        TransferRequest r = transfer_request("sftp", "admin", "", "h", "f");
        copyRemoteFileToLocalSystem(&r, "/tmp/f", 0);
        _exit(0);
    });
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 1) << status;
    EXPECT_EQ(read_file(errors), "Failed to set tty info\n");
    EXPECT_EQ(recorded_calls().size(), 2u);
}

}  // namespace
