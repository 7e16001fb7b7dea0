// Which lock guards what, and in which order locks are taken.
//
//   global lock      `anchors.anchorMutex`. Initialisation, the component registry, the lists of the default anchor,
//                    starting and stopping of files, flushing, status.
//   own lock         `anchorMutex` of one anchor. For a file without pages it is the anchor-set lock.
//   anchor-set lock  The writer's position in one file or page set: `pSpoolMutex` of a page set, else the own lock; so
//                    for the default file without pages it is the global lock itself.
//   queue lock       `spq.mutex`. The queue to the copy thread, and the state bytes of queued pages. The copy thread holds
//                    it while it copies a page, so its holder may unmap pages.
//   leaf locks       `anchorListMutex` (insertion into the anchor list), `configuration_file_last_modified_mutex`, those
//                    of the cluster's identity and of the core event: nothing is locked under them.
//
// Order: global, own, anchor set, queue, leaf. A recorder never takes the global lock while it holds an anchor-set lock.
//
// `pMap`, `pMapEnd`, `uActualFileSize`, `uRequestedFileSize`, `uMaxSize`, `fileName`, `spool`, `pSpoolMutex`, `pSetMutex`,
// `ppActivePg`, `nextPage` and the retired pages of an anchor that recorders can reach change only with the global lock
// *and* its anchor-set lock held, so that either of them is enough to read. `seqNumber`, `pNextFree`, `pWrap`, `bFull`,
// `pActivePg`, `damage`, `buffer` and the mapped headers need the anchor-set lock alone. A page of a set is unmapped, or
// freed, only with the queue lock held in addition, when none of its elements is queued any more.
//
// Spooling entries belong to the global lock; the destination of one in use changes under the queue lock as well, where
// the copy thread reads it. An entry outlives the next reconfiguration.
//
// Read without a lock, through observe(): `global_switch`, `global_debug_level`, `this_is_child`, `init_pid`, the choice
// of the anchor-set lock (`pSetMutex`), `uMaxSize` when texts are measured, `next` of the anchor list, entries of token and
// level arrays, `is_spool_running`; `pActivePg` under the global lock.
//
// Roles stand for the locks in clang's check: a missing lock, one kept on an early return or a wrong order fails the
// lint build. Where two roles are one mutex, it is locked once, by whoever takes the first role.
#ifndef KZ_TRACE_LOCKS_H
#define KZ_TRACE_LOCKS_H

#include <pthread.h>
#include <time.h>

#if defined(__clang__)
#define TR_TSA(attribute) __attribute__((attribute))
#else
#define TR_TSA(attribute)
#endif

struct trace_anchor_t;

struct TR_TSA(capability("lock")) lock_role_t {};
extern lock_role_t global_lock;
extern lock_role_t anchor_set_lock TR_TSA(acquired_after(global_lock));
extern lock_role_t queue_lock TR_TSA(acquired_after(anchor_set_lock));

#define TR_TRY_LOCK(role) TR_TSA(try_acquire_capability(0, role)) TR_TSA(locks_excluded(role)) // 0: locked
#define TR_LOCK(role) TR_TSA(acquire_capability(role)) TR_TSA(locks_excluded(role))
#define TR_UNLOCK(role) TR_TSA(release_capability(role))
#define TR_HOLDS(role) TR_TSA(requires_capability(role))
#define TR_EXCLUDES(role) TR_TSA(locks_excluded(role))
#define TR_UNCHECKED TR_TSA(no_thread_safety_analysis) // the function is the lock, or a clean-up handler

// Takes the global lock. In the child of a fork whoever held it may not exist any more: there it waits for one second
// at most. Returns 0 or the platform's error number. Not a cancellation point.
int lockGlobalMutex() TR_TRY_LOCK(global_lock);
// The same, but always waits for one second at most.
int lock_global_mutex_at_exit() TR_TRY_LOCK(global_lock);
int unlockGlobalMutex() TR_UNLOCK(global_lock);

// Clean-up handler of a cancelled holder of a mutex (pArg).
void mutex_cleanup(void *pArg) TR_UNCHECKED;

// Clean-up handler of a cancelled recorder (pArg is its anchor).
void cleanup_anchor_set(void *pArg) TR_UNCHECKED;

// Takes the anchor-set lock for a holder of the global lock, who may hold the mutex already. In the child of a fork
// nothing is locked: nobody records there.
void lock_anchor_set_under_global(trace_anchor_t *pAnchor) TR_HOLDS(global_lock) TR_LOCK(anchor_set_lock);
// The same, but gives up at a point of time of CLOCK_REALTIME. Returns 0 or the platform's error number.
int lock_anchor_set_until(trace_anchor_t *pAnchor, const struct timespec *pDeadline) TR_HOLDS(global_lock)
    TR_TRY_LOCK(anchor_set_lock);
void unlock_anchor_set_under_global(trace_anchor_t *pAnchor) TR_HOLDS(global_lock) TR_UNLOCK(anchor_set_lock);

// The same for a holder who changes which mutex recorders choose. Returns the one that is to be unlocked whatever the
// choice is by then, or null when there is none. Recorders that waited choose again.
pthread_mutex_t *lock_present_set(trace_anchor_t *pAnchor) TR_HOLDS(global_lock) TR_LOCK(anchor_set_lock);
void unlock_former_set(pthread_mutex_t *pMutex) TR_UNLOCK(anchor_set_lock);

// Keeps recorders of one file waiting over several steps that each take its anchor-set lock, while the file becomes a
// page set; hold_future_set() does so for the mutex that they will choose, when the file is held at all.
void hold_set(trace_anchor_t *pAnchor) TR_HOLDS(global_lock) TR_UNCHECKED;
void hold_future_set(const trace_anchor_t *pAnchor, pthread_mutex_t *pMutex) TR_HOLDS(global_lock) TR_UNCHECKED;
void release_held_set() TR_HOLDS(global_lock) TR_UNCHECKED;

// Takes a mutex that another thread holds, for a short time as a rule: tries again after short, growing pauses, then blocks.
// Returns 0 or the platform's error number.
int lock_with_pauses(pthread_mutex_t *pMutex) TR_UNCHECKED;

// Switches thread cancellation off around work that cannot be undone half-way, and back to what it was.
int cancel_disable();
void cancel_restore(int state);

#endif
