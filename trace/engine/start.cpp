// Starting a trace file: the steps in their order, the records that the engine writes itself, and when to start at all.
//
//   not started ──start_trace──▶ started ──stop_trace──▶ not started
#include <pthread.h>
#include <sys/mman.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>

#include "cu/kz_cu.h"
#include "trace/engine/allocate.h"
#include "trace/engine/engine.h"
#include "trace/engine/page_set.h"
#include "trace/engine/repair.h"
#include "trace/engine/ring.h"
#include "trace/engine/starting.h"
#include "trace/frame/frame.h"
#include "trace/publish.h"
#include "trace/spool/spool.h"

constexpr size_t TR_ARGS_SIZE = 512; // bytes read of the process's arguments

int32_t start_error(const starting_file_t *pFile, int32_t code, int32_t message) {
    return pFile->options.bQuiet ? code : set_error(code, message);
}

int32_t start_error_int(const starting_file_t *pFile, int32_t code, int32_t message, int32_t insert) {
    return pFile->options.bQuiet ? code : set_error_int(code, message, insert);
}

int32_t start_error_name(const starting_file_t *pFile, int32_t code) {
    return pFile->options.bQuiet ? code : set_error_str(code, code, pFile->pAnchor->fileName);
}

// ---- Whether to start ----

int32_t is_trace_on(const trace_anchor_t *pAnchor) {
    if (pAnchor->fileName[0] == '\0')
        return 0;
    for (const component_anchor_t *pComp = anchors.pFirstComp; pComp != nullptr; pComp = pComp->pNext) {
        for (int32_t i = 0; i < pComp->numberOfCategories; i++) {
            if (observe(&pComp->pDetailLevels[i]) != 0)
                return 1;
        }
    }
    return 0;
}

int32_t start_wanted_traces() {
    int32_t rc = 0;
    for (trace_anchor_t *pAnchor = &anchors; pAnchor != nullptr; pAnchor = observe(&pAnchor->next)) {
        if (pAnchor->pMap == nullptr && is_trace_on(pAnchor) != 0)
            rc = start_trace(pAnchor);
    }
    return rc;
}

// ---- The engine's own records ----

// Reserves a record for the engine and names it. Returns null when there is no room.
static uint8_t *allocate_engine_record(trace_anchor_t *pAnchor, uint32_t length) TR_HOLDS(anchor_set_lock) {
    uint8_t *pRec = allocate_space(pAnchor, &length);
    if (pRec != nullptr)
        memcpy(pRec + offsetof(trace_record_header_t, compId), TR_ENGINE_COMP_ID, TR_COMP_ID_SIZE);
    return pRec;
}

// What a start record and a restart record begin with.
static void fill_start_record(uint8_t *pRec) {
    cu_timeinfo_t timeInfo = {};
    cu_get_procspeed_1(&timeInfo);
    store_at(pRec + offsetof(trace_record_start_t, pid), static_cast<uint32_t>(getpid()));
    store_at(pRec + offsetof(trace_record_start_t, timeInfo), timeInfo);
}

// Opens the records of this process behind a core event: like a start record, with the event's message, of `length`
// bytes; one that does not fit is cut. Returns 0.
static int32_t segfault_restart(trace_anchor_t *pAnchor, uint64_t length) TR_HOLDS(anchor_set_lock) {
    constexpr uint32_t HEAD = sizeof(trace_record_start_t); // bytes before the message
    if (pAnchor->uMaxSize == 0)
        return 0;
    const auto recLength =
        static_cast<uint32_t>(std::min<uint64_t>((length + HEAD + 4) & ~uint64_t{3}, pAnchor->uMaxSize));
    uint8_t *pRec = allocate_engine_record(pAnchor, recLength);
    if (pRec == nullptr)
        return 0;
    fill_start_record(pRec);
    char *const pMessage = reinterpret_cast<char *>(pRec + HEAD);
    *pMessage = '\0'; // the event may have changed since it was measured
    (void)get_core_message(pAnchor, pMessage, recLength - HEAD);
    publish_kind(pRec, TR_KIND_CORE_RESTART);
    return 0;
}

