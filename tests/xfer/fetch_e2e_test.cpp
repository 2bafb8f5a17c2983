// The fetch against real peers on the sandbox's loopback: OpenSSH's sshd for scp and sftp, vsftpd for
// ftp through wget, and the real /bin/cp for the usb copy; all with the host platform services.
#include "fcadmin.h"
#include "tests/support/helpers.h"
#include "tests/support/peers.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <memory>

using namespace fcadmin_test;

namespace {

const std::string kBase = "/tmp/fetch-e2e";
const std::string kHome = kBase + "/home/j.doe";
constexpr char kUser[] = "j.doe";
constexpr char kPassword[] = "p w";
constexpr uid_t kUid = 4242;
constexpr int kLibraryRunner = 0;

// A file that any mangling on the way (text mode, a cut, a charset) would change.
std::string sample() {
    std::string data;
    for (int i = 0; i < 70000; ++i) data += static_cast<char>((i * 7 + i / 256) & 0xff);
    return data;
}

TransferRequest request(const char *protocol, const std::string &user, const std::string &password,
                        const char *host, const std::string &remote_path, uint32_t addr_type = 0) {
    TransferRequest r{};
    snprintf(r.protocol, sizeof r.protocol, "%s", protocol);
    snprintf(r.user_name, sizeof r.user_name, "%s", user.c_str());
    snprintf(r.password, sizeof r.password, "%s", password.c_str());
    snprintf(r.host, sizeof r.host, "%s", host);
    snprintf(r.remote_path, sizeof r.remote_path, "%s", remote_path.c_str());
    r.port = 22;
    r.addr_type = addr_type;
    return r;
}

class FetchE2e : public ::testing::Test {
protected:
    static void SetUpTestSuite() {
        // A prompt would find no terminal here and end the test program: every fetch below must
        // succeed or fail without asking.
        int null_fd = open("/dev/null", O_RDONLY);
        dup2(null_fd, 0);
        close(null_fd);

        users_ = std::make_unique<LocalUsers>(kBase + "/users");
        ASSERT_TRUE(users_->add(kUser, kPassword, kHome, kUid)) << users_->error();
        write_file(kHome + "/data.bin", sample());
        ssh_ = std::make_unique<SshPeer>(SshPeer::Options{kBase + "/sshd"});
        ASSERT_TRUE(ssh_->start()) << ssh_->error();
        ASSERT_TRUE(ssh_->install_client_config(*users_)) << ssh_->error();
        ftp4_ = std::make_unique<FtpPeer>(FtpPeer::Options{kBase + "/ftp4", "127.0.0.1"});
        ASSERT_TRUE(ftp4_->start()) << ftp4_->error();
        ftp6_ = std::make_unique<FtpPeer>(FtpPeer::Options{kBase + "/ftp6", "::1"});
        ASSERT_TRUE(ftp6_->start()) << ftp6_->error();
    }
    static void TearDownTestSuite() {
        ftp6_.reset();
        ftp4_.reset();
        ssh_.reset();
        users_.reset();
    }
    void SetUp() override {
        if (!ssh_ || ssh_->pid() < 0 || !ftp4_ || ftp4_->pid() < 0 || !ftp6_ || ftp6_->pid() < 0)
            GTEST_SKIP() << "the peers did not start";
    }

    static std::string transfer_log() { return read_file(FCADMIN_TRANSFER_LOG); }

