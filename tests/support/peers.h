// Throwaway transfer peers for end-to-end tests and the demo: OpenSSH's sshd and vsftpd on the loopback
// addresses of the sandbox's own network namespace, with local users of their own.
//
// Everything here changes the system it runs on (it writes users, bind-mounts over /etc/passwd,
// /etc/ssh/ssh_config.d and the client's home, listens on fixed ports), so every entry refuses to work
// outside tests/support/sandbox.sh (FCADMIN_IN_SANDBOX=1), and each process that calls it should have
// a mount namespace of its own (the sandbox gives one; private_mounts() gives a narrower one).
//
// Nothing here uses GoogleTest assertions: failures come back as false with a readable reason in
// error(), so that the demo's helper program can use the same code.
#pragma once

#include <sys/types.h>

#include <string>
#include <utility>

namespace fcadmin_test {

// True inside the test sandbox; the peers never start outside it.
bool in_sandbox();

// Connects to address:port (an IPv4 or IPv6 literal) until a connection is accepted or timeout_ms has
// passed; true when one was accepted.
bool wait_for_port(const std::string &address, int port, int timeout_ms = 10000);

// Local users for the peers: private copies of /etc/passwd, /etc/shadow and /etc/group, kept in a
// directory of their own and bind-mounted over the originals, extended by add(). The users log in with
// the shell /bin/sh and own their home directory, which add() creates.
class LocalUsers {
public:
    explicit LocalUsers(std::string dir) : dir_(std::move(dir)) {}
    // Adds a user (uid and gid alike) with a SHA-512 crypt hash of password.
    bool add(const std::string &name, const std::string &password, const std::string &home, uid_t uid);
    // Gives an existing user another home directory (created, owned by the user), so that clients
    // started as that user read and write nothing under the real one.
    bool rehome(uid_t uid, const std::string &home);
    const std::string &error() const { return error_; }

private:
    bool prepare();
    std::string dir_;
    std::string error_;
    bool prepared_ = false;
};

// An OpenSSH server on 127.0.0.1 and ::1 (one port for both) with its own configuration, host key and
// authorized_keys, and a client key pair for the machine's ssh client. Public-key log-in only: password
// and keyboard-interactive log-ins are refused by the server, so a client can never stop to ask.
class SshPeer {
public:
    struct Options {
        std::string dir;   // working directory of this peer (created; keys, config, log)
        int port = 22;
        bool outlive_starter = false;  // else sshd gets SIGTERM when the starting process ends
    };
    explicit SshPeer(Options options);
    ~SshPeer();
    SshPeer(const SshPeer &) = delete;
    SshPeer &operator=(const SshPeer &) = delete;

    // Makes the keys and the configuration, starts sshd -D and waits until both addresses accept.
    bool start();
    // Stops sshd (SIGTERM, then SIGKILL after a bounded wait) and reaps it. Safe to call twice.
    void stop();
    // Points the machine's ssh client at this peer's client key although its command line is fixed:
    // bind-mounts a directory holding a snippet (IdentityFile, IdentitiesOnly yes, UserKnownHostsFile,
    // BatchMode yes) over /etc/ssh/ssh_config.d, and gives the calling user an empty home of the
    // peer's in users, so that nothing is read from or written under the real one (ssh makes ~/.ssh).
    // Affects the caller's mount namespace.
    bool install_client_config(LocalUsers &users);
    // Whether the server accepts the client key (it does after start()); the server reads the
    // authorized_keys file at every log-in, so this takes effect at once.
    bool authorize_client(bool yes);

    // Forgets the process without stopping it; with outlive_starter, a later stop_server(pid) from
    // another process ends it (the demo's helper starts and stops in two runs).
    pid_t release();
    pid_t pid() const { return pid_; }
    int port() const { return options_.port; }
    const std::string &dir() const { return options_.dir; }
    std::string client_key() const { return options_.dir + "/client_key"; }
    std::string log() const;  // sshd's own output (-e)
    const std::string &error() const { return error_; }

private:
    Options options_;
    pid_t pid_ = -1;
    std::string error_;
};

// vsftpd on one loopback address (one instance cannot listen on IPv4 and IPv6 at once): local users
// log in with their password through a PAM service of the peer's own (pam_unix only), read-only unless
// made writable, in their home directory. Paths in ftp URLs are therefore relative to the user's home.
class FtpPeer {
public:
    struct Options {
        std::string dir;                   // working directory of this peer (created; config, log)
        std::string address = "127.0.0.1"; // "127.0.0.1" or "::1"
        int port = 21;
        bool outlive_starter = false;  // else vsftpd gets SIGTERM when the starting process ends
        bool writable = false;         // users may also upload into their home (files mode 0644)
    };
    explicit FtpPeer(Options options);
    ~FtpPeer();
    FtpPeer(const FtpPeer &) = delete;
    FtpPeer &operator=(const FtpPeer &) = delete;

    bool start();
    void stop();
    pid_t release();
    pid_t pid() const { return pid_; }
    std::string log() const;  // vsftpd's protocol log
    const std::string &error() const { return error_; }

private:
    Options options_;
    pid_t pid_ = -1;
    std::string error_;
};

// Sends SIGTERM to a server, waits up to timeout_ms for it to end (reaping it when it is a child),
// then SIGKILL.
void stop_server(pid_t pid, int timeout_ms = 5000);

}  // namespace fcadmin_test
