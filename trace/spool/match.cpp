// Choosing the entry that governs a trace file, and looking up where its pages go.
#include <pthread.h>
#include <regex.h>
#include <syslog.h>

#include <cstring>

#include "trace/frame/frame.h"
#include "trace/spool/config.h"
#include "trace/spool/spool.h"

constexpr char TR_PAGE_SUFFIX[] = ".sp";

static bool is_digit(char c) {
    return c >= '0' && c <= '9';
}

// Length of a name without the suffix of a page file: ".", digits, ".sp". The name of a page file is never empty then.
static size_t base_length(const char *pName) {
    const size_t length = strlen(pName);
    const size_t suffixLength = strlen(TR_PAGE_SUFFIX);
    if (length < suffixLength || strcmp(pName + length - suffixLength, TR_PAGE_SUFFIX) != 0)
        return length;
    size_t dot = length - suffixLength;
    while (dot > 0 && is_digit(pName[dot - 1]))
        dot--;
    const bool bDigits = dot < length - suffixLength;
    return bDigits && dot > 1 && pName[dot - 1] == '.' ? dot - 1 : length;
}

static bool is_match_of(const trace_spool_spec_t *pSpec, const char *pName) {
    debug_line("match_spool_file_name: checking '%s' on '%s'\n", pName, pSpec->pattern);
    regex_t expression;
    if (regcomp(&expression, pSpec->pattern, TR_SPOOL_REGEX | REG_NOSUB) != 0) {
        debug_line_at(TR_DEBUG_ALL, LOG_ERR, "Invalid pattern: '%s'\n", pSpec->pattern);
        return false;
    }
    const bool bMatch = regexec(&expression, pName, 0, nullptr, 0) == 0;
    regfree(&expression);
    if (bMatch)
        debug_line("Matched: '%s' on '%s'\n", pName, pSpec->pattern);
    return bMatch;
}

trace_spool_spec_t *find_spool_spec(const char *trc_file, trace_spool_spec_t *pFirstSpoolSpec) {
    if (!is_file_name(trc_file)) // no trace file has such a name
        return nullptr;
    char name[TR_NAME_SIZE];
    const size_t length = base_length(trc_file);
    memcpy(name, trc_file, length);
    name[length] = '\0';
    trace_spool_spec_t *pSpec = pFirstSpoolSpec;
    while (pSpec != nullptr && !(is_match_of(pSpec, name) && pSpec->pages > 1))
        pSpec = pSpec->pNext;
    return pSpec;
}

// The directory of another entry with the same destination text, or null.
static char *borrowed_dir(const trace_spool_spec_t *pSpec, const trace_spool_spec_t *pFirstSpoolSpec) {
    for (const trace_spool_spec_t *pOther = pFirstSpoolSpec; pOther != nullptr; pOther = pOther->pNext) {
        if (pOther != pSpec && pOther->dir != nullptr && strcmp(pOther->dest, pSpec->dest) == 0)
            return pOther->dir;
    }
    return nullptr;
}

trace_spool_spec_t *match_spool_file_name(const char *trc_file, trace_spool_spec_t *pFirstSpoolSpec) {
    trace_spool_spec_t *const pSpec = find_spool_spec(trc_file, pFirstSpoolSpec);
    if (pSpec == nullptr)
        return nullptr;
    if (pSpec->dir == nullptr)
        pSpec->dir = borrowed_dir(pSpec, pFirstSpoolSpec);
    if (pSpec->dir == nullptr)
        pSpec->dir = mkspooldir(pSpec, trc_file);
    if (pSpec->dir != nullptr)
        return pSpec;
    pSpec->onoff = 0;
    debug_line_at(TR_DEBUG_ALL, LOG_ERR, "Could not create or access spooling directory: '%s'\n", pSpec->dest);
    return nullptr;
}

static char *spool_dir_of(const char *trc_file) TR_HOLDS(global_lock) {
    read_spool_cfg_once();
    const trace_spool_spec_t *const pSpec = match_spool_file_name(trc_file, anchors.pFirstSpoolSpec);
    if (pSpec == nullptr || pSpec->onoff == 0 || strcmp(pSpec->dir, TR_NOWHERE) == 0)
        return nullptr;
    return pSpec->dir;
}

char *tr_get_spool_dir_1(const char *trc_file) {
    char *pDir = nullptr;
    if (trc_file != nullptr && lockGlobalMutex() == 0) {
        pthread_cleanup_push(mutex_cleanup, &anchors.anchorMutex);
        pDir = spool_dir_of(trc_file);
        pthread_cleanup_pop(0);
        (void)unlockGlobalMutex();
    }
    debug_line_at(TR_DEBUG_ALL, LOG_ERR, "tr_get_spool_dir returning: '%s'\n", pDir != nullptr ? pDir : TR_NULL_TEXT);
    return pDir;
}
