// Anchors: the default one, the list, look-up by file name, and anchors of pages.
//
// The list only grows, directly behind the default anchor, and an anchor is complete before it is published there; so
// it is walked without a lock. Names change under the global lock, which every look-up holds.
#include <unistd.h>

#include <cstdlib>
#include <cstring>

#include "trace/engine/engine.h"
#include "trace/engine/page_set.h"
#include "trace/frame/frame.h"
#include "trace/publish.h"

constexpr char TR_PAGE_SUFFIX[] = ".sp"; // behind the number of a page file

// The default anchor as the library is loaded. Its page size comes with the initialisation.
static constexpr trace_anchor_t default_anchor() {
    trace_anchor_t anchor = {};
    anchor.anchorMutex = PTHREAD_MUTEX_INITIALIZER;
    anchor.seqNumber = 1;
    anchor.uRequestedFileSize = TR_DEFAULT_FILE_SIZE;
    anchor.numAnchors = 1;
    return anchor;
}

constinit trace_anchor_t anchors = default_anchor();

pthread_mutex_t anchorListMutex = PTHREAD_MUTEX_INITIALIZER;

static void copy_name(char *pTo, const char *pFrom) {
    const size_t length = strnlen(pFrom, TR_NAME_SIZE - 1);
    memcpy(pTo, pFrom, length);
    pTo[length] = '\0';
}

void choose_set_mutex(trace_anchor_t *pAnchor) {
    const bool bShared = is_page(pAnchor) && pAnchor->pSpoolMutex != nullptr;
    publish(&pAnchor->pSetMutex, bShared ? pAnchor->pSpoolMutex : &pAnchor->anchorMutex);
}

void initAnchor(trace_anchor_t *pAnchor) {
    pAnchor->pFirstComp = nullptr;
    pAnchor->pMap = pAnchor->pMapEnd = nullptr;
    pAnchor->pNextFree = pAnchor->pWrap = nullptr;
    pAnchor->pFirstTraceSpec = pAnchor->pLastTraceSpec = nullptr;
    pAnchor->pFirstMapSpec = pAnchor->pLastMapSpec = nullptr;
    pAnchor->pFirstSpoolSpec = pAnchor->pLastSpoolSpec = nullptr;
    pAnchor->spool = nullptr;
    pAnchor->nextPage = nullptr;
    pAnchor->pSpoolMutex = nullptr;
    pAnchor->pActivePg = nullptr;
    pAnchor->ppActivePg = nullptr;
    pAnchor->p_head_spool_anchor = nullptr;
    pAnchor->p_obsolete_pages = pAnchor->p_obsolete_pages_tail = nullptr;
    pAnchor->fileName[0] = '\0';
    pAnchor->uRequestedFileSize = TR_DEFAULT_FILE_SIZE;
    pAnchor->uActualFileSize = 0;
    pAnchor->uMaxSize = 0;
    pAnchor->numAnchors = 0;
    pAnchor->bSpoolProcessed = 0;
    pAnchor->consecutiveSpoolNotCopied = 0;
    pAnchor->uUnpagedSize = TR_DEFAULT_FILE_SIZE;
    pAnchor->bFull = pAnchor->bRetired = false;
    pAnchor->damage = {};
    choose_set_mutex(pAnchor);
    if (pAnchor != &anchors)
        (void)pthread_mutex_init(&pAnchor->anchorMutex, nullptr);
    pAnchor->pageSize = sysconf(_SC_PAGESIZE);
}

// A new anchor of that name outside the list, or null.
static trace_anchor_t *new_anchor(const char *pFileName) {
    auto *pAnchor = static_cast<trace_anchor_t *>(calloc(1, sizeof(trace_anchor_t)));
    if (pAnchor == nullptr)
        return nullptr;
    initAnchor(pAnchor);
    copy_name(pAnchor->fileName, pFileName);
    return pAnchor;
}

// Finds an anchor of the list by the name of its file.
static trace_anchor_t *find_by_file(const char *pFileName) {
    trace_anchor_t *pAnchor = &anchors;
    while (pAnchor != nullptr && strcmp(pAnchor->fileName, pFileName) != 0)
        pAnchor = observe(&pAnchor->next);
    return pAnchor;
}

