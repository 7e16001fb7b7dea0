// How kztrace shows the pieces of a trace file as text. What comes out of a file never reaches the terminal as it is.
#ifndef KZ_TOOLS_FORMAT_H
#define KZ_TOOLS_FORMAT_H

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include <fmt/format.h>

#include "reader/decode.h"
#include "reader/reader.h"

namespace kztrace {

// A text with its control characters, bytes that are no UTF-8, and the characters of `others` written as escapes.
std::string escape(std::string_view text, std::string_view others = "\\");

// A text with its escapes, between quotes.
std::string quote(std::string_view text);

// How many columns an escaped text takes.
size_t display_width(const std::string &text);

// The text of a fixed field of the file header, up to its zero byte, escaped.
std::string field_text(const char *pField, size_t size);

// A component identifier: four characters, those that cannot be printed as dots.
std::string comp_id_text(const std::array<char, TR_COMP_ID_SIZE> &compId);

// The name of a record kind, at most 12 characters.
const char *kind_name(uint16_t kind);

// "2024-03-01 12:34:56.123456", in local time or in UTC.
std::string time_text(int64_t time_ns, bool bUtc);

// "3 d 04:05:06.123456", without the days when there are none.
std::string duration_text(int64_t duration_ns);

// What is shown of data blocks on the line of their record.
struct block_style_t {
    bool bBytes;     // their bytes, or else only how many these are
    size_t maxBytes; // of each block
};

// Appends the decoded body of a record, on one line.
void append_body(fmt::memory_buffer *pOut, const trread::body_t &body, block_style_t style);

// Appends the data blocks of a body, if it has any, as lines of 16 bytes: block, offset, hexadecimal, printable.
void append_block_rows(fmt::memory_buffer *pOut, const trread::body_t &body);

} // namespace kztrace

#endif
