// Test support: helper dispatch, forked children, private mounts, small file helpers.
#include "tests/support/helpers.h"

#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <climits>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <map>
#include <sstream>

namespace fcadmin_test {
namespace {

std::map<std::string, HelperFn> &helper_registry() {
    static std::map<std::string, HelperFn> registry;
    return registry;
}

int failed_parts() {
    const ::testing::TestInfo *info = ::testing::UnitTest::GetInstance()->current_test_info();
    int failed = 0;
    for (int i = 0; info != nullptr && i < info->result()->total_part_count(); ++i)
        failed += info->result()->GetTestPartResult(i).failed() ? 1 : 0;
    return failed;
}

int wait_for(pid_t pid) {
    int status = 0;
    while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    return status;
}

}  // namespace

HelperRegistration::HelperRegistration(const char *name, HelperFn fn) { helper_registry()[name] = fn; }

// Returns -1 when no helper was asked for, else the helper's exit status.
int run_requested_helper(int argc, char **argv) {
    const char *name = getenv("FCADMIN_TEST_HELPER");
    if (name == nullptr || *name == '\0') return -1;
    const auto it = helper_registry().find(name);
    if (it == helper_registry().end()) {
        fprintf(stderr, "no test helper named %s\n", name);
        return 126;
    }
    return it->second(argc, argv);
}

std::string self_exe() {
    char path[PATH_MAX] = {};
    ssize_t n = readlink("/proc/self/exe", path, sizeof path - 1);
    return n > 0 ? std::string(path, static_cast<size_t>(n)) : std::string();
}

int run_in_child(const std::function<void()> &body) {
    fflush(nullptr);
    const pid_t pid = fork();
    if (pid < 0) {
        ADD_FAILURE() << "fork: " << strerror(errno);
        return -1;
    }
    if (pid == 0) {
        // Only the child's own failures count: the parent's earlier ones are inherited by the fork.
        const int before = failed_parts();
        body();
        fflush(nullptr);
        _exit(failed_parts() > before ? 1 : 0);
    }
    return wait_for(pid);
}

void private_mounts() {
    if (unshare(CLONE_NEWNS) != 0) ADD_FAILURE() << "unshare(CLONE_NEWNS): " << strerror(errno);
    if (mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0)
        ADD_FAILURE() << "make / private: " << strerror(errno);
}

void bind_mount(const std::string &source, const std::string &target) {
    if (mount(source.c_str(), target.c_str(), nullptr, MS_BIND, nullptr) != 0)
        ADD_FAILURE() << "bind " << source << " over " << target << ": " << strerror(errno);
}

std::string read_file(const std::string &path) {
    std::ostringstream s;
    s << std::ifstream(path, std::ios::binary).rdbuf();
    return s.str();
}

void write_file(const std::string &path, const std::string &content, int mode) {
    int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, mode);
    ASSERT_GE(fd, 0) << path << ": " << strerror(errno);
    ASSERT_EQ(write(fd, content.data(), content.size()), static_cast<ssize_t>(content.size()));
    fchmod(fd, static_cast<mode_t>(mode));
    close(fd);
}

bool file_exists(const std::string &path) { return access(path.c_str(), F_OK) == 0; }

bool under_emulation() {
    const char *flag = getenv("FCADMIN_UNDER_EMULATION");
    return flag != nullptr && strcmp(flag, "1") == 0;
}

int run_program(const std::vector<std::string> &argv, std::string *out,
                const std::vector<std::string> &extra_env) {
    int pipefd[2] = {-1, -1};
    if (out != nullptr && pipe(pipefd) != 0) return -1;
    fflush(nullptr);
    pid_t pid = fork();
    if (pid == 0) {
        if (out != nullptr) {
            dup2(pipefd[1], 1);
            close(pipefd[0]);
            close(pipefd[1]);
        }
        for (const auto &e : extra_env) putenv(const_cast<char *>(e.c_str()));
        std::vector<char *> args;
        for (const auto &a : argv) args.push_back(const_cast<char *>(a.c_str()));
        args.push_back(nullptr);
        execvp(args[0], args.data());
        _exit(127);
    }
    if (out != nullptr) {
        close(pipefd[1]);
        char buf[4096];
        ssize_t n;
        while ((n = read(pipefd[0], buf, sizeof buf)) > 0) out->append(buf, static_cast<size_t>(n));
        close(pipefd[0]);
    }
    return wait_for(pid);
}

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
