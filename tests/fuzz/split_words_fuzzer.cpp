// The runner's word split against a plain split at blanks: the same words cut at 399 bytes, the refusal at 23.
#include "tests/fuzz/fuzz.h"

FUZZ_TARGET(data, size) {
    const std::string text = fuzz_c_string(data, size);
    std::vector<std::string> want;
    for (size_t at = text.find_first_not_of(' '), end; at != text.npos; at = text.find_first_not_of(' ', end))
        want.push_back(text.substr(at, std::min<size_t>((end = text.find(' ', at)) - at, 399)));
    static fcadmin::CommandWords words;
    FUZZ_CHECK(fcadmin::split_words(text.c_str(), words) == (want.size() < 23));
    for (size_t i = 0; want.size() < 23 && i <= want.size(); ++i)
        FUZZ_CHECK(i < want.size() ? want[i] == words.argv[i] : words.argv[i] == nullptr && words.count == int(i));
}
