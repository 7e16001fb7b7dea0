// Binding trace files to spooling entries, and bringing their rings in line with them.
//
// All of it happens under the global lock; what recorders follow (entry, links) changes under the anchor-set lock in
// addition, and pages are freed only with the queue lock held as well, because one of them may be being copied.
#include "trace/spool/page_sets.h"

#include <cstdlib>
#include <cstring>

#include "trace/engine/engine.h"
#include "trace/engine/page_set.h"
#include "trace/engine/starting.h"
#include "trace/engine/stopping.h"
#include "trace/frame/frame.h"
#include "trace/spool/config.h"
#include "trace/spool/spool.h"

void spool_nowhere(trace_spool_spec_t *pSpec) {
    lock_queue(&spq); // the copy thread reads the destination under it
    memcpy(pSpec->dest, TR_NOWHERE, sizeof TR_NOWHERE);
    unlock_queue(&spq);
}

// ---- Retired pages ----

static void append_retired(trace_anchor_t *pHead, trace_anchor_t *pPage) TR_HOLDS(anchor_set_lock) {
    pPage->bRetired = true;
    pPage->nextPage = nullptr;
    if (pHead->p_obsolete_pages == nullptr)
        pHead->p_obsolete_pages = pPage;
    else
        pHead->p_obsolete_pages_tail->nextPage = pPage;
    pHead->p_obsolete_pages_tail = pPage;
}

// Lets a page go that is in no ring any more, when nothing of it waits for its copy; else it is kept as a retired one.
static void retire_page(trace_anchor_t *pHead, trace_anchor_t *pPage) TR_HOLDS(global_lock) TR_HOLDS(anchor_set_lock)
    TR_HOLDS(queue_lock) {
    const bool bIdle = pPage->pMap == nullptr || page_state(pPage) == TR_READY;
    if (bIdle && pHead->pActivePg != pPage)
        let_page_go(pPage, 0);
    else
        append_retired(pHead, pPage);
}

// Takes the whole list off the head.
static trace_anchor_t *take_retired(trace_anchor_t *pHead) TR_HOLDS(anchor_set_lock) {
    trace_anchor_t *const pFirst = pHead->p_obsolete_pages;
    pHead->p_obsolete_pages = pHead->p_obsolete_pages_tail = nullptr;
    return pFirst;
}

// Retires a chain of pages that are in no ring any more, each anew.
static void retire_chain(trace_anchor_t *pHead, trace_anchor_t *pFirst, const trace_anchor_t *pEnd)
    TR_HOLDS(global_lock) TR_HOLDS(anchor_set_lock) {
    lock_queue(&spq);
    while (pFirst != pEnd) {
        trace_anchor_t *const pPage = pFirst;
        pFirst = pPage->nextPage;
        retire_page(pHead, pPage);
    }
    unlock_queue(&spq);
}

static void sweep_retired(trace_anchor_t *pHead) TR_HOLDS(global_lock) {
    if (pHead->p_obsolete_pages == nullptr)
        return;
    lock_anchor_set_under_global(pHead);
    retire_chain(pHead, take_retired(pHead), nullptr);
    unlock_anchor_set_under_global(pHead);
}

// Takes a page off the retired ones. Returns whether it was there.
static bool take_back_retired(trace_anchor_t *pHead, const trace_anchor_t *pWanted) TR_HOLDS(anchor_set_lock) {
    bool bFound = false;
    for (trace_anchor_t *pPage = take_retired(pHead); pPage != nullptr;) {
        trace_anchor_t *const pNext = pPage->nextPage;
        if (pPage == pWanted) {
            pPage->bRetired = false;
            bFound = true;
        } else {
            append_retired(pHead, pPage);
        }
        pPage = pNext;
    }
    return bFound;
}

static trace_anchor_t *find_retired(const trace_anchor_t *pHead, const char *pName) TR_HOLDS(global_lock) {
    trace_anchor_t *pPage = pHead->p_obsolete_pages;
    while (pPage != nullptr && strcmp(pPage->fileName, pName) != 0)
        pPage = pPage->nextPage;
    return pPage;
}

// ---- Growing and shrinking ----

// The page behind which the ring closes when it has `numPages`.
static trace_anchor_t *page_at(trace_anchor_t *pHead, uint32_t numPages) TR_HOLDS(global_lock) {
    trace_anchor_t *pPage = pHead;
    while (--numPages != 0)
        pPage = pPage->nextPage;
    return pPage;
}

// Makes, or finds among the retired, the page of that number; a new one is started when its set is. Null when it can't
// be had.
static trace_anchor_t *page_for_ring(trace_anchor_t *pHead, uint32_t number) TR_HOLDS(global_lock) {
    char name[TR_NAME_SIZE];
    if (!make_page_name(name, pHead->fileName, base_name_length(pHead), number))
        return nullptr;
    trace_anchor_t *pPage = find_retired(pHead, name);
    if (pPage != nullptr)
        return pPage;
    pPage = getSplAnchor(pHead, name);
    if (pPage == nullptr || !may_join(pPage, pHead))
        return nullptr;
    join_page_set(pPage, pHead);
    if (pHead->pMap != nullptr)
        start_new_page(pPage);
    return pPage;
}

