// The fetch through the library's own command runner: recording stand-ins over /usr/bin/scp,
// /usr/bin/sftp, /bin/wget and /bin/cp (the test binary re-run as the tool) show the argument vector
// each tool receives, in order; the password prompt runs on a pseudo-terminal.
#include "fcadmin.h"
#include "tests/support/fake_platform.h"
#include "tests/support/helpers.h"

#include <fcntl.h>
#include <pty.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

#include <algorithm>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <sstream>

using namespace fcadmin_test;

namespace {

const std::string kStubDir = "/tmp/fetch-stubs";
constexpr int kLibraryRunner = 0;
constexpr char kArgSeparator = '\x1f';
using Argv = std::vector<std::string>;

// The stand-in tool: records its argument vector and exits with the next scripted status.
FCADMIN_TEST_HELPER(fetch_tool) {
    std::string calls = read_file(kStubDir + "/calls");
    size_t index = static_cast<size_t>(std::count(calls.begin(), calls.end(), '\n'));
    std::string line;
    for (int i = 0; i < argc; ++i) line += std::string(argv[i]) + kArgSeparator;
    int fd = open((kStubDir + "/calls").c_str(), O_WRONLY | O_APPEND);
    if (fd < 0 || write(fd, (line + "\n").data(), line.size() + 1) < 0) return 98;
    close(fd);
    std::istringstream script(read_file(kStubDir + "/results"));
    std::vector<int> results;
    for (int r; script >> r;) results.push_back(r);
    int status = index < results.size() ? results[index] : 0;
    return status;
}

// In a forked child: the four tools replaced by the stand-in, which exits with results in turn (0 once
// they run out).
void install_stubs(const std::vector<int> &results) {
    private_mounts();
    mkdir(kStubDir.c_str(), 0755);
    write_file(kStubDir + "/calls", "");
    std::string script;
    for (int r : results) script += std::to_string(r) + " ";
    write_file(kStubDir + "/results", script);
    for (const char *tool : {"/usr/bin/scp", "/usr/bin/sftp", "/bin/wget", "/bin/cp"}) {
        // /bin is a link to /usr/bin on current systems: bind over the file itself.
        char resolved[PATH_MAX];
        ASSERT_NE(realpath(tool, resolved), nullptr) << tool;
        bind_mount(self_exe(), resolved);
    }
    setenv("FCADMIN_TEST_HELPER", "fetch_tool", 1);
}

std::vector<Argv> recorded_calls() {
    std::vector<Argv> calls;
    std::istringstream in(read_file(kStubDir + "/calls"));
    for (std::string line; std::getline(in, line);) {
        Argv argv;
        std::stringstream split(line);
        for (std::string arg; std::getline(split, arg, kArgSeparator);) argv.push_back(arg);
        calls.push_back(argv);
    }
    return calls;
}

TransferRequest request(const char *protocol, const char *user, const char *password, const char *host,
                        const char *remote_path, int32_t port = 22, uint32_t addr_type = 0) {
    TransferRequest r{};
    snprintf(r.protocol, sizeof r.protocol, "%s", protocol);
    snprintf(r.user_name, sizeof r.user_name, "%s", user);
    snprintf(r.password, sizeof r.password, "%s", password);
    snprintf(r.host, sizeof r.host, "%s", host);
    snprintf(r.remote_path, sizeof r.remote_path, "%s", remote_path);
    r.port = port;
    r.addr_type = addr_type;
    return r;
}

Argv scp_public_key(const std::string &port, const std::string &source, const std::string &local) {
    return {"/usr/bin/scp", "-q", "-v", "-oConnectTimeout=60", "-oPreferredAuthentications=publickey",
            "-oPort=" + port, "-oStrictHostKeyChecking=no", source, local};
}
Argv scp_keyboard(const std::string &port, const std::string &source, const std::string &local) {
    return {"/usr/bin/scp", "-q", "-v", "-oConnectTimeout=60",
            "-oPreferredAuthentications=keyboard-interactive", "-oChallengeResponseAuthentication=yes",
            "-oPort=" + port, "-oStrictHostKeyChecking=no", source, local};
}
Argv scp_password(const std::string &port, const std::string &password, const std::string &source,
                  const std::string &local) {
    return {"/usr/bin/scp", "-q", "-v", "-oConnectTimeout=60", "-oPort=" + port,
            "-oPreferredAuthentications=password", "-oSSHPassword=" + password, "-oStrictHostKeyChecking=no",
            source, local};
}

bool stdin_echo() {
    termios t{};
    return tcgetattr(0, &t) == 0 && (t.c_lflag & ECHO) != 0;
}

void terminal_on_stdin() {
    int master = -1, slave = -1;
    ASSERT_EQ(openpty(&master, &slave, nullptr, nullptr, nullptr), 0);
    ASSERT_EQ(dup2(slave, 0), 0);
}

TEST(FetchThroughRunner, SecureShellToolsReceiveTheirArgumentsInOrder) {
    EXPECT_IN_CHILD({
        install_stubs({1, 1, 0});
        reset_platform();
        TransferRequest r = request("scp", "admin", "s3cret", "10.0.0.9", "/fw/v2.bin", 2022);
        EXPECT_EQ(copyRemoteFileToLocalSystem(&r, "/tmp/v2.bin", kLibraryRunner), 0);
        EXPECT_EQ(recorded_calls(),
                  (std::vector<Argv>{scp_public_key("2022", "admin@[10.0.0.9]:/fw/v2.bin", "/tmp/v2.bin"),
                                     scp_keyboard("2022", "admin@[10.0.0.9]:/fw/v2.bin", "/tmp/v2.bin"),
                                     scp_password("2022", "s3cret", "admin@[10.0.0.9]:/fw/v2.bin",
                                                  "/tmp/v2.bin")}));
        EXPECT_EQ(platform_call_names(), (std::vector<std::string>{"geps_2env", "geps_2env"}));
    });
    EXPECT_IN_CHILD({
        install_stubs({5, 0});
        TransferRequest r = request("sftp", "admin", "", "::1", "cfg", 22);
        EXPECT_EQ(copyRemoteFileToLocalSystem(&r, "/tmp/cfg", kLibraryRunner), 0);
        EXPECT_EQ(recorded_calls(),
                  (std::vector<Argv>{{"/usr/bin/sftp", "-q", "-v", "-oConnectTimeout=60", "-oPort=22",
                                      "-oPreferredAuthentications=publickey", "-oStrictHostKeyChecking=no",
                                      "admin@[::1]:cfg", "/tmp/cfg"},
                                     {"/usr/bin/sftp", "-q", "-v", "-oConnectTimeout=60", "-oPort=22",
                                      "-oPreferredAuthentications=keyboard-interactive",
                                      "-oChallengeResponseAuthentication=yes", "-oStrictHostKeyChecking=no",
                                      "admin@[::1]:cfg", "/tmp/cfg"}}));
    });
    // All three fail: -9 after the password attempt.
    EXPECT_IN_CHILD({
        install_stubs({1, 1, 1});
        TransferRequest r = request("sftp", "admin", "pw", "h", "cfg", 22);
        EXPECT_EQ(copyRemoteFileToLocalSystem(&r, "/tmp/cfg", kLibraryRunner), -9);
        ASSERT_EQ(recorded_calls().size(), 3u);
        EXPECT_EQ(recorded_calls()[2][6], "-oSSHPassword=pw");
    });
}

TEST(FetchThroughRunner, WgetAndCpReceiveTheirArguments) {
    EXPECT_IN_CHILD({
        install_stubs({0, 4});
        TransferRequest r = request("ftp", "j.doe", "p w", "::1", "sub/file.txt", 21, ADDR_TYPE_IPV6);
        EXPECT_EQ(copyRemoteFileToLocalSystem(&r, "/tmp/file.txt", kLibraryRunner), 0);
        r = request("ftp", "anonymous", "", "127.0.0.1", "pub/x", 21, 0);
        EXPECT_EQ(copyRemoteFileToLocalSystem(&r, "/tmp/x", kLibraryRunner), -9);
        EXPECT_EQ(recorded_calls(),
                  (std::vector<Argv>{{"/bin/wget", "-q", "-T", "60", "-t", "1", "-O", "/tmp/file.txt",
                                      "ftp://j%2edoe:p%20w@[::1]/sub/file.txt"},
                                     {"/bin/wget", "-q", "-T", "60", "-t", "1", "-O", "/tmp/x",
                                      "ftp://anonymous:@127.0.0.1/pub/x"}}));
    });
    EXPECT_IN_CHILD({
        install_stubs({0, 1});
        TransferRequest r = request("usb", "", "", "", "/mnt/usb/fw.bin");
        EXPECT_EQ(copyRemoteFileToLocalSystem(&r, "/unused", kLibraryRunner), 0);
        EXPECT_EQ(copyRemoteFileToLocalSystem(&r, "/unused", kLibraryRunner), -9);
        EXPECT_EQ(recorded_calls(), (std::vector<Argv>(2, {"/bin/cp", "/mnt/usb/fw.bin", FCADMIN_USB_TMP_FILE})));
        // An unknown protocol starts no tool at all.
        TransferRequest gopher = request("gopher", "", "", "h", "f");
        EXPECT_EQ(copyRemoteFileToLocalSystem(&gopher, "/tmp/f", kLibraryRunner), -9);
        EXPECT_EQ(recorded_calls().size(), 2u);
    });
}

TEST(FetchThroughRunner, PromptsOnTheTerminalOnlyAfterTheKeyBasedAttempts) {
    // Three rejected answers: -5 after exactly three prompts, and no password attempt.
    EXPECT_IN_CHILD({
        install_stubs({1, 1});
        terminal_on_stdin();
        reset_platform();
        static std::vector<bool> echo;
        on_platform_call("ork_infra_scanf", [] { echo.push_back(stdin_echo()); });
        set_default_result("ork_verify_password", 0);
        script_answers({"no1", "no2", "no3"});
        TransferRequest r = request("scp", "admin", "", "h", "f");
        EXPECT_EQ(copyRemoteFileToLocalSystem(&r, "/tmp/f", kLibraryRunner), -5);
        EXPECT_EQ(platform_calls_of("ork_infra_scanf").size(), 3u);
        EXPECT_EQ(recorded_calls().size(), 2u);
        EXPECT_EQ(echo, (std::vector<bool>{false, false, false}));
        EXPECT_TRUE(stdin_echo());
    });
    // Accepted at the second prompt: the password attempt carries that answer.
    EXPECT_IN_CHILD({
        install_stubs({1, 1, 0});
        terminal_on_stdin();
        reset_platform();
        script_results("ork_verify_password", {0, 1});
        script_answers({"bad", "good"});
        TransferRequest r = request("scp", "admin", "", "h", "f");
        EXPECT_EQ(copyRemoteFileToLocalSystem(&r, "/tmp/f", kLibraryRunner), 0);
        EXPECT_EQ(platform_calls_of("ork_infra_scanf").size(), 2u);
        auto calls = recorded_calls();
        ASSERT_EQ(calls.size(), 3u);
        EXPECT_EQ(calls[2], scp_password("22", "good", "admin@[h]:f", "/tmp/f"));
        EXPECT_TRUE(stdin_echo());
    });
    // No terminal to ask on: the process ends with status 1 and the message, after the two attempts.
    std::string errors = "/tmp/fetch_prompt_stderr";
    int status = run_in_child([&] {
        install_stubs({1, 1});
        int null_fd = open("/dev/null", O_RDONLY);
        dup2(null_fd, 0);
        int err = open(errors.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
        dup2(err, 2);
        TransferRequest r = request("sftp", "admin", "", "h", "f");
        copyRemoteFileToLocalSystem(&r, "/tmp/f", kLibraryRunner);
        _exit(0);
    });
    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 1);
    EXPECT_EQ(read_file(errors), "Failed to set tty info\n");
    EXPECT_EQ(recorded_calls().size(), 2u);
}

}  // namespace
