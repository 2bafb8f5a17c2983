// Throwaway sshd and vsftpd peers on the sandbox's loopback, with private local users.
#include "tests/support/peers.h"

#include "tests/support/helpers.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
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
#include <ctime>
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

std::string errno_text(const std::string &what) { return what + ": " + strerror(errno); }

void sleep_ms(int ms) {
    timespec t{ms / 1000, (ms % 1000) * 1000000L};
    while (nanosleep(&t, &t) != 0 && errno == EINTR) {
    }
}

// mkdir -p; true when path is a directory afterwards.
bool make_dirs(const std::string &path, mode_t mode = 0755) {
    for (size_t i = 1; i <= path.size(); ++i) {
        if (i != path.size() && path[i] != '/') continue;
        std::string part = path.substr(0, i);
        if (mkdir(part.c_str(), mode) != 0 && errno != EEXIST) return false;
    }
    struct stat st{};
    return stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

bool store(const std::string &path, const std::string &content, mode_t mode, std::string *error) {
    int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, mode);
    if (fd < 0) {
        *error = errno_text("create " + path);
        return false;
    }
    bool ok = write(fd, content.data(), content.size()) == static_cast<ssize_t>(content.size());
    fchmod(fd, mode);
    close(fd);
    if (!ok) *error = errno_text("write " + path);
    return ok;
}

bool append(const std::string &path, const std::string &line, std::string *error) {
    int fd = open(path.c_str(), O_WRONLY | O_APPEND | O_CLOEXEC);
    if (fd < 0) {
        *error = errno_text("open " + path);
        return false;
    }
    bool ok = write(fd, line.data(), line.size()) == static_cast<ssize_t>(line.size());
    close(fd);
    if (!ok) *error = errno_text("append to " + path);
    return ok;
}

bool ensure_sandbox(std::string *error) {
    if (in_sandbox()) return true;
    *error = "refusing to touch the system's users, mounts and ports outside the test sandbox";
    return false;
}

// Starts a server in the foreground of its own (it must not detach), its output into log. The server
// is sent SIGTERM when the process that started it dies, so a crashed test leaves nothing behind.
pid_t spawn_server(const std::vector<std::string> &argv, const std::string &log, bool die_with_parent,
                   std::string *error) {
    std::vector<char *> args;
    for (const auto &a : argv) args.push_back(const_cast<char *>(a.c_str()));
    args.push_back(nullptr);
    pid_t parent = getpid();
    fflush(nullptr);
    pid_t pid = fork();
    if (pid < 0) {
        *error = errno_text("fork");
        return -1;
    }
    if (pid == 0) {
        if (die_with_parent) {
            prctl(PR_SET_PDEATHSIG, SIGTERM);
            if (getppid() != parent) _exit(1);
        }
        setpgid(0, 0);
        int in = open("/dev/null", O_RDONLY);
        int out = open(log.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644);
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
    pid_t r = waitpid(pid, &status, WNOHANG);
    if (r == pid) return true;
    if (r == 0) return false;
    // Not our child (the demo's helper stops servers that an earlier run of it started): gone when
    // the process no longer exists or is a zombie waiting for its new parent.
    if (kill(pid, 0) != 0) return errno == ESRCH;
    std::string stat = read_file("/proc/" + std::to_string(pid) + "/stat");
    size_t close_paren = stat.rfind(')');
    return close_paren != std::string::npos && close_paren + 2 < stat.size() && stat[close_paren + 2] == 'Z';
}

std::string tail_of(const std::string &path) {
    std::string text = read_file(path);
    return text.size() > 2000 ? text.substr(text.size() - 2000) : text;
}

}  // namespace

bool in_sandbox() {
    const char *flag = getenv("FCADMIN_IN_SANDBOX");
    return flag != nullptr && strcmp(flag, "1") == 0;
}

bool wait_for_port(const std::string &address, int port, int timeout_ms) {
    sockaddr_storage storage{};
    socklen_t length = 0;
    auto *v4 = reinterpret_cast<sockaddr_in *>(&storage);
    auto *v6 = reinterpret_cast<sockaddr_in6 *>(&storage);
    if (inet_pton(AF_INET, address.c_str(), &v4->sin_addr) == 1) {
        v4->sin_family = AF_INET;
        v4->sin_port = htons(static_cast<uint16_t>(port));
        length = sizeof *v4;
    } else if (inet_pton(AF_INET6, address.c_str(), &v6->sin6_addr) == 1) {
        v6->sin6_family = AF_INET6;
        v6->sin6_port = htons(static_cast<uint16_t>(port));
        length = sizeof *v6;
    } else {
        return false;
    }
    for (int waited = 0; waited <= timeout_ms; waited += kPollMs) {
        int fd = socket(storage.ss_family, SOCK_STREAM | SOCK_CLOEXEC, 0);
        if (fd < 0) return false;
        bool connected = connect(fd, reinterpret_cast<sockaddr *>(&storage), length) == 0;
        close(fd);
        if (connected) return true;
        sleep_ms(kPollMs);
    }
    return false;
}

