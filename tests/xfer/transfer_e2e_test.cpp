// Fetch and export against real peers on the sandbox's loopback (tests/support/peers.sh): OpenSSH's sshd
// for scp and sftp, vsftpd for wget and ncftpput, the real /bin/cp for usb; the host platform services.
#include "fcadmin.h"
#include "tests/support/helpers.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>

using namespace fcadmin_test;

namespace {

const std::string kPeers = "/tmp/peers", kHome = kPeers + "/home/j.doe";
const char kPassword[] = "p@ss:w0rd";

// A file that any mangling on the way (text mode, a cut, a charset) would change.
std::string sample(size_t size) {
    std::string data;
    for (size_t i = 0; i < size; ++i) data += static_cast<char>((i * 7 + i / 256) & 0xff);
    return data;
}

std::string log_text() { return read_file(FCADMIN_TRANSFER_LOG); }

int32_t fetch(const char *protocol, const char *user, const char *password, const char *host, const std::string &remote,
              const std::string &local) {
    TransferRequest r = transfer_request(protocol, user, password, host, remote.c_str(), 22,
                                         strchr(host, ':') != nullptr ? ADDR_TYPE_IPV6 : 0);
    return copyRemoteFileToLocalSystem(&r, local.c_str(), 0);
}

class Transfer : public ::testing::Test {
protected:
    static void SetUpTestSuite() {
        // A prompt would find no terminal here and end the program: every transfer must do without one.
        dup2(open("/dev/null", O_RDONLY | O_CLOEXEC), 0);
        std::string out;
        started_ = run_program({getenv("FCADMIN_PEERS"), "start", kPeers}, &out) == 0;
        ASSERT_TRUE(started_) << out;
        write_file(kHome + "/data.bin", sample(70000));
    }
    static void TearDownTestSuite() { run_program({getenv("FCADMIN_PEERS"), "stop", kPeers}); }
    void SetUp() override {
        if (!started_) GTEST_SKIP() << "the peers did not start";
    }
    static inline bool started_ = false;
};

TEST_F(Transfer, FetchOverEveryProtocolAndAddress) {
    for (const char *protocol : {"scp", "sftp", "ftp"}) {
        for (const char *host : {"127.0.0.1", "::1"}) {
            SCOPED_TRACE(std::string(protocol) + " " + host);
            const std::string local = "/tmp/" + std::string(protocol) + host, ftp_log = kPeers + (*host == ':' ? "/ftp6" : "/ftp4") + "/vsftpd.log";
            write_file(local, "");  // wget writes into it; scp and sftp replace it
            if (protocol[0] == 'f') {
                // Relative to the login directory; the server sees the decoded name and password.
                EXPECT_EQ(fetch(protocol, "j.doe", kPassword, host, "data.bin", local), 0) << read_file(ftp_log);
                EXPECT_NE(read_file(ftp_log).find("[j.doe] OK LOGIN"), std::string::npos);
                EXPECT_EQ(fetch(protocol, "j.doe", "p@ss:w0rD", host, "data.bin", "/tmp/wrong"), -9);
                EXPECT_NE(read_file(ftp_log).find("[j.doe] FAIL LOGIN"), std::string::npos);
            } else {
                // The public key alone: the log holds the last tool's verbose output, the key-based attempt's.
                EXPECT_EQ(fetch(protocol, "j.doe", "", host, kHome + "/data.bin", local), 0) << log_text();
                EXPECT_NE(log_text().find("using \"publickey\""), std::string::npos);
                // No key for nokey, and the server takes no keyboard-interactive log-in: the password attempt
                // decides, and this host's OpenSSH client does not know -oSSHPassword. (The result is -9, or 0
                // when the client dies of SIGPIPE first, which the runner counts as success.)
                fetch(protocol, "nokey", kPassword, host, "/etc/hostname", "/tmp/refused");
                EXPECT_NE(log_text().find("Bad configuration option: sshpassword"), std::string::npos) << log_text();
                EXPECT_FALSE(file_exists("/tmp/refused"));
            }
            EXPECT_TRUE(read_file(local) == sample(70000));
        }
    }
    write_file("/tmp/drive.bin", sample(5000));
    EXPECT_EQ(fetch("usb", "", "", "", "/tmp/drive.bin", "/unused"), 0) << log_text();
    EXPECT_TRUE(read_file(FCADMIN_USB_TMP_FILE) == sample(5000));
    EXPECT_EQ(fetch("", "", "", "", "/tmp/no-such-drive/file", "/unused"), -9);
    EXPECT_NE(log_text().find("No such file or directory"), std::string::npos) << log_text();
}

TEST_F(Transfer, ExportEveryStagedFileOverEachProtocol) {
    // ncftpput keeps preferences under $HOME.
    setenv("HOME", (kPeers + "/client-home").c_str(), 1);
    std::filesystem::create_directories(FCADMIN_EXPORT_SOURCE_DIR);
    const std::pair<std::string, std::string> items[] = {
        {"running.cfg", "hostname switch1\n"}, {"zone.db", sample(200000)}, {"notes.txt", ""}};
    for (const auto &[name, content] : items) write_file(FCADMIN_EXPORT_SOURCE_DIR "/" + name, content);
    // scp carries every file in one command; sftp goes through its batch file, with port 0 leaving an empty
    // argument, through the platform shell; the ftp target is relative to the login directory and the port
    // never reaches ncftpput.
    const struct {
        const char *protocol, *host, *dir, *password;
        int32_t port;
        unsigned platform_shell;
    } rows[] = {{"scp", "127.0.0.1", "scp_in", "", 22, 0}, {"sftp", "::1", "sftp_in", "", 0, 1},
                {"ftp", "127.0.0.1", "ftp_in", kPassword, 2121, 0}};
    for (const auto &row : rows) {
        SCOPED_TRACE(row.protocol);
        const std::string dir = kHome + "/" + row.dir;
        ASSERT_EQ(mkdir(dir.c_str(), 0755), 0);
        ASSERT_EQ(chown(dir.c_str(), 4242, 4242), 0);
        TransferRequest r = transfer_request(row.protocol, "j.doe", row.password, row.host, "", row.port);
        strcpy(r.selector, "all");
        strcpy(r.remote_dir, row.protocol[0] == 'f' ? row.dir : dir.c_str());
        EXPECT_EQ(exportFileToRemoteSystem(&r, row.platform_shell), 0) << log_text();
        for (const auto &[name, content] : items) EXPECT_TRUE(read_file(dir + "/" + name) == content) << name;
        DIR *staging = opendir(FCADMIN_EXPORT_STAGING_DIR);
        int left = 0;
        while (dirent *e = staging != nullptr ? readdir(staging) : nullptr) left += e->d_name[0] != '.';
        if (staging != nullptr) closedir(staging);
        EXPECT_EQ(left, 0);
        EXPECT_FALSE(file_exists(FCADMIN_EXPORT_BATCH_FILE));
    }
}

}  // namespace
