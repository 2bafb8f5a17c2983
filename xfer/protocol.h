// The protocol words of a transfer request and the one rule by which a request's field names one.
#pragma once

#include "fcadmin.h"

#include <cstddef>

namespace fcadmin {

inline constexpr const char kProtocolUsb[] = "usb";
inline constexpr const char kProtocolFtp[] = "ftp";
inline constexpr const char kProtocolSftp[] = "sftp";
inline constexpr const char kProtocolScp[] = "scp";

inline constexpr size_t kProtocolFieldSize = sizeof(TransferRequest{}.protocol);

// True when the request's protocol field matches word: the field is compared over the length of its
// own text, so a field that is a prefix of the word matches it ("f" is ftp) and an empty field matches
// whatever word is tried first. Callers depend on that asymmetry and on the order in which they try
// the words; keep both. The field is read at most kProtocolFieldSize bytes, terminated or not. A null
// field or word matches nothing.
bool protocol_matches(const char *field, const char *word);

}  // namespace fcadmin
