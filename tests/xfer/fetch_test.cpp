// The fetch with the recording fakes: command lines, the order of attempts, prompts, results, fetch area, content.
#include "fcadmin.h"
#include "tests/support/fake_platform.h"

#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

using namespace fcadmin_test;

const std::string kLetters = "g=geps_2env r=ork_infra_system p=ork_infra_scanf v=ork_verify_password";
const std::string kTail = "-oStrictHostKeyChecking=no admin@[fe80::1]:/fw/image.bin /tmp/out", kP = "-oPort=830 ";
const std::string kScp = "/usr/bin/scp -q -v -oConnectTimeout=60 ", kSftp = "/usr/bin/sftp -q -v -oConnectTimeout=60 ";
const std::string kKbd = "-oPreferredAuthentications=keyboard-interactive -oChallengeResponseAuthentication=yes ";
const std::string kKey = "-oPreferredAuthentications=publickey ", kPw = "-oPreferredAuthentications=password ";
const std::string kWget = "/bin/wget -q -T 60 -t 1 -O /tmp/out ftp://";
const std::string kRun = " 16 /dev/null /dev/null (null) (null) (null)";  // every run's mode word and redirections

// /fw/image.bin into /tmp/out by the platform's runner, its runs giving results in turn (then 1), a terminal for
// the prompt. Rows: protocol, user, password, host, address kind, runs, verdicts, result, calls, commands ('*').
TEST(Fetch, CommandLinesAttemptsAndResults) {
    using Row = std::tuple<const char *, const char *, const char *, const char *, uint32_t, std::vector<long>,
                           std::vector<long>, int32_t, std::string, Lines>;
    const Row rows[] = {
        {"scp", "admin", "s3cret", "fe80::1", 0, {1, 1, 1}, {}, -9, "grrgr",
         {kScp + kKey + kP + kTail, kScp + kKbd + kP + kTail, kScp + kP + kPw + "-oSSHPassword=s3cret " + kTail}},
        {"sftp", "admin", "s3cret", "fe80::1", 0, {1, 1, 1}, {}, -9, "grrgr",
         {kSftp + kP + kKey + kTail, kSftp + kP + kKbd + kTail, kSftp + kP + kPw + "-oSSHPassword=s3cret " + kTail}},
        {"ftp", "j.doe", "p w", "192.0.2.7", 0, {0}, {}, 0, "gr", {kWget + "j%2edoe:p%20w@192.0.2.7//fw/image.bin"}},
        {"f", "u", "", "2001:db8::5", ADDR_TYPE_IPV6, {7}, {}, -9, "gr", {kWget + "u:@[2001:db8::5]//fw/image.bin"}},
        // usb copies to the fixed temporary file; "" is usb, "s" and "sf" sftp (tried first); a success ends it.
        {"usb", "", "", "", 0, {0}, {}, 0, "gr", {"/bin/cp /fw/image.bin " FCADMIN_USB_TMP_FILE}},
        {"", "", "", "", 0, {0}, {}, 0, "gr", {"/bin/cp *"}}, {"gopher", "u", "p", "h", 0, {}, {}, -9, "gr", {""}},
        {"s", "u", "p", "h", 0, {0}, {}, 0, "gr", {kSftp + "*"}},
        {"scp", "u", "p", "h", 0, {1, 0}, {}, 0, "grr", {kScp + "*", kScp + "*"}},
        // The prompt only after both key-based attempts, only without a password, never for anonymous users.
        {"scp", "admin", "", "fe80::1", 0, {1, 1, 0}, {1}, 0, "grrpvgr",
         {"*", "*", kScp + kP + kPw + "-oSSHPassword=one " + kTail}},
        {"sf", "admin", "", "h", 0, {1, 1, 0}, {0, 0, 0}, -5, "grrpvpvpv", {"*", "*"}},
        {"scp", "anon", "", "h", 0, {1, 1, 1}, {}, -9, "grrgr", {"*", "*", kScp + kP + "*"}},
    };
    in_child([&] {
        terminal_on_stdin();
        for (const auto &[protocol, user, password, host, addr_kind, runs, verdicts, result, letters, lines] : rows) {
            reset_platform(), set_default("ork_infra_system", 1), script("ork_infra_system", runs);
            script("ork_verify_password", verdicts), script_answers({"one", "two", "three"});
            TransferRequest r = transfer_request(protocol, user, password, host, "/fw/image.bin", 830, addr_kind);
            EXPECT_EQ(copyRemoteFileToLocalSystem(&r, "/tmp/out", 1), result);
            EXPECT_EQ(call_letters(kLetters), letters);
            expect_lines(args_of("ork_infra_system", 0), lines);
            for (const auto &c : calls()) EXPECT_TRUE(c.name != "ork_infra_system" || c.text().ends_with(kRun));
        }
    });
}

