// What the texts of levels, maps and sizes have in common: blanks, entries, the separator behind a component pattern, file-name
// tokens, patterns, and lists of entries that are accepted whole or not at all.
//
// Parsing is apart from applying, and a fault is data, so that tools check a text without a program that traces.
#ifndef KZ_TRACE_CONTROL_SPEC_TEXT_H
#define KZ_TRACE_CONTROL_SPEC_TEXT_H

#include <pthread.h>
#include <regex.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "trace/frame/frame.h"
#include "trace/trace.h"

// A stretch of a text; offsets count from the start of the whole text.
struct spec_range_t {
    const char *pText;
    uint32_t pos; // where the parser stands; moves over accepted text only
    uint32_t end;
};

// Why a text was refused.
struct spec_fault_t {
    int32_t code;    // result code, which is its message's number too
    uint32_t offset; // as the message names it
    uint32_t origin; // where in the whole text that offset counts from
};

// Sets the error object from a fault. Returns its code.
int32_t set_spec_error(const spec_fault_t *pFault);

// Notes a fault. Returns its code.
int32_t spec_fault(spec_fault_t *pFault, int32_t code, uint32_t offset);

// The whole of a text.
spec_range_t whole_text(const char *pText);

// Moves over space characters; nothing else is a blank.
void skip_blanks(spec_range_t *pRange);

// Offset of the first character `c` at or after the position, or the end.
uint32_t find_char(const spec_range_t *pRange, char c);

// component := any text up to the first ":" outside brackets and braces, not empty.
// Stands behind the ":" afterwards. Returns 0; 10 at the start of an empty component; 11 at the end without a separator.
int32_t parse_component(spec_range_t *pEntry, spec_range_t *pComponent, spec_fault_t *pFault);

// name := [blanks] ( '"' text up to '"' or the end | text up to "," blank '"' or the end ) ['"'] [","] [blanks]
// Copies the name, cut to its 4,095 characters.
void parseFileName(spec_range_t *pGroup, char (&fileName)[TR_NAME_SIZE]);

// ---- Patterns: extended regular expressions that follow the program's locale, without regard to case ----

struct spec_patterns_t {
    regex_t component;
    regex_t category;
};

// Bytes that a pattern takes as a text, its zero byte included. A pattern "*" alone stands for ".*".
size_t pattern_size(const spec_range_t *pPattern);
// Stores it as a text. Returns where it ends.
char *store_pattern(char *pTo, const spec_range_t *pPattern);

// Compiles both. Returns 0; 15 or 16 when the first, the second is no valid expression, or 14 when memory is short, with
// nothing left to free.
int32_t compile_patterns(spec_patterns_t *pPatterns, const char *pComponent, const char *pCategory);
void free_patterns(spec_patterns_t *pPatterns);
bool is_match(const regex_t *pPattern, const char *pText);

// ---- Lists of entries with pNext and pPrev, in the order of their arrival ----

template <typename Spec> struct spec_list_t {
    Spec **ppFirst;
    Spec **ppLast;
};

// Clean-up record of a parser: the list, and its tail as parsing began.
template <typename Spec> struct spec_undo_t {
    Spec **ppFirst;
    Spec **ppLast;
    Spec *pLastOrig;
};

template <typename Spec> void append_specs(spec_list_t<Spec> list, Spec *pFirst, Spec *pLast) {
    pFirst->pPrev = *list.ppLast;
    if (*list.ppLast != nullptr)
        (*list.ppLast)->pNext = pFirst;
    else
        *list.ppFirst = pFirst;
    *list.ppLast = pLast;
}

// Removes what came behind `pLastOrig`; everything when that is null.
template <typename Spec> void restore_specs(const spec_undo_t<Spec> *pUndo) {
    Spec *pSpec = pUndo->pLastOrig != nullptr ? pUndo->pLastOrig->pNext : *pUndo->ppFirst;
    while (pSpec != nullptr) {
        Spec *const pNext = pSpec->pNext;
        free(pSpec);
        pSpec = pNext;
    }
    *pUndo->ppLast = pUndo->pLastOrig;
    if (pUndo->pLastOrig != nullptr)
        pUndo->pLastOrig->pNext = nullptr;
    else
        *pUndo->ppFirst = nullptr;
}

template <typename Spec> void free_specs(spec_list_t<Spec> list) {
    const spec_undo_t<Spec> undo = {list.ppFirst, list.ppLast, nullptr};
    restore_specs(&undo);
}

// Allocates an entry and the texts of its patterns as one block, zeroed. Returns null when memory is short.
template <typename Spec> Spec *new_spec(const spec_range_t *pComponent, const spec_range_t *pCategory) {
    auto *pSpec = static_cast<Spec *>(calloc(1, sizeof(Spec) + pattern_size(pComponent) + pattern_size(pCategory)));
    if (pSpec != nullptr) {
        pSpec->pCompId = reinterpret_cast<char *>(pSpec + 1);
        pSpec->pCategory = store_pattern(pSpec->pCompId, pComponent);
        (void)store_pattern(pSpec->pCategory, pCategory);
    }
    return pSpec;
}

// Compiles the patterns of an entry only to see whether they can be. Returns 0, or the fault.
template <typename Spec>
int32_t check_patterns(const Spec *pSpec, const spec_range_t *pComponent, const spec_range_t *pCategory,
                       spec_fault_t *pFault) {
    spec_patterns_t patterns;
    const int32_t rc = compile_patterns(&patterns, pSpec->pCompId, pSpec->pCategory);
    if (rc == 0) {
        free_patterns(&patterns);
        return 0;
    }
    return spec_fault(pFault, rc, rc == TR_RC_COMPONENT_PATTERN ? pComponent->pos : pCategory->pos);
}

#endif
