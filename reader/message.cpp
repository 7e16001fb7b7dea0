#include "reader/message.h"

#include <algorithm>
#include <array>
#include <bit>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <optional>

namespace trread {

constexpr std::string_view FLAGS = "-+ #0'";
constexpr std::string_view MODIFIERS = "hljztL";
constexpr std::string_view SIGNED_LETTERS = "di";
constexpr std::string_view UNSIGNED_LETTERS = "uxXo";
constexpr std::string_view DOUBLE_LETTERS = "fFgGeEaA";
constexpr std::string_view OTHER_LETTERS = "csp%";
constexpr int MAX_WIDTH = 255; // of width and precision
constexpr size_t MAX_NUMBER_SIZE =
    600; // bytes of a formatted number: the largest double has 309 digits before the point

static bool is_one_of(std::string_view letters, char c) {
    return letters.find(c) != std::string_view::npos;
}

struct conversion_t {
    std::string_view text = {};  // as it stands in the format, from its "%" to its letter
    std::string_view flags = {}; // those of FLAGS
    int width = 0;
    std::optional<size_t> precision = {};
    int numShort = 0; // "h": 1, "hh": 2; the other modifiers say no more than the insert's kind does
    char letter = '%';
};

// number := digits | "*" | ""    Returns nothing for "*". What is too large stays large.
static std::optional<size_t> read_number(std::string_view text, size_t *pPos) {
    constexpr size_t ENOUGH = SIZE_MAX / 16;
    if (*pPos < text.size() && text[*pPos] == '*') {
        ++*pPos;
        return std::nullopt;
    }
    size_t number = 0;
    for (; *pPos < text.size() && text[*pPos] >= '0' && text[*pPos] <= '9'; ++*pPos)
        number = std::min(ENOUGH, number * 10 + static_cast<size_t>(text[*pPos] - '0'));
    return number;
}

// conversion := "%" flags [number] [ "." number ] modifier letter
// Reads the one at the start of a text; nothing when it is not known or ends with the text.
static std::optional<conversion_t> read_conversion(std::string_view text) {
    conversion_t conversion;
    size_t pos = std::min(text.find_first_not_of(FLAGS, 1), text.size());
    conversion.flags = text.substr(1, pos - 1);
    conversion.width = static_cast<int>(std::min<size_t>(read_number(text, &pos).value_or(0), MAX_WIDTH));
    if (pos < text.size() && text[pos] == '.') {
        pos++;
        conversion.precision = read_number(text, &pos);
    }
    const size_t modifierEnd = std::min(text.find_first_not_of(MODIFIERS, pos), text.size());
    const std::string_view modifier = text.substr(pos, modifierEnd - pos);
    if (modifier.size() > 2 || (modifier.size() == 2 && modifier != "hh" && modifier != "ll"))
        return std::nullopt;
    conversion.numShort = modifier.starts_with('h') ? static_cast<int>(modifier.size()) : 0;
    if (modifierEnd == text.size())
        return std::nullopt;
    conversion.letter = text[modifierEnd];
    conversion.text = text.substr(0, modifierEnd + 1);
    for (const auto letters : {SIGNED_LETTERS, UNSIGNED_LETTERS, DOUBLE_LETTERS, OTHER_LETTERS}) {
        if (is_one_of(letters, conversion.letter))
            return conversion;
    }
    return std::nullopt;
}

// Formats one number. The format that printf gets is put together here, and fits the argument.
template <typename number_t>
static void append_number(std::string *pOut, const conversion_t &conversion, const char *pModifier, number_t number) {
    std::string format = "%";
    for (const char flag : std::string_view(is_one_of("diu", conversion.letter) ? "-+ 0" : "-+ 0#")) {
        if (is_one_of(conversion.flags, flag))
            format += flag;
    }
    format += "*.*";
    format += pModifier;
    format += conversion.letter;
    const int precision = // a negative one counts as not given
        conversion.precision ? static_cast<int>(std::min<size_t>(*conversion.precision, MAX_WIDTH)) : -1;
    std::array<char, MAX_NUMBER_SIZE> buffer;
    const int length = snprintf(buffer.data(), buffer.size(), format.c_str(), conversion.width, precision, number);
    pOut->append(buffer.data(), std::min(static_cast<size_t>(std::max(length, 0)), buffer.size() - 1));
}

static void append_padded(std::string *pOut, const conversion_t &conversion, std::string_view text) {
    const size_t width = static_cast<size_t>(conversion.width);
    const std::string padding(width - std::min(width, text.size()), ' ');
    const bool bLeft = is_one_of(conversion.flags, '-');
    if (!bLeft)
        *pOut += padding;
    *pOut += text;
    if (bLeft)
        *pOut += padding;
}

// An int fills the first four bytes of the eight; the others mean nothing.
static std::optional<int64_t> integer_of(const error_insert_t &insert) {
    int32_t number = 0;
    switch (insert.type) {
    case CU_ERROR_ARG_INT:
        memcpy(&number, &insert.value, sizeof number);
        return number;
    case CU_ERROR_ARG_LONG:
    case CU_ERROR_ARG_LONG_LONG:
        return static_cast<int64_t>(insert.value);
    default:
        return std::nullopt;
    }
}

static bool append_integer(std::string *pOut, const conversion_t &conversion, const error_insert_t &insert) {
    const auto number = integer_of(insert);
    if (!number)
        return false;
    size_t numBits = insert.type == CU_ERROR_ARG_INT ? 32 : 64;
    if (conversion.numShort != 0)
        numBits = conversion.numShort == 1 ? 16 : 8;
    const size_t numUnused = 64 - numBits;
    const uint64_t bits = static_cast<uint64_t>(*number) << numUnused;
    if (is_one_of(SIGNED_LETTERS, conversion.letter))
        append_number(pOut, conversion, "j", intmax_t{static_cast<int64_t>(bits) >> numUnused});
    else
        append_number(pOut, conversion, "j", uintmax_t{bits >> numUnused});
    return true;
}

static bool append_char(std::string *pOut, const conversion_t &conversion, const error_insert_t &insert) {
    const auto number = integer_of(insert);
    if (!number || *number < -128 || *number > 255)
        return false;
    const char c = static_cast<char>(*number);
    append_padded(pOut, conversion, {&c, 1});
    return true;
}

static std::string address_text(uint64_t address) {
    std::array<char, 24> buffer;
    (void)snprintf(buffer.data(), buffer.size(), "%#jx", uintmax_t{address});
    return address == 0 ? "0x0" : buffer.data();
}

// Appends an insert in the form that the conversion asks for. Returns false, with nothing appended, when the insert is
// of a kind that the conversion does not take.
static bool append_fitting(std::string *pOut, const conversion_t &conversion, const error_insert_t &insert) {
    switch (conversion.letter) {
    case 'c':
        return append_char(pOut, conversion, insert);
    case 's':
        if (insert.type != CU_ERROR_ARG_CHAR_STR)
            return false;
        append_padded(pOut, conversion,
                      insert.text ? insert.text->substr(0, conversion.precision.value_or(std::string_view::npos))
                                  : "(null)");
        return true;
    case 'p':
        if (insert.type != CU_ERROR_ARG_VOID_PTR)
            return false;
        append_padded(pOut, conversion, address_text(insert.value));
        return true;
    default:
        if (!is_one_of(DOUBLE_LETTERS, conversion.letter))
            return append_integer(pOut, conversion, insert);
        if (insert.type != CU_ERROR_ARG_DOUBLE)
            return false;
        append_number(pOut, conversion, "", std::bit_cast<double>(insert.value));
        return true;
    }
}

// Appends an insert in a form of its own.
static void append_misfit(std::string *pOut, const error_insert_t &insert) {
    static constexpr conversion_t SIGNED = {.letter = 'd'}, GENERAL = {.letter = 'g'}, TEXT = {.letter = 's'};
    *pOut += '<';
    if (!append_fitting(pOut, SIGNED, insert) && !append_fitting(pOut, GENERAL, insert) &&
        !append_fitting(pOut, TEXT, insert))
        *pOut += address_text(insert.value); // and kinds that nobody knows
    *pOut += '>';
}

message_t format_message(std::string_view text, std::span<const error_insert_t> inserts) {
    message_t message{{}, true};
    while (!text.empty()) {
        const size_t percent = std::min(text.find('%'), text.size());
        message.text += text.substr(0, percent);
        text.remove_prefix(percent);
        if (text.empty())
            break;
        const auto conversion = read_conversion(text);
        if (!conversion) {
            message.text += text;
            message.bWhole = false;
            break;
        }
        if (conversion->letter == '%') {
            message.text += '%';
        } else if (inserts.empty()) {
            message.text += conversion->text;
            message.bWhole = false;
        } else {
            if (!append_fitting(&message.text, *conversion, inserts.front())) {
                append_misfit(&message.text, inserts.front());
                message.bWhole = false;
            }
            inserts = inserts.subspan(1);
        }
        text.remove_prefix(conversion->text.size());
    }
    message.bWhole = message.bWhole && inserts.empty();
    return message;
}

} // namespace trread
