// What the other tests lean on: a fault in a child must not pass for success.
#include <syslog.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>

#include <gtest/gtest-spi.h>
#include <gtest/gtest.h>

#include "tests/support/child.h"
#include "tests/support/sandbox.h"
#include "tests/support/tempdir.h"

namespace fs = std::filesystem;

static void fail_quietly() {
    ADD_FAILURE() << "meant to fail, inside a child";
}

TEST(Child, EndsAsItsBodyDoes) {
    struct row_t {
        const char *pName;
        void (*pBody)();
        int exitCode, signal;
    };
    static constexpr row_t rows[] = {
        {"comes back", [] {}, 0, 0},
        {"fails", fail_quietly, 1, 0},
        {"exits", [] { exit(7); }, 7, 0},
        {"fails and exits", [] { fail_quietly(), exit(0); }, 1, 0},
        {"is killed", [] { (void)raise(SIGUSR1); }, -1, SIGUSR1},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.pName);
        const child_result_t result = run_in_child(row.pBody);
        EXPECT_EQ(result.exitCode, row.exitCode);
        EXPECT_EQ(result.signal, row.signal);
        EXPECT_FALSE(result.timedOut);
    }
    EXPECT_EQ(run_in_child([] { (void)fprintf(stderr, "one\n"), (void)fprintf(stderr, "two\n"); }).err, "one\ntwo\n");
}

TEST(Child, IsKilledAtTheDeadlineAndTheTestFails) {
    child_result_t result;
    EXPECT_NONFATAL_FAILURE(result = run_in_child([] { pause(); }, std::chrono::milliseconds(100)), "did not end");
    EXPECT_TRUE(result.timedOut);
    EXPECT_EQ(result.signal, SIGKILL);
}

TEST(TempDir, GoesWithItsContents) {
    std::string path;
    {
        const tempdir_t dir;
        path = dir.path();
        fs::create_directories(dir.file("a/b"));
        std::ofstream(dir.file("a/b/file")) << "text";
        EXPECT_EQ(run_in_child([&] { EXPECT_TRUE(fs::exists(dir.file("a/b/file"))); }).exitCode, 0);
        EXPECT_TRUE(fs::exists(path));
    }
    EXPECT_FALSE(fs::exists(path));
}

TEST(PrivateMachine, HasAnEmptyFolderAndALogOfItsOwn) {
    const bool bFolderBefore = fs::exists("/var/kz");
    const bool bLogBefore = fs::exists("/dev/log");
    const tempdir_t outside;
    const child_result_t result = run_in_child([&] {
        enter_private_machine();
        EXPECT_TRUE(fs::is_empty("/var/kz"));
        std::ofstream("/var/kz/file") << "text";
        EXPECT_EQ(fs::file_size("/var/kz/file"), 4U);
        EXPECT_TRUE(fs::exists("/var/lib"));
        EXPECT_TRUE(fs::exists(outside.path())); // the file system in memory is still the one that all share
        std::ofstream("/dev/null") << "text";

        fs::create_directory("/var/kz/small");
        mount_memory("/var/kz/small", 64U << 10);
        EXPECT_EQ(fs::space("/var/kz/small").capacity, 64U << 10);

        syslog_capture_t log;
        openlog("ident", LOG_PID, LOG_USER);
        for (int i = 0; i < 100; i++) // more than a socket holds
            syslog(LOG_WARNING, "message: %d", i);
        const auto lines = log.lines();
        ASSERT_EQ(lines.size(), 100U);
        EXPECT_EQ(lines[99].priority, LOG_USER | LOG_WARNING);
        EXPECT_EQ(lines[99].ident, "ident[" + std::to_string(getpid()) + "]");
        EXPECT_EQ(lines[99].text, "message: 99");
    });
    EXPECT_EQ(result.exitCode, 0);
    EXPECT_EQ(fs::exists("/var/kz"), bFolderBefore);
    EXPECT_EQ(fs::exists("/dev/log"), bLogBefore);
}
