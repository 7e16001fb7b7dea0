// The message set: the default texts of all errors that the library reports.
#ifndef KZ_TRACE_TRAPI_SET_H
#define KZ_TRACE_TRAPI_SET_H

#include "trace/kz_tr.h"

constexpr int32_t TR_NUM_MESSAGES = 41; // message numbers 0 to 40; 0 is never reported
constexpr int32_t TR_BAD_ID_SIZE = 41;  // bytes, zero byte included
constexpr int32_t TR_MESSAGE_SET = 1;   // set number within the catalogue
constexpr char TR_CATALOGUE[] = "kz_tr.cat";

extern "C" {
// Writable: entries may be exchanged.
KZ_TR_API extern const char *cu_mesgtbl_trapi_set[TR_NUM_MESSAGES];
// Stands for every message number outside 1 to 40.
KZ_TR_API extern char cu_badid_trapi_set[TR_BAD_ID_SIZE];
}

#endif
