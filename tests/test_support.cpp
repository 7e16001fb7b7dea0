// What the other tests lean on: a fault in a child must not pass for success.
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>

#include <gtest/gtest-spi.h>
#include <gtest/gtest.h>

#include "tests/support/child.h"

static void fail_quietly() {
    ADD_FAILURE() << "meant to fail, inside a child";
}

TEST(Child, EndsAsItsBodyDoes) {
    struct {
        void (*pBody)();
        int exitCode, signal;
    } const rows[] = {{[] {}, 0, 0},
                      {fail_quietly, 1, 0},
                      {[] { exit(7); }, 7, 0},
                      {[] { fail_quietly(), exit(0); }, 1, 0},
                      {[] { (void)raise(SIGUSR1); }, -1, SIGUSR1}};
    for (const auto &[pBody, exitCode, signal] : rows) {
        const child_result_t result = run_in_child(pBody);
        EXPECT_TRUE(result.exitCode == exitCode && result.signal == signal) << exitCode << " " << signal;
    }
    EXPECT_EQ(run_in_child([] { (void)fprintf(stderr, "one\n"), (void)fprintf(stderr, "two\n"); }).err, "one\ntwo\n");
}

TEST(Child, IsKilledAtTheDeadlineAndTheTestFails) {
    child_result_t result;
    EXPECT_NONFATAL_FAILURE(result = run_in_child([] { pause(); }, std::chrono::milliseconds(100)), "did not end");
    EXPECT_EQ(result.signal, SIGALRM);
}
