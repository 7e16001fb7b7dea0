// The parts of a reservation that are rarely needed; allocate.h has the rest.
#include "trace/engine/allocate.h"

#include <time.h>

#include <algorithm>
#include <cerrno>

#include "trace/frame/frame.h"

constexpr uint32_t TR_HELD_SLEEPS = 400; // for a record that a reader holds: 2 s
constexpr long TR_HELD_SLEEP_NS = 5'000'000;
constexpr uint32_t TR_ANSWER_SLEEPS = 20; // for a reader's answer: 0.5 s
constexpr long TR_ANSWER_SLEEP_NS = 25'000'000;

// ---- Tail readers ----
//
// The only places where a recorder sleeps, and so can be cancelled: nothing is reserved yet, only its lock is to be
// released.

static void sleep_ns(long nanoseconds) {
    const timespec duration = {.tv_sec = 0, .tv_nsec = nanoseconds};
    (void)nanosleep(&duration, nullptr); // an interruption only shortens it
}

// Sleeps until the word differs from, or is, `value`, but not longer than numSleeps. Returns whether it came to that.
static bool sleep_until(trace_anchor_t *pAnchor, const uint32_t *pWord, bool bEqual, uint32_t value, uint32_t numSleeps,
                        long nanoseconds) {
    const int savedErrno = errno;
    bool bReached = false;
    pthread_cleanup_push(cleanup_anchor_set, pAnchor);
    for (uint32_t i = 0; i < numSleeps && !bReached; i++) {
        sleep_ns(nanoseconds);
        bReached = (observe(pWord) == value) == bEqual;
    }
    pthread_cleanup_pop(0);
    errno = savedErrno;
    return bReached;
}

void wait_tail(trace_anchor_t *pAnchor, uint32_t seqNumber) {
    uint32_t *const pSeqLock = &header_of(pAnchor->pMap)->uSeqLock;
    if (!sleep_until(pAnchor, pSeqLock, false, seqNumber, TR_HELD_SLEEPS, TR_HELD_SLEEP_NS))
        publish(pSeqLock, TR_SEQ_LOCK_NONE); // the hold is broken
}

// Asks a reader with a pending request to catch up, and drops the request when it does not. Returns 0. Keeps errno.
static int32_t do_coordination(trace_anchor_t *pAnchor) TR_HOLDS(anchor_set_lock) {
    trace_file_header_t *const pHeader = header_of(pAnchor->pMap);
    if (observe(&pHeader->uTailReq) != 0) {
        publish(&pHeader->uFlags, TR_FLAG_COORDINATE);
        if (sleep_until(pAnchor, &pHeader->uTailReq, true, 0, TR_ANSWER_SLEEPS, TR_ANSWER_SLEEP_NS)) {
            publish(&pHeader->uFlags, uint16_t{0});
            return 0;
        }
    }
    publish(&pHeader->uTailReq, uint32_t{0}); // uFlags keeps the request until the file is stopped or re-used
    publish(&pHeader->uSeqLock, TR_SEQ_LOCK_NONE);
    return 0;
}

// The sum of request word and length is one of 32 bits: a word that makes it wrap is ignored. What even an empty ring
// could not hold is refused before anything is touched.
bool may_be_placed(trace_anchor_t *pAnchor, uint32_t length) {
    const uint32_t tailRequest = observe(&header_of(pAnchor->pMap)->uTailReq);
    if (tailRequest + length > pAnchor->uMaxSize) {
        if (tailRequest == 0)
            return false;
        (void)do_coordination(pAnchor);
    }
    return uint64_t{length} + TR_HEADER_LENGTH <= static_cast<uint64_t>(pAnchor->pMapEnd - pAnchor->pWrap);
}

// ---- The walk ----

// A ring can't have more records than this; long records may need the ring twice.
bool is_walk_too_long(const trace_anchor_t *pAnchor, uint32_t length, uint64_t numSteps) {
    const uint64_t bound = std::max(pAnchor->uRequestedFileSize, pAnchor->uActualFileSize) / TR_HEADER_LENGTH;
    return numSteps > (length > pAnchor->uMaxSize ? 2 * bound : bound);
}

uint32_t repair_length(uint8_t *pRec, const uint8_t *pMapEnd, uint32_t badLength) {
    debug_line("Bad length: len: 0x%X (%u), pNextRec: 0x%X (%u), pMapEnd: 0x%X (%u)\n", badLength, badLength,
               low_address(pRec), low_address(pRec), low_address(pMapEnd), low_address(pMapEnd));
    const auto length = static_cast<uint32_t>(pMapEnd - pRec);
    publish_length(pRec, length);
    return length;
}

void go_to_front(trace_anchor_t *pAnchor, uint32_t accumulated) {
    uint8_t *const pFiller = pAnchor->pNextFree;
    publish_kind(pFiller, TR_KIND_RESERVED);
    pAnchor->pNextFree = pAnchor->pWrap;
    publish_length(pFiller, accumulated);
    publish_seq(pFiller, next_seq(pAnchor));
    publish(&header_of(pAnchor->pMap)->uOldestRecordOffset, TR_DATA_OFFSET);
    publish_kind(pFiller, TR_KIND_FREE);
}

uint8_t *place_over_start(trace_anchor_t *pAnchor, uint32_t length, uint32_t room, const uint8_t *pStart) {
    const auto timeInfo = load_at<cu_timeinfo_t>(pStart + offsetof(trace_record_start_t, timeInfo));
    const auto pid = load_at<uint32_t>(pStart + offsetof(trace_record_start_t, pid));
    uint8_t *const pRec = place_record(pAnchor, length, room);
    trace_file_header_t *const pHeader = header_of(pAnchor->pMap);
    pHeader->timeInfo = timeInfo;
    publish(&pHeader->uPid, pid);
    return pRec;
}

uint8_t *front_of_ring(trace_anchor_t *pAnchor) {
    if (!is_page(pAnchor))
        return pAnchor->pWrap;
    pAnchor->bFull = true;
    return pAnchor->pMap + TR_DATA_OFFSET; // where readers begin: before a note, too
}

void end_walk(trace_anchor_t *pAnchor, trace_damage_kind_t kind, uint32_t length) {
    if (kind == TR_DAMAGE_PAGE_FULL)
        pAnchor->bFull = true;
    else
        note_damage(pAnchor, kind, length);
}

void log_odd_length(uint32_t length) {
    debug_line("Odd length requested: %u\n", length);
}
