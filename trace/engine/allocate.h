// Reservation of space for records in a mapped ring.
//
// The ring holds records one behind the other. Behind the newest stands the free record, and behind that the oldest:
//
//   200        pNextFree                                    pMapEnd
//    │ … newest │ free      │ oldest │ next │ …    │ filler │
//
// A reservation takes over the free record and, when that is too small, the oldest records, until the room suffices for
// the record and a free record behind it. At the end of the ring what is left becomes a filler and the walk goes on at
// the front. A reader in another process finds a chain of lengths that it can walk between any two stores: a record
// first covers all the space it takes over, the free record behind it is complete before the record is shortened to
// point at it, and its kind tells that it is unfinished until its writer has filled it.
//
// What every record needs is inline, in the callers' code: a record costs some sixty cycles, and calls would be a good
// part of them.
#ifndef KZ_TRACE_ENGINE_ALLOCATE_H
#define KZ_TRACE_ENGINE_ALLOCATE_H

#include <pthread.h>

#include <cstdint>

#include "cu/counter.h"
#include "trace/engine/page_set.h"
#include "trace/engine/repair.h"
#include "trace/engine/ring.h"
#include "trace/publish.h"
#include "trace/trace.h"

// ---- Rarely needed (allocate.cpp) ----

#define TR_COLD __attribute__((noinline, cold))
#define TR_INLINE __attribute__((always_inline)) inline // on the way of every record

// Waits for a tail reader to let go of the record, up to 2 s; breaks the hold when it does not. Keeps errno. A
// cancellation point.
TR_COLD void wait_tail(trace_anchor_t *pAnchor, uint32_t seqNumber) TR_HOLDS(anchor_set_lock);

// Decides on a request that is longer than the file accepts, or made while a tail reader has a request pending; then it
// may ask the reader to catch up and wait for up to 0.5 s, a cancellation point. Returns whether the record is placed.
TR_COLD bool may_be_placed(trace_anchor_t *pAnchor, uint32_t length) TR_HOLDS(anchor_set_lock);

TR_COLD void log_odd_length(uint32_t length);

// A record filled the ring to its very end. Returns where the next one goes: to the front, but in a page, where nothing
// may be written over, behind the switch to the next page.
TR_COLD uint8_t *front_of_ring(trace_anchor_t *pAnchor) TR_HOLDS(anchor_set_lock);

// The same reservation in the pages behind a full one; null when the page is not full.
TR_COLD uint8_t *allocate_in_next_page(trace_anchor_t *pFull, const uint32_t *pReqLength) TR_HOLDS(anchor_set_lock);

// ---- The walk ----

inline uint32_t next_seq(trace_anchor_t *pAnchor) TR_HOLDS(anchor_set_lock) {
    return pAnchor->seqNumber += TR_SEQ_STEP;
}

// Walks over whole records that nobody holds, as nearly all are. Returns the bytes that `length` bytes and a free record
// behind may take over from pNextFree on, or 0 when a record on the way needs a closer look: a held one, a start record, a
// harmed one, or the end of the ring. What the mapping says is read once and checked.
//
// Its state is a position, which stays in a register: what is stored on the way of a record counts in full.
TR_INLINE uint64_t find_room(const trace_anchor_t *pAnchor, uint32_t length) TR_HOLDS(anchor_set_lock) {
    const uint8_t *const pFirst = pAnchor->pNextFree;
    const uint8_t *const pMapEnd = pAnchor->pMapEnd;
    const uint32_t *const pSeqLock = &header_of(pAnchor->pMap)->uSeqLock;
    const uint64_t needed = uint64_t{length} + TR_HEADER_LENGTH;
    const uint8_t *pRec = pFirst;
    do {
        const auto rest = static_cast<uint64_t>(pMapEnd - pRec);
        if (rest < TR_HEADER_LENGTH) [[unlikely]]
            return 0;
        const uint32_t recLength = record_length(pRec);
        if (record_seq(pRec) == observe(pSeqLock) || record_kind(pRec) == TR_KIND_START ||
            recLength < TR_HEADER_LENGTH || recLength > rest) [[unlikely]]
            return 0;
        pRec += recLength;
    } while (static_cast<uint64_t>(pRec - pFirst) < needed);
    return static_cast<uint64_t>(pRec - pFirst);
}

