// Switching to the next page of a set, when the active one is full.
//
//   TR_ACTIVE ──full──▶ TR_FULL ──▶ TR_COPYING ──▶ TR_READY ──taken──▶ TR_ACTIVE
//                          └───────────────────────────taken back, with a note──▲
#include <pthread.h>
#include <syslog.h>
#include <time.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>

#include "cu/counter.h"
#include "trace/engine/allocate.h"
#include "trace/engine/page_set.h"
#include "trace/frame/frame.h"
#include "trace/spool/spool.h"

// Writes one of the lines of page switching.
#define TR_SWITCH_LINE(priority, pWhat, pNamed, flags, pNext)                                                          \
    debug_line_at(TR_DEBUG_PAGES, priority, "%s " pWhat " (flags: %d, tid: %u, pNextPage: 0x%x)\n",                    \
                  (pNamed)->fileName, static_cast<int>(flags), thread_id(), low_address(pNext))

static void set_page_state(trace_anchor_t *pPage, trace_page_state_t state) TR_HOLDS(anchor_set_lock) {
    publish(&header_of(pPage->pMap)->sp_flags, static_cast<uint8_t>(state));
}

// The first page from `pFirst` on that is mapped and whose own lock is free, which is then held; `*ppMapped` receives
// the first that is mapped at all. A control call that holds a page's own lock is at work on it.
TR_UNCHECKED static trace_anchor_t *find_free_page(trace_anchor_t *pFirst, const trace_anchor_t *pFull,
                                                   trace_anchor_t **ppMapped) {
    for (trace_anchor_t *pPage = pFirst; pPage != nullptr; pPage = next_page_of(pFirst, pPage)) {
        if (pPage->pMap == nullptr || pPage == pFull)
            continue;
        if (pthread_mutex_trylock(&pPage->anchorMutex) == 0)
            return pPage;
        if (*ppMapped == nullptr)
            *ppMapped = pPage;
        TR_SWITCH_LINE(LOG_ERR, "locked", pPage, page_state(pFull), pPage);
    }
    return nullptr;
}

// Decides whether the page may be written over without loss, and counts the times in a row that it may not.
static void take_page(trace_anchor_t *pPage) TR_HOLDS(anchor_set_lock) TR_HOLDS(queue_lock) {
    const uint8_t state = spool_take_back_inside_spq(&spq, pPage);
    if (state == TR_READY) {
        pPage->consecutiveSpoolNotCopied = 0;
        TR_SWITCH_LINE(LOG_WARNING, "reuse", pPage, state, pPage);
        return;
    }
    TR_SWITCH_LINE(LOG_WARNING, "overwrite", pPage, state, pPage);
    publish(&header_of(pPage->pMap)->sp_reuse_tm, static_cast<uint32_t>(time(nullptr)));
    pPage->consecutiveSpoolNotCopied++;
}

// Writes the note at the front of the page, in the order of stores of any record, when it leaves room for the longest
// record. Its number is 0: it comes before the page's own records.
static void write_page_note(trace_anchor_t *pPage) TR_HOLDS(anchor_set_lock) {
    constexpr uint32_t NOTE_HEAD = TR_HEADER_LENGTH; // bytes before the text
    const uint32_t count = pPage->consecutiveSpoolNotCopied;
    const char *const pPlural = count > 1 ? "s" : "";
    const auto write_text = [&](char *pTo, size_t size) {
        return snprintf(pTo, size, "SPOOL: %s not spooled %u consecutive time%s", pPage->fileName, count, pPlural);
    };
    const auto textLength = static_cast<uint32_t>(write_text(nullptr, 0));
    const uint32_t length = (textLength + NOTE_HEAD + 8) & ~uint32_t{3}; // with its zero byte
    uint8_t *const pRec = pPage->pWrap;
    const auto room = static_cast<uint32_t>(pPage->pMapEnd - pRec);
    if (room < uint64_t{length} + pPage->uMaxSize + TR_HEADER_LENGTH)
        return;
    publish_kind(pRec, TR_KIND_RESERVED);
    publish_length(pRec, room);
    publish_seq(pRec, pPage->seqNumber);
    write_free_record(pRec + length, room - length, pPage->seqNumber);
    memcpy(pRec + offsetof(trace_record_header_t, compId), TR_ENGINE_COMP_ID, TR_COMP_ID_SIZE);
    store_at(pRec + offsetof(trace_record_header_t, threadId), thread_id());
    store_at(pRec + offsetof(trace_record_header_t, timeStamp), read_counter());
    (void)write_text(reinterpret_cast<char *>(pRec + NOTE_HEAD), textLength + 1);
    publish_length(pRec, length);
    publish_kind(pRec, TR_KIND_STRING);
    pPage->pWrap = pRec + length;
}

