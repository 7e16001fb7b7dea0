// The one converter of numbers in texts.
#include "trace/frame/frame.h"

static bool is_space(char c) {
    return c == ' ' || (c >= '\t' && c <= '\r');
}

// Value of a digit in any base up to 16; 16 when it is none.
static uint32_t digit_value(char c) {
    if (c >= '0' && c <= '9')
        return static_cast<uint32_t>(c - '0');
    const char lower = static_cast<char>(c | 0x20);
    if (lower >= 'a' && lower <= 'f')
        return static_cast<uint32_t>(lower - 'a') + 10;
    return 16;
}

uint64_t read_number(const char *pText, const char **ppStop) {
    const char *p = pText;
    while (is_space(*p))
        p++;
    const bool bNegative = *p == '-';
    if (*p == '-' || *p == '+')
        p++;
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
