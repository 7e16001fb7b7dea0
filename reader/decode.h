// Turns the bytes of a record into values and texts.
//
// Texts and data are views into the record's bytes and live as long as those. Every count, length and offset inside a
// body is held against the length of the record: what does not lie within is left out, and the body is marked as cut.
// A cut body is no sign of damage by itself, since a writer cuts what is too long for its file.
#ifndef KZ_READER_DECODE_H
#define KZ_READER_DECODE_H

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string_view>
#include <variant>
#include <vector>

#include "reader/reader.h"

namespace trread {

// TR_KIND_ID has nothing besides its trace identifier; TR_KIND_RESERVED and bodies too short to hold anything.
struct no_body_t {};

struct text_body_t { // TR_KIND_STRING
    std::string_view text;
};

struct data_body_t { // TR_KIND_DATA
    std::vector<std::span<const std::byte>> blocks;
};

struct values_32_body_t { // TR_KIND_VALUES_32; the file does not tell whether they are signed
    std::vector<uint32_t> values;
};

struct values_64_body_t { // TR_KIND_VALUES_64
    std::vector<uint64_t> values;
};

struct error_insert_t {
    uint32_t type;                        // cu_error_arg_type_t; any number in a damaged file
    uint64_t value;                       // as the error object held it; of a text its offset
    std::optional<std::string_view> text; // of a text that lies within the record
};

struct error_body_t { // TR_KIND_ERROR
    uint32_t errorId;
    uint32_t lineNumber;
    uint32_t msgSetNumber;
    uint32_t msgNumber;
    std::optional<std::string_view> funcName; // nothing: none was given, or it lies outside of the record
    std::optional<std::string_view> fileName;
    std::optional<std::string_view> ffdcId;
    std::optional<std::string_view> msgCatName;
    std::optional<std::string_view> defMsg;
    std::vector<error_insert_t> inserts;
};

struct texts_body_t { // TR_KIND_STRINGS
    std::vector<std::string_view> texts;
};

struct start_body_t { // TR_KIND_START
    uint32_t pid;
    cu_timeinfo_t timeInfo;
};

struct calibration_body_t { // TR_KIND_CALIBRATION
    cu_timeinfo_t reBase;
};

struct core_restart_body_t { // TR_KIND_CORE_RESTART
    start_body_t start;
    std::string_view text;
};

struct body_t {
    std::variant<no_body_t, text_body_t, data_body_t, values_32_body_t, values_64_body_t, error_body_t, texts_body_t,
                 start_body_t, calibration_body_t, core_restart_body_t>
        content;
    bool bCut = false; // something that the body announces does not lie within the record
};

// Decodes the body of a record.
body_t decode_body(const record_t &record);

// Whether `kind` is one that the format knows and that has a body or could get one.
bool is_known_kind(uint16_t kind);

// The trace identifier of a record, for the kinds that have one; nothing when the record is too short for it.
std::optional<uint32_t> trace_id_of(uint16_t kind, std::span<const std::byte> bytes);

// What a start record, or one of a restart after a core event, tells; nothing for other kinds and short records.
std::optional<start_body_t> start_of(uint16_t kind, std::span<const std::byte> bytes);

} // namespace trread

#endif
