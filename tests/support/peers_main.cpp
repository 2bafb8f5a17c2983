// fcadmin_test_peers: starts and stops the throwaway transfer peers from a shell (the demo), inside the
// test sandbox only. `start DIR` leaves sshd on port 22 of 127.0.0.1 and ::1 and vsftpd on port 21 of
// each running, with the user j.doe (password "p@ss:w0rd", home DIR/home/j.doe) and the machine's ssh
// client pointed at the peer's key; `stop DIR` ends them and takes back start's mounts.
#include "tests/support/helpers.h"
#include "tests/support/peers.h"

#include <sys/mount.h>

#include <cstdio>
#include <cstring>
#include <sstream>

using namespace fcadmin_test;

namespace {

constexpr char kUser[] = "j.doe";
constexpr char kPassword[] = "p@ss:w0rd";
constexpr uid_t kUid = 4242;

int fail(const std::string &what) {
    fprintf(stderr, "fcadmin_test_peers: %s\n", what.c_str());
    return 1;
}

int start(const std::string &dir) {
    LocalUsers users(dir + "/users");
    std::string home = dir + "/home/" + kUser;
    if (!users.add(kUser, kPassword, home, kUid)) return fail(users.error());
    SshPeer ssh({dir + "/sshd", 22, true});
    if (!ssh.start()) return fail(ssh.error());
    if (!ssh.install_client_config(users)) return fail(ssh.error());
    FtpPeer ftp4({dir + "/ftp4", "127.0.0.1", 21, true});
    if (!ftp4.start()) return fail(ftp4.error());
    FtpPeer ftp6({dir + "/ftp6", "::1", 21, true});
    if (!ftp6.start()) return fail(ftp6.error());
    std::ostringstream pids;
    pids << ssh.release() << " " << ftp4.release() << " " << ftp6.release() << "\n";
    write_file(dir + "/pids", pids.str());
    printf("sshd on [127.0.0.1]:22 and [::1]:22, public key %s\n", ssh.client_key().c_str());
    printf("vsftpd on 127.0.0.1:21 and [::1]:21\n");
    printf("user %s, password \"%s\", home %s\n", kUser, kPassword, home.c_str());
    return 0;
}

int stop(const std::string &dir) {
    if (!in_sandbox()) return fail("refusing to run outside the test sandbox");
    std::istringstream pids(read_file(dir + "/pids"));
    for (pid_t pid; pids >> pid;) stop_server(pid);
    unlink((dir + "/pids").c_str());
    // Takes back the bind mounts of start (the users' files and the client's configuration), which
    // outlive this process in the sandbox's mount namespace: a later start begins afresh.
    for (const char *path : {"/etc/ssh/ssh_config.d", "/etc/group", "/etc/shadow", "/etc/passwd"})
        umount2(path, MNT_DETACH);
    return 0;
}

}  // namespace

int main(int argc, char **argv) {
    if (argc != 3) return fail("usage: fcadmin_test_peers start|stop DIR");
    if (strcmp(argv[1], "start") == 0) return start(argv[2]);
    if (strcmp(argv[1], "stop") == 0) return stop(argv[2]);
    return fail(std::string("unknown command ") + argv[1]);
}
