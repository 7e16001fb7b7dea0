// The snapshot of the current trace levels.
#include <cstdlib>
#include <cstring>

#include "trace/frame/frame.h"
#include "trace/publish.h"

// Every part is an allocation of its own. Returns false when memory is short, with what was allocated in the record.
static bool copy_component(const component_anchor_t *pComp, tr_mini_component_anchor_t *pCopy) TR_HOLDS(global_lock) {
    const auto numCategories = static_cast<size_t>(pComp->numberOfCategories);
    memcpy(pCopy->compId, pComp->compId, sizeof pCopy->compId);
    pCopy->categories =
        static_cast<tr_category_description_t *>(calloc(numCategories, sizeof(tr_category_description_t)));
    pCopy->pDetailLevels = static_cast<tr_detail_level_t *>(malloc(numCategories));
    if (pCopy->categories == nullptr || pCopy->pDetailLevels == nullptr)
        return false;
    pCopy->numberOfCategories = pComp->numberOfCategories;
    for (size_t i = 0; i < numCategories; i++) {
        pCopy->pDetailLevels[i] = observe(&pComp->pDetailLevels[i]);
        pCopy->categories[i].category_id = pComp->categories[i].category_id;
        pCopy->categories[i].category_name = strdup(pComp->categories[i].category_name);
        if (pCopy->categories[i].category_name == nullptr)
            return false;
    }
    return true;
}

static int32_t count_components() TR_HOLDS(global_lock) {
    int32_t numComponents = 0;
    for (const component_anchor_t *pComp = anchors.pFirstComp; pComp != nullptr; pComp = pComp->pNext)
        numComponents++;
    return numComponents;
}

static int32_t snapshot_locked(int32_t *pCount, tr_mini_component_anchor_t **ppCopies) TR_HOLDS(global_lock) {
    *ppCopies = nullptr;
    const int32_t numComponents = count_components();
    if (numComponents == 0) {
        *pCount = 0;
        return 0;
    }
    auto *pCopies = static_cast<tr_mini_component_anchor_t *>(
        calloc(static_cast<size_t>(numComponents), sizeof(tr_mini_component_anchor_t)));
    if (pCopies == nullptr)
        return -1;
    *pCount = numComponents;
    tr_mini_component_anchor_t *pCopy = pCopies;
    for (const component_anchor_t *pComp = anchors.pFirstComp; pComp != nullptr; pComp = pComp->pNext, pCopy++) {
        if (!copy_component(pComp, pCopy)) {
            tr_release_comp_info_1(numComponents, pCopies);
            return -1;
        }
    }
    *ppCopies = pCopies;
    return 0;
}

// Reaches no cancellation point while it holds the lock.
int32_t tr_get_current_trace_levels_1(int32_t *componentCount, tr_mini_component_anchor_t **components) {
    if (componentCount == nullptr || components == nullptr || lockGlobalMutex() != 0)
        return -1;
    const int32_t rc = snapshot_locked(componentCount, components);
    (void)unlockGlobalMutex();
    return rc;
}

void tr_release_comp_info_1(int32_t componentCount, tr_mini_component_anchor_t *components) {
    if (components == nullptr || componentCount == 0)
        return;
    for (int32_t i = 0; i < componentCount; i++) {
        free(components[i].pDetailLevels);
        for (int32_t k = 0; k < components[i].numberOfCategories; k++)
            free(const_cast<char *>(components[i].categories[k].category_name)); // a copy of ours
        free(components[i].categories);
    }
    free(components);
}
