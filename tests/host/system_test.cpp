// The host shell service: one program, no shell, words split at blanks, output to the named files.
#include "fcadmin_platform.h"
#include "tests/support/helpers.h"

#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>

using namespace fcadmin_test;

// Prints each argument in brackets, one a line, so that word boundaries are visible.
FCADMIN_TEST_HELPER(print_args) {
    for (int i = 1; i < argc; ++i) printf("[%s]\n", argv[i]);
    return 0;
}

// Writes to both streams in a known order, then exits with the status given as argument 1.
FCADMIN_TEST_HELPER(both_streams) {
    fputs("out 1\n", stdout);
    fflush(stdout);
    fputs("err 1\n", stderr);
    fflush(stderr);
    fputs("out 2\n", stdout);
    fflush(stdout);
    return argc > 1 ? atoi(argv[1]) : 0;
}

FCADMIN_TEST_HELPER(killed) {
    raise(SIGTERM);
    return 0;
}

namespace {

int run(const std::string &command, const char *out, const char *err = nullptr) {
    const char *redirect[5] = {out, err, nullptr, nullptr, nullptr};
    return ork_infra_system(command.c_str(), 0x30, redirect);
}

int run_helper(const char *helper, const std::string &args, const char *out, const char *err = nullptr) {
    setenv("FCADMIN_TEST_HELPER", helper, 1);
    int result = run(self_exe() + args, out, err);
    unsetenv("FCADMIN_TEST_HELPER");
    return result;
}

}  // namespace

TEST(HostSystem, ResultFollowsTheExitStatus) {
    EXPECT_EQ(run("/bin/true", nullptr), 0);
    EXPECT_NE(run("/bin/false", nullptr), 0);
    EXPECT_NE(run("/nonexistent/program", nullptr), 0);
    EXPECT_EQ(run_helper("both_streams", " 3", "/dev/null", "/dev/null"), 3);
    EXPECT_EQ(run_helper("killed", "", nullptr), 128 + SIGTERM);
    EXPECT_EQ(ork_infra_system(nullptr, 0, nullptr), -1);
    EXPECT_EQ(ork_infra_system("", 0, nullptr), -1);
    EXPECT_EQ(ork_infra_system("    ", 0, nullptr), -1);
    // The options word has no meaning on a host, and a null list means no redirection.
    EXPECT_EQ(ork_infra_system("/bin/true", 0x10, nullptr), 0);
}

TEST(HostSystem, NothingInTheTextStartsASecondCommand) {
    const std::string log = "/tmp/system_test.out";
    unlink(log.c_str());
    const char *hostile[] = {
        "/bin/echo a;touch /tmp/hit1",       "/bin/echo a ; touch /tmp/hit2",  "/bin/echo $(touch /tmp/hit3)",
        "/bin/echo `touch /tmp/hit4`",       "/bin/echo a|touch /tmp/hit5",    "/bin/echo a | touch /tmp/hit6",
        "/bin/echo a && touch /tmp/hit7",    "/bin/echo a\ntouch /tmp/hit8",   "/bin/echo a >/tmp/hit9",
        "/bin/echo ${IFS}touch${IFS}/tmp/hit10",
    };
    for (const char *command : hostile) EXPECT_EQ(run(command, log.c_str()), 0) << command;
    for (int i = 1; i <= 10; ++i) EXPECT_FALSE(file_exists("/tmp/hit" + std::to_string(i))) << i;
    EXPECT_EQ(read_file(log),
              "a;touch /tmp/hit1\n"
              "a ; touch /tmp/hit2\n"
              "$(touch /tmp/hit3)\n"
              "`touch /tmp/hit4`\n"
              "a|touch /tmp/hit5\n"
              "a | touch /tmp/hit6\n"
              "a && touch /tmp/hit7\n"
              "a\ntouch /tmp/hit8\n"
              "a >/tmp/hit9\n"
              "${IFS}touch${IFS}/tmp/hit10\n");

    // The words reach the program as they stand: blanks split (runs of them count once), tabs do not.
    const std::string words = "/tmp/system_test.words";
    EXPECT_EQ(run_helper("print_args", "  one   two;three $(x) `y` 'q r' \"s\" a\tb \\z ", words.c_str()), 0);
    EXPECT_EQ(read_file(words), "[one]\n[two;three]\n[$(x)]\n[`y`]\n['q]\n[r']\n[\"s\"]\n[a\tb]\n[\\z]\n");
}

TEST(HostSystem, OutputGoesToTheRedirectionFiles) {
    const std::string log = "/tmp/system_test.log", out = "/tmp/system_test.stdout",
                      err = "/tmp/system_test.stderr";
    // The export names one log for both streams: one descriptor keeps the order of the writes, and
    // appending keeps the output of earlier attempts.
    write_file(log, "earlier attempt\n");
    EXPECT_EQ(run_helper("both_streams", "", log.c_str(), log.c_str()), 0);
    EXPECT_EQ(read_file(log), "earlier attempt\nout 1\nerr 1\nout 2\n");

    EXPECT_EQ(run_helper("both_streams", " 1", out.c_str(), err.c_str()), 1);
    EXPECT_EQ(read_file(out), "out 1\nout 2\n");
    EXPECT_EQ(read_file(err), "err 1\n");

    // A null entry leaves the stream where the caller has it.
    EXPECT_IN_CHILD({
        int fd = open("/tmp/system_test.inherited", O_WRONLY | O_CREAT | O_TRUNC, 0600);
        dup2(fd, STDERR_FILENO);
        close(fd);
        EXPECT_EQ(run_helper("both_streams", "", "/dev/null", nullptr), 0);
    });
    EXPECT_EQ(read_file("/tmp/system_test.inherited"), "err 1\n");

    // A file that cannot be opened stops the command before it starts.
    EXPECT_NE(run("/usr/bin/touch /tmp/system_test.ran", "/nonexistent/dir/log"), 0);
    EXPECT_NE(run("/usr/bin/touch /tmp/system_test.ran", nullptr, "/nonexistent/dir/log"), 0);
    EXPECT_FALSE(file_exists("/tmp/system_test.ran"));
}

TEST(HostSystem, OverlongCommandIsRefusedNotCut) {
    std::string command = "/usr/bin/touch /tmp/system_test.long " + std::string(9000, 'x');
    EXPECT_NE(run(command, nullptr), 0);
    EXPECT_FALSE(file_exists("/tmp/system_test.long"));
    // Many words are fine: the export lists every staged file in one scp command.
    std::string many = "/bin/true";
    for (int i = 0; i < 1000; ++i) many += " w";
    EXPECT_EQ(run(many, nullptr), 0);
}
