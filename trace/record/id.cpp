// Identifier records: a trace point was passed.
#include "trace/record/frame.h"

int32_t tr_ms_record_id_1(const char *pCompId, uint32_t id, tr_file_token_t fileToken) {
    if (is_switched_off())
        return 0;
    if (!is_comp_id(pCompId))
        return TR_RC_NO_COMPONENT_ID;
    return record_in_frame(anchor_of(fileToken), [=](trace_anchor_t *pAnchor, uint32_t) TR_HOLDS(anchor_set_lock) {
        constexpr uint32_t LENGTH = sizeof(trace_record_id_t);
        uint8_t *const pRec = allocate_space(pAnchor, &LENGTH);
        if (pRec == nullptr) [[unlikely]]
            return TR_NOT_RESERVED;
        store_comp_id(pRec, pCompId);
        store_at(pRec + offsetof(trace_record_id_t, id), id);
        publish_kind(pRec, TR_KIND_ID);
        return TR_RECORDED;
    });
}

int32_t tr_record_id_1(const char *pCompId, uint32_t id) {
    return tr_ms_record_id_1(pCompId, id, nullptr);
}
