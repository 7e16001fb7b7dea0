// Parsing and applying of trace level specifications.
#include "trace/control/levels.h"

#include "cu/kz_cu.h"
#include "trace/engine/engine.h"
#include "trace/frame/frame.h"
#include "trace/publish.h"

// ---- Parsing ----

// category := text up to the first "=" or the entry's end, without the blanks at its end, not empty
static int32_t parse_category(spec_range_t *pEntry, spec_range_t *pCategory, spec_fault_t *pFault) {
    const uint32_t stop = find_char(pEntry, '=');
    *pCategory = {.pText = pEntry->pText, .pos = pEntry->pos, .end = stop};
    while (pCategory->end > pCategory->pos && pEntry->pText[pCategory->end - 1] == ' ')
        pCategory->end--;
    if (pCategory->end == pCategory->pos)
        return spec_fault(pFault, TR_RC_SPEC_CATEGORY, stop);
    pEntry->pos = stop;
    return 0;
}

// level := [ "=" [blanks] number [blanks] ], up to the entry's end. The low 32 bits count, so "-1" is the default level.
static int32_t parse_level(spec_range_t *pEntry, int32_t *pLevel, spec_fault_t *pFault) {
    *pLevel = TR_DEFAULT_LEVEL;
    if (pEntry->pos == pEntry->end)
        return 0;
    pEntry->pos++;
    skip_blanks(pEntry);
    const char *const pNumber = pEntry->pText + pEntry->pos;
    const char *pStop = pNumber;
    const uint64_t value = read_number(pNumber, &pStop);
    if (pStop == pNumber)
        return spec_fault(pFault, TR_RC_SPEC_LEVEL, pEntry->pos); // where the number was expected
    pEntry->pos += static_cast<uint32_t>(pStop - pNumber);
    skip_blanks(pEntry);
    if (pEntry->pos != pEntry->end)
        return spec_fault(pFault, TR_RC_SPEC_LEVEL, pEntry->pos); // the first stray character
    *pLevel = static_cast<int32_t>(value);
    return 0;
}

static int32_t parse_entry(spec_range_t entry, spec_list_t<trace_level_spec_t> list, spec_fault_t *pFault) {
    spec_range_t component;
    spec_range_t category;
    int32_t level = TR_DEFAULT_LEVEL;
    skip_blanks(&entry);
    int32_t rc = parse_component(&entry, &component, pFault);
    if (rc == 0)
        rc = parse_category(&entry, &category, pFault);
    if (rc == 0)
        rc = parse_level(&entry, &level, pFault);
    if (rc != 0)
        return rc;
    auto *pSpec = new_spec<trace_level_spec_t>(&component, &category);
    if (pSpec == nullptr)
        return spec_fault(pFault, TR_RC_NO_MEMORY, component.pos);
    pSpec->detailLevel = level;
    append_specs(list, pSpec, pSpec);
    return check_patterns(pSpec, &component, &category, pFault);
}

int32_t parse_levels(const char *pText, spec_list_t<trace_level_spec_t> list, spec_fault_t *pFault) {
    *pFault = {};
    int32_t rc = 0;
    spec_range_t text = whole_text(pText);
    cancel_parse_trace_spec_data_t undo = {list.ppFirst, list.ppLast, *list.ppLast};
    pthread_cleanup_push(cancel_parse_trace_spec, &undo);
    while (rc == 0 && text.pos < text.end) {
        const uint32_t entryEnd = find_char(&text, ','); // also inside brackets
        rc = parse_entry({.pText = pText, .pos = text.pos, .end = entryEnd}, list, pFault);
        text.pos = entryEnd < text.end ? entryEnd + 1 : entryEnd;
    }
    pthread_cleanup_pop(rc != 0);
    return rc;
}

int32_t parse_trace_spec(const char *pText, trace_level_spec_t **ppFirst, trace_level_spec_t **ppLast) {
    spec_fault_t fault;
    return parse_levels(pText, {ppFirst, ppLast}, &fault) == 0 ? 0 : set_spec_error(&fault);
}

void cancel_parse_trace_spec(void *pArg) {
    restore_specs(static_cast<cancel_parse_trace_spec_data_t *>(pArg));
}

// ---- Applying ----

// What an entry's level means for a category; the array takes the low eight bits.
static tr_detail_level_t level_for(const tr_category_description_t *pCategory, int32_t detailLevel) {
    uint32_t level = static_cast<uint32_t>(detailLevel);
    if (detailLevel == TR_DEFAULT_LEVEL)
        level = pCategory->default_level_of_detail;
    else if (level <= pCategory->minimum_level_of_detail)
        level = pCategory->minimum_level_of_detail;
    return static_cast<tr_detail_level_t>(level);
}

static void set_levels(const component_anchor_t *pComp, const regex_t *pCategoryPattern, int32_t detailLevel) {
    for (int32_t i = 0; i < pComp->numberOfCategories; i++) {
        const tr_category_description_t *pCategory = &pComp->categories[i];
        if (is_match(pCategoryPattern, pCategory->category_name))
            publish(&pComp->pDetailLevels[pCategory->category_id], level_for(pCategory, detailLevel));
    }
}

int32_t process_trace_spec(trace_anchor_t *pAnchor, const trace_level_spec_t *pTraceSpec,
                           component_anchor_t *pTgtComp) {
    spec_patterns_t patterns;
    if (compile_patterns(&patterns, pTraceSpec->pCompId, pTraceSpec->pCategory) != 0)
        return 0;
    for (const component_anchor_t *pComp = pAnchor->pFirstComp; pComp != nullptr; pComp = pComp->pNext) {
        if ((pTgtComp == nullptr || pComp == pTgtComp) && is_match(&patterns.component, pComp->compId))
            set_levels(pComp, &patterns.category, pTraceSpec->detailLevel);
    }
    free_patterns(&patterns);
    return 0;
}

// ---- Setting levels at run time ----

static int32_t set_trace_levels_locked(const char *pLevelString) TR_HOLDS(global_lock) {
    trace_level_spec_t *pFirst = nullptr;
    trace_level_spec_t *pLast = nullptr;
    int32_t rc = init_if_needed();
    if (rc == 0)
        rc = parse_trace_spec(pLevelString, &pFirst, &pLast);
    if (rc != 0 || pFirst == nullptr)
        return rc;
    for (const trace_level_spec_t *pSpec = pFirst; pSpec != nullptr; pSpec = pSpec->pNext)
        (void)process_trace_spec(&anchors, pSpec, nullptr);
    append_specs<trace_level_spec_t>({&anchors.pFirstTraceSpec, &anchors.pLastTraceSpec}, pFirst, pLast);
    return start_wanted_traces();
}

int32_t tr_set_trace_levels_1(const char *pLevelString) {
    const int lockError = lockGlobalMutex();
    if (lockError != 0)
        return set_error_int(TR_RC_LOCK, TR_RC_LOCK, lockError);
    int32_t rc = 0;
    pthread_cleanup_push(mutex_cleanup, &anchors.anchorMutex);
    rc = set_trace_levels_locked(pLevelString != nullptr ? pLevelString : "");
    pthread_cleanup_pop(0);
    (void)unlockGlobalMutex();
    return rc == 0 ? cu_set_no_error_1() : rc;
}

extern "C" __attribute__((alias("tr_set_trace_levels_1"), visibility("default"))) int32_t
__tr_set_trace_levels_1(const char *);
