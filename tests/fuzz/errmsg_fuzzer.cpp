// admin_lib_get_error_msg on any 32-bit code, no context: the code back, its text, nothing of the old record.
#include "tests/fuzz/fuzz.h"

FUZZ_TARGET(data, size) {
    int32_t code = 0;
    memcpy(&code, data, std::min(size, sizeof code));
    ResultMessage message;
    memset(&message, 'x', sizeof message);
    FUZZ_CHECK(admin_lib_get_error_msg(&message, code, nullptr) == code && admin_lib_get_error_msg(nullptr, code, nullptr) == code);
    const ResultMessageRow *row = result_message_table;
    while (row->text[0] != '\0' && row->code != code) ++row;
    const std::string want = row->text[0] != '\0' ? row->text : code != 0 ? "Undefined error. " + std::to_string(code) + "\n" : "";
    FUZZ_CHECK(message.code == (row->text[0] != '\0' ? code : 0));
    FUZZ_CHECK(std::string(message.text, sizeof message.text) == want + std::string(sizeof message.text - want.size(), '\0'));
}
