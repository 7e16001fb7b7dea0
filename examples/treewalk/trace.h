// What treewalk records: its components, their categories, and the trace points of each.
//
// A trace point is one line:
//
//     walk_trace.values_32(WALK_CAT_DIR, 1, WALK_DIR_ENTERED, dirNumber, depth);
//
// It costs one load and one compare while the category's level is below the one named, here 1. Its arguments are
// evaluated all the same, so they are things at hand; what has to be worked out first goes behind is_on().
//
// Files and directories are told by number: the n-th directory entered, the n-th file queued.
#ifndef TREEWALK_TRACE_H
#define TREEWALK_TRACE_H

#include <cstdarg>
#include <cstddef>
#include <cstdint>

#include <kz_tr.h>

// ---- Component WALK: the thread that walks the tree ----

enum walk_category_t : uint32_t { WALK_CAT_RUN, WALK_CAT_DIR, WALK_CAT_FILE, WALK_NUM_CATEGORIES };

enum walk_point_t : uint32_t {
    WALK_BEGIN = 1,           // run, level 1, 32 bits: number of workers, most files that the queue holds
    WALK_DIR_ENTERED = 2,     // dir, level 1, 32 bits: directory, its depth (0: the one given)
    WALK_DIR_LEFT = 3,        // dir, level 2, 32 bits: directory, entries seen in it
    WALK_DIR_ERROR = 4,       // dir, level 1, 32 bits: directory, errno
    WALK_FILE_QUEUED = 5,     // file, level 1, 64 bits: file, its size in bytes, files in the queue with it
    WALK_FILE_NAME = 6,       // file, level 2, texts: directory and name of the file that is queued next
    WALK_FILE_ERROR = 7,      // file, level 1, 32 bits: directory, errno: an entry of it that could not be looked at
    WALK_QUEUE_FULL = 8,      // file, level 1, nothing: the walk waits for a worker
    WALK_END = 9,             // run, level 1, text: what was done, how fast
    WALK_LEVELS_REFUSED = 10, // run, level 1, error: what is wrong with the text of --levels
};

// ---- Component HASH: the threads that read the files ----

enum hash_category_t : uint32_t { HASH_CAT_OPEN, HASH_CAT_READ, HASH_CAT_DONE, HASH_NUM_CATEGORIES };

enum hash_point_t : uint32_t {
    HASH_WORKER_BEGIN = 1, // open, level 1, 32 bits: worker
    HASH_FILE_OPENED = 2,  // open, level 1, 32 bits: file, worker, files left in the queue
    HASH_FILE_ERROR = 3,   // open, level 1, text: file, and why it could not be opened or read
    HASH_BLOCK_READ = 4,   // read, level 2, 32 bits: file, bytes in this block
    HASH_BLOCK_DATA = 5,   // read, level 3, data: first bytes of the block, hash value up to its end
    HASH_FILE_DONE = 6,    // done, level 1, 64 bits: file, bytes read, hash value (FNV-1a)
};

// ---- The components themselves ----

// A component and what registration gives it. Until then, or when it fails, all levels are 0 and nothing is recorded.
template <size_t NUM> struct component_t {
    const char *pId;
    tr_category_description_t categories[NUM];
    tr_detail_level_t levels[NUM]; // written by the library, also while the program runs
    tr_file_token_t *pTokens;      // one a category: which file it is recorded into; likewise

    int32_t enroll() {
        return tr_ms_register_component_1(pId, levels, categories, NUM, &pTokens);
    }

    bool is_on(uint32_t category, tr_detail_level_t level) const {
        return tr_level_on(levels, category, level) != 0;
    }

    void id(uint32_t category, tr_detail_level_t level, uint32_t point) const {
        if (is_on(category, level))
            tr_ms_record_id_1(pId, point, pTokens[category]);
    }

    // The library takes its values from a variable argument list: each must have exactly the width that it expects.
    template <typename... Values>
    void values_32(uint32_t category, tr_detail_level_t level, uint32_t point, Values... values) const {
        static_assert(((sizeof(Values) <= sizeof(uint32_t)) && ...), "does not fit: use values_64");
        if (is_on(category, level))
            tr_ms_record_values_32_1(pId, point, pTokens[category], sizeof...(values),
                                     static_cast<uint32_t>(values)...);
    }

    template <typename... Values>
    void values_64(uint32_t category, tr_detail_level_t level, uint32_t point, Values... values) const {
        if (is_on(category, level))
            tr_ms_record_values_64_1(pId, point, pTokens[category], sizeof...(values),
                                     static_cast<uint64_t>(values)...);
    }

    template <typename... Texts>
    void texts(uint32_t category, tr_detail_level_t level, uint32_t point, Texts... texts) const {
        if (is_on(category, level))
            tr_ms_record_strings_1(pId, point, pTokens[category], sizeof...(texts),
                                   static_cast<const char *>(texts)...);
    }

    // Formatting takes its time: for what happens seldom.
    KZ_TR_PRINTF(5, 6) // counted from 2: the object itself is the first argument
    void format(uint32_t category, tr_detail_level_t level, uint32_t point, const char *pFormat, ...) const {
        if (!is_on(category, level))
            return;
        va_list args;
        va_start(args, pFormat);
        tr_ms_record_vfmt_string_1(pId, point, pTokens[category], pFormat, args);
        va_end(args);
    }

    void data(uint32_t category, tr_detail_level_t level, uint32_t point, const void *pBlock1, size_t size1,
              const void *pBlock2, size_t size2) const {
        if (is_on(category, level))
            tr_ms_record_data_1(pId, point, pTokens[category], 2, pBlock1, static_cast<int32_t>(size1), pBlock2,
                                static_cast<int32_t>(size2));
    }

    // The thread's current error, as the call that failed last left it.
    void error(uint32_t category, tr_detail_level_t level, uint32_t point, const char *pFunction, uint32_t line,
               const char *pFile) const {
        if (is_on(category, level))
            tr_ms_record_error_1(pId, point, pTokens[category], pFunction, line, pFile, nullptr);
    }
};

extern component_t<WALK_NUM_CATEGORIES> walk_trace;
extern component_t<HASH_NUM_CATEGORIES> hash_trace;

// Registers both components. Says on standard error where the trace is to be had, or why there is none; the program
// goes on without it.
void begin_trace();

// Tells on standard output which trace files there are, and where full pages of them are copied.
void print_trace_status();

#endif
