// The locks of locks.h.
//
// Recorders that meet at one file try its mutex again after short, growing pauses before they block on it: blocking
// costs two system calls and a wake-up for work of some twenty nanoseconds. The pauses grow until the other thread has
// had time for a run of records, which is also what keeps the file's first cache lines from wandering with every
// record.
#include <pthread.h>
#include <time.h>

#include <cerrno>

#include "trace/engine/engine.h"
#include "trace/engine/page_set.h"
#include "trace/engine/set_lock.h"
#include "trace/publish.h"

lock_role_t global_lock;
lock_role_t anchor_set_lock;
lock_role_t queue_lock;

constexpr uint32_t TR_FIRST_PAUSE = 64;  // in pause instructions: about two microseconds
constexpr uint32_t TR_LAST_PAUSE = 1024; // then block
constexpr time_t TR_LOCK_LIMIT_S = 1;    // in a forked child and at exit

static inline void cpu_pause() {
#if defined(__x86_64__) || defined(__i386__)
    __builtin_ia32_pause();
#elif defined(__aarch64__)
    __asm__ __volatile__("yield");
#endif
}

int lock_with_pauses(pthread_mutex_t *pMutex) {
    for (uint32_t numPauses = TR_FIRST_PAUSE; numPauses <= TR_LAST_PAUSE; numPauses *= 2) {
        for (uint32_t i = 0; i < numPauses; i++)
            cpu_pause();
        if (pthread_mutex_trylock(pMutex) == 0)
            return 0;
    }
    return pthread_mutex_lock(pMutex);
}

__attribute__((noinline, cold)) int lock_contended_set(trace_anchor_t *pAnchor) {
    for (;;) {
        pthread_mutex_t *const pMutex = anchor_set_mutex(pAnchor);
        const int error = lock_with_pauses(pMutex);
        if (error != 0 || pMutex == anchor_set_mutex(pAnchor))
            return error;
        (void)pthread_mutex_unlock(pMutex); // became a page set, or ceased to be one, while this thread waited
    }
}

static void deadline_from_now(time_t seconds, timespec *pDeadline) {
    clock_gettime(CLOCK_REALTIME, pDeadline);
    pDeadline->tv_sec += seconds;
}

TR_UNCHECKED int lock_global_mutex_at_exit() {
    timespec deadline;
    deadline_from_now(TR_LOCK_LIMIT_S, &deadline);
    return pthread_mutex_timedlock(&anchors.anchorMutex, &deadline);
}

TR_UNCHECKED int lockGlobalMutex() {
    return observe(&this_is_child) != 0 ? lock_global_mutex_at_exit() : pthread_mutex_lock(&anchors.anchorMutex);
}

TR_UNCHECKED int unlockGlobalMutex() {
    return pthread_mutex_unlock(&anchors.anchorMutex);
}

void mutex_cleanup(void *pArg) {
    (void)pthread_mutex_unlock(static_cast<pthread_mutex_t *>(pArg));
}

TR_UNCHECKED void cleanup_anchor_set(void *pArg) {
    (void)unlock_anchor_set(static_cast<trace_anchor_t *>(pArg));
}

// The set that the holder of the global lock keeps recorders out of over several steps. Guarded by the global lock.
static constinit struct {
    const trace_anchor_t *pHead;
    pthread_mutex_t *mutexes[2]; // which recorders choose, before and after
} held_set = {};

// Whether a holder of the global lock has to lock the set as well: not when it is the same mutex, is held already or there
// are no recorders yet, and not in a child, where a thread that does not exist any more may hold it and nobody records.
static bool must_lock_set(trace_anchor_t *pAnchor) {
    const pthread_mutex_t *const pMutex = anchor_set_mutex(pAnchor);
    return pMutex != nullptr && pMutex != &anchors.anchorMutex && set_head(pAnchor) != held_set.pHead &&
           observe(&this_is_child) == 0;
}

TR_UNCHECKED pthread_mutex_t *lock_present_set(trace_anchor_t *pAnchor) {
    if (!must_lock_set(pAnchor))
        return nullptr;
    pthread_mutex_t *const pMutex = anchor_set_mutex(pAnchor);
    (void)pthread_mutex_lock(pMutex);
    return pMutex;
}

TR_UNCHECKED void unlock_former_set(pthread_mutex_t *pMutex) {
    if (pMutex != nullptr)
        (void)pthread_mutex_unlock(pMutex);
}

void hold_set(trace_anchor_t *pAnchor) {
    held_set.mutexes[0] = lock_present_set(pAnchor);
    held_set.pHead = pAnchor;
}

void hold_future_set(const trace_anchor_t *pAnchor, pthread_mutex_t *pMutex) {
    if (held_set.pHead != pAnchor)
        return;
    (void)pthread_mutex_lock(pMutex);
    held_set.mutexes[1] = pMutex;
}

void release_held_set() {
    unlock_former_set(held_set.mutexes[1]);
    unlock_former_set(held_set.mutexes[0]);
    held_set = {};
}

TR_UNCHECKED void lock_anchor_set_under_global(trace_anchor_t *pAnchor) {
    (void)lock_present_set(pAnchor);
}

TR_UNCHECKED int lock_anchor_set_until(trace_anchor_t *pAnchor, const struct timespec *pDeadline) {
    return must_lock_set(pAnchor) ? pthread_mutex_timedlock(anchor_set_mutex(pAnchor), pDeadline) : 0;
}

TR_UNCHECKED void unlock_anchor_set_under_global(trace_anchor_t *pAnchor) {
    if (must_lock_set(pAnchor))
        (void)pthread_mutex_unlock(anchor_set_mutex(pAnchor));
}

int cancel_disable() {
    int state = PTHREAD_CANCEL_ENABLE;
    (void)pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &state);
    return state;
}

void cancel_restore(int state) {
    (void)pthread_setcancelstate(state, nullptr);
}
