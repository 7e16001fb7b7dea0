// Spooling entries: reading them, and choosing the one that governs a trace file.
//
// Readers append entries to a list, and hand out what is wrong with a text as data. The library passes over the faults;
// the tools show them.
#ifndef KZ_TRACE_SPOOL_CONFIG_H
#define KZ_TRACE_SPOOL_CONFIG_H

#include <regex.h>

#include <cstddef>
#include <cstdint>

#include "trace/control/spec_text.h"
#include "trace/trace.h"

constexpr char TR_SPOOL_CONFIG_FILE[] = "/var/kz/cfg/trace.conf";
constexpr char TR_NOWHERE[] = "/dev/null"; // destination of pages that are copied nowhere

using spool_list_t = spec_list_t<trace_spool_spec_t>;

// ---- What a reading finds (findings.cpp) ----

constexpr uint32_t TR_SPOOL_LINE_SIZE = 1023; // bytes of a line as it is taken from the file, zero byte included

// Fields of a stanza, in the order in which their names are compared. The flags are those of the diagnostic lines.
struct spool_field_t {
    const char *pName;
    uint32_t flag;
};
constexpr uint32_t TR_FIELD_PATTERN = 8;
constexpr uint32_t TR_FIELD_SPOOLING = 16;
constexpr uint32_t TR_FIELD_PAGES = 32;
constexpr uint32_t TR_FIELD_DEST = 64;
constexpr uint32_t TR_FIELD_SIZE = 128;
constexpr uint32_t TR_FIELD_INTERVAL = 256;
constexpr uint32_t TR_FIELDS_REQUIRED = TR_FIELD_PATTERN | TR_FIELD_SPOOLING | TR_FIELD_PAGES | TR_FIELD_DEST;
constexpr uint32_t TR_FIELDS_ALL = TR_FIELDS_REQUIRED | TR_FIELD_SIZE | TR_FIELD_INTERVAL;
inline constexpr spool_field_t spool_fields[] = {{"pat", TR_FIELD_PATTERN}, {"spooling", TR_FIELD_SPOOLING},
                                                 {"pages", TR_FIELD_PAGES}, {"dest", TR_FIELD_DEST},
                                                 {"size", TR_FIELD_SIZE},   {"sync_interval", TR_FIELD_INTERVAL}};

enum spool_finding_kind_t : uint8_t {
    TR_SPOOL_FINE, // found nowhere

    // Faults: they end a reading. In a file:
    TR_SPOOL_CANNOT_OPEN,   // value: the platform's error number
    TR_SPOOL_NO_EXPRESSION, // the reader's own expressions could not be compiled
    TR_SPOOL_NO_HEADING,    // a heading is due
    TR_SPOOL_NOT_A_FIELD,   // neither field nor heading. name: the stanza; value: the flags of its fields so far
    TR_SPOOL_UNKNOWN_FIELD, // the same, for a line that has the form of a field
    TR_SPOOL_FIELD_TWICE,   // name: the stanza
    // In a text; name: which part of the entry
    TR_SPOOL_NO_SEPARATOR,
    TR_SPOOL_EMPTY,
    TR_SPOOL_TOO_LONG, // value: the most characters that it may have
    TR_SPOOL_NO_SWITCH,
    // In both:
    TR_SPOOL_NO_MEMORY,

    // Notes: something does not mean what it seems to mean.
    TR_SPOOL_COMMENT,    // a line is dropped for a "#" that is not at its start
    TR_SPOOL_CHANGED,    // name: the field; text: its value; value: what counts instead
    TR_SPOOL_INCOMPLETE, // the file ends within a stanza, which is dropped. name and value: as of TR_SPOOL_NOT_A_FIELD
    TR_SPOOL_LONG_LINE,  // a line goes on as if it were another one
    TR_SPOOL_READ_ERROR, // the rest of the file could not be read. value: the platform's error number

    TR_SPOOL_ENTRY, // an entry was stored, perhaps with a twin behind it. pSpec: the entry; name: the stanza
};

inline bool is_spool_fault(spool_finding_kind_t kind) {
    return kind > TR_SPOOL_FINE && kind < TR_SPOOL_COMMENT;
}

struct spool_place_t {
    uint32_t line;   // of the file, from 1; 0 in a text
    uint32_t offset; // in bytes from the start of the finding's text, or of the whole text
};

// Which fields carry something is said at the kinds.
struct spool_finding_t {
    spool_finding_t *pNext;
    spool_finding_kind_t kind;
    spool_place_t place;
    int64_t value;
    const trace_spool_spec_t *pSpec;
    char name[TR_SPOOL_LINE_SIZE];
    char text[TR_SPOOL_LINE_SIZE]; // of a file: the line, unless it is said otherwise. Of a text: empty
};

// What was found, in the order of the text.
struct spool_findings_t {
    spool_finding_t *pFirst;
    spool_finding_t *pLast;
};