void stop_server(pid_t pid, int timeout_ms) {
    if (pid <= 0) return;
    kill(pid, SIGTERM);
    for (int waited = 0; waited < timeout_ms; waited += kPollMs) {
        if (exited(pid)) return;
        sleep_ms(kPollMs);
    }
    kill(pid, SIGKILL);
    while (!exited(pid)) sleep_ms(kPollMs);
}

// ---- local users ----

bool LocalUsers::prepare() {
    if (prepared_) return true;
    if (!ensure_sandbox(&error_)) return false;
    if (!make_dirs(dir_)) {
        error_ = errno_text("mkdir " + dir_);
        return false;
    }
    for (const char *name : {"passwd", "shadow", "group"}) {
        std::string original = std::string("/etc/") + name;
        std::string copy = dir_ + "/" + name;
        if (!store(copy, read_file(original), strcmp(name, "shadow") == 0 ? 0640 : 0644, &error_)) return false;
        if (mount(copy.c_str(), original.c_str(), nullptr, MS_BIND, nullptr) != 0) {
            error_ = errno_text("bind " + copy + " over " + original);
            return false;
        }
    }
    prepared_ = true;
    return true;
}

bool LocalUsers::add(const std::string &name, const std::string &password, const std::string &home, uid_t uid) {
    if (!prepare()) return false;
    if (getpwnam(name.c_str()) != nullptr) {
        error_ = "user " + name + " exists already";
        return false;
    }
    std::string hash;
    if (run_program({kOpenssl, "passwd", "-6", "-salt", "fcadminpeers", password}, &hash) != 0 ||
        hash.compare(0, 3, "$6$") != 0) {
        error_ = "openssl passwd failed: " + hash;
        return false;
    }
    while (!hash.empty() && hash.back() == '\n') hash.pop_back();
    std::string id = std::to_string(uid);
    if (!append(dir_ + "/passwd", name + ":x:" + id + ":" + id + ":fcadmin peer user:" + home + ":/bin/sh\n",
                &error_) ||
        !append(dir_ + "/shadow", name + ":" + hash + ":19000:0:99999:7:::\n", &error_) ||
        !append(dir_ + "/group", name + ":x:" + id + ":\n", &error_))
        return false;
    if (!make_dirs(home) || chown(home.c_str(), uid, uid) != 0) {
        error_ = errno_text("home " + home);
        return false;
    }
    return true;
}

bool LocalUsers::rehome(uid_t uid, const std::string &home) {
    if (!prepare()) return false;
    std::istringstream in(read_file(dir_ + "/passwd"));
    std::string out, line;
    bool found = false;
    while (std::getline(in, line)) {
        // name:x:uid:gid:gecos:home:shell
        std::vector<std::string> fields;
        std::stringstream split(line);
        for (std::string f; std::getline(split, f, ':');) fields.push_back(f);
        if (fields.size() == 7 && fields[2] == std::to_string(uid)) {
            fields[5] = home;
            line = fields[0];
            for (size_t i = 1; i < fields.size(); ++i) line += ":" + fields[i];
            found = true;
        }
        out += line + "\n";
    }
    if (!found) {
        error_ = "no user with uid " + std::to_string(uid);
        return false;
    }
    // Rewritten in place: the bind mount holds this very file.
    int fd = open((dir_ + "/passwd").c_str(), O_WRONLY | O_TRUNC | O_CLOEXEC);
    if (fd < 0 || write(fd, out.data(), out.size()) != static_cast<ssize_t>(out.size())) {
        error_ = errno_text("rewrite passwd");
        if (fd >= 0) close(fd);
        return false;
    }
    close(fd);
    if (!make_dirs(home, 0700) || chown(home.c_str(), uid, uid) != 0) {
        error_ = errno_text("home " + home);
        return false;
    }
    return true;
}

// ---- sshd ----

SshPeer::SshPeer(Options options) : options_(std::move(options)) {}
SshPeer::~SshPeer() { stop(); }