// Reserves space with a closer look at each record.
__attribute__((noinline)) uint8_t *allocate_carefully(trace_anchor_t *pAnchor, uint32_t length)
    TR_HOLDS(anchor_set_lock);

// ---- Placing ----

// Low 32 bits of the thread's identifier, asked for once.
inline uint32_t thread_id() {
    static thread_local constinit uint32_t tThreadId __attribute__((tls_model("initial-exec"))) = 0;
    if (tThreadId == 0) [[unlikely]]
        tThreadId = static_cast<uint32_t>(pthread_self());
    return tThreadId;
}

// Places the record at pNextFree over the room found. The order of the stores is what readers rely on.
TR_INLINE uint8_t *place_record(trace_anchor_t *pAnchor, uint32_t length, uint32_t room) TR_HOLDS(anchor_set_lock) {
    uint8_t *const pRec = pAnchor->pNextFree;
    // 1. The record covers all it takes over, and is recognisably unfinished.
    publish_kind(pRec, TR_KIND_RESERVED);
    publish_length(pRec, room);
    publish_seq(pRec, next_seq(pAnchor));
    uint8_t *const pMap = pAnchor->pMap;
    uint8_t *pNextFree = pRec + length;
    if (room == length + TR_HEADER_LENGTH) {
        // 2. Nothing but a header would be left: the record keeps it, and the next one takes over the oldest.
        pNextFree = pRec + room == pAnchor->pMapEnd ? front_of_ring(pAnchor) : pRec + room;
    } else {
        // 3. The free record is complete before the record points at it.
        write_free_record(pNextFree, room - length, TR_SEQ_FREE);
        publish_length(pRec, length);
    }
    pAnchor->pNextFree = pNextFree;
    // 4. Readers begin behind the newest record.
    publish(&header_of(pMap)->uOldestRecordOffset, static_cast<uint32_t>(pNextFree - pMap));
    store_at(pRec + offsetof(trace_record_header_t, threadId), thread_id());
    store_at(pRec + offsetof(trace_record_header_t, timeStamp), read_counter());
    return pRec;
}

// Reserves space in one file or page.
TR_INLINE uint8_t *allocate_space_page(trace_anchor_t *pAnchor, const uint32_t *pReqLength) TR_HOLDS(anchor_set_lock) {
    const uint32_t uMaxSize = pAnchor->uMaxSize;
    if (uMaxSize == 0) [[unlikely]] // not started, or damaged
        return nullptr;
    const uint32_t length = *pReqLength;
    if (observe(&header_of(pAnchor->pMap)->uTailReq) != 0 || length > uMaxSize) [[unlikely]] {
        if (!may_be_placed(pAnchor, length))
            return nullptr;
    }
    if (length % 2 != 0) [[unlikely]]
        log_odd_length(length);
    const uint64_t room = find_room(pAnchor, length);
    if (room == 0) [[unlikely]]
        return allocate_carefully(pAnchor, length);
    return place_record(pAnchor, length, static_cast<uint32_t>(room));
}

// Reserves a record of `*pReqLength` bytes, header included, a multiple of 4, in a plain file or in the page of a set that
// active_page() yields, or in one behind it when that is full. Its kind is TR_KIND_RESERVED and its
// length, number, thread and stamp are set; the caller stores the component identifier and the body, and publishes the
// kind last. The record may stand at any address when the ring was harmed. Returns null when nothing can be reserved:
// not started, too long, or damaged, which is noted for repair_damage(). May wait for a tail reader, up to 2.5 s, with
// the lock held: a cancellation point then.
TR_INLINE uint8_t *allocate_space(trace_anchor_t *pAnchor, const uint32_t *pReqLength) TR_HOLDS(anchor_set_lock) {
    uint8_t *const pRec = allocate_space_page(pAnchor, pReqLength);
    if (pRec == nullptr) [[unlikely]]
        return allocate_in_next_page(pAnchor, pReqLength);
    return pRec;
}

#endif
