// The transfer URL parser of the fetch and export subcommands.
#include "tools/fcadmin/url.h"

#include "common/format.h"

#include <algorithm>
#include <arpa/inet.h>

#include <cctype>
#include <cstring>
#include <string_view>

namespace fcadmin_tool {
namespace {

constexpr std::string_view kSchemeSeparator = "://";
constexpr std::string_view kShape = "PROTO://[USER[:PASSWORD]@]HOST[:PORT]/PATH";
constexpr int32_t kSecureShellPort = 22;
constexpr long kMaxPort = 65535;
constexpr size_t kShownBytes = 48;

// Input shown back in a message: cut, with bytes that a terminal would act on written as \xNN.
std::string shown(std::string_view text) {
    std::string out = "'";
    for (size_t i = 0; i < text.size() && i < kShownBytes; ++i) {
        const unsigned char c = static_cast<unsigned char>(text[i]);
        if (c >= 0x20 && c < 0x7f) {
            out += static_cast<char>(c);
        } else {
            char hex[5];
            fcadmin::bounded_format(hex, sizeof hex, "\\x%02x", c);
            out += hex;
        }
    }
    if (text.size() > kShownBytes) out += "...";
    return out + "'";
}

bool fail(std::string *error, const std::string &message) {
    if (error != nullptr) *error = message;
    return false;
}

bool blank_or_control(std::string_view text) {
    for (char ch : text) {
        const unsigned char c = static_cast<unsigned char>(ch);
        if (c <= 0x20 || c == 0x7f) return true;
    }
    return false;
}

int hex_value(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

// Decodes %XX escapes. The text of a credential is never echoed in the messages. A blank is allowed
// only where the transfer encodes the credential before it reaches a command line (ftp's fetch).
bool percent_decode(std::string_view text, const char *what, bool blank_allowed, std::string *decoded,
                    std::string *error) {
    decoded->clear();
    for (size_t i = 0; i < text.size(); ++i) {
        if (text[i] != '%') {
            *decoded += text[i];
            continue;
        }
        const int high = i + 1 < text.size() ? hex_value(text[i + 1]) : -1;
        const int low = i + 2 < text.size() ? hex_value(text[i + 2]) : -1;
        if (high < 0 || low < 0)
            return fail(error, std::string("bad percent-escape in the ") + what + ": write % as %25, and escapes as %XX with two hex digits");
        *decoded += static_cast<char>(high * 16 + low);
        i += 2;
    }
    if (decoded->find('\0') != std::string::npos) return fail(error, std::string("the ") + what + " contains a NUL byte (%00)");
    return credential_acceptable(*decoded, what, blank_allowed, error);
}

// Copies text into a fixed field, or says which field it does not fit.
template <size_t N>
bool store(char (&field)[N], std::string_view text, const char *what, std::string *error) {
    if (text.size() > N - 1)
        return fail(error, std::string("the ") + what + " is longer than " + std::to_string(N - 1) + " bytes");
    memcpy(field, text.data(), text.size());
    field[text.size()] = '\0';
    return true;
}

bool parse_port(std::string_view text, int32_t *port, std::string *error) {
    long value = 0;
    bool ok = !text.empty() && text.size() <= 5;
    for (size_t i = 0; ok && i < text.size(); ++i) {
        ok = text[i] >= '0' && text[i] <= '9';
        value = value * 10 + (text[i] - '0');
    }
    if (!ok || value < 1 || value > kMaxPort)
        return fail(error, "bad port " + shown(text) + ": expected a number from 1 to 65535");
    *port = static_cast<int32_t>(value);
    return true;
}

bool host_name_character(char c) {
    return isalnum(static_cast<unsigned char>(c)) || c == '.' || c == '-' || c == '_';
}

// HOST[:PORT] or [IPV6][:PORT].
bool parse_host_port(std::string_view text, TransferRequest *request, std::string *error) {
    std::string_view host, port;
    bool has_port = false;
    if (!text.empty() && text.front() == '[') {
        const size_t close = text.find(']');
        if (close == std::string_view::npos) return fail(error, "the IPv6 address " + shown(text) + " lacks its closing ']'");
        host = text.substr(1, close - 1);
        std::string_view after = text.substr(close + 1);
        if (!after.empty() && after.front() != ':')
            return fail(error, "unexpected " + shown(after) + " after the IPv6 address: expected ':PORT' or '/PATH'");
        if (!after.empty()) {
            has_port = true;
            port = after.substr(1);
        }
        char address[INET6_ADDRSTRLEN + 1];
        unsigned char binary[16];
        if (host.empty() || host.size() >= sizeof address) return fail(error, "bad IPv6 address " + shown(host));
        memcpy(address, host.data(), host.size());
        address[host.size()] = '\0';
        if (inet_pton(AF_INET6, address, binary) != 1) return fail(error, "bad IPv6 address " + shown(host));
        request->addr_type = ADDR_TYPE_IPV6;
    } else {
        const size_t colon = text.find(':');
        host = text.substr(0, colon);
        if (colon != std::string_view::npos) {
            has_port = true;
            port = text.substr(colon + 1);
            if (port.find(':') != std::string_view::npos)
                return fail(error, "an IPv6 address in a URL goes in square brackets: [ADDRESS]");
        }
        if (host.empty()) return fail(error, std::string("missing host: expected ") + std::string(kShape));
        // A host is its own word in the ftp upload's command line: a leading "-" would make it an option.
        if (host.front() == '-') return fail(error, "bad host " + shown(host) + ": a host name cannot begin with '-'");
        for (char c : host)
            if (!host_name_character(c))
                return fail(error, "bad host " + shown(host) + ": use letters, digits, '.', '-' and '_', or [IPV6]");
        request->addr_type = 0;
    }
    if (!store(request->host, host, "host", error)) return false;
    if (has_port && !parse_port(port, &request->port, error)) return false;
    return true;
}

bool parse_path(std::string_view path, bool secure_shell, TransferRequest *request, std::string *error) {
    if (blank_or_control(path))
        return fail(error, "the path contains a blank or a control character, which a transfer command line cannot carry");
    if (secure_shell) {
        if (path.starts_with("/~")) path.remove_prefix(1);
    } else {
        path.remove_prefix(1);
        // The ftp upload names its remote directory as a word of its own.
        if (path.starts_with("-")) return fail(error, "bad path " + shown(path) + ": an ftp path cannot begin with '-'");
    }
    return store(request->remote_path, path, "path", error);
}

}  // namespace

bool credential_acceptable(std::string_view text, const char *what, bool blank_allowed, std::string *error) {
    std::string checked(text);
    if (blank_allowed) std::replace(checked.begin(), checked.end(), ' ', '_');
    if (blank_or_control(checked))
        return fail(error, std::string("the ") + what +
                               " contains a blank or a control character, which a transfer command line cannot carry");
    return true;
}

bool parse_transfer_url(const char *url, TransferRequest *out, std::string *error) {
    if (url == nullptr || out == nullptr) return fail(error, "no URL given");
    const std::string_view text(url);
    const size_t separator = text.find(kSchemeSeparator);
    // Without the scheme there is no telling a password from a host, so text with an "@" is not shown.
    if (separator == std::string_view::npos)
        return fail(error, (text.find('@') == std::string_view::npos ? shown(text) : std::string("the argument")) +
                               " is not a transfer URL: expected " + std::string(kShape) + " or usb:///PATH");

    TransferRequest request = *out;
    memset(request.protocol, 0, sizeof request.protocol);
    memset(request.user_name, 0, sizeof request.user_name);
    memset(request.password, 0, sizeof request.password);
    memset(request.host, 0, sizeof request.host);
    memset(request.remote_path, 0, sizeof request.remote_path);
    request.port = 0;
    request.addr_type = 0;

    std::string protocol(text.substr(0, separator));
    for (char &c : protocol) c = static_cast<char>(tolower(static_cast<unsigned char>(c)));
    const bool secure_shell = protocol == "scp" || protocol == "sftp";
    if (!secure_shell && protocol != "ftp" && protocol != "usb")
        return fail(error, "unknown protocol " + shown(protocol) + ": use scp, sftp, ftp or usb");
    store(request.protocol, protocol, "protocol", error);
    const std::string_view rest = text.substr(separator + kSchemeSeparator.size());

    if (protocol == "usb") {
        if (!rest.starts_with("/")) return fail(error, "a usb URL names a local file and no host: usb:///PATH");
        if (rest.size() == 1) return fail(error, "missing path: expected usb:///PATH");
        if (blank_or_control(rest))
            return fail(error, "the path contains a blank or a control character, which a transfer command line cannot carry");
        if (!store(request.remote_path, rest, "path", error)) return false;
        *out = request;
        return true;
    }

    const size_t slash = rest.find('/');
    if (slash == std::string_view::npos) return fail(error, std::string("missing path: expected ") + std::string(kShape));
    const std::string_view authority = rest.substr(0, slash);
    const size_t at = authority.rfind('@');
    if (at != std::string_view::npos) {
        const std::string_view user_info = authority.substr(0, at);
        const size_t colon = user_info.find(':');
        std::string user, password;
        const bool encoded = protocol == "ftp";
        if (!percent_decode(user_info.substr(0, colon), "user name", encoded, &user, error)) return false;
        if (colon != std::string_view::npos &&
            !percent_decode(user_info.substr(colon + 1), "password", encoded, &password, error))
            return false;
        if (!store(request.user_name, user, "user name", error) || !store(request.password, password, "password", error))
            return false;
    }
    if (secure_shell) request.port = kSecureShellPort;
    if (!parse_host_port(at == std::string_view::npos ? authority : authority.substr(at + 1), &request, error)) return false;
    if (!parse_path(rest.substr(slash), secure_shell, &request, error)) return false;
    *out = request;
    return true;
}

}  // namespace fcadmin_tool
