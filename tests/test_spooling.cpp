// Spooling as a whole: recorders, the copy thread and a configuration file that changes under them, and what is found in
// the pages and their copies together afterwards.
#include <malloc.h>
#include <sys/stat.h>
#include <syslog.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <climits>
#include <cstdarg>
#include <fstream>
#include <map>
#include <mutex>
#include <thread>

#include <gtest/gtest.h>

#include "reader/collection.h"
#include "tests/support/sandbox.h"
#include "tests/support/tracing.h"
#include "trace/publish.h"
#include "trace/spool/spool.h"

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using Spooling = Tracing;

#if defined(__SANITIZE_THREAD__) || defined(__SANITIZE_ADDRESS__)
constexpr uint32_t SLOWER = 20; // fewer rounds under the sanitizers
#else
constexpr uint32_t SLOWER = 1;
#endif

constexpr char DEST[] = "/var/kz/spool";

// Copies are slowed down by so many microseconds each.
static std::atomic<uint32_t> copyDelay = 0;
extern "C" ssize_t __real_write(int fd, const void *pData, size_t size);
extern "C" ssize_t __wrap_write(int fd, const void *pData, size_t size) {
    if (size > 4096) // not a line of the test itself
        std::this_thread::sleep_for(std::chrono::microseconds(copyDelay));
    return __real_write(fd, pData, size);
}

// The system log, which this program stands in for.
static std::mutex logMutex; // guards the lines
static std::vector<std::pair<int, std::string>> logLines;
// NOLINTBEGIN(readability-inconsistent-declaration-parameter-name): the C library's names are not for programs
extern "C" void openlog(const char *pIdent, int options, int facility) {
    EXPECT_TRUE(strcmp(pIdent, "zorv_trace") == 0 && (options & LOG_PID) != 0 && facility == LOG_DAEMON);
}
extern "C" void vsyslog(int priority, const char *pFormat, va_list values) {
    char text[8192];
    (void)vsnprintf(text, sizeof text, pFormat, values);
    const std::lock_guard guard(logMutex);
    logLines.emplace_back(priority, text);
}
// NOLINTEND(readability-inconsistent-declaration-parameter-name)

// ---- The configuration file ----

static void configure(const std::string &text) {
    static time_t time = 1'000'000; // of the file, which a change has to make newer
    fs::create_directories("/var/kz/cfg");
    std::ofstream("/var/kz/cfg/new") << text;
    const timespec times[2] = {{++time, 0}, {time, 0}};
    EXPECT_EQ(utimensat(AT_FDCWD, "/var/kz/cfg/new", times, 0), 0);
    fs::rename("/var/kz/cfg/new", "/var/kz/cfg/trace.conf");
    tr_configure_1();
}

static std::string stanza(const std::string &pattern, uint32_t pages, const char *pSwitch = "ON") {
    return "files:\n pat = " + pattern + "\n spooling = " + pSwitch + "\n pages = " + std::to_string(pages) +
           "\n dest = " + DEST + "\n size = 65536\n";
}

// "file|directory" of every trace file.
static std::string status() {
    int32_t count = 0;
    tr_mini_spooling_anchor_t *pEntries = nullptr;
    EXPECT_EQ(tr_get_current_spooling_status_1(&count, &pEntries), 0);
    std::string text;
    for (int32_t i = 0; i < count; i++)
        text += std::string(pEntries[i].fileName) + "|" + std::string(pEntries[i].dest).substr(0, strlen(DEST)) + " ";
    tr_release_spool_info_1(count, pEntries);
    return text;
}

static void wait_for_status(const std::string &part) {
    for (int i = 0; i < 5000 && status().find(part) == std::string::npos; i++)
        std::this_thread::sleep_for(1ms);
    EXPECT_NE(status().find(part), std::string::npos) << status();
}

// ---- Recorders ----

static int32_t num_waiting() TR_UNCHECKED {
    lock_queue(&spq);
    const int32_t count = spq.cnt;
    unlock_queue(&spq);
    return count;
}

