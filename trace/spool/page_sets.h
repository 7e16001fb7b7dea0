// What binding and reconfiguration share.
#ifndef KZ_TRACE_SPOOL_PAGE_SETS_H
#define KZ_TRACE_SPOOL_PAGE_SETS_H

#include "trace/trace.h"

// Makes "/dev/null" the destination of an entry. Waits while a page is being copied.
void spool_nowhere(trace_spool_spec_t *pSpec) TR_HOLDS(global_lock) TR_EXCLUDES(queue_lock);

#endif
