// The converters of numbers in texts.
#include <algorithm>

#include "trace/frame/frame.h"

// Value of a digit in any base up to 16; 16 when it is none.
static uint32_t digit_value(char c) {
    if (c >= '0' && c <= '9')
        return static_cast<uint32_t>(c - '0');
    const char lower = static_cast<char>(c | 0x20);
    if (lower >= 'a' && lower <= 'f')
        return static_cast<uint32_t>(lower - 'a') + 10;
    return 16;
}

// Moves over white space and a sign. Returns whether that is a "-".
static bool skip_sign(const char **ppText) {
    while (is_space(**ppText))
        ++*ppText;
    const char sign = **ppText;
    if (sign == '-' || sign == '+')
        ++*ppText;
    return sign == '-';
}

uint64_t read_number(const char *pText, const char **ppStop) {
    const char *p = pText;
    const bool bNegative = skip_sign(&p);
    uint32_t base = 10;
    if (*p == '0') {
        base = 8;
        if ((p[1] | 0x20) == 'x' && digit_value(p[2]) < 16) {
            base = 16;
            p += 2;
        }
    }
    *ppStop = pText;
    uint64_t value = 0;
    bool bOverflow = false;
    for (uint32_t digit = digit_value(*p); digit < base; digit = digit_value(*++p)) {
        bOverflow |= __builtin_mul_overflow(value, uint64_t{base}, &value);
        bOverflow |= __builtin_add_overflow(value, uint64_t{digit}, &value);
        *ppStop = p + 1;
    }
    if (bOverflow)
        return UINT64_MAX;
    return bNegative ? -value : value;
}

int32_t read_decimal(const char *pText, const char **ppStop) {
    const char *p = pText;
    const bool bNegative = skip_sign(&p);
    *ppStop = pText;
    int64_t value = 0;
    for (uint32_t digit = digit_value(*p); digit < 10; digit = digit_value(*++p)) {
        value = std::min<int64_t>(10 * value + digit, INT32_MAX);
        *ppStop = p + 1;
    }
    return static_cast<int32_t>(bNegative ? -value : value);
}
