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
constexpr uid_t kUid = 4243;

size_t count(const std::string &text, const std::string &what) {
    size_t n = 0;
    for (size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + 1)) ++n;
    return n;
}

TEST(ExportEndToEnd, ScpSftpAndFtpUploadEveryStagedFile) {
    EXPECT_EQ(run_in_child([] {
        private_mounts();
        // ncftpput keeps preferences under $HOME; give it one of the test's own. Standard input is not a
        // terminal: no tool may stop to ask for a password.
        const std::string tool_home = kWork + "/tool_home";
        ASSERT_EQ(run_program({"/bin/mkdir", "-p", tool_home, FCADMIN_EXPORT_SOURCE_DIR}), 0);
        setenv("HOME", tool_home.c_str(), 1);
        ASSERT_NE(freopen("/dev/null", "r", stdin), nullptr);
        LocalUsers users(kWork + "/users");
        const std::string home = kWork + "/home/exporter";
        ASSERT_TRUE(users.add("exporter", "s3cret", home, kUid)) << users.error();
        SshPeer ssh({kWork + "/sshd", 22});
        ASSERT_TRUE(ssh.start()) << ssh.error();
        ASSERT_TRUE(ssh.install_client_config(users)) << ssh.error();
        FtpPeer::Options options{kWork + "/ftp", "127.0.0.1", 21};
        options.writable = true;
        FtpPeer ftp(options);
        ASSERT_TRUE(ftp.start()) << ftp.error();

        // Three items, one of them binary with every byte value and larger than one transfer buffer.
        std::string binary;
        for (int i = 0; i < 200000; ++i) binary.push_back(static_cast<char>((i * 7919) % 256));
        const std::vector<std::pair<std::string, std::string>> items = {
            {"running.cfg", "hostname switch1\nport 1 enable\n"}, {"zone.db", binary}, {"notes.txt", ""}};
        for (const auto &[name, content] : items) write_file(FCADMIN_EXPORT_SOURCE_DIR "/" + name, content);

        struct Upload {
            const char *protocol, *host, *dir, *password;
            int32_t port;
            unsigned platform_shell;
            size_t key_logins;  // sshd's count of public-key log-ins after this upload
        };
        // scp carries every staged file in one command (one log-in); sftp goes over IPv6 with its batch
        // file; the ftp target is relative to the login directory and the port never reaches ncftpput.
        for (const Upload &u : {Upload{"scp", "127.0.0.1", "scp_in", "", 22, 0, 1},
                                Upload{"sftp", "::1", "sftp_in", "", 0, 1, 2},
                                Upload{"ftp", "127.0.0.1", "ftp_in", "s3cret", 2121, 0, 2}}) {
            const std::string dir = home + "/" + u.dir;
            ASSERT_EQ(mkdir(dir.c_str(), 0755), 0) << dir;
            ASSERT_EQ(chown(dir.c_str(), kUid, kUid), 0) << dir;
            TransferRequest r;
            memset(&r, 0, sizeof r);
            strcpy(r.selector, "all");
            strcpy(r.protocol, u.protocol);
            strcpy(r.user_name, "exporter");
            strcpy(r.password, u.password);
            strcpy(r.host, u.host);
            strcpy(r.remote_dir, strcmp(u.protocol, "ftp") == 0 ? u.dir : dir.c_str());
            r.port = u.port;
            ASSERT_EQ(exportFileToRemoteSystem(&r, u.platform_shell), 0)
                << u.protocol << read_file(FCADMIN_TRANSFER_LOG) << ssh.log() << ftp.log();
            for (const auto &[name, content] : items) EXPECT_EQ(read_file(dir + "/" + name), content) << name;
            DIR *staging = opendir(FCADMIN_EXPORT_STAGING_DIR);
            ASSERT_NE(staging, nullptr);
            size_t left = 0;
            while (dirent *e = readdir(staging)) left += strcmp(e->d_name, ".") != 0 && strcmp(e->d_name, "..") != 0;
            closedir(staging);
            EXPECT_EQ(left, 0u) << u.protocol;
            EXPECT_FALSE(file_exists(FCADMIN_EXPORT_BATCH_FILE)) << u.protocol;
            EXPECT_EQ(count(ssh.log(), "Accepted publickey for exporter"), u.key_logins) << ssh.log();
        }
    }), 0);
}

}  // namespace