// Threads that record their number and a counter. They wait while a page is not copied yet: two of three pages are ready
// then, so that one is also when a control call has the head.
class recorders_t {
  public:
    recorders_t(const std::vector<uint32_t> &numbers, uint32_t numRecords, tr_file_token_t token = nullptr,
                bool bSlow = false) {
        for (const uint32_t thread : numbers)
            threads.emplace_back([=, this] {
                for (uint32_t i = 0; i < numRecords && !bStop; i++) {
                    for (int n = 0; i % 16 == 0 && num_waiting() != 0 && n < 10000; n++)
                        std::this_thread::sleep_for(50us);
                    if (bSlow && i % 16 == 0)
                        std::this_thread::sleep_for(50us);
                    EXPECT_EQ(tr_ms_record_values_32_1("ABCD", 1, token, 2, thread, i), 0);
                }
            });
    }
    void stop() {
        bStop = true;
        join();
    }
    void join() {
        for (auto &thread : threads)
            thread.join();
        threads.clear();
    }

  private:
    std::atomic<bool> bStop = false;
    std::vector<std::thread> threads;
};

// ---- What is found ----

struct while_t {
    int64_t first_ns, last_ns;
};

static int64_t now_ns() {
    timespec now;
    clock_gettime(CLOCK_REALTIME, &now);
    return now.tv_sec * 1'000'000'000 + now.tv_nsec;
}

struct found_t {
    std::map<uint32_t, uint32_t> counts; // records of each thread
    uint32_t numMissing = 0;             // holes in the counters, but behind the last one found
    uint32_t numNoted = 0;               // pages that the notes say were lost
};

// Walks the whole history. Nothing may be found twice or out of order, and a hole has to touch one of the whiles in
// which pages went nowhere; with none of them there is no hole.
static found_t find_records(const std::vector<std::string> &paths, const std::vector<while_t> *pWhiles = nullptr) {
    struct last_t {
        uint32_t next;
        int64_t time_ns;
    };
    trread::collection_t collection(paths);
    std::map<uint32_t, last_t> lasts;
    found_t found;
    while (const trread::record_t *pRecord = collection.next()) {
        const auto *pBytes = reinterpret_cast<const char *>(pRecord->bytes.data());
        if (pRecord->kind == TR_KIND_STRING) {
            const std::string note(pBytes + 28);
            found.numNoted += static_cast<uint32_t>(std::stoul(note.substr(note.find(" not spooled ") + 13)));
        }
        if (pRecord->kind != TR_KIND_VALUES_32)
            continue;
        uint32_t values[2];
        memcpy(values, pBytes + 36, sizeof values);
        last_t &last = lasts.try_emplace(values[0], last_t{0, 0}).first->second;
        EXPECT_GE(values[1], last.next) << "thread " << values[0];
        if (values[1] != last.next && pWhiles != nullptr) {
            const bool bExcused = std::ranges::any_of(*pWhiles, [&](const while_t &w) {
                return last.time_ns <= w.last_ns && pRecord->time_ns >= w.first_ns;
            });
            EXPECT_TRUE(bExcused) << "thread " << values[0] << " lost " << last.next << " to " << values[1];
        }
        found.numMissing += values[1] - last.next;
        last = {values[1] + 1, pRecord->time_ns};
        found.counts[values[0]]++;
    }
    for (const auto &source : collection.sources()) {
        for (const auto &fault : source.faults)
            ADD_FAILURE() << source.place.path << ": " << fault.text;
    }
    return found;
}

static void expect_all(const found_t &found, uint32_t numThreads, uint32_t numRecords) {
    EXPECT_EQ(found.counts.size(), numThreads);
    for (const auto &[thread, count] : found.counts)
        EXPECT_EQ(count, numRecords) << thread;
    EXPECT_EQ(found.numMissing, 0U);
    EXPECT_EQ(found.numNoted, 0U);
}

// ---- The cases ----

// Every record exactly once, in order, also while rings grow and shrink.
TEST_F(Spooling, LosesNothing) {
    for (const bool bRewrite : {false, true}) {
        SCOPED_TRACE(bRewrite);
        const std::string file = path + (bRewrite ? "2" : "1");
        const child_result_t result = run_in_child(
            [&] {
                constexpr uint32_t NUM_RECORDS = 250'000 / SLOWER;
                enter_private_machine();
                configure(stanza(dir.path() + "/.*", 3));
                ASSERT_EQ(start(file), 0);
                recorders_t recorders({0, 1, 2, 3}, NUM_RECORDS);
                for (uint32_t i = 0; bRewrite && i < 100; i++) {
                    configure(stanza(dir.path() + "/.*", 3 + i * 5 % 6));
                    std::this_thread::sleep_for(2ms);
                }
                recorders.join();
                expect_all(find_records({file, DEST}), 4, NUM_RECORDS);
            },
            120s);
        EXPECT_EQ(result.exitCode, 0);
    }
}

