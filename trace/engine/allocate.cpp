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

// ---- The walk, with a closer look ----

// Whether a walk made more steps than the ring can have records; long records may need the ring twice.
static bool is_walk_too_long(const trace_anchor_t *pAnchor, uint32_t length, uint64_t numSteps)
    TR_HOLDS(anchor_set_lock) {
    const uint64_t bound = std::max(pAnchor->uRequestedFileSize, pAnchor->uActualFileSize) / TR_HEADER_LENGTH;
    return numSteps > (length > pAnchor->uMaxSize ? 2 * bound : bound);
}

// Cuts a length that leads past the mapping so that it reaches its end exactly. Returns the new length.
static uint32_t repair_length(uint8_t *pRec, const uint8_t *pMapEnd, uint32_t badLength) {
    debug_line("Bad length: len: 0x%X (%u), pNextRec: 0x%X (%u), pMapEnd: 0x%X (%u)\n", badLength, badLength,
               low_address(pRec), low_address(pRec), low_address(pMapEnd), low_address(pMapEnd));
    const auto length = static_cast<uint32_t>(pMapEnd - pRec);
    publish_length(pRec, length);
    return length;
}

// The walk reached the end of the ring: what it took over so far becomes a filler up to there, and the next record goes
// to the front.
static void go_to_front(trace_anchor_t *pAnchor, uint32_t accumulated) TR_HOLDS(anchor_set_lock) {
    uint8_t *const pFiller = pAnchor->pNextFree;
    publish_kind(pFiller, TR_KIND_RESERVED);
    pAnchor->pNextFree = pAnchor->pWrap;
    publish_length(pFiller, accumulated);
    publish_seq(pFiller, next_seq(pAnchor));
    publish(&header_of(pAnchor->pMap)->uOldestRecordOffset, TR_DATA_OFFSET);
    publish_kind(pFiller, TR_KIND_FREE);
}

// The records that a reservation takes over, from pNextFree on. Positions are private; what the mapping says is read once
// and checked.
struct walk_t {
    uint8_t *pRec;              // the next to be taken over
    uint64_t uSize;             // bytes taken over
    uint32_t uStartOffset;      // in the mapping, of the last start record among them; 0: none
    bool bWrapped;              // went back to the front
    trace_damage_kind_t damage; // met
};

// Takes over one record. Returns whether the walk is over: `needed` bytes are there, or damage was met.
static bool take_record(trace_anchor_t *pAnchor, walk_t *pWalk, uint64_t needed) TR_HOLDS(anchor_set_lock) {
    const uint8_t *const pMapEnd = pAnchor->pMapEnd;
    auto rest = static_cast<uint64_t>(pMapEnd - pWalk->pRec);
    if (rest < TR_HEADER_LENGTH) [[unlikely]] {
        if (rest == 0 && is_page(pAnchor)) {
            pWalk->damage = TR_DAMAGE_PAGE_FULL;
            return true;
        }
        if (rest != 0 || pWalk->bWrapped) { // the latter is a safeguard: what no ring could hold was refused before
            pWalk->damage = rest != 0 ? TR_DAMAGE_OVERRUN : TR_DAMAGE_OVERWRAP;
            return true;
        }
        go_to_front(pAnchor, static_cast<uint32_t>(pWalk->uSize));
        pWalk->bWrapped = true;
        pWalk->pRec = pAnchor->pWrap;
        pWalk->uSize = 0;
        rest = static_cast<uint64_t>(pMapEnd - pWalk->pRec);
    }
    uint8_t *const pRec = pWalk->pRec;
    const uint32_t seqNumber = record_seq(pRec);
    if (seqNumber == observe(&header_of(pAnchor->pMap)->uSeqLock)) [[unlikely]]
        wait_tail(pAnchor, seqNumber);
    if (record_kind(pRec) == TR_KIND_START) [[unlikely]] {
        if (rest >= sizeof(trace_record_start_t))
            pWalk->uStartOffset = static_cast<uint32_t>(pRec - pAnchor->pMap);
    }
    uint32_t recLength = record_length(pRec);
    if (recLength > rest) [[unlikely]]
        recLength = repair_length(pRec, pMapEnd, recLength);
    pWalk->uSize += recLength;
    pWalk->pRec = pRec + recLength;
    return pWalk->uSize >= needed;
}

// Walks until there is room for `length` bytes and a free record behind, or damage is met.
static walk_t walk_carefully(trace_anchor_t *pAnchor, uint32_t length) TR_HOLDS(anchor_set_lock) {
    const uint64_t needed = uint64_t{length} + TR_HEADER_LENGTH;
    walk_t walk = {
        .pRec = pAnchor->pNextFree, .uSize = 0, .uStartOffset = 0, .bWrapped = false, .damage = TR_DAMAGE_NONE};
    for (uint64_t numSteps = 0; !take_record(pAnchor, &walk, needed); numSteps++) {
        if (is_walk_too_long(pAnchor, length, numSteps + 1)) {
            walk.damage = TR_DAMAGE_LOOP;
            break;
        }
    }
    return walk;
}

// Places a record that takes over a start record: the header inherits what that one said.
static uint8_t *place_over_start(trace_anchor_t *pAnchor, uint32_t length, uint32_t room, const uint8_t *pStart)
    TR_HOLDS(anchor_set_lock) {
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

uint8_t *allocate_carefully(trace_anchor_t *pAnchor, uint32_t length) {
    const walk_t walk = walk_carefully(pAnchor, length);
    if (walk.damage == TR_DAMAGE_PAGE_FULL) {
        pAnchor->bFull = true;
        return nullptr;
    }
    if (walk.damage != TR_DAMAGE_NONE) {
        note_damage(pAnchor, walk.damage, length);
        return nullptr;
    }
    const auto room = static_cast<uint32_t>(walk.uSize);
    return walk.uStartOffset != 0 ? place_over_start(pAnchor, length, room, pAnchor->pMap + walk.uStartOffset)
                                  : place_record(pAnchor, length, room);
}

void log_odd_length(uint32_t length) {
    debug_line("Odd length requested: %u\n", length);
}
