// Spooling entries: reading them, and choosing the one that governs a trace file.
//
// Readers append entries to a list, and hand out what is wrong with a text as data. The library passes over the faults;
// the tools show them.
#ifndef KZ_TRACE_SPOOL_CONFIG_H
#define KZ_TRACE_SPOOL_CONFIG_H

#include <cstdint>

#include "trace/trace.h"

constexpr char TR_SPOOL_CONFIG_FILE[] = "/var/kz/cfg/trace.conf";
constexpr char TR_NOWHERE[] = "/dev/null"; // destination of pages that are copied nowhere

// The entry that governs a trace file or page file, with its spool directory made ready, or null. An entry whose
// directory cannot be made is switched off.
trace_spool_spec_t *match_spool_file_name(const char *trc_file, trace_spool_spec_t *pFirstSpoolSpec)
    TR_HOLDS(global_lock);

// Reads the configuration file and appends its entries to a list. Returns 0 or one of 42 to 48; entries stored before a
// failure stay in the list.
int32_t spool_conf_file(trace_spool_spec_t **ppFirstSpoolSpec, trace_spool_spec_t **ppLastSpoolSpec);

#endif
