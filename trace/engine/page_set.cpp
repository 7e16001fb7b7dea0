// Building and dissolving page sets.
//
// A set is built aside and taken over in one go, so that a failure leaves the anchor as it was. What recorders choose
// their lock by changes under the lock of before; the lock of a set is made once and kept for the next set.
#include "trace/engine/page_set.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "trace/engine/engine.h"
#include "trace/engine/stopping.h"
#include "trace/frame/frame.h"
#include "trace/spool/spool.h"

constexpr char TR_FIRST_PAGE_SUFFIX[] = ".1.sp";

// ---- Names and sizes ----

uint32_t count_pages(const trace_anchor_t *pHead) {
    uint32_t numPages = 1;
    for (const trace_anchor_t *pPage = next_page_of(pHead, pHead); pPage != nullptr; pPage = next_page_of(pHead, pPage))
        numPages++;
    return numPages;
}

size_t base_name_length(const trace_anchor_t *pAnchor) {
    const size_t length = strlen(pAnchor->fileName);
    return is_set_head(pAnchor) ? length - (sizeof TR_FIRST_PAGE_SUFFIX - 1) : length;
}

bool has_base_name(const trace_anchor_t *pAnchor, const char *pName) {
    const size_t length = base_name_length(pAnchor);
    return strncmp(pAnchor->fileName, pName, length) == 0 && pName[length] == '\0';
}

bool make_page_name(char (&name)[TR_NAME_SIZE], const char *pBaseName, size_t baseLength, uint32_t number) {
    const int length = snprintf(name, sizeof name, "%.*s.%u.sp", static_cast<int>(baseLength), pBaseName, number);
    return length >= 0 && static_cast<size_t>(length) < sizeof name;
}

// In 32 bits, like every size that a caller asks for; a size that is rounded up beyond them becomes the smallest one.
uint32_t page_size_for(const trace_anchor_t *pAnchor, uint32_t fileSize, uint32_t numPages) {
    const auto memoryPage = static_cast<uint32_t>(pAnchor->pageSize);
    const uint32_t share = fileSize / (numPages != 0 ? numPages : 1);
    const uint32_t rounded = (share + memoryPage - 1) / memoryPage * memoryPage;
    return rounded != 0 ? rounded : TR_MIN_FILE_SIZE;
}

// ---- Pages ----

static void share_with_head(trace_anchor_t *pPage, trace_anchor_t *pHead) TR_HOLDS(global_lock)
    TR_HOLDS(anchor_set_lock) {
    pPage->uRequestedFileSize = pHead->uRequestedFileSize;
    pPage->spool = pHead->spool;
    pPage->pSpoolMutex = pHead->pSpoolMutex;
    pPage->ppActivePg = &pHead->pActivePg;
    pPage->p_head_spool_anchor = pHead;
    pPage->consecutiveSpoolNotCopied = 0;
    choose_set_mutex(pPage);
}

void join_page_set(trace_anchor_t *pPage, trace_anchor_t *pHead) {
    pthread_mutex_t *const pMutex = lock_present_set(pPage);
    stop_trace_page(pPage, 0); // of a plain file that has the page's name
    pPage->uUnpagedSize = pPage->uRequestedFileSize;
    share_with_head(pPage, pHead);
    unlock_former_set(pMutex);
}

bool may_join(const trace_anchor_t *pPage, const trace_anchor_t *pHead) {
    return !is_page(pPage) || set_head(pPage) == pHead;
}

// Undoes what makes an anchor a page or a head.
static void leave_page_set(trace_anchor_t *pPage) TR_HOLDS(global_lock) TR_HOLDS(anchor_set_lock) {
    if (is_page(pPage) && !is_set_head(pPage)) { // what it had before it joined; the set's lock is not its own
        pPage->uRequestedFileSize = pPage->uUnpagedSize;
        pPage->pSpoolMutex = nullptr;
    }
    pPage->nextPage = nullptr;
    pPage->pActivePg = nullptr;
    pPage->ppActivePg = nullptr;
    pPage->p_head_spool_anchor = nullptr;
    pPage->spool = nullptr;
    pPage->bSpoolProcessed = 0;
    pPage->bFull = pPage->bRetired = false;
    choose_set_mutex(pPage);
}

