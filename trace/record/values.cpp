// Records of 32-bit and 64-bit values.
//
// Most calls have one or two values. For them the variadic functions hold the whole record in line and read the values
// from known places, behind the lock: what a call loads before it has the lock counts in full.
#include <cstdarg>

#include "trace/record/frame.h"

constexpr uint32_t TR_VALUES_HEAD = sizeof(trace_record_values_t); // bytes before the values

template <typename Value>
constexpr trace_record_kind_t TR_KIND_OF = sizeof(Value) == sizeof(uint32_t) ? TR_KIND_VALUES_32 : TR_KIND_VALUES_64;

// Reserves a record of values and fills all but the values. Returns null when there is no room.
TR_INLINE static uint8_t *begin_values(trace_anchor_t *pAnchor, uint32_t length, const char *pCompId, uint32_t traceId,
                                       uint32_t numValues) TR_HOLDS(anchor_set_lock) {
    uint8_t *const pRec = allocate_space(pAnchor, &length);
    if (pRec != nullptr) [[likely]] {
        store_comp_id(pRec, pCompId);
        store_at(pRec + offsetof(trace_record_values_t, id), traceId);
        store_at(pRec + offsetof(trace_record_values_t, number), numValues);
    }
    return pRec;
}

// Records one value, or two, which next() yields; every started file has room for them.
template <typename Value, uint32_t NUM, typename Next>
TR_INLINE static int32_t record_few(const char *pCompId, uint32_t traceId, tr_file_token_t fileToken, Next next) {
    constexpr uint32_t LENGTH = TR_VALUES_HEAD + NUM * sizeof(Value);
    static_assert(LENGTH <= (TR_MIN_FILE_SIZE - TR_DATA_OFFSET) / 2);
    if (is_switched_off())
        return 0;
    if (!is_comp_id(pCompId))
        return TR_RC_NO_COMPONENT_ID;
    return record_in_frame(anchor_of(fileToken), [&](trace_anchor_t *pAnchor, uint32_t) TR_HOLDS(anchor_set_lock) {
        uint8_t *const pRec = begin_values(pAnchor, LENGTH, pCompId, traceId, NUM);
        if (pRec == nullptr) [[unlikely]]
            return TR_NOT_RESERVED;
        for (uint32_t i = 0; i < NUM; i++)
            store_at<Value>(pRec + TR_VALUES_HEAD + i * sizeof(Value), next());
        publish_kind(pRec, TR_KIND_OF<Value>);
        return TR_RECORDED;
    });
}

// Records as many values as fit; those that do not are not read.
template <typename Value>
static int32_t int_record_values_v(const char *pCompId, uint32_t traceId, tr_file_token_t fileToken, uint32_t numValues,
                                   va_list values) {
    return record_in_frame(
        anchor_of(fileToken), [&](trace_anchor_t *pAnchor, uint32_t uMaxSize) TR_HOLDS(anchor_set_lock) {
            uint32_t numFit = numValues;
            uint64_t length = TR_VALUES_HEAD + uint64_t{numValues} * sizeof(Value);
            if (length > uMaxSize) {
                length = uMaxSize;
                numFit = (uMaxSize - TR_VALUES_HEAD) / static_cast<uint32_t>(sizeof(Value));
            }
            uint8_t *const pRec = begin_values(pAnchor, static_cast<uint32_t>(length), pCompId, traceId, numFit);
            if (pRec == nullptr) [[unlikely]]
                return TR_NOT_RESERVED;
            for (uint32_t i = 0; i < numFit; i++)
                store_at(pRec + TR_VALUES_HEAD + i * sizeof(Value), va_arg(values, Value));
            publish_kind(pRec, TR_KIND_OF<Value>);
            return TR_RECORDED;
        });
}

template <typename Value>
static int32_t record_list(const char *pCompId, uint32_t traceId, tr_file_token_t fileToken, uint32_t numValues,
                           va_list values) {
    if (is_switched_off())
        return 0;
    if (!is_comp_id(pCompId))
        return TR_RC_NO_COMPONENT_ID;
    return int_record_values_v<Value>(pCompId, traceId, fileToken, numValues, values);
}

// What a variadic form does with its arguments; only the function itself can start their list. The list of a few values
// is one of its own, which the compiler resolves, because nobody else gets hold of it.
#define TR_WITH_LIST(call)                                                                                             \
    {                                                                                                                  \
        va_list values;                                                                                                \
        va_start(values, numValues);                                                                                   \
        rc = call;                                                                                                     \
        va_end(values);                                                                                                \
    }
