// What a reading finds, kept for the tools: the library itself never asks.
#include <cstdlib>

#include "trace/spool/config.h"

spool_finding_t *add_spool_finding(spool_findings_t *pFindings, spool_finding_kind_t kind, spool_place_t place) {
    if (pFindings == nullptr)
        return nullptr;
    auto *const pFinding = static_cast<spool_finding_t *>(calloc(1, sizeof(spool_finding_t)));
    if (pFinding == nullptr)
        return nullptr;
    pFinding->kind = kind;
    pFinding->place = place;
    (pFindings->pLast != nullptr ? pFindings->pLast->pNext : pFindings->pFirst) = pFinding;
    pFindings->pLast = pFinding;
    return pFinding;
}

spool_finding_t *note_stored_entry(spool_findings_t *pFindings, spool_list_t list, const trace_spool_spec_t *pBefore,
                                   spool_place_t place) {
    spool_finding_t *const pFinding = add_spool_finding(pFindings, TR_SPOOL_ENTRY, place);
    if (pFinding != nullptr)
        pFinding->pSpec = pBefore != nullptr ? pBefore->pNext : *list.ppFirst;
    return pFinding;
}

void free_spool_findings(spool_findings_t *pFindings) {
    while (pFindings->pFirst != nullptr) {
        spool_finding_t *const pNext = pFindings->pFirst->pNext;
        free(pFindings->pFirst);
        pFindings->pFirst = pNext;
    }
    pFindings->pLast = nullptr;
}
