// Stopping one file, for those who hold its lock already.
#ifndef KZ_TRACE_ENGINE_STOPPING_H
#define KZ_TRACE_ENGINE_STOPPING_H

#include "trace/trace.h"

// Flushes and unmaps one file or page; recorders find it not started. With `child` not 0, and in the child of a fork,
// it only unmaps. Cancellation is off.
void stop_trace_page(trace_anchor_t *pAnchor, int32_t child) TR_HOLDS(global_lock) TR_HOLDS(anchor_set_lock);

#endif
