#include "tools/format.h"

#include <time.h>

#include <algorithm>
#include <bit>
#include <cstring>
#include <iterator>
#include <type_traits>
#include <utility>

#include "reader/message.h"

namespace kztrace {

using trread::body_t;

constexpr int64_t NS_PER_SECOND = 1'000'000'000;
constexpr int64_t NS_PER_MICROSECOND = 1'000;
constexpr int64_t SECONDS_PER_DAY = 86'400;
constexpr size_t ROW_SIZE = 16; // bytes of a data block on a line of their own

// Length of the UTF-8 character at the start of a text; 0 when it is none, or one that steers the terminal.
static size_t utf8_length(std::string_view text) {
    const auto lead = static_cast<unsigned char>(text[0]);
    const size_t length = lead >= 0xc2 && lead <= 0xdf   ? 2
                          : (lead & 0xf0) == 0xe0        ? 3
                          : lead >= 0xf0 && lead <= 0xf4 ? 4
                                                         : 0;
    if (length == 0 || text.size() < length)
        return 0;
    uint32_t code = lead & (0x7fU >> length);
    for (size_t i = 1; i < length; i++) {
        const auto byte = static_cast<unsigned char>(text[i]);
        if ((byte & 0xc0) != 0x80)
            return 0;
        code = code << 6 | (byte & 0x3fU);
    }
    const uint32_t lowest = length == 2 ? 0xa0 : length == 3 ? 0x800 : 0x10000; // below 0xa0: control characters
    const bool bSurrogate = code >= 0xd800 && code <= 0xdfff;
    const bool bDirection = (code >= 0x202a && code <= 0x202e) || (code >= 0x2066 && code <= 0x2069);
    return code < lowest || code > 0x10ffff || bSurrogate || bDirection ? 0 : length;
}

std::string escape(std::string_view text, std::string_view others) {
    std::string out;
    out.reserve(text.size());
    while (!text.empty()) {
        const char c = text[0];
        size_t length = 1;
        if (c == '\n')
            out += "\\n";
        else if (c == '\t')
            out += "\\t";
        else if (c == '\r')
            out += "\\r";
        else if (others.find(c) != std::string_view::npos)
            (out += '\\') += c;
        else if (c >= ' ' && c <= '~')
            out += c;
        else if (length = utf8_length(text); length != 0)
            out += text.substr(0, length);
        else
            fmt::format_to(std::back_inserter(out), "\\x{:02x}", static_cast<unsigned char>(c));
        text.remove_prefix(std::max<size_t>(length, 1));
    }
    return out;
}

std::string quote(std::string_view text) {
    return '"' + escape(text, "\\\"") + '"';
}

size_t display_width(const std::string &text) {
    const size_t enough = 2 * text.size(); // no character has more columns than that
    return enough - (fmt::format("{:<{}}", text, enough).size() - text.size());
}

std::string field_text(const char *pField, size_t size) {
    return escape({pField, strnlen(pField, size)});
}

std::string comp_id_text(const std::array<char, TR_COMP_ID_SIZE> &compId) {
    std::string text(compId.begin(), compId.end());
    if (const size_t zero = text.find('\0'); zero != std::string::npos && zero != 0)
        std::fill(text.begin() + static_cast<std::ptrdiff_t>(zero), text.end(), ' ');
    std::replace_if(
        text.begin(), text.end(), [](char c) { return c < ' ' || c > '~'; }, '.');
    return text;
}

const char *kind_name(uint16_t kind) {
    switch (kind) {
    case TR_KIND_ID:
        return "id";
    case TR_KIND_STRING:
        return "text";
    case TR_KIND_DATA:
        return "data";
    case TR_KIND_VALUES_32:
        return "values32";
    case TR_KIND_VALUES_64:
        return "values64";
    case TR_KIND_ERROR:
        return "error";
    case TR_KIND_STRINGS:
        return "texts";
    case TR_KIND_START:
        return "start";
    case TR_KIND_CALIBRATION:
        return "calibration";
    case TR_KIND_CORE_RESTART:
        return "core-restart";
    case TR_KIND_RESERVED:
        return "unfinished";
    default:
        return "unknown";
    }
}

std::string time_text(int64_t time_ns, bool bUtc) {
    const int64_t rest_ns = (time_ns % NS_PER_SECOND + NS_PER_SECOND) % NS_PER_SECOND; // times before 1970 are negative
    const time_t seconds = (time_ns - rest_ns) / NS_PER_SECOND;
    struct tm parts = {};
    (void)(bUtc ? gmtime_r(&seconds, &parts)
                : localtime_r(&seconds, &parts)); // 64 bits of nanoseconds: years 1677 to 2262
    return fmt::format("{:04}-{:02}-{:02} {:02}:{:02}:{:02}.{:06}", parts.tm_year + 1900, parts.tm_mon + 1,
                       parts.tm_mday, parts.tm_hour, parts.tm_min, parts.tm_sec, rest_ns / NS_PER_MICROSECOND);
}

std::string duration_text(int64_t duration_ns) {
    const int64_t seconds = duration_ns / NS_PER_SECOND;
    const auto clock = fmt::format("{:02}:{:02}:{:02}.{:06}", seconds / 3600 % 24, seconds / 60 % 60, seconds % 60,
                                   duration_ns % NS_PER_SECOND / NS_PER_MICROSECOND);
    return seconds >= SECONDS_PER_DAY ? fmt::format("{} d {}", seconds / SECONDS_PER_DAY, clock) : clock;
}

// The bytes of a block in a column for people.
static std::string printable(std::span<const std::byte> bytes) {
    std::string text;
    for (const std::byte byte : bytes) {
        const char c = static_cast<char>(byte);
        text += c >= ' ' && c <= '~' ? c : '.';
    }
    return text;
}

static std::string size_text(size_t size) {
    return fmt::format("{} byte{}", size, size == 1 ? "" : "s");
}

// Messages end with a line of their own on a terminal.
static std::string_view without_newline(std::string_view text) {
    return text.substr(0, text.size() - (text.ends_with('\n') ? 1 : 0));
}

// Writes one body. Values up to 9 are the same in decimal and in hexadecimal; of the others both are shown.
struct body_writer_t {
    fmt::appender out;
    block_style_t style;