static void forget_new_pages(trace_anchor_t *pHead, trace_anchor_t *const *ppPages, uint32_t numNew)
    TR_HOLDS(global_lock) {
    lock_anchor_set_under_global(pHead);
    lock_queue(&spq);
    for (uint32_t i = 0; i < numNew; i++) {
        if (!ppPages[i]->bRetired)
            let_page_go(ppPages[i], 0);
    }
    unlock_queue(&spq);
    unlock_anchor_set_under_global(pHead);
}

static void link_new_pages(trace_anchor_t *pHead, trace_anchor_t *pLast, trace_anchor_t *const *ppPages,
                           uint32_t numNew) TR_HOLDS(global_lock) {
    lock_anchor_set_under_global(pHead);
    for (uint32_t i = 0; i < numNew; i++) {
        (void)take_back_retired(pHead, ppPages[i]);
        ppPages[i]->nextPage = pHead;
        pLast->nextPage = ppPages[i];
        pLast = ppPages[i];
    }
    unlock_anchor_set_under_global(pHead);
}

// Grows the ring; when a page cannot be had it stays as it was.
static void add_new_pages(trace_anchor_t *pHead, trace_anchor_t *pLast, uint32_t numOld, uint32_t numPages)
    TR_HOLDS(global_lock) {
    if (numPages > TR_MAX_PAGES)
        return;
    auto **ppPages = static_cast<trace_anchor_t **>(calloc(numPages - numOld, sizeof(void *)));
    if (ppPages == nullptr)
        return;
    uint32_t numNew = 0;
    while (numOld + numNew < numPages) {
        trace_anchor_t *const pPage = page_for_ring(pHead, numOld + numNew + 1);
        if (pPage == nullptr)
            break;
        ppPages[numNew++] = pPage;
    }
    if (numOld + numNew == numPages)
        link_new_pages(pHead, pLast, ppPages, numNew);
    else
        forget_new_pages(pHead, ppPages, numNew);
    free(ppPages);
}

static void remove_pages(trace_anchor_t *pHead, uint32_t numPages) TR_HOLDS(global_lock) {
    lock_anchor_set_under_global(pHead);
    trace_anchor_t *const pLast = page_at(pHead, numPages);
    trace_anchor_t *const pRemoved = pLast->nextPage;
    pLast->nextPage = pHead;
    retire_chain(pHead, pRemoved, pHead);
    unlock_anchor_set_under_global(pHead);
}

// Counts the ring, not the entry of before: a growth may have failed.
static void reconfigure_pages(trace_anchor_t *pHead, const trace_spool_spec_t *pNew) TR_HOLDS(global_lock) {
    const uint32_t numOld = count_pages(pHead);
    if (pNew->pages > numOld)
        add_new_pages(pHead, page_at(pHead, numOld), numOld, pNew->pages);
    else if (pNew->pages < numOld)
        remove_pages(pHead, pNew->pages);
}

// ---- Binding ----

// A file that is started already becomes a page set in one step; its recorders wait. Without a set it goes on as it was.
static void restart_as_set(trace_anchor_t *pAnchor) TR_HOLDS(global_lock) {
    hold_set(pAnchor);
    (void)stop_trace(pAnchor, 0);
    const int32_t rc = start_as_set(pAnchor);
    if (rc != 0 && pAnchor->pMap == nullptr) {
        dissolve_page_set(pAnchor);
        pAnchor->bSpoolProcessed = 1; // or the start would ask for the entry again
        (void)start_as_set(pAnchor);
    }
    release_held_set();
}

static void bind(trace_anchor_t *pAnchor, trace_spool_spec_t *pSpec) TR_HOLDS(global_lock) {
    if (pSpec->onoff == 0) {
        spool_nowhere(pSpec);
        pSpec->onoff = 1;
    }
    set_spool_entry(pAnchor, pSpec);
    if (is_page(pAnchor))
        reconfigure_pages(pAnchor, pSpec);
    start_copy_thread_once();
    pAnchor->bSpoolProcessed = 1;
    if (pAnchor->pMap != nullptr && !is_page(pAnchor))
        restart_as_set(pAnchor);
}

// No entry of the list governs the file any more. Returns what it keeps.
static trace_spool_spec_t *keep_entry(trace_anchor_t *pAnchor, const trace_spool_spec_t *pFirst) TR_HOLDS(global_lock) {
    if (pFirst != nullptr)
        debug_line("NOT matched: '%s' on '%s'\n", pAnchor->fileName, pFirst->pattern);
    pAnchor->bSpoolProcessed = 1;
    trace_spool_spec_t *const pKept = pAnchor->spool;
    if (pKept != nullptr) {
        spool_nowhere(pKept);
        if (pKept->dir != nullptr)
            pKept->dir = pKept->dest; // it may have been another's, which goes
    }
    return pKept;
}

trace_spool_spec_t *process_spool_spec(trace_anchor_t *pAnchor, trace_spool_spec_t *pFirstSpoolSpec) {
    const bool bHead = set_head(pAnchor) == pAnchor; // a page of the list is bound with its head
    if (pAnchor->bSpoolProcessed != 0 || !bHead || pAnchor->fileName[0] == '\0')
        return nullptr;
    sweep_retired(pAnchor);
    trace_spool_spec_t *const pSpec = match_spool_file_name(pAnchor->fileName, pFirstSpoolSpec);
    if (pSpec == nullptr)
        return keep_entry(pAnchor, pFirstSpoolSpec);
    bind(pAnchor, pSpec);
    return nullptr;
}
