// The registered components.
//
// The default anchor heads the list, the newest first. A component's record, the copies of its category descriptions
// and of their names are one block; the array of its file tokens is a second one, because threads may still read it
// when the process ends. Everything here changes under the global lock; the level arrays belong to the programs, which
// read them without a lock.
#include <pthread.h>

#include <cstdlib>
#include <cstring>

#include "cu/kz_cu.h"
#include "trace/control/control.h"
#include "trace/control/filemap.h"
#include "trace/control/levels.h"
#include "trace/control/settings.h"
#include "trace/engine/engine.h"
#include "trace/frame/frame.h"
#include "trace/publish.h"

// Stands in front of the tokens in their block.
struct token_block_t {
    token_block_t *pNext;
};

// Token arrays of components that termination forgot: threads may read them until the process ends. Under the global
// lock.
static token_block_t *pKeptTokens = nullptr;

static tr_file_token_t *new_tokens(uint32_t numTokens) {
    auto *pBlock = static_cast<token_block_t *>(calloc(1, sizeof(token_block_t) + numTokens * sizeof(tr_file_token_t)));
    return pBlock != nullptr ? reinterpret_cast<tr_file_token_t *>(pBlock + 1) : nullptr;
}

static token_block_t *block_of(tr_file_token_t *pTokens) {
    return reinterpret_cast<token_block_t *>(pTokens) - 1;
}

static void free_component(component_anchor_t *pComp) {
    if (pComp->pFileTokens != nullptr)
        free(block_of(pComp->pFileTokens));
    free(pComp);
}

// Sets every level to 0, so that the program stops recording.
static void clear_levels(const component_anchor_t *pComp) {
    for (int32_t i = 0; i < pComp->numberOfCategories; i++)
        publish(&pComp->pDetailLevels[i], tr_detail_level_t{0});
}

// The reference that names the component of this identifier, by its first four characters; it refers to null when
// there is none.
static component_anchor_t **find_component(const char *pComponentId) TR_HOLDS(global_lock) {
    component_anchor_t **ppComp = &anchors.pFirstComp;
    while (*ppComp != nullptr && strncmp((*ppComp)->compId, pComponentId, TR_COMP_ID_SIZE) != 0)
        ppComp = &(*ppComp)->pNext;
    return ppComp;
}

// ---- Registration ----

// What the caller of a registration gave.
struct registration_t {
    const char *pComponentId;
    tr_detail_level_t *pLevelArray;
    const tr_category_description_t *pCategoryDesc;
    uint32_t numberOfCategories;
    tr_file_token_t **fileTokens;
};

static int32_t check_arguments(const registration_t *pReg) {
    if (pReg->numberOfCategories == 0 || pReg->numberOfCategories > TR_MAX_CATEGORIES)
        return set_error(TR_RC_NUM_CATEGORIES, TR_RC_NUM_CATEGORIES);
    if (!is_comp_id(pReg->pComponentId))
        return set_error(TR_RC_NO_COMPONENT_ID, TR_RC_NO_COMPONENT_ID);
    if (pReg->pCategoryDesc == nullptr)
        return set_error(TR_RC_NO_CATEGORIES, TR_RC_NO_CATEGORIES);
    if (pReg->pLevelArray == nullptr)
        return set_error(TR_RC_NO_LEVELS, TR_RC_NO_LEVELS);
    return 0;
}

static int32_t check_category(const registration_t *pReg, uint32_t i) {
    const tr_category_description_t *pDesc = &pReg->pCategoryDesc[i];
    const char *pName = pDesc->category_name;
    if (pName == nullptr || *pName == '\0')
        return set_error_int(TR_RC_NO_CATEGORY_NAME, TR_RC_NO_CATEGORY_NAME, static_cast<int32_t>(i));
    if (pDesc->category_id >= pReg->numberOfCategories)
        return set_error_str(TR_RC_CATEGORY_ID, TR_RC_CATEGORY_ID, pName);
    if (pDesc->default_level_of_detail > TR_MAX_LEVEL)
        return set_error_str(TR_RC_DEFAULT_LEVEL, TR_RC_DEFAULT_LEVEL, pName);
    if (pDesc->minimum_level_of_detail > TR_MAX_LEVEL)
        return set_error_str(TR_RC_MINIMUM_LEVEL, TR_RC_MINIMUM_LEVEL, pName);
    return 0;
}

