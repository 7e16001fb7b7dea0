// Setting and asking for the name of the default trace file and the sizes of all.
//
// A file that is started is stopped and started again to take a new name or size; meanwhile recorders find it not
// started. Everything runs under the global lock, so that nobody else starts the file in between.
#include "trace/control/settings.h"

#include <algorithm>

#include "cu/kz_cu.h"
#include "trace/engine/engine.h"
#include "trace/engine/page_set.h"
#include "trace/frame/frame.h"

// ---- The name of the default trace file ----

static void stop_all_traces() TR_HOLDS(global_lock) {
    for (trace_anchor_t *pAnchor = &anchors; pAnchor != nullptr; pAnchor = observe(&pAnchor->next))
        (void)stop_trace(pAnchor, 0);
}

static int32_t set_filename_locked(const char *pFileName) TR_HOLDS(global_lock) {
    const int32_t rc = init_if_needed();
    if (rc != 0)
        return rc;
    if (pFileName == nullptr) {
        stop_all_traces();
        return 0;
    }
    if (strcmp(anchors.fileName, pFileName) == 0 || has_base_name(&anchors, pFileName))
        return 0; // a page set goes by the name that it was given and by that of its first page
    trace_anchor_t *const pHead = set_head(&anchors); // another one when a set has adopted the default file
    (void)stop_trace(pHead, 0);
    dissolve_page_set(pHead);
    lock_anchor_set_under_global(&anchors);
    memcpy(anchors.fileName, pFileName, strlen(pFileName) + 1); // its length was checked
    unlock_anchor_set_under_global(&anchors);
    if (pHead != &anchors && is_trace_on(pHead) != 0)
        (void)start_trace(pHead);
    return is_trace_on(&anchors) != 0 ? start_trace(&anchors) : 0;
}

int32_t tr_set_filename_1(const char *pFileName) {
    if (pFileName != nullptr && !is_file_name(pFileName))
        return set_error_str(TR_RC_FILE_NAME, TR_RC_FILE_NAME, pFileName);
    const int lockError = lockGlobalMutex();
    if (lockError != 0)
        return set_error_int(TR_RC_LOCK, TR_RC_LOCK, lockError);
    int32_t rc = 0;
    pthread_cleanup_push(mutex_cleanup, &anchors.anchorMutex);
    rc = set_filename_locked(pFileName);
    pthread_cleanup_pop(0);
    (void)unlockGlobalMutex();
    return rc == 0 ? cu_set_no_error_1() : rc;
}

extern "C" __attribute__((alias("tr_set_filename_1"), visibility("default"))) int32_t __tr_set_filename_1(const char *);

int32_t tr_get_filename_1(char *pFileName) {
    if (pFileName == nullptr)
        return set_error_str(TR_RC_FILE_NAME, TR_RC_FILE_NAME, TR_NULL_TEXT);
    const int lockError = lockGlobalMutex();
    if (lockError != 0)
        return set_error_int(TR_RC_LOCK, TR_RC_LOCK, lockError);
    const int32_t rc = init_if_needed();
    if (rc == 0)
        memcpy(pFileName, anchors.fileName, strlen(anchors.fileName) + 1);
    (void)unlockGlobalMutex();
    return rc == 0 ? cu_set_no_error_1() : rc;
}

// ---- Sizes ----

// Sets the size in a plain file, or its share in each page of a set.
static void store_size(trace_anchor_t *pHead, uint32_t newSize) TR_HOLDS(global_lock) TR_HOLDS(anchor_set_lock) {
    const uint32_t numPages = pHead->spool != nullptr ? pHead->spool->pages : 0;
    const uint32_t size = numPages != 0 ? page_size_for(pHead, newSize, numPages) : newSize;
    pHead->uUnpagedSize = newSize;
    for (trace_anchor_t *pPage = pHead; pPage != nullptr; pPage = next_page_of(pHead, pPage)) {
        debug_line("^^^ setting size in %s", pPage->fileName);
        pPage->uRequestedFileSize = size;
    }
}

// A started file is stopped and started again with its new size.
static int32_t tr_set_size_in_anchor(trace_anchor_t *pAnchor, uint32_t newSize) TR_HOLDS(global_lock) {
    trace_anchor_t *const pHead = set_head(pAnchor);
    if (is_switched_off() || pHead->uRequestedFileSize == newSize)
        return 0;
    lock_anchor_set_under_global(pHead);
    store_size(pHead, newSize);
    unlock_anchor_set_under_global(pHead);
    if (pHead->pMap == nullptr)
        return 0;
    const int32_t rc = stop_trace(pHead, 0);
    return rc == 0 ? start_trace(pHead) : rc;
}

