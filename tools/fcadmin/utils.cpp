// fcadmin digest, crc16, b64decode, bits, endian: the file and data utilities.
#include "tools/fcadmin/command.h"

#include "fcadmin.h"
#include "fileutil/crc16.h"

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

namespace fcadmin_tool {
namespace {

constexpr const char kDigestUsage[] =
    "usage: fcadmin digest FILE [FILE2]\n"
    "\n"
    "Prints the 32-bit digest of FILE as a signed decimal: the first four bytes of\n"
    "its MD5 digest, most significant first. With FILE2, prints the sum of the two\n"
    "digests modulo 2^32.\n";

constexpr const char kCrc16Usage[] =
    "usage: fcadmin crc16 [FILE | -s TEXT]\n"
    "\n"
    "Prints the CRC-16/ARC of the bytes of FILE, of TEXT, or of standard input when\n"
    "neither is given (or FILE is -), as 0x followed by four upper-case hex digits.\n";

constexpr const char kB64decodeUsage[] =
    "usage: fcadmin b64decode [TEXT | -f FILE]\n"
    "\n"
    "Decodes Base64 TEXT, the content of FILE, or standard input when neither is\n"
    "given (or FILE is -), and writes the decoded bytes to standard output. The text\n"
    "is one line: trailing blanks and line ends are dropped, inner line breaks are\n"
    "not accepted.\n";

constexpr const char kBitsUsage[] =
    "usage: fcadmin bits N\n"
    "\n"
    "Prints how many of the 32 bits of N are set. N is decimal or 0x-prefixed hex,\n"
    "from -2147483648 to 4294967295.\n";

constexpr const char kEndianUsage[] =
    "usage: fcadmin endian\n"
    "       fcadmin endian swap16 N\n"
    "       fcadmin endian swap32 N\n"
    "\n"
    "Without arguments prints the host byte order: \"little-endian (1)\" or\n"
    "\"big-endian (2)\". swap16 and swap32 print N with its bytes reversed, in hex;\n"
    "swap16 works on the whole 32-bit N, as the library does, so only N up to 0xFFFF\n"
    "gives a plain two-byte swap.\n";

// A 32-bit word given either signed (-1) or unsigned (0xFFFFFFFF).
bool parse_word32(const char *text, uint32_t *value) {
    int32_t signed_value = 0;
    if (parse_int32(text, &signed_value)) {
        *value = static_cast<uint32_t>(signed_value);
        return true;
    }
    if (text == nullptr || *text < '0' || *text > '9') return false;
    errno = 0;
    char *end = nullptr;
    unsigned long long v = strtoull(text, &end, 0);
    if (errno != 0 || *end != '\0' || v > UINT32_MAX) return false;
    *value = static_cast<uint32_t>(v);
    return true;
}

// The whole content of path, or of standard input for "-"; false with errno set when it cannot be read.
bool read_input(const char *path, std::string *content) {
    bool from_stdin = strcmp(path, "-") == 0;
    FILE *file = from_stdin ? stdin : fopen(path, "rb");
    if (file == nullptr) return false;
    char chunk[65536];
    size_t n;
    while ((n = fread(chunk, 1, sizeof chunk, file)) > 0) content->append(chunk, n);
    bool ok = ferror(file) == 0;
    int saved = errno;
    if (!from_stdin) fclose(file);
    errno = saved;
    return ok;
}

int input_error(const char *command, const char *path) {
    fprintf(stderr, "fcadmin %s: cannot read '%s': %s\n", command, path, strerror(errno));
    return 1;
}

int run_digest(int argc, char **argv) {
    if (argc < 2 || argc > 3) return usage_error(argv[0], argc < 2 ? "missing FILE" : "too many arguments");
    // The library's digest of a file it cannot open is 0, which is also a possible digest; the tool
    // says so instead of printing a value that looks real.
    for (int i = 1; i < argc; ++i) {
        FILE *probe = fopen(argv[i], "r");
        if (probe == nullptr) return input_error(argv[0], argv[i]);
        fclose(probe);
    }
    int32_t value = argc == 2 ? get_crc(argv[1]) : get_crc2(argv[1], argv[2]);
    printf("%d\n", value);
    return fflush(stdout) == 0 ? 0 : 1;
}

int run_crc16(int argc, char **argv) {
    std::string data;
    if (argc >= 2 && strcmp(argv[1], "-s") == 0) {
        if (argc != 3) return usage_error(argv[0], argc < 3 ? "option -s needs TEXT" : "too many arguments");
        data = argv[2];
    } else if (argc <= 2) {
        const char *path = argc == 2 ? argv[1] : "-";
        if (path[0] == '-' && path[1] != '\0') return usage_error(argv[0], std::string("unknown option ") + path);
        if (!read_input(path, &data)) return input_error(argv[0], path);
    } else {
        return usage_error(argv[0], "too many arguments");
    }
    if (data.size() > static_cast<size_t>(INT32_MAX)) {
        fprintf(stderr, "fcadmin %s: input longer than %d bytes\n", argv[0], INT32_MAX);
        return 1;
    }
    uint32_t crc = crc16_compute(reinterpret_cast<const unsigned char *>(data.data()), static_cast<int32_t>(data.size()));
    printf("0x%04X\n", crc);
    return fflush(stdout) == 0 ? 0 : 1;
}

int run_b64decode(int argc, char **argv) {
    std::string text;
    if (argc >= 2 && strcmp(argv[1], "-f") == 0) {
        if (argc != 3) return usage_error(argv[0], argc < 3 ? "option -f needs FILE" : "too many arguments");
        if (!read_input(argv[2], &text)) return input_error(argv[0], argv[2]);
    } else if (argc == 2) {
        // No Base64 text starts with '-'.
        if (argv[1][0] == '-') return usage_error(argv[0], std::string("unknown option ") + argv[1]);
        text = argv[1];
    } else if (argc == 1) {
        if (!read_input("-", &text)) return input_error(argv[0], "-");
    } else {
        return usage_error(argv[0], "too many arguments");
    }
    while (!text.empty() && strchr(" \t\r\n", text.back()) != nullptr) text.pop_back();
    if (text.size() > UINT32_MAX) {
        fprintf(stderr, "fcadmin %s: input too long\n", argv[0]);
        return 1;
    }

    uint32_t length = 0;
    unsigned char *decoded = base64decode(text.data(), static_cast<uint32_t>(text.size()), &length);
    if (decoded == nullptr) {
        fprintf(stderr, "fcadmin %s: out of memory\n", argv[0]);
        return 1;
    }
    size_t written = fwrite(decoded, 1, length, stdout);
    free(decoded);
    if (!text.empty() && length == 0) {
        fprintf(stderr, "fcadmin %s: not Base64 text\n", argv[0]);
        return 1;
    }
    return written == length && fflush(stdout) == 0 ? 0 : 1;
}

int run_bits(int argc, char **argv) {
    if (argc != 2) return usage_error(argv[0], argc < 2 ? "missing N" : "too many arguments");
    uint32_t value = 0;
    if (!parse_word32(argv[1], &value)) return usage_error(argv[0], "N is not a 32-bit integer: " + std::string(argv[1]));
    printf("%d\n", _count_bits(static_cast<int32_t>(value)));
    return fflush(stdout) == 0 ? 0 : 1;
}

int run_endian(int argc, char **argv) {
    if (argc == 1) {
        int32_t order = endian_check();
        printf("%s (%d)\n", order == 1 ? "little-endian" : "big-endian", order);
        return fflush(stdout) == 0 ? 0 : 1;
    }
    bool swap16 = strcmp(argv[1], "swap16") == 0;
    if (!swap16 && strcmp(argv[1], "swap32") != 0)
        return usage_error(argv[0], std::string("unknown operation ") + argv[1]);
    if (argc != 3) return usage_error(argv[0], argc < 3 ? "missing N" : "too many arguments");
    uint32_t value = 0;
    if (!parse_word32(argv[2], &value)) return usage_error(argv[0], "N is not a 32-bit integer: " + std::string(argv[2]));
    if (swap16)
        printf("0x%04X\n", endian_swap_16(value));
    else
        printf("0x%08X\n", endian_swap_32(value));
    return fflush(stdout) == 0 ? 0 : 1;
}

}  // namespace

FCADMIN_SUBCOMMAND("digest", "print the 32-bit digest of a file (or the sum for two files)", kDigestUsage, run_digest);
FCADMIN_SUBCOMMAND("crc16", "print the CRC-16/ARC of a file, a text or standard input", kCrc16Usage, run_crc16);
FCADMIN_SUBCOMMAND("b64decode", "decode Base64 text to standard output", kB64decodeUsage, run_b64decode);
FCADMIN_SUBCOMMAND("bits", "count the bits set in a 32-bit number", kBitsUsage, run_bits);
FCADMIN_SUBCOMMAND("endian", "show the host byte order or swap the bytes of a number", kEndianUsage, run_endian);

}  // namespace fcadmin_tool
