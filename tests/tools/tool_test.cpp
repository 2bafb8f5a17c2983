// The fcadmin tool: each subcommand's output and exit status, and the shared segment's life with the
// trace dump.
#include "tests/support/helpers.h"

#include <sys/wait.h>

#include <regex>
#include <sstream>

using namespace fcadmin_test;

namespace {

// Runs the built tool with args split at blanks; "<status> <standard output and error>".
std::string tool(const std::string &args) {
    Lines argv = {getenv("FCADMIN_TOOL")};
    std::istringstream words(args);
    for (std::string word; words >> word;) argv.push_back(word);
    std::string out;
    const int status = run_program(argv, &out);
    return std::to_string(WIFEXITED(status) ? WEXITSTATUS(status) : -1) + " " + out;
}

FCADMIN_TEST_HELPER(noisy) {
    printf("out\n");
    fflush(stdout);
    fprintf(stderr, "err\n");
    return atoi(argv[1]);
}

TEST(Tool, SubcommandsPrintTheirResults) {
    write_file("/tmp/digits", "123456789");
    setenv("FCADMIN_TEST_HELPER", "noisy", 1);
    const std::string run = "run " + self_exe(), failed = "1 fcadmin run: the command failed: result -1\n";
    const std::pair<std::string, std::string> rows[] = {
        {"errmsg -44", "0 The Server portnumber is not supported for ftp protocol\n"},
        {"errmsg forty", "2 fcadmin errmsg: CODE is not a 32-bit integer: forty\nTry 'fcadmin errmsg --help'.\n"},
        {"digest /tmp/digits /tmp/digits", "0 1274269480\n"},
        {"digest /tmp/missing", "1 fcadmin digest: cannot read '/tmp/missing': No such file or directory\n"},
        {"crc16 -s A", "0 0x30C0\n"},
        {"b64decode @@@@", "1 fcadmin b64decode: not Base64 text\n"},
        {"bits 4294967296", "2 fcadmin bits: N is not a 32-bit integer: 4294967296\nTry 'fcadmin bits --help'.\n"},
        {"endian swap16 0x00AB1234", "0 0xBF12\n"},
        {"copy /tmp/digits /tmp/copied", "0 "},
        {"copy /tmp/missing /tmp/copied", "1 Failed to copy the file from remote location.\n"
                                          "admin_file_copy: Can't open file: /tmp/missing <2> (No such file or directory)\n"},
        {run + " 4", failed + "--- " FCADMIN_TRANSFER_LOG " ---\nout\nerr\n"},
        // Refused before it started: the previous command's log is not shown as this one's.
        {run + " 1 2 3 4 5 6 7 8 9 0 1 2 3 4 5 6 7 8 9 0 1 2", "1 admin_system_call: too many words in the command (23)\n" +
                                                                   failed.substr(2) + "fcadmin run: no error log: the command was not started\n"},
        {"fetch usb:///tmp/digits /ignored --platform-runner", "0 "},
        {"fetch usb:///tmp/missing /ignored", "1 Failed to copy the file from remote location.\n"},
        // "all" without a remote directory, even as the start of an item's name, never reaches the export.
        {"export sftp://admin@10.0.0.5/ --item allx", "1 A remote directory is required to export all content.\n"},
        {"nosuch", "2 fcadmin: unknown command 'nosuch'\n\nusage: fcadmin COMMAND [ARGS...]\n*"},
    };
    for (const auto &[args, expected] : rows) expect_lines({tool(args)}, {expected});
    EXPECT_EQ(read_file("/tmp/copied") + read_file(FCADMIN_USB_TMP_FILE), "123456789123456789");
}

TEST(Tool, SharedSegmentOverItsLifeAndTheTraceDump) {
    const std::pair<std::string, std::string> rows[] = {
        {"shm read", "1 fcadmin shm: cannot attach the shared segment and its semaphore set (has the owner made them? "
                     "see 'fcadmin shm create')\n"},
        {"shm create 256", "0 created segment id 0 of 256 bytes (240 of data), semaphore set id 1, value 9999\n"},
        {"shm create", "1 fcadmin shm: create: shmget: File exists\n"},
        {"shm info", "0 segment:   key 0x778899 id 0, 256 bytes, 240 of data, 1 attached\n"
                     "semaphore: key 0x778898 id 1, value 9999, 0 waiting\n*"},
        {"shm write first_record", "0 wrote 13 bytes\n"},
        {"shm write " + std::string(240, 'x'), "1 fcadmin shm: the text needs 241 bytes; the data area holds 240\n"},
        {"shm init", "0 semaphore set to 9999\n"},
        // The trace subcommand runs a command, then dumps the lines that it stored.
        {"trace shm read", "0 first_record\n*"},
        {"shm destroy", "0 removed the segment and the semaphore set (2 objects)\n"},
        {"shm destroy", "0 nothing to remove\n"},
        {"trace", "0 fcadmin trace: the trace ring is empty*"},
    };
    for (const auto &[args, expected] : rows) expect_lines({tool(args)}, {expected});
    const std::string stamp = R"(\S+Z )";
    tool("shm create");
    const std::string traced = tool("trace shm read");
    EXPECT_TRUE(std::regex_match(traced,
                                 std::regex("0 \n" + stamp + "312 1 Trying shm db attach thread lock by.*\n(" +
                                            stamp + ".*\n){7}" + stamp + "305 2 shmdt success for pid=\\[\\d+\\]\n"))) << traced;
}

}  // namespace
