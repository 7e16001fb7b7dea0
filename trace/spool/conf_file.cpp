// The configuration file: stanzas, each a heading and fields.
//
//   daemons:
//       pat = /var/kz/.*/log/mc/.*
//       spooling = ON
//       pages = 4
//       dest = /var/spool/trc
//
//   waiting for a heading ──heading──▶ inside a stanza ──sixth field, or a line that is no field──▶ waiting for a heading
//
// A line that ends a stanza without being a field is looked at again as a heading. What is wrong with a line ends the
// reading; the stanzas before stay. The reader's own expressions do not follow the program's locale, the patterns do.
#include <fcntl.h>
#include <locale.h>
#include <regex.h>
#include <stdio.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "trace/frame/files.h"
#include "trace/frame/frame.h"
#include "trace/spool/config.h"

constexpr uint32_t TR_WAITING = 2; // for a heading
constexpr uint32_t TR_INSIDE = 4;  // a stanza

constexpr int32_t TR_LEAST_PAGES = 3;
constexpr int32_t TR_LEAST_PAGE_SIZE = 4096;
constexpr int32_t TR_PAGE_SIZE = 262144; // unless the stanza says otherwise

enum expression_index_t : uint32_t { HEADING, FIELD, COMMENT, NUM_EXPRESSIONS };

struct expression_rule_t {
    const char *pText;
    int32_t code; // result when it cannot be compiled
};
static constexpr expression_rule_t expressionRules[NUM_EXPRESSIONS] = {
    {"^(.+):.*$", TR_RC_HEADING_PATTERN},
    {"^[ \t]*([-_a-zA-Z]+)[ \t]*=[ \t]*([-_a-zA-Z0-9/*.]+[$]*)[ \t]*$", TR_RC_FIELD_PATTERN},
    {"^.*#.*", TR_RC_COMMENT_PATTERN}};

// What is known of the stanza at hand.
struct stanza_t {
    char name[TR_SPOOL_LINE_SIZE];
    char pattern[TR_SPOOL_LINE_SIZE];
    char dest[TR_SPOOL_LINE_SIZE];
    int32_t pages;
    int32_t pageSize; // bytes
    int32_t onoff;
    int32_t interval; // seconds
};

struct conf_reader_t {
    FILE *pFile;
    regex_t expressions[NUM_EXPRESSIONS];
    locale_t plainLocale; // "C"
    uint32_t flags;       // state, and fields seen since the last heading
    uint32_t lineNumber;
    bool bLineGoesOn; // the line at hand was longer than what is taken of it
    char line[TR_SPOOL_LINE_SIZE];
    stanza_t stanza;
    spool_list_t list;
    spool_findings_t *pFindings;
};

// A field as it stands in a line.
struct conf_field_t {
    uint32_t flag;
    const char *pName; // as the table has it
    char value[TR_SPOOL_LINE_SIZE];
};

// ---- What there is to say ----

// Notes something about a stretch of the line at hand: whoever reads it is shown the line.
static spool_finding_t *note_line(const conf_reader_t *pReader, spool_finding_kind_t kind, const char *pWhere) {
    const auto offset = static_cast<uint32_t>(pWhere - pReader->line);
    auto *const pFinding = add_spool_finding(pReader->pFindings, kind, {pReader->lineNumber, offset});
    if (pFinding != nullptr)
        memcpy(pFinding->text, pReader->line, sizeof pFinding->text);
    return pFinding;
}

// The same, with the stanza and its fields so far.
static void note_stanza(const conf_reader_t *pReader, spool_finding_kind_t kind, const char *pWhere) {
    if (spool_finding_t *const pFinding = note_line(pReader, kind, pWhere)) {
        memcpy(pFinding->name, pReader->stanza.name, sizeof pFinding->name);
        pFinding->value = pReader->flags & TR_FIELDS_ALL;
    }
}

static void note_change(const conf_reader_t *pReader, const conf_field_t *pField, int32_t used) {
    auto *const pFinding = add_spool_finding(pReader->pFindings, TR_SPOOL_CHANGED, {pReader->lineNumber, 0});
    if (pFinding == nullptr)
        return;
    memcpy(pFinding->name, pField->pName, strlen(pField->pName));
    memcpy(pFinding->text, pField->value, sizeof pFinding->text);
    pFinding->value = used;
}

