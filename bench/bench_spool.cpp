// What spooling costs the thread that records: the same records into a file that is kept in pages, each of which is
// copied when it is full, and into a plain file of the same total size. Batches of them take turns.
//
// The wall time is that of the recording thread, from the first record of a batch to the last; copies are made meanwhile,
// and those still queued then are waited for outside it. Beside it stand the processor time of the recording thread
// (best) and that of the copy thread with all copies of the batch (median). On a machine with other work to do these still
// tell something.
//
// A batch counts when all its full pages were copied. In the others pages were taken back before their copies, which
// costs less: they are run again.
//
// Which processor the copy thread wakes up on makes more of a difference than anything else, so it is tied to one. The
// recording thread has another one, or shares it.
#include <fcntl.h>
#include <sched.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include "trace/kz_tr.h"
#include "trace/trace_format.h"

namespace {

namespace fs = std::filesystem;

constexpr uint32_t NUM_PAGES = 8;
constexpr uint32_t PAGE_SIZE = 256 * 1024;
constexpr uint32_t RECORD_SIZE = 44; // bytes of a record of two 32-bit values
constexpr uint32_t PAGES_PER_BATCH = 32;
constexpr uint32_t RECORDS_PER_PAGE = (PAGE_SIZE - TR_DATA_OFFSET) / RECORD_SIZE;
constexpr uint32_t RECORDS_PER_BATCH = PAGES_PER_BATCH * RECORDS_PER_PAGE;
constexpr size_t NUM_RUNS = 15;
constexpr int MAX_ROUNDS = 200;

enum category_t : uint32_t { CAT_PLAIN, CAT_PAGED, NUM_CATEGORIES };
enum processor_t : uint32_t { CPU_RECORDING, CPU_COPYING, NUM_CPUS };

tr_detail_level_t levels[NUM_CATEGORIES];
tr_file_token_t *pTokens;

[[noreturn]] void fail(const std::string &what) {
    fprintf(stderr, "bench_spool: %s\n", what.c_str());
    exit(1);
}

int64_t now_ns(clockid_t clock) {
    timespec now;
    clock_gettime(clock, &now);
    return int64_t{now.tv_sec} * 1'000'000'000 + now.tv_nsec;
}

// Processor time of all threads but this one. Both clocks go on between the two calls: a difference of none may come out
// as a few hundred nanoseconds.
int64_t others_ns() {
    return now_ns(CLOCK_PROCESS_CPUTIME_ID) - now_ns(CLOCK_THREAD_CPUTIME_ID);
}

// ---- Processors ----

// The first two that the process may use; the same one twice when it may use no other.
std::array<int, NUM_CPUS> find_processors() {
    cpu_set_t allowed;
    if (sched_getaffinity(0, sizeof allowed, &allowed) != 0)
        fail("which processors are there?");
    std::vector<int> found;
    for (int cpu = 0; cpu < CPU_SETSIZE && found.size() < NUM_CPUS; cpu++) {
        if (CPU_ISSET(cpu, &allowed))
            found.push_back(cpu);
    }
    return {found.front(), found.back()};
}

// Ties this thread, and those that it starts from now on.
void run_on(int cpu) {
    cpu_set_t chosen;
    CPU_ZERO(&chosen);
    CPU_SET(cpu, &chosen);
    if (sched_setaffinity(0, sizeof chosen, &chosen) != 0)
        fail("cannot run on processor " + std::to_string(cpu));
}

// ---- Pages and copies ----

uint8_t page_state(const std::string &name) {
    uint8_t state = 0;
    const int fd = open(name.c_str(), O_RDONLY);
    if (fd == -1 || pread(fd, &state, 1, offsetof(trace_file_header_t, sp_flags)) != 1)
        fail("cannot read " + name);
    close(fd);
    return state;
}

void wait_for_copies(const std::string &name) {
    for (uint32_t page = 1; page <= NUM_PAGES; page++) {
        const std::string pageName = name + "." + std::to_string(page) + ".sp";
        for (uint8_t state = page_state(pageName); state == TR_FULL || state == TR_COPYING;
             state = page_state(pageName))
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
}

// Makes room. Returns how many copies there were.
uint32_t remove_copies(const fs::path &dir) {
    uint32_t numCopies = 0;
    for (const auto &entry : fs::directory_iterator(dir)) {
        if (entry.file_size() != PAGE_SIZE)
            fail("a copy has another size than a page");
        fs::remove(entry);
        numCopies++;
    }
    return numCopies;
}

// ---- Batches ----

void record_batch(category_t category) {
    for (uint32_t i = 0; i < RECORDS_PER_BATCH; i++) {
        if (tr_level_on(levels, category, 1))
            tr_ms_record_values_32_1("BNCH", 7, pTokens[category], 2, i, i);
    }
}

struct subject_t {
    const char *pName;
    category_t category;
    processor_t processor;
};

constexpr std::array SUBJECTS = {
    subject_t{"a plain file", CAT_PLAIN, CPU_RECORDING},
    subject_t{"pages, copied on another processor", CAT_PAGED, CPU_RECORDING},
    subject_t{"pages, copied on the same processor", CAT_PAGED, CPU_COPYING},
};

struct batch_t {
    double wall, recording, copying; // ns a record
};

batch_t run_batch(category_t category, const std::string &pagedName) {
    const auto each = [](int64_t ns) { return static_cast<double>(ns) / RECORDS_PER_BATCH; };
    const int64_t others = others_ns();
    const int64_t own = now_ns(CLOCK_THREAD_CPUTIME_ID);
    const int64_t start = now_ns(CLOCK_MONOTONIC);
    record_batch(category);
    const int64_t wall = now_ns(CLOCK_MONOTONIC) - start;
    const int64_t recording = now_ns(CLOCK_THREAD_CPUTIME_ID) - own;
    wait_for_copies(pagedName);
    return {each(wall), each(recording), each(others_ns() - others)};
}

// The batches of a subject that count.
struct series_t {
    std::vector<double> wall, recording, copying;
    int numRun = 0;

    void add(const batch_t &batch) {
        wall.push_back(batch.wall);
        recording.push_back(batch.recording);
        copying.push_back(batch.copying);
    }
};

struct summary_t {
    double best, median;

    explicit summary_t(std::vector<double> values) {
        std::sort(values.begin(), values.end());
        best = values.front();
        median = values[values.size() / 2];
    }
};

using all_series_t = std::array<series_t, SUBJECTS.size()>;

void report(const all_series_t &all) {
    const summary_t floor(all[0].wall);
    printf("%-36s %7s %6s %9s %6s %11s %9s %12s\n", "ns a record", "best", "ratio", "median", "ratio", "own thread",
           "copying", "batches");
    for (size_t i = 0; i < all.size(); i++) {
        printf("%-36s ", SUBJECTS[i].pName);
        if (all[i].wall.empty()) {
            printf("in each of %d batches pages were taken back before their copies\n", all[i].numRun);
            continue;
        }
        const summary_t wall(all[i].wall);
        printf("%7.2f %6.2f %9.2f %6.2f %11.2f %9.2f %5zu of %3d\n", wall.best, wall.best / floor.best, wall.median,
               wall.median / floor.median, summary_t(all[i].recording).best,
               std::max(summary_t(all[i].copying).median, 0.0), all[i].wall.size(), all[i].numRun);
    }
}

// Runs a batch of each subject. The copies of the file that is kept in pages are in `pCopies`.
void run_round(all_series_t *pAll, const std::array<int, NUM_CPUS> &processors, const std::string &pagedName,
               const char *pCopies) {
    for (size_t i = 0; i < SUBJECTS.size(); i++) {
        run_on(processors[SUBJECTS[i].processor]);
        const batch_t batch = run_batch(SUBJECTS[i].category, pagedName);
        const uint32_t numFull = SUBJECTS[i].category == CAT_PAGED ? PAGES_PER_BATCH : 0;
        (*pAll)[i].numRun++;
        if (remove_copies(pCopies) >= numFull)
            (*pAll)[i].add(batch);
    }
}

void measure(const std::string &dir) {
    const std::string pagedName = dir + "/paged";
    static const tr_category_description_t categories[NUM_CATEGORIES] = {{CAT_PLAIN, "plain", 1, 1},
                                                                         {CAT_PAGED, "paged", 1, 1}};
    const auto processors = find_processors();
    if (processors[CPU_RECORDING] == processors[CPU_COPYING])
        printf("There is only one processor.\n");
    run_on(processors[CPU_COPYING]);
    const int32_t rc = tr_ms_register_component_1("BNCH", levels, categories, NUM_CATEGORIES, &pTokens);
    const char *const pCopies = tr_get_spool_dir_1(pagedName.c_str());
    if (rc != 0 || pCopies == nullptr)
        fail("registration gave " + std::to_string(rc) + ", or there is no spool directory");
    all_series_t all;
    run_round(&all, processors, pagedName, pCopies); // takes the blocks of the files
    all = {};
    const auto is_short = [](const series_t &series) { return series.wall.size() < NUM_RUNS; };
    for (int i = 0; i < MAX_ROUNDS && std::any_of(all.begin(), all.end(), is_short); i++)
        run_round(&all, processors, pagedName, pCopies);
    report(all);
}

} // namespace

int main() {
    const std::string dir = "/dev/shm/bench-spool-" + std::to_string(getpid());
    const std::string plainName = dir + "/plain", pagedName = dir + "/paged";
    const std::string size = std::to_string(NUM_PAGES * PAGE_SIZE);
    const std::string pages = std::to_string(NUM_PAGES);
    fs::create_directory(dir);
    unsetenv("KZ_TR_FILENAME");
    setenv("KZ_TR_FILE_MAP", (plainName + ",BNCH:plain;" + pagedName + ",BNCH:paged").c_str(), 1);
    setenv("KZ_TR_FILE_SIZE", (plainName + "," + size + ";" + pagedName + "," + size).c_str(), 1);
    setenv("KZ_TR_SPOOL", ("/paged$:ON:" + pages + ":" + dir + "/copies").c_str(), 1);
    printf("%u pages of %u KiB, batches of %u records, 1 recording thread\n", NUM_PAGES, PAGE_SIZE / 1024,
           RECORDS_PER_BATCH);
    fflush(stdout);
    // In a process of its own, so that what it leaves is removed when it fails as well.
    const pid_t child = fork();
    if (child == 0) {
        measure(dir);
        exit(0);
    }
    int status = 1;
    const bool bDone = waitpid(child, &status, 0) == child && status == 0;
    fs::remove_all(dir);
    return bDone ? 0 : 1;
}