    template <typename... Args> void put(fmt::format_string<Args...> format, Args &&...args) {
        out = fmt::format_to(out, format, std::forward<Args>(args)...);
    }

    template <typename T> void put_value(T value) {
        if (value <= 9)
            put("{}", value);
        else
            put("{} ({:#x})", static_cast<std::make_signed_t<T>>(value), value);
    }

    template <typename List, typename Put> void put_list(const List &list, Put &&putOne) {
        bool bFirst = true;
        for (const auto &element : list) {
            if (!std::exchange(bFirst, false))
                put(", ");
            putOne(element);
        }
    }

    void put_text(std::string_view text) {
        put("{}", quote(text));
    }

    void put_named_text(const char *pName, const std::optional<std::string_view> &text) {
        if (!text)
            return;
        put(" {}=", pName);
        put_text(*text);
    }

    void put_block(std::span<const std::byte> block) {
        put("{}", size_text(block.size()));
        if (!style.bBytes || block.empty())
            return;
        const auto shown = block.first(std::min(block.size(), style.maxBytes));
        put(":");
        for (const std::byte byte : shown)
            put(" {:02x}", static_cast<unsigned>(byte));
        put(" |{}|", printable(shown));
        if (shown.size() < block.size())
            put(" +{}", block.size() - shown.size());
    }

    void put_insert(const trread::error_insert_t &insert) {
        switch (insert.type) {
        case CU_ERROR_ARG_INT: // the other half of the eight bytes means nothing
            return put_value(static_cast<uint32_t>(insert.value));
        case CU_ERROR_ARG_DOUBLE:
            return put("{}", std::bit_cast<double>(insert.value));
        case CU_ERROR_ARG_CHAR_STR:
            return insert.text ? put_text(*insert.text) : put("(no text)");
        case CU_ERROR_ARG_VOID_PTR:
            return put("{:#x}", insert.value);
        default:
            return put_value(insert.value);
        }
    }