static int32_t syntax_fault(const conf_reader_t *pReader, spool_finding_kind_t kind, const char *pLine) {
    note_stanza(pReader, kind, pLine);
    return TR_RC_SPOOL_SYNTAX;
}

// ---- Expressions ----

static int32_t compile_expressions(conf_reader_t *pReader) {
    const locale_t programLocale = uselocale(pReader->plainLocale);
    int32_t rc = 0;
    for (uint32_t i = 0; i < NUM_EXPRESSIONS && rc == 0; i++) {
        if (regcomp(&pReader->expressions[i], expressionRules[i].pText, TR_SPOOL_REGEX) == 0)
            continue;
        rc = expressionRules[i].code;
        while (i > 0)
            regfree(&pReader->expressions[--i]);
        break;
    }
    (void)uselocale(programLocale);
    return rc;
}

static void free_expressions(conf_reader_t *pReader) {
    for (regex_t &expression : pReader->expressions)
        regfree(&expression);
}

// Returns regexec's result.
template <size_t NUM>
static int match_line(const conf_reader_t *pReader, expression_index_t index, const char *pLine,
                      regmatch_t (&parts)[NUM]) {
    const locale_t programLocale = uselocale(pReader->plainLocale);
    const int rc = regexec(&pReader->expressions[index], pLine, NUM, parts, 0);
    (void)uselocale(programLocale);
    return rc;
}

// Copies a part of a line; both have the same size at most.
static void copy_part(const char *pLine, const regmatch_t &part, char (&text)[TR_SPOOL_LINE_SIZE]) {
    const auto length = static_cast<size_t>(part.rm_eo - part.rm_so);
    memcpy(text, pLine + part.rm_so, length);
    memset(text + length, 0, sizeof text - length);
}

// ---- Stanzas ----

static int32_t store_stanza(conf_reader_t *pReader) {
    const stanza_t *const pStanza = &pReader->stanza;
    const trace_spool_spec_t *const pLastBefore = *pReader->list.ppLast;
    const int32_t rc = addSpoolCfgElement(pStanza->dest, pStanza->pattern, static_cast<uint32_t>(pStanza->pages),
                                          pStanza->onoff, pStanza->interval, pReader->list.ppFirst,
                                          pReader->list.ppLast, 1, static_cast<uint32_t>(pStanza->pageSize));
    if (rc != 0) {
        note_stanza(pReader, TR_SPOOL_NO_MEMORY, pReader->line);
        return TR_RC_SPOOL_STORE;
    }
    if (auto *const pFinding = note_stored_entry(pReader->pFindings, pReader->list, pLastBefore, {}))
        memcpy(pFinding->name, pStanza->name, sizeof pFinding->name);
    return 0;
}

// Stores a stanza at its end; the next line has to be a heading.
static int32_t end_stanza(conf_reader_t *pReader) {
    const int32_t rc = store_stanza(pReader);
    if (rc == 0)
        pReader->flags = (pReader->flags & ~TR_INSIDE) | TR_WAITING;
    return rc;
}

// The value of a numeric field that counts: numbers out of bounds become the next one within, or the default.
static int32_t bounded(uint32_t flag, int32_t value) {
    switch (flag) {
    case TR_FIELD_PAGES:
        return std::max(value, TR_LEAST_PAGES);
    case TR_FIELD_SIZE:
        return value < 0 ? TR_PAGE_SIZE : std::max(value, TR_LEAST_PAGE_SIZE);
    default:
        return spool_interval(value);
    }
}

static int32_t read_field_number(const conf_reader_t *pReader, const conf_field_t *pField) {
    const char *pStop = nullptr;
    const int32_t value = read_decimal(pField->value, &pStop);
    const int32_t used = bounded(pField->flag, value);
    if (used != value || *pStop != '\0')
        note_change(pReader, pField, used);
    return used;
}

static int32_t read_field_switch(const conf_reader_t *pReader, const conf_field_t *pField) {
    const size_t length = strlen(pField->value);
    const int32_t onoff = is_spool_word(pField->value, length, "on") ? 1 : 0;
    if (onoff == 0 && !is_spool_word(pField->value, length, "off"))
        note_change(pReader, pField, onoff);
    return onoff;
}

