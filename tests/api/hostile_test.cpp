// Hostile input at every exported entry: null pointers, records filled to the last byte, ports and address
// kinds out of range, protocol words that are prefixes of each other, oversized commands and content.
#include "fileutil/crc16.h"
#include "tests/support/fake_platform.h"

using namespace fcadmin_test;

static std::string squeezed(const std::string &s, std::string out = "") {  // runs of 8 or more of one byte as "c*n"
    for (size_t i = 0, n = 0; i < s.size(); i += n)
        out += (n = (s + '\n').find_first_not_of(s[i], i) - i) < 8 ? s.substr(i, n) : s[i] + ("*" + std::to_string(n));
    return out;
}

template <size_t N>  // cut to the field, with a terminator only when the text is shorter
static void set(char (&f)[N], const std::string &text) { memset(f, 0, N), memcpy(f, text.data(), std::min(N, text.size())); }

// Null pointers at every entry, oversized commands and content: the calls, then their results (a pointer result
// as whether it is the one expected); usb needs no local path; null local paths and content make no run.
TEST(Hostile, NullPointersAndOversizedInputGetTheirResultCodes) {
    char b[128] = {};
    uint32_t length = 7;
    std::string words = "/bin/true", content(5 << 20, 'c');
    while (words.size() < 2000) words += " w";  // 996 words: refused before anything starts
    TransferRequest r = transfer_request("scp", "u", "", "h", "/f"), usb = transfer_request("usb", "", "", "", "/f");
    const auto fetch = &copyRemoteFileToLocalSystem;
    write_file("/tmp/local", ""), reset_platform();
    const std::vector<int64_t> got = {
        !admin_convert_username_and_password_for_scp(nullptr, 9), admin_convert_username_and_password(nullptr),
        !admin_convert_username_and_password_for_ftp(nullptr, 9), QueryPassword(nullptr, b), QueryPassword("", nullptr),
        admin_system_call(nullptr), fetch(nullptr, "/x", 1), fetch(&r, nullptr, 1), fetch(&usb, nullptr, 1),
        (set(r.protocol, "ftp"), fetch(&r, nullptr, 1)), (set(r.protocol, "sftp"), fetch(&r, nullptr, 1)),
        admin_lib_extract_file_name(nullptr, b) == b, !admin_lib_extract_file_name("a/b", nullptr), get_crc(nullptr),
        exportFileToRemoteSystem(nullptr, 1), get_file_name_from_path(nullptr, b, b), get_crc2(nullptr, nullptr),
        get_file_name_from_path("a/b", nullptr, b), get_file_name_from_path("a/b", b, nullptr), mr_unlock(nullptr),
        admin_lib_get_error_msg(nullptr, -5, nullptr), admin_file_copy(nullptr, "/x"), admin_file_copy("/x", nullptr),
        !base64decode(nullptr, 4, &length), length, !base64decode("QUJD", 4, nullptr), crc16_compute(nullptr, 9),
        mr_create(nullptr), mr_delete(nullptr), mr_lock(nullptr, 1), mr_try_lock(nullptr, 2),
        admin_system_call(words.c_str()), admin_system_call(std::string(10 << 20, 'x').c_str()),  // a word cut to 399
        admin_system_call(("/bin/true" + std::string(10 << 20, ' ') + "w").c_str()),  // the command cut before the w
        (r.content = content.c_str(), fetch(&r, "/tmp/local", 0)), fetch(&r, "/tmp/none", 0)};
    EXPECT_EQ(got, (std::vector<int64_t>{1, -8, 1, -1, -1, -1, -8, -8, 0, -8, -8, 1, 1, 0, 0, -8, 0, -8, -8, -1, -5, -9,
                                      -9, 1, 0, 1, 0, -1, -1, -1, -1, -1, -1, 0, 0, -9}));
    EXPECT_EQ(args_of("ork_infra_system", 0), Lines{"/bin/cp /f " FCADMIN_USB_TMP_FILE});
    EXPECT_TRUE(read_file("/tmp/local") == content && !file_exists("/tmp/none"));
}

