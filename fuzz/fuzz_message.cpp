// Any text as the default text of an error, with any inserts: the message is no longer than they allow, and what it
// says of itself is true.
//
// Input: up to 8 inserts of 9 bytes (kind, value), a byte 0xff, the text of all text inserts up to a zero byte, and the
// default text.
#include <algorithm>
#include <cstdint>
#include <cstring>
#include <string_view>
#include <vector>

#include "fuzz/require.h"
#include "reader/message.h"

constexpr size_t INSERT_SIZE = 9;
constexpr size_t NUMBER_SIZE = 600; // bytes: at least of every formatted number

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *pData, size_t size) {
    std::string_view rest(reinterpret_cast<const char *>(pData), size);
    std::vector<trread::error_insert_t> inserts;
    for (; rest.size() >= INSERT_SIZE && rest[0] != '\xff' && inserts.size() < 8; rest.remove_prefix(INSERT_SIZE)) {
        trread::error_insert_t insert{static_cast<uint8_t>(rest[0]), 0, {}};
        memcpy(&insert.value, rest.data() + 1, sizeof insert.value);
        inserts.push_back(insert);
    }
    if (rest.starts_with('\xff'))
        rest.remove_prefix(1);
    const auto insertText = rest.substr(0, rest.find('\0'));
    const auto text = rest.substr(std::min(insertText.size() + 1, rest.size()));
    for (auto &insert : inserts) {
        if (insert.type == CU_ERROR_ARG_CHAR_STR && insert.value % 4 != 0) // others are absent
            insert.text = insertText;
    }
    const auto message = trread::format_message(text, inserts);
    require(message.text.size() <= text.size() + inserts.size() * (NUMBER_SIZE + insertText.size()));
    if (text.find('%') == std::string_view::npos)
        require(message.text == text && message.bWhole == inserts.empty());
    return 0;
}
