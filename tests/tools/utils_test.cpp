// The built fcadmin tool's utility subcommands: exact output, exit status, and no crash on bad input.
#include "tests/support/helpers.h"

#include <gtest/gtest.h>

#include <sys/wait.h>

#include <string>
#include <vector>

namespace {

using fcadmin_test::read_file;
using fcadmin_test::write_file;

struct Outcome {
    int status = -1;  // exit status, or -1 when the tool did not exit normally
    std::string out, err;
};

// Runs the built tool with args (no blanks or quotes in them), standard input from the file `input`.
Outcome tool(const std::vector<std::string> &args, const std::string &input = "/dev/null") {
    std::string command = "exec \"$FCADMIN_TOOL\"";
    for (const auto &a : args) command += " '" + a + "'";
    command += " <" + input + " 2>/tmp/utils_test.err";
    Outcome o;
    const int status = fcadmin_test::run_program({"/bin/sh", "-c", command}, &o.out);
    o.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    o.err = read_file("/tmp/utils_test.err");
    return o;
}

// Status 0 and exactly this on standard output.
void expect_output(const std::vector<std::string> &args, const std::string &out, const std::string &input = "/dev/null") {
    const Outcome o = tool(args, input);
    EXPECT_EQ(o.status, 0) << args[0] << ": " << o.err;
    EXPECT_EQ(o.out, out) << args[0];
}

// A usage error: status 2, nothing on standard output, and a pointer to --help.
void expect_usage_error(const std::vector<std::string> &args) {
    const Outcome o = tool(args);
    EXPECT_EQ(o.status, 2) << o.err;
    EXPECT_EQ(o.out, "");
    EXPECT_NE(o.err.find("fcadmin " + args[0] + ": "), std::string::npos) << o.err;
    EXPECT_NE(o.err.find("Try 'fcadmin " + args[0] + " --help'."), std::string::npos) << o.err;
}

TEST(Tool, EachUtilitySubcommandPrintsItsResult) {
    const std::string digits = "/tmp/utils_test.digits", empty = "/tmp/utils_test.empty",
                      missing = "/tmp/utils_test.missing", text = "/tmp/utils_test.text";
    write_file(digits, "123456789");
    write_file(empty, "");
    write_file(text, "AGZjAGFk\n");
    const std::string nul_bytes("\0fc\0ad", 6);

    expect_output({"errmsg", "-44"}, "The Server portnumber is not supported for ftp protocol\n");
    expect_output({"errmsg", "-13"}, "Undefined error. -13\n");
    expect_usage_error({"errmsg", "forty"});

    expect_output({"digest", digits}, "637134740\n");
    expect_output({"digest", digits, empty}, "-99126163\n");
    Outcome o = tool({"digest", missing});
    EXPECT_EQ(o.status, 1);
    EXPECT_EQ(o.out, "");
    EXPECT_EQ(o.err, "fcadmin digest: cannot read '" + missing + "': No such file or directory\n");
    expect_usage_error({"digest"});

    expect_output({"crc16", digits}, "0xBB3D\n");
    expect_output({"crc16", "-s", "A"}, "0x30C0\n");
    expect_output({"crc16"}, "0xBB3D\n", digits);
    expect_usage_error({"crc16", "-s"});

    expect_output({"b64decode", "QUJD"}, "ABC");
    expect_output({"b64decode", "-f", text}, nul_bytes);
    expect_output({"b64decode"}, nul_bytes, text);
    o = tool({"b64decode", "@@@@"});
    EXPECT_EQ(o.status, 1);
    EXPECT_EQ(o.out, "");
    EXPECT_EQ(o.err, "fcadmin b64decode: not Base64 text\n");
    expect_usage_error({"b64decode", "QUJD", "QUJD"});

    expect_output({"bits", "-1"}, "32\n");
    expect_output({"bits", "0x80000000"}, "1\n");
    expect_usage_error({"bits", "4294967296"});
    expect_output({"endian"}, __BYTE_ORDER__ == __ORDER_BIG_ENDIAN__ ? "big-endian (2)\n" : "little-endian (1)\n");
    expect_output({"endian", "swap16", "0x00AB1234"}, "0xBF12\n");
    expect_output({"endian", "swap32", "1"}, "0x01000000\n");
    expect_usage_error({"endian", "swap64", "1"});
}

TEST(Tool, HelpForEachSubcommand) {
    const std::string list = tool({"--help"}).out;
    for (const std::string name : {"errmsg", "digest", "crc16", "b64decode", "bits", "endian"}) {
        const Outcome o = tool({name, "--help"});
        EXPECT_EQ(o.status, 0) << name;
        EXPECT_EQ(o.out.rfind("usage: fcadmin " + name, 0), 0u) << o.out;
        EXPECT_NE(list.find("  " + name + " "), std::string::npos) << name;
    }
}

}  // namespace
