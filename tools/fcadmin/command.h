// The tool's subcommands: each module registers its own, and shared helpers for reporting.
#pragma once

#include <cstdint>
#include <string>

namespace fcadmin_tool {

struct Subcommand {
    const char *name;
    const char *summary;  // one line for the tool's --help
    const char *usage;    // the subcommand's --help text
    int (*run)(int argc, char **argv);  // argv[0] is the subcommand's name
};

struct SubcommandRegistration {
    explicit SubcommandRegistration(const Subcommand &command);
};

#define FCADMIN_SUBCOMMAND_CAT2(a, b) a##b
#define FCADMIN_SUBCOMMAND_CAT(a, b) FCADMIN_SUBCOMMAND_CAT2(a, b)
#define FCADMIN_SUBCOMMAND(...)                                                                  \
    static ::fcadmin_tool::SubcommandRegistration FCADMIN_SUBCOMMAND_CAT(fcadmin_subcommand_, \
                                                                          __LINE__)(::fcadmin_tool::Subcommand{__VA_ARGS__})

// Runs the tool: dispatches argv to its subcommand. Returns the exit status.
int tool_main(int argc, char **argv);

// True when argv holds -h or --help; the subcommand then prints its usage and exits 0.
bool wants_help(int argc, char **argv);
// Prints "fcadmin NAME: what" and the subcommand's usage hint to standard error; returns 2.
int usage_error(const char *name, const std::string &what);
// Prints the message of a result code to standard error (as admin_lib_get_error_msg renders it);
// returns 0 for code 0, else 1.
int report_result(int32_t code);
// The options that fetch and export share: --password-file FILE and --quiet.
struct TransferOptions {
    const char *password_file = nullptr;
    bool quiet = false;
};
// Takes the shared option at argv[*i] (moving *i past its value): 1 when it did, 0 when argv[*i] is none
// of them, -1 when --password-file lacks its FILE.
int take_transfer_option(int argc, char **argv, int *i, TransferOptions *options);

// Parses a whole decimal or 0x-prefixed integer; false when text is not one or out of range.
bool parse_int32(const char *text, int32_t *value);

}  // namespace fcadmin_tool
