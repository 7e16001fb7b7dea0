// Following the configuration file while the program runs: on the copy thread.
#include <sys/stat.h>

#include <cerrno>
#include <cstdlib>

#include "trace/engine/engine.h"
#include "trace/frame/frame.h"
#include "trace/publish.h"
#include "trace/spool/config.h"
#include "trace/spool/page_sets.h"
#include "trace/spool/spool.h"

time_t configuration_file_last_modified = 0;
pthread_mutex_t configuration_file_last_modified_mutex = PTHREAD_MUTEX_INITIALIZER;

// The entries before the present ones: callers of tr_get_spool_dir_1 may still read a text in them. Guarded by the global
// lock.
static constinit trace_spool_spec_t *pFormerSpecs = nullptr;

// ---- Whether there is something to do ----

// Under configuration_file_last_modified_mutex. Seconds only, and taken up before it is read: a file is to be replaced
// by renaming another one.
static configuration_action_t do_determine_configuration_action_from_the_configuration_file() {
    struct stat status;
    if (stat(TR_SPOOL_CONFIG_FILE, &status) != 0)
        return errno == ENOENT ? TURN_SPOOLING_OFF : TAKE_NO_ACTION;
    if (status.st_mtime <= configuration_file_last_modified)
        return TAKE_NO_ACTION;
    configuration_file_last_modified = status.st_mtime;
    return RECONFIGURE;
}

// Reaches no cancellation point while the mutex is held. In the child of a fork its holder may not exist any more.
configuration_action_t determine_configuration_action_from_the_configuration_file() {
    if (observe(&this_is_child) != 0 || pthread_mutex_lock(&configuration_file_last_modified_mutex) != 0)
        return TAKE_NO_ACTION;
    const configuration_action_t action = do_determine_configuration_action_from_the_configuration_file();
    (void)pthread_mutex_unlock(&configuration_file_last_modified_mutex);
    return action;
}

// ---- Lists of entries ----

struct spool_specs_t {
    trace_spool_spec_t *pFirst;
    trace_spool_spec_t *pLast;
};

static void append(spool_specs_t *pList, trace_spool_spec_t *pSpec) {
    pSpec->pPrev = pList->pLast;
    pSpec->pNext = nullptr;
    (pList->pLast != nullptr ? pList->pLast->pNext : pList->pFirst) = pSpec;
    pList->pLast = pSpec;
}

// Takes an entry out of a list. Returns whether it was there.
static bool take_out(spool_specs_t *pList, trace_spool_spec_t *pSpec) {
    const trace_spool_spec_t *pFound = pList->pFirst;
    while (pFound != nullptr && pFound != pSpec)
        pFound = pFound->pNext;
    if (pFound == nullptr)
        return false;
    (pSpec->pPrev != nullptr ? pSpec->pPrev->pNext : pList->pFirst) = pSpec->pNext;
    (pSpec->pNext != nullptr ? pSpec->pNext->pPrev : pList->pLast) = pSpec->pPrev;
    return true;
}

static spool_specs_t present_specs() TR_HOLDS(global_lock) {
    return {.pFirst = anchors.pFirstSpoolSpec, .pLast = anchors.pLastSpoolSpec};
}

static void install(const spool_specs_t *pList) TR_HOLDS(global_lock) {
    anchors.pFirstSpoolSpec = pList->pFirst;
    anchors.pLastSpoolSpec = pList->pLast;
}

// ---- Taking up a changed file ----

// Binds every anchor against the fresh entries. Entries that anchors still need stay, behind the fresh ones.
static void replace_specs(spool_specs_t fresh) TR_HOLDS(global_lock) {
    spool_specs_t old = present_specs();
    spool_specs_t kept = {};
    install(&fresh);
    for (trace_anchor_t *pAnchor = &anchors; pAnchor != nullptr; pAnchor = observe(&pAnchor->next)) {
        pAnchor->bSpoolProcessed = 0;
        trace_spool_spec_t *const pSpec = process_spool_spec(pAnchor, fresh.pFirst);
        if (pSpec != nullptr && take_out(&old, pSpec))
            append(&kept, pSpec);
    }
    while (trace_spool_spec_t *const pSpec = kept.pFirst) {
        (void)take_out(&kept, pSpec);
        append(&fresh, pSpec);
    }
    install(&fresh);
    free_spool_spec_linked_list(pFormerSpecs);
    pFormerSpecs = old.pFirst;
}

// Cancellation is off: a list is replaced whole or not at all.
static void reconfigure() {
    spool_specs_t fresh = {};
    if (spool_conf_file(&fresh.pFirst, &fresh.pLast) != 0) {
        free_spool_spec_linked_list(fresh.pFirst);
        return;
    }
    if (lockGlobalMutex() != 0) {
        free_spool_spec_linked_list(fresh.pFirst);
        return;
    }
    read_spool_cfg_once(); // before the library is initialised: the first reading must not add to this one
    for (trace_spool_spec_t *pSpec = fresh.pFirst; pSpec != nullptr; pSpec = pSpec->pNext) {
        if (pSpec->onoff == 0) {
            spool_nowhere(pSpec);
            pSpec->onoff = 1;
        }
    }
    if (!is_switched_off())
        replace_specs(fresh);
    else
        free_spool_spec_linked_list(fresh.pFirst);
    (void)unlockGlobalMutex();
}

// Rings, pages and switches stay as they are: full pages are handed over, and copied nowhere.
static void turn_spooling_off_in_all_spool_specs() {
    if (lockGlobalMutex() != 0)
        return;
    for (trace_spool_spec_t *pSpec = anchors.pFirstSpoolSpec; pSpec != nullptr; pSpec = pSpec->pNext)
        spool_nowhere(pSpec);
    (void)unlockGlobalMutex();
}

void configure_if_necessary() {
    if (secure_getenv("KZ_TR_SPOOL") != nullptr)
        return;
    const int cancelState = cancel_disable();
    switch (determine_configuration_action_from_the_configuration_file()) {
    case RECONFIGURE:
        reconfigure();
        break;
    case TURN_SPOOLING_OFF:
        turn_spooling_off_in_all_spool_specs();
        break;
    case TAKE_NO_ACTION:
        break;
    }
    cancel_restore(cancelState);
}
