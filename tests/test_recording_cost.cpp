// What recording must not cost: memory, system calls, stack. The sanitizers do all that by themselves: nothing of it can
// be measured under them.
#include "tests/support/recording_calls.h"
#include "tests/support/tracing.h"

#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <sys/prctl.h>
#include <sys/syscall.h>

#include <climits>
#include <fstream>

static uint64_t numAllocations = 0;

// NOLINTBEGIN(readability-inconsistent-declaration-parameter-name): the C library's names are not for programs
extern "C" {
void *__libc_malloc(size_t size);
void *__libc_calloc(size_t num, size_t size);
void *__libc_realloc(void *p, size_t size);
void __libc_free(void *p);

void *malloc(size_t size) {
    numAllocations++;
    return __libc_malloc(size);
}
void *calloc(size_t num, size_t size) {
    numAllocations++;
    return __libc_calloc(num, size);
}
void *realloc(void *p, size_t size) {
    numAllocations++;
    return __libc_realloc(p, size);
}
void free(void *p) {
    numAllocations++;
    __libc_free(p);
}
}
// NOLINTEND(readability-inconsistent-declaration-parameter-name)

// 10,000 records of each kind. Returns what the calls returned.
static int32_t record_many(cu_error_t *pError) {
    int32_t rcs = 0;
    for (uint32_t n = 0; n < 80000; n++)
        rcs |= record_nth("COMP", n, nullptr);
    for (uint32_t n = 0; n < 10000; n++)
        rcs |= tr_record_error_1("COMP", n, "function", 1, "file", &pError);
    return rcs;
}

// From here on the process dies of any system call but its end.
static void forbid_system_calls() {
    sock_filter program[] = {BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
                             BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, SYS_exit_group, 0, 1),
                             BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
                             BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_KILL_PROCESS)};
    const sock_fprog filter = {.len = std::size(program), .filter = program};
    if (prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) != 0 || prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &filter) != 0)
        _exit(2);
}

class RecordingCost : public Tracing {
  protected:
    // Starts the file. Returns an error object with something in it.
    cu_error_t *start_and_fail() {
        cu_error_t *pError = nullptr;
        EXPECT_EQ(start(path), 0);
        EXPECT_EQ(tr_unregister_component_1("NONE"), 26);
        EXPECT_EQ(cu_get_error_1(&pError), 0);
        return pError;
    }
};

TEST_F(RecordingCost, IsNoAllocationAndNoSystemCall) {
    in_child([this] {
        cu_error_t *const pError = start_and_fail();
        const uint64_t numBefore = numAllocations;
        forbid_system_calls();
        const int32_t rcs = record_many(pError);
        _exit(rcs == 0 && numAllocations == numBefore && numBefore > 0 ? 0 : 1);
    });
}

// Also when a damaged file has to be put aside.
TEST_F(RecordingCost, IsNoMoreThanTheSmallestStack) {
    in_child([this] {
        cu_error_t *const pError = start_and_fail();
        view_t file(path);
        file.put(file.get(offsetof(trace_file_header_t, uOldestRecordOffset)), 0); // no length
        pthread_attr_t attributes;
        pthread_t thread;
        void *pResult = nullptr;
        pthread_attr_init(&attributes);
        ASSERT_EQ(pthread_attr_setstacksize(&attributes, static_cast<size_t>(PTHREAD_STACK_MIN)), 0);
        const auto record = [](void *p) { return record_many(static_cast<cu_error_t *>(p)) == 0 ? p : nullptr; };
        ASSERT_EQ(pthread_create(&thread, &attributes, record, pError), 0);
        ASSERT_EQ(pthread_join(thread, &pResult), 0);
        EXPECT_EQ(pResult, pError);
        EXPECT_EQ(access((path + TR_SAVE_SUFFIX).c_str(), F_OK), 0);
    });
}

// Private dirty memory of the process.
static long num_dirty_kib() {
    std::ifstream in("/proc/self/smaps_rollup");
    std::string word;
    while (in >> word && word != "Private_Dirty:") {
    }
    long kib = -1;
    in >> kib;
    return kib;
}

TEST_F(RecordingCost, IsLittleMemoryForAFile) {
    in_child([this] {
        (void)num_dirty_kib(); // its own needs
        const long before = num_dirty_kib();
        EXPECT_EQ(record_many(start_and_fail()), 0);
        EXPECT_GT(before, 0);
        EXPECT_LE(num_dirty_kib() - before, 200);
    });
}
#endif
