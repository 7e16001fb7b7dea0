// Names and sizes of trace files.
//
//   text  := [ group { ";" group } [ ";" ] ]
//   group := name size
#ifndef KZ_TRACE_CONTROL_SETTINGS_H
#define KZ_TRACE_CONTROL_SETTINGS_H

#include "trace/control/spec_text.h"

// One group of a file size specification.
struct file_size_spec_t {
    char fileName[TR_NAME_SIZE]; // empty: the default trace file
    uint32_t uSize;              // bytes
};

// Parses the group at the position, which is below the end, and stands behind the ";" that ended it. Returns 0 or the
// fault's code. Sets no error object.
int32_t parse_file_size(spec_range_t *pText, file_size_spec_t *pSpec, spec_fault_t *pFault);

// Parses and applies a whole text group by group; the groups before a faulty one keep their effect. Returns 0, or a code
// with the error object set.
int32_t parse_fileSize_spec(const char *pText) TR_HOLDS(global_lock);

#endif
