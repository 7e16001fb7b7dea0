#include "trace/control/spec_text.h"

#include <algorithm>

constexpr char TR_MATCH_ALL[] = ".*"; // what "*" alone stands for
constexpr int TR_PATTERN_FLAGS = REG_EXTENDED | REG_ICASE | REG_NEWLINE | REG_NOSUB;

int32_t set_spec_error(const spec_fault_t *pFault) {
    if (pFault->code == TR_RC_NO_MEMORY)
        return set_error(TR_RC_NO_MEMORY, TR_RC_NO_MEMORY);
    return set_error_int(pFault->code, pFault->code, static_cast<int32_t>(pFault->offset));
}

int32_t spec_fault(spec_fault_t *pFault, int32_t code, uint32_t offset) {
    pFault->code = code;
    pFault->offset = offset;
    return code;
}

spec_range_t whole_text(const char *pText) {
    return {.pText = pText, .pos = 0, .end = static_cast<uint32_t>(strlen(pText))};
}

void skip_blanks(spec_range_t *pRange) {
    while (pRange->pos < pRange->end && pRange->pText[pRange->pos] == ' ')
        pRange->pos++;
}

uint32_t find_char(const spec_range_t *pRange, char c) {
    const char *const pStart = pRange->pText + pRange->pos;
    const void *const pFound = memchr(pStart, c, pRange->end - pRange->pos);
    return pFound == nullptr ? pRange->end
                             : pRange->pos + static_cast<uint32_t>(static_cast<const char *>(pFound) - pStart);
}

// Depths are signed: a bracket that closes what nothing opened hides the rest of the entry.
static uint32_t find_separator(const spec_range_t *pEntry) {
    int32_t brackets = 0;
    int32_t braces = 0;
    for (uint32_t i = pEntry->pos; i < pEntry->end; i++) {
        const char c = pEntry->pText[i];
        brackets += (c == '[') - (c == ']');
        braces += (c == '{') - (c == '}');
        if (c == ':' && brackets == 0 && braces == 0)
            return i;
    }
    return pEntry->end;
}

int32_t parse_component(spec_range_t *pEntry, spec_range_t *pComponent, spec_fault_t *pFault) {
    const uint32_t separator = find_separator(pEntry);
    if (separator == pEntry->pos)
        return spec_fault(pFault, TR_RC_SPEC_COMPONENT, pEntry->pos);
    if (separator == pEntry->end)
        return spec_fault(pFault, TR_RC_SPEC_SEPARATOR, pEntry->end);
    *pComponent = {.pText = pEntry->pText, .pos = pEntry->pos, .end = separator};
    pEntry->pos = separator + 1;
    return 0;
}

static void skip_char(spec_range_t *pRange, char c) {
    if (pRange->pos < pRange->end && pRange->pText[pRange->pos] == c)
        pRange->pos++;
}

void parseFileName(spec_range_t *pGroup, char (&fileName)[TR_NAME_SIZE]) {
    skip_blanks(pGroup);
    const bool bQuoted = pGroup->pos < pGroup->end && pGroup->pText[pGroup->pos] == '"';
    skip_char(pGroup, '"');
    uint32_t nameEnd = find_char(pGroup, '"');
    if (!bQuoted)
        nameEnd = std::min({nameEnd, find_char(pGroup, ','), find_char(pGroup, ' ')});
    const uint32_t length = std::min(nameEnd - pGroup->pos, TR_NAME_SIZE - 1);
    memcpy(fileName, pGroup->pText + pGroup->pos, length);
    fileName[length] = '\0';
    pGroup->pos = nameEnd;
    skip_char(pGroup, '"');
    skip_char(pGroup, ',');
    skip_blanks(pGroup);
}

// ---- Patterns ----

static bool is_match_all(const spec_range_t *pPattern) {
    return pPattern->end - pPattern->pos == 1 && pPattern->pText[pPattern->pos] == '*';
}

size_t pattern_size(const spec_range_t *pPattern) {
    return is_match_all(pPattern) ? sizeof TR_MATCH_ALL : pPattern->end - pPattern->pos + 1;
}

char *store_pattern(char *pTo, const spec_range_t *pPattern) {
    const size_t size = pattern_size(pPattern);
    memcpy(pTo, is_match_all(pPattern) ? TR_MATCH_ALL : pPattern->pText + pPattern->pos, size - 1);
    pTo[size - 1] = '\0';
    return pTo + size;
}

// Returns 0; `faultCode` when the pattern is no valid expression; 14 when memory is short.
static int32_t compile_pattern(regex_t *pPattern, const char *pText, int32_t faultCode) {
    const int result = regcomp(pPattern, pText, TR_PATTERN_FLAGS);
    if (result == 0)
        return 0;
    return result == REG_ESPACE ? TR_RC_NO_MEMORY : faultCode;
}

int32_t compile_patterns(spec_patterns_t *pPatterns, const char *pComponent, const char *pCategory) {
    int32_t rc = compile_pattern(&pPatterns->component, pComponent, TR_RC_COMPONENT_PATTERN);
    if (rc != 0)
        return rc;
    rc = compile_pattern(&pPatterns->category, pCategory, TR_RC_CATEGORY_PATTERN);
    if (rc != 0)
        regfree(&pPatterns->component);
    return rc;
}

void free_patterns(spec_patterns_t *pPatterns) {
    regfree(&pPatterns->component);
    regfree(&pPatterns->category);
}

bool is_match(const regex_t *pPattern, const char *pText) {
    return regexec(pPattern, pText, 0, nullptr, 0) == 0;
}
