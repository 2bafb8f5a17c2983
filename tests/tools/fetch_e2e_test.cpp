// fcadmin fetch against real peers on the sandbox's loopback: URLs in, files out, messages and exit
// statuses, and the password prompt at a pseudo-terminal.
#include "tests/support/helpers.h"
#include "tests/support/peers.h"

#include <fcntl.h>
#include <poll.h>
#include <pty.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

#include <cstdlib>
#include <memory>

using namespace fcadmin_test;

namespace {

const std::string kBase = "/tmp/tool-fetch";
const std::string kHome = kBase + "/home/j.doe";
constexpr char kFailedCopy[] = "Failed to copy the file from remote location.\n";

struct ToolRun {
    int status;
    std::string output;  // standard output and standard error
};

ToolRun run_tool(const std::vector<std::string> &args) {
    std::string output_path = kBase + "/tool-output";
    int status = run_in_child([&] {
        int in = open("/dev/null", O_RDONLY);
        int out = open(output_path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
        dup2(in, 0);
        dup2(out, 1);
        dup2(out, 2);
        std::vector<char *> argv{getenv("FCADMIN_TOOL"), const_cast<char *>("fetch")};
        for (const auto &a : args) argv.push_back(const_cast<char *>(a.c_str()));
        argv.push_back(nullptr);
        execv(argv[0], argv.data());
        _exit(127);
    });
    return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, read_file(output_path)};
}

class ToolFetch : public ::testing::Test {
protected:
    static void SetUpTestSuite() {
        users_ = std::make_unique<LocalUsers>(kBase + "/users");
        ASSERT_TRUE(users_->add("j.doe", "p@ss:w0rd", kHome, 4242)) << users_->error();
        write_file(kHome + "/data.bin", std::string("\0\x01\xff\r\nfirmware\n", 14) + std::string(5000, 'z'));
        ssh_ = std::make_unique<SshPeer>(SshPeer::Options{kBase + "/sshd"});
        ASSERT_TRUE(ssh_->start()) << ssh_->error();
        ASSERT_TRUE(ssh_->install_client_config(*users_)) << ssh_->error();
        ftp_ = std::make_unique<FtpPeer>(FtpPeer::Options{kBase + "/ftp6", "::1"});
        ASSERT_TRUE(ftp_->start()) << ftp_->error();
    }
    static void TearDownTestSuite() {
        ftp_.reset();
        ssh_.reset();
        users_.reset();
    }
    void SetUp() override {
        if (!ssh_ || ssh_->pid() < 0 || !ftp_ || ftp_->pid() < 0) GTEST_SKIP() << "the peers did not start";
    }
    static inline std::unique_ptr<LocalUsers> users_;
    static inline std::unique_ptr<SshPeer> ssh_;
    static inline std::unique_ptr<FtpPeer> ftp_;
};

TEST_F(ToolFetch, FetchesByUrl) {
    const std::string expected = read_file(kHome + "/data.bin");
    struct Case {
        std::string url;
        std::vector<std::string> extra;
    };
    const Case cases[] = {
        {"scp://j.doe@127.0.0.1/" + kHome + "/data.bin", {}},
        {"sftp://j.doe@[::1]:22/" + kHome + "/data.bin", {}},
        {"scp://j.doe@[::1]/~/data.bin", {"--platform-runner"}},
        // "@" and ":" of the password travel as escapes and reach the server decoded.
        {"ftp://j.doe:p%40ss%3Aw0rd@[::1]/data.bin", {}},
    };
    int n = 0;
    for (const Case &c : cases) {
        std::string local = kBase + "/out" + std::to_string(n++);
        std::vector<std::string> args{c.url, local};
        args.insert(args.end(), c.extra.begin(), c.extra.end());
        ToolRun run = run_tool(args);
        EXPECT_EQ(run.status, 0) << c.url << "\n" << run.output;
        EXPECT_EQ(run.output, "") << c.url;
        EXPECT_TRUE(read_file(local) == expected) << c.url;
    }
    ToolRun usb = run_tool({"usb://" + kHome + "/data.bin", "/ignored"});
    EXPECT_EQ(usb.status, 0) << usb.output;
    EXPECT_TRUE(read_file(FCADMIN_USB_TMP_FILE) == expected);
}

TEST_F(ToolFetch, ReportsFailuresAndBadCommandLines) {
    ToolRun wrong = run_tool({"ftp://j.doe:nope@[::1]/data.bin", kBase + "/wrong"});
    EXPECT_EQ(wrong.status, 1);
    EXPECT_EQ(wrong.output, kFailedCopy);

    // Every log-in method is tried for a file that is not there; with a password given the last
    // attempt fails, without one there is no terminal to ask at.
    ToolRun missing = run_tool({"sftp://j.doe:pw@127.0.0.1/no/such/file", kBase + "/missing"});
    EXPECT_EQ(missing.status, 1);
    EXPECT_EQ(missing.output, kFailedCopy);
    ToolRun no_terminal = run_tool({"sftp://j.doe@127.0.0.1/no/such/file", kBase + "/missing"});
    EXPECT_EQ(no_terminal.status, 1);
    EXPECT_EQ(no_terminal.output, "Failed to set tty info\n");

    ToolRun bad_url = run_tool({"gopher://h/x", kBase + "/x"});
    EXPECT_EQ(bad_url.status, 2);
    EXPECT_EQ(bad_url.output.rfind("fcadmin fetch: unknown protocol 'gopher'", 0), 0u) << bad_url.output;
    EXPECT_EQ(run_tool({"scp://h/x"}).status, 2);
    EXPECT_EQ(run_tool({"scp://h/x", "a", "b"}).status, 2);
    EXPECT_EQ(run_tool({"scp://h/x", "a", "--runner"}).status, 2);
}

// Reads from the terminal's master side until text has appeared or the child has gone quiet for long.
std::string read_until(int master, const std::string &text, std::string seen = "") {
    char buf[512];
    while (seen.find(text) == std::string::npos) {
        pollfd p{master, POLLIN, 0};
        if (poll(&p, 1, 30000) <= 0) break;
        ssize_t n = read(master, buf, sizeof buf);
        if (n <= 0) break;
        seen.append(buf, static_cast<size_t>(n));
    }
    return seen;
}

TEST_F(ToolFetch, AsksForThePasswordWithEchoOffWhenTheKeyIsRefused) {
    ASSERT_TRUE(ssh_->authorize_client(false));
    int master = -1;
    pid_t pid = forkpty(&master, nullptr, nullptr, nullptr);
    ASSERT_GE(pid, 0);
    if (pid == 0) {
        std::string url = "scp://j.doe@127.0.0.1/" + kHome + "/data.bin";
        std::string local = kBase + "/prompted";
        execl(getenv("FCADMIN_TOOL"), "fcadmin", "fetch", url.c_str(), local.c_str(), nullptr);
        _exit(127);
    }
    std::string seen = read_until(master, "Password: ");
    ASSERT_NE(seen.find("Password: "), std::string::npos) << seen;
    termios settings{};
    ASSERT_EQ(tcgetattr(master, &settings), 0);
    EXPECT_EQ(settings.c_lflag & ECHO, 0u);
    ASSERT_EQ(write(master, "typed-secret\n", 13), 13);
    // The answer is accepted; this host's stock client then refuses the password option. (The
    // terminal turns the message's newline into CR LF.)
    const std::string failed_copy = "Failed to copy the file from remote location.\r\n";
    seen = read_until(master, failed_copy, seen);
    int status = 0;
    waitpid(pid, &status, 0);
    close(master);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 1) << status;
    EXPECT_NE(seen.find(failed_copy), std::string::npos) << seen;
    EXPECT_EQ(seen.find("typed-secret"), std::string::npos) << "the answer was echoed: " << seen;
    EXPECT_EQ(seen.find("Password: "), seen.rfind("Password: ")) << "asked more than once: " << seen;
    EXPECT_TRUE(ssh_->authorize_client(true));
}

}  // namespace
