// The copy thread: what is copied, under which names, and what a copy that fails or comes at the wrong moment does to the
// rest.
#include <sys/resource.h>
#include <sys/stat.h>

#include <atomic>
#include <chrono>
#include <fstream>
#include <thread>
#include <vector>

#include <gmock/gmock.h>

#include "tests/support/sandbox.h"
#include "tests/support/tracing.h"
#include "trace/publish.h"
#include "trace/spool/copy.h"
#include "trace/spool/spool.h"

namespace fs = std::filesystem;
using std::chrono::milliseconds;
using testing::UnorderedElementsAre;

// ---- This program's own calls, which the library's go through ----

static std::atomic<int> numLooks = 0;            // at the configuration file
static std::atomic<void (*)()> onLook = nullptr; // done in the next of them
static std::atomic<bool> bGoOn = false;          // ends such a look
static std::atomic<long> fixedTime = -1;         // of the clock, in microseconds

// NOLINTBEGIN(readability-inconsistent-declaration-parameter-name): the C library's names are not for programs
extern "C" {
int stat(const char *path, struct stat *pStatus) {
    if (strcmp(path, "/var/kz/cfg/trace.conf") == 0) {
        numLooks++;
        if (void (*const hook)() = onLook.exchange(nullptr))
            hook();
    }
    return fstatat(AT_FDCWD, path, pStatus, 0);
}
void cu_get_current_time_1(timespec *now) {
    clock_gettime(CLOCK_REALTIME, now);
    if (fixedTime >= 0)
        *now = {.tv_sec = fixedTime / 1'000'000, .tv_nsec = fixedTime % 1'000'000 * 1000 + 999};
}
}
// NOLINTEND(readability-inconsistent-declaration-parameter-name)

// ---- Pages and files ----

// A full page as the engine hands it over, filled with one character, and its set's entry.
struct page_t {
    page_t(const char *pName, const std::string &dest) {
        strcpy(anchor.fileName, pName);
        strcpy(entry.dest, dest.c_str());
        anchor.spool = &entry;
        anchor.p_head_spool_anchor = &anchor;
        memset(bytes, *pName, sizeof bytes);
        anchor.pMap = bytes;
        anchor.uActualFileSize = sizeof bytes;
        header_of(bytes)->sp_flags = TR_FULL;
    }
    std::string copy() {
        const sp_q_element_t element = {nullptr, nullptr, &anchor, "", nullptr, 0};
        return do_spool(&element) == 0 ? "0" : last_error();
    }

    trace_anchor_t anchor = {};
    trace_spool_spec_t entry = {};
    alignas(4096) uint8_t bytes[4096];
};

class Spool : public Tracing {
  protected:
    std::string make_file(const char *pName, size_t size = 1) const {
        std::ofstream(dir.file(pName)) << std::string(size, 'x');
        return dir.file(pName);
    }
    static std::vector<std::string> names_in(const std::string &directory) {
        std::vector<std::string> names;
        for (const auto &entry : fs::directory_iterator(directory))
            names.push_back(entry.path().filename());
        return names;
    }
};

