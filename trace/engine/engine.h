// What the engine offers the other subsystems: anchors, starting and stopping of files, space for records.
#ifndef KZ_TRACE_ENGINE_ENGINE_H
#define KZ_TRACE_ENGINE_ENGINE_H

#include <cstdint>

#include "trace/trace.h"

// ---- Anchors (anchor.cpp) ----

// Resets an anchor to its empty state. Leaves `bInitialized`, `seqNumber`, `next` and `buffer`, and the default
// anchor's mutex, as they are.
void initAnchor(trace_anchor_t *pAnchor);

// Settles which mutex is the anchor-set lock: pSpoolMutex of a page, else the anchor's own.
// To be called whenever these change, under the global lock and the anchor-set lock of before.
void choose_set_mutex(trace_anchor_t *pAnchor);

// Finds the anchor of a trace file: the default anchor for an empty name, the head for the base name of a page set. An
// unknown name gets a new anchor when `createIfNeeded` is not 0. Returns null when there is none or memory is short.
trace_anchor_t *findOrCreateAnchorForFile(const char *fileName, int32_t createIfNeeded) TR_HOLDS(global_lock);

// Returns 0 when `anchorFileName` is `fileName` followed by ".", decimal digits and ".sp"; otherwise not 0.
int spool_name_match(const char *anchorFileName, const char *fileName);

// Returns the anchor of a page of the set that `pSrcAnchor` heads: one of the anchor list that has the name, or a new
// one outside the list with what all pages share. Returns null, with error 14 set, when memory is short.
trace_anchor_t *getSplAnchor(trace_anchor_t *pSrcAnchor, const char *fileName) TR_HOLDS(global_lock);

// ---- Starting (start.cpp, open.cpp, reuse.cpp) ----

// Makes an anchor ready for recording: creates or re-uses its file, maps it and writes a start record. Does nothing
// when it is started already, or in the child of a fork. Returns 0, an error code with the error object set, or -1
// (started, but the file's mode could not be set). May be cancelled while the file is opened and sized.
int32_t start_trace(trace_anchor_t *pAnchor) TR_HOLDS(global_lock);

// Starts every anchor of the list that has a name, is not started and has something to record. Returns the result of
// the last start, 0 when there was none.
int32_t start_wanted_traces() TR_HOLDS(global_lock);

// Returns 1 when the anchor has a file name and any registered component a level that is not 0, else 0.
int32_t is_trace_on(const trace_anchor_t *pAnchor) TR_HOLDS(global_lock);

// Minutes from local time to UTC (UTC minus local), or -1 when the time cannot be broken down.
int32_t get_tz_offset();

// Writes a time calibration record: the file's time base brought up to date. Returns 0.
int32_t __time_calibration(trace_anchor_t *pAnchor) TR_HOLDS(anchor_set_lock);

// ---- Damaged files (repair.cpp) ----

// Takes the note of damage for its repair. Returns false when there is none or somebody else is at it.
bool take_damage(trace_anchor_t *pAnchor, trace_damage_t *pDamage) TR_HOLDS(anchor_set_lock);

// Says on standard error what was found, keeps the file under its name with ".save" appended and starts a fresh one.
// For the recorder that took the note, after it released its lock. Keeps errno and the error object.
void repair_damage(trace_anchor_t *pAnchor, const trace_damage_t *pDamage);

// ---- Stopping (stop.cpp) ----

// Stops every page of the anchor's ring, or its one file: flushes and unmaps it. The name, the ring and the sequence
// number are kept. Waits for recorders. Returns 0.
//
// child  not 0: neither touch nor flush the file
int32_t stop_trace(trace_anchor_t *pAnchor, int32_t child) TR_HOLDS(global_lock);

// Stops every started anchor that has nothing to record any more.
void stop_unwanted_traces() TR_HOLDS(global_lock);

// For the copy thread: has every mapped file and page written to its disk, and does not wait for it. Does nothing when
// tracing is stopped or the library is not initialised.
void flush_started_files();

// Installs the fork handler that switches tracing off in a child.
void register_atfork();

// 1 in the child of a fork. Read without a lock.
extern int32_t this_is_child;

#endif