// The same, but heads of page sets also answer to their base name: also where that has ".sp" in it, which
// spool_name_match() takes for its end.
static trace_anchor_t *find_anchor(const char *pFileName) TR_HOLDS(global_lock) {
    for (trace_anchor_t *pAnchor = &anchors; pAnchor != nullptr; pAnchor = observe(&pAnchor->next)) {
        if (is_set_head(pAnchor) &&
            (spool_name_match(pAnchor->fileName, pFileName) == 0 || has_base_name(pAnchor, pFileName))) {
            debug_line("spool_name_match match! at %s==%s\n", pAnchor->fileName, pFileName);
            return pAnchor;
        }
        if (strcmp(pAnchor->fileName, pFileName) == 0)
            return pAnchor;
    }
    return nullptr;
}

// Makes a new anchor visible behind the default one, unless the list has got one of its name. Returns the one of the
// list.
static trace_anchor_t *insert_anchor(trace_anchor_t *pNew) TR_HOLDS(global_lock) {
    pthread_mutex_lock(&anchorListMutex);
    trace_anchor_t *const pFound = find_by_file(pNew->fileName);
    const uint32_t numBefore = anchors.numAnchors;
    if (pFound == nullptr) {
        pNew->next = anchors.next;
        publish(&anchors.next, pNew);
        anchors.numAnchors = numBefore + 1;
    }
    pthread_mutex_unlock(&anchorListMutex);
    if (pFound != nullptr) {
        free(pNew);
    } else {
        debug_line("findOrCreateAnchorForFile: num before %d\n", static_cast<int>(numBefore));
        debug_line("findOrCreateAnchorForFile: num after %d\n", static_cast<int>(numBefore + 1));
    }
    return pFound != nullptr ? pFound : pNew;
}

trace_anchor_t *findOrCreateAnchorForFile(const char *fileName, int32_t createIfNeeded) {
    if (*fileName == '\0')
        return &anchors;
    trace_anchor_t *pAnchor = find_anchor(fileName);
    if (pAnchor != nullptr || createIfNeeded == 0)
        return pAnchor;
    pAnchor = new_anchor(fileName);
    if (pAnchor == nullptr)
        return nullptr;
    debug_line("findOrCreateAnchorForFile: created %s (%x)\n", fileName, low_address(pAnchor));
    return insert_anchor(pAnchor);
}

int spool_name_match(const char *anchorFileName, const char *fileName) {
    const char *const pSuffix = strstr(anchorFileName, TR_PAGE_SUFFIX); // the first one: none may stand before it
    if (pSuffix != nullptr && pSuffix[sizeof TR_PAGE_SUFFIX - 1] == '\0') {
        const char *p = pSuffix;
        while (p > anchorFileName && p[-1] >= '0' && p[-1] <= '9')
            p--;
        if (p < pSuffix && p > anchorFileName && p[-1] == '.') {
            const auto baseLength = static_cast<size_t>(p - 1 - anchorFileName);
            debug_line("spool_name_match comparing %.*s == %s\n", static_cast<int>(baseLength), anchorFileName,
                       fileName);
            const int order = strncmp(anchorFileName, fileName, baseLength);
            return order != 0 ? order : -static_cast<int>(fileName[baseLength] != '\0');
        }
    }
    debug_line("spool_name_match: not a spooling file,  %s == %s\n", anchorFileName, fileName);
    return -1;
}

trace_anchor_t *getSplAnchor(trace_anchor_t *pSrcAnchor, const char *fileName) {
    if (trace_anchor_t *const pListed = find_by_file(fileName))
        return pListed;
    trace_anchor_t *pPage = new_anchor(fileName);
    if (pPage == nullptr) {
        (void)set_error(TR_RC_NO_MEMORY, TR_RC_NO_MEMORY);
        return nullptr;
    }
    debug_line("getSplAnchor: created %s (%x)\n", fileName, low_address(pPage));
    pPage->uMaxSize = pSrcAnchor->uMaxSize;
    pPage->pageSize = pSrcAnchor->pageSize;
    pPage->uRequestedFileSize = pSrcAnchor->uRequestedFileSize;
    pPage->spool = pSrcAnchor->spool;
    pPage->pSpoolMutex = pSrcAnchor->pSpoolMutex;
    pPage->ppActivePg = &pSrcAnchor->pActivePg;
    pPage->p_head_spool_anchor = pSrcAnchor;
    pPage->pActivePg = nullptr;
    choose_set_mutex(pPage);
    return pPage;
}