// Where pages went nowhere for a while, nothing else is missing.
TEST_F(Spooling, LosesOnlyWhatWentNowhere) {
    in_child([&] {
        enter_private_machine();
        configure(stanza(dir.path() + "/.*", 3));
        ASSERT_EQ(start(path), 0);
        recorders_t recorders({0, 1}, UINT32_MAX);
        std::vector<while_t> whiles;
        for (const std::string &text : {stanza(dir.path() + "/.*", 3, "OFF"), stanza("/no/such", 3), std::string()}) {
            const int64_t first = now_ns();
            if (text.empty())
                fs::remove("/var/kz/cfg/trace.conf"), tr_configure_1();
            else
                configure(text);
            wait_for_status("|/dev/null ");
            std::this_thread::sleep_for(20ms);
            configure(stanza(dir.path() + "/.*", 4));
            wait_for_status(std::string("|") + DEST);
            whiles.push_back({first, now_ns()});
            std::this_thread::sleep_for(20ms);
        }
        recorders.stop();
        const found_t found = find_records({path, DEST}, &whiles);
        EXPECT_GT(found.numMissing, 0U);
        EXPECT_EQ(found.numNoted, 0U); // copied to nowhere, not taken back
    });
}

// A file that is recorded to already becomes a page set.
TEST_F(Spooling, TakesUpStartedFiles) {
    const std::string other = dir.file("other");
    in_child([&] {
        enter_private_machine();
        const tr_file_token_t token = token_of(other);
        ASSERT_EQ(start(path, "4194304") + tr_set_file_size_1(other.c_str(), 4194304), 0);
        recorders_t recorders({0, 1}, 20'000, nullptr, true), others({2, 3}, 20'000, token, true);
        std::this_thread::sleep_for(5ms);
        configure(stanza(dir.path() + "/.*", 3));
        wait_for_status(path + ".1.sp (3 pages)|" + DEST);
        wait_for_status(other + ".1.sp (3 pages)|" + DEST);
        recorders.join();
        others.join();
        expect_all(find_records({path, other, DEST}), 4, 20'000);
    });
}

// A page that shrinking takes out of its ring is there until it is copied, also when it is the one being written.
TEST_F(Spooling, RetiresPages) {
    in_child([&] {
        enter_private_machine();
        (void)setenv("KZ_TR_DEBUG_LEVEL", "7", 1); // one less than such lines need
        configure(stanza(dir.path() + "/.*", 5));
        ASSERT_EQ(start(path), 0);
        copyDelay = 20'000;
        uint32_t number = 0;
        const auto record_until = [&](const std::string &active) {
            while (std::string(observe(&anchors.pActivePg)->fileName) != path + active)
                EXPECT_EQ(tr_record_uint32_2_1("ABCD", 1, 0, number++), 0);
        };
        record_until(".4.sp");
        configure(stanza(dir.path() + "/.*", 3));
        wait_for_status("(3 pages)");
        EXPECT_EQ(std::string(anchors.pActivePg->fileName), path + ".4.sp");
        record_until(".1.sp"); // its successor is the head
        configure(stanza(dir.path() + "/.*", 5));
        wait_for_status("(5 pages)");
        record_until(".2.sp");
        copyDelay = 0;
        while (num_waiting() != 0)
            std::this_thread::sleep_for(1ms);
        expect_all(find_records({path, DEST}), 1, number);
        const auto is_start = [](const auto &line) { return line.second.starts_with(">>start_trace"); };
        EXPECT_TRUE(std::ranges::none_of(logLines, is_start));
    });
}

// A retired page that is still written to and found damaged goes with the others of its set.
TEST_F(Spooling, RepairsARetiredPage) {
    in_child([&] {
        enter_private_machine();
        configure(stanza(dir.path() + "/.*", 4));
        ASSERT_EQ(start(path), 0);
        const std::string last = path + ".4.sp";
        while (std::string(anchors.pActivePg->fileName) != last)
            EXPECT_EQ(tr_record_id_1("ABCD", 1), 0);
        configure(stanza(dir.path() + "/.*", 3));
        wait_for_status("(3 pages)");
        const view_t page(last);
        page.put(page.get(44), 0); // the free record: a walk that never ends
        EXPECT_EQ(tr_record_id_1("ABCD", 2) + tr_record_id_1("ABCD", 3), 0);
        EXPECT_TRUE(fs::exists(last + ".save"));
        EXPECT_EQ(anchors.pActivePg->p_head_spool_anchor, &anchors);
        (void)find_records({path});
    });
}

// A file that takes long to copy keeps the thread from the pages: recording goes on, and the notes tell of every page that
// is missing. A page that takes long is waited for once.
TEST_F(Spooling, NotesWhatItLoses) {
    in_child([&] {
        enter_private_machine();
        const std::string large = dir.file("large");
        std::ofstream(large) << std::string(1 << 20, 'l');
        configure(stanza(path, 3));
        ASSERT_EQ(start(path), 0);
        copyDelay = 20'000;
        constexpr uint32_t PER_PAGE = (65536 - 200) / 44;
        int64_t longest = 0;
        for (uint32_t i = 0; i < 60 * PER_PAGE; i++) {
            if (i % (20 * PER_PAGE) == 0) {
                EXPECT_EQ(tr_copy_file_1("/var/kz", large.c_str(), 0), 0);
            }
            const int64_t before = now_ns();
            EXPECT_EQ(tr_record_uint32_2_1("ABCD", 1, 0, i), 0);
            longest = std::max(longest, now_ns() - before);
        }
        copyDelay = 0;
        while (num_waiting() != 0)
            std::this_thread::sleep_for(1ms);
        const found_t found = find_records({path, DEST});
        EXPECT_GT(found.numNoted, 0U);
        EXPECT_EQ((found.numMissing + PER_PAGE / 2) / PER_PAGE, found.numNoted);
        EXPECT_LT(longest, int64_t{200'000'000} * SLOWER);
    });
}

TEST_F(Spooling, ReconfiguresWithoutLeaving) {
    const child_result_t result = run_in_child(
        [&] {
            enter_private_machine();
            configure(stanza(dir.path() + "/.*", 5));
            ASSERT_EQ(start(path), 0);
            const auto take_up = [](const std::string &text) {
                configure(text);
                configure_if_necessary();
            };
            const auto entries = [](const char *pDir) {
                return std::distance(fs::directory_iterator(pDir), fs::directory_iterator());
            };
            struct held_t {
                size_t heap;
                long descriptors, mappings;
            };
            const auto held = [&] { // the least of some looks: the copy thread may be reading the configuration
                held_t least = {SIZE_MAX, LONG_MAX, LONG_MAX};
                for (int i = 0; i < 20; i++) {
                    least.heap = std::min(least.heap, mallinfo2().uordblks);
                    least.descriptors = std::min(least.descriptors, entries("/proc/self/fd"));
                    least.mappings = std::min(least.mappings, entries("/proc/self/map_files"));
                    std::this_thread::sleep_for(1ms);
                }
                return least;
            };
            constexpr uint32_t NUM_ROUNDS = 10'000 / SLOWER;
            held_t before = {};
            for (uint32_t i = 0; i < NUM_ROUNDS; i++) {
                if (i == NUM_ROUNDS / 5) // caches are warm
                    before = held();
                take_up(stanza(i % 3 == 0 ? "/no/such" : dir.path() + "/.*", i % 2 == 0 ? 3 : 5));
                EXPECT_EQ(tr_record_id_1("ABCD", i), 0);
            }
            for (uint32_t i = 0; i < 10; i++)
                take_up(stanza(dir.path() + "/.*", 5));
            const held_t after = held();
            EXPECT_LE(after.heap, before.heap + 262144);
            EXPECT_EQ(after.descriptors, before.descriptors);
            EXPECT_LE(after.mappings, before.mappings + 4);
        },
        120s);
    EXPECT_EQ(result.exitCode, 0);
}

// Recorders, a configuration that changes, reports, names and sizes, all at once.
TEST_F(Spooling, AllAtOnce) {
    in_child([&] {
        enter_private_machine();
        const std::string other = dir.file("other");
        configure(stanza(dir.path() + "/.*", 3));
        const tr_file_token_t token = token_of(other);
        ASSERT_EQ(start(path), 0);
        recorders_t recorders({0, 1}, UINT32_MAX), others({2, 3}, UINT32_MAX, token);
        copyDelay = 200;
        std::atomic<bool> bStop = false;
        std::thread reporter([&] {
            while (!bStop) {
                (void)status();
                (void)tr_get_spool_dir_1(other.c_str());
                EXPECT_EQ(tr_flush_1(), 0);
            }
        });
        std::thread settings([&] {
            for (uint32_t i = 0; !bStop; i++) {
                EXPECT_EQ(tr_set_file_size_1(other.c_str(), i % 2 == 0 ? 200'000 : 300'000), 0);
                EXPECT_EQ(tr_set_filename_1((path + std::to_string(i % 3)).c_str()), 0);
                EXPECT_EQ(register_one("EFGH") + tr_unregister_component_1("EFGH"), 0);
            }
        });
        for (uint32_t i = 0; i < 60; i++) {
            configure(stanza(dir.path() + (i % 5 == 0 ? "/o.*" : "/.*"), 3 + i % 4, i % 7 == 0 ? "OFF" : "ON"));
            std::this_thread::sleep_for(5ms);
        }
        bStop = true;
        for (auto *pThread : {&reporter, &settings})
            pThread->join();
        recorders.stop();
        others.stop();
        EXPECT_EQ(tr_set_filename_1(path.c_str()), 0);
        EXPECT_EQ(tr_record_id_1("ABCD", 1), 0);
        (void)find_records({other});
    });
}

// A copy that hangs keeps a process from ending for some seconds at most, also when a recorder waits for it.
TEST_F(Spooling, EndsBesideAHungCopy) {
    for (const bool bRecorder : {false, true}) {
        const int64_t before = now_ns();
        const child_result_t result = run_in_child([&] {
            enter_private_machine();
            configure(stanza(dir.path() + "/.*", 3));
            ASSERT_EQ(start(path), 0);
            copyDelay = 60'000'000;
            for (uint32_t i = 0; i < 2100; i++) // more than a page
                EXPECT_EQ(tr_record_id_1("ABCD", i), 0);
            std::this_thread::sleep_for(100ms); // the copy has begun
            if (bRecorder)
                std::thread([] {
                    while (true)
                        (void)tr_record_id_1("ABCD", 1);
                }).detach();
            std::this_thread::sleep_for(100ms);
            exit(0);
        });
        EXPECT_EQ(result.exitCode, 0);
        EXPECT_LT(now_ns() - before, 6'000'000'000)
            << bRecorder; // two seconds for the thread, one for each kind of lock
    }
}

// What the diagnostic lines tell of a page on its way, with the priorities that an operator filters by.
TEST_F(Spooling, TellsTheLog) {
    in_child([&] {
        enter_private_machine();
        (void)setenv("KZ_TR_DEBUG_LEVEL", "8", 1);
        configure(stanza(dir.path() + "/.*", 3));
        ASSERT_EQ(start(path), 0);
        for (uint32_t i = 0; i < 2100; i++)
            EXPECT_EQ(tr_record_id_1("ABCD", i), 0);
        const std::string first = path + ".1.sp", second = path + ".2.sp", own = tr_get_spool_dir_1(path.c_str());
        while (view_t(first).get(192, 1) != TR_READY)
            std::this_thread::sleep_for(1ms);
        wait_for_status("(3 pages)|");
        EXPECT_EQ(tr_copy_file_1(DEST, nullptr, 0), 1);
        configure(stanza("/no/such", 3));
        wait_for_status("|/dev/null");
        const std::pair<int, std::string> expected[] = {
            {LOG_WARNING, ">>start_trace enter for " + path},
            {LOG_WARNING, "/var/kz/cfg/trace.conf opened"},
            {LOG_WARNING, "Leaving spool_conf_file: 0 (flags: 0x"},
            {LOG_WARNING, "entering mkspooldir: '/var/kz/spool'"},
            {LOG_ERR, "mkspooldir: baseName: '"},
            {LOG_WARNING, "creating page '" + first},
            {LOG_WARNING, "init_trace_header: setting " + second + " to TR_READY"},
            {LOG_WARNING, "spool_enqueue after: " + first},
            {LOG_WARNING, first + " added to queue (flags: 2); switching to " + second + " (flags: 4 cnt: 1)"},
            {LOG_WARNING, "cp_thread checking flags: 2"},
            {LOG_WARNING, "do_spool: " + own + "/trace.1.sp.2"},
            {LOG_WARNING, first + " removed from queue (trace file)"},
            {LOG_ERR, "tr_get_spool_dir returning: '/var/kz/spool/"},
            {LOG_ERR, "tr_copy_file '(NULL)' -> '" + std::string(DEST)},
            {LOG_WARNING, "NOT matched: '" + first + "' on '/no/such'"},
        };
        const std::lock_guard guard(logMutex);
        for (const auto &row : expected) {
            const auto is_it = [&](const auto &line) { return line.second.starts_with(row.second); };
            const auto at = std::find_if(logLines.begin(), logLines.end(), is_it);
            EXPECT_TRUE(at != logLines.end() && at->first == row.first) << row.second;
        }
    });
}