static void store_field(conf_reader_t *pReader, const conf_field_t *pField) {
    stanza_t *const pStanza = &pReader->stanza;
    switch (pField->flag) {
    case TR_FIELD_PATTERN:
        memcpy(pStanza->pattern, pField->value, sizeof pStanza->pattern);
        break;
    case TR_FIELD_SPOOLING:
        pStanza->onoff = read_field_switch(pReader, pField);
        break;
    case TR_FIELD_PAGES:
        pStanza->pages = read_field_number(pReader, pField);
        break;
    case TR_FIELD_DEST:
        memcpy(pStanza->dest, pField->value, sizeof pStanza->dest);
        break;
    case TR_FIELD_SIZE:
        pStanza->pageSize = read_field_number(pReader, pField);
        break;
    default:
        pStanza->interval = read_field_number(pReader, pField);
        break;
    }
    pReader->flags |= pField->flag;
}

// ---- Lines ----

// heading := name ":" text, up to the last ":"
// kind: what to say of a line that is none
static int32_t take_heading(conf_reader_t *pReader, const char *pLine, spool_finding_kind_t kind) {
    regmatch_t parts[2];
    const int rc = match_line(pReader, HEADING, pLine, parts);
    if (rc != 0) {
        debug_line("heading regex failed: '%s' with %d\n", pLine, rc);
        return syntax_fault(pReader, kind, pLine);
    }
    if (parts[1].rm_so < 0) {
        debug_line("Header found but regex problem: '%s'\n", pLine);
        return syntax_fault(pReader, kind, pLine);
    }
    copy_part(pLine, parts[1], pReader->stanza.name);
    pReader->stanza.pages = TR_LEAST_PAGES;
    pReader->stanza.pageSize = TR_PAGE_SIZE;
    pReader->stanza.interval = TR_SPOOL_INTERVAL;
    pReader->flags = TR_INSIDE;
    debug_line("New stanza found: '%s'\n", pReader->stanza.name);
    return 0;
}

// field := name "=" value
// Returns what to say of a line that is no field of a stanza; TR_SPOOL_FINE when it is one.
static spool_finding_kind_t read_field(const conf_reader_t *pReader, const char *pLine, conf_field_t *pField) {
    debug_line("Checking for field line\n");
    regmatch_t parts[3];
    const int rc = match_line(pReader, FIELD, pLine, parts);
    if (rc != 0) {
        if ((pReader->flags & TR_FIELDS_REQUIRED) != TR_FIELDS_REQUIRED)
            debug_line("field regex failed: '%s' with %d\n", pLine, rc);
        return TR_SPOOL_NOT_A_FIELD;
    }
    const char *const pName = pLine + parts[1].rm_so;
    const int nameLength = parts[1].rm_eo - parts[1].rm_so;
    copy_part(pLine, parts[2], pField->value);
    debug_line("Field found: '%.*s' = '%s'\n", nameLength, pName, pField->value);
    for (const auto &field : spool_fields) {
        if (!is_spool_word(pName, static_cast<size_t>(nameLength), field.pName))
            continue;
        pField->flag = field.flag;
        pField->pName = field.pName;
        return TR_SPOOL_FINE;
    }
    return TR_SPOOL_UNKNOWN_FIELD;
}

static int32_t take_field(conf_reader_t *pReader, const char *pLine, const conf_field_t *pField) {
    if ((pReader->flags & pField->flag) != 0)
        return syntax_fault(pReader, TR_SPOOL_FIELD_TWICE, pLine);
    store_field(pReader, pField);
    return (pReader->flags & TR_FIELDS_ALL) == TR_FIELDS_ALL ? end_stanza(pReader) : 0;
}

// Any "#" makes a line a comment.
static bool is_comment(const conf_reader_t *pReader, const char *pLine) {
    regmatch_t parts[1];
    if (match_line(pReader, COMMENT, pLine, parts) != 0)
        return false;
    if (*pLine != '#')
        (void)note_line(pReader, TR_SPOOL_COMMENT, strchr(pLine, '#'));
    return true;
}

// Takes a line that is not empty and does not begin with white space.
static int32_t take_line(conf_reader_t *pReader, const char *pLine) {
    if (is_comment(pReader, pLine))
        return 0;
    spool_finding_kind_t kind = TR_SPOOL_NO_HEADING;
    if ((pReader->flags & TR_INSIDE) != 0) {
        conf_field_t field;
        kind = read_field(pReader, pLine, &field);
        if (kind == TR_SPOOL_FINE)
            return take_field(pReader, pLine, &field);
        if ((pReader->flags & TR_FIELDS_REQUIRED) != TR_FIELDS_REQUIRED)
            return syntax_fault(pReader, kind, pLine);
        const int32_t rc = end_stanza(pReader);
        if (rc != 0)
            return rc;
    }
    return take_heading(pReader, pLine, kind);
}

