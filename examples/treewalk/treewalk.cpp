// treewalk [--levels TEXT] [--status] [DIR]: walks a directory tree, /usr/include by default, and hashes every file in it with a
// few threads.
//
// The main thread walks and queues the files, the workers read them. What they do is recorded all the time; trace.h
// tells the trace points. KZ_TR_FILENAME names the trace file, KZ_TR_TRACE_LEVELS and KZ_TR_FILE_MAP say how much is
// recorded and where. --levels does what a program with a console or a control socket does: it sets levels by a call.
// --status tells at the end which trace files there are, and where full pages of those go that are kept in pages.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cinttypes>
#include <condition_variable>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <deque>
#include <filesystem>
#include <mutex>
#include <optional>
#include <string>
#include <system_error>
#include <thread>
#include <utility>
#include <vector>

#include "trace.h"

namespace fs = std::filesystem;

constexpr uint32_t NUM_WORKERS = 4;
constexpr size_t QUEUE_LIMIT = 256; // files
constexpr size_t BLOCK_SIZE = size_t{64} * 1024;
constexpr size_t HEAD_SIZE = 16; // bytes of a block that its record shows

struct file_t {
    uint32_t number;
    std::string path;
};

// Files on their way from the walk to the workers.
class queue_t {
  public:
    // Waits while the queue is full.
    void push(file_t file, uint64_t size) {
        std::unique_lock lock(mutex);
        if (files.size() >= QUEUE_LIMIT) {
            walk_trace.id(WALK_CAT_FILE, 1, WALK_QUEUE_FULL);
            notFull.wait(lock, [this] { return files.size() < QUEUE_LIMIT; });
        }
        // Recorded before a worker can have the file: in the trace its story begins here.
        walk_trace.values_64(WALK_CAT_FILE, 1, WALK_FILE_QUEUED, file.number, size, files.size() + 1);
        files.push_back(std::move(file));
        notEmpty.notify_one();
    }

    // Waits while the queue is empty. Returns nothing once it is closed and empty.
    std::optional<file_t> pop(uint32_t *pNumLeft) {
        std::unique_lock lock(mutex);
        notEmpty.wait(lock, [this] { return !files.empty() || bClosed; });
        if (files.empty())
            return std::nullopt;
        file_t file = std::move(files.front());
        files.pop_front();
        *pNumLeft = static_cast<uint32_t>(files.size());
        notFull.notify_one();
        return file;
    }

    void close() {
        const std::lock_guard lock(mutex);
        bClosed = true;
        notEmpty.notify_all();
    }

  private:
    std::mutex mutex;
    std::condition_variable notEmpty, notFull;
    std::deque<file_t> files;
    bool bClosed = false;
};

// What all threads work on, and what they have done.
struct job_t {
    queue_t queue;
    uint32_t numDirs = 0, numQueued = 0; // the walk's own
    std::atomic<uint64_t> numFiles = 0, numBytes = 0, numErrors = 0;
};

// ---- The workers ----

// FNV-1a, 64 bits: small, and good enough to tell files apart.
static uint64_t hash_block(uint64_t hash, const unsigned char *pBlock, size_t size) {
    for (size_t i = 0; i < size; i++)
        hash = (hash ^ pBlock[i]) * 0x100000001b3;
    return hash;
}

// Reads and hashes an open file. Returns false, with errno set, when it cannot be read.
static bool hash_open_file(job_t *pJob, int fd, uint32_t fileNumber, std::vector<unsigned char> *pBlock) {
    uint64_t hash = 0xcbf29ce484222325;
    uint64_t numBytes = 0;
    ssize_t numRead = 0;
    while ((numRead = read(fd, pBlock->data(), pBlock->size())) > 0) {
        const auto size = static_cast<size_t>(numRead);
        hash = hash_block(hash, pBlock->data(), size);
        numBytes += size;
        hash_trace.values_32(HASH_CAT_READ, 2, HASH_BLOCK_READ, fileNumber, static_cast<uint32_t>(size));
        hash_trace.data(HASH_CAT_READ, 3, HASH_BLOCK_DATA, pBlock->data(), std::min(size, HEAD_SIZE), &hash,
                        sizeof hash);
    }
    if (numRead < 0)
        return false;
    hash_trace.values_64(HASH_CAT_DONE, 1, HASH_FILE_DONE, fileNumber, numBytes, hash);
    pJob->numFiles++;
    pJob->numBytes += numBytes;
    return true;
}