    void put_start(const trread::start_body_t &start) {
        put("pid={} ticks/s={} correction={} ns", start.pid, start.timeInfo.timeinfo1,
            static_cast<int64_t>(start.timeInfo.timeinfo2));
    }

    void operator()(const trread::no_body_t &) {
    }
    void operator()(const trread::text_body_t &body) {
        put_text(body.text);
    }
    void operator()(const trread::data_body_t &body) {
        put_list(body.blocks, [this](const auto &block) { put_block(block); });
    }
    void operator()(const trread::values_32_body_t &body) {
        put_list(body.values, [this](uint32_t value) { put_value(value); });
    }
    void operator()(const trread::values_64_body_t &body) {
        put_list(body.values, [this](uint64_t value) { put_value(value); });
    }
    void operator()(const trread::error_body_t &body) {
        put("error={}", static_cast<int32_t>(body.errorId));
        bool bWhole = body.inserts.empty(); // nothing is left to tell about the inserts
        if (body.defMsg) {
            const auto message = trread::format_message(*body.defMsg, body.inserts);
            put_named_text("message", without_newline(message.text));
            bWhole = message.bWhole;
        }
        put_named_text("function", body.funcName);
        put_named_text("file", body.fileName);
        put(" line={}", body.lineNumber);
        put_named_text("catalogue", body.msgCatName);
        put(" set={} number={}", static_cast<int32_t>(body.msgSetNumber), static_cast<int32_t>(body.msgNumber));
        put_named_text("ffdc", body.ffdcId);
        if (bWhole)
            return;
        put_named_text("default", body.defMsg);
        put(" inserts=[");
        put_list(body.inserts, [this](const auto &insert) { put_insert(insert); });
        put("]");
    }
    void operator()(const trread::texts_body_t &body) {
        put_list(body.texts, [this](std::string_view text) { put_text(text); });
    }
    void operator()(const trread::start_body_t &body) {
        put_start(body);
    }
    void operator()(const trread::calibration_body_t &body) {
        put("ticks/s={} correction={} ns", body.reBase.timeinfo1, static_cast<int64_t>(body.reBase.timeinfo2));
    }
    void operator()(const trread::core_restart_body_t &body) {
        put_start(body.start);
        put(" ");
        put_text(body.text);
    }
};

void append_body(fmt::memory_buffer *pOut, const body_t &body, block_style_t style) {
    const size_t start = pOut->size();
    std::visit(body_writer_t{fmt::appender(*pOut), style}, body.content);
    if (body.bCut)
        fmt::format_to(fmt::appender(*pOut), "{}(cut)", pOut->size() == start ? "" : " ");
}

static void append_row(fmt::memory_buffer *pOut, size_t block, size_t offset, std::span<const std::byte> bytes) {
    std::string row;
    for (size_t i = 0; i < bytes.size(); i++)
        fmt::format_to(std::back_inserter(row), "{}{:02x}", i == ROW_SIZE / 2 ? "  " : " ",
                       static_cast<unsigned>(bytes[i]));
    constexpr size_t width = 3 * ROW_SIZE + 1;
    fmt::format_to(fmt::appender(*pOut), "    {:>3}  {:08x} {:<{}}  |{}|\n", block, offset, row, width,
                   printable(bytes));
}

void append_block_rows(fmt::memory_buffer *pOut, const body_t &body) {
    const auto *pData = std::get_if<trread::data_body_t>(&body.content);
    if (pData == nullptr)
        return;
    size_t number = 0;
    for (const auto &block : pData->blocks) {
        number++;
        for (size_t offset = 0; offset < block.size(); offset += ROW_SIZE)
            append_row(pOut, number, offset, block.subspan(offset, std::min(ROW_SIZE, block.size() - offset)));
    }
}

} // namespace kztrace
