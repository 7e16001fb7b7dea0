// The frame of every recording call: one lock, one reservation, plain stores, one publishing store.
//
// Nothing here allocates, sets the error object or makes a system call while nobody else holds the file, and errno
// stays as the caller has it.
#ifndef KZ_TRACE_RECORD_FRAME_H
#define KZ_TRACE_RECORD_FRAME_H

#include <cerrno>
#include <cstring>

#include "trace/engine/allocate.h"
#include "trace/engine/engine.h"
#include "trace/engine/ring.h"
#include "trace/engine/set_lock.h"
#include "trace/frame/frame.h"

// Stores up to four characters, the rest zero; the first one is there. Byte by byte: a word put together on the stack
// would have to be read back before its bytes have left the store buffer.
inline void store_comp_id(uint8_t *pRec, const char *pCompId) {
    char *const pTo = reinterpret_cast<char *>(pRec + offsetof(trace_record_header_t, compId));
    static_assert(TR_COMP_ID_SIZE == 4);
    const char second = pCompId[1];
    const char third = second != '\0' ? pCompId[2] : '\0';
    const char fourth = third != '\0' ? pCompId[3] : '\0';
    pTo[0] = pCompId[0];
    pTo[1] = second;
    pTo[2] = third;
    pTo[3] = fourth;
}

// Copies the caller's bytes into a record. In line: most texts and blocks are short, and a call costs more than the copy.
// The last pieces overlap, so that any length takes few of them.
inline void store_bytes(uint8_t *pTo, const void *pFrom, size_t length) {
    constexpr size_t SHORT = 128;
    const auto *const pByte = static_cast<const uint8_t *>(pFrom);
    if (length > SHORT) {
        memcpy(pTo, pFrom, length);
    } else if (length >= 16) {
        for (size_t i = 0; i < length - 16; i += 16)
            memcpy(pTo + i, pByte + i, 16);
        memcpy(pTo + length - 16, pByte + length - 16, 16);
    } else if (length >= 8) {
        memcpy(pTo, pByte, 8);
        memcpy(pTo + length - 8, pByte + length - 8, 8);
    } else if (length >= 4) {
        memcpy(pTo, pByte, 4);
        memcpy(pTo + length - 4, pByte + length - 4, 4);
    } else {
        for (size_t i = 0; i < length; i++)
            pTo[i] = pByte[i];
    }
}

constexpr int32_t TR_RECORDED = 0;
constexpr int32_t TR_NOT_RESERVED = -1;

// Runs `write` under the anchor-set lock when the file is started: write(pAnchor, uMaxSize) reserves, fills and publishes
// a record, and returns TR_RECORDED, TR_NOT_RESERVED when there was no room, or a result code. Damage that the
// reservation met is repaired after the lock is released.
//
// A recorder can be cancelled only while the reservation waits for a tail reader; the waits have cleanup_anchor_set
// registered, so that the frame need not.
template <typename Write> inline int32_t record_in_frame(trace_anchor_t *pAnchor, Write write) {
    const int lockError = lock_anchor_set(pAnchor);
    if (lockError != 0) [[unlikely]]
        return lockError == EAGAIN ? TR_RECORDED : TR_RC_LOCK;                // not initialised: the record is dropped
    active_page_t target = {.pPage = pAnchor, .uMaxSize = pAnchor->uMaxSize}; // 0: stopped meanwhile, it is dropped
    if (pAnchor->ppActivePg != nullptr) [[unlikely]]
        target = active_page(pAnchor);
    int32_t rc = TR_RECORDED;
    if (target.uMaxSize != 0) [[likely]]
        rc = write(target.pPage, target.uMaxSize);
    // The last call of all, whose result is the caller's: what the function has saved is read back before, behind stores
    // that the release waits for anyway. That is worth half a nanosecond. A locked default mutex returns 0.
    if (rc == TR_RECORDED) [[likely]]
        return unlock_anchor_set(pAnchor);
    trace_damage_t damage;
    const bool bRepair = rc == TR_NOT_RESERVED && take_damage(pAnchor, &damage);
    (void)unlock_anchor_set(pAnchor);
    if (bRepair)
        repair_damage(pAnchor, &damage);
    return rc == TR_NOT_RESERVED ? TR_RECORDED : rc;
}

#endif
