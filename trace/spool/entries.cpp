// The list of spooling entries, and where it comes from at first. An entry whose pattern names the cluster's directory by
// the cluster's name gets a twin behind it, which names it by the cluster's identifier: programs use either path.
#include <pthread.h>
#include <regex.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "cu/kz_cu.h"
#include "trace/control/spec_text.h"
#include "trace/frame/frame.h"
#include "trace/spool/config.h"
#include "trace/spool/spool.h"

constexpr char TR_CLUSTER_EXPRESSION[] = "/var/kz/([^/]+)(.*)"; // the pattern of the name, and what follows it

static pthread_once_t sp_read_cfg = PTHREAD_ONCE_INIT;

bool is_spool_word(const char *pText, size_t length, const char *pWord) {
    for (size_t i = 0; i < length; i++, pWord++) {
        const char c = pText[i];
        const char lower = c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
        if (lower != *pWord) // at the latest where the word ends: the text holds no zero byte
            return false;
    }
    return *pWord == '\0';
}

// ---- The twin for the cluster's identifier ----

// Looks for the cluster's directory in a pattern. Offsets of the whole, the name's pattern and the rest.
static bool find_cluster_dir(const char *pPattern, regmatch_t (&parts)[3]) {
    regex_t expression;
    if (regcomp(&expression, TR_CLUSTER_EXPRESSION, TR_SPOOL_REGEX) != 0)
        return false;
    const bool bFound = regexec(&expression, pPattern, 3, parts, 0) == 0;
    regfree(&expression);
    return bFound;
}

// Whether the pattern of a name stands for all of the cluster's name.
static bool is_cluster_name(const char *pNamePattern, const char *pClusterName) {
    char whole[TR_PATTERN_SIZE + 2];
    (void)snprintf(whole, sizeof whole, "^%s$", pNamePattern); // fits: a part of a pattern
    regex_t expression;
    if (regcomp(&expression, whole, TR_SPOOL_REGEX | REG_NOSUB) != 0)
        return false;
    const bool bMatch = regexec(&expression, pClusterName, 0, nullptr, 0) == 0;
    regfree(&expression);
    if (!bMatch)
        debug_line("This cluster name (%s) NOT matched on %s.", pClusterName, whole);
    return bMatch;
}

// Makes the pattern of the twin. Returns false when there is none: the pattern names no cluster directory or that of
// another cluster, the cluster is not known, or the twin's pattern would be too long.
static bool make_twin_pattern(const char *pPattern, char (&twin)[TR_PATTERN_SIZE]) {
    regmatch_t parts[3];
    if (!find_cluster_dir(pPattern, parts))
        return false;
    debug_line("addSpoolCfgElement: Cluster name pattern detected\n");
    cu_cluster_info_t cluster;
    if (get_cluster_info(&cluster) != 0)
        return false;
    char name[TR_PATTERN_SIZE];
    (void)snprintf(name, sizeof name, "%.*s", parts[1].rm_eo - parts[1].rm_so, pPattern + parts[1].rm_so);
    const char *const pRest = pPattern + parts[2].rm_so;
    const int restLength = parts[2].rm_eo - parts[2].rm_so; // the pattern's last line may not be its first
    debug_line("base_cl_pat(%d..%d): '%s'\n", parts[1].rm_so, parts[1].rm_eo, name);
    debug_line("rest_of_pat(%d..%d): '%.*s'\n", parts[2].rm_so, parts[2].rm_eo, restLength, pRest);
    if (!is_cluster_name(name, cluster.cu_cluster_name))
        return false;
    debug_line("cluster name/pattern match: creating new spec from cluster id'\n");
    const int length = snprintf(twin, sizeof twin, "/var/kz/%s%.*s", cluster.cu_cluster_ID, restLength, pRest);
    return length >= 0 && static_cast<size_t>(length) < sizeof twin;
}

// ---- The list ----

int32_t addSpoolCfgElement(const char *dest, const char *pattern, uint32_t pages, int32_t onoff, int32_t interval,
                           trace_spool_spec_t **pFirstSpoolSpec, trace_spool_spec_t **pLastSpoolSpec,
                           int32_t dupForClusterLink, uint32_t pageSize) {
    auto *const pSpec = static_cast<trace_spool_spec_t *>(calloc(1, sizeof(trace_spool_spec_t)));
    if (pSpec == nullptr) {
        (void)set_error(TR_RC_NO_MEMORY, TR_RC_NO_MEMORY);
        return TR_RC_SPOOL_TEXT;
    }
    memcpy(pSpec->dest, dest, strnlen(dest, sizeof pSpec->dest - 1)); // the block is zeroed
    memcpy(pSpec->pattern, pattern, strnlen(pattern, sizeof pSpec->pattern - 1));
    pSpec->pages = pages;
    pSpec->pg_size = pageSize;
    pSpec->onoff = onoff;
    pSpec->sync_interval = static_cast<uint32_t>(spool_interval(interval));
    append_specs<trace_spool_spec_t>({pFirstSpoolSpec, pLastSpoolSpec}, pSpec, pSpec);
    debug_line("Spooling spec '%s:%u:%u:%s', sync_interval=%d'\n", pSpec->pattern, static_cast<uint32_t>(onoff), pages,
               pSpec->dest, static_cast<int32_t>(pSpec->sync_interval));
    char twin[TR_PATTERN_SIZE];
    if (dupForClusterLink != 1 || !make_twin_pattern(pSpec->pattern, twin))
        return 0;
    debug_line("Creating new element with pattern: %s.", twin);
    return addSpoolCfgElement(dest, twin, pages, onoff, interval, pFirstSpoolSpec, pLastSpoolSpec, 0, pageSize);
}

void free_spool_spec_linked_list(trace_spool_spec_t *pFirst) {
    trace_spool_spec_t *pLast = nullptr;
    free_specs<trace_spool_spec_t>({&pFirst, &pLast});
}

// ---- The first reading ----

// The result does not matter: what was stored before a failure is the configuration.
static void read_spool_cfg() {
    const char *const pText = secure_getenv("KZ_TR_SPOOL");
    if (pText != nullptr && *pText != '\0')
        (void)parse_spool_spec(pText, &anchors.pFirstSpoolSpec, &anchors.pLastSpoolSpec);
    else
        (void)spool_conf_file(&anchors.pFirstSpoolSpec, &anchors.pLastSpoolSpec);
}

// A body that is cancelled would run again and read every entry twice.
void read_spool_cfg_once() {
    const int cancelState = cancel_disable();
    (void)pthread_once(&sp_read_cfg, read_spool_cfg);
    cancel_restore(cancelState);
}
