// Layout of trace files: the file header, the record header and the body of every record kind.
//
// A trace file is a header of 200 bytes and a data area, a ring of records that follow each other without gaps. Every
// number stands in the byte order of the machine that wrote it. Structures are packed on 4 bytes: a 64-bit field may
// stand at a multiple of 4 that is not one of 8, so such fields are used in place or copied, and never pointed at.
//
// A reader steps from record to record by `length` and believes a body once `function` has left TR_KIND_RESERVED.
// docs/file-format.md tells the same in prose.
#ifndef KZ_TRACE_TRACE_FORMAT_H
#define KZ_TRACE_TRACE_FORMAT_H

#include <cstddef>
#include <cstdint>
#include <type_traits>

#include "cu/kz_cu.h"

// File header.
constexpr uint8_t TR_PROPERTY_LITTLE_ENDIAN = 0x80; // uProperties: the writer's machine is little-endian
constexpr uint8_t TR_PROPERTY_NO_REUSE = 0x40;      // uProperties: never re-used, re-initialised at the next start
constexpr uint8_t TR_PLATFORM = 2;                  // uPlatform of files that this library writes
constexpr uint16_t TR_VERSION = 5;                  // uVersion of files that this library writes
constexpr uint16_t TR_VERSION_NODE_ID = 4;          // first version that has uNode_ID
constexpr uint16_t TR_VERSION_PAGES = 5;            // first version that has sp_flags
constexpr uint16_t TR_FLAG_COORDINATE = 0x8000;     // uFlags: the writer asks the tail reader to catch up
constexpr uint32_t TR_DATA_OFFSET = 200;            // uOffset, and where a fresh ring begins
constexpr uint32_t TR_SEQ_LOCK_NONE = 1;            // uSeqLock: no record is held
constexpr uint32_t TR_MIN_FILE_SIZE = 4096;         // bytes
constexpr uint32_t TR_PROGRAM_SIZE = 48;            // bytes of `program` and `baseProgName`, zero byte included
constexpr uint32_t TR_BUILD_NAME_SIZE = 32;         // bytes of `buildName`, zero byte included

// Record header.
constexpr uint32_t TR_SEQ_FREE = 4095; // seqNumber of the free record; all other records carry even numbers
constexpr uint32_t TR_SEQ_STEP = 2;    // from one record to the next
constexpr uint32_t TR_COMP_ID_SIZE = 4;
constexpr char TR_ENGINE_COMP_ID[TR_COMP_ID_SIZE + 1] = "____"; // compId of the records that the engine writes itself

enum trace_page_state_t : uint8_t { // sp_flags
    TR_NOT_A_PAGE = 0,
    TR_ACTIVE = 1,  // records are written to it
    TR_FULL = 2,    // waits in the spool queue for its copy
    TR_READY = 4,   // copied, or nothing to copy: may be written again
    TR_COPYING = 8, // the copy thread is at work on it
};

enum trace_record_kind_t : uint16_t { // function
    TR_KIND_FREE = 0,                 // free record or filler: no body
    TR_KIND_ID = 1,
    TR_KIND_STRING = 2,
    TR_KIND_DATA = 3,
    TR_KIND_VALUES_32 = 12,
    TR_KIND_VALUES_64 = 13,
    TR_KIND_ERROR = 14,
    TR_KIND_STRINGS = 15,
    TR_KIND_START = 16,
    TR_KIND_CALIBRATION = 17,
    TR_KIND_CORE_RESTART = 19,
    TR_KIND_RESERVED = 65535, // the body is still being written, or its writer died
};

#pragma pack(push, 4)

