// Trace files from their start to their end: what a fresh file looks like, which old ones are continued, why a start
// fails, and where in the ring records go.
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/statfs.h>
#include <sys/statvfs.h>

#include <cerrno>
#include <chrono>
#include <fstream>
#include <sstream>
#include <thread>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "reader/reader.h"
#include "tests/support/tracing.h"
#include "trace/engine/allocate.h"
#include "trace/engine/set_lock.h"

namespace fs = std::filesystem;
using Start = Tracing;
using Ring = Tracing;

// ---- System calls that fail when they are told to ----

struct fault_t {
    const char *pCall = "";
    int error = 0;
    int numGood = 0; // calls that succeed before
};
static constinit fault_t fault;

static bool fails(const char *pCall) {
    const bool bFails = strcmp(fault.pCall, pCall) == 0 && fault.numGood-- <= 0;
    errno = bFails ? fault.error : errno;
    return bFails;
}

// The linker leads calls of `call` from this program's own objects to `__wrap_call`.
#define MAY_FAIL(type, failure, call, parameters, ...)                                                                 \
    extern "C" type __real_##call parameters;                                                                          \
    extern "C" type __wrap_##call parameters {                                                                         \
        return fails(#call) ? failure : __real_##call(__VA_ARGS__);                                                    \
    }
MAY_FAIL(int, -1, open, (const char *pName, int flags, mode_t mode), pName, flags, mode)
MAY_FAIL(ssize_t, -1, write, (int fd, const void *pBytes, size_t size), fd, pBytes, size)
MAY_FAIL(int, -1, fstat, (int fd, struct stat *pStat), fd, pStat)
MAY_FAIL(int, (pStat->f_type = 0, 0), fstatfs, (int fd, struct statfs *pStat), fd, pStat)
MAY_FAIL(int, -1, fstatvfs, (int fd, struct statvfs *pStat), fd, pStat)
MAY_FAIL(int, -1, msync, (void *pMap, size_t size, int flags), pMap, size, flags)
MAY_FAIL(void *, MAP_FAILED, mmap, (void *pMap, size_t size, int access, int flags, int fd, off_t offset), pMap, size,
         access, flags, fd, offset)

// ---- Starting ----

static constexpr char FRESH[] = "52/16/2 65284/0/4095 @252"; // a file of 65536 bytes

// The words of the header and of the start record, but for those that have no defined content and the texts.
TEST_F(Start, LaysOutAFreshFile) {
    static constexpr size_t offsets[] = {0,  4,   8,   12,  16,  20,  24,  28,  32,  36,  40,  44,
                                         48, 180, 184, 188, 196, 212, 216, 232, 236, 240, 244, 248};
    in_child([&] {
        (void)setenv("KZ_CU_CLUSTER_NAME", "cluster", 1);
        (void)setenv("KZ_CU_NODE_NUMBER", "65541", 1); // 16 bits of it: 5
        (void)setenv("KZ_CU_NODE_ID", "0x123456789abcdef0", 1);
        (void)setenv("TZ", "ZON-1", 1); // one hour east of Greenwich
        fs::current_path(dir.path());
        const uint64_t before = cu_get_ctr_1();
        ASSERT_EQ(start("trace"), 0);
        const view_t file(path);
        const auto pid = static_cast<uint32_t>(getpid()), tid = static_cast<uint32_t>(pthread_self());
        constexpr uint32_t TICKS = 1'000'000'000, MINUS_60 = 0xffffffc4, FOUR_UNDERSCORES = 0x5f5f5f5f;
        std::vector<uint32_t> words;
        for (const size_t offset : offsets)
            words.push_back(file.get(offset));
        EXPECT_THAT(words,
                    testing::ElementsAre(0x50280, 0x50000, 200, 1, 0, 65536, TICKS, 0, 0, 0, 0, 252, pid, 0x9abcdef0,
                                         0x12345678, 0, MINUS_60, FOUR_UNDERSCORES, tid, pid, TICKS, 0, 0, 0));
        EXPECT_EQ(file.get(192, 1), 0U);
        EXPECT_EQ(chain(file), FRESH);
        const uint64_t stamp = file.get(220) + (uint64_t{file.get(224)} << 32);
        EXPECT_TRUE(before <= stamp && stamp <= cu_get_ctr_1());
        std::string program;
        std::getline(std::ifstream("/proc/self/cmdline"), program, '\0');
        EXPECT_EQ(file.pBytes + 52, program.substr(0, 47));
        EXPECT_STREQ(file.pBytes + 100, "Unknown");
        EXPECT_EQ(file.pBytes + 132, program.substr(program.rfind('/') + 1));
    });
}

