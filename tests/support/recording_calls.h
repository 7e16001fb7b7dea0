// Records of every kind whose bodies tell whether they are whole.
#pragma once

#include "trace/kz_tr.h"

// The first value of a thread's n-th record. All it holds is this value and its complement in turns.
inline uint64_t value_of(uint32_t n) {
    return n * 0x9E3779B97F4A7C15;
}

// Makes the n-th record of a thread, with n as its identifier; half of them go to the token's file, the others to the
// default one. Returns what the call returned.
inline int32_t record_nth(const char *pComp, uint32_t n, tr_file_token_t token) {
    const uint64_t value = value_of(n), other = ~value;
    const auto low = static_cast<uint32_t>(value), lowOther = static_cast<uint32_t>(other);
    switch (n % 8) {
    case 0:
        return tr_record_id_1(pComp, n);
    case 1:
        return tr_ms_record_id_1(pComp, n, token);
    case 2:
        return tr_record_uint32_2_1(pComp, n, low, lowOther);
    case 3:
        return tr_ms_record_values_32_1(pComp, n, token, 5, low, lowOther, low, lowOther, low);
    case 4:
        return tr_record_uint64_1(pComp, n, value);
    case 5:
        return tr_ms_record_values_64_1(pComp, n, token, 3, value, other, value);
    case 6:
        return tr_record_fmt_string_1(pComp, n, "%ju", uintmax_t{value});
    default:
        return tr_ms_record_data_1(pComp, n, token, 2, &value, sizeof value, &other, sizeof other);
    }
}
