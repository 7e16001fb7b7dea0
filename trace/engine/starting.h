// What the three steps of a start hand each other: opening and sizing, validating, publishing.
//
// A file is opened, sized, mapped and validated into a description of its own, while recorders still find the anchor
// not started. Then, under the anchor-set lock, the anchor takes over the description and the start record is written:
// the first record that anybody can write is never earlier than that.
#ifndef KZ_TRACE_ENGINE_STARTING_H
#define KZ_TRACE_ENGINE_STARTING_H

#include <cstdint>

#include "trace/trace.h"

// How a start is to be done.
struct start_options_t {
    bool bQuiet;     // restart by a recorder: leave the error object alone
    bool bReinit;    // do not look at what the file holds
    bool bNewPage;   // of a ring that grows: never the active page, whatever its file says
    int cancelState; // the caller's, in force while the file is opened and sized; off during the rest
};

struct starting_file_t {
    const trace_anchor_t *pAnchor;
    start_options_t options;
    int fd;       // -1: not open
    dev_t device; // of the file
    ino_t inode;
    uint64_t uSize; // bytes to map
    uint8_t *pMap;  // null: not mapped
    bool bReinit;   // the contents are not to be re-used
    bool bModeFailed;
    bool bWasActive; // a page to which records were written last
    // Where writing goes on, once the contents are validated or made anew; offsets from the start of the file.
    uint32_t seqNumber;
    uint32_t nextFreeOffset;
};

// Program text and base name of this process, as the file header holds them.
struct program_names_t {
    char program[TR_PROGRAM_SIZE];
    char baseProgName[TR_PROGRAM_SIZE];
};

// Reports an error of a start, unless it is a quiet one. Returns the code.
int32_t start_error(const starting_file_t *pFile, int32_t code, int32_t message);
int32_t start_error_int(const starting_file_t *pFile, int32_t code, int32_t message, int32_t insert);
int32_t start_error_name(const starting_file_t *pFile, int32_t code);

// Opens the anchor's file, brings it to its size and maps it. Returns 0, or an error code with nothing left open or
// mapped. Cancellation is off, but for the time until the file has its size.
int32_t open_trace_file(starting_file_t *pFile) TR_HOLDS(global_lock);

// Decides whether the mapped contents are re-used, and makes them anew otherwise; sets `seqNumber` and
// `nextFreeOffset`. Cancellation is off.
void settle_contents(starting_file_t *pFile, const program_names_t *pNames) TR_HOLDS(global_lock);

// Largest record that a file of that size accepts: half of its data area, a multiple of 4.
inline uint32_t max_record_size(uint64_t uFileSize) {
    return static_cast<uint32_t>((uFileSize - TR_DATA_OFFSET) / 2) & ~uint32_t{3};
}

// Lays one free record over the whole data area.
void reset_ring(uint8_t *pMap, uint64_t uSize);

// Starts a file or the head of a page set again that was stopped under the same locks. Leaves the error object alone.
// Cancellation is off.
//
// pReinitPage  the file or page whose contents are not looked at, or null
int32_t restart_trace(trace_anchor_t *pAnchor, const trace_anchor_t *pReinitPage) TR_HOLDS(global_lock)
    TR_HOLDS(anchor_set_lock);

// Starts a page that joined a set but is not in its ring yet; its result is of no consequence, an unmapped page is passed
// over.
void start_new_page(trace_anchor_t *pPage) TR_HOLDS(global_lock);

// The one that start_trace() calls, also for a file that is stopped and becomes a page set in one step, behind hold_set():
// as build_page_set() and start_trace() in one, but without asking for an entry.
int32_t start_as_set(trace_anchor_t *pAnchor) TR_HOLDS(global_lock);

#endif
