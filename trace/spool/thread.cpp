// The copy thread: one a process, which takes full pages and files off the queue and copies them, and between copies
// flushes the mapped files and looks after the configuration file.
//
//     look at the configuration ──▶ flush ──▶ copy the oldest element ──┐
//        ▲  ▲          ▲                                                │
//        │  └─ 1 s ────│── it can't be copied yet ◀─────────────────────┤
//        │             └── more is queued ◀─────────────────────────────┤
//        └── sleep until there is something to do ◀── nothing queued ◀──┘
//
// It takes no other lock while it holds the queue lock. It holds that lock while it copies a page, which keeps the page
// where it is and its set's recorders waiting; a file's element is nobody else's once it is off the queue, so files are
// copied without it. Cancellation is off in it for good.
#include <pthread.h>
#include <signal.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>

#include "trace/engine/engine.h"
#include "trace/frame/frame.h"
#include "trace/publish.h"
#include "trace/spool/copy.h"
#include "trace/spool/spool.h"

constexpr uint32_t TR_DEFAULT_SLEEP_S = 3600;
constexpr uint32_t TR_STUCK_SLEEP_S = 1; // before the next look at an element that can't be copied yet
constexpr long TR_NS_PER_MS = 1'000'000;
constexpr long TR_NS_PER_S = 1'000'000'000;
constexpr long TR_END_LOOK_MS = 20;
constexpr int TR_END_LOOKS = 100; // 2 s together
constexpr long TR_CONFIGURE_LIMIT_MS = 50;

int32_t is_spool_running = 0;

static pthread_once_t sp_thread_once = PTHREAD_ONCE_INIT;

// The configuration is to be looked at before the thread sleeps. Set by whoever asks, cleared by the thread before it
// looks; read without a lock.
static constinit bool bConfigurationAsked = false;

// The point of time of CLOCK_REALTIME, in which conditions and mutexes count, that is so far from now.
static timespec time_from_now(uint32_t seconds, long ns) {
    timespec moment;
    clock_gettime(CLOCK_REALTIME, &moment);
    moment.tv_nsec += ns;
    moment.tv_sec += static_cast<time_t>(seconds) + moment.tv_nsec / TR_NS_PER_S;
    moment.tv_nsec %= TR_NS_PER_S;
    return moment;
}

// ---- Copying what is queued ----

// Copies the page, which is TR_READY afterwards whether that went well or not.
static void spool_page(const sp_q_element_t *pElem) TR_HOLDS(queue_lock) {
    const trace_anchor_t *const pPage = pElem->pAnchor;
    (void)do_spool(pElem); // not tried again
    publish(&header_of(pPage->pMap)->sp_flags, uint8_t{TR_READY});
    debug_line("%s removed from queue (trace file)\n", pPage->fileName);
}

static void spool_file(sp_q_t *pQueue, const sp_q_element_t *pElem) TR_HOLDS(queue_lock) {
    unlock_queue(pQueue);
    if (do_spool(pElem) == 0 && pElem->del == 1)
        (void)unlink(pElem->fileName); // may be gone already
    debug_line("%s removed from queue (other file)\n", pElem->fileName);
    lock_queue(pQueue);
}

// Takes the oldest element off the queue and copies it. The lock is released while a file is copied.
static void spool_dequeue_last_and_spool_inside_spq(sp_q_t *pQueue) TR_HOLDS(queue_lock) {
    sp_q_element_t *const pElem = spool_dequeue_last_element_inside_spq(pQueue);
    if (pElem == nullptr)
        return;
    if (pElem->pAnchor != nullptr)
        spool_page(pElem);
    else
        spool_file(pQueue, pElem);
    free(pElem);
}

// Copies the oldest element, or drops it when there is nothing to copy. Returns false when it has to stay: its page is in
// a state in which the thread has no business with it.
static bool handle_oldest(sp_q_t *pQueue) TR_HOLDS(queue_lock) {
    const trace_anchor_t *const pPage = pQueue->pLast->pAnchor;
    if (pPage != nullptr) {
        const uint8_t state = page_state(pPage);
        debug_line("cp_thread checking flags: %d\n", state);
        if (state == TR_READY || pPage->pMap == nullptr) {
            free(spool_dequeue_last_element_inside_spq(pQueue));
            return true;
        }
        if (state != TR_FULL)
            return false;
        publish(&header_of(pPage->pMap)->sp_flags, uint8_t{TR_COPYING});
    }
    spool_dequeue_last_and_spool_inside_spq(pQueue);
    return true;
}

// ---- The loop ----

static void look_after_configuration() TR_EXCLUDES(queue_lock) {
    publish(&bConfigurationAsked, false); // first: what is asked for from here on is looked at once more
    configure_if_necessary();
}

