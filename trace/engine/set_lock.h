// The anchor-set lock, as recorders take it: inline, because it is a good part of what a record costs.
#ifndef KZ_TRACE_ENGINE_SET_LOCK_H
#define KZ_TRACE_ENGINE_SET_LOCK_H

#include <pthread.h>

#include <cerrno>

#include "trace/publish.h"
#include "trace/trace.h"

// The mutex that guards an anchor's set, or null before the library is initialised. The choice changes only while the
// mutex chosen before is held.
inline pthread_mutex_t *anchor_set_mutex(const trace_anchor_t *pAnchor) {
    return observe(&pAnchor->pSetMutex);
}

// Whether a mutex looks free. Only a hint: a C library whose mutexes begin with another word, or a thread that comes in
// between, makes its caller wait in another way, no more.
inline bool looks_free(const pthread_mutex_t *pMutex) {
    return __atomic_load_n(reinterpret_cast<const int *>(pMutex), __ATOMIC_RELAXED) == 0;
}

// Takes the anchor-set lock that another thread holds: tries again after short pauses, then blocks. Returns 0 or the
// platform's error number.
int lock_contended_set(trace_anchor_t *pAnchor);

// Takes the anchor-set lock of an anchor. A free one is taken by pthread_mutex_lock, which is faster than a try by two
// nanoseconds of some twenty. Returns 0 or the platform's error number; EAGAIN, with nothing locked, before
// the library is initialised. Makes no system call while nobody else holds it. Not a cancellation point.
//
// A recorder must not hold the default file's lock, which is the global one, before the library is initialised and hears
// of forks: a child forked in that moment would find it locked for good.
TR_UNCHECKED inline int lock_anchor_set(trace_anchor_t *pAnchor) TR_TRY_LOCK(anchor_set_lock) {
    pthread_mutex_t *const pMutex = anchor_set_mutex(pAnchor);
    if (pMutex == nullptr) [[unlikely]]
        return EAGAIN;
    if (looks_free(pMutex) && pthread_mutex_lock(pMutex) == 0) [[likely]] {
        if (pMutex == anchor_set_mutex(pAnchor)) [[likely]]
            return 0;
        (void)pthread_mutex_unlock(pMutex); // became a page set, or ceased to be one, in this moment
    }
    return lock_contended_set(pAnchor);
}

TR_UNCHECKED inline int unlock_anchor_set(trace_anchor_t *pAnchor) TR_UNLOCK(anchor_set_lock) {
    return pthread_mutex_unlock(anchor_set_mutex(pAnchor));
}

#endif