#define TR_RECORD_VARIADIC(Value, fileToken)                                                                           \
    int32_t rc = 0;                                                                                                    \
    if (numValues == 2)                                                                                                \
        TR_WITH_LIST((record_few<Value, 2>(pCompId, traceId, fileToken, [&] { return va_arg(values, Value); })))       \
    else if (numValues == 1)                                                                                           \
        TR_WITH_LIST((record_few<Value, 1>(pCompId, traceId, fileToken, [&] { return va_arg(values, Value); })))       \
    else                                                                                                               \
        TR_WITH_LIST(record_list<Value>(pCompId, traceId, fileToken, numValues, values))                               \
    return rc

// ---- 32-bit values ----

int32_t tr_ms_record_values_32_v_1(const char *pCompId, uint32_t traceId, tr_file_token_t fileToken, uint32_t numValues,
                                   va_list values) {
    return record_list<uint32_t>(pCompId, traceId, fileToken, numValues, values);
}

int32_t tr_ms_record_values_32_1(const char *pCompId, uint32_t traceId, tr_file_token_t fileToken, uint32_t numValues,
                                 ...) {
    TR_RECORD_VARIADIC(uint32_t, fileToken);
}

int32_t tr_record_values_32_v_1(const char *pCompId, uint32_t traceId, uint32_t numValues, va_list values) {
    return record_list<uint32_t>(pCompId, traceId, nullptr, numValues, values);
}

int32_t tr_record_values_32_1(const char *pCompId, uint32_t traceId, uint32_t numValues, ...) {
    TR_RECORD_VARIADIC(uint32_t, nullptr);
}

int32_t tr_record_int32_1(const char *pCompId, uint32_t traceId, int32_t iValue) {
    return tr_record_values_32_1(pCompId, traceId, 1, iValue);
}

int32_t tr_record_int32_2_1(const char *pCompId, uint32_t traceId, int32_t iValue1, int32_t iValue2) {
    return tr_record_values_32_1(pCompId, traceId, 2, iValue1, iValue2);
}

int32_t tr_record_uint32_1(const char *pCompId, uint32_t traceId, uint32_t uValue) {
    return tr_record_values_32_1(pCompId, traceId, 1, uValue);
}

int32_t tr_record_uint32_2_1(const char *pCompId, uint32_t traceId, uint32_t uValue1, uint32_t uValue2) {
    return tr_record_values_32_1(pCompId, traceId, 2, uValue1, uValue2);
}

// ---- 64-bit values ----

int32_t tr_ms_record_values_64_v_1(const char *pCompId, uint32_t traceId, tr_file_token_t fileToken, uint32_t numValues,
                                   va_list values) {
    return record_list<uint64_t>(pCompId, traceId, fileToken, numValues, values);
}

int32_t tr_ms_record_values_64_1(const char *pCompId, uint32_t traceId, tr_file_token_t fileToken, uint32_t numValues,
                                 ...) {
    TR_RECORD_VARIADIC(uint64_t, fileToken);
}

int32_t tr_record_values_64_v_1(const char *pCompId, uint32_t traceId, uint32_t numValues, va_list values) {
    return record_list<uint64_t>(pCompId, traceId, nullptr, numValues, values);
}

int32_t tr_record_values_64_1(const char *pCompId, uint32_t traceId, uint32_t numValues, ...) {
    TR_RECORD_VARIADIC(uint64_t, nullptr);
}

int32_t tr_record_int64_1(const char *pCompId, uint32_t traceId, int64_t iValue) {
    return tr_record_values_64_1(pCompId, traceId, 1, iValue);
}

int32_t tr_record_int64_2_1(const char *pCompId, uint32_t traceId, int64_t iValue1, int64_t iValue2) {
    return tr_record_values_64_1(pCompId, traceId, 2, iValue1, iValue2);
}

int32_t tr_record_uint64_1(const char *pCompId, uint32_t traceId, uint64_t uValue) {
    return tr_record_values_64_1(pCompId, traceId, 1, uValue);
}

int32_t tr_record_uint64_2_1(const char *pCompId, uint32_t traceId, uint64_t uValue1, uint64_t uValue2) {
    return tr_record_values_64_1(pCompId, traceId, 2, uValue1, uValue2);
}
