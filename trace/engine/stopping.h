// Stopping one file, for those who hold its lock already.
#ifndef KZ_TRACE_ENGINE_STOPPING_H
#define KZ_TRACE_ENGINE_STOPPING_H

#include "trace/trace.h"

// Flushes and unmaps one file or page; recorders find it not started. With `child` not 0, and in the child of a fork,
// it only unmaps. Cancellation is off.
void stop_trace_page(trace_anchor_t *pAnchor, int32_t child) TR_HOLDS(global_lock) TR_HOLDS(anchor_set_lock);

// The same for a plain file, or for the head of a page set with all its pages, which leave the queue to the copy thread.
// Retired pages are let go, and recording will go on in the head. Waits for a page that is being copied.
void stop_pages(trace_anchor_t *pAnchor, int32_t child) TR_HOLDS(global_lock) TR_HOLDS(anchor_set_lock);

// Stops a page that is in no ring any more, and releases it.
void let_page_go(trace_anchor_t *pPage, int32_t child) TR_HOLDS(global_lock) TR_HOLDS(anchor_set_lock)
    TR_HOLDS(queue_lock);

#endif