// Checks that need the registry, and those that are reported after them.
static int32_t check_registration(const registration_t *pReg) TR_HOLDS(global_lock) {
    if (*find_component(pReg->pComponentId) != nullptr)
        return set_error(TR_RC_COMPONENT_IN_USE, TR_MSG_COMPONENT_IN_USE);
    int32_t rc = 0;
    for (uint32_t i = 0; rc == 0 && i < pReg->numberOfCategories; i++)
        rc = check_category(pReg, i);
    return rc;
}

// Copies what the caller described into a block of the component's own. Returns null when memory is short.
static component_anchor_t *new_component(const registration_t *pReg) {
    const uint32_t numCategories = pReg->numberOfCategories;
    const size_t fixedSize = sizeof(component_anchor_t) + numCategories * sizeof(tr_category_description_t);
    size_t namesSize = 0;
    for (uint32_t i = 0; i < numCategories; i++)
        namesSize += strlen(pReg->pCategoryDesc[i].category_name) + 1;
    auto *pComp = static_cast<component_anchor_t *>(calloc(1, fixedSize + namesSize));
    tr_file_token_t *pTokens = new_tokens(numCategories);
    if (pComp == nullptr || pTokens == nullptr) {
        free(pComp);
        if (pTokens != nullptr)
            free(block_of(pTokens));
        return nullptr;
    }
    strncpy(pComp->compId, pReg->pComponentId, TR_COMP_ID_SIZE);
    pComp->pDetailLevels = pReg->pLevelArray;
    pComp->pFileTokens = pTokens;
    pComp->numberOfCategories = static_cast<int32_t>(numCategories);
    pComp->categories = reinterpret_cast<tr_category_description_t *>(pComp + 1);
    char *pName = reinterpret_cast<char *>(pComp->categories + numCategories);
    for (uint32_t i = 0; i < numCategories; i++) {
        pComp->categories[i] = pReg->pCategoryDesc[i];
        pComp->categories[i].category_name = pName;
        pName = stpcpy(pName, pReg->pCategoryDesc[i].category_name) + 1;
    }
    return pComp;
}

// Undoes a registration that is cancelled (pArg is the address of its component pointer, which may be null) and
// releases the global lock. Files started meanwhile stay.
TR_UNCHECKED static void register_cleanup(void *pArg) {
    component_anchor_t *pComp = *static_cast<component_anchor_t **>(pArg);
    if (pComp != nullptr) {
        clear_levels(pComp);
        if (anchors.pFirstComp == pComp)
            anchors.pFirstComp = pComp->pNext;
        free_component(pComp);
    }
    (void)unlockGlobalMutex();
}

// Puts the component into the registry with its minimum levels, replays the specifications on it, levels before maps, and
// starts what now has something to record. The caller's token reference is stored last: a cancelled call hands out
// nothing.
static int32_t insert_component(const registration_t *pReg, component_anchor_t *pComp) TR_HOLDS(global_lock) {
    pComp->pNext = anchors.pFirstComp;
    anchors.pFirstComp = pComp;
    for (int32_t i = 0; i < pComp->numberOfCategories; i++)
        publish(&pComp->pDetailLevels[i], static_cast<tr_detail_level_t>(pComp->categories[i].minimum_level_of_detail));
    for (const trace_level_spec_t *pSpec = anchors.pFirstTraceSpec; pSpec != nullptr; pSpec = pSpec->pNext)
        (void)process_trace_spec(&anchors, pSpec, pComp);
    for (const trace_map_spec_t *pSpec = anchors.pFirstMapSpec; pSpec != nullptr; pSpec = pSpec->pNext)
        (void)process_map_spec(&anchors, pSpec, pComp);
    const int32_t rc = start_wanted_traces();
    if (pReg->fileTokens != nullptr)
        *pReg->fileTokens = pComp->pFileTokens;
    return rc;
}

static int32_t register_locked(const registration_t *pReg, component_anchor_t **ppComp) TR_HOLDS(global_lock) {
    int32_t rc = check_registration(pReg);
    if (rc != 0)
        return rc;
    debug_line("Registering component %s\n", pReg->pComponentId);
    rc = init_if_needed();
    if (rc != 0)
        return rc;
    *ppComp = new_component(pReg);
    if (*ppComp == nullptr)
        return set_error(TR_RC_NO_MEMORY, TR_RC_NO_MEMORY);
    return insert_component(pReg, *ppComp);
}

