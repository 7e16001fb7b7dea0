// Page sets: a trace file kept as a ring of page files.
//
//   head "x.1.sp" ──nextPage──▶ "x.2.sp" ──▶ … ──▶ "x.N.sp" ──▶ head        all share pSpoolMutex, spool, ppActivePg
//    │
//    └─p_obsolete_pages──▶ retired page ──nextPage──▶ … ──▶ null             taken out of the ring before their copy
//
// The head is the anchor of the list that stood for the file "x" before the set was built; it takes the name of its
// first page, and gets "x" back when the set is dissolved. Pages that nobody else knows of are freed then; a page that
// is in the anchor list for its own sake only becomes a plain file again.
#ifndef KZ_TRACE_ENGINE_PAGE_SET_H
#define KZ_TRACE_ENGINE_PAGE_SET_H

#include <cstdint>

#include "trace/trace.h"

constexpr uint32_t TR_MAX_PAGES = 65536; // of one set: a build of more fails like one without memory

// The head of the page set that the anchor belongs to, else the anchor itself.
template <typename Anchor> Anchor *set_head(Anchor *pAnchor) {
    return pAnchor->p_head_spool_anchor != nullptr ? pAnchor->p_head_spool_anchor : pAnchor;
}

// Whether the anchor is a page, the head included.
inline bool is_page(const trace_anchor_t *pAnchor) {
    return pAnchor->p_head_spool_anchor != nullptr;
}

inline bool is_set_head(const trace_anchor_t *pAnchor) {
    return pAnchor->p_head_spool_anchor == pAnchor;
}

// The page that follows in the ring of `pFirst`, or null when the round is made, or when there is no ring.
inline trace_anchor_t *next_page_of(const trace_anchor_t *pFirst, const trace_anchor_t *pPage) {
    return pPage->nextPage == pFirst ? nullptr : pPage->nextPage;
}

// Number of pages in the ring of a head; 1 for a plain file.
uint32_t count_pages(const trace_anchor_t *pHead);

// Length of the name that a file has, or had before its page set was built.
size_t base_name_length(const trace_anchor_t *pAnchor);
bool has_base_name(const trace_anchor_t *pAnchor, const char *pName);

// Size of one page in bytes, from the size of a file and its number of pages; a multiple of a memory page.
uint32_t page_size_for(const trace_anchor_t *pAnchor, uint32_t fileSize, uint32_t numPages);

// Turns an anchor whose file is not started into the head of a ring, as its entry says. Returns 0; or 14, 17 or -1 with
// the error object set and the anchor as it was.
int32_t build_page_set(trace_anchor_t *pAnchor) TR_HOLDS(global_lock);

// Turns the head of a stopped set into the anchor of a plain file again, without an entry; a plain file only loses its
// entry.
void dissolve_page_set(trace_anchor_t *pAnchor) TR_HOLDS(global_lock);

// Sets the entry of an anchor and of all its pages, retired ones included.
void set_spool_entry(trace_anchor_t *pAnchor, trace_spool_spec_t *pSpec) TR_HOLDS(global_lock);

// Lets a page that is in nobody's ring go: frees it, or makes it a plain file again when it is in the anchor list.
void release_page(trace_anchor_t *pPage) TR_HOLDS(global_lock) TR_HOLDS(anchor_set_lock);

// Whether an anchor can become a page of the head's set: one of the list may be a page of another set.
bool may_join(const trace_anchor_t *pPage, const trace_anchor_t *pHead);

// Makes an anchor a page of the head's set, stopped when it was in use as a plain file. The caller links it.
void join_page_set(trace_anchor_t *pPage, trace_anchor_t *pHead) TR_HOLDS(global_lock);

// Names page `number` of the set whose base name has `baseLength` characters. Returns false when it does not fit.
bool make_page_name(char (&name)[TR_NAME_SIZE], const char *pBaseName, size_t baseLength, uint32_t number);

// ---- Page switching (page_switch.cpp) ----

// The page of a set that records go to, and the longest record in bytes that it and the anchor accept.
struct active_page_t {
    trace_anchor_t *pPage;
    uint32_t uMaxSize; // 0: nothing is recorded, because the set is noted as damaged or memory is short
};

// Finds the active page of an anchor's set, or the page after it when that is full already.
active_page_t active_page(const trace_anchor_t *pAnchor) TR_HOLDS(anchor_set_lock);

// Hands a full page to the copy thread and makes the next one active: the first behind it whose own lock is free; when
// there is none, the first that is mapped, in the last resort the full page itself. A page whose copy has not been made
// is taken back, with a note in it. Keeps errno.
//
// Returns the page, or null, with error 14 set, when memory is short: the full page stays active.
trace_anchor_t *pageFull(trace_anchor_t *pFull) TR_HOLDS(anchor_set_lock);

#endif
