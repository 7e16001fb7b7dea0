// Turns time stamps of records into time.
#ifndef KZ_READER_TIME_H
#define KZ_READER_TIME_H

#include <cstdint>

#include "cu/kz_cu.h"

namespace trread {

// Nanoseconds since 1970 (UTC) of a time stamp: timeStamp * 10^9 / timeinfo1 + timeinfo2, cut to what 64 bits hold
// (the years 1677 to 2262). A timeinfo1 of 0, which only a damaged file has, counts as 10^9.
int64_t time_of_stamp(uint64_t timeStamp, const cu_timeinfo_t &timeInfo);

} // namespace trread

#endif
