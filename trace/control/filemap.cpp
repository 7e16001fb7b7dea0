// Parsing and applying of file map specifications.
#include "trace/control/filemap.h"

#include <algorithm>

#include "cu/kz_cu.h"
#include "trace/engine/engine.h"
#include "trace/frame/frame.h"
#include "trace/publish.h"

// ---- Parsing ----

// category := text up to the first blank or the entry's end, not empty
static int32_t parse_category(const spec_range_t *pEntry, spec_range_t *pCategory, spec_fault_t *pFault) {
    *pCategory = {.pText = pEntry->pText, .pos = pEntry->pos, .end = find_char(pEntry, ' ')};
    if (pCategory->end == pCategory->pos)
        return spec_fault(pFault, TR_RC_SPEC_CATEGORY, pCategory->pos);
    return 0;
}

// Parses the entry at the position and stands behind the comma that ended it.
static int32_t parse_entry(spec_range_t *pSelection, const char *pFileName, spec_list_t<trace_map_spec_t> list,
                           spec_fault_t *pFault) {
    skip_blanks(pSelection);
    if (pSelection->pos < pSelection->end && pSelection->pText[pSelection->pos] == ',') {
        pSelection->pos++;
        skip_blanks(pSelection);
    }
    spec_range_t entry = {.pText = pSelection->pText, .pos = pSelection->pos, .end = find_char(pSelection, ',')};
    pSelection->pos = std::min(entry.end + 1, pSelection->end);
    spec_range_t component;
    spec_range_t category;
    int32_t rc = parse_component(&entry, &component, pFault);
    if (rc == 0)
        rc = parse_category(&entry, &category, pFault);
    if (rc != 0)
        return rc;
    auto *pSpec = new_spec<trace_map_spec_t>(&component, &category);
    if (pSpec == nullptr)
        return spec_fault(pFault, TR_RC_NO_MEMORY, component.pos);
    memcpy(pSpec->fileName, pFileName, strnlen(pFileName, TR_NAME_SIZE - 1)); // the block is zeroed
    append_specs(list, pSpec, pSpec);
    return check_patterns(pSpec, &component, &category, pFault);
}

// Parses one selection list; offsets count from its start.
static int32_t parse_selection(spec_range_t selection, const char *pFileName, spec_list_t<trace_map_spec_t> list,
                               spec_fault_t *pFault) {
    if (selection.end == 0 || selection.pText[0] == ',')
        return spec_fault(pFault, TR_RC_SPEC_SEPARATOR, 0);
    int32_t rc = 0;
    cancel_parse_map_spec_data_t undo = {list.ppFirst, list.ppLast, *list.ppLast};
    pthread_cleanup_push(cancel_parse_map_spec, &undo);
    while (rc == 0 && selection.pos < selection.end)
        rc = parse_entry(&selection, pFileName, list, pFault);
    pthread_cleanup_pop(rc != 0);
    return rc;
}

int32_t parse_file_maps(const char *pText, spec_list_t<trace_map_spec_t> list, spec_fault_t *pFault) {
    *pFault = {};
    spec_range_t text = whole_text(pText);
    char fileName[TR_NAME_SIZE];
    while (text.pos < text.end) {
        spec_range_t group = {.pText = pText, .pos = text.pos, .end = find_char(&text, ';')}; // also inside quotes
        text.pos = std::min(group.end + 1, text.end);
        parseFileName(&group, fileName);
        if (group.pos == group.end)
            return spec_fault(pFault, TR_RC_SPEC_SEPARATOR, group.pos);
        const spec_range_t selection = {.pText = pText + group.pos, .pos = 0, .end = group.end - group.pos};
        pFault->origin = group.pos;
        const int32_t rc = parse_selection(selection, fileName, list, pFault);
        if (rc != 0)
            return rc;
        pFault->origin = 0;
    }
    return 0;
}

int32_t parse_map_spec(const char *pText, trace_map_spec_t **ppFirst, trace_map_spec_t **ppLast) {
    spec_fault_t fault;
    return parse_file_maps(pText, {ppFirst, ppLast}, &fault) == 0 ? 0 : set_spec_error(&fault);
}

int32_t tr_set_file_map_chain(const char *pFileName, const char *pSelectString, trace_map_spec_t **ppFirst,
                              trace_map_spec_t **ppLast) {
    spec_fault_t fault = {};
    const int32_t rc = parse_selection(whole_text(pSelectString), pFileName, {ppFirst, ppLast}, &fault);
    return rc == 0 ? 0 : set_spec_error(&fault);
}

void cancel_parse_map_spec(void *pArg) {
    restore_specs(static_cast<cancel_parse_map_spec_data_t *>(pArg));
}

// ---- Applying ----

// Recorders read a token without a lock: it is replaced by a single store. The file's anchor is made for the first
// category that matches; when memory is short the tokens stay.
static void set_tokens(const component_anchor_t *pComp, const regex_t *pCategoryPattern, const char *pFileName)
    TR_HOLDS(global_lock) {
    for (int32_t i = 0; i < pComp->numberOfCategories; i++) {
        if (!is_match(pCategoryPattern, pComp->categories[i].category_name))
            continue;
        trace_anchor_t *const pFile = findOrCreateAnchorForFile(pFileName, 1);
        if (pFile != nullptr)
            publish(&pComp->pFileTokens[i], pFile);
    }
}

int32_t process_map_spec(trace_anchor_t *pAnchor, const trace_map_spec_t *pMapSpec, component_anchor_t *pTgtComp) {
    spec_patterns_t patterns;
    if (compile_patterns(&patterns, pMapSpec->pCompId, pMapSpec->pCategory) != 0)
        return 0;
    for (const component_anchor_t *pComp = pAnchor->pFirstComp; pComp != nullptr; pComp = pComp->pNext) {
        if ((pTgtComp == nullptr || pComp == pTgtComp) && is_match(&patterns.component, pComp->compId))
            set_tokens(pComp, &patterns.category, pMapSpec->fileName);
    }
    free_patterns(&patterns);
    return 0;
}

// ---- Setting a map at run time ----

static int32_t set_file_map_locked(const char *pFileName, const char *pSelectString) TR_HOLDS(global_lock) {
    int32_t rc = init_if_needed();
    if (rc == 0)
        rc = tr_set_file_map_chain(pFileName, pSelectString, &anchors.pFirstMapSpec, &anchors.pLastMapSpec);
    if (rc != 0)
        return rc;
    for (const trace_map_spec_t *pSpec = anchors.pFirstMapSpec; pSpec != nullptr; pSpec = pSpec->pNext)
        (void)process_map_spec(&anchors, pSpec, nullptr);
    return start_wanted_traces();
}

int32_t tr_set_file_map_1(const char *fileName, const char *selectString) {
    if (is_switched_off())
        return 0;
    const char *const pName = fileName != nullptr ? fileName : "";
    if (!is_file_name(pName))
        return set_error_str(TR_RC_FILE_NAME, TR_RC_FILE_NAME, pName);
    const int lockError = lockGlobalMutex();
    if (lockError != 0)
        return set_error_int(TR_RC_LOCK, TR_RC_LOCK, lockError);
    int32_t rc = 0;
    pthread_cleanup_push(mutex_cleanup, &anchors.anchorMutex);
    rc = set_file_map_locked(pName, selectString != nullptr ? selectString : "");
    pthread_cleanup_pop(0);
    (void)unlockGlobalMutex();
    return rc == 0 ? cu_set_no_error_1() : rc;
}
