// What spooling offers the other subsystems: entries for trace files, the queue to the copy thread, the core event.
#ifndef KZ_TRACE_SPOOL_SPOOL_H
#define KZ_TRACE_SPOOL_SPOOL_H

#include <time.h>

#include <cstdint>

#include "trace/trace.h"

// ---- Entries (entries.cpp; more about them in config.h) ----

// Reads the spooling configuration, once per process: `KZ_TR_SPOOL` when that is set and not empty, else the
// configuration file. What was stored before a failure stays.
void read_spool_cfg_once() TR_HOLDS(global_lock);

// Frees an entry and all that follow it; null does nothing.
void free_spool_spec_linked_list(trace_spool_spec_t *pFirst);

// ---- Page sets (page_sets.cpp) ----

// Binds an anchor to the entry that governs its file, unless that is done already, and brings its ring in line.
//
// pFirstSpoolSpec  the list to choose from
//
// Returns the anchor's entry of before when no entry of the list governs the file any more: the anchor and its pages
// still point at it, and its destination has become "/dev/null". Otherwise null.
trace_spool_spec_t *process_spool_spec(trace_anchor_t *pAnchor, trace_spool_spec_t *pFirstSpoolSpec)
    TR_HOLDS(global_lock);

// ---- Reconfiguration (reconfigure.cpp) ----

extern "C" {
// Modification time of the configuration file when it was last taken up, in seconds; 0 has it read again. Guarded by the
// mutex behind it, a leaf lock, which guards nothing else.
KZ_TR_API extern time_t configuration_file_last_modified;
KZ_TR_API extern pthread_mutex_t configuration_file_last_modified_mutex;
}

enum configuration_action_t : int32_t {
    TAKE_NO_ACTION = 0,
    RECONFIGURE = 1,
    TURN_SPOOLING_OFF = 2,
};

// Compares the configuration file with what was last taken up. A newer one counts as taken up from here.
configuration_action_t determine_configuration_action_from_the_configuration_file();

// Takes up a changed configuration file, or turns spooling off when it is gone. Takes the global lock.
void configure_if_necessary();

// ---- The queue (queue.cpp) ----

extern sp_q_t spq;

// Holders of the queue lock keep the copy thread out of every page: none is being copied then.
void lock_queue(sp_q_t *pQueue) TR_LOCK(queue_lock);
// The same, but gives up at a point of time of CLOCK_REALTIME. Returns 0 or the platform's error number.
int lock_queue_until(sp_q_t *pQueue, const struct timespec *pDeadline) TR_TRY_LOCK(queue_lock);
void unlock_queue(sp_q_t *pQueue) TR_UNLOCK(queue_lock);

// State byte of a page; 0 when the page is not mapped.
uint8_t page_state(const trace_anchor_t *pPage);

// Queues a full page (fileName and dest null, del 0) or the copy of a file (pAnchor null), and wakes the copy thread.
// Waits while a page is being copied. Cancellation is off.
//
// Returns the page that follows the full one: its nextPage, or its set's head when that is null or the page is retired.
// Null for a file, and with error 14 set when memory is short.
trace_anchor_t *spool_enqueue(const char *fileName, const char *dest, trace_anchor_t *pAnchor, sp_q_t *pQueue,
                              int32_t del) TR_EXCLUDES(queue_lock);
trace_anchor_t *spool_enqueue_inside_spq(const char *fileName, const char *dest, trace_anchor_t *pAnchor,
                                         sp_q_t *pQueue, int32_t del) TR_HOLDS(queue_lock);

// Takes every element of a page off the queue and frees it. For pages that are about to be unmapped, freed or reused.
void spool_remove_page_inside_spq(sp_q_t *pQueue, const trace_anchor_t *pPage) TR_HOLDS(queue_lock);

// Takes the oldest element off, for the caller to free; null when the queue is empty. Declared once more than for
// programs: with the lock that it needs.
// NOLINTNEXTLINE(readability-redundant-declaration)
extern "C" sp_q_element_t *spool_dequeue_last_element_inside_spq(sp_q_t *pQueue) TR_HOLDS(queue_lock);

// Decides whether a page may be reused without loss, and takes its elements off.
// Returns the state that the page had: TR_READY, or another when its copy has not been made. Cancellation is off.
uint8_t spool_take_back_inside_spq(sp_q_t *pQueue, trace_anchor_t *pPage) TR_HOLDS(queue_lock);

// ---- The copy thread (thread.cpp) ----

// Starts the copy thread, once per process. Where that fails nothing is ever copied. Not a cancellation point.
void start_copy_thread_once();

// Has the copy thread look at the configuration file before it sleeps again. Waits for 50 ms at most. Cancellation is
// off.
void ask_for_configuration() TR_EXCLUDES(queue_lock);

// At termination, with the stop switch set: wakes the copy thread and waits until it has ended, 2 s at most. A copy in
// progress is finished first, a hung one is not waited for longer. Cancellation is off.
void wait_for_copy_thread();

// 1 while the copy thread runs: written by it alone, cleared as the last thing it does. Read without a lock.
extern int32_t is_spool_running;

// ---- The core event (core_event.cpp) ----

// Copies out the message of the core event, when one is set for this file, by the name of the page or of its set.
//
// pMessage  room for `size` bytes; a longer message is cut. May be null when size is 0
//
// Returns the length of the whole message, or -1 when there is none. Takes a leaf lock of its own.
int64_t get_core_message(const trace_anchor_t *pAnchor, char *pMessage, size_t size) TR_HOLDS(anchor_set_lock);

#endif
