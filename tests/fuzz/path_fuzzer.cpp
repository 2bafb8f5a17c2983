// get_file_name_from_path and admin_lib_extract_file_name, into cleared buffers of the least size callers pass.
#include "tests/fuzz/fuzz.h"

FUZZ_TARGET(data, size) {
    const std::string path = fuzz_c_string(data, size);  // buffers: the path and its terminator, a dir 80 at least
    std::vector<char> dir(std::max<size_t>(80, path.size() + 1)), name(path.size() + 1), base(path.size() + 1);
    FUZZ_CHECK(get_file_name_from_path(path.c_str(), dir.data(), name.data()) == (path.empty() || path.back() != '/'));
    FUZZ_CHECK(std::string(dir.data()) + name.data() == (path.find('/') == path.npos ? "/" : "") + path);
    FUZZ_CHECK(admin_lib_extract_file_name(path.c_str(), base.data()) == base.data());
    FUZZ_CHECK(base.data() == path.substr(path.rfind('/') + 1));
}
