// Flushing and stopping of trace files, and the end of the library in a process.
#include <pthread.h>
#include <sys/mman.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>

#include "cu/kz_cu.h"
#include "trace/control/control.h"
#include "trace/engine/engine.h"
#include "trace/engine/page_set.h"
#include "trace/engine/stopping.h"
#include "trace/frame/frame.h"
#include "trace/publish.h"
#include "trace/spool/spool.h"

constexpr time_t TR_STOP_LIMIT_S = 1; // for all anchor-set locks together, at termination

int32_t this_is_child = 0;

// ---- Flush ----

// Returns 0, or 32 with the error object set.
static int32_t flush_page(const trace_anchor_t *pPage, int msyncFlags, bool bIgnoreError) TR_HOLDS(global_lock) {
    if (pPage->pMap == nullptr || msync(pPage->pMap, pPage->uActualFileSize, msyncFlags) == 0 || bIgnoreError)
        return 0;
    return set_error_int(TR_RC_MSYNC, TR_RC_MSYNC, errno);
}

// Flushes every page of the anchor's ring, or its one file, or only the ring's active page.
static int32_t flush_anchor(trace_anchor_t *pAnchor, bool bAllPages, int msyncFlags, bool bIgnoreError)
    TR_HOLDS(global_lock) {
    if (!bAllPages)
        return pAnchor->ppActivePg == nullptr ? 0 : flush_page(observe(pAnchor->ppActivePg), msyncFlags, bIgnoreError);
    int32_t rc = 0;
    for (trace_anchor_t *pPage = pAnchor; rc == 0 && pPage != nullptr; pPage = next_page_of(pAnchor, pPage)) {
        rc = flush_page(pPage, msyncFlags, bIgnoreError);
        if (is_switched_off())
            break;
    }
    return rc;
}

static int32_t flush_all(bool bAllPages, int msyncFlags, bool bIgnoreError) TR_HOLDS(global_lock) {
    int32_t rc = 0;
    for (trace_anchor_t *pAnchor = &anchors; rc == 0 && pAnchor != nullptr; pAnchor = observe(&pAnchor->next)) {
        rc = flush_anchor(pAnchor, bAllPages, msyncFlags, bIgnoreError);
        if (is_switched_off())
            break;
    }
    return rc;
}

// `bInitialise`: the library is initialised if need be; otherwise there is nothing to flush then.
static int32_t flush_pages(int32_t inclAllPages, int msyncFlags, int32_t ignoreError, bool bInitialise) {
    debug_line("msync_trace_pages (incl_all_pages=%d flags=%d, ignore=%d) Entered\n", inclAllPages, msyncFlags,
               ignoreError);
    const int lockError = lockGlobalMutex();
    if (lockError != 0)
        return set_error_int(TR_RC_LOCK, TR_RC_LOCK, lockError);
    int32_t rc = 0;
    pthread_cleanup_push(mutex_cleanup, &anchors.anchorMutex);
    if (bInitialise)
        rc = init_if_needed();
    if (rc == 0 && anchors.bInitialized != 0)
        rc = flush_all(inclAllPages != 0, msyncFlags, ignoreError != 0);
    pthread_cleanup_pop(0);
    (void)unlockGlobalMutex();
    debug_line("msync_trace_pages() Leaving\n");
    return rc != 0 ? rc : cu_set_no_error_1();
}

int32_t msync_trace_pages(int32_t incl_all_pages, int32_t msync_flags, int32_t ignore_error) {
    return flush_pages(incl_all_pages, msync_flags, ignore_error, true);
}

// A termination may come at any moment: the copy thread must not initialise the library after it.
void flush_started_files() {
    if (!is_switched_off())
        (void)flush_pages(1, MS_ASYNC, 1, false);
}

int32_t tr_flush_1(void) {
    return msync_trace_pages(1, MS_SYNC, 0);
}

// ---- Stop ----

void stop_trace_page(trace_anchor_t *pAnchor, int32_t child) {
    debug_line("**@ stop_trace_page enter for %s", pAnchor->fileName);
    if (pAnchor->pMap == nullptr)
        return;
    if (child == 0 && observe(&this_is_child) == 0) {
        publish(&header_of(pAnchor->pMap)->uFlags, uint16_t{0});
        (void)msync(pAnchor->pMap, pAnchor->uActualFileSize, MS_SYNC); // unmapped all the same
    }
    (void)munmap(pAnchor->pMap, pAnchor->uActualFileSize);
    pAnchor->pMapEnd = nullptr;
    pAnchor->pMap = nullptr;
    pAnchor->pWrap = nullptr;
    pAnchor->pNextFree = nullptr;
    publish(&pAnchor->uMaxSize, uint32_t{0});
    pAnchor->uActualFileSize = 0;
    pAnchor->damage = {};
    pAnchor->bFull = false;
    debug_line("stop_trace_page leaving for %s", pAnchor->fileName);
}