// The credentials stay encoded in the caller's request; an unknown protocol through the library's own runner
// runs the empty command, which names no program; the command lines are cut at 2,047 bytes.
TEST(Fetch, CallersRequestOwnRunnerAndTheCut) {
    TransferRequest scp = transfer_request("scp", "u", "p", "h", "f"), nfs = transfer_request("nfs", "u", "", "h", "f");
    TransferRequest ftp = transfer_request("ftp", "j.doe", "p w", "h", "f");
    reset_platform(), unlink(kConsoleFile), set_default("ork_infra_system", 1);
    const std::vector results = {copyRemoteFileToLocalSystem(&scp, ("/tmp/" + std::string(2100, 'l')).c_str(), 1),
                                copyRemoteFileToLocalSystem(&ftp, "/tmp/out", 1),
                                copyRemoteFileToLocalSystem(&nfs, "/tmp/out", 0)};
    std::string got = call_letters(kLetters).substr(0, 8) + " " + ftp.user_name + " " + ftp.password + " ";
    for (const auto &line : args_of("ork_infra_system", 0)) got += std::to_string(line.size()) + " ";
    EXPECT_EQ(results, (std::vector<int32_t>{-9, -9, -9}));
    EXPECT_EQ(got + read_file(kConsoleFile),
              "grrgrgrg j%2edoe p%20w 2047 2047 2047 59 execvp failed errno: 2 errstr:No such file or directory\n");
}

// The fetch area is made first; inline content goes over the start of a file without truncating it. A file where
// the directory belongs: -17, before any transfer or credential rewrite; a directory not made: -18, also inline.
TEST(Fetch, FetchAreaComesFirstAndInlineContent) {
    in_child([] {
        ASSERT_EQ(unshare(CLONE_NEWNS) + mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr), 0);
        umask(022);
        EXPECT_EQ(admin_lib_create_directory() + admin_lib_create_directory(), 0);  // made, then found
        const auto mode = [](const char *p) { struct stat s {}; return stat(p, &s) ? 0u : s.st_mode; };
        EXPECT_TRUE(mode(FCADMIN_FETCH_DIR) == (S_IFDIR | 0755) && mode(FCADMIN_DUMP_FILE) == (S_IFREG | 0644));
        TransferRequest r = transfer_request("ftp", "u.v", "p", "h", "f");
        write_file("/tmp/inline", "0123456789"), reset_platform(), r.content = "abc";
        EXPECT_EQ(copyRemoteFileToLocalSystem(&r, "/tmp/inline", 1), 0);
        rmdir(FCADMIN_FETCH_DIR), write_file(FCADMIN_FETCH_DIR, "not a directory"), r.content = nullptr;
        EXPECT_EQ(copyRemoteFileToLocalSystem(&r, "/tmp/f", 1), -17);
        ASSERT_EQ(mount("fetch-area", "/var/tmp", "tmpfs", MS_RDONLY, nullptr), 0);
        r.content = "new";
        EXPECT_EQ(copyRemoteFileToLocalSystem(&r, "/tmp/inline", 1), -18);
        EXPECT_EQ(read_file("/tmp/inline") + call_letters(kLetters) + r.user_name, "abc3456789u.v");
    });
}

TEST(Fetch, ExtractFileNameWritesNoTerminator) {
    std::string name(24, 'x');
    EXPECT_EQ(admin_lib_extract_file_name("/a/b/c.txt", name.data()), name.data());
    admin_lib_extract_file_name("c.tx", &name[8]), admin_lib_extract_file_name("/a/b/", &name[16]);
    EXPECT_EQ(name, "c.txtxxxc.txxxxxxxxxxxxx");
}
