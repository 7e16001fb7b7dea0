// The text of KZ_TR_SPOOL.
//
//   text        := entry { "," entry } [ "," ]
//   entry       := pattern ":" switch ":" count ":" destination
//   switch      := "ON" | "OFF", without regard to case
//
// The parts of an entry are taken one after the other, so that a pattern may hold a comma and a destination a colon.
#include <algorithm>
#include <cstring>

#include "trace/frame/frame.h"
#include "trace/spool/config.h"

enum part_index_t : uint32_t { PART_PATTERN, PART_SWITCH, PART_COUNT, PART_DESTINATION, NUM_PARTS };

constexpr uint32_t TR_MAX_COUNT_LENGTH = 255;

// A part, and how many characters it may have. The switch is compared as a whole, whatever its length.
struct part_rule_t {
    const char *pName;
    char separator; // behind the part
    uint32_t maxLength;
};
static constexpr part_rule_t partRules[NUM_PARTS] = {{"pattern", ':', TR_PATTERN_SIZE - 1},
                                                     {"switch", ':', UINT32_MAX},
                                                     {"page count", ':', TR_MAX_COUNT_LENGTH},
                                                     {"destination", ',', TR_NAME_SIZE - 1}};

struct text_reader_t {
    spec_range_t text;
    spool_list_t list;
    spool_findings_t *pFindings;
    bool bAnyOn;
};

static int32_t text_fault(const text_reader_t *pReader, spool_finding_kind_t kind, const part_rule_t &rule,
                          uint32_t offset) {
    if (spool_finding_t *const pFinding = add_spool_finding(pReader->pFindings, kind, {.line = 0, .offset = offset})) {
        memcpy(pFinding->name, rule.pName, strlen(rule.pName));
        pFinding->value = rule.maxLength;
    }
    return TR_RC_SPOOL_TEXT;
}

// Takes a part and stands behind its separator, which only the destination can do without.
static int32_t take_part(text_reader_t *pReader, const part_rule_t &rule, spec_range_t *pPart) {
    spec_range_t *const pText = &pReader->text;
    *pPart = {.pText = pText->pText, .pos = pText->pos, .end = find_char(pText, rule.separator)};
    if (pPart->end == pText->end && rule.separator == ':')
        return text_fault(pReader, TR_SPOOL_NO_SEPARATOR, rule, pText->end);
    if (pPart->end == pPart->pos)
        return text_fault(pReader, TR_SPOOL_EMPTY, rule, pPart->pos);
    if (pPart->end - pPart->pos > rule.maxLength)
        return text_fault(pReader, TR_SPOOL_TOO_LONG, rule, pPart->pos + rule.maxLength);
    pText->pos = std::min(pPart->end + 1, pText->end);
    return 0;
}

// Copies a part as a text; its rule has seen to it that it fits.
template <size_t SIZE> static void copy_part(const spec_range_t &part, char (&text)[SIZE]) {
    memcpy(text, part.pText + part.pos, part.end - part.pos);
    text[part.end - part.pos] = '\0';
}

static int32_t store_entry(text_reader_t *pReader, const spec_range_t (&parts)[NUM_PARTS], int32_t onoff) {
    char pattern[TR_PATTERN_SIZE];
    char dest[TR_NAME_SIZE];
    copy_part(parts[PART_PATTERN], pattern);
    copy_part(parts[PART_DESTINATION], dest);
    const char *pStop = nullptr;
    const int32_t count = read_decimal(parts[PART_COUNT].pText + parts[PART_COUNT].pos, &pStop); // a ":" is behind it
    return addSpoolCfgElement(dest, pattern, static_cast<uint32_t>(count), onoff, TR_SPOOL_INTERVAL,
                              pReader->list.ppFirst, pReader->list.ppLast, 1, 0);
}

static int32_t take_entry(text_reader_t *pReader) {
    const uint32_t start = pReader->text.pos;
    spec_range_t parts[NUM_PARTS];
    int32_t onoff = 0;
    for (uint32_t i = 0; i < NUM_PARTS; i++) {
        if (take_part(pReader, partRules[i], &parts[i]) != 0)
            return TR_RC_SPOOL_TEXT;
        if (i != PART_SWITCH)
            continue;
        const char *const pSwitch = parts[i].pText + parts[i].pos;
        const uint32_t length = parts[i].end - parts[i].pos;
        onoff = is_spool_word(pSwitch, length, "on") ? 1 : 0;
        if (onoff == 0 && !is_spool_word(pSwitch, length, "off"))
            return text_fault(pReader, TR_SPOOL_NO_SWITCH, partRules[i], parts[i].pos);
    }
    const trace_spool_spec_t *const pLastBefore = *pReader->list.ppLast;
    if (store_entry(pReader, parts, onoff) != 0)
        return text_fault(pReader, TR_SPOOL_NO_MEMORY, partRules[PART_PATTERN], start);
    (void)note_stored_entry(pReader->pFindings, pReader->list, pLastBefore, {.line = 0, .offset = start});
    pReader->bAnyOn |= onoff == 1;
    return 0;
}

int32_t read_spool_text(const char *pText, spool_list_t list, spool_findings_t *pFindings) {
    text_reader_t reader = {.text = whole_text(pText), .list = list, .pFindings = pFindings, .bAnyOn = false};
    while (reader.text.pos < reader.text.end) {
        const int32_t rc = take_entry(&reader);
        if (rc != 0)
            return rc;
    }
    return reader.bAnyOn ? TR_RC_SPOOL_ON : TR_RC_SPOOL_OFF;
}

int32_t parse_spool_spec(const char *pString, trace_spool_spec_t **pFirstSpoolSpec,
                         trace_spool_spec_t **pLastSpoolSpec) {
    return read_spool_text(pString, {pFirstSpoolSpec, pLastSpoolSpec}, nullptr);
}
