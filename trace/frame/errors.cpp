// The three ways to set the error object.
#include "cu/kz_cu.h"
#include "trace/frame/frame.h"

// Text of a message; the number itself is passed on even when it has none.
static const char *default_text(int32_t message) {
    return message >= 1 && message < TR_NUM_MESSAGES ? cu_mesgtbl_trapi_set[message] : cu_badid_trapi_set;
}

int32_t set_error(int32_t code, int32_t message) {
    return cu_set_error_1(code, nullptr, TR_CATALOGUE, TR_MESSAGE_SET, message, default_text(message));
}

int32_t set_error_int(int32_t code, int32_t message, int32_t insert) {
    return cu_set_error_1(code, nullptr, TR_CATALOGUE, TR_MESSAGE_SET, message, default_text(message), insert);
}

int32_t set_error_str(int32_t code, int32_t message, const char *pInsert) {
    return cu_set_error_1(code, nullptr, TR_CATALOGUE, TR_MESSAGE_SET, message, default_text(message), pInsert);
}
