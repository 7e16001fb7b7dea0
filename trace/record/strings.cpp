// Records of texts: a list of the caller's texts, or one text formatted like printf. Both are the same kind of record.
#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "trace/record/frame.h"

constexpr uint32_t TR_MAX_STRINGS = 32;
constexpr uint32_t TR_STRINGS_HEAD = sizeof(trace_record_strings_t); // bytes before the texts
constexpr uint32_t TR_SHORTCUT_ID = UINT32_MAX; // trace identifier of the string and print shortcuts

// Reserves a record of texts and fills all but the texts. Returns where they go, or null when there is no room.
TR_INLINE static uint8_t *begin_strings(trace_anchor_t *pAnchor, uint8_t **ppRec, uint32_t length, const char *pCompId,
                                        uint32_t traceId, uint32_t numStrings, uint32_t sizeStrings)
    TR_HOLDS(anchor_set_lock) {
    uint8_t *const pRec = allocate_space(pAnchor, &length);
    if (pRec == nullptr) [[unlikely]]
        return nullptr;
    store_comp_id(pRec, pCompId);
    store_at(pRec + offsetof(trace_record_strings_t, id), traceId);
    store_at(pRec + offsetof(trace_record_strings_t, number), numStrings);
    store_at(pRec + offsetof(trace_record_strings_t, len_strings), sizeStrings);
    *ppRec = pRec;
    return pRec + TR_STRINGS_HEAD;
}

// ---- Lists of texts ----

// The texts as they were measured: they are copied by these lengths, whatever becomes of them meanwhile.
struct measured_strings_t {
    const char *texts[TR_MAX_STRINGS];
    uint32_t lengths[TR_MAX_STRINGS]; // without the zero byte
    uint32_t number;
    uint64_t totalSize; // with the zero bytes
};

// Measures the texts that fit a file of `uMaxSize`; those behind them are not looked at. Returns 0, or 27 when one is null
// or empty.
static inline int32_t measure_strings(measured_strings_t *pStrings, uint32_t uMaxSize, uint32_t numStrings,
                                      va_list strings) {
    pStrings->number = 0;
    pStrings->totalSize = 0;
    while (pStrings->number < numStrings) {
        const char *const pText = va_arg(strings, const char *);
        if (pText == nullptr || *pText == '\0')
            return TR_RC_NO_STRING;
        const size_t length = strlen(pText);
        if (pStrings->totalSize + length + 1 > uMaxSize)
            break;
        pStrings->texts[pStrings->number] = pText;
        pStrings->lengths[pStrings->number] = static_cast<uint32_t>(length);
        pStrings->totalSize += length + 1;
        pStrings->number++;
    }
    return 0;
}

// Records what was measured.
static int32_t record_measured(trace_anchor_t *pFile, const char *pCompId, uint32_t traceId,
                               const measured_strings_t *pStrings) {
    return record_in_frame(pFile, [=](trace_anchor_t *pAnchor, uint32_t) TR_HOLDS(anchor_set_lock) {
        const auto size = static_cast<uint32_t>(pStrings->totalSize); // below some uMaxSize
        const auto length = static_cast<uint32_t>(tr_round_up_4(TR_STRINGS_HEAD + pStrings->totalSize));
        uint8_t *pRec = nullptr;
        uint8_t *pTo = begin_strings(pAnchor, &pRec, length, pCompId, traceId, pStrings->number, size);
        if (pTo == nullptr) [[unlikely]]
            return TR_NOT_RESERVED;
        for (uint32_t i = 0; i < pStrings->number; i++) {
            store_bytes(pTo, pStrings->texts[i], pStrings->lengths[i]);
            pTo += pStrings->lengths[i];
            *pTo++ = 0;
        }
        publish_kind(pRec, TR_KIND_STRINGS);
        return TR_RECORDED;
    });
}

// The checks that all forms share, in their order. Returns TR_RECORDED when the texts are to be looked at.
TR_INLINE static int32_t check_strings(const char *pCompId, uint32_t numStrings) {
    if (!is_comp_id(pCompId))
        return TR_RC_NO_COMPONENT_ID;
    return numStrings == 0 || numStrings > TR_MAX_STRINGS ? TR_RC_NUM_STRINGS : TR_RECORDED;
}

