// The protocol-matching rule shared by the credential conversion, the fetch and the export.
#include "xfer/protocol.h"

#include <cstring>

namespace fcadmin {

bool protocol_matches(const char *field, const char *word) {
    if (field == nullptr || word == nullptr) return false;
    return strncmp(field, word, strnlen(field, kProtocolFieldSize)) == 0;
}

}  // namespace fcadmin
