// What a record costs, beside a floor measured in the same run: lock a default mutex, read the counter, write the fields
// and the body of a record at the next place of a mapped ring, unlock.
//
// A second thread exists all the while, parked: the C library leaves out the locked instruction while a process has
// only one thread, which no daemon has. Each file size runs in a process of its own, because the environment sets the
// size.
#include <fcntl.h>
#include <pthread.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <string>
#include <thread>
#include <vector>

#include <benchmark/benchmark.h>

#include "bench/ratio_reporter.h"
#include "cu/kz_cu.h"
#include "trace/kz_tr.h"
#include "trace/trace_format.h"

namespace {

constexpr size_t VALUES_RECORD = 44; // bytes of a record of two 32-bit values
constexpr size_t TEXT_RECORD = 64;   // of a text of 20 characters
constexpr size_t BLOCK_RECORD = 104; // of a block of 64 bytes
constexpr char TEXT[] = "a text of 20 charact";
constexpr char FORMAT[] = "%d of %u bytes from %s";
constexpr auto CONTEST_TIME = std::chrono::milliseconds(300);
constexpr char DIRECTORY[] = "/dev/shm";
constexpr std::array<uint32_t, 2> FILE_SIZES = {64 * 1024, 16 * 1024 * 1024};

tr_detail_level_t levels[1];

// ---- The floor ----

struct ring_t {
    pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
    uint8_t *pMap = nullptr;
    size_t size = 0;
    size_t next = 0;
    uint32_t seqNumber = 0;
} ring;

void map_ring(size_t size) {
    const std::string name = std::string(DIRECTORY) + "/bench-floor-" + std::to_string(getpid());
    const int fd = open(name.c_str(), O_RDWR | O_CREAT | O_TRUNC, 0600);
    if (fd == -1 || ftruncate(fd, static_cast<off_t>(size)) != 0) {
        perror(name.c_str());
        exit(1);
    }
    void *pMap = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    close(fd);
    unlink(name.c_str());
    if (pMap == MAP_FAILED) {
        perror("mmap");
        exit(1);
    }
    ring.pMap = static_cast<uint8_t *>(pMap);
    ring.size = size;
    memset(pMap, 1, size);
}

// Writes the fields that a record of that size has. Not inlined, as the library's functions are not.
template <size_t SIZE> __attribute__((noinline)) void write_floor(const uint8_t *pBody) {
    pthread_mutex_lock(&ring.mutex);
    const uint64_t stamp = cu_get_ctr_1();
    if (ring.next + SIZE > ring.size)
        ring.next = 0;
    auto *pRec = reinterpret_cast<trace_record_header_t *>(ring.pMap + ring.next);
    ring.next += SIZE;
    pRec->length = SIZE;
    pRec->function = TR_KIND_VALUES_32;
    pRec->seqNumber = ring.seqNumber += TR_SEQ_STEP;
    memcpy(pRec->compId, "BNCH", TR_COMP_ID_SIZE);
    pRec->threadId = static_cast<uint32_t>(pthread_self());
    pRec->timeStamp = stamp;
    memcpy(pRec + 1, pBody, SIZE - sizeof *pRec);
    pthread_mutex_unlock(&ring.mutex);
}

// ---- What is measured ----

void park() {
    static std::thread parked([] { pause(); });
    parked.detach();
}

void BM_Alone(benchmark::State &state, void (*record)(uint32_t)) {
    uint32_t i = 0;
    for (auto _ : state)
        record(i++);
}

// Two threads record as fast as they can for a while. The time is that of a thread per record; "share" is the part of
// all records that the slower thread got.
void BM_TwoThreads(benchmark::State &state, void (*record)(uint32_t)) {
    double lowerShare = 1;
    for (auto _ : state) {
        std::atomic<bool> bStop = false;
        std::array<uint64_t, 2> numRecords = {};
        std::vector<std::thread> threads;
        threads.reserve(numRecords.size());
        const auto start = std::chrono::steady_clock::now();
        for (auto &num : numRecords)
            threads.emplace_back([&bStop, &num, record] {
                uint32_t i = 0;
                while (!bStop.load(std::memory_order_relaxed))
                    record(i++);
                num = i;
            });
        std::this_thread::sleep_for(CONTEST_TIME);
        bStop = true;
        for (auto &thread : threads)
            thread.join();
        const std::chrono::duration<double> elapsed = std::chrono::steady_clock::now() - start;
        const auto total = static_cast<double>(numRecords[0] + numRecords[1]);
        state.SetIterationTime(2 * elapsed.count() / total);
        lowerShare = static_cast<double>(std::min(numRecords[0], numRecords[1])) / total;
    }
    state.counters["share"] = lowerShare;
}

void BM_LevelTest(benchmark::State &state) {
    levels[0] = 0;
    for (auto _ : state) {
        if (tr_level_on(levels, 0, 1))
            tr_record_id_1("BNCH", 1);
    }
    levels[0] = 1;
}

void BM_LoadAndCompare(benchmark::State &state) {
    static std::atomic<uint8_t> level = 0;
    for (auto _ : state) {
        if (level.load(std::memory_order_relaxed) >= 1) [[unlikely]]
            abort();
    }
}

__attribute__((noinline)) void format_alone(const char *pFormat, ...) {
    static char buffer[1024];
    va_list args;
    va_start(args, pFormat);
    vsnprintf(buffer, sizeof buffer, pFormat, args);
    va_end(args);
    benchmark::DoNotOptimize(buffer);
}

struct subject_t {
    const char *pName;
    void (*record)(uint32_t);
    ratio_base_t base;
};

uint8_t block[BLOCK_RECORD];

const subject_t SUBJECTS[] = {
    {"floor", [](uint32_t) { write_floor<VALUES_RECORD>(block); }, {"floor", ""}},
    {"tr_record_id_1", [](uint32_t i) { tr_record_id_1("BNCH", i); }, {"floor", ""}},
    {"tr_record_values_32_1, 2 values", [](uint32_t i) { tr_record_values_32_1("BNCH", 7, 2, i, i); }, {"floor", ""}},
    {"tr_record_values_64_1, 2 values",
     [](uint32_t i) { tr_record_values_64_1("BNCH", 7, 2, uint64_t{i}, uint64_t{i}); },
     {"floor", ""}},
};

const subject_t BODY_SUBJECTS[] = {
    {"floor with a text", [](uint32_t) { write_floor<TEXT_RECORD>(block); }, {"floor with a text", ""}},
    {"tr_record_string_1, 20 characters",
     [](uint32_t) { tr_record_string_1("BNCH", TEXT); },
     {"floor with a text", ""}},
    {"floor with a block", [](uint32_t) { write_floor<BLOCK_RECORD>(block); }, {"floor with a block", ""}},
    {"tr_record_data_1, 64 bytes",
     [](uint32_t) { tr_record_data_1("BNCH", 7, 1, block, int32_t{64}); },
     {"floor with a block", ""}},
    {"vsnprintf", [](uint32_t i) { format_alone(FORMAT, static_cast<int>(i), i, TEXT); }, {}},
    {"tr_record_fmt_string_1 (less vsnprintf)",
     [](uint32_t i) { tr_record_fmt_string_1("BNCH", 7, FORMAT, static_cast<int>(i), i, TEXT); },
     {"floor with a text", "vsnprintf"}},
};

int run(uint32_t fileSize, int argc, char **argv) {
    const std::string name = std::string(DIRECTORY) + "/bench-record-" + std::to_string(getpid());
    setenv("KZ_TR_FILENAME", name.c_str(), 1);
    setenv("KZ_TR_SIZE", std::to_string(fileSize).c_str(), 1);
    static const tr_category_description_t category = {0, "bench", 1, 1};
    const int32_t rc = tr_register_component_1("BNCH", levels, &category, 1);
    if (rc != 0) {
        fprintf(stderr, "registration failed: %d\n", rc);
        return 1;
    }
    map_ring(fileSize);
    park();
    std::map<std::string, ratio_base_t> bases;
    const auto add = [&bases](const subject_t &subject) {
        take_best(benchmark::RegisterBenchmark(subject.pName, BM_Alone, subject.record));
        bases[subject.pName] = subject.base;
    };
    std::for_each(std::begin(SUBJECTS), std::end(SUBJECTS), add);
    std::for_each(std::begin(BODY_SUBJECTS), std::end(BODY_SUBJECTS), add);
    for (const auto &subject : SUBJECTS) {
        const std::string shared = std::string(subject.pName) + ", 2 threads";
        take_best(benchmark::RegisterBenchmark(shared.c_str(), BM_TwoThreads, subject.record))
            ->UseManualTime()
            ->Iterations(1);
        bases[shared] = subject.base;
    }
    take_best(benchmark::RegisterBenchmark("load and compare", BM_LoadAndCompare));
    take_best(benchmark::RegisterBenchmark("tr_level_on (off)", BM_LevelTest));
    bases["tr_level_on (off)"] = {"load and compare", ""};
    benchmark::SetDefaultTimeUnit(benchmark::kNanosecond);
    std::vector<char *> args(argv, argv + argc);
    char shortRuns[] = "--benchmark_min_time=0.03";
    char mixed[] = "--benchmark_enable_random_interleaving=true"; // so that all see the same disturbances
    args.insert(args.begin() + 1, {shortRuns, mixed});
    int numArgs = static_cast<int>(args.size());
    benchmark::Initialize(&numArgs, args.data());
    ratio_reporter_t reporter(std::move(bases));
    printf("\n---- file of %u KiB ----\n", fileSize / 1024);
    benchmark::RunSpecifiedBenchmarks(&reporter);
    tr_term();
    unlink(name.c_str());
    return 0;
}

} // namespace

int main(int argc, char **argv) {
    for (const uint32_t fileSize : FILE_SIZES) {
        const pid_t child = fork();
        if (child == 0)
            exit(run(fileSize, argc, argv));
        int status = 0;
        if (waitpid(child, &status, 0) == -1 || status != 0)
            return 1;
    }
    return 0;
}
