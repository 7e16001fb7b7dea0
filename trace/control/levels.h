// Trace level specifications: which categories record how much.
//
//   text  := [ entry { "," entry } [ "," ] ]
//   entry := [blanks] component ":" category [ "=" [blanks] level [blanks] ]
#ifndef KZ_TRACE_CONTROL_LEVELS_H
#define KZ_TRACE_CONTROL_LEVELS_H

#include "trace/control/spec_text.h"

constexpr int32_t TR_DEFAULT_LEVEL = -1; // the category's default level

// One entry; the texts of its patterns follow it in the same block.
struct trace_level_spec_t {
    trace_level_spec_t *pNext; // towards newer
    trace_level_spec_t *pPrev;
    char *pCompId;
    char *pCategory;
    int32_t detailLevel; // or TR_DEFAULT_LEVEL
};

// Clean-up record of the parser, for cancel_parse_trace_spec().
using cancel_parse_trace_spec_data_t = spec_undo_t<trace_level_spec_t>;

// Parses a whole text and appends its entries to the list, or refuses it with the list as it was. Returns 0 or the
// fault's code. Sets no error object.
int32_t parse_levels(const char *pText, spec_list_t<trace_level_spec_t> list, spec_fault_t *pFault);

// The same for a list given by its references; sets the error object.
int32_t parse_trace_spec(const char *pText, trace_level_spec_t **ppFirst, trace_level_spec_t **ppLast);

// Applies an entry to the target component, or to all of the anchor's registry when that is null. Returns 0.
int32_t process_trace_spec(trace_anchor_t *pAnchor, const trace_level_spec_t *pTraceSpec, component_anchor_t *pTgtComp)
    TR_HOLDS(global_lock);

#endif
