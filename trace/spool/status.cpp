// The snapshot of the trace files and where their pages go.
#include <pthread.h>

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "trace/engine/engine.h"
#include "trace/frame/frame.h"
#include "trace/publish.h"

// Texts that do not fit are cut.
__attribute__((format(printf, 2, 3))) static void fill(char (&field)[TR_NAME_SIZE], const char *pFormat, ...) {
    va_list args;
    va_start(args, pFormat);
    (void)vsnprintf(field, sizeof field, pFormat, args);
    va_end(args);
}

static void fill_entry(const trace_anchor_t *pAnchor, tr_mini_spooling_anchor_t *pEntry) TR_HOLDS(global_lock) {
    const trace_spool_spec_t *const pSpool = pAnchor->spool;
    if (pSpool == nullptr || pSpool->onoff == 0) {
        fill(pEntry->fileName, "%s", pAnchor->fileName);
        fill(pEntry->dest, "spooling not enabled");
        return;
    }
    fill(pEntry->fileName, "%s (%u page%s", pAnchor->fileName, pSpool->pages, pSpool->pages < 2 ? ")" : "s)");
    fill(pEntry->dest, "%s", pSpool->dir != nullptr ? pSpool->dir : pSpool->dest);
}

// Fills an entry with the anchor's own lock held. The default anchor's is the global lock; in the child of a fork whoever
// held another may not exist any more.
static int32_t snapshot_anchor(trace_anchor_t *pAnchor, tr_mini_spooling_anchor_t *pEntry) TR_HOLDS(global_lock) {
    debug_line("get_current_spool_info in %s (%x)\n", pAnchor->fileName, low_address(pAnchor));
    const bool bLock = pAnchor != &anchors && observe(&this_is_child) == 0;
    int error = bLock ? pthread_mutex_lock(&pAnchor->anchorMutex) : 0;
    if (error != 0) {
        debug_line("get_current_spool_info: failed to get mutex: %d\n", error);
        return -1;
    }
    fill_entry(pAnchor, pEntry);
    error = bLock ? pthread_mutex_unlock(&pAnchor->anchorMutex) : 0;
    if (error != 0) {
        debug_line("get_current_spool_info: failed to release mutex: %d\n", error);
        return -1;
    }
    return 0;
}

static int _strcmp(const void *pLeft, const void *pRight) {
    return strcmp(static_cast<const tr_mini_spooling_anchor_t *>(pLeft)->fileName,
                  static_cast<const tr_mini_spooling_anchor_t *>(pRight)->fileName);
}

static int32_t snapshot_locked(int32_t *pCount, tr_mini_spooling_anchor_t **ppEntries) TR_HOLDS(global_lock) {
    const uint32_t numAnchors = anchors.numAnchors;
    *pCount = static_cast<int32_t>(numAnchors); // stays so when memory is short
    auto *pEntries = static_cast<tr_mini_spooling_anchor_t *>(calloc(numAnchors, sizeof(tr_mini_spooling_anchor_t)));
    debug_line("get_current_spool_info: allocated %d structs\n", *pCount);
    if (pEntries == nullptr)
        return -1;
    uint32_t numFilled = 0;
    for (trace_anchor_t *pAnchor = &anchors; pAnchor != nullptr && numFilled < numAnchors;
         pAnchor = observe(&pAnchor->next)) {
        if (snapshot_anchor(pAnchor, &pEntries[numFilled]) != 0) {
            free(pEntries);
            *pCount = 0;
            return -1;
        }
        numFilled++;
    }
    qsort(pEntries, numFilled, sizeof(tr_mini_spooling_anchor_t), _strcmp);
    *pCount = static_cast<int32_t>(numFilled);
    *ppEntries = pEntries;
    return 0;
}

// Reaches no cancellation point while it holds the lock.
int32_t tr_get_current_spooling_status_1(int32_t *cnt, tr_mini_spooling_anchor_t **spa) {
    if (cnt == nullptr || spa == nullptr)
        return -1;
    *spa = nullptr;
    *cnt = 0;
    if (lockGlobalMutex() != 0)
        return -1;
    const int32_t rc = snapshot_locked(cnt, spa);
    (void)unlockGlobalMutex();
    return rc;
}

void tr_release_spool_info_1(int32_t, tr_mini_spooling_anchor_t *spa) {
    free(spa);
}
