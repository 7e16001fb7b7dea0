// Memory that others read without a lock: processes that follow a mapped file, and threads that only look.
//
// Such memory is published by the order of plain stores, never by read-modify-write. What another process or an
// unlocked thread reads goes through these helpers: in a mapping a record's `length`, `function` and `seqNumber` and
// the header words of the tail protocol; in memory the words that locks.h lists as read without a lock.
#ifndef KZ_TRACE_PUBLISH_H
#define KZ_TRACE_PUBLISH_H

#include <cstdint>
#include <cstring>

// Stores `value`; whoever observes it sees all that was stored before it.
template <typename T> inline void publish(volatile T *pField, T value) {
    __atomic_store_n(pField, value, __ATOMIC_RELEASE);
}

// Loads a published value.
template <typename T> inline T observe(const volatile T *pField) {
    return __atomic_load_n(pField, __ATOMIC_ACQUIRE);
}

// The same for a field of a mapped record. A ring that was harmed from outside may lead to any address. x86 stores and
// loads at any address by one instruction; elsewhere the value is copied at an odd one, and the order is not promised.
#if defined(__x86_64__) && !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
constexpr bool TR_ANY_ADDRESS = true;
#else
constexpr bool TR_ANY_ADDRESS = false;
#endif

template <typename T> inline bool is_storable(const void *pField) {
    return TR_ANY_ADDRESS || reinterpret_cast<uintptr_t>(pField) % sizeof(T) == 0;
}

template <typename T> inline void publish_at(uint8_t *pField, T value) {
    if (is_storable<T>(pField)) [[likely]]
        publish(reinterpret_cast<T *>(pField), value);
    else
        memcpy(pField, &value, sizeof(T));
}

template <typename T> inline T observe_at(const uint8_t *pField) {
    if (is_storable<T>(pField)) [[likely]]
        return observe(reinterpret_cast<const T *>(pField));
    T value;
    memcpy(&value, pField, sizeof(T));
    return value;
}

#endif