TEST_F(Start, LetsTheAdministrativeGroupIn) {
    in_child([&] {
        (void)setenv("KZ_CU_ADMIN_GROUP", "daemon", 1);
        EXPECT_EQ(start(path), 0);
        EXPECT_EQ(fs::status(path).permissions(), fs::perms(0660));
        struct stat status = {};
        EXPECT_EQ(stat(path.c_str(), &status), 0);
        EXPECT_EQ(status.st_gid, geteuid() == 0 ? 1U : getegid()); // only root can give it
    });
}

// A file that does not have its size yet is made anew.
TEST_F(Start, SizesTheFile) {
    const auto check = [&](const char *pSize, uint32_t size, const char *pEarlier = nullptr) {
        (void)fs::remove(path);
        if (pEarlier != nullptr)
            in_child([&] { EXPECT_EQ(start(path, pEarlier), 0); });
        in_child([&] { EXPECT_EQ(start(path, pSize), 0); });
        EXPECT_EQ(view_t(path).get(20), size) << pSize;
        EXPECT_EQ(chain(view_t(path)), "52/16/2 " + std::to_string(size - 252) + "/0/4095 @252");
    };
    check("65536", 65536, "4096");
    fault = {"write", EDQUOT, 20}; // what there is room for is taken
    check("65536", 8192);
    fault = {};
}

// Each in a process of its own: the component stays registered, nothing stays open, and the next registration tries
// again.
TEST_F(Start, ReportsWhyAFileCannotBeHad) {
    const auto check = [&](const std::string &name, const fault_t &given, const std::string &error) {
        SCOPED_TRACE(name + " " + given.pCall + " " + error);
        in_child([&] {
            const auto numOpen = num_descriptors();
            fault = given;
            EXPECT_EQ(start(name), std::stoi(error));
            EXPECT_EQ(last_error(), error);
            fault = {};
            EXPECT_EQ(num_descriptors(), numOpen);
            EXPECT_EQ(anchors.pMap, nullptr);
            EXPECT_EQ(tr_record_id_1("ABCD", 1), 0);
            EXPECT_EQ(register_one("ABCD"), 38);
            EXPECT_EQ(register_one("NEXT"), *given.pCall == '\0' ? std::stoi(error) : 0);
        });
        (void)fs::remove(path);
    };
    const std::string fifo = dir.file("fifo"), link = dir.file("link");
    EXPECT_EQ(mkfifo(fifo.c_str(), 0600), 0);
    check(dir.path(), {}, "20 20 " + dir.path());
    check(fifo, {}, "20 20 " + fifo);
    check(dir.file("no/trace"), {}, "18 18 2");
    check(path, {"open", EINVAL}, "17 17 " + path);
    check(path, {"open", ENOSPC}, "35 36");
    check(path, {"fstatfs"}, "19 35");
    check(path, {"fstat", EIO}, "19 19 -1");
    check(path, {"fstatvfs", EIO}, "22 22 5");
    check(path, {"write", EIO}, "23 23 5");
    check(path, {"write", EDQUOT, 7}, "35 36"); // short of the smallest size
    check(path, {"mmap", ENOMEM}, "21 21 12");
    in_child([&] {
        const rlimit limit = {65536, 65536}; // beyond it a write raises a signal that ends the process
        EXPECT_EQ(setrlimit(RLIMIT_FSIZE, &limit), 0);
        EXPECT_EQ(start(path, "-1"), 23);
        EXPECT_EQ(last_error(), "23 23 27");
    });
    in_child([&] { // two positions in one ring would destroy each other
        fs::create_hard_link(path, link);
        (void)token_of(link);
        EXPECT_EQ(start(path), 17);
        EXPECT_EQ(last_error(), "17 17 " + link);
        EXPECT_EQ(chain(view_t(link)), FRESH);
    });
    in_child([&] {
        EXPECT_EQ(start(path), 0);
        fault = {"msync", EIO};
        EXPECT_EQ(tr_flush_1(), 32);
        EXPECT_EQ(last_error(), "32 32 5");
        tr_term(); // does not mind
        EXPECT_EQ(anchors.pMap, nullptr);
    });
}

