// The fetch against real peers on the sandbox's loopback: OpenSSH's sshd for scp and sftp, vsftpd for
// ftp through wget, and the real /bin/cp for the usb copy; all with the host platform services.
#include "fcadmin.h"
#include "tests/support/helpers.h"
#include "tests/support/peers.h"

#include <fcntl.h>
#include <unistd.h>

#include <memory>

using namespace fcadmin_test;

namespace {

const std::string kBase = "/tmp/fetch-e2e";
const std::string kHome = kBase + "/home/j.doe";

// A file that any mangling on the way (text mode, a cut, a charset) would change.
std::string sample() {
    std::string data;
    for (int i = 0; i < 70000; ++i) data += static_cast<char>((i * 7 + i / 256) & 0xff);
    return data;
}

// Fetches through the library's runner into local; gives the result.
int32_t fetch(const char *protocol, const std::string &password, const char *host, const std::string &remote,
              const std::string &local, uint32_t addr_type = 0) {
    TransferRequest r{};
    snprintf(r.protocol, sizeof r.protocol, "%s", protocol);
    snprintf(r.user_name, sizeof r.user_name, "%s", "j.doe");
    snprintf(r.password, sizeof r.password, "%s", password.c_str());
    snprintf(r.host, sizeof r.host, "%s", host);
    snprintf(r.remote_path, sizeof r.remote_path, "%s", remote.c_str());
    r.port = 22;
    r.addr_type = addr_type;
    return copyRemoteFileToLocalSystem(&r, local.c_str(), 0);
}

std::string transfer_log() { return read_file(FCADMIN_TRANSFER_LOG); }

class FetchE2e : public ::testing::Test {
protected:
    static void SetUpTestSuite() {
        // A prompt would find no terminal here and end the test program: every fetch below must
        // succeed or fail without asking.
        dup2(open("/dev/null", O_RDONLY | O_CLOEXEC), 0);
        users_ = std::make_unique<LocalUsers>(kBase + "/users");
        ASSERT_TRUE(users_->add("j.doe", "p w", kHome, 4242)) << users_->error();
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

    static inline std::unique_ptr<LocalUsers> users_;
    static inline std::unique_ptr<SshPeer> ssh_;
    static inline std::unique_ptr<FtpPeer> ftp4_, ftp6_;
};

TEST_F(FetchE2e, ScpAndSftpFetchWithThePublicKeyAloneAndTheStockClientRefusesThePassword) {
    for (const char *protocol : {"scp", "sftp"}) {
        for (const char *host : {"127.0.0.1", "::1"}) {
            const std::string local = kBase + "/" + protocol + "-" + host;
            EXPECT_EQ(fetch(protocol, "", host, kHome + "/data.bin", local), 0)
                << protocol << " " << host << "\n" << transfer_log() << ssh_->log();
            EXPECT_TRUE(read_file(local) == sample()) << protocol << " " << host;
            // The error log holds the last tool's verbose output: it was the public-key attempt.
            EXPECT_NE(transfer_log().find("using \"publickey\""), std::string::npos) << protocol << " " << host;
        }
    }
    // The key is not authorized and the server takes no keyboard-interactive log-in, so the password
    // attempt decides; this host's OpenSSH client does not know -oSSHPassword and refuses to start.
    ASSERT_TRUE(ssh_->authorize_client(false)) << ssh_->error();
    for (const char *protocol : {"scp", "sftp"}) {
        const std::string local = kBase + "/refused-" + protocol;
        EXPECT_EQ(fetch(protocol, "secret", "::1", kHome + "/data.bin", local), -9) << protocol;
        EXPECT_NE(transfer_log().find("Bad configuration option: sshpassword"), std::string::npos)
            << protocol << ": " << transfer_log();
        EXPECT_FALSE(file_exists(local));
    }
    EXPECT_TRUE(ssh_->authorize_client(true)) << ssh_->error();
}

TEST_F(FetchE2e, FtpThroughWgetWithPercentEncodedCredentials) {
    for (FtpPeer *peer : {ftp4_.get(), ftp6_.get()}) {
        const bool v6 = peer == ftp6_.get();
        const char *host = v6 ? "::1" : "127.0.0.1";
        const std::string local = kBase + "/ftp-" + host;
        write_file(local, "");
        // The path is relative to the login directory, as in ftp URLs.
        const uint32_t addr_type = v6 ? ADDR_TYPE_IPV6 : 0;
        EXPECT_EQ(fetch("ftp", "p w", host, "data.bin", local, addr_type), 0) << host << "\n" << peer->log();
        EXPECT_TRUE(read_file(local) == sample()) << host;
        // The server saw the decoded name and accepted the decoded password with its blank.
        EXPECT_NE(peer->log().find("[j.doe] OK LOGIN"), std::string::npos) << peer->log();
        EXPECT_EQ(fetch("ftp", "p  w", host, "data.bin", kBase + "/wrong", addr_type), -9);
        EXPECT_NE(peer->log().find("[j.doe] FAIL LOGIN"), std::string::npos) << peer->log();
    }
}

TEST_F(FetchE2e, UsbCopyWithTheRealCp) {
    write_file(kBase + "/usb-drive.bin", sample());
    unlink(FCADMIN_USB_TMP_FILE);
    EXPECT_EQ(fetch("usb", "", "", kBase + "/usb-drive.bin", "/unused"), 0) << transfer_log();
    EXPECT_TRUE(read_file(FCADMIN_USB_TMP_FILE) == sample());
    EXPECT_EQ(fetch("", "", "", kBase + "/no-such-drive/file", "/unused"), -9);
    EXPECT_NE(transfer_log().find("No such file or directory"), std::string::npos) << transfer_log();
}

}  // namespace