struct trace_file_header_t {
    uint8_t uProperties;
    uint8_t uPlatform;
    uint16_t uVersion;
    uint16_t uFlags;
    uint16_t uNodeNumber;         // within the cluster, 0 when unknown
    uint32_t uOffset;             // bytes: where the data area begins
    uint32_t uSeqLock;            // seqNumber of the record that a tail reader holds
    uint32_t uTailReq;            // request word of a tail reader, 0 when none
    uint32_t uActualFileSize;     // bytes, header included
    cu_timeinfo_t timeInfo;       // time base of records that no start record precedes
    uint32_t machineId;           // 0
    uint32_t uOldestRecordOffset; // bytes: where readers begin
    uint32_t uPid;
    char program[TR_PROGRAM_SIZE];
    char buildName[TR_BUILD_NAME_SIZE];
    char baseProgName[TR_PROGRAM_SIZE];
    uint64_t uNode_ID;
    uint32_t sp_reuse_tm; // seconds since 1970: when the page was last taken back without a copy
    uint8_t sp_flags;     // trace_page_state_t
    uint8_t unused[3];
    int32_t tz_offset; // minutes, UTC minus local time
};

struct trace_record_header_t {
    uint32_t length;              // bytes, header included; the next record stands this much further on
    uint16_t function;            // trace_record_kind_t; stored last, with release
    uint16_t reserved;            // not written
    uint32_t seqNumber;           // even; TR_SEQ_FREE in the free record
    char compId[TR_COMP_ID_SIZE]; // no terminator when all four characters are used; not written in free records
    uint32_t threadId;            // low 32 bits of the writer's thread identifier
    uint64_t timeStamp;           // ticks of cu_get_ctr_1, taken at the reservation
};

struct trace_record_id_t {
    trace_record_header_t header;
    uint32_t id;
};

// A text with its zero byte follows.
struct trace_record_string_t {
    trace_record_header_t header;
};

// One block of a data record; its bytes follow, then zero to three bytes up to the next multiple of 4.
struct trace_data_t {
    int32_t length; // bytes
};

// `n_blocks` blocks (trace_data_t) follow.
struct trace_record_data_t {
    trace_record_header_t header;
    uint32_t trace_id;
    uint32_t n_blocks;
};

// `number` values of 4 or 8 bytes follow.
struct trace_record_values_t {
    trace_record_header_t header;
    uint32_t id;
    uint32_t number;
};

// One insert of an error record.
struct trace_error_arg_t {
    uint32_t type;   // cu_error_arg_type_t
    uint32_t unused; // not written
    uint64_t value;  // as the error object holds it; for a text its offset from the start of the record
};

// `argCount` inserts (trace_error_arg_t) follow, then the texts. Offsets count from the start of the record, 0: none.
struct trace_record_error_t {
    trace_record_header_t header;
    uint32_t traceId;
    uint32_t errorId;
    uint32_t lineNumber;
    uint32_t funcNameOffset;
    uint32_t fileNameOffset;
    uint32_t ffdcIdOffset;
    uint32_t msgSetNumber;
    uint32_t msgNumber;
    uint32_t msgCatNameOffset;
    uint32_t defMsgOffset;
    uint32_t argCount;
};

// `number` texts follow, each with its zero byte.
struct trace_record_strings_t {
    trace_record_header_t header;
    uint32_t id;
    uint32_t number;
    uint32_t len_strings; // bytes of all texts, their zero bytes included
};

// Opens the records of one process in a file. A restart after a core event adds a text with its zero byte.
struct trace_record_start_t {
    trace_record_header_t header;
    uint32_t traceId; // not written
    uint32_t pid;
    cu_timeinfo_t timeInfo; // time base of the records that follow
};

struct time_calibration_t {
    trace_record_header_t header;
    cu_timeinfo_t reBase;
};

#pragma pack(pop)

// Length of a record header, which is also the room that a reservation keeps for the free record behind it.
constexpr uint32_t TR_HEADER_LENGTH = sizeof(trace_record_header_t);

// What the layout promises to programs that know it only from the outside.
#define TR_AT(type, field, offset) static_assert(offsetof(type, field) == (offset))
static_assert(sizeof(cu_timeinfo_t) == 16);

