// Files found damaged by their writer.
//
// The reservation that meets damage only notes it: it holds the anchor-set lock, and repairing needs the global lock,
// which comes first. The recorder repairs after it released its lock; meanwhile others find the note and record
// nothing.
//
//   intact ──note_damage──▶ noted ──take_damage──▶ taken ──repair, or a stop──▶ intact
#include <stdio.h>

#include <cerrno>
#include <cstring>

#include "trace/engine/page_set.h"
#include "trace/engine/repair.h"
#include "trace/engine/starting.h"
#include "trace/engine/stopping.h"
#include "trace/publish.h"

constexpr size_t TR_LOOP_TEXT_SIZE = 59; // bytes; a longer line is cut

void note_damage(trace_anchor_t *pAnchor, trace_damage_kind_t kind, uint32_t uReqLength) {
    trace_anchor_t *const pHead = set_head(pAnchor);
    pHead->damage = {.kind = kind, .bTaken = false, .uReqLength = uReqLength, .pPage = pAnchor};
    publish(&pAnchor->uMaxSize, uint32_t{0}); // recorders take it for not started
    publish(&pHead->uMaxSize, uint32_t{0});
}

bool take_damage(trace_anchor_t *pAnchor, trace_damage_t *pDamage) {
    trace_damage_t *const pNote = &set_head(pAnchor)->damage;
    if (pNote->kind == TR_DAMAGE_NONE || pNote->bTaken)
        return false;
    pNote->bTaken = true;
    *pDamage = *pNote;
    return true;
}

void log_damage(const trace_damage_t *pDamage) {
    char loopText[TR_LOOP_TEXT_SIZE];
    switch (pDamage->kind) {
    case TR_DAMAGE_LOOP:
        (void)snprintf(loopText, sizeof loopText, "zorv_trace: allocate_space allocation loop (%u)\n",
                       pDamage->uReqLength);
        log_trc_error(loopText, '0');
        break;
    case TR_DAMAGE_OVERWRAP:
        log_trc_error("zorv_trace: allocate_space allocation loop overwrap\n", '0');
        break;
    case TR_DAMAGE_OVERRUN:
        log_trc_error("zorv_trace: allocate_space overrun one\n", '0');
        break;
    case TR_DAMAGE_NONE:
    case TR_DAMAGE_PAGE_FULL:
        break;
    }
}

void reinit_in_place(trace_anchor_t *pAnchor) {
    trace_anchor_t *const pPage = pAnchor->damage.pPage;
    reset_ring(pPage->pMap, pPage->uActualFileSize);
    pPage->pWrap = pPage->pNextFree = pPage->pMap + TR_DATA_OFFSET;
    pPage->seqNumber = 0;
    pPage->bFull = false;
    pAnchor->damage = {};
    publish(&pPage->uMaxSize, max_record_size(pPage->uActualFileSize));
    publish(&pAnchor->uMaxSize, max_record_size(pAnchor->uActualFileSize));
}

// Renames the file to its name with ".save" appended, in place of an older one. Returns false when that fails.
static bool keep_damaged_file(const char *pName) {
    char saved[TR_NAME_SIZE];
    const size_t length = strlen(pName);
    if (length + sizeof TR_SAVE_SUFFIX > sizeof saved)
        return false;
    memcpy(saved, pName, length);
    memcpy(saved + length, TR_SAVE_SUFFIX, sizeof TR_SAVE_SUFFIX);
    return rename(pName, saved) == 0;
}

// A file that can't be kept is made anew in place, or an unwritable directory would have it restarted for ever. Of a page
// set all pages are stopped and started, but only the damaged one is made anew.
static void trace_reinit(trace_anchor_t *pAnchor) TR_HOLDS(global_lock) TR_HOLDS(anchor_set_lock) {
    const bool bWanted = is_trace_on(pAnchor) != 0;
    const trace_anchor_t *const pPage = pAnchor->damage.pPage;
    const bool bKept = keep_damaged_file(pPage->fileName); // first: a retired page goes when its set is stopped
    if (bWanted) {
        stop_pages(pAnchor, 0);
        (void)restart_trace(pAnchor, bKept ? nullptr : pPage);
    } else {
        reinit_in_place(pAnchor); // goes on in the renamed file until it is stopped
    }
}

void repair_damage(trace_anchor_t *pAnchor, const trace_damage_t *pDamage) {
    const int savedErrno = errno;
    const int cancelState = cancel_disable();
    log_damage(pDamage);
    if (lockGlobalMutex() == 0) {
        trace_anchor_t *const pHead = set_head(pAnchor);
        lock_anchor_set_under_global(pHead);
        if (pHead->damage.kind != TR_DAMAGE_NONE) // not stopped meanwhile
            trace_reinit(pHead);
        unlock_anchor_set_under_global(pHead);
        (void)unlockGlobalMutex();
    }
    cancel_restore(cancelState);
    errno = savedErrno;
}
