// Private structures of the library: anchors, components and the lists that hang off the default anchor.
//
// An anchor describes one trace file: its name and size, its mapping, where the next record goes, and its place in a
// ring of page files. The default anchor `anchors` also carries the process-wide lists and the global lock. A file
// token is a pointer to an anchor, so an anchor of the list is never freed.
//
//   anchors ──next──▶ newest ──next──▶ … ──next──▶ oldest ──▶ null
//
// Which lock guards which field stands in locks.h.
#ifndef KZ_TRACE_TRACE_H
#define KZ_TRACE_TRACE_H

#include <pthread.h>
#include <sys/types.h>

#include <cstdint>

#include "trace/kz_tr.h"
#include "trace/locks.h"
#include "trace/trace_format.h"

constexpr uint32_t TR_NAME_SIZE = 4096; // bytes of a file name, zero byte included
constexpr uint32_t TR_PATTERN_SIZE = 1024;
constexpr uint32_t TR_SCRATCH_SIZE = 1024;
constexpr uint32_t TR_DEFAULT_FILE_SIZE = 65536;
constexpr uint32_t TR_MAX_CATEGORIES = 255;
constexpr uint32_t TR_MAX_LEVEL = 255;
constexpr char TR_SAVE_SUFFIX[] = ".save"; // of a file found damaged

// One registered component. Its category copies and their names follow it in the same block.
struct component_anchor_t {
    component_anchor_t *pNext; // the list runs from the newest to the oldest
    char compId[TR_COMP_ID_SIZE + 1];
    tr_detail_level_t *pDetailLevels; // the caller's
    tr_file_token_t *pFileTokens;     // one a category; handed to the caller
    int32_t numberOfCategories;
    tr_category_description_t *categories; // in the caller's order
};

struct trace_level_spec_t;
struct trace_map_spec_t;

// One spooling entry: which trace files are kept as page rings, and where their full pages go.
struct trace_spool_spec_t {
    trace_spool_spec_t *pNext;
    trace_spool_spec_t *pPrev;
    char dest[TR_NAME_SIZE];
    char pattern[TR_PATTERN_SIZE]; // extended regular expression on trace file names, without regard to case
    uint32_t pages;
    uint32_t pg_size; // bytes; 0: from the file's size
    int32_t onoff;
    uint32_t sync_interval; // seconds
    char *dir;              // borrowed from a `dest`; null until needed
};

struct trace_anchor_t;

// A full page that waits to be copied, or a file whose copy was asked for.
struct sp_q_element_t {
    sp_q_element_t *pNext;       // the next older element
    sp_q_element_t *pPrev;       // the next newer one
    trace_anchor_t *pAnchor;     // the page, or null
    char fileName[TR_NAME_SIZE]; // the file; empty for a page
    const char *dest;            // the file's destination directory, the caller's text; null for a page
    int32_t del;                 // 1: remove the file once it is copied
};

// The queue to the copy thread. The queue lock guards all of it, its elements and the state bytes of queued pages.
struct sp_q_t {
    sp_q_element_t *pFirst; // the newest
    sp_q_element_t *pLast;  // the oldest
    int32_t cnt;
    pthread_mutex_t mutex;
    pthread_cond_t cond;
};

// What a writer found wrong with a mapped ring, or else why a walk ended without room.
enum trace_damage_kind_t : uint8_t {
    TR_DAMAGE_NONE,
    TR_DAMAGE_PAGE_FULL, // no damage: the end of a page
    TR_DAMAGE_LOOP,      // a walk longer than the ring can have records
    TR_DAMAGE_OVERWRAP,  // the end of the ring twice in one walk
    TR_DAMAGE_OVERRUN,   // a position with no room for a header
};

// The note of damage: made by the reservation that meets it, cleared by the repair or when the file is stopped. While
// it stands nothing is reserved.
struct trace_damage_t {
    trace_damage_kind_t kind;
    bool bTaken;           // somebody is on his way to repair it
    uint32_t uReqLength;   // bytes of the record that was asked for
    trace_anchor_t *pPage; // the damaged file or page
};

struct trace_anchor_t {
    int32_t bInitialized;        // default anchor: the library has read the environment
    pthread_mutex_t anchorMutex; // default anchor: the global lock
    uint8_t *pMap;               // start of the mapping, the file header; null: not started
    uint8_t *pMapEnd;            // one past its end
    uint32_t seqNumber;          // last sequence number given out
    uint8_t *pNextFree;          // record header at which the next reservation begins
    uint8_t *pWrap;              // record header at the front of the ring
    uint32_t uMaxSize;           // bytes: largest record accepted; 0: not started, or damaged
    int64_t pageSize;            // bytes of a memory page
    component_anchor_t *pFirstComp;
    char fileName[TR_NAME_SIZE]; // empty: no trace file. Head of a page set: its first page
    uint32_t uRequestedFileSize; // bytes; in a page set of one page
    uint32_t uActualFileSize;    // bytes mapped
    trace_level_spec_t *pFirstTraceSpec, *pLastTraceSpec;
    trace_map_spec_t *pFirstMapSpec, *pLastMapSpec;
    trace_spool_spec_t *pFirstSpoolSpec, *pLastSpoolSpec;
    char buffer[TR_SCRATCH_SIZE]; // scratch for formatted texts
    uint32_t numAnchors;          // default anchor: anchors in the list, itself included
    trace_anchor_t *next;         // published when the anchor is complete
    trace_spool_spec_t *spool;    // governing entry, or null
    trace_anchor_t *nextPage;     // next page of the ring; null: not kept in pages
    int32_t bSpoolProcessed;
    pthread_mutex_t *pSpoolMutex; // shared by all pages of a set; never freed
    trace_anchor_t *pActivePg;    // head page: where records go
    trace_anchor_t **ppActivePg;  // every page: the head's pActivePg
    uint32_t consecutiveSpoolNotCopied;
    trace_anchor_t *p_head_spool_anchor;
    trace_anchor_t *p_obsolete_pages, *p_obsolete_pages_tail;

    pthread_mutex_t
        *pSetMutex; // the anchor-set lock: pSpoolMutex of a page set in use, else the own mutex. Null on the
                    // default anchor until the library is initialised: nothing is recorded before
    dev_t device;   // of the mapped file: no file is mapped twice
    ino_t inode;
    trace_damage_t damage; // head of a page set: of any of its pages
    uint32_t uUnpagedSize; // page: requested size in bytes before it became one
    bool bFull;            // page: filled to its very end, the next reservation takes the page that follows
    bool bRetired;         // page: on the head's list of retired pages, no longer in the ring
};

extern trace_anchor_t anchors;

extern "C" {
// Guards insertion into the anchor list and `numAnchors`; nothing is locked or waited for under it.
KZ_TR_API extern pthread_mutex_t anchorListMutex;
}

// The anchor behind a file token.
inline trace_anchor_t *anchor_of(tr_file_token_t fileToken) {
    return fileToken != nullptr ? fileToken : &anchors;
}

// Header of a mapped file.
inline trace_file_header_t *header_of(uint8_t *pMap) {
    return reinterpret_cast<trace_file_header_t *>(pMap);
}

#endif
