// What the library's frame offers the other subsystems: results, diagnostic lines, initialisation, the stop switch.
#ifndef KZ_TRACE_FRAME_FRAME_H
#define KZ_TRACE_FRAME_FRAME_H

#include <cstdint>
#include <cstring>

#include "trace/publish.h"
#include "trace/trace.h"
#include "trace/trapi_set.h"

// ---- Result codes: 1 to 34 are their message's number ----
constexpr int32_t TR_RC_NUM_CATEGORIES = 1;
constexpr int32_t TR_RC_NO_COMPONENT_ID = 2;
constexpr int32_t TR_RC_NO_CATEGORIES = 3;
constexpr int32_t TR_RC_NO_LEVELS = 4;
constexpr int32_t TR_RC_NO_CATEGORY_NAME = 5;
constexpr int32_t TR_RC_CATEGORY_ID = 6;
constexpr int32_t TR_RC_DEFAULT_LEVEL = 7;
constexpr int32_t TR_RC_MINIMUM_LEVEL = 8;
constexpr int32_t TR_RC_LOCK = 9;
constexpr int32_t TR_RC_SPEC_COMPONENT = 10;
constexpr int32_t TR_RC_SPEC_SEPARATOR = 11;
constexpr int32_t TR_RC_SPEC_CATEGORY = 12;
constexpr int32_t TR_RC_SPEC_LEVEL = 13;
constexpr int32_t TR_RC_NO_MEMORY = 14;
constexpr int32_t TR_RC_COMPONENT_PATTERN = 15;
constexpr int32_t TR_RC_CATEGORY_PATTERN = 16;
constexpr int32_t TR_RC_FILE_NAME = 17;
constexpr int32_t TR_RC_OPEN = 18;
constexpr int32_t TR_RC_FSTAT = 19;
constexpr int32_t TR_RC_NOT_REGULAR = 20;
constexpr int32_t TR_RC_MMAP = 21;
constexpr int32_t TR_RC_RESIZE = 22;
constexpr int32_t TR_RC_CLEAR = 23;
constexpr int32_t TR_RC_SIZE_REQUESTED = 25;
constexpr int32_t TR_RC_NOT_REGISTERED = 26;
constexpr int32_t TR_RC_NO_STRING = 27;
constexpr int32_t TR_RC_FORMATTING = 28;
constexpr int32_t TR_RC_NUM_BLOCKS = 29;
constexpr int32_t TR_RC_BLOCK_NULL = 30;
constexpr int32_t TR_RC_BLOCK_LENGTH = 31;
constexpr int32_t TR_RC_MSYNC = 32;
constexpr int32_t TR_RC_NO_FORMAT = 33;
constexpr int32_t TR_RC_NUM_STRINGS = 34;
constexpr int32_t TR_RC_NO_SPACE = 35;
constexpr int32_t TR_RC_NOT_TRACE_FILE = 36;
constexpr int32_t TR_RC_QUERY_HANDLE = 37;
constexpr int32_t TR_RC_COMPONENT_IN_USE = 38;
constexpr int32_t TR_RC_SPOOL_TEXT = 39; // the results of reading spooling entries are nobody's error object
constexpr int32_t TR_RC_SPOOL_ON = 40;
constexpr int32_t TR_RC_SPOOL_OFF = 41;
constexpr int32_t TR_RC_HEADING_PATTERN = 42;
constexpr int32_t TR_RC_FIELD_PATTERN = 43;
constexpr int32_t TR_RC_COMMENT_PATTERN = 44;
constexpr int32_t TR_RC_SPOOL_SYNTAX = 46;
constexpr int32_t TR_RC_SPOOL_STORE = 47;
constexpr int32_t TR_RC_SPOOL_OPEN = 48;
constexpr int32_t TR_RC_WRITE = 49;
constexpr int32_t TR_RC_MODE = -1; // started, but its mode could not be set

constexpr int32_t TR_MSG_AFS = 35; // reported with TR_RC_FSTAT
constexpr int32_t TR_MSG_NO_SPACE = 36;
constexpr int32_t TR_MSG_NOT_TRACE_FILE = 37;
constexpr int32_t TR_MSG_QUERY_HANDLE = 38;
constexpr int32_t TR_MSG_COMPONENT_IN_USE = 39;
constexpr int32_t TR_MSG_WRITE = 40;

constexpr char TR_NULL_TEXT[] = "(NULL)"; // insert of a message where there is no text

// ---- Errors ----

// Each sets the calling thread's error object to a code and a message of the message set, with at most one insert, and
// returns the code.
int32_t set_error(int32_t code, int32_t message);
int32_t set_error_int(int32_t code, int32_t message, int32_t insert);
int32_t set_error_str(int32_t code, int32_t message, const char *pInsert);

// Whether a component identifier can be used.
inline bool is_comp_id(const char *pCompId) {
    return pCompId != nullptr && *pCompId != '\0';
}

// Whether a text fits the file name of an anchor.
inline bool is_file_name(const char *pName) {
    return strnlen(pName, TR_NAME_SIZE) < TR_NAME_SIZE;
}

// ---- Diagnostic lines ----

constexpr uint32_t TR_DEBUG_PAGES = 2; // debug level from which the lines of page switching are written
constexpr uint32_t TR_DEBUG_ALL = 8;   // all other lines

// Written by init, read without a lock.
extern uint32_t global_debug_level;

// Writes a line to the system log, at priority warning, when the debug level is at least TR_DEBUG_ALL. Not a
// cancellation point: lines are written in the middle of things, a recorder's with its lock held.
__attribute__((format(printf, 1, 2))) void debug_line(const char *pFormat, ...);
// The same at another level or priority (LOG_ERR, LOG_WARNING).
__attribute__((format(printf, 3, 4))) void debug_line_at(uint32_t level, int priority, const char *pFormat, ...);

// Low 32 bits of an address, as the diagnostic lines show it.
inline uint32_t low_address(const volatile void *p) {
    return static_cast<uint32_t>(reinterpret_cast<uintptr_t>(p));
}

// ---- The stop switch ----

// Not 0 once tracing is stopped for the process. Read without a lock.
extern int32_t global_switch;

// The same as master_override_off(), for the recording path.
inline bool is_switched_off() {
    return observe(&global_switch) != 0;
}

// ---- Numbers ----

// Reads an unsigned number with automatic base: white space, a sign ("-" negates modulo 2^64), then "0x" hexadecimal, a
// leading 0 octal, else decimal; saturates at 2^64 - 1. Does not follow the locale.
//
// ppStop  receives the first character that does not belong to the number; pText when there is none
uint64_t read_number(const char *pText, const char **ppStop);

// Reads a signed decimal number: white space, a sign, digits; saturates at 2^31 - 1 on either side. Otherwise the same.
int32_t read_decimal(const char *pText, const char **ppStop);

// White space; the same in every locale.
inline bool is_space(char c) {
    return c == ' ' || (c >= '\t' && c <= '\r');
}

// ---- Initialisation ----

// Reads the environment into the default anchor, when that has not been done since the start or the last termination.
// Returns 0.
int32_t init_if_needed() TR_HOLDS(global_lock);

// The process that initialised the library; 0 before. Read without a lock.
extern pid_t init_pid;

// ---- The cluster's identity, fetched again while its name is empty ----

// Copies the identity out. Returns 0, or what cu_get_cluster_info_1 returned. Takes a leaf lock of its own.
int32_t get_cluster_info(cu_cluster_info_t *pInfo);

#endif
