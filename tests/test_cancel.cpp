// Threads cancelled inside the library: it keeps no lock, no descriptor and no half of a registration.
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/syscall.h>

#include <cstdarg>

#include "tests/support/recording_calls.h"
#include "tests/support/tracing.h"
#include "trace/engine/ring.h"

// ---- The calls at which a thread can be cancelled: this program's own ----

static thread_local int pointsLeft = 0; // until the thread is cancelled; 0: it is not

static void pass_point() {
    if (pointsLeft > 0 && --pointsLeft == 0)
        pthread_cancel(pthread_self());
}

// Cancelled before, the call is not made; cancelled after, it takes effect, and the thread ends at its next one.
template <typename... Args> static long pass_call(long number, Args... args) {
    pass_point();
    pthread_testcancel();
    const long result = syscall(number, args...);
    pass_point();
    return result;
}

// NOLINTBEGIN(readability-inconsistent-declaration-parameter-name): the C library's names are not for programs
extern "C" {
int open(const char *path, int flags, ...) {
    return static_cast<int>(pass_call(SYS_openat, AT_FDCWD, path, flags, 0600));
}
int close(int fd) {
    return static_cast<int>(pass_call(SYS_close, fd));
}
ssize_t write(int fd, const void *buffer, size_t size) {
    return pass_call(SYS_write, fd, buffer, size);
}
int fsync(int fd) {
    return static_cast<int>(pass_call(SYS_fsync, fd));
}
int msync(void *start, size_t size, int flags) {
    return static_cast<int>(pass_call(SYS_msync, start, size, flags));
}
void vsyslog(int, const char *, va_list) {
    (void)pass_call(SYS_getpid);
}
// Only the waits for a reader sleep: time passes, and the reader lets go.
int nanosleep(const timespec *, timespec *) {
    (void)pass_call(SYS_getpid);
    header_of(anchors.pMap)->uSeqLock = TR_SEQ_LOCK_NONE;
    header_of(anchors.pMap)->uTailReq = 0;
    return 0;
}
}
// NOLINTEND(readability-inconsistent-declaration-parameter-name)

// ---- A thread that calls everything ----

struct caller_t {
    int pointsLeft;           // when it begins, and when it has come to its end
    bool bRegistered = false; // registration has come back
    tr_detail_level_t level = 0;
    tr_file_token_t *pTokens = nullptr;
};

static void *call_everything(void *pArg) {
    static constexpr tr_category_description_t CATEGORY = {0, "all", 1, 1};
    auto *pCaller = static_cast<caller_t *>(pArg);
    pointsLeft = pCaller->pointsLeft;
    if (tr_ms_register_component_1("COMP", &pCaller->level, &CATEGORY, 1, &pCaller->pTokens) != 0)
        return nullptr;
    pCaller->bRegistered = true;
    header_of(anchors.pMap)->uSeqLock = TR_SEQ_FREE; // a reader holds the free record
    tr_record_id_1("COMP", 1);
    header_of(anchors.pMap)->uTailReq = UINT32_MAX / 2; // one asks for more than the file accepts
    tr_record_id_1("COMP", 2);
    publish_length(anchors.pNextFree, UINT32_MAX); // harm that is told to the system log
    for (uint32_t n = 0; n < 8; n++)
        record_nth("COMP", n, pCaller->pTokens[0]);
    tr_flush_1();
    tr_set_trace_levels_1("COMP:all=3");
    tr_set_size_1(8192);
    tr_set_size_1(4096);
    tr_set_filename_1(nullptr);
    tr_unregister_component_1("COMP");
    pCaller->pointsLeft = pointsLeft;
    return nullptr;
}

class Cancel : public Tracing {
  protected:
    void expect_nothing_left(const caller_t &caller) {
        for (pthread_mutex_t *pMutex : {&anchors.anchorMutex, &pSecond->anchorMutex, &anchorListMutex}) {
            ASSERT_EQ(pthread_mutex_trylock(pMutex), 0);
            pthread_mutex_unlock(pMutex);
        }
        const bool bListed = anchors.pFirstComp != nullptr;
        EXPECT_TRUE(caller.bRegistered || (!bListed && caller.pTokens == nullptr));
        EXPECT_EQ(tr_unregister_component_1("COMP"), bListed ? 0 : 26);
        EXPECT_EQ(caller.level, 0);
        EXPECT_EQ(num_descriptors(), numDescriptors);
    }

    trace_anchor_t *pSecond = nullptr;
    ptrdiff_t numDescriptors = 0;
};

TEST_F(Cancel, LeavesNothingBehindAtAnyPoint) {
    in_child([this] {
        setenv("KZ_TR_DEBUG_LEVEL", "8", 1);
        pSecond = token_of(dir.file("second"));
        EXPECT_EQ(start(path, "4096"), 0);
        EXPECT_EQ(tr_unregister_component_1("ABCD"), 0);
        numDescriptors = num_descriptors();
        int numCancelled = 0;
        bool bPast = false; // it came to its end before its point
        for (int point = 1; !bPast && !HasFailure(); point++) {
            unlink(path.c_str()); // the start extends it
            caller_t caller = {.pointsLeft = point};
            void *pResult = nullptr;
            pthread_t thread;
            EXPECT_EQ(pthread_create(&thread, nullptr, call_everything, &caller), 0);
            EXPECT_EQ(pthread_join(thread, &pResult), 0);
            expect_nothing_left(caller);
            numCancelled += pResult == PTHREAD_CANCELED ? 1 : 0;
            bPast = caller.pointsLeft > 0 && caller.pointsLeft < point;
        }
        EXPECT_GT(numCancelled, 50);
    });
}
