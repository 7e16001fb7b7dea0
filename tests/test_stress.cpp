// Eight threads that record, beside readers, control calls, forks, damage, a kill, and the end of their process.
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/wait.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <csignal>
#include <iterator>
#include <map>
#include <random>
#include <thread>

#include <gmock/gmock.h>

#include "reader/decode.h"
#include "reader/reader.h"
#include "tests/support/recording_calls.h"
#include "tests/support/tracing.h"
#include "trace/engine/ring.h"

using clock_type = std::chrono::steady_clock;

// Threads that record until told to end, each with a sequence of numbers of its own.
class crew_t {
  public:
    static constexpr uint32_t NUM_THREADS = 8;
    explicit crew_t(tr_file_token_t token = nullptr) {
        for (uint32_t i = 0; i < NUM_THREADS; i++)
            threads.emplace_back([this, i, token] {
                const char comp[] = {'R', static_cast<char>('0' + i), '\0'};
                for (uint32_t n = 1; !bEnd.load(std::memory_order_relaxed); n++) {
                    rcs |= record_nth(comp, n, token);
                    if (n % 1000 == 0) // or control calls may have to wait for long
                        std::this_thread::sleep_for(std::chrono::microseconds(100));
                }
            });
    }
    ~crew_t() {
        bEnd = true;
        for (auto &thread : threads)
            thread.join();
        EXPECT_EQ(rcs, 0);
    }

  private:
    std::atomic<bool> bEnd = false;
    std::atomic<int32_t> rcs = 0;
    std::vector<std::thread> threads;
};

static bool is_whole(const trread::record_t &record) {
    const auto body = trread::decode_body(record);
    const uint64_t value = value_of(*record.traceId);
    int i = 0;
    const auto in_turns = [&](auto stored) {
        return stored == static_cast<decltype(stored)>(i++ % 2 == 0 ? value : ~value);
    };
    const auto is_block = [&](const auto &block) {
        return in_turns(load_at<uint64_t>(reinterpret_cast<const uint8_t *>(block.data())));
    };
    if (const auto *p32 = std::get_if<trread::values_32_body_t>(&body.content))
        return !body.bCut && std::ranges::all_of(p32->values, in_turns);
    if (const auto *p64 = std::get_if<trread::values_64_body_t>(&body.content))
        return !body.bCut && std::ranges::all_of(p64->values, in_turns);
    if (const auto *pData = std::get_if<trread::data_body_t>(&body.content))
        return !body.bCut && std::ranges::all_of(pData->blocks, is_block);
    if (const auto *pTexts = std::get_if<trread::texts_body_t>(&body.content))
        return !body.bCut && pTexts->texts == std::vector<std::string_view>{std::to_string(value)};
    return record.kind == TR_KIND_ID;
}

static trread::batch_t read_whole(const std::string &path) {
    std::string reason;
    auto batch = trread::trace_file_t::open(path, &reason).value().read_all();
    for (const auto &fault : batch.faults)
        ADD_FAILURE() << fault.text;
    return batch;
}

using last_numbers_t = std::map<char, uint32_t>; // of each thread

// Checks that a record is whole and follows its thread's last one.
static void check_record(const trread::record_t &record, last_numbers_t *pLast, bool bGaps) {
    if (record.kind == TR_KIND_START)
        pLast->clear(); // another life of the file
    if (record.kind == TR_KIND_RESERVED || record.kind == TR_KIND_START)
        return;
    ASSERT_TRUE(is_whole(record)) << "kind " << record.kind << ", offset " << record.offset;
    const uint32_t n = *record.traceId;
    const auto [it, bFirst] = pLast->try_emplace(record.compId[1], n);
    ASSERT_TRUE(bFirst || (bGaps ? n > it->second : n == it->second + 1)) << n << " after " << it->second;
    it->second = n;
}

static void check_batch(const trread::batch_t &batch) {
    last_numbers_t last;
    for (const auto &record : batch.records)
        check_record(record, &last, false);
}

static void expect_end(pid_t pid) {
    int status = -1;
    EXPECT_EQ(waitpid(pid, &status, 0), pid);
    EXPECT_EQ(status, 0);
}

class ReaderBesideRecorders : public Tracing, public testing::WithParamInterface<const char *> {};

TEST_P(ReaderBesideRecorders, FindsWholeRecordsInOrder) {
    in_child([this] {
        int link[2]; // tells either side when to go on
        ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, link), 0);
        char c = 0;
        const pid_t pid = fork();
        if (pid == 0) {
            close(link[0]);
            EXPECT_EQ(start(path, GetParam()), 0);
            {
                const crew_t crew;
                EXPECT_EQ(write(link[1], &c, 1), 1);
                EXPECT_EQ(read(link[1], &c, 1), 0);
            }
            exit(0);
        }
        close(link[1]);
        ASSERT_EQ(read(link[0], &c, 1), 1);
        std::string reason;
        auto file = trread::trace_file_t::open(path, &reason);
        last_numbers_t last;
        size_t numFollowed = 0, numRead = 0;
        uint32_t lastSeq = 0;
        const auto end = clock_type::now() + std::chrono::milliseconds(800);
        while ((clock_type::now() < end || std::min(numFollowed, numRead) < 100) && !HasFailure()) {
            const auto followed = file->poll(), all = file->read_all();
            EXPECT_FALSE(followed.bRestarted);
            uint32_t numMissing = 0;
            for (const auto &record : followed.records) {
                check_record(record, &last, true);
                numMissing += lastSeq != 0 ? (record.seqNumber - lastSeq) / TR_SEQ_STEP - 1 : 0;
                lastSeq = record.seqNumber;
            }
            ASSERT_LE(numMissing, followed.numLost + 2) << "but for fillers";
            check_batch(all);
            numFollowed += followed.records.size();
            numRead += all.records.size();
        }
        close(link[0]);
        expect_end(pid);
        check_batch(read_whole(path));
    });
}

