// The queue to the copy thread: full pages and files to copy, first in, first out.
//
//     pFirst ─pNext─▶ … ─pNext─▶ pLast         elements enter at pFirst, the copy thread takes them at pLast
//     newest ◀─pPrev─ … ◀─pPrev─ oldest
//
// A page in the queue is mapped, and its anchor is there, as long as its element is: whoever unmaps or frees a page takes
// its elements off first, under the queue lock.
#include <pthread.h>

#include <cstdlib>
#include <cstring>

#include "trace/engine/engine.h"
#include "trace/frame/frame.h"
#include "trace/publish.h"
#include "trace/spool/spool.h"

constinit sp_q_t spq = {
    .pFirst = nullptr,
    .pLast = nullptr,
    .cnt = 0,
    .mutex = PTHREAD_MUTEX_INITIALIZER,
    .cond = PTHREAD_COND_INITIALIZER,
};

// ---- The lock ----

// In the child of a fork nothing is locked: it has no copy thread, and whoever held the lock does not exist there. A
// recorder that waits for the copy of a page to end tries for about as long as that takes before it sleeps.
TR_UNCHECKED void lock_queue(sp_q_t *pQueue) {
    if (observe(&this_is_child) == 0 && pthread_mutex_trylock(&pQueue->mutex) != 0)
        (void)lock_with_pauses(&pQueue->mutex);
}

TR_UNCHECKED int lock_queue_until(sp_q_t *pQueue, const struct timespec *pDeadline) {
    return observe(&this_is_child) == 0 ? pthread_mutex_timedlock(&pQueue->mutex, pDeadline) : 0;
}

TR_UNCHECKED void unlock_queue(sp_q_t *pQueue) {
    if (observe(&this_is_child) == 0)
        (void)pthread_mutex_unlock(&pQueue->mutex);
}

uint8_t page_state(const trace_anchor_t *pPage) {
    return pPage->pMap == nullptr ? uint8_t{TR_NOT_A_PAGE} : observe(&header_of(pPage->pMap)->sp_flags);
}

// ---- Diagnostic lines ----

static void show_name(const char *pWhere, const trace_anchor_t *pPage) TR_HOLDS(queue_lock) {
    debug_line("%s: %s\n", pWhere, pPage->fileName);
}

static void show_name_and_state(const char *pWhere, const trace_anchor_t *pPage) TR_HOLDS(queue_lock) {
    debug_line("%s: %s:%d\n", pWhere, pPage->fileName, page_state(pPage));
}

// Shows the queued pages, a line each, in the manner of `show`; files are not shown.
static void show_queued_pages(const sp_q_t *pQueue, const char *pWhere,
                              void (*show)(const char *pWhere, const trace_anchor_t *pPage)) TR_HOLDS(queue_lock) {
    if (observe(&global_debug_level) < TR_DEBUG_ALL)
        return; // do not walk the queue for nothing: a recorder waits
    bool bEmpty = true;
    for (const sp_q_element_t *pElem = pQueue->pFirst; pElem != nullptr; pElem = pElem->pNext) {
        if (pElem->pAnchor == nullptr)
            continue;
        show(pWhere, pElem->pAnchor);
        bEmpty = false;
    }
    if (bEmpty)
        debug_line("%s: EMPTY\n", pWhere);
}

static void show_place(const sp_q_element_t *pElem) TR_HOLDS(queue_lock) {
    if (pElem->pPrev == nullptr)
        debug_line(pElem->pNext == nullptr ? "ONLY\n" : "FIRST\n");
    else
        debug_line(pElem->pNext == nullptr ? "LAST\n" : "MID\n");
}

// ---- In ----

// A new element with copies of what does not outlive the call, or null.
static sp_q_element_t *new_element(const char *pFileName, const char *pDest, trace_anchor_t *pAnchor, int32_t del) {
    auto *pElem = static_cast<sp_q_element_t *>(malloc(sizeof(sp_q_element_t)));
    if (pElem == nullptr)
        return nullptr;
    pElem->pNext = pElem->pPrev = nullptr;
    pElem->pAnchor = pAnchor;
    pElem->fileName[0] = '\0';
    pElem->dest = pDest;
    pElem->del = del;
    if (pFileName != nullptr) {
        const size_t length = strnlen(pFileName, TR_NAME_SIZE - 1);
        memcpy(pElem->fileName, pFileName, length);
        pElem->fileName[length] = '\0';
    }
    return pElem;
}