// Words of a file that holds a start record and three more records are changed ("offset=value"). One more start then
// continues it or makes it anew.
TEST_F(Start, ContinuesAFileThatIsItsOwnAndWhole) {
    (void)setenv("KZ_CU_NODE_ID", "7", 1);
    in_child([&] {
        EXPECT_EQ(start(path), 0);
        EXPECT_EQ(tr_record_id_1("A", 1) + tr_record_id_1("A", 2) + tr_record_id_1("A", 3), 0);
    });
    const auto check = [&](const char *pPokes, const char *pChain) {
        SCOPED_TRACE(pPokes);
        fs::copy_file(path, path + "2", fs::copy_options::overwrite_existing);
        const view_t file(path + "2");
        std::istringstream pokes(pPokes);
        for (std::string poke; pokes >> poke;)
            file.put(std::stoul(poke), static_cast<uint32_t>(std::stoul(poke.substr(poke.find('=') + 1), nullptr, 0)));
        in_child([&] {
            EXPECT_EQ(start(path + "2"), 0);
            EXPECT_EQ(file.get(file.get(44) - 52 + 32), static_cast<uint32_t>(getpid()));
        });
        EXPECT_EQ(chain(file), pChain);
        EXPECT_EQ(file.get(4) + file.get(180) + file.get(192), 7U);
    };
    static constexpr char KEPT[] = "52/16/2 32/1/4 32/1/6 32/1/8 52/16/10 65136/0/4095 @400";
    check("", KEPT);
    check("4=0x8000 180=0 192=2", KEPT); // what a reader, a move to another node and spooling leave behind
    check("252=4 256=28 264=4", "52/16/2 4/28/4 28/4/4 32/1/6 32/1/8 52/16/10 65136/0/4095 @400");
    check("44=448 448=65088 452=0 456=4095", // the free record straddles the oldest record, and gives way
          "52/16/2 32/1/4 32/1/6 32/1/8 52/16/10 48/0/4095 65088/0/4095 @400");
    // A newer version, not to be re-used, other byte order, other program, other size; reading begins nowhere; lengths
    // that lead nowhere, wrap, pass the end, leave no room for a header; an odd number; no room for what gives way.
    for (const char *pPokes : {"0=0x60280", "0=0x502c0", "0=0x50200", "56=1", "20=61440", "8=204", "44=199",
                               "44=65509 65509=27 65513=0 65517=0", "252=0", "252=0xffffff38", "348=65192",
                               "348=65168 65516=20 65520=0 65524=4", "260=5", "44=372 372=65164 376=0 380=4095"})
        check(pPokes, FRESH);
}

// ---- The ring ----

// Reserves a record in the default file. Returns its offset, 0 when there was no room.
TR_UNCHECKED static size_t reserve(uint32_t length) {
    (void)lock_anchor_set(&anchors);
    const uint8_t *pRec = allocate_space(&anchors, &length);
    (void)unlock_anchor_set(&anchors);
    return pRec != nullptr ? static_cast<size_t>(pRec - anchors.pMap) : 0;
}

TEST_F(Ring, PlacesRecordsOneBehindTheOtherAndComesRound) {
    in_child([&] {
        ASSERT_EQ(start(path), 0);
        const view_t file(path);
        EXPECT_EQ(reserve(32) + reserve(32), 252U + 284);
        EXPECT_EQ(reserve(32668 + 4), 0U); // more than half of the data area
        EXPECT_EQ(reserve(32668), 316U);
        EXPECT_EQ(chain(file), "52/16/2 32/65535/4 32/65535/6 32668/65535/8 32552/0/4095 @32984");
        // Only a header would be left: the record takes all, and the next one goes to the front.
        EXPECT_EQ(reserve(32552 - 28), 32984U);
        EXPECT_EQ(chain(file), "52/16/2 32/65535/4 32/65535/6 32668/65535/8 32552/65535/10 @200");
        // The same in front of an older one; the start record that gives way leaves its words to the header.
        file.put(232, 1234), file.put(236, 5), file.put(244, 6);
        EXPECT_EQ(reserve(52 + 32 - 28), 200U);
        EXPECT_EQ(chain(file), "84/65535/12 32/65535/6 32668/65535/8 32552/65535/10 @284");
        EXPECT_TRUE(file.get(48) == 1234 && file.get(24) == 5 && file.get(32) == 6);
    });
}

// Files of an odd size, and those that are larger than was asked for. The sequence numbers run over in the last lap.
TEST_F(Ring, StaysWholeForManyLaps) {
    for (const uint32_t size : {4096U, 100001U}) {
        const uint32_t numRecords = 3 * size / 36;
        std::ofstream(path).close();
        fs::resize_file(path, size);
        in_child([&] {
            ASSERT_EQ(start(path, "1"), 0);
            anchors.seqNumber = 0U - 2 * numRecords;
            for (uint32_t i = 0; i < numRecords; i++) {
                EXPECT_TRUE(i != numRecords / 2 || reserve(anchors.uMaxSize) != 0); // over very many short ones
                (void)(i % 3 == 0 ? tr_record_uint64_2_1("LAPS", i, i, i) : tr_record_id_1("LAPS", i));
            }
        });
        EXPECT_FALSE(fs::exists(path + ".save"));
        std::string reason;
        const auto batch = trread::trace_file_t::open(path, &reason).value().read_all();
        EXPECT_TRUE(batch.faults.empty()) << batch.faults[0].text;
        ASSERT_GT(batch.records.size(), size / 64);
        for (size_t i = 0; i < batch.records.size(); i++)
            EXPECT_EQ(batch.records[i].traceId, numRecords - batch.records.size() + i);
        EXPECT_LT(batch.records.back().seqNumber, batch.records.front().seqNumber);
    }
}

