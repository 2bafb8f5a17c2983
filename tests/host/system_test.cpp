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

// Writes to both streams in a known order, then exits with the status given as argument 1, or is
// killed by SIGTERM when that is "kill".
FCADMIN_TEST_HELPER(both_streams) {
    fputs("out 1\n", stdout);
    fflush(stdout);
    fputs("err 1\n", stderr);
    fflush(stderr);
    fputs("out 2\n", stdout);
    fflush(stdout);
    if (argc > 1 && std::string(argv[1]) == "kill") raise(SIGTERM);
    return argc > 1 ? atoi(argv[1]) : 0;
}

namespace {

int run(const std::string &command, const char *out, const char *err = nullptr) {
    const char *redirect[5] = {out, err, nullptr, nullptr, nullptr};
    return ork_infra_system(command.c_str(), 0x30, redirect);
}

int run_helper(const char *helper, const std::string &args, const char *out, const char *err = "/dev/null") {
    setenv("FCADMIN_TEST_HELPER", helper, 1);
    const int result = run(self_exe() + args, out, err);
    unsetenv("FCADMIN_TEST_HELPER");
    return result;
}

}  // namespace

TEST(HostSystem, ResultFollowsTheExitStatus) {
    EXPECT_EQ(run("/bin/true", nullptr), 0);
    EXPECT_NE(run("/bin/false", nullptr), 0);
    EXPECT_NE(run("/nonexistent/program", nullptr), 0);
    EXPECT_EQ(run_helper("both_streams", " 3", "/dev/null"), 3);
    EXPECT_EQ(run_helper("both_streams", " kill", "/dev/null"), 128 + SIGTERM);
    EXPECT_EQ(ork_infra_system(nullptr, 0, nullptr), -1);
    EXPECT_EQ(ork_infra_system("    ", 0, nullptr), -1);
    // The options word has no meaning on a host, and a null list means no redirection.
    EXPECT_EQ(ork_infra_system("/bin/true", 0x10, nullptr), 0);

    // Refused, not cut; many words are fine, as the export lists every staged file in one command.
    EXPECT_NE(run("/usr/bin/touch /tmp/system_test.long " + std::string(9000, 'x'), nullptr), 0);
    EXPECT_FALSE(file_exists("/tmp/system_test.long"));
    std::string many = "/bin/true";
    for (int i = 0; i < 1000; ++i) many += " w";
    EXPECT_EQ(run(many, nullptr), 0);
}

TEST(HostSystem, NothingInTheTextStartsASecondCommand) {
    const std::string log = "/tmp/system_test.out";
    const char *hostile[] = {
        "/bin/echo a;touch /tmp/hit1",       "/bin/echo a ; touch /tmp/hit2",  "/bin/echo $(touch /tmp/hit3)",
        "/bin/echo `touch /tmp/hit4`",       "/bin/echo a|touch /tmp/hit5",    "/bin/echo a | touch /tmp/hit6",
        "/bin/echo a && touch /tmp/hit7",    "/bin/echo a\ntouch /tmp/hit8",   "/bin/echo a >/tmp/hit9",
        "/bin/echo ${IFS}touch${IFS}/tmp/hit10",
    };
    // Each text comes back from echo as written after "/bin/echo ": one program, every word its own.
    std::string echoed;
    for (const char *command : hostile) {
        EXPECT_EQ(run(command, log.c_str()), 0) << command;
        echoed += std::string(command + 10) + "\n";
    }
    for (int i = 1; i <= 10; ++i) EXPECT_FALSE(file_exists("/tmp/hit" + std::to_string(i))) << i;
    EXPECT_EQ(read_file(log), echoed);

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
        dup2(open("/tmp/system_test.inherited", O_WRONLY | O_CREAT | O_TRUNC, 0600), STDERR_FILENO);
        EXPECT_EQ(run_helper("both_streams", "", "/dev/null", nullptr), 0);
    });
    EXPECT_EQ(read_file("/tmp/system_test.inherited"), "err 1\n");

    // A file that cannot be opened stops the command before it starts.
    EXPECT_NE(run("/usr/bin/touch /tmp/system_test.ran", "/nonexistent/dir/log"), 0);
    EXPECT_NE(run("/usr/bin/touch /tmp/system_test.ran", nullptr, "/nonexistent/dir/log"), 0);
    EXPECT_FALSE(file_exists("/tmp/system_test.ran"));
}