// Opens the records of this process in the file or page. Returns 0.
static int32_t int_record_start(trace_anchor_t *pAnchor) TR_HOLDS(anchor_set_lock) {
    if (is_switched_off() || pAnchor->uMaxSize == 0)
        return 0;
    const int64_t coreLength = get_core_message(pAnchor, nullptr, 0);
    if (coreLength >= 0)
        return segfault_restart(pAnchor, static_cast<uint64_t>(coreLength));
    uint8_t *pRec = allocate_engine_record(pAnchor, sizeof(trace_record_start_t));
    if (pRec == nullptr)
        return 0;
    fill_start_record(pRec);
    publish_kind(pRec, TR_KIND_START);
    return 0;
}

int32_t __time_calibration(trace_anchor_t *pAnchor) {
    if (pAnchor->uMaxSize == 0)
        return 0;
    uint8_t *pRec = allocate_engine_record(pAnchor, sizeof(time_calibration_t));
    if (pRec == nullptr)
        return 0;
    cu_timeinfo_t timeInfo = load_at<cu_timeinfo_t>(pAnchor->pMap + offsetof(trace_file_header_t, timeInfo));
    cu_compute_base_timeinfo_1(&timeInfo);
    store_at(pRec + offsetof(time_calibration_t, reBase), timeInfo);
    publish_kind(pRec, TR_KIND_CALIBRATION);
    return 0;
}

// ---- The start itself ----

static void copy_cut(char (&to)[TR_PROGRAM_SIZE], const char *pFrom) {
    const size_t length = strnlen(pFrom, sizeof to - 1);
    memcpy(to, pFrom, length);
    to[length] = '\0';
}

static void find_program_names(program_names_t *pNames) {
    char args[TR_ARGS_SIZE] = "";
    if (cu_get_proc_args_1(getpid(), args, sizeof args) == -1)
        args[0] = '\0';
    args[sizeof args - 1] = '\0';
    const char *pSlash = strrchr(args, '/');
    const char *pBase = pSlash != nullptr ? pSlash + 1 : args;
    if (args[0] != '\0')
        debug_line("baseName: %s\n", pBase);
    copy_cut(pNames->program, args);
    copy_cut(pNames->baseProgName, pBase);
}

static void log_start_enter(const trace_anchor_t *pAnchor) {
    char when[26] = ""; // the size that ctime_r demands
    const time_t now = time(nullptr);
    (void)ctime_r(&now, when);
    debug_line(">>start_trace enter for %s %s", pAnchor->fileName, when);
}

// The anchor takes over the file; from here recorders get in. `uMaxSize` last, for those who only look.
static void publish_file(trace_anchor_t *pAnchor, const starting_file_t *pFile) TR_HOLDS(global_lock)
    TR_HOLDS(anchor_set_lock) {
    pAnchor->pMap = pFile->pMap;
    pAnchor->pMapEnd = pFile->pMap + pFile->uSize;
    pAnchor->uActualFileSize = static_cast<uint32_t>(pFile->uSize);
    pAnchor->pWrap = pFile->pMap + TR_DATA_OFFSET;
    pAnchor->pNextFree = pFile->pMap + pFile->nextFreeOffset;
    pAnchor->seqNumber = pFile->seqNumber;
    pAnchor->device = pFile->device;
    pAnchor->inode = pFile->inode;
    pAnchor->damage = {};
    pAnchor->bFull = is_page(pAnchor) && record_kind(pAnchor->pNextFree) != TR_KIND_FREE; // to the very end
    publish(&pAnchor->uMaxSize, max_record_size(pFile->uSize));
}