static int32_t set_file_size_locked(const char *pFileName, uint32_t size) TR_HOLDS(global_lock) {
    const int32_t rc = init_if_needed();
    if (rc != 0)
        return rc;
    debug_line("tr_set_file_size: %s\n", pFileName);
    trace_anchor_t *const pAnchor = findOrCreateAnchorForFile(pFileName, 1);
    if (pAnchor == nullptr)
        return set_error(TR_RC_NO_MEMORY, TR_RC_NO_MEMORY);
    return tr_set_size_in_anchor(pAnchor, size);
}

int32_t tr_set_file_size_1(const char *fileName, uint32_t size) {
    if (is_switched_off())
        return 0;
    if (fileName == nullptr || !is_file_name(fileName))
        return set_error_str(TR_RC_FILE_NAME, TR_RC_FILE_NAME, fileName != nullptr ? fileName : TR_NULL_TEXT);
    const int lockError = lockGlobalMutex();
    if (lockError != 0)
        return set_error_int(TR_RC_LOCK, TR_RC_LOCK, lockError);
    int32_t rc = 0;
    pthread_cleanup_push(mutex_cleanup, &anchors.anchorMutex);
    rc = set_file_size_locked(fileName, size);
    pthread_cleanup_pop(0);
    (void)unlockGlobalMutex();
    return rc == 0 ? cu_set_no_error_1() : rc;
}

int32_t tr_set_size_1(uint32_t newSize) {
    return tr_set_file_size_1("", newSize);
}

extern "C" __attribute__((alias("tr_set_size_1"), visibility("default"))) int32_t __tr_set_size_1(uint32_t);

static int32_t tr_get_size_from_anchor(const trace_anchor_t *pAnchor, uint32_t *pSize) TR_HOLDS(global_lock) {
    if (pAnchor->pMap != nullptr) {
        *pSize = pAnchor->uActualFileSize;
        return 0;
    }
    *pSize = pAnchor->uRequestedFileSize;
    return set_error(TR_RC_SIZE_REQUESTED, TR_RC_SIZE_REQUESTED);
}

static int32_t get_file_size_locked(const char *pFileName, uint32_t *pSize) TR_HOLDS(global_lock) {
    const int32_t rc = init_if_needed();
    if (rc != 0)
        return rc;
    const trace_anchor_t *const pAnchor = findOrCreateAnchorForFile(pFileName, 0);
    if (pAnchor == nullptr)
        return set_error_str(TR_RC_FILE_NAME, TR_RC_FILE_NAME, pFileName);
    return tr_get_size_from_anchor(pAnchor, pSize);
}

int32_t tr_get_file_size_1(const char *fileName, uint32_t *pSize) {
    if (is_switched_off())
        return 0;
    if (fileName == nullptr || pSize == nullptr)
        return set_error_str(TR_RC_FILE_NAME, TR_RC_FILE_NAME, fileName != nullptr ? fileName : TR_NULL_TEXT);
    const int lockError = lockGlobalMutex();
    if (lockError != 0)
        return set_error_int(TR_RC_LOCK, TR_RC_LOCK, lockError);
    const int32_t rc = get_file_size_locked(fileName, pSize); // reaches no cancellation point
    (void)unlockGlobalMutex();
    return rc == 0 ? cu_set_no_error_1() : rc;
}

int32_t tr_get_size_1(uint32_t *pSize) {
    return tr_get_file_size_1("", pSize);
}

// ---- File size specifications ----

// Text without a number gives 0, as the platform's conversions do.
int32_t parse_file_size(spec_range_t *pText, file_size_spec_t *pSpec, spec_fault_t *pFault) {
    spec_range_t group = {.pText = pText->pText, .pos = pText->pos, .end = find_char(pText, ';')}; // also inside quotes
    pText->pos = std::min(group.end + 1, pText->end);
    parseFileName(&group, pSpec->fileName);
    if (group.pos == group.end)
        return spec_fault(pFault, TR_RC_SPEC_SEPARATOR, group.pos);
    const char *pStop = nullptr;
    pSpec->uSize = static_cast<uint32_t>(read_number(group.pText + group.pos, &pStop));
    return 0;
}

int32_t parse_fileSize_spec(const char *pText) {
    file_size_spec_t spec;
    spec_fault_t fault = {};
    spec_range_t text = whole_text(pText);
    while (text.pos < text.end) {
        if (parse_file_size(&text, &spec, &fault) != 0)
            return set_spec_error(&fault);
        trace_anchor_t *const pAnchor = findOrCreateAnchorForFile(spec.fileName, 1);
        if (pAnchor == nullptr)
            return set_error(TR_RC_NO_MEMORY, TR_RC_NO_MEMORY);
        const int32_t rc = tr_set_size_in_anchor(pAnchor, spec.uSize);
        if (rc != 0)
            return rc;
    }
    return 0;
}
