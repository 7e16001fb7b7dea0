// Error records: a whole error object, with the place in the program where it was met.
#include <pthread.h>

#include <cerrno>
#include <cstring>

#include "cu/kz_cu.h"
#include "trace/record/frame.h"

constexpr uint32_t TR_ERROR_HEAD = sizeof(trace_record_error_t);

// The five texts in their order in the record, with the fields that hold their offsets.
enum { TEXT_FUNC_NAME, TEXT_FILE_NAME, TEXT_FFDC_ID, TEXT_MSG_CAT, TEXT_DEF_MSG, NUM_TEXTS };
constexpr size_t TR_OFFSET_FIELDS[NUM_TEXTS] = {
    offsetof(trace_record_error_t, funcNameOffset), offsetof(trace_record_error_t, fileNameOffset),
    offsetof(trace_record_error_t, ffdcIdOffset),   offsetof(trace_record_error_t, msgCatNameOffset),
    offsetof(trace_record_error_t, defMsgOffset),
};

// What goes into the record.
struct error_source_t {
    const char *pCompId;
    uint32_t traceId;
    uint32_t lineNumber;
    const cu_error_t *pError;
    const char *texts[NUM_TEXTS]; // null: absent
    uint32_t length;              // bytes of the whole record
};

static uint64_t text_size(const char *pText) {
    return pText != nullptr ? strlen(pText) + 1 : 0;
}

static const char *insert_text(const cu_error_arg_t *pArg) {
    return pArg->cu_arg_type == CU_ERROR_ARG_CHAR_STR ? pArg->cu_arg_value.cu_arg_char_str : nullptr;
}

// Works out the record's length. Returns false when there is nothing to record, or it could fit no file.
static bool measure_error(error_source_t *pSource) {
    const cu_error_t *const pError = pSource->pError;
    if (pError->cu_error_id == 0 || (pError->cu_args == nullptr && pError->cu_arg_cnt != 0))
        return false;
    uint64_t length = TR_ERROR_HEAD + uint64_t{pError->cu_arg_cnt} * sizeof(trace_error_arg_t);
    if (length > UINT32_MAX)
        return false; // a count that cannot be true: there are no inserts to look at
    for (const char *pText : pSource->texts)
        length += text_size(pText);
    for (uint32_t i = 0; i < pError->cu_arg_cnt; i++)
        length += text_size(insert_text(&pError->cu_args[i]));
    length = tr_round_up_4(length);
    pSource->length = static_cast<uint32_t>(length);
    return length <= UINT32_MAX;
}

// Where the next text goes. A text that grew since it was measured is cut at the record's end.
struct text_area_t {
    uint8_t *pRec;
    uint32_t offset;
    uint32_t end;
};

// Copies a text behind the others. Returns its offset in the record; 0 when it is absent.
static uint32_t copy_text(text_area_t *pArea, const char *pText) {
    if (pText == nullptr || pArea->offset >= pArea->end)
        return 0;
    const uint32_t offset = pArea->offset;
    const auto length = static_cast<uint32_t>(strnlen(pText, pArea->end - offset - 1));
    memcpy(pArea->pRec + offset, pText, length);
    pArea->pRec[offset + length] = 0;
    pArea->offset = offset + length + 1;
    return offset;
}

static void fill_error(uint8_t *pRec, const error_source_t *pSource) {
    const cu_error_t *const pError = pSource->pError;
    const uint32_t numArgs = pError->cu_arg_cnt;
    store_at(pRec + offsetof(trace_record_error_t, traceId), pSource->traceId);
    store_at(pRec + offsetof(trace_record_error_t, errorId), pError->cu_error_id);
    store_at(pRec + offsetof(trace_record_error_t, lineNumber), pSource->lineNumber);
    store_at(pRec + offsetof(trace_record_error_t, msgSetNumber), pError->cu_msg_set);
    store_at(pRec + offsetof(trace_record_error_t, msgNumber), pError->cu_msg_num);
    store_at(pRec + offsetof(trace_record_error_t, argCount), numArgs);
    const auto textsOffset = static_cast<uint32_t>(TR_ERROR_HEAD + numArgs * sizeof(trace_error_arg_t));
    text_area_t area = {.pRec = pRec, .offset = textsOffset, .end = pSource->length};
    for (int i = 0; i < NUM_TEXTS; i++)
        store_at(pRec + TR_OFFSET_FIELDS[i], copy_text(&area, pSource->texts[i]));
    uint8_t *pTo = pRec + TR_ERROR_HEAD;
    for (uint32_t i = 0; i < numArgs; i++, pTo += sizeof(trace_error_arg_t)) {
        const cu_error_arg_t *const pArg = &pError->cu_args[i];
        uint64_t value = 0;
        if (pArg->cu_arg_type == CU_ERROR_ARG_CHAR_STR)
            value = copy_text(&area, insert_text(pArg));
        else
            memcpy(&value, &pArg->cu_arg_value, sizeof value);
        store_at(pTo + offsetof(trace_error_arg_t, type), static_cast<uint32_t>(pArg->cu_arg_type));
        store_at(pTo + offsetof(trace_error_arg_t, value), value);
    }
}