// Empties the page; readers begin at its front from the first store on.
static void empty_page(trace_anchor_t *pPage) TR_HOLDS(anchor_set_lock) {
    pPage->seqNumber = 0;
    pPage->bFull = false;
    pPage->pWrap = pPage->pMap + TR_DATA_OFFSET;
    publish(&header_of(pPage->pMap)->uOldestRecordOffset, TR_DATA_OFFSET);
    if (pPage->consecutiveSpoolNotCopied != 0) {
        write_page_note(pPage);
        debug_line_at(TR_DEBUG_PAGES, LOG_WARNING, "%s consec %u\n", pPage->fileName, pPage->consecutiveSpoolNotCopied);
    }
    if (pPage->pWrap == pPage->pMap + TR_DATA_OFFSET) // without a note
        write_free_record(pPage->pWrap, static_cast<uint32_t>(pPage->pMapEnd - pPage->pWrap), pPage->seqNumber);
    pPage->pNextFree = pPage->pWrap;
}

// What becomes of the full page and of the one that takes its place.
struct page_change_t {
    trace_anchor_t *pPage; // becomes the active one; null: memory is short
    bool bHeld;            // its own lock is held
};

// Queues the full page and takes the next off the queue in one hold of the queue lock: the copy of the full one can't
// begin in between, so that the recorder waits for one copy at most.
static page_change_t change_page(trace_anchor_t *pFull) TR_HOLDS(anchor_set_lock) TR_EXCLUDES(queue_lock) {
    page_change_t change = {.pPage = nullptr, .bHeld = false};
    lock_queue(&spq);
    trace_anchor_t *const pNext = spool_enqueue_inside_spq(nullptr, nullptr, pFull, &spq, 0);
    if (pNext != nullptr) {
        trace_anchor_t *pMapped = nullptr;
        change.pPage = find_free_page(pNext, pFull, &pMapped);
        change.bHeld = change.pPage != nullptr;
        if (!change.bHeld)
            change.pPage = pMapped != nullptr ? pMapped : pFull;
        take_page(change.pPage);
        set_page_state(change.pPage, TR_ACTIVE);
    }
    unlock_queue(&spq);
    return change;
}

static trace_anchor_t *switch_page(trace_anchor_t *pFull) TR_HOLDS(anchor_set_lock) {
    set_page_state(pFull, TR_FULL);
    const page_change_t change = change_page(pFull);
    if (change.pPage == nullptr)
        return nullptr;
    publish(pFull->ppActivePg, change.pPage);
    empty_page(change.pPage);
    if (change.bHeld)
        mutex_cleanup(&change.pPage->anchorMutex);
    return change.pPage;
}

trace_anchor_t *pageFull(trace_anchor_t *pFull) {
    const int savedErrno = errno;
    const int cancelState = cancel_disable();
    trace_anchor_t *const pPage = switch_page(pFull);
    cancel_restore(cancelState);
    errno = savedErrno;
    return pPage;
}

active_page_t active_page(const trace_anchor_t *pAnchor) {
    trace_anchor_t *pPage = *pAnchor->ppActivePg;
    if (pAnchor->uMaxSize == 0 || set_head(pPage)->damage.kind != TR_DAMAGE_NONE)
        return {.pPage = pPage, .uMaxSize = 0};
    if (pPage->bFull) {
        trace_anchor_t *const pNext = pageFull(pPage);
        if (pNext == nullptr)
            return {.pPage = pPage, .uMaxSize = 0};
        pPage = pNext;
    }
    return {.pPage = pPage, .uMaxSize = std::min(pAnchor->uMaxSize, pPage->uMaxSize)};
}

// Every page holds the longest record that it accepts, so this ends with the first page that is not full; the bound is
// there for pages that were harmed from outside.
uint8_t *allocate_in_next_page(trace_anchor_t *pFull, const uint32_t *pReqLength) {
    trace_anchor_t *pPage = pFull;
    uint8_t *pRec = nullptr;
    for (uint32_t numLeft = 2 * count_pages(set_head(pFull)); pRec == nullptr && pPage->bFull && numLeft != 0;
         numLeft--) {
        pPage = pageFull(pPage);
        if (pPage == nullptr)
            return nullptr;
        pRec = allocate_space_page(pPage, pReqLength);
    }
    return pRec;
}
