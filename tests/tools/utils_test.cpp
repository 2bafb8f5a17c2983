// The built fcadmin tool's utility subcommands: exact output, exit status, and no crash on bad input.
#include "tests/support/helpers.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <fcntl.h>
#include <string>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

namespace {

using fcadmin_test::read_file;
using fcadmin_test::write_file;

struct Outcome {
    int status = -1;  // exit status, or -1 when the tool did not exit normally
    std::string out, err;
};

class Tool {
public:
    Tool() {
        char templ[] = "/tmp/utils.XXXXXX";
        dir_ = mkdtemp(templ) != nullptr ? templ : "/tmp";
        write_file(dir_ + "/digits", "123456789");
        write_file(dir_ + "/empty", "");
    }
    std::string path(const std::string &name) const { return dir_ + "/" + name; }

    // Runs the tool with args, standard input taken from the file `input` (or /dev/null).
    Outcome run(std::vector<std::string> args, const std::string &input = "/dev/null") const {
        const char *tool = getenv("FCADMIN_TOOL");
        EXPECT_NE(tool, nullptr);
        args.insert(args.begin(), tool != nullptr ? tool : "fcadmin");
        std::string out_file = path("stdout"), err_file = path("stderr");
        fflush(nullptr);
        pid_t pid = fork();
        if (pid == 0) {
            int in = open(input.c_str(), O_RDONLY);
            int out = open(out_file.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
            int err = open(err_file.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
            if (in < 0 || out < 0 || err < 0) _exit(126);
            dup2(in, 0);
            dup2(out, 1);
            dup2(err, 2);
            std::vector<char *> argv;
            for (auto &a : args) argv.push_back(a.data());
            argv.push_back(nullptr);
            execv(argv[0], argv.data());
            _exit(127);
        }
        int status = 0;
        waitpid(pid, &status, 0);
        Outcome outcome;
        outcome.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
        outcome.out = read_file(out_file);
        outcome.err = read_file(err_file);
        return outcome;
    }

private:
    std::string dir_;
};

// A usage error: status 2, nothing on standard output, and a pointer to --help.
void expect_usage_error(const Outcome &outcome, const std::string &command) {
    EXPECT_EQ(outcome.status, 2) << outcome.err;
    EXPECT_EQ(outcome.out, "");
    EXPECT_NE(outcome.err.find("fcadmin " + command + ": "), std::string::npos) << outcome.err;
    EXPECT_NE(outcome.err.find("Try 'fcadmin " + command + " --help'."), std::string::npos) << outcome.err;
}

TEST(ToolErrmsg, PrintsMessageText) {
    Tool tool;
    Outcome o = tool.run({"errmsg", "-44"});
    EXPECT_EQ(o.status, 0);
    EXPECT_EQ(o.out, "The Server portnumber is not supported for ftp protocol\n");
    EXPECT_EQ(tool.run({"errmsg", "-13"}).out, "Undefined error. -13\n");
    o = tool.run({"errmsg", "1"});
    EXPECT_EQ(o.status, 0);
    EXPECT_EQ(o.out, "Undefined error. 1\n");
    EXPECT_EQ(tool.run({"errmsg", "0"}).out, "");

    expect_usage_error(tool.run({"errmsg"}), "errmsg");
    expect_usage_error(tool.run({"errmsg", "forty"}), "errmsg");
    expect_usage_error(tool.run({"errmsg", "-5", "-6"}), "errmsg");
}

TEST(ToolDigest, SignedDecimalDigest) {
    Tool tool;
    EXPECT_EQ(tool.run({"digest", tool.path("digits")}).out, "637134740\n");
    EXPECT_EQ(tool.run({"digest", tool.path("empty")}).out, "-736260903\n");
    Outcome o = tool.run({"digest", tool.path("digits"), tool.path("empty")});
    EXPECT_EQ(o.status, 0);
    EXPECT_EQ(o.out, "-99126163\n");

    o = tool.run({"digest", tool.path("missing")});
    EXPECT_EQ(o.status, 1);
    EXPECT_EQ(o.out, "");
    EXPECT_EQ(o.err, "fcadmin digest: cannot read '" + tool.path("missing") + "': No such file or directory\n");
    EXPECT_EQ(tool.run({"digest", tool.path("digits"), tool.path("missing")}).status, 1);

    expect_usage_error(tool.run({"digest"}), "digest");
    expect_usage_error(tool.run({"digest", "a", "b", "c"}), "digest");
}

TEST(ToolCrc16, UpperCaseHexOfFileTextOrInput) {
    Tool tool;
    EXPECT_EQ(tool.run({"crc16", tool.path("digits")}).out, "0xBB3D\n");
    EXPECT_EQ(tool.run({"crc16", "-s", "123456789"}).out, "0xBB3D\n");
    EXPECT_EQ(tool.run({"crc16"}, tool.path("digits")).out, "0xBB3D\n");
    EXPECT_EQ(tool.run({"crc16", "-s", "A"}).out, "0x30C0\n");
    EXPECT_EQ(tool.run({"crc16", tool.path("empty")}).out, "0x0000\n");

    Outcome o = tool.run({"crc16", tool.path("missing")});
    EXPECT_EQ(o.status, 1);
    EXPECT_NE(o.err.find("cannot read"), std::string::npos);
    expect_usage_error(tool.run({"crc16", "-s"}), "crc16");
    expect_usage_error(tool.run({"crc16", "-x"}), "crc16");
    expect_usage_error(tool.run({"crc16", "a", "b"}), "crc16");
}

TEST(ToolB64decode, DecodedBytesOnStandardOutput) {
    Tool tool;
    Outcome o = tool.run({"b64decode", "QUJD"});
    EXPECT_EQ(o.status, 0);
    EXPECT_EQ(o.out, "ABC");
    write_file(tool.path("text"), "AGZjAGFk\n");
    EXPECT_EQ(tool.run({"b64decode", "-f", tool.path("text")}).out, std::string("\0fc\0ad", 6));
    EXPECT_EQ(tool.run({"b64decode"}, tool.path("text")).out, std::string("\0fc\0ad", 6));
    o = tool.run({"b64decode", ""});
    EXPECT_EQ(o.status, 0);
    EXPECT_EQ(o.out, "");

    o = tool.run({"b64decode", "@@@@"});
    EXPECT_EQ(o.status, 1);
    EXPECT_EQ(o.out, "");
    EXPECT_EQ(o.err, "fcadmin b64decode: not Base64 text\n");
    EXPECT_EQ(tool.run({"b64decode", "-f", tool.path("missing")}).status, 1);
    expect_usage_error(tool.run({"b64decode", "-f"}), "b64decode");
    expect_usage_error(tool.run({"b64decode", "-q"}), "b64decode");
    expect_usage_error(tool.run({"b64decode", "QUJD", "QUJD"}), "b64decode");
}

TEST(ToolBitsAndEndian, CountsAndSwaps) {
    Tool tool;
    EXPECT_EQ(tool.run({"bits", "0"}).out, "0\n");
    EXPECT_EQ(tool.run({"bits", "-1"}).out, "32\n");
    EXPECT_EQ(tool.run({"bits", "0x80000000"}).out, "1\n");
    EXPECT_EQ(tool.run({"bits", "4294967295"}).out, "32\n");
    expect_usage_error(tool.run({"bits"}), "bits");
    expect_usage_error(tool.run({"bits", "12x"}), "bits");
    expect_usage_error(tool.run({"bits", "4294967296"}), "bits");
    expect_usage_error(tool.run({"bits", "-2147483649"}), "bits");

#if __BYTE_ORDER__ == __ORDER_BIG_ENDIAN__
    EXPECT_EQ(tool.run({"endian"}).out, "big-endian (2)\n");
#else
    EXPECT_EQ(tool.run({"endian"}).out, "little-endian (1)\n");
#endif
    EXPECT_EQ(tool.run({"endian", "swap16", "0x1234"}).out, "0x3412\n");
    EXPECT_EQ(tool.run({"endian", "swap16", "0x00AB1234"}).out, "0xBF12\n");
    EXPECT_EQ(tool.run({"endian", "swap32", "0x11223344"}).out, "0x44332211\n");
    EXPECT_EQ(tool.run({"endian", "swap32", "1"}).out, "0x01000000\n");
    expect_usage_error(tool.run({"endian", "swap64", "1"}), "endian");
    expect_usage_error(tool.run({"endian", "swap16"}), "endian");
}

TEST(ToolUtilities, HelpForEachSubcommand) {
    Tool tool;
    for (const char *name : {"errmsg", "digest", "crc16", "b64decode", "bits", "endian"}) {
        Outcome o = tool.run({name, "--help"});
        EXPECT_EQ(o.status, 0) << name;
        EXPECT_EQ(o.out.rfind(std::string("usage: fcadmin ") + name, 0), 0u) << o.out;
    }
    Outcome o = tool.run({"--help"});
    for (const char *name : {"errmsg", "digest", "crc16", "b64decode", "bits", "endian"})
        EXPECT_NE(o.out.find(std::string("  ") + name + " "), std::string::npos) << name;
}

}  // namespace
