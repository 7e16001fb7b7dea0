#include "tests/support/child.h"

#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/time.h>
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

[[noreturn]] static void run_as_child(const std::function<void()> &body, int errFd,
                                      std::chrono::microseconds deadline) {
    const itimerval timer = {{}, {deadline.count() / 1'000'000, deadline.count() % 1'000'000}};
    (void)setitimer(ITIMER_REAL, &timer, nullptr); // the signal ends the child
    (void)prctl(PR_SET_PDEATHSIG, SIGKILL);        // a test program that CTest kills takes its children along
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

child_result_t run_in_child(const std::function<void()> &body, std::chrono::milliseconds deadline) {
    child_result_t result;
    // A file instead of a pipe: it never fills, and nobody has to read it while the child runs.
    const int errFd = memfd_create("stderr of child", MFD_CLOEXEC);
    std::cout.flush();
    (void)fflush(nullptr); // or the child would write it once more
    const pid_t pid = errFd < 0 ? -1 : fork();
    if (pid == 0)
        run_as_child(body, errFd, deadline * DEADLINE_FACTOR);
    if (pid < 0) {
        ADD_FAILURE() << "no child process";
        return result;
    }
    int status = 0;
    (void)waitpid(pid, &status, 0);
    std::ifstream err("/proc/self/fd/" + std::to_string(errFd));
    result.err.assign(std::istreambuf_iterator(err), {});
    (void)close(errFd);
    if (WIFEXITED(status))
        result.exitCode = WEXITSTATUS(status);
    else
        result.signal = WTERMSIG(status);
    if (result.exitCode == EXIT_SKIPPED) {
        result.exitCode = 0;
        [&] { GTEST_SKIP() << result.err; }();
    }
    if (result.exitCode != 0 && !result.err.empty())
        std::cout << "standard error of the child:\n" << result.err << std::flush;
    if (result.signal == SIGALRM) {
        (void)kill(-pid, SIGKILL); // what it started
        ADD_FAILURE() << "the child did not end within " << (deadline * DEADLINE_FACTOR).count() << " ms";
    }
    return result;
}

void skip_from_child(const std::string &why) {
    (void)fprintf(stderr, "%s\n", why.c_str());
    end_child(EXIT_SKIPPED);
}