bool SshPeer::start() {
    if (!ensure_sandbox(&error_)) return false;
    const std::string &dir = options_.dir;
    if (!make_dirs(dir) || !make_dirs(kSshdRunDir)) {
        error_ = errno_text("mkdir " + dir + " or " + kSshdRunDir);
        return false;
    }
    for (const char *key : {"host_key", "client_key"}) {
        std::string path = dir + "/" + key;
        unlink(path.c_str());
        unlink((path + ".pub").c_str());
        std::string out;
        int status = run_program({kSshKeygen, "-q", "-t", "ed25519", "-N", "", "-C", key, "-f", path}, &out);
        if (status != 0) {
            error_ = "ssh-keygen failed for " + path + ": " + out;
            return false;
        }
    }
    if (!authorize_client(true)) return false;
    std::string port = std::to_string(options_.port);
    std::string config =
        "Port " + port + "\n"
        "ListenAddress 127.0.0.1\n"
        "ListenAddress ::1\n"
        "HostKey " + dir + "/host_key\n"
        "AuthorizedKeysFile " + dir + "/authorized_keys\n"
        "PidFile none\n"
        "StrictModes no\n"
        "UsePAM no\n"
        "PubkeyAuthentication yes\n"
        "PasswordAuthentication no\n"
        "KbdInteractiveAuthentication no\n"
        "PermitRootLogin prohibit-password\n"
        "PrintMotd no\n"
        "LogLevel VERBOSE\n"
        "Subsystem sftp internal-sftp\n";
    if (!store(dir + "/sshd_config", config, 0600, &error_)) return false;
    pid_ = spawn_server({kSshd, "-D", "-e", "-f", dir + "/sshd_config"}, dir + "/sshd.log",
                        !options_.outlive_starter, &error_);
    if (pid_ < 0) return false;
    for (const char *address : {"127.0.0.1", "::1"}) {
        if (!wait_for_port(address, options_.port)) {
            error_ = std::string("sshd does not accept on ") + address + " port " + port + ": " + log();
            stop();
            return false;
        }
    }
    return true;
}

void SshPeer::stop() {
    stop_server(pid_);
    pid_ = -1;
}

pid_t SshPeer::release() { return std::exchange(pid_, -1); }

bool SshPeer::authorize_client(bool yes) {
    std::string key = yes ? read_file(client_key() + ".pub") : std::string();
    if (yes && key.empty()) {
        error_ = "no client key in " + options_.dir;
        return false;
    }
    return store(options_.dir + "/authorized_keys", key, 0644, &error_);
}

bool SshPeer::install_client_config(LocalUsers &users) {
    if (!ensure_sandbox(&error_)) return false;
    std::string config_dir = options_.dir + "/client-config";
    if (!make_dirs(config_dir)) {
        error_ = errno_text("mkdir " + config_dir);
        return false;
    }
    std::string snippet =
        "Host *\n"
        "    IdentityFile " + client_key() + "\n"
        "    IdentitiesOnly yes\n"
        "    UserKnownHostsFile " + options_.dir + "/known_hosts\n"
        "    GlobalKnownHostsFile /dev/null\n"
        "    BatchMode yes\n";
    if (!store(config_dir + "/fcadmin-peer.conf", snippet, 0644, &error_)) return false;
    if (mount(config_dir.c_str(), kSshClientConfigDir, nullptr, MS_BIND, nullptr) != 0) {
        error_ = errno_text(std::string("bind ") + config_dir + " over " + kSshClientConfigDir);
        return false;
    }
    if (!users.rehome(geteuid(), options_.dir + "/client-home")) {
        error_ = users.error();
        return false;
    }
    return true;
}

std::string SshPeer::log() const { return tail_of(options_.dir + "/sshd.log"); }

// ---- vsftpd ----

FtpPeer::FtpPeer(Options options) : options_(std::move(options)) {}
FtpPeer::~FtpPeer() { stop(); }

bool FtpPeer::start() {
    if (!ensure_sandbox(&error_)) return false;
    const std::string &dir = options_.dir;
    // vsftpd's secure_chroot_dir: empty, owned by root, not writable by anyone else.
    if (!make_dirs(dir) || !make_dirs(dir + "/empty")) {
        error_ = errno_text("mkdir " + dir);
        return false;
    }
    chmod((dir + "/empty").c_str(), 0755);
    std::string pam = std::string("/etc/pam.d/") + kFtpPamService;
    if (!store(pam,
               "auth     required pam_unix.so\n"
               "account  required pam_unix.so\n"
               "session  required pam_permit.so\n",
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
    pid_ = spawn_server({kVsftpd, dir + "/vsftpd.conf"}, dir + "/vsftpd.out",
                        !options_.outlive_starter, &error_);
    if (pid_ < 0) return false;
    if (!wait_for_port(options_.address, options_.port)) {
        error_ = "vsftpd does not accept on " + options_.address + ": " + tail_of(dir + "/vsftpd.out");
        stop();
        return false;
    }
    return true;
}

void FtpPeer::stop() {
    stop_server(pid_);
    pid_ = -1;
}

pid_t FtpPeer::release() { return std::exchange(pid_, -1); }

std::string FtpPeer::log() const { return tail_of(options_.dir + "/vsftpd.log"); }

}  // namespace fcadmin_test
