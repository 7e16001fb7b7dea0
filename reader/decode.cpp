#include "reader/decode.h"

#include <algorithm>
#include <cstring>

#include "trace/trace_format.h"

namespace trread {

using bytes_t = std::span<const std::byte>;

// A structure of the format from the bytes at `offset`; nothing when it does not lie within.
template <typename T> static std::optional<T> load(bytes_t bytes, uint64_t offset = 0) {
    if (offset > bytes.size() || bytes.size() - offset < sizeof(T))
        return std::nullopt;
    T value;
    memcpy(&value, bytes.data() + offset, sizeof(T));
    return value;
}

// The text at `offset`, which lies within `bytes`: up to its zero byte, or to the end when there is none.
static std::string_view load_text(bytes_t bytes, uint64_t offset, bool *pCut) {
    const bytes_t rest = bytes.subspan(offset);
    const auto zero = std::find(rest.begin(), rest.end(), std::byte{0});
    if (zero == rest.end())
        *pCut = true;
    return {reinterpret_cast<const char *>(rest.data()), static_cast<size_t>(zero - rest.begin())};
}

// Reads the texts that an error record points at. They do not overlap, so that together they are no longer than the
// record; a damaged one whose offsets all lead to the same long text would otherwise keep its readers busy for hours.
struct text_reader_t {
    bytes_t bytes;
    uint64_t numLeft; // bytes that all texts still to be read may have
    bool bCut;