// Fills a file of 4096 bytes: behind the start record come 1948 bytes, then what is left, but for `free` bytes.
static void start_filled(const std::string &path, uint32_t free) {
    EXPECT_EQ(start(path, "4096"), 0);
    EXPECT_EQ(reserve(1948) + reserve(1896 - free), 252U + 2200);
}

TEST_F(Ring, WaitsForARecordThatAReaderHolds) {
    in_child([&] {
        start_filled(path, TR_HEADER_LENGTH);
        const view_t file(path);
        file.put(12, 2); // the start record, which comes next
        std::thread recorder([] { EXPECT_EQ(tr_record_id_1("ABCD", 1), 0); });
        while (pthread_mutex_trylock(&anchors.anchorMutex) == 0) { // not yet in its wait
            (void)pthread_mutex_unlock(&anchors.anchorMutex);
            std::this_thread::yield();
        }
        EXPECT_EQ(file.get(204, 2), 16U);
        file.put(12, 99);
        recorder.join();
        EXPECT_EQ(file.get(12), 99U); // let go, not broken
        EXPECT_EQ(chain(file), "32/1/8 1968/0/4095 1896/65535/6 @232");
        file.put(12, 6);
        const auto begin = std::chrono::steady_clock::now();
        EXPECT_EQ(reserve(1948), 232U);
        const auto waited = std::chrono::steady_clock::now() - begin;
        EXPECT_TRUE(waited > std::chrono::milliseconds(200) && waited < std::chrono::seconds(20));
        EXPECT_EQ(file.get(12), 1U);
    });
}

TEST_F(Ring, AsksATailReaderToCatchUp) {
    in_child([&] {
        start_filled(path, TR_HEADER_LENGTH);
        const view_t file(path);
        const auto request = [&] { file.put(4, 0, 2), file.put(12, 99), file.put(16, 4); };
        const auto expect = [&](uint32_t flags, uint32_t seqLock, uint32_t tailReq) {
            EXPECT_TRUE(file.get(4, 2) == flags && file.get(12) == seqLock && file.get(16) == tailReq) << flags;
        };
        request();
        EXPECT_EQ(reserve(1944), 200U); // with the word just what fits: nobody is asked
        expect(0, 99, 4);
        std::thread reader([&] {
            while (file.get(4, 2) != 0x8000)
                std::this_thread::yield();
            file.put(16, 0);
        });
        EXPECT_EQ(reserve(1948), 200U);
        reader.join();
        expect(0, 99, 0);
        // Longer than the file can ever hold, and nobody answers: the history stays.
        const std::string history(file.pBytes + 200, 3896);
        for (const uint32_t length : {3896U - 28 + 4, 0xfffffff0U, 0xfffffffcU}) {
            request();
            EXPECT_EQ(reserve(length), 0U);
            EXPECT_EQ(memcmp(file.pBytes + 200, history.data(), history.size()), 0) << length;
        }
        request();
        EXPECT_EQ(reserve(3896 - 28), 200U);
        expect(0x8000, 1, 0);
        EXPECT_EQ(file.get(200), 3896U);
    });
}

// A free record of 40 bytes at the end of the file gets another length.
TEST_F(Ring, IsGivenUpWhenItIsDamaged) {
    const auto check = [&](uint32_t length, const std::string &text, bool bCanRename) {
        const tempdir_t own;
        const std::string name = own.file("trace"), save = name + ".save";
        if (!bCanRename)
            fs::create_directories(save + "/in the way");
        const std::string err = in_child([&] {
            start_filled(name, 40);
            const view_t file(name);
            file.put(4056, length);
            errno = 77;
            EXPECT_EQ(tr_record_id_1("ABCD", 1) + tr_record_id_1("ABCD", 2), 0);
            EXPECT_EQ(errno, 77);
            EXPECT_EQ(last_error(), "0 0");
            EXPECT_EQ(file.get(4056), length); // the file that was put aside is as it was
        });
        EXPECT_EQ(err.substr(25), "0:zorv_trace: allocate_space " + text + "\n"); // behind the time
        EXPECT_EQ(chain(view_t(name)), "52/16/2 32/1/4 3812/0/4095 @284");
        EXPECT_EQ(fs::is_regular_file(save), bCanRename);
    };
    check(0, "allocation loop (32)", true);
    check(32, "overrun one", false);
}
