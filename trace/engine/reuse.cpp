// What a freshly mapped file holds: an intact ring of this program to be continued, or nothing worth keeping.
#include <sys/time.h>
#include <time.h>
#include <unistd.h>

#include <cstring>

#include "cu/kz_cu.h"
#include "trace/engine/engine.h"
#include "trace/engine/page_set.h"
#include "trace/engine/ring.h"
#include "trace/engine/starting.h"
#include "trace/frame/frame.h"

#ifndef KZ_TR_BUILD_NAME
#define KZ_TR_BUILD_NAME "Unknown"
#endif

static uint8_t byte_order_property() {
    const uint16_t endian_test = 1;
    uint8_t firstByte = 0;
    memcpy(&firstByte, &endian_test, 1);
    return firstByte != 0 ? TR_PROPERTY_LITTLE_ENDIAN : 0;
}

static uint64_t node_id() {
    uint64_t id = 0;
    return cu_get_node_id_1(&id) == 0 ? id : 0;
}

int32_t get_tz_offset() {
    constexpr int MINUTES_A_DAY = 1440;
    const time_t now = time(nullptr);
    tm local = {}, utc = {};
    if (localtime_r(&now, &local) == nullptr || gmtime_r(&now, &utc) == nullptr)
        return -1;
    int days = utc.tm_yday - local.tm_yday;
    if (utc.tm_year != local.tm_year) // New Year's night
        days = utc.tm_year > local.tm_year ? 1 : -1;
    return days * MINUTES_A_DAY + (utc.tm_hour - local.tm_hour) * 60 + utc.tm_min - local.tm_min;
}

// ---- A fresh header ----

// Which page of a set is the active one is settled when all are started; until then it is the one that was.
static uint8_t fresh_page_state(const trace_anchor_t *pAnchor) TR_HOLDS(global_lock) {
    if (!is_page(pAnchor))
        return TR_NOT_A_PAGE;
    const bool bActive = observe(pAnchor->ppActivePg) == pAnchor;
    debug_line("init_trace_header: setting %s to %s\n", pAnchor->fileName, bActive ? "TR_ACTIVE" : "TR_READY");
    return bActive ? TR_ACTIVE : TR_READY;
}

// Writes all but what every start writes: process, program and base name.
static void init_trace_header(const starting_file_t *pFile) TR_HOLDS(global_lock) {
    trace_file_header_t header = {};
    header.uProperties = byte_order_property();
    header.uPlatform = TR_PLATFORM;
    header.uVersion = TR_VERSION;
    header.uOffset = TR_DATA_OFFSET;
    header.uOldestRecordOffset = TR_DATA_OFFSET;
    header.uSeqLock = TR_SEQ_LOCK_NONE;
    header.uActualFileSize = static_cast<uint32_t>(pFile->uSize);
    strncpy(header.buildName, KZ_TR_BUILD_NAME, sizeof header.buildName - 1);
    cu_timeinfo_t timeInfo = {};
    cu_get_procspeed_1(&timeInfo);
    header.timeInfo = timeInfo;
    cu_cluster_info_t cluster = {};
    if (get_cluster_info(&cluster) == 0)
        header.uNodeNumber = static_cast<uint16_t>(cluster.cu_node_number);
    header.uNode_ID = node_id();
    header.sp_flags = fresh_page_state(pFile->pAnchor);
    header.tz_offset = get_tz_offset();
    memcpy(pFile->pMap, &header, sizeof header);
}

void reset_ring(uint8_t *pMap, uint64_t uSize) {
    trace_file_header_t *const pHeader = header_of(pMap);
    publish(&pHeader->uOffset, TR_DATA_OFFSET);
    publish(&pHeader->uOldestRecordOffset, TR_DATA_OFFSET); // first: there is always a record
    write_free_record(pMap + TR_DATA_OFFSET, static_cast<uint32_t>(uSize - TR_DATA_OFFSET), 0);
}

// ---- Ring check ----

struct ring_check_t {
    uint8_t *pMap;
    uint64_t uSize;
    uint64_t uOldest;    // offset at which readers begin
    uint32_t seqNumber;  // of the newest record met
    const char *pDamage; // what is wrong, or null
};

// A record at `offset` that reaches past the oldest one gives way: what lies before the oldest becomes the free record.
static void cut_straddling_record(ring_check_t *pCheck, uint64_t offset) {
    if (pCheck->uOldest - offset < TR_HEADER_LENGTH) {
        pCheck->pDamage = "corruption straddle";
        return;
    }
    write_free_record(pCheck->pMap + offset, static_cast<uint32_t>(pCheck->uOldest - offset), TR_SEQ_FREE);
    publish(&header_of(pCheck->pMap)->uOldestRecordOffset, static_cast<uint32_t>(offset));
    pCheck->uOldest = offset;
}

// Checks the record at `offset`. Returns the offset of the one that follows in the ring.
static uint64_t check_record(ring_check_t *pCheck, uint64_t offset) {
    const uint8_t *pRec = pCheck->pMap + offset;
    const uint32_t length = record_length(pRec);
    const uint32_t seqNumber = record_seq(pRec);
    if (length == 0 || (seqNumber % 2 != 0 && seqNumber != TR_SEQ_FREE)) {
        pCheck->pDamage = "corruption 2";
        return offset;
    }
    const uint64_t next = offset + length;
    if (next > pCheck->uSize || (next < pCheck->uSize && pCheck->uSize - next < TR_HEADER_LENGTH)) {
        pCheck->pDamage = "corruption 3";
        return offset;
    }
    if (offset < pCheck->uOldest && next > pCheck->uOldest) {
        cut_straddling_record(pCheck, offset);
        return offset;
    }
    if (seqNumber != TR_SEQ_FREE)
        pCheck->seqNumber = seqNumber;
    return next == pCheck->uSize ? TR_DATA_OFFSET : next;
}