static void work(job_t *pJob, uint32_t worker) {
    std::vector<unsigned char> block(BLOCK_SIZE);
    uint32_t numLeft = 0;
    hash_trace.values_32(HASH_CAT_OPEN, 1, HASH_WORKER_BEGIN, worker);
    while (const auto file = pJob->queue.pop(&numLeft)) {
        const int fd = open(file->path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
        if (fd >= 0)
            hash_trace.values_32(HASH_CAT_OPEN, 1, HASH_FILE_OPENED, file->number, worker, numLeft);
        if (fd < 0 || !hash_open_file(pJob, fd, file->number, &block)) {
            hash_trace.format(HASH_CAT_OPEN, 1, HASH_FILE_ERROR, "file %" PRIu32 ", %s: %s", file->number,
                              file->path.c_str(), strerrordesc_np(errno));
            pJob->numErrors++;
        }
        if (fd >= 0)
            (void)close(fd); // nothing was written
    }
}

// ---- The walk ----

static void walk_dir(job_t *pJob, const fs::path &dir, uint32_t depth);

// Symbolic links are not followed: neither directory nor file.
static void look_at(job_t *pJob, const fs::path &path, uint32_t dirNumber, uint32_t depth) {
    struct stat status;
    if (lstat(path.c_str(), &status) != 0) {
        walk_trace.values_32(WALK_CAT_FILE, 1, WALK_FILE_ERROR, dirNumber, errno);
        pJob->numErrors++;
    } else if (S_ISDIR(status.st_mode)) {
        walk_dir(pJob, path, depth + 1);
    } else if (S_ISREG(status.st_mode)) {
        if (walk_trace.is_on(WALK_CAT_FILE, 2)) // taking the path apart costs more than the record
            walk_trace.texts(WALK_CAT_FILE, 2, WALK_FILE_NAME, path.parent_path().c_str(), path.filename().c_str());
        pJob->queue.push({++pJob->numQueued, path}, static_cast<uint64_t>(status.st_size));
    }
}

static void walk_dir(job_t *pJob, const fs::path &dir, uint32_t depth) {
    const uint32_t dirNumber = ++pJob->numDirs;
    uint32_t numEntries = 0;
    std::error_code error;
    walk_trace.values_32(WALK_CAT_DIR, 1, WALK_DIR_ENTERED, dirNumber, depth);
    for (fs::directory_iterator entry(dir, error); !error && entry != fs::directory_iterator();
         entry.increment(error)) {
        numEntries++;
        look_at(pJob, entry->path(), dirNumber, depth);
    }
    if (error) {
        walk_trace.values_32(WALK_CAT_DIR, 1, WALK_DIR_ERROR, dirNumber, error.value());
        pJob->numErrors++;
    }
    walk_trace.values_32(WALK_CAT_DIR, 2, WALK_DIR_LEFT, dirNumber, numEntries);
}

static void walk_tree(job_t *pJob, const char *pDir) {
    std::vector<std::jthread> workers; // waits for them at the end
    walk_trace.values_32(WALK_CAT_RUN, 1, WALK_BEGIN, NUM_WORKERS, static_cast<uint32_t>(QUEUE_LIMIT));
    for (uint32_t i = 0; i < NUM_WORKERS; i++)
        workers.emplace_back(work, pJob, i);
    walk_dir(pJob, pDir, 0);
    pJob->queue.close();
}

static void set_levels(const char *pText) {
    const int32_t rc = tr_set_trace_levels_1(pText);
    if (rc == 0)
        return;
    walk_trace.error(WALK_CAT_RUN, 1, WALK_LEVELS_REFUSED, __func__, __LINE__, __FILE_NAME__);
    (void)fprintf(stderr, "treewalk: the levels stay as they are (%d); to see why: kztrace levels '%s'\n", rc, pText);
}

struct options_t {
    const char *pLevels = nullptr;
    bool bStatus = false;
    const char *pDir = "/usr/include";
};

// Returns false when the arguments are not those of this program.
static bool parse_options(int argc, char **argv, options_t *pOptions) {
    int i = 1;
    for (; i < argc && argv[i][0] == '-'; i++) {
        if (strcmp(argv[i], "--levels") == 0 && i + 1 < argc)
            pOptions->pLevels = argv[++i];
        else if (strcmp(argv[i], "--status") == 0)
            pOptions->bStatus = true;
        else
            return false;
    }
    if (i < argc)
        pOptions->pDir = argv[i++];
    return i >= argc;
}

int main(int argc, char **argv) {
    options_t options;
    if (!parse_options(argc, argv, &options)) {
        (void)fprintf(stderr, "usage: treewalk [--levels TEXT] [--status] [DIR]\n");
        return 2;
    }
    begin_trace();
    set_levels(options.pLevels); // none: nothing is done
    job_t job;
    const auto begin = std::chrono::steady_clock::now();
    walk_tree(&job, options.pDir);
    const std::chrono::duration<double> seconds = std::chrono::steady_clock::now() - begin;
    char summary[200];
    (void)snprintf(summary, sizeof summary,
                   "%" PRIu32 " directories, %" PRIu64 " files, %" PRIu64 " bytes, %" PRIu64 " errors in %.3f seconds",
                   job.numDirs, job.numFiles.load(), job.numBytes.load(), job.numErrors.load(), seconds.count());
    walk_trace.format(WALK_CAT_RUN, 1, WALK_END, "%s", summary);
    puts(summary);
    if (options.bStatus)
        print_trace_status();
    return job.numErrors == 0 ? 0 : 1; // the trace files are flushed and closed by the library
}
