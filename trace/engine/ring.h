// Records in a mapped ring.
//
// A record is named by the address of its header. Normally that is a multiple of 4, but a ring that was harmed from
// outside may lead anywhere inside the mapping, so header fields are only reached through these functions.
#ifndef KZ_TRACE_ENGINE_RING_H
#define KZ_TRACE_ENGINE_RING_H

#include <cstddef>
#include <cstdint>
#include <cstring>

#include "trace/publish.h"
#include "trace/trace_format.h"

inline uint32_t record_length(const uint8_t *pRec) {
    return observe_at<uint32_t>(pRec + offsetof(trace_record_header_t, length));
}

inline uint16_t record_kind(const uint8_t *pRec) {
    return observe_at<uint16_t>(pRec + offsetof(trace_record_header_t, function));
}

inline uint32_t record_seq(const uint8_t *pRec) {
    return observe_at<uint32_t>(pRec + offsetof(trace_record_header_t, seqNumber));
}

inline void publish_length(uint8_t *pRec, uint32_t length) {
    publish_at(pRec + offsetof(trace_record_header_t, length), length);
}

// Of a record whose body is complete, this is what makes readers believe it.
inline void publish_kind(uint8_t *pRec, trace_record_kind_t kind) {
    publish_at(pRec + offsetof(trace_record_header_t, function), static_cast<uint16_t>(kind));
}

inline void publish_seq(uint8_t *pRec, uint32_t seqNumber) {
    publish_at(pRec + offsetof(trace_record_header_t, seqNumber), seqNumber);
}

// A free record, complete before anything points at it.
inline void write_free_record(uint8_t *pRec, uint32_t length, uint32_t seqNumber) {
    publish_length(pRec, length);
    publish_kind(pRec, TR_KIND_FREE);
    publish_seq(pRec, seqNumber);
}

// A number that stands at any address.
template <typename T> inline void store_at(uint8_t *pTo, T value) {
    memcpy(pTo, &value, sizeof value);
}

template <typename T> inline T load_at(const uint8_t *pFrom) {
    T value;
    memcpy(&value, pFrom, sizeof value);
    return value;
}

#endif