// Walks the whole ring. It ends: every step moves forward, the only jump goes from the end to the front, and the oldest
// record lies between the two.
static void check_ring(ring_check_t *pCheck) {
    const trace_file_header_t *pHeader = header_of(pCheck->pMap);
    pCheck->uOldest = observe(&pHeader->uOldestRecordOffset);
    if (pHeader->uOffset != TR_DATA_OFFSET || pCheck->uOldest < TR_DATA_OFFSET ||
        pCheck->uOldest > pCheck->uSize - TR_HEADER_LENGTH) {
        pCheck->pDamage = "corruption 1";
        return;
    }
    uint64_t offset = pCheck->uOldest;
    do
        offset = check_record(pCheck, offset);
    while (pCheck->pDamage == nullptr && offset != pCheck->uOldest);
}

// ---- The decision ----

// Whether the header shows a file of this program, machine and format, all of it mapped.
static bool is_own_header(const trace_file_header_t *pHeader, const program_names_t *pNames, uint64_t uSize) {
    return (pHeader->uProperties & TR_PROPERTY_LITTLE_ENDIAN) == byte_order_property() &&
           (pHeader->uProperties & TR_PROPERTY_NO_REUSE) == 0 &&
           strncmp(pHeader->program, pNames->program, sizeof pHeader->program) == 0 &&
           pHeader->uVersion <= TR_VERSION && pHeader->uActualFileSize == uSize;
}

// The state byte of a file that is re-used, and whether records were last written to it as a page.
static void reuse_page_state(starting_file_t *pFile) {
    trace_file_header_t *pHeader = header_of(pFile->pMap);
    if (!is_page(pFile->pAnchor)) {
        pHeader->sp_flags = TR_NOT_A_PAGE;
    } else if ((pHeader->sp_flags & TR_ACTIVE) != 0 && !pFile->options.bNewPage) {
        pFile->bWasActive = true;
        debug_line("start_trace_page: found active page (%s)\n", pFile->pAnchor->fileName);
    } else {
        pHeader->sp_flags = TR_READY;
    }
}

// Takes over what the file holds. Returns false when it is not to be re-used.
static bool reuse_contents(starting_file_t *pFile, const program_names_t *pNames) {
    trace_file_header_t *pHeader = header_of(pFile->pMap);
    const char *pName = pFile->pAnchor->fileName;
    if (!is_own_header(pHeader, pNames, pFile->uSize)) {
        debug_line("\ttrace: reInit for %s due to size,version,program name\n", pName);
        return false;
    }
    if (pHeader->uVersion >= TR_VERSION_PAGES)
        reuse_page_state(pFile);
    if (pHeader->uVersion >= TR_VERSION_NODE_ID)
        pHeader->uNode_ID = node_id();
    publish(&pHeader->uFlags, uint16_t{0});
    ring_check_t check = {.pMap = pFile->pMap, .uSize = pFile->uSize, .uOldest = 0, .seqNumber = 0, .pDamage = nullptr};
    check_ring(&check);
    if (check.pDamage != nullptr) {
        debug_line("\ttrace: reInit for %s due to %s\n", pName, check.pDamage);
        return false;
    }
    pFile->seqNumber = check.seqNumber;
    pFile->nextFreeOffset = static_cast<uint32_t>(check.uOldest);
    debug_line("\ttrace: Re-using existing file.\n");
    return true;
}

// "name (size) started at time.microseconds"
static void log_started(const starting_file_t *pFile) {
    if (observe(&global_debug_level) < TR_DEBUG_ALL)
        return;
    char when[32] = "";
    timeval now = {};
    tm local = {};
    (void)gettimeofday(&now, nullptr);
    if (localtime_r(&now.tv_sec, &local) != nullptr)
        (void)strftime(when, sizeof when, "%F %T", &local);
    debug_line(" +++ %s (%u) started at %s.%d\n", pFile->pAnchor->fileName, static_cast<uint32_t>(pFile->uSize), when,
               static_cast<int>(now.tv_usec));
}

void settle_contents(starting_file_t *pFile, const program_names_t *pNames) {
    if (pFile->bReinit || pFile->options.bReinit || !reuse_contents(pFile, pNames)) {
        debug_line("\ttrace: reInit block for %s\n", pFile->pAnchor->fileName);
        init_trace_header(pFile);
        reset_ring(pFile->pMap, pFile->uSize);
        pFile->seqNumber = 0;
        pFile->nextFreeOffset = TR_DATA_OFFSET;
    }
    trace_file_header_t *pHeader = header_of(pFile->pMap);
    pHeader->uPid = static_cast<uint32_t>(getpid());
    memcpy(pHeader->program, pNames->program, strlen(pNames->program) + 1);
    memcpy(pHeader->baseProgName, pNames->baseProgName, strlen(pNames->baseProgName) + 1);
    debug_line("baseProgName in header: %s\n", pNames->baseProgName);
    log_started(pFile);
}