static bool is_listed(const trace_anchor_t *pPage) {
    const trace_anchor_t *pAnchor = &anchors;
    while (pAnchor != nullptr && pAnchor != pPage)
        pAnchor = observe(&pAnchor->next);
    return pAnchor != nullptr;
}

void release_page(trace_anchor_t *pPage) {
    if (is_listed(pPage)) {
        leave_page_set(pPage);
        return;
    }
    (void)pthread_mutex_destroy(&pPage->anchorMutex);
    free(pPage);
}

void set_spool_entry(trace_anchor_t *pAnchor, trace_spool_spec_t *pSpec) {
    pthread_mutex_t *const pMutex = lock_present_set(pAnchor);
    pAnchor->spool = pSpec;
    for (trace_anchor_t *pPage = next_page_of(pAnchor, pAnchor); pPage != nullptr; pPage = next_page_of(pAnchor, pPage))
        pPage->spool = pSpec;
    for (trace_anchor_t *pPage = pAnchor->p_obsolete_pages; pPage != nullptr; pPage = pPage->nextPage)
        pPage->spool = pSpec;
    choose_set_mutex(pAnchor);
    unlock_former_set(pMutex);
}

// ---- Building ----

// What a set is made of, before the anchor takes it over.
struct page_set_plan_t {
    uint32_t numPages;
    trace_anchor_t **ppPages; // 2 to numPages
    pthread_mutex_t *pMutex;
};

static void free_plan(page_set_plan_t *pPlan, const trace_anchor_t *pAnchor) TR_HOLDS(global_lock) {
    for (uint32_t i = 0; pPlan->ppPages != nullptr && i + 1 < pPlan->numPages; i++) {
        if (pPlan->ppPages[i] != nullptr && !is_listed(pPlan->ppPages[i]))
            free(pPlan->ppPages[i]);
    }
    free(pPlan->ppPages);
    if (pPlan->pMutex != pAnchor->pSpoolMutex)
        free(pPlan->pMutex);
}

// The mutex that the anchor has from an earlier set, or a new one.
static pthread_mutex_t *set_mutex_for(const trace_anchor_t *pAnchor) {
    if (pAnchor->pSpoolMutex != nullptr)
        return pAnchor->pSpoolMutex;
    auto *pMutex = static_cast<pthread_mutex_t *>(malloc(sizeof(pthread_mutex_t)));
    if (pMutex != nullptr)
        (void)pthread_mutex_init(pMutex, nullptr);
    return pMutex;
}

// Makes all that a set needs. Returns 0, or a result of build_page_set() with what was made still in the plan.
static int32_t plan_page_set(page_set_plan_t *pPlan, trace_anchor_t *pAnchor) TR_HOLDS(global_lock) {
    const size_t baseLength = strlen(pAnchor->fileName);
    char name[TR_NAME_SIZE];
    if (!make_page_name(name, pAnchor->fileName, baseLength, pPlan->numPages)) {
        (void)set_error_str(TR_RC_FILE_NAME, TR_RC_FILE_NAME, pAnchor->fileName);
        return TR_RC_FILE_NAME;
    }
    (void)make_page_name(name, pAnchor->fileName, baseLength, 1);
    debug_line("creating page '%s'\n", name);
    pPlan->pMutex = set_mutex_for(pAnchor);
    if (pPlan->pMutex == nullptr) {
        (void)set_error(TR_RC_NO_MEMORY, TR_RC_NO_MEMORY);
        return TR_RC_NO_MEMORY;
    }
    if (pPlan->numPages <= TR_MAX_PAGES)
        pPlan->ppPages = static_cast<trace_anchor_t **>(calloc(pPlan->numPages, sizeof(void *)));
    if (pPlan->ppPages == nullptr) {
        (void)set_error(TR_RC_NO_MEMORY, TR_RC_NO_MEMORY);
        return -1;
    }
    for (uint32_t number = 2; number <= pPlan->numPages; number++) {
        (void)make_page_name(name, pAnchor->fileName, baseLength, number);
        debug_line("creating page anchor '%s'\n", name);
        pPlan->ppPages[number - 2] = getSplAnchor(pAnchor, name);
        if (pPlan->ppPages[number - 2] == nullptr)
            return -1; // error 14 is set
        if (!may_join(pPlan->ppPages[number - 2], pAnchor)) {
            (void)set_error_str(TR_RC_FILE_NAME, TR_RC_FILE_NAME, name);
            return TR_RC_FILE_NAME;
        }
    }
    return 0;
}