int32_t tr_ms_register_component_1(const char *pComponentId, tr_detail_level_t *pLevelArray,
                                   const tr_category_description_t *pCategoryDesc, uint32_t numberOfCategories,
                                   tr_file_token_t **fileTokens) {
    const registration_t registration = {pComponentId, pLevelArray, pCategoryDesc, numberOfCategories, fileTokens};
    int32_t rc = check_arguments(&registration);
    if (rc != 0)
        return rc;
    const int lockError = lockGlobalMutex();
    if (lockError != 0)
        return set_error_int(TR_RC_LOCK, TR_RC_LOCK, lockError);
    component_anchor_t *pComp = nullptr;
    pthread_cleanup_push(register_cleanup, &pComp);
    rc = register_locked(&registration, &pComp);
    pthread_cleanup_pop(0);
    (void)unlockGlobalMutex();
    return rc == 0 ? cu_set_no_error_1() : rc;
}

int32_t tr_register_component_1(const char *pComponentId, tr_detail_level_t *pLevelArray,
                                const tr_category_description_t *pCategoryDesc, uint32_t numberOfCategories) {
    return tr_ms_register_component_1(pComponentId, pLevelArray, pCategoryDesc, numberOfCategories, nullptr);
}

extern "C" __attribute__((alias("tr_register_component_1"), visibility("default"))) int32_t
__tr_register_component_1(const char *, tr_detail_level_t *, const tr_category_description_t *, uint32_t);

// ---- Unregistration ----

// Takes the component out of the registry. Returns false when it is not there.
static bool remove_component(const char *pComponentId) TR_HOLDS(global_lock) {
    component_anchor_t **ppComp = find_component(pComponentId);
    component_anchor_t *pComp = *ppComp;
    if (pComp == nullptr)
        return false;
    clear_levels(pComp);
    *ppComp = pComp->pNext;
    free_component(pComp);
    return true;
}

int32_t tr_unregister_component_1(const char *pComponentId) {
    if (is_switched_off())
        return TR_RC_LOCK; // without a message
    if (!is_comp_id(pComponentId))
        return set_error(TR_RC_NO_COMPONENT_ID, TR_RC_NO_COMPONENT_ID);
    const int lockError = lockGlobalMutex();
    if (lockError != 0)
        return set_error_int(TR_RC_LOCK, TR_RC_LOCK, lockError);
    bool bFound = false;
    pthread_cleanup_push(mutex_cleanup, &anchors.anchorMutex);
    bFound = remove_component(pComponentId);
    if (bFound)
        stop_unwanted_traces();
    pthread_cleanup_pop(0);
    (void)unlockGlobalMutex();
    return bFound ? cu_set_no_error_1() : set_error_str(TR_RC_NOT_REGISTERED, TR_RC_NOT_REGISTERED, pComponentId);
}

extern "C" __attribute__((alias("tr_unregister_component_1"), visibility("default"))) int32_t
__tr_unregister_component_1(const char *);

// ---- Initialisation and termination ----

void take_environment_specs(const char *pLevels, const char *pFileMap, const char *pFileSizes) {
    if (pLevels != nullptr)
        (void)parse_trace_spec(pLevels, &anchors.pFirstTraceSpec, &anchors.pLastTraceSpec);
    if (pFileMap != nullptr)
        (void)parse_map_spec(pFileMap, &anchors.pFirstMapSpec, &anchors.pLastMapSpec);
    if (pFileSizes != nullptr)
        (void)parse_fileSize_spec(pFileSizes);
}

void release_control_lists(trace_anchor_t *pAnchor) {
    while (component_anchor_t *pComp = pAnchor->pFirstComp) {
        pAnchor->pFirstComp = pComp->pNext;
        token_block_t *pBlock = block_of(pComp->pFileTokens);
        pBlock->pNext = pKeptTokens;
        pKeptTokens = pBlock;
        free(pComp);
    }
    free_specs<trace_level_spec_t>({&pAnchor->pFirstTraceSpec, &pAnchor->pLastTraceSpec});
    free_specs<trace_map_spec_t>({&pAnchor->pFirstMapSpec, &pAnchor->pLastMapSpec});
}