// Opens, maps and validates. Returns 0 with the file ready to be published, or an error code with nothing kept.
static int32_t prepare_file(starting_file_t *pFile) TR_HOLDS(global_lock) {
    log_start_enter(pFile->pAnchor);
    const int32_t rc = open_trace_file(pFile);
    if (rc == 0) {
        program_names_t names;
        find_program_names(&names);
        settle_contents(pFile, &names);
    }
    debug_line("<<start_trace exit for %s\n\n", pFile->pAnchor->fileName);
    return rc;
}

static starting_file_t new_start(const trace_anchor_t *pAnchor, start_options_t options) {
    starting_file_t file = {};
    file.pAnchor = pAnchor;
    file.options = options;
    file.fd = -1;
    return file;
}

// How the pages of a set are started: by a control call, which takes the anchor-set lock to publish each, or by a repair,
// which holds it.
struct start_of_set_t {
    start_options_t options;
    const trace_anchor_t *pReinitPage;
    bool bHoldsSet;
    trace_anchor_t *pActive; // where records were written last
};

TR_UNCHECKED static void lock_for_start(const start_of_set_t *pStart, trace_anchor_t *pAnchor) TR_HOLDS(global_lock)
    TR_LOCK(anchor_set_lock) {
    if (!pStart->bHoldsSet)
        lock_anchor_set_under_global(pAnchor);
}

TR_UNCHECKED static void unlock_for_start(const start_of_set_t *pStart, trace_anchor_t *pAnchor) TR_HOLDS(global_lock)
    TR_UNLOCK(anchor_set_lock) {
    if (!pStart->bHoldsSet)
        unlock_anchor_set_under_global(pAnchor);
}

static starting_file_t prepare_start(const start_of_set_t *pStart, const trace_anchor_t *pPage, int32_t *pRc)
    TR_HOLDS(global_lock) {
    starting_file_t file = new_start(pPage, pStart->options);
    file.options.bReinit = pPage == pStart->pReinitPage;
    *pRc = prepare_file(&file);
    return file;
}

// Starts the pages behind the head until one fails. Nothing is recorded in them before the head is published.
static int32_t start_other_pages(start_of_set_t *pStart, trace_anchor_t *pHead) TR_HOLDS(global_lock) {
    for (trace_anchor_t *pPage = next_page_of(pHead, pHead); pPage != nullptr; pPage = next_page_of(pHead, pPage)) {
        int32_t rc = 0;
        const starting_file_t file = prepare_start(pStart, pPage, &rc);
        if (rc != 0)
            return rc;
        lock_for_start(pStart, pHead);
        publish_file(pPage, &file);
        unlock_for_start(pStart, pHead);
        if (file.bWasActive)
            pStart->pActive = pPage;
        if (file.bModeFailed)
            return TR_RC_MODE;
    }
    return 0;
}

// Exactly one page is the active one.
static void settle_active_page(trace_anchor_t *pHead, trace_anchor_t *pActive) TR_HOLDS(global_lock)
    TR_HOLDS(anchor_set_lock) {
    publish(&pHead->pActivePg, pActive);
    for (trace_anchor_t *pPage = pHead; pPage != nullptr; pPage = next_page_of(pHead, pPage)) {
        if (pPage->pMap != nullptr)
            publish(&header_of(pPage->pMap)->sp_flags, static_cast<uint8_t>(pPage == pActive ? TR_ACTIVE : TR_READY));
    }
}

// Writes the start record. Damage that it meets came from outside since the ring was validated, a moment ago: there is
// nothing to be kept, and the ring is made anew in place.
static void open_records(trace_anchor_t *pAnchor) TR_HOLDS(global_lock) TR_HOLDS(anchor_set_lock) {
    const auto record_start = [&]() TR_HOLDS(anchor_set_lock) {
        active_page_t target = {.pPage = pAnchor, .uMaxSize = pAnchor->uMaxSize};
        if (is_page(pAnchor))
            target = active_page(pAnchor);
        if (target.uMaxSize != 0)
            (void)int_record_start(target.pPage);
    };
    record_start();
    trace_damage_t damage;
    if (take_damage(pAnchor, &damage)) {
        log_damage(&damage);
        reinit_in_place(pAnchor);
        record_start();
        if (take_damage(pAnchor, &damage)) // somebody is at it all the time
            reinit_in_place(pAnchor);
    }
}