INSTANTIATE_TEST_SUITE_P(Sizes, ReaderBesideRecorders, testing::Values("4096", "65536"));

using Stress = Tracing;

// Sequence numbers without those of unfinished records, the newest first.
static std::vector<uint32_t> finished_backwards(const trread::batch_t &batch) {
    std::vector<uint32_t> seqs;
    for (const auto &record : batch.records)
        if (record.kind != TR_KIND_RESERVED)
            seqs.insert(seqs.begin(), record.seqNumber);
    return seqs;
}

TEST_F(Stress, AKilledProcessLeavesAFileThatTheNextContinues) {
    static constexpr int NUM_KILLS = 60;
    std::minstd_rand random(std::random_device{}());
    std::vector<uint32_t> before;
    for (int i = 0; i < NUM_KILLS; i++) {
        const auto moment = std::chrono::microseconds(random() % 3000);
        const auto result = run_in_child([&] {
            EXPECT_EQ(start(path, "16384"), 0);
            const auto batch = read_whole(path);
            const auto now = finished_backwards(batch);
            EXPECT_EQ(batch.records.back().kind, TR_KIND_START);
            if (i > 0) { // an unfinished record and a filler may lie between; the start record took over a few
                EXPECT_TRUE(now[0] > before[0] && now[0] <= before[0] + 3 * TR_SEQ_STEP);
                EXPECT_TRUE(now.size() <= before.size() + 1 && now.size() + 8 > before.size());
                EXPECT_TRUE(std::equal(now.begin() + 1, now.end(), before.begin()));
            }
            const crew_t crew;
            std::this_thread::sleep_for(moment);
            if (!HasFailure())
                raise(SIGKILL);
        });
        ASSERT_EQ(result.signal, SIGKILL);
        const auto batch = read_whole(path);
        check_batch(batch);
        before = finished_backwards(batch);
    }
}

static const char *pNames[2]; // of the default file and another

// What threads call beside recorders. Results that are no fault: 0; registered already, or not.
static int32_t (*const CONTROL_CALLS[])() = {
    [] { return register_one("CTRL"); },
    [] { return tr_flush_1(); },
    [] { return tr_set_trace_levels_1("CTRL:cat*=5"); },
    [] { return tr_set_size_1(65536); },
    [] { return tr_set_file_map_1(pNames[1], "CTRL:cat*"); },
    [] { return tr_set_file_size_1(pNames[1], 16384); },
    [] { return msync_trace_pages(0, MS_ASYNC, 1); },
    [] { return tr_set_filename_1(nullptr); },
    [] { return tr_set_filename_1(pNames[0]); },
    [] { return tr_set_size_1(20000); },
    [] { return tr_set_file_size_1(pNames[1], 40000); },
    [] { return tr_unregister_component_1("CTRL"); },
};
static const auto ALLOWED = testing::AnyOf(0, 26, 38);

// The child has a second for a lock that a thread of its parent held; it must come to its end all the same.
static pid_t fork_and_record() {
    const pid_t pid = fork();
    if (pid == 0) {
        alarm(5);
        int32_t rcs = 0;
        for (uint32_t n = 0; n < 8; n++)
            rcs |= record_nth("CHLD", n, nullptr);
        tr_term();
        _exit(rcs);
    }
    return pid;
}

// Spoils a file from outside until its writer has put it aside.
static void damage_file(const std::string &path) {
    const uint32_t noLength = 0;
    for (bool bAside = false; !bAside; bAside = unlink((path + TR_SAVE_SUFFIX).c_str()) == 0) {
        const int fd = open(path.c_str(), O_RDWR | O_CLOEXEC);
        uint32_t oldest = 0;
        if (pread(fd, &oldest, sizeof oldest, offsetof(trace_file_header_t, uOldestRecordOffset)) > 0 && oldest != 0)
            (void)!pwrite(fd, &noLength, sizeof noLength, oldest); // tried again if need be
        close(fd);
    }
}

TEST_F(Stress, RecordersGoOnBesideEveryControlCallUntilTheEnd) {
    const std::string names[] = {path, dir.file("second")};
    pNames[0] = names[0].c_str();
    pNames[1] = names[1].c_str();
    const std::string err = in_child([&names] {
        ASSERT_EQ(start(names[0]), 0);
        static const auto *pCrew = new crew_t(token_of(names[1])); // until the process ends
        ASSERT_NE(pCrew, nullptr);
        std::atomic<bool> bEnd = false;
        std::vector<std::thread> controllers;
        for (size_t first = 0; first < 3; first++)
            controllers.emplace_back([&bEnd, first] {
                for (size_t i = 4 * first; !bEnd; i++) // rings of both sizes, and none
                    EXPECT_THAT(CONTROL_CALLS[i % std::size(CONTROL_CALLS)](), ALLOWED);
            });
        std::vector<pid_t> children;
        for (size_t i = 0; i < std::size(CONTROL_CALLS); i++) {
            children.push_back(fork_and_record());
            if (i < 4)
                damage_file(names[i % 2]);
        }
        for (const pid_t pid : children)
            expect_end(pid);
        bEnd = true;
        for (auto &controller : controllers)
            controller.join();
        tr_term();
        exit(0);
    });
    EXPECT_THAT(err, testing::HasSubstr("zorv_trace: allocate_space"));
    for (const auto &name : names)
        (void)read_whole(name);
}