static_assert(sizeof(trace_file_header_t) == TR_DATA_OFFSET && alignof(trace_file_header_t) == 4);
static_assert(std::is_trivially_copyable_v<trace_file_header_t>);
TR_AT(trace_file_header_t, uProperties, 0);
TR_AT(trace_file_header_t, uPlatform, 1);
TR_AT(trace_file_header_t, uVersion, 2);
TR_AT(trace_file_header_t, uFlags, 4);
TR_AT(trace_file_header_t, uNodeNumber, 6);
TR_AT(trace_file_header_t, uOffset, 8);
TR_AT(trace_file_header_t, uSeqLock, 12);
TR_AT(trace_file_header_t, uTailReq, 16);
TR_AT(trace_file_header_t, uActualFileSize, 20);
TR_AT(trace_file_header_t, timeInfo, 24);
TR_AT(trace_file_header_t, machineId, 40);
TR_AT(trace_file_header_t, uOldestRecordOffset, 44);
TR_AT(trace_file_header_t, uPid, 48);
TR_AT(trace_file_header_t, program, 52);
TR_AT(trace_file_header_t, buildName, 100);
TR_AT(trace_file_header_t, baseProgName, 132);
TR_AT(trace_file_header_t, uNode_ID, 180); // not a multiple of 8
TR_AT(trace_file_header_t, sp_reuse_tm, 188);
TR_AT(trace_file_header_t, sp_flags, 192);
TR_AT(trace_file_header_t, unused, 193);
TR_AT(trace_file_header_t, tz_offset, 196);

static_assert(sizeof(trace_record_header_t) == 28 && alignof(trace_record_header_t) == 4);
static_assert(std::is_trivially_copyable_v<trace_record_header_t>);
TR_AT(trace_record_header_t, length, 0);
TR_AT(trace_record_header_t, function, 4);
TR_AT(trace_record_header_t, reserved, 6);
TR_AT(trace_record_header_t, seqNumber, 8);
TR_AT(trace_record_header_t, compId, 12);
TR_AT(trace_record_header_t, threadId, 16);
TR_AT(trace_record_header_t, timeStamp, 20); // not a multiple of 8

static_assert(sizeof(trace_record_id_t) == 32);
TR_AT(trace_record_id_t, id, 28);
static_assert(sizeof(trace_record_string_t) == 28);
static_assert(sizeof(trace_data_t) == 4);
static_assert(sizeof(trace_record_data_t) == 36);
TR_AT(trace_record_data_t, trace_id, 28);
TR_AT(trace_record_data_t, n_blocks, 32);
static_assert(sizeof(trace_record_values_t) == 36);
TR_AT(trace_record_values_t, id, 28);
TR_AT(trace_record_values_t, number, 32);

static_assert(sizeof(trace_error_arg_t) == 16);
TR_AT(trace_error_arg_t, type, 0);
TR_AT(trace_error_arg_t, value, 8);
static_assert(sizeof(trace_record_error_t) == 72);
TR_AT(trace_record_error_t, traceId, 28);
TR_AT(trace_record_error_t, errorId, 32);
TR_AT(trace_record_error_t, lineNumber, 36);
TR_AT(trace_record_error_t, funcNameOffset, 40);
TR_AT(trace_record_error_t, fileNameOffset, 44);
TR_AT(trace_record_error_t, ffdcIdOffset, 48);
TR_AT(trace_record_error_t, msgSetNumber, 52);
TR_AT(trace_record_error_t, msgNumber, 56);
TR_AT(trace_record_error_t, msgCatNameOffset, 60);
TR_AT(trace_record_error_t, defMsgOffset, 64);
TR_AT(trace_record_error_t, argCount, 68);

static_assert(sizeof(trace_record_strings_t) == 40);
TR_AT(trace_record_strings_t, id, 28);
TR_AT(trace_record_strings_t, number, 32);
TR_AT(trace_record_strings_t, len_strings, 36);
static_assert(sizeof(trace_record_start_t) == 52);
TR_AT(trace_record_start_t, traceId, 28);
TR_AT(trace_record_start_t, pid, 32);
TR_AT(trace_record_start_t, timeInfo, 36); // not a multiple of 8
static_assert(sizeof(time_calibration_t) == 44);
TR_AT(time_calibration_t, reBase, 28); // not a multiple of 8
#undef TR_AT

// Bytes of a length rounded up to the multiple of 4 at which the next record or data block stands.
constexpr uint64_t tr_round_up_4(uint64_t length) {
    return (length + 3) & ~uint64_t{3};
}

#endif
