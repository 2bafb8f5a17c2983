// The export end to end: the host content provider, real scp, sftp and ncftpput, sshd and vsftpd on the
// sandbox loopback.
#include "fcadmin.h"
#include "tests/support/helpers.h"
#include "tests/support/peers.h"

#include <dirent.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

using namespace fcadmin_test;

namespace {

const std::string kWork = "/tmp/export_e2e";
const std::string kSource = FCADMIN_EXPORT_SOURCE_DIR;
constexpr uid_t kUid = 4243;

// Three items, one of them binary with every byte value and larger than one transfer buffer.
std::vector<std::pair<std::string, std::string>> make_items() {
    std::string binary;
    for (int i = 0; i < 200000; ++i) binary.push_back(static_cast<char>((i * 7919) % 256));
    std::vector<std::pair<std::string, std::string>> items = {
        {"running.cfg", "hostname switch1\nport 1 enable\n"}, {"zone.db", binary}, {"notes.txt", ""}};
    EXPECT_EQ(run_program({"/bin/mkdir", "-p", kSource}), 0);
    for (const auto &[name, content] : items) write_file(kSource + "/" + name, content);
    return items;
}

std::vector<std::string> entries(const std::string &dir) {
    std::vector<std::string> names;
    if (DIR *d = opendir(dir.c_str())) {
        while (dirent *e = readdir(d))
            if (strcmp(e->d_name, ".") != 0 && strcmp(e->d_name, "..") != 0) names.push_back(e->d_name);
        closedir(d);
    }
    return names;
}

void make_user_dir(const std::string &path) {
    ASSERT_EQ(mkdir(path.c_str(), 0755), 0) << path;
    ASSERT_EQ(chown(path.c_str(), kUid, kUid), 0) << path;
}

TransferRequest make_request(const char *protocol, const char *host, const std::string &remote_dir) {
    TransferRequest r;
    memset(&r, 0, sizeof r);
    strcpy(r.selector, "all");
    strcpy(r.protocol, protocol);
    strcpy(r.user_name, "exporter");
    strcpy(r.host, host);
    strcpy(r.remote_dir, remote_dir.c_str());
    return r;
}

size_t count(const std::string &text, const std::string &what) {
    size_t n = 0;
    for (size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + 1)) ++n;
    return n;
}

TEST(ExportEndToEnd, ScpAndSftpByPublicKey) {
    EXPECT_EQ(run_in_child([] {
        private_mounts();
        LocalUsers users(kWork + "/users");
        const std::string home = kWork + "/home/exporter";
        ASSERT_TRUE(users.add("exporter", "unused", home, kUid)) << users.error();
        SshPeer ssh({kWork + "/sshd", 22});
        ASSERT_TRUE(ssh.start()) << ssh.error();
        ASSERT_TRUE(ssh.install_client_config(users)) << ssh.error();
        auto items = make_items();

        // scp through the command runner: every staged file in one command, one log-in.
        make_user_dir(home + "/scp_in");
        TransferRequest r = make_request("scp", "127.0.0.1", home + "/scp_in");
        r.port = 22;
        ASSERT_EQ(exportFileToRemoteSystem(&r, 0), 0) << read_file(FCADMIN_TRANSFER_LOG) << ssh.log();
        for (const auto &[name, content] : items) EXPECT_EQ(read_file(home + "/scp_in/" + name), content) << name;
        EXPECT_EQ(entries(FCADMIN_EXPORT_STAGING_DIR), std::vector<std::string>{});
        EXPECT_EQ(count(ssh.log(), "Accepted publickey for exporter"), 1u) << ssh.log();

        // sftp over IPv6 through the platform shell service, with its batch file, and without a port.
        make_user_dir(home + "/sftp_in");
        r = make_request("sftp", "::1", home + "/sftp_in");
        ASSERT_EQ(exportFileToRemoteSystem(&r, 1), 0) << read_file(FCADMIN_TRANSFER_LOG) << ssh.log();
        for (const auto &[name, content] : items) EXPECT_EQ(read_file(home + "/sftp_in/" + name), content) << name;
        EXPECT_EQ(entries(FCADMIN_EXPORT_STAGING_DIR), std::vector<std::string>{});
        EXPECT_FALSE(file_exists(FCADMIN_EXPORT_BATCH_FILE));
        EXPECT_EQ(count(ssh.log(), "Accepted publickey for exporter"), 2u) << ssh.log();

        // One item under a name of its own, the remote target taken from the path.
        r = make_request("scp", "127.0.0.1", "");
        strcpy(r.selector, "running.cfg");
        strcpy(r.remote_path, (home + "/scp_in/copy.cfg").c_str());
        ASSERT_EQ(exportFileToRemoteSystem(&r, 0), 0) << read_file(FCADMIN_TRANSFER_LOG);
        EXPECT_EQ(read_file(home + "/scp_in/copy.cfg"), items[0].second);
        EXPECT_EQ(entries(FCADMIN_EXPORT_STAGING_DIR), std::vector<std::string>{});
    }), 0);
}

TEST(ExportEndToEnd, FtpWithNcftpput) {
    EXPECT_EQ(run_in_child([] {
        private_mounts();
        // ncftpput keeps preferences under $HOME; give it one of the test's own.
        const std::string tool_home = kWork + "/tool_home";
        ASSERT_EQ(run_program({"/bin/mkdir", "-p", tool_home}), 0);
        setenv("HOME", tool_home.c_str(), 1);
        // Not a terminal: ncftpput must never stop to ask for a password.
        ASSERT_NE(freopen("/dev/null", "r", stdin), nullptr);
        LocalUsers users(kWork + "/users");
        const std::string home = kWork + "/home/exporter";
        ASSERT_TRUE(users.add("exporter", "s3cret", home, kUid)) << users.error();
        FtpPeer::Options options{kWork + "/ftp", "127.0.0.1", 21};
        options.writable = true;
        FtpPeer ftp(options);
        ASSERT_TRUE(ftp.start()) << ftp.error();
        auto items = make_items();

        // The ftp target is relative to the login directory; the port is never put on the command line.
        make_user_dir(home + "/ftp_in");
        TransferRequest r = make_request("ftp", "127.0.0.1", "ftp_in");
        strcpy(r.password, "s3cret");
        r.port = 2121;
        ASSERT_EQ(exportFileToRemoteSystem(&r, 0), 0) << read_file(FCADMIN_TRANSFER_LOG) << ftp.log();
        for (const auto &[name, content] : items) EXPECT_EQ(read_file(home + "/ftp_in/" + name), content) << name;
        EXPECT_EQ(entries(FCADMIN_EXPORT_STAGING_DIR), std::vector<std::string>{});

        // Without a password there is no prompt: ncftpput gives up at once and the export fails.
        r = make_request("ftp", "127.0.0.1", "ftp_in");
        EXPECT_EQ(exportFileToRemoteSystem(&r, 1), -50);
        EXPECT_EQ(entries(FCADMIN_EXPORT_STAGING_DIR), std::vector<std::string>{});
    }), 0);
}

}  // namespace
