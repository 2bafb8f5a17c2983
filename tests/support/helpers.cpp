// Test support: helper dispatch and the test main, forked children, files and output.
#include "tests/support/helpers.h"

#include <fcntl.h>
#include <pty.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <map>
#include <sstream>

namespace fcadmin_test {
static std::map<std::string, int (*)(int, char **)> &helpers() {
    static std::map<std::string, int (*)(int, char **)> registry;
    return registry;
}

int register_helper(const char *name, int (*fn)(int, char **)) {
    helpers()[name] = fn;
    return 0;
}

std::string self_exe() { return std::filesystem::read_symlink("/proc/self/exe"); }

int run_in_child(const std::function<void()> &body) {
    fflush(nullptr);
    const pid_t pid = fork();
    if (pid == 0) {
        const bool failed = ::testing::Test::HasFailure();  // the parent's, which come along with the fork
        body();
        fflush(nullptr);
        _exit(!failed && ::testing::Test::HasFailure());
    }
    int status = -1;
    while (pid > 0 && waitpid(pid, &status, 0) < 0 && errno == EINTR) continue;
    return status;
}

void in_child(const std::function<void()> &body) { EXPECT_EQ(run_in_child(body), 0) << "the child's failures are above"; }

void exec_program(const Lines &argv) {
    std::vector<char *> args;
    for (const auto &a : argv) args.push_back(const_cast<char *>(a.c_str()));
    args.push_back(nullptr);
    execvp(args[0], args.data());
    _exit(127);
}

int run_program(const Lines &argv, std::string *out) {
    const int status = run_in_child([&] {
        const int fd = open("/tmp/run_program.out", O_WRONLY | O_CREAT | O_TRUNC, 0600);
        dup2(fd, 1), dup2(fd, 2);
        exec_program(argv);
    });
    if (out != nullptr) *out = read_file("/tmp/run_program.out");
    return status;
}

std::string captured(int fd, const std::function<void()> &fn) {
    const std::string path = "/tmp/captured." + std::to_string(fd);
    fflush(nullptr);
    const int saved = dup(fd), file = open(path.c_str(), O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    dup2(file, fd);
    close(file);
    fn();  // not flushed here: what the code under test leaves in its buffers does not count
    dup2(saved, fd);
    close(saved);
    return read_file(path);
}

void terminal_on_stdin() {
    int master = -1, slave = -1;
    ASSERT_EQ(openpty(&master, &slave, nullptr, nullptr, nullptr), 0);
    dup2(slave, STDIN_FILENO);
}

void expect_lines(const Lines &got, const Lines &want) {
    ASSERT_EQ(got.size(), want.size()) << ::testing::PrintToString(got);
    for (size_t i = 0; i < got.size(); ++i) {
        const size_t n = !want[i].empty() && want[i].back() == '*' ? want[i].size() - 1 : std::string::npos;
        EXPECT_EQ(got[i].substr(0, n), want[i].substr(0, n));
    }
}

std::string read_file(const std::string &path) {
    std::ostringstream s;
    s << std::ifstream(path, std::ios::binary).rdbuf();
    return s.str();
}

void write_file(const std::string &path, const std::string &content, int mode) {
    std::ofstream(path, std::ios::binary | std::ios::trunc) << content;
    EXPECT_EQ(chmod(path.c_str(), static_cast<mode_t>(mode)), 0) << path;
}

bool file_exists(const std::string &path) { return access(path.c_str(), F_OK) == 0; }

bool under_emulation() { return getenv("FCADMIN_UNDER_EMULATION") != nullptr && getenv("FCADMIN_UNDER_EMULATION")[0] == '1'; }

TransferRequest transfer_request(const char *protocol, const char *user, const char *password, const char *host,
                                 const char *remote_path, int32_t port, uint32_t addr_type) {
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

}  // namespace fcadmin_test

int main(int argc, char **argv) {
    if (const char *name = getenv("FCADMIN_TEST_HELPER"); name != nullptr && *name != '\0') {
        const auto it = fcadmin_test::helpers().find(name);
        return it == fcadmin_test::helpers().end() ? 126 : it->second(argc, argv);
    }
    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
