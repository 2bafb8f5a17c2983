// Subcommand registry, dispatch, --help and the shared reporting helpers.
#include "tools/fcadmin/command.h"

#include "fcadmin.h"
#include "tools/fcadmin/build_info.h"

#include <openssl/crypto.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

namespace fcadmin_tool {
namespace {

std::vector<Subcommand> &registry() {
    static std::vector<Subcommand> commands;
    return commands;
}

const Subcommand *find(const char *name) {
    for (const auto &c : registry())
        if (strcmp(c.name, name) == 0) return &c;
    return nullptr;
}

void print_tool_help(FILE *out) {
    auto commands = registry();
    std::sort(commands.begin(), commands.end(),
              [](const Subcommand &a, const Subcommand &b) { return strcmp(a.name, b.name) < 0; });
    fprintf(out,
            "usage: fcadmin COMMAND [ARGS...]\n"
            "       fcadmin COMMAND --help\n"
            "       fcadmin --version\n\n"
            "commands:\n");
    for (const auto &c : commands) fprintf(out, "  %-10s %s\n", c.name, c.summary);
}

// The version, the OpenSSL in use (the one loaded, which may be newer than the one built against) and
// the fixed paths, which a product build may have placed elsewhere.
int print_version() {
    printf("fcadmin %s\n%s\n", FCADMIN_TOOL_VERSION, OpenSSL_version(OPENSSL_VERSION));
    const char *changed = FCADMIN_CHANGED_PATHS;
    if (*changed == '\0')
        puts("Fixed paths: the defaults");
    else
        printf("Fixed paths changed by this build:\n%s", changed);
    return fflush(stdout) == 0 ? 0 : 1;
}

}  // namespace

SubcommandRegistration::SubcommandRegistration(const Subcommand &command) { registry().push_back(command); }

bool wants_help(int argc, char **argv) {
    for (int i = 1; i < argc; ++i)
        if (strcmp(argv[i], "--help") == 0 || strcmp(argv[i], "-h") == 0) return true;
    return false;
}

int usage_error(const char *name, const std::string &what) {
    fprintf(stderr, "fcadmin %s: %s\n", name, what.c_str());
    fprintf(stderr, "Try 'fcadmin %s --help'.\n", name);
    return 2;
}

int report_result(int32_t code) {
    if (code == 0) return 0;
    static ResultMessage message;
    admin_lib_get_error_msg(&message, code, nullptr);
    fputs(message.text, stderr);
    return 1;
}

int take_transfer_option(int argc, char **argv, int *i, TransferOptions *options) {
    if (strcmp(argv[*i], "--quiet") == 0) {
        options->quiet = true;
        return 1;
    }
    if (strcmp(argv[*i], "--password-file") != 0) return 0;
    if (*i + 1 >= argc) return -1;
    options->password_file = argv[++*i];
    return 1;
}

bool parse_int32(const char *text, int32_t *value) {
    if (text == nullptr || *text == '\0') return false;
    errno = 0;
    char *end = nullptr;
    long long v = strtoll(text, &end, 0);
    if (errno != 0 || *end != '\0' || v < INT32_MIN || v > INT32_MAX) return false;
    *value = static_cast<int32_t>(v);
    return true;
}

int tool_main(int argc, char **argv) {
    if (argc < 2) {
        print_tool_help(stderr);
        return 2;
    }
    const char *name = argv[1];
    if (strcmp(name, "--version") == 0 || strcmp(name, "-V") == 0) return print_version();
    if (strcmp(name, "--help") == 0 || strcmp(name, "-h") == 0 || strcmp(name, "help") == 0) {
        if (argc > 2 && find(argv[2]) != nullptr) {
            fputs(find(argv[2])->usage, stdout);
            return 0;
        }
        print_tool_help(stdout);
        return 0;
    }
    const Subcommand *command = find(name);
    if (command == nullptr) {
        fprintf(stderr, "fcadmin: unknown command '%s'\n\n", name);
        print_tool_help(stderr);
        return 2;
    }
    if (argc > 2 && (strcmp(argv[2], "--help") == 0 || strcmp(argv[2], "-h") == 0)) {
        fputs(command->usage, stdout);
        return 0;
    }
    return command->run(argc - 1, argv + 1);
}

}  // namespace fcadmin_tool
