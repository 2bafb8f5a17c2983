// fcadmin fetch: a URL in, a file out, the result's message and the exit status. The protocols
// themselves are proven against real peers in tests/xfer/fetch_e2e_test.cpp; here the usb copy (the
// real /bin/cp) serves to show the tool's side.
#include "tests/support/helpers.h"

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>

using namespace fcadmin_test;

namespace {

struct ToolRun {
    int status;
    std::string output;  // standard output and standard error
};

ToolRun fetch(std::vector<std::string> args) {
    const std::string output_path = "/tmp/tool-fetch-output";
    const int status = run_in_child([&] {
        dup2(open("/dev/null", O_RDONLY), 0);
        const int out = open(output_path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
        dup2(out, 1);
        dup2(out, 2);
        std::vector<char *> argv{getenv("FCADMIN_TOOL"), const_cast<char *>("fetch")};
        for (auto &a : args) argv.push_back(a.data());
        argv.push_back(nullptr);
        execv(argv[0], argv.data());
        _exit(127);
    });
    return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, read_file(output_path)};
}

TEST(ToolFetch, ExitStatusAndMessages) {
    const std::string content = std::string("\0\x01\xff\r\nfirmware\n", 14) + std::string(5000, 'z');
    write_file("/tmp/drive.bin", content);
    for (const char *runner : {"", "--platform-runner"}) {
        unlink(FCADMIN_USB_TMP_FILE);
        std::vector<std::string> args{"usb:///tmp/drive.bin", "/ignored"};
        if (*runner != '\0') args.push_back(runner);
        const ToolRun ok = fetch(args);
        EXPECT_EQ(ok.status, 0) << runner << ok.output;
        EXPECT_EQ(ok.output, "") << runner;
        EXPECT_TRUE(read_file(FCADMIN_USB_TMP_FILE) == content) << runner;
    }
    const ToolRun failed = fetch({"usb:///tmp/no/such/file", "/ignored"});
    EXPECT_EQ(failed.status, 1);
    EXPECT_EQ(failed.output, "Failed to copy the file from remote location.\n");

    const ToolRun bad_url = fetch({"gopher://h/x", "/tmp/x"});
    EXPECT_EQ(bad_url.status, 2);
    EXPECT_EQ(bad_url.output.rfind("fcadmin fetch: unknown protocol 'gopher'", 0), 0u) << bad_url.output;
    using Args = std::vector<std::string>;
    for (const Args &args : {Args{"scp://h/x"}, Args{"scp://h/x", "a", "b"}, Args{"scp://h/x", "a", "--runner"}})
        EXPECT_EQ(fetch(args).status, 2) << args.back();
}

}  // namespace