    // Nothing for offset 0, and for one that does not lie behind the fixed fields.
    std::optional<std::string_view> read(uint64_t offset) {
        if (offset == 0)
            return std::nullopt;
        if (offset < sizeof(trace_record_error_t) || offset >= bytes.size() || numLeft == 0) {
            bCut = true;
            return std::nullopt;
        }
        const auto text = load_text(bytes.first(offset + std::min(numLeft, bytes.size() - offset)), offset, &bCut);
        numLeft -= std::min<uint64_t>(numLeft, text.size() + 1);
        return text;
    }
};

static body_t decode_text(bytes_t bytes) {
    body_t body;
    body.content = text_body_t{load_text(bytes, sizeof(trace_record_string_t), &body.bCut)};
    return body;
}

static body_t decode_data(bytes_t bytes) {
    const auto fixed = load<trace_record_data_t>(bytes);
    if (!fixed)
        return {no_body_t{}, true};
    data_body_t data;
    bool bCut = false;
    uint64_t offset = sizeof(trace_record_data_t);
    for (uint32_t i = 0; i < fixed->n_blocks && !bCut; i++) {
        const auto block = load<trace_data_t>(bytes, offset);
        if (!block || block->length < 0) {
            bCut = true;
            break;
        }
        const uint64_t dataOffset = offset + sizeof(trace_data_t);
        const uint64_t length = static_cast<uint64_t>(block->length);
        const uint64_t numFit = std::min<uint64_t>(length, bytes.size() - dataOffset);
        data.blocks.push_back(bytes.subspan(dataOffset, numFit));
        bCut = numFit != length;
        offset = dataOffset + tr_round_up_4(length);
    }
    return {std::move(data), bCut};
}

template <typename body_type, typename value_type> static body_t decode_values(bytes_t bytes) {
    const auto fixed = load<trace_record_values_t>(bytes);
    if (!fixed)
        return {no_body_t{}, true};
    const bytes_t rest = bytes.subspan(sizeof(trace_record_values_t));
    const size_t numFit = std::min<size_t>(fixed->number, rest.size() / sizeof(value_type));
    body_type body{std::vector<value_type>(numFit)};
    if (numFit != 0)
        memcpy(body.values.data(), rest.data(), numFit * sizeof(value_type));
    return {std::move(body), numFit != fixed->number};
}

static body_t decode_error(bytes_t bytes) {
    const auto fixed = load<trace_record_error_t>(bytes);
    if (!fixed)
        return {no_body_t{}, true};
    text_reader_t texts{bytes, bytes.size(), false};
    error_body_t error{
        .errorId = fixed->errorId,
        .lineNumber = fixed->lineNumber,
        .msgSetNumber = fixed->msgSetNumber,
        .msgNumber = fixed->msgNumber,
        .funcName = texts.read(fixed->funcNameOffset),
        .fileName = texts.read(fixed->fileNameOffset),
        .ffdcId = texts.read(fixed->ffdcIdOffset),
        .msgCatName = texts.read(fixed->msgCatNameOffset),
        .defMsg = texts.read(fixed->defMsgOffset),
        .inserts = {},
    };
    for (uint64_t i = 0; i < fixed->argCount; i++) {
        const auto arg = load<trace_error_arg_t>(bytes, sizeof(trace_record_error_t) + i * sizeof(trace_error_arg_t));
        if (!arg) {
            texts.bCut = true;
            break;
        }
        error_insert_t insert{arg->type, arg->value, std::nullopt};
        if (arg->type == CU_ERROR_ARG_CHAR_STR)
            insert.text = texts.read(arg->value);
        error.inserts.push_back(insert);
    }
    return {std::move(error), texts.bCut};
}

static body_t decode_texts(bytes_t bytes) {
    const auto fixed = load<trace_record_strings_t>(bytes);
    if (!fixed)
        return {no_body_t{}, true};
    body_t body;
    texts_body_t texts;
    bytes_t rest = bytes.subspan(sizeof(trace_record_strings_t));
    if (fixed->len_strings > rest.size())
        body.bCut = true;
    else
        rest = rest.first(fixed->len_strings);
    while (texts.texts.size() < fixed->number && !rest.empty()) {
        const std::string_view text = load_text(rest, 0, &body.bCut);
        texts.texts.push_back(text);
        rest = rest.subspan(std::min(text.size() + 1, rest.size()));
    }
    if (texts.texts.size() < fixed->number)
        body.bCut = true;
    body.content = std::move(texts);
    return body;
}

static body_t decode_start(uint16_t kind, bytes_t bytes) {
    const auto start = start_of(kind, bytes);
    if (!start)
        return {no_body_t{}, true};
    if (kind == TR_KIND_START)
        return {*start, false};
    body_t body;
    body.content = core_restart_body_t{*start, load_text(bytes, sizeof(trace_record_start_t), &body.bCut)};
    return body;
}

static body_t decode_calibration(bytes_t bytes) {
    const auto fixed = load<time_calibration_t>(bytes);
    if (!fixed)
        return {no_body_t{}, true};
    return {calibration_body_t{fixed->reBase}, false};
}

body_t decode_body(const record_t &record) {
    switch (record.kind) {
    case TR_KIND_ID:
        return {no_body_t{}, !record.traceId.has_value()};
    case TR_KIND_STRING:
        return decode_text(record.bytes);
    case TR_KIND_DATA:
        return decode_data(record.bytes);
    case TR_KIND_VALUES_32:
        return decode_values<values_32_body_t, uint32_t>(record.bytes);
    case TR_KIND_VALUES_64:
        return decode_values<values_64_body_t, uint64_t>(record.bytes);
    case TR_KIND_ERROR:
        return decode_error(record.bytes);
    case TR_KIND_STRINGS:
        return decode_texts(record.bytes);
    case TR_KIND_START:
    case TR_KIND_CORE_RESTART:
        return decode_start(record.kind, record.bytes);
    case TR_KIND_CALIBRATION:
        return decode_calibration(record.bytes);
    default:
        return {no_body_t{}, false};
    }
}

bool is_known_kind(uint16_t kind) {
    switch (kind) {
    case TR_KIND_ID:
    case TR_KIND_STRING:
    case TR_KIND_DATA:
    case TR_KIND_VALUES_32:
    case TR_KIND_VALUES_64:
    case TR_KIND_ERROR:
    case TR_KIND_STRINGS:
    case TR_KIND_START:
    case TR_KIND_CALIBRATION:
    case TR_KIND_CORE_RESTART:
    case TR_KIND_RESERVED:
        return true;
    default:
        return false;
    }
}

std::optional<uint32_t> trace_id_of(uint16_t kind, bytes_t bytes) {
    switch (kind) {
    case TR_KIND_ID:
    case TR_KIND_DATA:
    case TR_KIND_VALUES_32:
    case TR_KIND_VALUES_64:
    case TR_KIND_ERROR:
    case TR_KIND_STRINGS:
        return load<uint32_t>(bytes, offsetof(trace_record_id_t, id)); // all of them have it in this place
    default:
        return std::nullopt;
    }
}

std::optional<start_body_t> start_of(uint16_t kind, bytes_t bytes) {
    if (kind != TR_KIND_START && kind != TR_KIND_CORE_RESTART)
        return std::nullopt;
    const auto fixed = load<trace_record_start_t>(bytes);
    if (!fixed)
        return std::nullopt;
    return start_body_t{fixed->pid, fixed->timeInfo};
}

} // namespace trread