// Appends a finding and returns it, its texts empty. Returns null when nobody asked for findings or memory is short.
spool_finding_t *add_spool_finding(spool_findings_t *pFindings, spool_finding_kind_t kind, spool_place_t place);
// Appends the finding that an entry was stored behind another one (null: as the first) and returns it, or null.
spool_finding_t *note_stored_entry(spool_findings_t *pFindings, spool_list_t list, const trace_spool_spec_t *pBefore,
                                   spool_place_t place);
void free_spool_findings(spool_findings_t *pFindings);

// ---- Entries (entries.cpp) ----

// Appends an entry; with dupForClusterLink 1 also a twin behind it, which names the cluster's directory below "/var/kz" by
// the cluster's identifier, when the pattern names it by the cluster's name.
//
// dest, pattern  copied, cut to 4,095 and 1,023 characters
// interval       seconds, see spool_interval()
// pageSize       bytes; 0: from the file's size
//
// Returns 0, or 39 with error 14 set when memory is short.
int32_t addSpoolCfgElement(const char *dest, const char *pattern, uint32_t pages, int32_t onoff, int32_t interval,
                           trace_spool_spec_t **pFirstSpoolSpec, trace_spool_spec_t **pLastSpoolSpec,
                           int32_t dupForClusterLink, uint32_t pageSize);

// The interval that counts: an hour for 0, the default for a negative one.
constexpr int32_t TR_SPOOL_INTERVAL = 60;
constexpr int32_t TR_SPOOL_LONG_INTERVAL = 3600;
constexpr int32_t spool_interval(int32_t interval) {
    return interval < 0 ? TR_SPOOL_INTERVAL : interval == 0 ? TR_SPOOL_LONG_INTERVAL : interval;
}

// Whether a stretch of text is a word, given in small letters, without regard to case. Only ASCII letters have a case
// here, so that words mean the same in every locale.
bool is_spool_word(const char *pText, size_t length, const char *pWord);

// ---- The configuration file (conf_file.cpp) ----

// Reads a configuration file and appends its entries to a list. Cancellation is off.
//
// pFindings  receives what there is to say about the file; null: nobody asks
//
// Returns 0 or one of 42 to 48; entries stored before a failure stay in the list.
int32_t read_spool_file(const char *pFileName, spool_list_t list, spool_findings_t *pFindings);

// The same for the system's configuration file, in silence.
int32_t spool_conf_file(trace_spool_spec_t **ppFirstSpoolSpec, trace_spool_spec_t **ppLastSpoolSpec);

// ---- The text of KZ_TR_SPOOL (spool_text.cpp) ----

// Appends the entries of a text to a list. Returns 39 at the first faulty entry, those before it stay; else 40 when an
// entry is on, or 41.
int32_t read_spool_text(const char *pText, spool_list_t list, spool_findings_t *pFindings);
int32_t parse_spool_spec(const char *pString, trace_spool_spec_t **pFirstSpoolSpec,
                         trace_spool_spec_t **pLastSpoolSpec);

// ---- The governing entry (match.cpp) ----

// How the patterns of entries are compiled. They follow the program's locale.
constexpr int TR_SPOOL_REGEX = REG_EXTENDED | REG_ICASE | REG_NEWLINE;

// The first entry of the list that matches a trace file or page file and has more than one page, or null.
trace_spool_spec_t *find_spool_spec(const char *trc_file, trace_spool_spec_t *pFirstSpoolSpec);

// The entry that governs a trace file or page file, with its spool directory made ready, or null. An entry whose
// directory cannot be made is switched off.
trace_spool_spec_t *match_spool_file_name(const char *trc_file, trace_spool_spec_t *pFirstSpoolSpec)
    TR_HOLDS(global_lock);

// ---- Spool directories (directories.cpp) ----

// Below a destination: cluster name, cluster identifier, host, node, program.
constexpr uint32_t TR_NUM_SPOOL_LEVELS = 5;

// The directory below a destination that belongs to a program on this node.
struct spool_dir_t {
    char path[TR_NAME_SIZE];
    bool bTooLong;                      // not all levels fit: there is no such directory
    uint32_t numLevels;                 // that fit
    uint32_t ends[TR_NUM_SPOOL_LEVELS]; // length of the path down to each of them
};

// Computes a directory, and creates nothing.
//
// pTrcFile  trace file for which it is wanted
// pProgram  the program as it was called; what stands behind the last "/" counts
void compute_spool_dir(const char *pDest, const char *pTrcFile, const char *pProgram, spool_dir_t *pDir)
    TR_HOLDS(global_lock);

// Creates the directory of an entry and stores it in its `dest`. Returns that, or null when the directory cannot be made
// or used: `dest` is what it was then. "/dev/null" stays as it is.
char *mkspooldir(trace_spool_spec_t *spec, const char *trc_file) TR_HOLDS(global_lock);

// Creates a directory with all that are missing above it. Returns 0 when every part of the path exists now, else 1.
int32_t create_all_directories_in_path(const char *p_path);

#endif