static int32_t record_list(const char *pCompId, uint32_t traceId, tr_file_token_t fileToken, uint32_t numStrings,
                           va_list strings) {
    if (is_switched_off())
        return 0;
    trace_anchor_t *const pFile = anchor_of(fileToken);
    measured_strings_t measured;
    int32_t rc = check_strings(pCompId, numStrings);
    if (rc == TR_RECORDED)
        rc = measure_strings(&measured, observe(&pFile->uMaxSize), numStrings, strings);
    return rc != TR_RECORDED ? rc : record_measured(pFile, pCompId, traceId, &measured);
}

// One text, as most calls have: nothing is measured into memory and read back.
static int32_t record_one(const char *pCompId, uint32_t traceId, tr_file_token_t fileToken, const char *pText) {
    if (is_switched_off())
        return 0;
    const int32_t rc = check_strings(pCompId, 1);
    if (rc != TR_RECORDED)
        return rc;
    if (pText == nullptr || *pText == '\0')
        return TR_RC_NO_STRING;
    return record_in_frame(
        anchor_of(fileToken), [=](trace_anchor_t *pAnchor, uint32_t uMaxSize) TR_HOLDS(anchor_set_lock) {
            const size_t textLength = strlen(pText);
            const bool bFits = textLength + 1 <= uMaxSize; // else the list is empty
            const auto size = bFits ? static_cast<uint32_t>(textLength + 1) : 0;
            const auto length = static_cast<uint32_t>(tr_round_up_4(uint64_t{TR_STRINGS_HEAD} + size));
            uint8_t *pRec = nullptr;
            uint8_t *const pTo = begin_strings(pAnchor, &pRec, length, pCompId, traceId, bFits ? 1 : 0, size);
            if (pTo == nullptr) [[unlikely]]
                return TR_NOT_RESERVED;
            if (bFits) [[likely]] {
                store_bytes(pTo, pText, size - 1);
                pTo[size - 1] = 0;
            }
            publish_kind(pRec, TR_KIND_STRINGS);
            return TR_RECORDED;
        });
}

int32_t tr_ms_record_strings_v_1(const char *pCompId, uint32_t traceId, tr_file_token_t fileToken, uint32_t numStrings,
                                 va_list strings) {
    return record_list(pCompId, traceId, fileToken, numStrings, strings);
}

int32_t tr_record_strings_v_1(const char *pCompId, uint32_t traceId, uint32_t numStrings, va_list strings) {
    return record_list(pCompId, traceId, nullptr, numStrings, strings);
}

// What a variadic form does with its arguments; only the function itself can start their list. The list of one text is
// one of its own, which the compiler resolves, because nobody else gets hold of it.
#define TR_RECORD_TEXTS(fileToken)                                                                                     \
    int32_t rc = 0;                                                                                                    \
    if (numStrings == 1) {                                                                                             \
        va_list text;                                                                                                  \
        va_start(text, numStrings);                                                                                    \
        rc = record_one(pCompId, traceId, fileToken, va_arg(text, const char *));                                      \
        va_end(text);                                                                                                  \
    } else {                                                                                                           \
        va_list strings;                                                                                               \
        va_start(strings, numStrings);                                                                                 \
        rc = record_list(pCompId, traceId, fileToken, numStrings, strings);                                            \
        va_end(strings);                                                                                               \
    }                                                                                                                  \
    return rc

int32_t tr_ms_record_strings_1(const char *pCompId, uint32_t traceId, tr_file_token_t fileToken, uint32_t numStrings,
                               ...) {
    TR_RECORD_TEXTS(fileToken);
}

int32_t tr_record_strings_1(const char *pCompId, uint32_t traceId, uint32_t numStrings, ...) {
    TR_RECORD_TEXTS(nullptr);
}

int32_t tr_record_string_1(const char *pCompId, const char *pString) {
    return record_one(pCompId, TR_SHORTCUT_ID, nullptr, pString);
}