// A head that is mapped and not published yet, while the pages behind it are started.
struct unpublished_head_t {
    trace_anchor_t *pHead;
    const starting_file_t *pFile;
};

// Clean-up of a start that is cancelled at a page behind the head: nothing of the set stays started.
TR_UNCHECKED static void abandon_start(void *pArg) {
    const auto *const pStarting = static_cast<const unpublished_head_t *>(pArg);
    (void)munmap(pStarting->pFile->pMap, pStarting->pFile->uSize);
    (void)stop_trace(pStarting->pHead, 0);
}

// Starts a plain file or all pages of a set; the head is published last. Also when a page behind it fails, the head
// records what comes, behind a start record.
static int32_t start_pages(start_of_set_t *pStart, trace_anchor_t *pHead) TR_HOLDS(global_lock) {
    int32_t rc = 0;
    const starting_file_t file = prepare_start(pStart, pHead, &rc);
    if (rc != 0)
        return rc;
    pStart->pActive = pHead;
    unpublished_head_t unpublished = {.pHead = pHead, .pFile = &file};
    pthread_cleanup_push(abandon_start, &unpublished);
    rc = file.bModeFailed ? TR_RC_MODE : start_other_pages(pStart, pHead);
    pthread_cleanup_pop(0);
    lock_for_start(pStart, pHead);
    publish_file(pHead, &file);
    if (is_page(pHead))
        settle_active_page(pHead, pStart->pActive);
    open_records(pHead);
    unlock_for_start(pStart, pHead);
    return rc;
}

int32_t start_as_set(trace_anchor_t *pAnchor) {
    if (pAnchor->spool != nullptr && !is_page(pAnchor)) {
        const int32_t rc = build_page_set(pAnchor);
        if (rc != 0)
            return rc;
    }
    const int cancelState = cancel_disable(); // what is mapped is published
    start_of_set_t start = {
        .options = {.bQuiet = false, .bReinit = false, .bNewPage = false, .cancelState = cancelState},
        .pReinitPage = nullptr,
        .bHoldsSet = false,
        .pActive = nullptr};
    const int32_t rc = start_pages(&start, pAnchor);
    cancel_restore(cancelState);
    return rc;
}

int32_t start_trace(trace_anchor_t *pAnchor) {
    trace_anchor_t *const pHead = set_head(pAnchor);
    if (observe(&this_is_child) != 0)
        return 0;
    if (pHead->pMap != nullptr) {
        log_start_enter(pHead);
        return 0;
    }
    if (!is_page(pHead) && anchors.pFirstSpoolSpec != nullptr) {
        const int cancelState = cancel_disable();
        (void)process_spool_spec(pHead, anchors.pFirstSpoolSpec);
        cancel_restore(cancelState);
    }
    return start_as_set(pHead);
}

int32_t restart_trace(trace_anchor_t *pAnchor, const trace_anchor_t *pReinitPage) {
    start_of_set_t start = {
        .options = {.bQuiet = true, .bReinit = false, .bNewPage = false, .cancelState = PTHREAD_CANCEL_DISABLE},
        .pReinitPage = pReinitPage,
        .bHoldsSet = true,
        .pActive = nullptr};
    return start_pages(&start, pAnchor);
}

void start_new_page(trace_anchor_t *pPage) {
    starting_file_t file =
        new_start(pPage, {.bQuiet = true, .bReinit = false, .bNewPage = true, .cancelState = PTHREAD_CANCEL_DISABLE});
    if (prepare_file(&file) != 0)
        return;
    lock_anchor_set_under_global(pPage);
    publish_file(pPage, &file);
    publish(&header_of(pPage->pMap)->sp_flags, static_cast<uint8_t>(TR_READY));
    unlock_anchor_set_under_global(pPage);
}
