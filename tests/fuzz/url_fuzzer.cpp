// The tool's URL parser: a refused URL leaves the request alone; an accepted one written out again parses alike.
#include "tests/fuzz/fuzz.h"

static std::string url_of(const TransferRequest &r) {  // every credential byte escaped
    std::string url = std::string(r.protocol) + "://", hex = "0123456789ABCDEF";
    if (url == "usb://") return url + r.remote_path;
    for (const char *c = r.user_name; *c != '\0'; ++c) url += {'%', hex[uint8_t(*c) >> 4], hex[*c & 15]};
    url += ':';
    for (const char *c = r.password; *c != '\0'; ++c) url += {'%', hex[uint8_t(*c) >> 4], hex[*c & 15]};
    url += r.addr_type == ADDR_TYPE_IPV6 ? "@[" + std::string(r.host) + "]" : "@" + std::string(r.host);
    if (r.port != 0) url += ":" + std::to_string(r.port);
    return url + (url.starts_with("ftp") || r.remote_path[0] == '~' ? "/" : "") + r.remote_path;
}

FUZZ_TARGET(data, size) {
    TransferRequest first{}, again{};
    std::string error;
    if (!fcadmin_tool::parse_transfer_url(fuzz_c_string(data, size).c_str(), &first, &error))
        return FUZZ_CHECK(memcmp(&first, &again, sizeof first) == 0 && !error.empty());
    FUZZ_CHECK(fcadmin_tool::parse_transfer_url(url_of(first).c_str(), &again, &error));
    FUZZ_CHECK(memcmp(&first, &again, sizeof first) == 0);
}