// ---- Formatted texts ----

// Each of these returns where the text goes on, or null when there is no room before pEnd.
template <unsigned BASE> static inline char *put_number(char *pTo, const char *pEnd, uint64_t value) {
    char digits[20]; // of 2^64 - 1
    char *const pBehind = digits + sizeof digits;
    char *pFirst = pBehind;
    do {
        *--pFirst = "0123456789abcdef"[value % BASE];
        value /= BASE;
    } while (value != 0);
    if (pBehind - pFirst > pEnd - pTo)
        return nullptr;
    while (pFirst < pBehind)
        *pTo++ = *pFirst++;
    return pTo;
}

static inline char *put_signed(char *pTo, const char *pEnd, int64_t value) {
    if (value >= 0)
        return put_number<10>(pTo, pEnd, static_cast<uint64_t>(value));
    if (pTo == pEnd)
        return nullptr;
    *pTo++ = '-';
    return put_number<10>(pTo, pEnd, -static_cast<uint64_t>(value));
}

static inline char *put_text(char *pTo, const char *pEnd, const char *pText) {
    const size_t length = pText != nullptr ? strlen(pText) : SIZE_MAX;
    if (length > static_cast<size_t>(pEnd - pTo))
        return nullptr;
    store_bytes(reinterpret_cast<uint8_t *>(pTo), pText, length);
    return pTo + length;
}

// Puts a conversion, of which *ppFormat is behind the "%". Returns where the text goes on; null when it does not fit, or is
// none of those that format_plain() knows.
TR_INLINE static char *put_conversion(char *pTo, const char *pEnd, const char **ppFormat, va_list parms) {
    switch (*(*ppFormat)++) {
    case 's':
        return put_text(pTo, pEnd, va_arg(parms, const char *));
    case 'd':
        return put_signed(pTo, pEnd, va_arg(parms, int));
    case 'u':
        return put_number<10>(pTo, pEnd, va_arg(parms, unsigned));
    case 'x':
        return put_number<16>(pTo, pEnd, va_arg(parms, unsigned));
    case 'l':
        break;
    default:
        return nullptr;
    }
    switch (*(*ppFormat)++) {
    case 'd':
        return put_signed(pTo, pEnd, va_arg(parms, long));
    case 'u':
        return put_number<10>(pTo, pEnd, va_arg(parms, unsigned long));
    case 'x':
        return put_number<16>(pTo, pEnd, va_arg(parms, unsigned long));
    default:
        return nullptr;
    }
}

// Formats what most trace texts are made of, "%s", "%d", "%u" and "%x", numbers also with "l" and nothing else, at less
// than half the cost of vsnprintf. Returns the text's length; -1 for any other format, an absent text, or one that is too
// long: then it is vsnprintf that says what becomes of it.
static int format_plain(char (&text)[TR_SCRATCH_SIZE], const char *pFormat, va_list parms) {
    char *pTo = text;
    const char *const pEnd = text + sizeof text - 1;
    while (*pFormat != '\0') {
        if (pTo == pEnd)
            return -1;
        const char c = *pFormat++;
        if (c != '%') {
            *pTo++ = c;
            continue;
        }
        pTo = put_conversion(pTo, pEnd, &pFormat, parms);
        if (pTo == nullptr)
            return -1;
    }
    return static_cast<int>(pTo - text);
}

// Formats like vsnprintf. Returns the length of the text without its zero byte, which may be missing; -1 when that fails.
static int format_text(char (&text)[TR_SCRATCH_SIZE], const char *pFormat, va_list parms) {
    va_list plainParms;
    va_copy(plainParms, parms);
    const int plainLength = format_plain(text, pFormat, plainParms);
    va_end(plainParms);
    if (plainLength >= 0) [[likely]]
        return plainLength;
    const int formatted = vsnprintf(text, sizeof text, pFormat, parms);
    if (formatted < 0)
        return -1;
    // The text has just been stored byte by byte: reading it back has to wait for that. So the reservation goes by the
    // count, and a look for a zero byte that "%c" may have put before the end goes on beside it.
    const int length = std::min(formatted, static_cast<int>(sizeof text) - 1);
    const void *const pZero = memchr(text, '\0', static_cast<size_t>(length));
    return pZero != nullptr ? static_cast<int>(strlen(text)) : length;
}