static int32_t write_error(trace_anchor_t *pFile, const error_source_t *pSource) {
    return record_in_frame(pFile, [&](trace_anchor_t *pAnchor, uint32_t) TR_HOLDS(anchor_set_lock) {
        uint8_t *const pRec = allocate_space(pAnchor, &pSource->length);
        if (pRec == nullptr) [[unlikely]]
            return TR_NOT_RESERVED;
        store_comp_id(pRec, pSource->pCompId);
        fill_error(pRec, pSource);
        publish_kind(pRec, TR_KIND_ERROR);
        return TR_RECORDED;
    });
}

// Clean-up of a cancelled recorder that fetched the error object (pArg is the object).
static void release_error(void *pArg) {
    cu_rel_error_1(static_cast<cu_error_t *>(pArg));
}

// Records an object that was fetched here. Returns 0 or 9.
static int32_t record_fetched(trace_anchor_t *pFile, error_source_t *pSource, cu_error_t *pFetched) {
    int32_t rc = 0;
    pthread_cleanup_push(release_error, pFetched);
    if (measure_error(pSource))
        rc = write_error(pFile, pSource);
    pthread_cleanup_pop(0);
    return rc;
}

static int32_t record_error(const char *pCompId, uint32_t traceId, tr_file_token_t fileToken, const char *pFuncName,
                            uint32_t lineNumber, const char *pFileName, cu_error_t **pErrorInfo) {
    const bool bGiven = pErrorInfo != nullptr && *pErrorInfo != nullptr;
    cu_error_t *pError = bGiven ? *pErrorInfo : nullptr;
    if (!bGiven && (cu_get_error_1(&pError) != 0 || pError == nullptr))
        return 0; // memory is short
    error_source_t source = {
        .pCompId = pCompId,
        .traceId = traceId,
        .lineNumber = lineNumber,
        .pError = pError,
        .texts = {pFuncName, pFileName, pError->cu_ffdc_id, pError->cu_msg_cat, pError->cu_msg_default},
        .length = 0,
    };
    trace_anchor_t *const pFile = anchor_of(fileToken);
    if (bGiven)
        return measure_error(&source) ? write_error(pFile, &source) : 0;
    const int32_t rc = record_fetched(pFile, &source, pError);
    if (pErrorInfo == nullptr)
        cu_rel_error_1(pError);
    else
        *pErrorInfo = pError; // the caller's from now on
    return rc;
}

int32_t tr_ms_record_error_1(const char *pCompId, uint32_t traceId, tr_file_token_t fileToken, const char *pFuncName,
                             uint32_t lineNumber, const char *pFileName, cu_error_t **pErrorInfo) {
    if (is_switched_off())
        return 0;
    if (!is_comp_id(pCompId))
        return TR_RC_NO_COMPONENT_ID;
    const int savedErrno = errno; // fetching an error object allocates
    const int32_t rc = record_error(pCompId, traceId, fileToken, pFuncName, lineNumber, pFileName, pErrorInfo);
    errno = savedErrno;
    return rc;
}

int32_t tr_record_error_1(const char *pCompId, uint32_t traceId, const char *pFuncName, uint32_t lineNumber,
                          const char *pFileName, cu_error_t **pErrorInfo) {
    return tr_ms_record_error_1(pCompId, traceId, nullptr, pFuncName, lineNumber, pFileName, pErrorInfo);
}