    static inline std::unique_ptr<LocalUsers> users_;
    static inline std::unique_ptr<SshPeer> ssh_;
    static inline std::unique_ptr<FtpPeer> ftp4_, ftp6_;
};

TEST_F(FetchE2e, ScpAndSftpFetchWithThePublicKeyAlone) {
    const std::string expected = sample();
    for (const char *protocol : {"scp", "sftp"}) {
        for (const char *host : {"127.0.0.1", "::1"}) {
            std::string local = kBase + "/" + protocol + "-" + (host[0] == ':' ? "v6" : "v4") + ".bin";
            TransferRequest r = request(protocol, kUser, "", host, kHome + "/data.bin");
            EXPECT_EQ(copyRemoteFileToLocalSystem(&r, local.c_str(), kLibraryRunner), 0)
                << protocol << " " << host << "\n" << transfer_log() << ssh_->log();
            EXPECT_TRUE(read_file(local) == expected) << protocol << " " << host;
            // The error log holds the last tool's verbose output: it was the public-key attempt.
            EXPECT_NE(transfer_log().find("using \"publickey\""), std::string::npos)
                << protocol << " " << host;
        }
    }
    // A home-relative path works as well (scp's ~ is the user's home).
    TransferRequest r = request("scp", kUser, "", "127.0.0.1", "data.bin");
    EXPECT_EQ(copyRemoteFileToLocalSystem(&r, (kBase + "/relative.bin").c_str(), kLibraryRunner), 0);
    EXPECT_TRUE(read_file(kBase + "/relative.bin") == expected);
}

TEST_F(FetchE2e, StockClientRefusesThePasswordOption) {
    // The key is not authorized and the server takes no keyboard-interactive log-in, so the password
    // attempt decides; this host's OpenSSH client does not know -oSSHPassword and refuses to start.
    ASSERT_TRUE(ssh_->authorize_client(false)) << ssh_->error();
    for (const char *protocol : {"scp", "sftp"}) {
        std::string local = kBase + "/refused-" + protocol;
        TransferRequest r = request(protocol, kUser, "secret", "::1", kHome + "/data.bin");
        EXPECT_EQ(copyRemoteFileToLocalSystem(&r, local.c_str(), kLibraryRunner), -9) << protocol;
        EXPECT_NE(transfer_log().find("Bad configuration option: sshpassword"), std::string::npos)
            << protocol << ": " << transfer_log();
        EXPECT_FALSE(file_exists(local));
    }
    EXPECT_TRUE(ssh_->authorize_client(true)) << ssh_->error();
}

TEST_F(FetchE2e, FtpThroughWgetWithPercentEncodedCredentials) {
    const std::string expected = sample();
    struct Case {
        const char *host;
        uint32_t addr_type;
        FtpPeer *peer;
    };
    for (const Case &c : {Case{"127.0.0.1", 0, ftp4_.get()}, Case{"::1", ADDR_TYPE_IPV6, ftp6_.get()}}) {
        std::string local = kBase + "/ftp-" + std::to_string(c.addr_type) + ".bin";
        write_file(local, "");
        // The path is relative to the login directory, as in ftp URLs.
        TransferRequest r = request("ftp", kUser, kPassword, c.host, "data.bin", c.addr_type);
        EXPECT_EQ(copyRemoteFileToLocalSystem(&r, local.c_str(), kLibraryRunner), 0)
            << c.host << "\n" << c.peer->log();
        EXPECT_TRUE(read_file(local) == expected) << c.host;
        EXPECT_STREQ(r.user_name, "j%2edoe");
        EXPECT_STREQ(r.password, "p%20w");
        // The server saw the decoded name and accepted the decoded password with its blank.
        EXPECT_NE(c.peer->log().find("[j.doe] OK LOGIN"), std::string::npos) << c.peer->log();

        TransferRequest wrong = request("ftp", kUser, "p  w", c.host, "data.bin", c.addr_type);
        EXPECT_EQ(copyRemoteFileToLocalSystem(&wrong, (kBase + "/wrong").c_str(), kLibraryRunner), -9);
        EXPECT_NE(c.peer->log().find("[j.doe] FAIL LOGIN"), std::string::npos) << c.peer->log();
    }
}

TEST_F(FetchE2e, UsbCopyWithTheRealCp) {
    std::string source = kBase + "/usb-drive.bin";
    write_file(source, sample());
    unlink(FCADMIN_USB_TMP_FILE);
    TransferRequest r = request("usb", "", "", "", source);
    EXPECT_EQ(copyRemoteFileToLocalSystem(&r, "/unused", kLibraryRunner), 0) << transfer_log();
    EXPECT_TRUE(read_file(FCADMIN_USB_TMP_FILE) == sample());

    TransferRequest missing = request("", "", "", "", kBase + "/no-such-drive/file");
    EXPECT_EQ(copyRemoteFileToLocalSystem(&missing, "/unused", kLibraryRunner), -9);
    EXPECT_NE(transfer_log().find("No such file or directory"), std::string::npos) << transfer_log();
}

}  // namespace