// Seconds between two flushes when nothing else happens.
static uint32_t sync_interval() TR_EXCLUDES(queue_lock) {
    uint32_t interval = TR_DEFAULT_SLEEP_S;
    if (lockGlobalMutex() != 0)
        return interval;
    if (anchors.spool != nullptr)
        interval = std::max(anchors.spool->sync_interval, uint32_t{1});
    (void)unlockGlobalMutex();
    return interval;
}

// Released while waiting.
static void wait_for_signal(sp_q_t *pQueue, uint32_t seconds) TR_HOLDS(queue_lock) {
    const timespec end = time_from_now(seconds, 0);
    (void)pthread_cond_timedwait(&pQueue->cond, &pQueue->mutex, &end);
}

// Sleeps until something is queued or asked for. What came since the look at the queue keeps it awake.
static void sleep_while_empty(sp_q_t *pQueue) TR_HOLDS(queue_lock) {
    unlock_queue(pQueue);
    look_after_configuration();
    const uint32_t interval = sync_interval();
    lock_queue(pQueue);
    if (pQueue->pLast != nullptr || observe(&bConfigurationAsked) || is_switched_off())
        return;
    debug_line("Spool thread about to sleep (max=%d)\n", static_cast<int>(interval));
    wait_for_signal(pQueue, interval);
}

// One element at most. Released and taken again meanwhile.
static void make_pass(sp_q_t *pQueue) TR_HOLDS(queue_lock) {
    if (pQueue->pLast == nullptr)
        sleep_while_empty(pQueue);
    unlock_queue(pQueue);
    look_after_configuration();
    flush_started_files();
    lock_queue(pQueue);
    if (pQueue->pLast != nullptr && !is_switched_off() && !handle_oldest(pQueue) && !is_switched_off())
        wait_for_signal(pQueue, TR_STUCK_SLEEP_S);
}

static void block_signals() {
    sigset_t blocked;
    sigemptyset(&blocked);
    for (const int signal : {SIGALRM, SIGTERM, SIGCHLD})
        sigaddset(&blocked, signal);
    (void)pthread_sigmask(SIG_SETMASK, &blocked, nullptr);
}

static void *cp_thread(void *) {
    publish(&is_spool_running, 1);
    (void)cancel_disable();
    block_signals();
    debug_line("Start cp_thread...\n");
    lock_queue(&spq);
    debug_line("cp_thread locked mutex; cnt: %d\n", spq.cnt);
    while (!is_switched_off())
        make_pass(&spq);
    unlock_queue(&spq);
    publish(&is_spool_running, 0); // last: from here the process may end, or take away what the thread used
    return nullptr;
}

// ---- For the other threads ----

// Signals are blocked until the thread has its own mask: it runs no handler of the program.
static void mk_sp_thread() {
    sigset_t all, before;
    sigfillset(&all);
    (void)pthread_sigmask(SIG_SETMASK, &all, &before);
    pthread_t thread;
    const int error = pthread_create(&thread, nullptr, cp_thread, nullptr);
    (void)pthread_sigmask(SIG_SETMASK, &before, nullptr);
    if (error != 0) {
        debug_line("ERROR: cannot create spooling thread.\n");
        return;
    }
    debug_line("Spooling thread created: (%u)\n", static_cast<uint32_t>(thread));
    (void)pthread_detach(thread); // nobody joins it
}

void start_copy_thread_once() {
    const int cancelState = cancel_disable();
    (void)pthread_once(&sp_thread_once, mk_sp_thread);
    cancel_restore(cancelState);
}

// The thread looks whether it is asked before it sleeps, with the lock held from there on. Once the lock could be had, it
// has seen the word, or it sleeps and hears the signal. When it cannot be had for so long, a page is being copied, and the
// thread looks at the configuration after that.
void ask_for_configuration() {
    publish(&bConfigurationAsked, true);
    const timespec limit = time_from_now(0, TR_CONFIGURE_LIMIT_MS * TR_NS_PER_MS);
    if (lock_queue_until(&spq, &limit) == 0)
        unlock_queue(&spq);
    (void)pthread_cond_signal(&spq.cond);
}

// The lock is not waited for: a copy may hang. So a signal may come just before the thread sleeps, and is repeated.
void wait_for_copy_thread() {
    constexpr timespec PAUSE = {.tv_sec = 0, .tv_nsec = TR_END_LOOK_MS * TR_NS_PER_MS};
    for (int i = 0; i < TR_END_LOOKS; i++) {
        (void)pthread_cond_signal(&spq.cond);
        if (observe(&is_spool_running) == 0)
            return;
        (void)nanosleep(&PAUSE, nullptr);
    }
}
