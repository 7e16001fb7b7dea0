#include "tests/support/child.h"

#include <poll.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iostream>
#include <iterator>

#include <gtest/gtest.h>

// Defined when the address sanitizer is linked: nonzero when memory was lost, after it has said so on standard error.
extern "C" __attribute__((weak)) int __lsan_do_recoverable_leak_check();

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
static constexpr int DEADLINE_FACTOR = 4;
#else
static constexpr int DEADLINE_FACTOR = 1;
#endif

static constexpr int EXIT_SKIPPED = 77;

// In the child: expectations that had failed before the fork do not count against it.
static int numFailedBefore;

static int num_failed_expectations() {
    const auto *pResult = testing::UnitTest::GetInstance()->current_test_info()->result();
    int numFailed = 0;
    for (int i = 0; i < pResult->total_part_count(); i++)
        numFailed += pResult->GetTestPartResult(i).failed() ? 1 : 0;
    return numFailed;
}

[[noreturn]] static void end_child(int exitCode) {
    std::cout.flush();
    (void)fflush(nullptr);
    _exit(exitCode);
}

// Exit handler of the child. The first one registered in it, so the last of its own that runs: whatever the body left
// to be done at exit has happened.
static void check_expectations_at_exit() {
    if (num_failed_expectations() > numFailedBefore)
        end_child(1);
}

[[noreturn]] static void run_as_child(const std::function<void()> &body, int errFd) {
    (void)prctl(PR_SET_PDEATHSIG, SIGKILL); // a test program that CTest kills takes its children along
    (void)setpgid(0, 0);
    if (dup2(errFd, STDERR_FILENO) < 0 || close(errFd) != 0)
        _exit(126);
    numFailedBefore = num_failed_expectations();
    if (atexit(check_expectations_at_exit) != 0)
        _exit(126);
    body();
    const bool bLeaked = __lsan_do_recoverable_leak_check != nullptr && __lsan_do_recoverable_leak_check() != 0;
    end_child(bLeaked || num_failed_expectations() > numFailedBefore ? 1 : 0);
}

// Waits until the child has ended; false when the deadline came first. A kernel that can't wait so has no deadline.
static bool wait_for_end(pid_t pid, std::chrono::milliseconds deadline) {
    using clock = std::chrono::steady_clock;
    const auto end = clock::now() + deadline;
    const int pidFd = static_cast<int>(syscall(SYS_pidfd_open, pid, 0)); // the C library's header is not for C++ yet
    if (pidFd < 0)
        return true;
    pollfd ended = {.fd = pidFd, .events = POLLIN, .revents = 0};
    int numReady = 0;
    do {
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(end - clock::now());
        numReady = poll(&ended, 1, left.count() > 0 ? static_cast<int>(left.count()) : 0);
    } while (numReady < 0 && errno == EINTR);
    (void)close(pidFd);
    return numReady > 0;
}

static void mark_skipped(const std::string &why) {
    GTEST_SKIP() << why;
}

child_result_t run_in_child(const std::function<void()> &body, std::chrono::milliseconds deadline) {
    child_result_t result;
    // A file instead of a pipe: it never fills, and nobody has to read it while the child runs.
    const int errFd = memfd_create("stderr of child", MFD_CLOEXEC);
    std::cout.flush();
    (void)fflush(nullptr); // or the child would write it once more
    const pid_t pid = errFd < 0 ? -1 : fork();
    if (pid == 0)
        run_as_child(body, errFd);
    if (pid < 0) {
        ADD_FAILURE() << "no child process";
        return result;
    }
    result.timedOut = !wait_for_end(pid, deadline * DEADLINE_FACTOR);
    if (result.timedOut && kill(-pid, SIGKILL) != 0) // with all that it started
        (void)kill(pid, SIGKILL);                    // not yet the leader of its group
    int status = 0;
    while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    std::ifstream err("/proc/self/fd/" + std::to_string(errFd));
    result.err.assign(std::istreambuf_iterator(err), {});
    (void)close(errFd);
    if (WIFEXITED(status))
        result.exitCode = WEXITSTATUS(status);
    else
        result.signal = WTERMSIG(status);
    if (result.exitCode == EXIT_SKIPPED) {
        result.skipped = true;
        result.exitCode = 0;
        mark_skipped(result.err);
    }
    if (result.exitCode != 0 && !result.err.empty())
        std::cout << "standard error of the child:\n" << result.err << std::flush;
    if (result.timedOut)
        ADD_FAILURE() << "the child did not end within " << (deadline * DEADLINE_FACTOR).count() << " ms";
    return result;
}

void skip_from_child(const std::string &why) {
    (void)fprintf(stderr, "%s\n", why.c_str());
    end_child(EXIT_SKIPPED);
}