// The pages of a ring leave the queue before they are unmapped; retired pages are not waited for.
static void stop_ring(trace_anchor_t *pHead, int32_t child) TR_HOLDS(global_lock) TR_HOLDS(anchor_set_lock)
    TR_HOLDS(queue_lock) {
    for (trace_anchor_t *pPage = pHead; pPage != nullptr; pPage = next_page_of(pHead, pPage)) {
        spool_remove_page_inside_spq(&spq, pPage);
        stop_trace_page(pPage, child);
    }
    publish(&pHead->pActivePg, pHead);
    while (trace_anchor_t *const pRetired = pHead->p_obsolete_pages) {
        pHead->p_obsolete_pages = pRetired->nextPage;
        let_page_go(pRetired, child);
    }
    pHead->p_obsolete_pages_tail = nullptr;
}

void let_page_go(trace_anchor_t *pPage, int32_t child) {
    spool_remove_page_inside_spq(&spq, pPage);
    stop_trace_page(pPage, child);
    release_page(pPage);
}

void stop_pages(trace_anchor_t *pAnchor, int32_t child) {
    debug_line("*** stop_trace for %s", pAnchor->fileName);
    if (!is_page(pAnchor)) {
        stop_trace_page(pAnchor, child);
        return;
    }
    lock_queue(&spq);
    stop_ring(pAnchor, child);
    unlock_queue(&spq);
}

int32_t stop_trace(trace_anchor_t *pAnchor, int32_t child) {
    trace_anchor_t *const pHead = set_head(pAnchor);
    const int cancelState = cancel_disable();
    lock_anchor_set_under_global(pHead);
    stop_pages(pHead, child);
    unlock_anchor_set_under_global(pHead);
    cancel_restore(cancelState);
    return 0;
}

void stop_unwanted_traces() {
    for (trace_anchor_t *pAnchor = &anchors; pAnchor != nullptr; pAnchor = observe(&pAnchor->next)) {
        if (pAnchor->pMap != nullptr && is_trace_on(pAnchor) == 0)
            (void)stop_trace(pAnchor, 0);
    }
}

// ---- The end of the process ----

// Stops a plain file or a page set. Returns whether a recorder or a copy let go of it in time.
static bool stop_pages_until(trace_anchor_t *pAnchor, const timespec *pDeadline) TR_HOLDS(global_lock) {
    if (lock_anchor_set_until(pAnchor, pDeadline) != 0)
        return false;
    bool bStopped = true;
    if (!is_page(pAnchor)) {
        stop_pages(pAnchor, 0);
    } else if (lock_queue_until(&spq, pDeadline) == 0) {
        stop_ring(pAnchor, 0);
        unlock_queue(&spq);
    } else {
        bStopped = false;
    }
    unlock_anchor_set_under_global(pAnchor);
    return bStopped;
}

// Stops the anchor's files and empties the anchor. What is not let go in time stays mapped and is flushed.
static void tr_term_file_anchor(trace_anchor_t *pAnchor, const timespec *pDeadline) TR_HOLDS(global_lock) {
    trace_anchor_t *const pHead = set_head(pAnchor);
    if (stop_pages_until(pHead, pDeadline)) {
        dissolve_page_set(pHead);
        lock_anchor_set_under_global(pAnchor);
        pAnchor->fileName[0] = '\0';
        unlock_anchor_set_under_global(pAnchor);
    } else {
        for (const trace_anchor_t *pPage = pHead; pPage != nullptr; pPage = next_page_of(pHead, pPage))
            (void)flush_page(pPage, MS_SYNC, true);
        for (const trace_anchor_t *pPage = pHead->p_obsolete_pages; pPage != nullptr; pPage = pPage->nextPage)
            (void)flush_page(pPage, MS_SYNC, true);
    }
    release_control_lists(pAnchor);
    pAnchor->bInitialized = 0;
}

void tr_term(void) {
    global_stop_trace();
    const pid_t owner = observe(&init_pid);
    if (observe(&this_is_child) != 0 || (owner != 0 && owner != getpid()))
        return; // a child never touches what it inherited
    const int cancelState = cancel_disable();
    wait_for_copy_thread();
    if (lock_global_mutex_at_exit() == 0) {
        timespec deadline;
        clock_gettime(CLOCK_REALTIME, &deadline);
        deadline.tv_sec += TR_STOP_LIMIT_S;
        for (trace_anchor_t *pAnchor = &anchors; pAnchor != nullptr; pAnchor = observe(&pAnchor->next))
            tr_term_file_anchor(pAnchor, &deadline);
        (void)unlockGlobalMutex();
    }
    cancel_restore(cancelState);
}

extern "C" __attribute__((alias("tr_term"), visibility("default"))) void __tr_term(void);

// Runs in the child of a fork before any other code of it.
static void atfork_child() {
    publish(&this_is_child, 1);
    global_stop_trace();
}

void register_atfork() {
    (void)pthread_atfork(nullptr, nullptr, atfork_child);
}