// Formats into the anchor's scratch buffer, which its lock guards, and copies from there. A buffer on the stack would be
// there while the file is repaired, too, which takes nearly all of the smallest one.
static int32_t write_formatted(trace_anchor_t *pAnchor, uint32_t uMaxSize, const char *pCompId, uint32_t traceId,
                               const char *pFormat, va_list parms) TR_HOLDS(anchor_set_lock) {
    const int textLength = format_text(pAnchor->buffer, pFormat, parms);
    if (textLength < 0)
        return TR_RC_FORMATTING;
    auto size = static_cast<uint32_t>(textLength) + 1;
    auto length = static_cast<uint32_t>(tr_round_up_4(TR_STRINGS_HEAD + size));
    if (length > uMaxSize) {
        length = uMaxSize;
        size = uMaxSize - TR_STRINGS_HEAD;
    }
    uint8_t *pRec = nullptr;
    uint8_t *const pTo = begin_strings(pAnchor, &pRec, length, pCompId, traceId, 1, size);
    if (pTo == nullptr) [[unlikely]]
        return TR_NOT_RESERVED;
    store_bytes(pTo, pAnchor->buffer, size - 1);
    pTo[size - 1] = 0;
    publish_kind(pRec, TR_KIND_STRINGS);
    return TR_RECORDED;
}

int32_t tr_ms_record_vfmt_string_1(const char *pCompId, uint32_t traceId, tr_file_token_t fileToken,
                                   const char *pFormat, va_list parms) {
    if (is_switched_off())
        return 0;
    if (!is_comp_id(pCompId))
        return TR_RC_NO_COMPONENT_ID;
    if (pFormat == nullptr || *pFormat == '\0')
        return TR_RC_NO_FORMAT;
    int *const pErrno = &errno;
    const int savedErrno = *pErrno; // still the caller's when "%m" is formatted: no lock changes it
    const int32_t rc = record_in_frame(anchor_of(fileToken),
                                       [&](trace_anchor_t *pAnchor, uint32_t uMaxSize) TR_HOLDS(anchor_set_lock) {
                                           return write_formatted(pAnchor, uMaxSize, pCompId, traceId, pFormat, parms);
                                       });
    *pErrno = savedErrno;
    return rc;
}

int32_t tr_record_vfmt_string_1(const char *pCompId, uint32_t traceId, const char *pFormat, va_list parms) {
    return tr_ms_record_vfmt_string_1(pCompId, traceId, nullptr, pFormat, parms);
}

int32_t tr_ms_record_fmt_string_1(const char *pCompId, uint32_t traceId, tr_file_token_t fileToken, const char *pFormat,
                                  ...) {
    va_list parms;
    va_start(parms, pFormat);
    const int32_t rc = tr_ms_record_vfmt_string_1(pCompId, traceId, fileToken, pFormat, parms);
    va_end(parms);
    return rc;
}

int32_t tr_record_fmt_string_1(const char *pCompId, uint32_t traceId, const char *pFormat, ...) {
    va_list parms;
    va_start(parms, pFormat);
    const int32_t rc = tr_ms_record_vfmt_string_1(pCompId, traceId, nullptr, pFormat, parms);
    va_end(parms);
    return rc;
}

int32_t tr_record_vprintf_1(const char *pCompId, const char *pFormat, va_list parms) {
    return tr_ms_record_vfmt_string_1(pCompId, TR_SHORTCUT_ID, nullptr, pFormat, parms);
}

int32_t tr_record_printf_1(const char *pCompId, const char *pFormat, ...) {
    va_list parms;
    va_start(parms, pFormat);
    const int32_t rc = tr_record_vprintf_1(pCompId, pFormat, parms);
    va_end(parms);
    return rc;
}
