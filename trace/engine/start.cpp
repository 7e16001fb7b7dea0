// Starting a trace file: the steps in their order, the records that the engine writes itself, and when to start at all.
//
//   not started ──start_trace──▶ started ──stop_trace──▶ not started
#include <time.h>
#include <unistd.h>

#include <cstring>

#include "cu/kz_cu.h"
#include "trace/engine/allocate.h"
#include "trace/engine/engine.h"
#include "trace/engine/repair.h"
#include "trace/engine/ring.h"
#include "trace/engine/starting.h"
#include "trace/frame/frame.h"
#include "trace/publish.h"

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

// Opens the records of this process in the file. Returns 0.
static int32_t int_record_start(trace_anchor_t *pAnchor) TR_HOLDS(anchor_set_lock) {
    if (is_switched_off() || pAnchor->uMaxSize == 0)
        return 0;
    uint8_t *pRec = allocate_engine_record(pAnchor, sizeof(trace_record_start_t));
    if (pRec == nullptr)
        return 0;
    cu_timeinfo_t timeInfo = {};
    cu_get_procspeed_1(&timeInfo);
    store_at(pRec + offsetof(trace_record_start_t, pid), static_cast<uint32_t>(getpid()));
    store_at(pRec + offsetof(trace_record_start_t, timeInfo), timeInfo);
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
    publish(&pAnchor->uMaxSize, max_record_size(pFile->uSize));
}

// Opens, maps and validates. Returns 0 with the file ready to be published, or an error code with nothing kept.
static int32_t prepare_file(starting_file_t *pFile) TR_HOLDS(global_lock) {
    const int32_t rc = open_trace_file(pFile);
    if (rc != 0)
        return rc;
    program_names_t names;
    find_program_names(&names);
    settle_contents(pFile, &names);
    return 0;
}

// Publishes and writes the start record. Damage that the record meets came from outside since the ring was validated, a
// moment ago: there is nothing to be kept, and the ring is made anew in place.
static int32_t finish_start(trace_anchor_t *pAnchor, const starting_file_t *pFile) TR_HOLDS(global_lock)
    TR_HOLDS(anchor_set_lock) {
    publish_file(pAnchor, pFile);
    (void)int_record_start(pAnchor);
    trace_damage_t damage;
    if (take_damage(pAnchor, &damage)) {
        log_damage(&damage);
        reinit_in_place(pAnchor);
        (void)int_record_start(pAnchor);
    }
    return pFile->bModeFailed ? TR_RC_MODE : 0;
}

static starting_file_t new_start(const trace_anchor_t *pAnchor, start_options_t options) {
    starting_file_t file = {};
    file.pAnchor = pAnchor;
    file.options = options;
    file.fd = -1;
    return file;
}

int32_t start_trace(trace_anchor_t *pAnchor) {
    if (observe(&this_is_child) != 0)
        return 0;
    log_start_enter(pAnchor);
    if (pAnchor->pMap != nullptr)
        return 0;
    const int cancelState = cancel_disable(); // what is mapped is published
    starting_file_t file = new_start(pAnchor, {.bQuiet = false, .bReinit = false, .cancelState = cancelState});
    int32_t rc = prepare_file(&file);
    if (rc == 0) {
        lock_anchor_set_under_global(pAnchor);
        rc = finish_start(pAnchor, &file);
        unlock_anchor_set_under_global(pAnchor);
    }
    debug_line("<<start_trace exit for %s\n\n", pAnchor->fileName);
    cancel_restore(cancelState);
    return rc;
}

int32_t restart_trace(trace_anchor_t *pAnchor, bool bReinit) {
    log_start_enter(pAnchor);
    starting_file_t file =
        new_start(pAnchor, {.bQuiet = true, .bReinit = bReinit, .cancelState = PTHREAD_CANCEL_DISABLE});
    int32_t rc = prepare_file(&file);
    if (rc == 0)
        rc = finish_start(pAnchor, &file);
    debug_line("<<start_trace exit for %s\n\n", pAnchor->fileName);
    return rc;
}
