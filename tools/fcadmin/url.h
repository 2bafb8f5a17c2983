// The transfer URL of the fetch and export subcommands: PROTO://[USER[:PASSWORD]@]HOST[:PORT]/PATH.
#pragma once

#include "fcadmin.h"

#include <string>
#include <string_view>

namespace fcadmin_tool {

// Parses a transfer URL into the request's protocol, user_name, password, host, port, addr_type and
// remote_path; the other fields of *out are left as the caller set them.
//   - PROTO is scp, sftp, ftp or usb (any case); usb takes no host: usb:///PATH names the local source.
//   - HOST in square brackets is an IPv6 literal: addr_type becomes ADDR_TYPE_IPV6, host the address.
//   - %XX escapes are decoded in USER and PASSWORD (write "@", ":" and "/" there as %40, %3A, %2F).
//   - PORT defaults to 22 for scp and sftp, to 0 (the tool's default) for ftp.
//   - PATH keeps its leading "/" for scp and sftp ("/~/x" gives "~/x", relative to the home
//     directory) and loses it for ftp (relative to the login directory, as in ftp URLs).
// Blanks and control characters are refused (the transfer command lines are split at blanks, so such
// a byte would turn one word into two), except a blank in ftp credentials, which the fetch
// percent-encodes; a caller that passes ftp credentials as they stand must refuse blanks itself. On failure *out is unchanged and *error says
// what is wrong (never repeating the password).
bool parse_transfer_url(const char *url, TransferRequest *out, std::string *error);

// Whether a decoded credential can stand in a transfer command line: no control character, and no blank
// unless blank_allowed (ftp's fetch encodes it). On refusal *error names `what`, never the text.
bool credential_acceptable(std::string_view text, const char *what, bool blank_allowed, std::string *error);

}  // namespace fcadmin_tool
