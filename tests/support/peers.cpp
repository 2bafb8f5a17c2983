// Throwaway sshd and vsftpd peers on the sandbox's loopback, with private local users.
#include "tests/support/peers.h"

#include "tests/support/helpers.h"

#include <fcntl.h>
#include <netdb.h>
#include <pwd.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <regex>
#include <sstream>
#include <vector>

namespace fcadmin_test {
namespace {

constexpr char kSshd[] = "/usr/sbin/sshd";
constexpr char kSshKeygen[] = "/usr/bin/ssh-keygen";
constexpr char kVsftpd[] = "/usr/sbin/vsftpd";
// Makes the shadow hash; a program, not libcrypt, so that a cross-built test can use it too.
constexpr char kOpenssl[] = "/usr/bin/openssl";
constexpr char kSshClientConfigDir[] = "/etc/ssh/ssh_config.d";
// sshd refuses to start without its privilege-separation directory.
constexpr char kSshdRunDir[] = "/run/sshd";
constexpr char kFtpPamService[] = "fcadmin-peer-ftp";
constexpr int kPollMs = 20;

// Set *error to what failed (with errno's text) and give false.
bool fail(std::string *error, const std::string &what) {
    *error = what;
    return false;
}
bool fail_errno(std::string *error, const std::string &what) { return fail(error, what + ": " + strerror(errno)); }

// mkdir -p; true when path is a directory afterwards.
bool make_dirs(const std::string &path, mode_t mode = 0755) {
    for (size_t i = 1; i <= path.size(); ++i)
        if (i == path.size() || path[i] == '/') mkdir(path.substr(0, i).c_str(), mode);
    struct stat st {};
    return stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

// Writes content over path. An existing file keeps its inode, so this also rewrites the copies that a
// bind mount holds over /etc.
bool store(const std::string &path, const std::string &content, mode_t mode, std::string *error) {
    const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, mode);
    if (fd < 0) return fail_errno(error, "create " + path);
    const bool ok = write(fd, content.data(), content.size()) == static_cast<ssize_t>(content.size());
    fchmod(fd, mode);
    close(fd);
    return ok || fail_errno(error, "write " + path);
}

bool ensure_sandbox(std::string *error) {
    return in_sandbox() ||
           fail(error, "refusing to touch the system's users, mounts and ports outside the test sandbox");
}

// Starts a server in the foreground of its own (it must not detach), its output into log. Unless it is
// to outlive its starter, the server is sent SIGTERM when the starting process dies, so a crashed test
// leaves nothing behind.
pid_t spawn_server(const std::vector<std::string> &argv, const std::string &log, bool die_with_parent,
                   std::string *error) {
    std::vector<char *> args;
    for (const auto &a : argv) args.push_back(const_cast<char *>(a.c_str()));
    args.push_back(nullptr);
    const pid_t parent = getpid();
    fflush(nullptr);
    const pid_t pid = fork();
    if (pid < 0) {
        fail_errno(error, "fork");
        return -1;
    }
    if (pid == 0) {
        if (die_with_parent && (prctl(PR_SET_PDEATHSIG, SIGTERM) != 0 || getppid() != parent)) _exit(1);
        setpgid(0, 0);
        const int in = open("/dev/null", O_RDONLY);
        const int out = open(log.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644);
        if (in < 0 || out < 0) _exit(126);
        dup2(in, 0);
        dup2(out, 1);
        dup2(out, 2);
        close_range(3, ~0U, 0);
        sigset_t none;
        sigemptyset(&none);
        sigprocmask(SIG_SETMASK, &none, nullptr);
        execv(args[0], args.data());
        _exit(127);
    }
    return pid;
}

bool exited(pid_t pid) {
    int status = 0;
    const pid_t r = waitpid(pid, &status, WNOHANG);
    if (r != -1) return r == pid;
    // Not our child (the demo's helper stops servers that an earlier run of it started): gone when
    // the process no longer exists or is a zombie waiting for its new parent.
    if (kill(pid, 0) != 0) return errno == ESRCH;
    const std::string stat = read_file("/proc/" + std::to_string(pid) + "/stat");
    const size_t close_paren = stat.rfind(')');
    return close_paren != std::string::npos && close_paren + 2 < stat.size() && stat[close_paren + 2] == 'Z';
}

std::string tail_of(const std::string &path) {
    const std::string text = read_file(path);
    return text.size() > 2000 ? text.substr(text.size() - 2000) : text;
}

}  // namespace

bool in_sandbox() {
    const char *flag = getenv("FCADMIN_IN_SANDBOX");
    return flag != nullptr && strcmp(flag, "1") == 0;
}

bool wait_for_port(const std::string &address, int port, int timeout_ms) {
    addrinfo hints{};
    hints.ai_flags = AI_NUMERICHOST | AI_NUMERICSERV;
    hints.ai_socktype = SOCK_STREAM;
    addrinfo *found = nullptr;
    if (getaddrinfo(address.c_str(), std::to_string(port).c_str(), &hints, &found) != 0) return false;
    bool connected = false;
    for (int waited = 0; !connected && waited <= timeout_ms; waited += kPollMs) {
        const int fd = socket(found->ai_family, SOCK_STREAM | SOCK_CLOEXEC, 0);
        connected = fd >= 0 && connect(fd, found->ai_addr, found->ai_addrlen) == 0;
        if (fd >= 0) close(fd);
        if (!connected) usleep(kPollMs * 1000);
    }
    freeaddrinfo(found);
    return connected;
}

void stop_server(pid_t pid, int timeout_ms) {
    if (pid <= 0) return;
    kill(pid, SIGTERM);
    for (int waited = 0; waited < timeout_ms; waited += kPollMs) {
        if (exited(pid)) return;
        usleep(kPollMs * 1000);
    }
    kill(pid, SIGKILL);
    while (!exited(pid)) usleep(kPollMs * 1000);
}

// ---- local users ----

bool LocalUsers::prepare() {
    if (prepared_) return true;
    if (!ensure_sandbox(&error_)) return false;
    if (!make_dirs(dir_)) return fail_errno(&error_, "mkdir " + dir_);
    for (const char *name : {"passwd", "shadow", "group"}) {
        const std::string original = std::string("/etc/") + name, copy = dir_ + "/" + name;
        if (!store(copy, read_file(original), strcmp(name, "shadow") == 0 ? 0640 : 0644, &error_)) return false;
        if (mount(copy.c_str(), original.c_str(), nullptr, MS_BIND, nullptr) != 0)
            return fail_errno(&error_, "bind " + copy + " over " + original);
    }
    return prepared_ = true;
}

bool LocalUsers::add(const std::string &name, const std::string &password, const std::string &home, uid_t uid) {
    if (!prepare()) return false;
    if (getpwnam(name.c_str()) != nullptr) return fail(&error_, "user " + name + " exists already");
    std::string hash;
    if (run_program({kOpenssl, "passwd", "-6", "-salt", "fcadminpeers", password}, &hash) != 0 ||
        hash.compare(0, 3, "$6$") != 0)
        return fail(&error_, "openssl passwd failed: " + hash);
    while (!hash.empty() && hash.back() == '\n') hash.pop_back();
    const std::string id = std::to_string(uid);
    const std::string lines[3][2] = {
        {"passwd", name + ":x:" + id + ":" + id + ":fcadmin peer user:" + home + ":/bin/sh\n"},
        {"shadow", name + ":" + hash + ":19000:0:99999:7:::\n"},
        {"group", name + ":x:" + id + ":\n"}};
    for (const auto &[file, line] : lines) {
        const std::string path = dir_ + "/" + file;
        if (!store(path, read_file(path) + line, file == "shadow" ? 0640 : 0644, &error_)) return false;
    }
    return (make_dirs(home) && chown(home.c_str(), uid, uid) == 0) || fail_errno(&error_, "home " + home);
}

bool LocalUsers::rehome(uid_t uid, const std::string &home) {
    if (!prepare()) return false;
    // name:x:uid:gid:gecos:home:shell
    const std::regex entry("([^:]*:[^:]*:" + std::to_string(uid) + ":[^:]*:[^:]*:)[^:]*(:[^:]*)");
    std::istringstream in(read_file(dir_ + "/passwd"));
    std::string out;
    bool found = false;
    for (std::string line; std::getline(in, line);) {
        std::smatch m;
        if (std::regex_match(line, m, entry)) {
            line = m[1].str() + home + m[2].str();
            found = true;
        }
        out += line + "\n";
    }
    if (!found) return fail(&error_, "no user with uid " + std::to_string(uid));
    if (!store(dir_ + "/passwd", out, 0644, &error_)) return false;
    return (make_dirs(home, 0700) && chown(home.c_str(), uid, uid) == 0) || fail_errno(&error_, "home " + home);
}

// ---- sshd ----

SshPeer::SshPeer(Options options) : options_(std::move(options)) {}
SshPeer::~SshPeer() { stop(); }

bool SshPeer::start() {
    if (!ensure_sandbox(&error_)) return false;
    const std::string &dir = options_.dir;
    if (!make_dirs(dir) || !make_dirs(kSshdRunDir)) return fail_errno(&error_, "mkdir " + dir + " or " + kSshdRunDir);
    for (const char *key : {"host_key", "client_key"}) {
        const std::string path = dir + "/" + key;
        unlink(path.c_str());
        unlink((path + ".pub").c_str());
        std::string out;
        if (run_program({kSshKeygen, "-q", "-t", "ed25519", "-N", "", "-C", key, "-f", path}, &out) != 0)
            return fail(&error_, "ssh-keygen failed for " + path + ": " + out);
    }
    if (!authorize_client(true)) return false;
    const std::string port = std::to_string(options_.port);
    const std::string config =
        "Port " + port + "\nListenAddress 127.0.0.1\nListenAddress ::1\n"
        "HostKey " + dir + "/host_key\nAuthorizedKeysFile " + dir + "/authorized_keys\n"
        "PidFile none\nStrictModes no\nUsePAM no\nPubkeyAuthentication yes\nPasswordAuthentication no\n"
        "KbdInteractiveAuthentication no\nPermitRootLogin prohibit-password\nPrintMotd no\n"
        "LogLevel VERBOSE\nSubsystem sftp internal-sftp\n";
    if (!store(dir + "/sshd_config", config, 0600, &error_)) return false;
    pid_ = spawn_server({kSshd, "-D", "-e", "-f", dir + "/sshd_config"}, dir + "/sshd.log",
                        !options_.outlive_starter, &error_);
    if (pid_ < 0) return false;
    for (const char *address : {"127.0.0.1", "::1"}) {
        if (!wait_for_port(address, options_.port)) {
            fail(&error_, std::string("sshd does not accept on ") + address + " port " + port + ": " + log());
            stop();
            return false;
        }
    }
    return true;
}

void SshPeer::stop() { stop_server(std::exchange(pid_, -1)); }

pid_t SshPeer::release() { return std::exchange(pid_, -1); }

bool SshPeer::authorize_client(bool yes) {
    const std::string key = yes ? read_file(client_key() + ".pub") : std::string();
    if (yes && key.empty()) return fail(&error_, "no client key in " + options_.dir);
    return store(options_.dir + "/authorized_keys", key, 0644, &error_);
}

bool SshPeer::install_client_config(LocalUsers &users) {
    if (!ensure_sandbox(&error_)) return false;
    const std::string config_dir = options_.dir + "/client-config";
    if (!make_dirs(config_dir)) return fail_errno(&error_, "mkdir " + config_dir);
    const std::string snippet = "Host *\n    IdentityFile " + client_key() +
                                "\n    IdentitiesOnly yes\n    UserKnownHostsFile " + options_.dir +
                                "/known_hosts\n    GlobalKnownHostsFile /dev/null\n    BatchMode yes\n";
    if (!store(config_dir + "/fcadmin-peer.conf", snippet, 0644, &error_)) return false;
    if (mount(config_dir.c_str(), kSshClientConfigDir, nullptr, MS_BIND, nullptr) != 0)
        return fail_errno(&error_, "bind " + config_dir + " over " + kSshClientConfigDir);
    return users.rehome(geteuid(), options_.dir + "/client-home") || fail(&error_, users.error());
}

std::string SshPeer::log() const { return tail_of(options_.dir + "/sshd.log"); }

// ---- vsftpd ----

FtpPeer::FtpPeer(Options options) : options_(std::move(options)) {}
FtpPeer::~FtpPeer() { stop(); }

bool FtpPeer::start() {
    if (!ensure_sandbox(&error_)) return false;
    const std::string &dir = options_.dir;
    // vsftpd's secure_chroot_dir: empty, owned by root, not writable by anyone else.
    if (!make_dirs(dir) || !make_dirs(dir + "/empty") || chmod((dir + "/empty").c_str(), 0755) != 0)
        return fail_errno(&error_, "mkdir " + dir);
    if (!store(std::string("/etc/pam.d/") + kFtpPamService,
               "auth     required pam_unix.so\naccount  required pam_unix.so\nsession  required pam_permit.so\n",
               0644, &error_))
        return false;
    bool v6 = options_.address.find(':') != std::string::npos;
    std::string config =
        std::string(v6 ? "listen=NO\nlisten_ipv6=YES\nlisten_address6=" : "listen=YES\nlisten_ipv6=NO\nlisten_address=") +
        options_.address + "\n"
        "listen_port=" + std::to_string(options_.port) + "\n"
        "background=NO\n"
        "anonymous_enable=NO\n"
        "local_enable=YES\n"
        + std::string(options_.writable ? "write_enable=YES\nlocal_umask=022\n" : "write_enable=NO\n") +
        "chroot_local_user=NO\n"
        "connect_from_port_20=NO\n"
        "pam_service_name=" + kFtpPamService + "\n"
        "secure_chroot_dir=" + dir + "/empty\n"
        "seccomp_sandbox=NO\n"
        "isolate=NO\n"
        "isolate_network=NO\n"
        "syslog_enable=NO\n"
        "xferlog_enable=YES\n"
        "xferlog_std_format=NO\n"
        "log_ftp_protocol=YES\n"
        "vsftpd_log_file=" + dir + "/vsftpd.log\n";
    if (!store(dir + "/vsftpd.conf", config, 0600, &error_)) return false;
    pid_ = spawn_server({kVsftpd, dir + "/vsftpd.conf"}, dir + "/vsftpd.out", !options_.outlive_starter, &error_);
    if (pid_ < 0) return false;
    if (!wait_for_port(options_.address, options_.port)) {
        fail(&error_, "vsftpd does not accept on " + options_.address + ": " + tail_of(dir + "/vsftpd.out"));
        stop();
        return false;
    }
    return true;
}

void FtpPeer::stop() { stop_server(std::exchange(pid_, -1)); }

pid_t FtpPeer::release() { return std::exchange(pid_, -1); }

std::string FtpPeer::log() const { return tail_of(options_.dir + "/vsftpd.log"); }

}  // namespace fcadmin_test
