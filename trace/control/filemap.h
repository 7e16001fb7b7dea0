// File map specifications: which categories record into which trace file.
//
//   text      := [ group { ";" group } [ ";" ] ]
//   group     := name selection
//   selection := entry { "," entry } [ "," ]
//   entry     := [blanks] [ "," [blanks] ] component ":" category [ blank rest that is ignored ]
#ifndef KZ_TRACE_CONTROL_FILEMAP_H
#define KZ_TRACE_CONTROL_FILEMAP_H

#include "trace/control/spec_text.h"

// One entry; the texts of its patterns follow it in the same block.
struct trace_map_spec_t {
    trace_map_spec_t *pNext; // towards newer
    trace_map_spec_t *pPrev;
    char *pCompId;
    char *pCategory;
    char fileName[TR_NAME_SIZE]; // empty: the default trace file
};

// Clean-up record of the parser, for cancel_parse_map_spec().
using cancel_parse_map_spec_data_t = spec_undo_t<trace_map_spec_t>;

// Parses a whole text group by group and appends their entries to the list. The groups before a faulty one keep theirs.
// Offsets of faults in a selection count from its start, which `origin` tells. Returns 0 or the fault's code. Sets no
// error object.
int32_t parse_file_maps(const char *pText, spec_list_t<trace_map_spec_t> list, spec_fault_t *pFault);

// The same for a list given by its references; sets the error object.
int32_t parse_map_spec(const char *pText, trace_map_spec_t **ppFirst, trace_map_spec_t **ppLast);

// Appends the entries of one selection list for a file, or refuses it with the list as it was. Returns 0, or a code with
// the error object set.
int32_t tr_set_file_map_chain(const char *pFileName, const char *pSelectString, trace_map_spec_t **ppFirst,
                              trace_map_spec_t **ppLast);

// Applies an entry to the target component, or to all of the anchor's registry when that is null. Returns 0.
int32_t process_map_spec(trace_anchor_t *pAnchor, const trace_map_spec_t *pMapSpec, component_anchor_t *pTgtComp)
    TR_HOLDS(global_lock);

#endif