// The anchor takes over what was planned.
static void become_head(trace_anchor_t *pAnchor, const page_set_plan_t *pPlan) TR_HOLDS(global_lock) {
    trace_spool_spec_t *const pSpec = pAnchor->spool;
    pthread_mutex_t *const pMutex = lock_present_set(pAnchor);
    pAnchor->uUnpagedSize = pAnchor->uRequestedFileSize;
    pAnchor->uRequestedFileSize = pSpec->pg_size != 0
                                      ? page_size_for(pAnchor, pSpec->pg_size, 1)
                                      : page_size_for(pAnchor, pAnchor->uRequestedFileSize, pPlan->numPages);
    pSpec->pg_size = pAnchor->uRequestedFileSize;
    memcpy(pAnchor->fileName + strlen(pAnchor->fileName), TR_FIRST_PAGE_SUFFIX, sizeof TR_FIRST_PAGE_SUFFIX);
    hold_future_set(pAnchor, pPlan->pMutex);
    pAnchor->pSpoolMutex = pPlan->pMutex;
    pAnchor->pActivePg = pAnchor;
    pAnchor->p_head_spool_anchor = pAnchor;
    pAnchor->ppActivePg = &pAnchor->pActivePg;
    choose_set_mutex(pAnchor);
    unlock_former_set(pMutex);
}

// Links the pages behind the head, in the order of their numbers.
static void link_ring(trace_anchor_t *pHead, const page_set_plan_t *pPlan) TR_HOLDS(global_lock) {
    lock_anchor_set_under_global(pHead);
    trace_anchor_t *pLast = pHead;
    for (uint32_t i = 0; i + 1 < pPlan->numPages; i++)
        pLast = pLast->nextPage = pPlan->ppPages[i];
    pLast->nextPage = pHead;
    unlock_anchor_set_under_global(pHead);
}

int32_t build_page_set(trace_anchor_t *pAnchor) {
    page_set_plan_t plan = {.numPages = pAnchor->spool->pages, .ppPages = nullptr, .pMutex = nullptr};
    const int32_t rc = plan_page_set(&plan, pAnchor);
    if (rc != 0) {
        free_plan(&plan, pAnchor);
        return rc;
    }
    become_head(pAnchor, &plan);
    for (uint32_t i = 0; i + 1 < plan.numPages; i++)
        join_page_set(plan.ppPages[i], pAnchor);
    link_ring(pAnchor, &plan);
    free(plan.ppPages);
    return 0;
}

// ---- Dissolving ----

void dissolve_page_set(trace_anchor_t *pAnchor) {
    pthread_mutex_t *const pMutex = lock_present_set(pAnchor);
    if (is_set_head(pAnchor)) {
        trace_anchor_t *pPage = pAnchor->nextPage;
        while (pPage != pAnchor) {
            trace_anchor_t *const pNext = pPage->nextPage;
            release_page(pPage);
            pPage = pNext;
        }
        pAnchor->fileName[base_name_length(pAnchor)] = '\0';
        pAnchor->uRequestedFileSize = pAnchor->uUnpagedSize;
    }
    leave_page_set(pAnchor);
    unlock_former_set(pMutex);
}