// ---- The file ----

// Takes the next line, or the next 1,022 characters of a longer one, without its newline. What follows a zero byte in it
// is lost. Returns false at the end of the file.
static bool next_line(conf_reader_t *pReader) {
    if (!pReader->bLineGoesOn)
        pReader->lineNumber++;
    size_t length = 0;
    int c = 0;
    while (length < sizeof pReader->line - 1 && (c = getc(pReader->pFile)) != EOF && c != '\n')
        pReader->line[length++] = static_cast<char>(c);
    memset(pReader->line + length, 0, sizeof pReader->line - length);
    const bool bRest = pReader->bLineGoesOn;
    pReader->bLineGoesOn = c != EOF && c != '\n';
    if (bRest && length > 0)
        (void)note_line(pReader, TR_SPOOL_LONG_LINE, pReader->line);
    return length > 0 || c != EOF;
}

static int32_t take_lines(conf_reader_t *pReader) {
    while (next_line(pReader)) {
        const char *pLine = pReader->line;
        while (is_space(*pLine))
            pLine++;
        debug_line("read line '%s'\n", pLine);
        const int32_t rc = *pLine != '\0' ? take_line(pReader, pLine) : 0;
        if (rc != 0)
            return rc;
    }
    if (ferror(pReader->pFile) != 0) {
        const int error = errno;
        if (spool_finding_t *const pFinding = note_line(pReader, TR_SPOOL_READ_ERROR, pReader->line))
            pFinding->value = error;
    }
    if ((pReader->flags & TR_INSIDE) == 0)
        return 0;
    if ((pReader->flags & TR_FIELDS_REQUIRED) == TR_FIELDS_REQUIRED)
        return store_stanza(pReader);
    note_stanza(pReader, TR_SPOOL_INCOMPLETE, pReader->line);
    return 0;
}

// Opens a regular file only: a FIFO in its place would hold the program up. Returns null with errno set.
static FILE *open_conf_file(const char *pFileName) {
    int fd = open_own_file(pFileName, O_RDONLY, 0);
    if (fd == -1)
        return nullptr;
    struct stat status;
    if (fstat(fd, &status) == 0 && !S_ISREG(status.st_mode))
        errno = S_ISDIR(status.st_mode) ? EISDIR : EINVAL;
    else if (FILE *const pFile = fdopen(fd, "r"))
        return pFile;
    close_keeping_errno(&fd);
    return nullptr;
}

static int32_t take_file(conf_reader_t *pReader, const char *pFileName) {
    pReader->pFile = open_conf_file(pFileName);
    if (pReader->pFile == nullptr) {
        const int error = errno;
        if (spool_finding_t *const pFinding = add_spool_finding(pReader->pFindings, TR_SPOOL_CANNOT_OPEN, {}))
            pFinding->value = error;
        return TR_RC_SPOOL_OPEN;
    }
    debug_line("%s opened\n", pFileName);
    pReader->flags = TR_WAITING;
    const int32_t rc = take_lines(pReader);
    (void)fclose(pReader->pFile); // nothing was written
    return rc;
}

int32_t read_spool_file(const char *pFileName, spool_list_t list, spool_findings_t *pFindings) {
    debug_line("Entering spool_conf_file\n");
    conf_reader_t reader = {};
    reader.list = list;
    reader.pFindings = pFindings;
    reader.plainLocale = newlocale(LC_ALL_MASK, "C", nullptr); // when null, the program's locale stays in use
    int32_t rc = compile_expressions(&reader);
    if (rc == 0) {
        rc = take_file(&reader, pFileName);
        free_expressions(&reader);
    } else {
        (void)add_spool_finding(pFindings, TR_SPOOL_NO_EXPRESSION, {});
    }
    if (reader.plainLocale != nullptr)
        freelocale(reader.plainLocale);
    debug_line("Leaving spool_conf_file: %d (flags: 0x%x)\n", rc, reader.flags);
    return rc;
}

int32_t spool_conf_file(trace_spool_spec_t **ppFirstSpoolSpec, trace_spool_spec_t **ppLastSpoolSpec) {
    return read_spool_file(TR_SPOOL_CONFIG_FILE, {ppFirstSpoolSpec, ppLastSpoolSpec}, nullptr);
}