// Hostile scp requests from u, password pw, h:/f (full: every text field to its last byte), fetched or exported with
// failing runs: "result|runs|item staged|last command", squeezed, '*' ends a prefix; no leftovers in fixed places.
TEST(Hostile, RecordsAtTheirLimitsGiveResultsAndBoundedCommandLines) {
    const std::string scp = "/usr/bin/scp -q -v -oConnectTimeout=60 ", pw = "-oPreferredAuthentications=password ";
    const std::string no = "-oStrictHostKeyChecking=no ", sp = scp + "-oPort=22 " + pw + "-oSSHPassword=";
    const std::string wget = "-9|1|/bin/wget -q -T 60 -t 1 -O /tmp/x ftp://";
    auto full = [](const char *w) { return [=](auto &r) { memset(r.selector, 'x', 1908), set(r.protocol, w); }; };
    auto port = [](int32_t p) { return [=](auto &r) { r.port = p; }; };
    auto password = [](size_t n) { return [=](auto &r) { set(r.password, std::string(n, 'p')); }; };
    auto word = [](const char *w) { return [=](auto &r) { set(r.protocol, w); }; };
    const std::tuple<bool, std::function<void(TransferRequest &)>, std::string> rows[] = {
        {false, full("scp"), "-9|3|" + sp + "x*384 " + no + "x*384@[x*768]:x*256 *"}, {false, full("ftp"), "-12|0|"},
        {false, full("usb"), "-9|1|/bin/cp x*256 " FCADMIN_USB_TMP_FILE}, {false, full("ftpftpftpf"), "-9|1|"},
        {false, [&](auto &r) { full("ftp")(r), set(r.user_name, "u"), r.addr_type = ~0u; }, wget + "u:@x*768/x*256"},
        {false, [&](auto &r) { password(383)(r), set(r.protocol, "ftp"), r.addr_type = 2; }, wget + "u:p*383@[h]//f"},
        {false, password(383), "-9|3|" + sp + "p*383 *"}, {false, password(384), "-9|3|" + sp + "p*384 *"},
        {false, port(-1), "-9|3|" + scp + "-oPort=-1 *"}, {false, port(65536), "-9|3|" + scp + "-oPort=65536 *"},
        {true, port(INT32_MIN), "-50|3|f|" + scp + "-oPort=-2147483648 *"}, {false, word("sc"), "-9|3|/usr/bin/scp *"},
        {false, word("sftpx"), "-9|1|"}, {true, word("s"), "-50|1|f|"}, {true, word(""), "-50|1|f|/bin/ncftpput *"},
        {true, full("scp"), "-50|3|x*256|" + sp + "x*384 " + no + " x*384@[x*768]:x*79"},
        {true, full("sftp"), "-50|3|x*256|/usr/bin/sftp -q -v -oConnectTimeout=60 " + pw + "-oSSHPassword=x*384 *"},
        {true, full("ftp"), "-50|1|x*256|/bin/ncftpput -R -t 60 -V -u x*384 -p x*384 x*768 x*79 /tmp/fcadmin_export/."},
        {true, [](auto &r) { memset(r.remote_path, 'r', 256); }, "-50|3|r*256|" + sp + "pw " + no + " u@[h]:/"},
    };
    for (const auto &[exporting, hostile, want] : rows) {
        TransferRequest r = transfer_request("scp", "u", "pw", "h", "/f");
        hostile(r), reset_platform(), set_default("ork_infra_system", 1), set_default("stage_export_content", 1);
        const auto code = exporting ? exportFileToRemoteSystem(&r, 1) : copyRemoteFileToLocalSystem(&r, "/tmp/x", 1);
        const Lines runs = args_of("ork_infra_system", 0), items = args_of("stage_export_content", 1);
        expect_lines({squeezed(std::to_string(code) + "|" + std::to_string(runs.size()) + "|" +
                               (items.empty() ? "" : items[0] + "|") + (runs.empty() ? "" : runs.back()))}, {want});
    }
    EXPECT_TRUE(!file_exists(FCADMIN_EXPORT_BATCH_FILE) && !file_exists(FCADMIN_USB_TMP_FILE) &&
                rmdir(FCADMIN_FETCH_DIR) == 0 && (rmdir(FCADMIN_EXPORT_STAGING_DIR) == 0 || errno == ENOENT));
}
