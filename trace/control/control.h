// What the control subsystem offers the others: the component registry, and the specifications of the environment.
#ifndef KZ_TRACE_CONTROL_CONTROL_H
#define KZ_TRACE_CONTROL_CONTROL_H

#include "trace/trace.h"

// Forgets an anchor's components and specifications at termination. Callers' level arrays stay as they are, and so do the
// token arrays, which threads that still run may read.
void release_control_lists(trace_anchor_t *pAnchor) TR_HOLDS(global_lock);

// Takes up KZ_TR_TRACE_LEVELS, KZ_TR_FILE_MAP and KZ_TR_FILE_SIZE; null or empty texts are not there. What is faulty is
// left out, without a word.
void take_environment_specs(const char *pLevels, const char *pFileMap, const char *pFileSizes) TR_HOLDS(global_lock);

#endif