template <typename condition_t> static bool eventually(const condition_t &condition) {
    for (int i = 0; i < 10'000 && !condition(); i++)
        std::this_thread::sleep_for(milliseconds(1));
    return condition();
}

// ---- Copies ----

TEST_F(Spool, CopiesAreNamedByLocalTime) {
    in_child([this] {
        static constexpr std::pair<long, const char *> rows[] = {
            // no name is ever taken for a format
            {1'794'862'623'000'042, "%s.2026_11_16_21_57_03.42"},
            {1'735'516'800'000'007, "%s.2025_12_30_01_00_00. 7"},
            {1'798'758'000'999'999, "%s.2026_01_01_00_00_00.999999"}};
        (void)setenv("TZ", "ZON-1", 1); // one hour east of Greenwich
        const std::string copies = dir.file("copies"), source = make_file("%s", 600'000);
        fs::create_directory(copies);
        for (const auto &[time, pName] : rows) {
            fixedTime = time;
            const fs::path copy = copies + "/" + pName;
            EXPECT_EQ(tr_copy_file_1(copies.c_str(), source.c_str(), 0), 0);
            ASSERT_TRUE(eventually([&] { return fs::exists(copy) && fs::file_size(copy) == 600'000; })) << copy;
            EXPECT_EQ(fs::status(copy).permissions(), fs::perms(0600));
            ASSERT_TRUE(fs::remove(copy));
            page_t page("%s", copies);
            EXPECT_EQ(page.copy(), "0");
            EXPECT_EQ(memcmp(view_t(copy).pBytes, page.bytes, sizeof page.bytes), 0);
            ASSERT_TRUE(fs::remove(copy));
        }
        tr_term(); // the thread has read `copies`
    });
}

TEST_F(Spool, ACopyThatFailsLeavesNoFile) {
    in_child([this] {
        enter_private_machine();
        mount_memory(dir.path(), 64 << 10);
        const std::string source = make_file("source"), link = dir.file("link"), fifo = dir.file("fifo"),
                          good = dir.file("good"), none = dir.file("none") + "/such";
        EXPECT_EQ(symlink(good.c_str(), link.c_str()) | mkfifo(fifo.c_str(), 0600), 0);
        const auto copy = [](const std::string &to, const char *pFrom, size_t size = 0) {
            static constexpr char bytes[128 << 10] = "";
            return cp_mapped_file(to.c_str(), pFrom, bytes, size) == 0 ? "0" : last_error();
        };
        EXPECT_EQ(copy(none, nullptr), "18 18 2");
        EXPECT_EQ(copy(link, nullptr), "18 18 40");
        EXPECT_EQ(copy(fifo, nullptr), "20 20 " + fifo);
        EXPECT_EQ(copy(good, none.c_str()), "18 18 2");
        EXPECT_EQ(copy(good, fifo.c_str()), "20 20 " + fifo);
        EXPECT_EQ(copy(good, nullptr, 128 << 10), "49 40 28"); // the disk is full
        const rlimit limit = {8192, 8192};
        EXPECT_EQ(setrlimit(RLIMIT_FSIZE, &limit), 0);
        EXPECT_EQ(copy(good, nullptr, 16384), "49 40 27"); // and the process lives
        EXPECT_THAT(names_in(dir.path()), UnorderedElementsAre("link", "fifo", "source"));
        EXPECT_EQ(copy(good, source.c_str()), "0");
    });
}

TEST_F(Spool, AFileIsRemovedOnlyWhenThatIsWantedAndItIsCopied) {
    in_child([this] {
        const std::string copies = dir.file("copies"), none = dir.file("none");
        fs::create_directory(copies);
        const auto copy = [&](const char *pDest, const char *pName, int32_t del) {
            EXPECT_EQ(tr_copy_file_1(pDest, make_file(pName).c_str(), del), 0);
        };
        copy(copies.c_str(), "removed", 1);
        copy(copies.c_str(), "kept 0", 0);
        copy(copies.c_str(), "kept 2", 2);
        copy(none.c_str(), "not copied", 1);
        copy("/dev/null", "last", 1);
        ASSERT_TRUE(eventually([this] { return !fs::exists(dir.file("last")); }));
        EXPECT_THAT(names_in(dir.path()), UnorderedElementsAre("copies", "kept 0", "kept 2", "not copied"));
        EXPECT_EQ(names_in(copies).size(), 3U);
        const std::string tooLong(4096, 'x');
        EXPECT_EQ(tr_copy_file_1("/dev/null", tooLong.c_str(), 0), 1);
        EXPECT_EQ(last_error(), "17 17 " + tooLong);
        tr_term(); // the thread has read `copies` and `none`
    });
}

// ---- The thread ----

static std::string lateFile;

TEST_F(Spool, NothingThatComesJustBeforeTheThreadSleepsOrEndsIsLost) {
    in_child([this] {
        lateFile = make_file("file");
        onLook = [] { (void)tr_copy_file_1("/dev/null", lateFile.c_str(), 1); };
        start_copy_thread_once();
        EXPECT_TRUE(eventually([] { return !fs::exists(lateFile); }));
        for (int i = 0; i < 300 && !HasFailure(); i++) {
            const int numBefore = numLooks;
            tr_configure_1();
            EXPECT_TRUE(eventually([&] { return numLooks > numBefore; }));
        }
        onLook = [] { (void)eventually([] { return bGoOn.load(); }); };
        tr_configure_1();
        EXPECT_EQ(start(path), 0);
        tr_term(); // the thread goes on behind it, and must not initialise the library
        bGoOn = true;
        EXPECT_TRUE(eventually([] { return observe(&is_spool_running) == 0; }));
        EXPECT_EQ(anchors.bInitialized, 0);
    });
}
