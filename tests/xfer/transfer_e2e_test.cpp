// Fetch and export against real peers on the sandbox's loopback (tests/support/peers.sh): OpenSSH's sshd
// for scp and sftp, vsftpd for wget and ncftpput, the real /bin/cp for usb; the host platform services.
#include "fcadmin.h"
#include "tests/support/helpers.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>

using namespace fcadmin_test;

const std::string kPeers = "/tmp/peers", kHome = kPeers + "/home/j.doe";
const char kPassword[] = "p@ss:w0rd";

// A file that any mangling on the way (text mode, a cut, a charset) would change.
static std::string sample(size_t size) {
    std::string data(size, '\0');
    for (size_t i = 0; i < size; ++i) data[i] = static_cast<char>((i * 7 + i / 256) & 0xff);
    return data;
}

static std::string log_text() { return read_file(FCADMIN_TRANSFER_LOG); }

static int32_t fetch(const char *protocol, const char *user, const char *password, const char *host, const std::string &remote,
              const std::string &local) {
    TransferRequest r = transfer_request(protocol, user, password, host, remote.c_str(), 22,
                                         strchr(host, ':') != nullptr ? ADDR_TYPE_IPV6 : 0);
    return copyRemoteFileToLocalSystem(&r, local.c_str(), 0);
}

// Fetches over every protocol and address, then exports; the peers are stopped with the sandbox at the latest.
TEST(Transfer, FetchOverEveryProtocolAndAddressThenExportEveryStagedFile) {
    // A prompt would find no terminal here and end the program: every transfer must do without one.
    dup2(open("/dev/null", O_RDONLY | O_CLOEXEC), 0);
    std::string out;
    ASSERT_EQ(run_program({getenv("FCADMIN_PEERS"), "start", kPeers}, &out), 0) << out;
    write_file(kHome + "/data.bin", sample(70000));
    for (const char *protocol : {"scp", "sftp", "ftp"}) {
        for (const char *host : {"127.0.0.1", "::1"}) {
            SCOPED_TRACE(std::string(protocol) + " " + host);
            const std::string local = "/tmp/" + std::string(protocol) + host, ftp_log = kPeers + (*host == ':' ? "/ftp6" : "/ftp4") + "/vsftpd.log";
            write_file(local, "");  // wget writes into it; scp and sftp replace it
            // ftp logs in with the password, relative to the login directory, and the server sees the decoded name
            // and password; scp and sftp with the public key alone (the log holds the key-based attempt's output).
            const bool ftp = protocol[0] == 'f';
            EXPECT_EQ(fetch(protocol, "j.doe", ftp ? kPassword : "", host, ftp ? "data.bin" : kHome + "/data.bin", local), 0)
                << log_text() << read_file(ftp_log);
            EXPECT_NE((ftp ? read_file(ftp_log) : log_text()).find(ftp ? "[j.doe] OK LOGIN" : "using \"publickey\""),
                      std::string::npos);
            EXPECT_TRUE(read_file(local) == sample(70000));
        }
    }
    write_file("/tmp/drive.bin", sample(5000));
    EXPECT_EQ(fetch("usb", "", "", "", "/tmp/drive.bin", "/unused"), 0) << log_text();
    EXPECT_TRUE(read_file(FCADMIN_USB_TMP_FILE) == sample(5000));
    // ncftpput keeps preferences under $HOME.
    setenv("HOME", (kPeers + "/client-home").c_str(), 1);
    std::filesystem::create_directories(FCADMIN_EXPORT_SOURCE_DIR);
    const std::pair<std::string, std::string> items[] = {
        {"running.cfg", "hostname switch1\n"}, {"zone.db", sample(200000)}, {"notes.txt", ""}};
    for (const auto &[name, content] : items) write_file(FCADMIN_EXPORT_SOURCE_DIR "/" + name, content);
    // scp carries every file in one command; sftp goes through its batch file, with port 0 leaving an empty
    // argument, through the platform shell; the ftp target is relative to the login directory and the port
    // never reaches ncftpput.
    const struct { const char *protocol, *host, *dir, *password; int32_t port; unsigned platform_shell; } rows[] = {
        {"scp", "127.0.0.1", "scp_in", "", 22, 0}, {"sftp", "::1", "sftp_in", "", 0, 1},
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
        std::error_code missing;  // the staging directory is emptied, the batch file removed
        EXPECT_TRUE(std::filesystem::is_empty(FCADMIN_EXPORT_STAGING_DIR, missing) && !file_exists(FCADMIN_EXPORT_BATCH_FILE));
    }
    run_program({getenv("FCADMIN_PEERS"), "stop", kPeers});
}