static void link_as_newest(sp_q_t *pQueue, sp_q_element_t *pElem) TR_HOLDS(queue_lock) {
    pElem->pNext = pQueue->pFirst;
    if (pQueue->pFirst != nullptr)
        pQueue->pFirst->pPrev = pElem;
    else
        pQueue->pLast = pElem;
    pQueue->pFirst = pElem;
    pQueue->cnt++;
}

// The page that is written after a full one. The list of retired pages runs through `nextPage` as well: from a retired
// page writing goes on at the head.
static trace_anchor_t *page_after(const trace_anchor_t *pPage) {
    return pPage->nextPage == nullptr || pPage->bRetired ? pPage->p_head_spool_anchor : pPage->nextPage;
}

trace_anchor_t *spool_enqueue_inside_spq(const char *fileName, const char *dest, trace_anchor_t *pAnchor,
                                         sp_q_t *pQueue, int32_t del) {
    sp_q_element_t *const pElem = new_element(fileName, dest, pAnchor, del);
    if (pElem == nullptr) {
        (void)set_error(TR_RC_NO_MEMORY, TR_RC_NO_MEMORY);
        return nullptr;
    }
    trace_anchor_t *const pNextPage = pAnchor != nullptr ? page_after(pAnchor) : nullptr;
    show_queued_pages(pQueue, "spool_enqueue before", show_name);
    link_as_newest(pQueue, pElem);
    show_queued_pages(pQueue, "spool_enqueue after", show_name);
    if (pNextPage != nullptr)
        debug_line("%s added to queue (flags: %d); switching to %s (flags: %d cnt: %d)\n", pAnchor->fileName,
                   page_state(pAnchor), pNextPage->fileName, page_state(pNextPage), pQueue->cnt);
    (void)pthread_cond_signal(&pQueue->cond);
    return pNextPage;
}

trace_anchor_t *spool_enqueue(const char *fileName, const char *dest, trace_anchor_t *pAnchor, sp_q_t *pQueue,
                              int32_t del) {
    lock_queue(pQueue);
    trace_anchor_t *const pNextPage = spool_enqueue_inside_spq(fileName, dest, pAnchor, pQueue, del);
    unlock_queue(pQueue);
    return pNextPage;
}

// ---- Out ----

// Takes off the element that `*ppLink` leads to: `pFirst`, or the `pNext` of the element before it.
static sp_q_element_t *unlink_element(sp_q_t *pQueue, sp_q_element_t **ppLink) TR_HOLDS(queue_lock) {
    sp_q_element_t *const pElem = *ppLink;
    show_place(pElem);
    *ppLink = pElem->pNext;
    (pElem->pNext != nullptr ? pElem->pNext->pPrev : pQueue->pLast) = pElem->pPrev;
    pElem->pNext = pElem->pPrev = nullptr;
    pQueue->cnt--;
    return pElem;
}

sp_q_element_t *spool_dequeue_last_element_inside_spq(sp_q_t *pQueue) {
    const sp_q_element_t *const pOldest = pQueue->pLast;
    if (pOldest == nullptr)
        return nullptr;
    if (pOldest->pAnchor != nullptr)
        debug_line("%s removing from queue (trace file) (spool_dequeue_last_element_inside_spq)\n",
                   pOldest->pAnchor->fileName);
    return unlink_element(pQueue, pOldest->pPrev != nullptr ? &pOldest->pPrev->pNext : &pQueue->pFirst);
}

void spool_remove_page_inside_spq(sp_q_t *pQueue, const trace_anchor_t *pPage) {
    debug_line("spool_dequeue_element (%s)\n", pPage->fileName);
    show_queued_pages(pQueue, "spool_dequeue_element before", show_name_and_state);
    for (sp_q_element_t **ppLink = &pQueue->pFirst; *ppLink != nullptr;) {
        if ((*ppLink)->pAnchor != pPage) {
            ppLink = &(*ppLink)->pNext;
            continue;
        }
        debug_line("%s removing from queue (trace file) (spool_dequeue_element)\n", pPage->fileName);
        free(unlink_element(pQueue, ppLink));
    }
    show_queued_pages(pQueue, "spool_dequeue_element after", show_name);
}

uint8_t spool_take_back_inside_spq(sp_q_t *pQueue, trace_anchor_t *pPage) {
    const uint8_t state = page_state(pPage);
    spool_remove_page_inside_spq(pQueue, pPage);
    return state;
}
