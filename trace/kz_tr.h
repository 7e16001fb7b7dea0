/* kz_tr: records what a long-running program does, cheaply and all the time, into memory-mapped trace files.
 *
 * A program registers its components once. A component has categories, each with a detail level that the library keeps
 * in an array owned by the program; operators change the levels. At a trace point the program tests that array and
 * calls a recording function:
 *
 *     static tr_detail_level_t levels[2];
 *     static const tr_category_description_t categories[2] = {{0, "io", 3, 1}, {1, "net", 3, 0}};
 *     static tr_file_token_t *tokens;
 *     ...
 *     tr_ms_register_component_1("ABCD", levels, categories, 2, &tokens);
 *     ...
 *     if (tr_level_on(levels, 0, 1))
 *         tr_ms_record_values_32_1("ABCD", 7, tokens[0], 2, bytesRead, bytesWanted);
 *
 * There is no start call: registration reads the environment (KZ_TR_FILENAME names the default trace file) and starts
 * the files. At process exit the files are flushed and closed.
 *
 * Results: 0 is success, a positive number an error. The control functions leave a numbered message with it, which
 * cu_get_error_1 of libkz_cu hands out; the recording functions return their code and leave that message alone.
 *
 * Threads: every function may be called from any thread at any time, none from a signal handler. A thread that is
 * cancelled inside a function leaves no lock held. After a fork the child records nothing.
 *
 * What every recording function has in common:
 *
 * pCompId    the component's identifier: 1 to 4 characters and a zero byte, longer ones count by their first 4; copied
 * traceId    the caller's number for this trace point (`id` in the identifier records); stored as it is
 * fileToken  from registration, or NULL for the default trace file; stays valid until the process ends
 *
 * Returns 0, also when tracing is off, the file is not started or the record does not fit (nothing is recorded then); 2
 * when pCompId is NULL or empty; 9 when the lock failed. Sets no error message and keeps errno. Allocates nothing, and
 * makes no system call unless another thread holds the file. May wait for other recorders of the file, for a control
 * function that works on it, and up to 2.5 s for a reader that holds a record. When it finds the file damaged it keeps
 * it under its name with ".save" appended, starts a fresh one and says so on standard error. */
#ifndef KZ_TRACE_KZ_TR_H
#define KZ_TRACE_KZ_TR_H

#include <stdarg.h>
#include <stdint.h>
#include <sys/types.h>

#define KZ_TR_API __attribute__((visibility("default")))

#ifdef __cplusplus
extern "C" {
#endif

/* Detail level of a category: 0 is off, higher is more detail. */
typedef uint8_t tr_detail_level_t;

/* A trace file, as registration hands it out per category. NULL stands for the default trace file. */
typedef struct trace_anchor_t *tr_file_token_t;

/* One category of a component, as its program describes it. */
typedef struct tr_category_description_t {
    uint32_t category_id;             /* index of the category's entry in the level array; below the category count */
    const char *category_name;        /* matched by level and map specifications; not NULL, not empty */
    uint32_t default_level_of_detail; /* 0 to 255: what a specification without a number selects */
    uint32_t minimum_level_of_detail; /* 0 to 255: initial level, and floor under explicit levels set later */
} tr_category_description_t;

/* An open query on a trace file. */
typedef void *tr_query_handle_t;

/* One component of a level report. */
typedef struct tr_mini_component_anchor_t {
    char compId[5];
    tr_detail_level_t *pDetailLevels; /* numberOfCategories levels as they were at the call */
    int32_t numberOfCategories;
    tr_category_description_t *categories; /* category_id and category_name are set, the levels carry nothing */
} tr_mini_component_anchor_t;

struct cu_error_t; /* kz_cu.h */
struct sp_q_t;     /* the library's own: the queue of copies and its elements */
struct sp_q_element_t;

/* Functions that the library hands to libkz_cu, so that it can flush and record traces without being linked to it. */
typedef int32_t (*tr_flush_func_t)(void);
typedef int32_t (*tr_record_vfmt_string_func_t)(const char *pCompId, uint32_t traceId, const char *pFormat,
                                                va_list args);
typedef struct tr_proxy_func_table_t {
    tr_flush_func_t p_tr_flush;
    tr_record_vfmt_string_func_t p_tr_record_vfmt_string; /* NULL: not offered */
} tr_proxy_func_table_t;

/* The table itself; it never changes. */
KZ_TR_API extern tr_proxy_func_table_t _trp_funcs;

/* ---- Trace points ---- */

/* Tests a trace point: non-zero when the category's level is at least `level`. One load and one compare.
 *
 * pLevels   the level array given at registration
 * category  index of the category in it
 * level     detail level that the record needs, 1 to 255 (0 would always be on) */
static inline int tr_level_on(const tr_detail_level_t *pLevels, uint32_t category, tr_detail_level_t level) {
    return __builtin_expect(__atomic_load_n(&pLevels[category], __ATOMIC_RELAXED) >= level, 0) != 0;
}

/* ---- Registration ---- */

/* Registers a component and starts the trace files that now have something to record. Initialises the library.
 *
 * pComponentId        identifier; its first 4 characters count and must be unique in the process; copied
 * pLevelArray         numberOfCategories levels, owned by the caller, who keeps it until unregistration; written now
 *                     and whenever levels change
 * pCategoryDesc       numberOfCategories descriptions; copied with their names
 * numberOfCategories  1 to 255
 * fileTokens          receives the array of numberOfCategories file tokens, entry i for description i; owned by the
 *                     library, valid until unregistration; a file map changes its entries. NULL: not wanted
 *
 * Returns 0; 1 to 8 for a bad argument (number of categories; identifier missing; descriptions NULL; level array NULL;
 * name missing; category_id too large; default level, minimum level above 255); 38 when the identifier is registered
 * already; 9 when the lock failed; 14 when memory is short. With 17 to 23, 35 or -1 the component is registered, but the
 * trace file started last could not be opened (its records are dropped), or, with -1, its mode not be set.
 * Takes the global lock; waits for file operations. A cancelled call leaves nothing registered. */
KZ_TR_API int32_t tr_ms_register_component_1(const char *pComponentId, tr_detail_level_t *pLevelArray,
                                             const tr_category_description_t *pCategoryDesc,
                                             uint32_t numberOfCategories, tr_file_token_t **fileTokens);

/* The same for a component that writes to the default trace file only. */
KZ_TR_API int32_t tr_register_component_1(const char *pComponentId, tr_detail_level_t *pLevelArray,
                                          const tr_category_description_t *pCategoryDesc, uint32_t numberOfCategories);
KZ_TR_API int32_t __tr_register_component_1(const char *pComponentId, tr_detail_level_t *pLevelArray,
                                            const tr_category_description_t *pCategoryDesc,
                                            uint32_t numberOfCategories);

/* Takes a component back: its levels become 0, its token array is freed. Stops every trace file when no component is
 * left that records anything.
 *
 * pComponentId  as registered
 *
 * Returns 0; 2 when pComponentId is NULL or empty; 26 when it is not registered; 9 when the lock failed, and, without a
 * message, when tracing is stopped for the process. Takes the global lock; waits for recorders and for the disk. */
KZ_TR_API int32_t tr_unregister_component_1(const char *pComponentId);
KZ_TR_API int32_t __tr_unregister_component_1(const char *pComponentId);

/* ---- Identifier records: a trace point was passed ---- */

KZ_TR_API int32_t tr_ms_record_id_1(const char *pCompId, uint32_t id, tr_file_token_t fileToken);
/* Into the default trace file. */
KZ_TR_API int32_t tr_record_id_1(const char *pCompId, uint32_t id);

/* ---- Records of values ----
 *
 * numValues  how many values follow; those that do not fit into half of the file's data area are neither read nor
 *            stored
 * values     of 4 bytes (int32_t or uint32_t) in the 32-bit forms, of 8 bytes (int64_t or uint64_t) in the 64-bit
 *            forms; a `_v` form advances the argument list by the values that it stores */

KZ_TR_API int32_t tr_ms_record_values_32_v_1(const char *pCompId, uint32_t traceId, tr_file_token_t fileToken,
                                             uint32_t numValues, va_list values);
KZ_TR_API int32_t tr_ms_record_values_32_1(const char *pCompId, uint32_t traceId, tr_file_token_t fileToken,
                                           uint32_t numValues, ...);
/* Into the default trace file. */
KZ_TR_API int32_t tr_record_values_32_v_1(const char *pCompId, uint32_t traceId, uint32_t numValues, va_list values);
KZ_TR_API int32_t tr_record_values_32_1(const char *pCompId, uint32_t traceId, uint32_t numValues, ...);

KZ_TR_API int32_t tr_ms_record_values_64_v_1(const char *pCompId, uint32_t traceId, tr_file_token_t fileToken,
                                             uint32_t numValues, va_list values);
KZ_TR_API int32_t tr_ms_record_values_64_1(const char *pCompId, uint32_t traceId, tr_file_token_t fileToken,
                                           uint32_t numValues, ...);
/* Into the default trace file. */
KZ_TR_API int32_t tr_record_values_64_v_1(const char *pCompId, uint32_t traceId, uint32_t numValues, va_list values);
KZ_TR_API int32_t tr_record_values_64_1(const char *pCompId, uint32_t traceId, uint32_t numValues, ...);

/* One or two values into the default trace file. */
KZ_TR_API int32_t tr_record_int32_1(const char *pCompId, uint32_t traceId, int32_t iValue);
KZ_TR_API int32_t tr_record_int32_2_1(const char *pCompId, uint32_t traceId, int32_t iValue1, int32_t iValue2);
KZ_TR_API int32_t tr_record_uint32_1(const char *pCompId, uint32_t traceId, uint32_t uValue);
KZ_TR_API int32_t tr_record_uint32_2_1(const char *pCompId, uint32_t traceId, uint32_t uValue1, uint32_t uValue2);
KZ_TR_API int32_t tr_record_int64_1(const char *pCompId, uint32_t traceId, int64_t iValue);
KZ_TR_API int32_t tr_record_int64_2_1(const char *pCompId, uint32_t traceId, int64_t iValue1, int64_t iValue2);
KZ_TR_API int32_t tr_record_uint64_1(const char *pCompId, uint32_t traceId, uint64_t uValue);
KZ_TR_API int32_t tr_record_uint64_2_1(const char *pCompId, uint32_t traceId, uint64_t uValue1, uint64_t uValue2);

/* ---- Records of texts ----
 *
 * numStrings  1 to 32
 * strings     numStrings texts (const char *), none NULL or empty; the first that does not fit into half of the file's
 *             data area and those behind it are left out
 * pFormat     as for printf, not empty; the text is cut to 1,023 characters. "%m" is the error of the caller's errno
 * parms       the arguments of pFormat
 *
 * Return also 27 when a text is NULL or empty, 33 when pFormat is, 34 for a wrong numStrings, 28 when formatting failed;
 * nothing is recorded then. Formatting takes place under the file's lock. */

#define KZ_TR_PRINTF(formatArg, firstArg) __attribute__((format(printf, formatArg, firstArg)))

KZ_TR_API int32_t tr_ms_record_strings_v_1(const char *pCompId, uint32_t traceId, tr_file_token_t fileToken,
                                           uint32_t numStrings, va_list strings);
KZ_TR_API int32_t tr_ms_record_strings_1(const char *pCompId, uint32_t traceId, tr_file_token_t fileToken,
                                         uint32_t numStrings, ...);
/* Into the default trace file. */
KZ_TR_API int32_t tr_record_strings_v_1(const char *pCompId, uint32_t traceId, uint32_t numStrings, va_list strings);
KZ_TR_API int32_t tr_record_strings_1(const char *pCompId, uint32_t traceId, uint32_t numStrings, ...);
/* One text, with the trace identifier 4294967295, into the default trace file. */
KZ_TR_API int32_t tr_record_string_1(const char *pCompId, const char *pString);

KZ_TR_API int32_t tr_ms_record_vfmt_string_1(const char *pCompId, uint32_t traceId, tr_file_token_t fileToken,
                                             const char *pFormat, va_list parms) KZ_TR_PRINTF(4, 0);
KZ_TR_API int32_t tr_ms_record_fmt_string_1(const char *pCompId, uint32_t traceId, tr_file_token_t fileToken,
                                            const char *pFormat, ...) KZ_TR_PRINTF(4, 5);
/* Into the default trace file. */
KZ_TR_API int32_t tr_record_vfmt_string_1(const char *pCompId, uint32_t traceId, const char *pFormat, va_list parms)
    KZ_TR_PRINTF(3, 0);
KZ_TR_API int32_t tr_record_fmt_string_1(const char *pCompId, uint32_t traceId, const char *pFormat, ...)
    KZ_TR_PRINTF(3, 4);
/* With the trace identifier 4294967295, into the default trace file. */
KZ_TR_API int32_t tr_record_vprintf_1(const char *pCompId, const char *pFormat, va_list parms) KZ_TR_PRINTF(2, 0);
KZ_TR_API int32_t tr_record_printf_1(const char *pCompId, const char *pFormat, ...) KZ_TR_PRINTF(2, 3);

/* ---- Records of data blocks ----
 *
 * blkCount  0 to 128
 * blocks    blkCount times a pointer (const void *, not NULL) and a length in bytes (int32_t, 0 to 1,048,576); the first
 *           block that does not fit into half of the file's data area and those behind it are left out
 *
 * Return also 29 for more than 128 blocks, 30 when a pointer is NULL, 31 when a length is out of range; nothing is
 * recorded then. */

KZ_TR_API int32_t tr_ms_record_data_v_1(const char *pCompId, uint32_t traceId, tr_file_token_t fileToken,
                                        uint32_t blkCount, va_list blocks);
KZ_TR_API int32_t tr_ms_record_data_1(const char *pCompId, uint32_t traceId, tr_file_token_t fileToken,
                                      uint32_t blkCount, ...);
/* Into the default trace file. */
KZ_TR_API int32_t tr_record_data_v_1(const char *pCompId, uint32_t traceId, uint32_t blkCount, va_list blocks);
KZ_TR_API int32_t tr_record_data_1(const char *pCompId, uint32_t traceId, uint32_t blkCount, ...);

/* ---- Records of error objects ----
 *
 * pFuncName   function in which the error was met, or NULL
 * lineNumber  line in it
 * pFileName   source file, or NULL
 * pErrorInfo  where the error object's pointer is. An object there is recorded and stays the caller's. A null pointer
 *             there: the thread's current error is fetched, recorded and stored there, and the caller releases it with
 *             cu_rel_error_1. NULL: the current error is recorded
 *
 * An object whose cu_error_id is 0 is not recorded, and one that is too long for the file is not either. Fetching the
 * current error allocates. */

KZ_TR_API int32_t tr_ms_record_error_1(const char *pCompId, uint32_t traceId, tr_file_token_t fileToken,
                                       const char *pFuncName, uint32_t lineNumber, const char *pFileName,
                                       struct cu_error_t **pErrorInfo);
/* Into the default trace file. */
KZ_TR_API int32_t tr_record_error_1(const char *pCompId, uint32_t traceId, const char *pFuncName, uint32_t lineNumber,
                                    const char *pFileName, struct cu_error_t **pErrorInfo);

/* ---- Trace levels and file maps ---- */

/* Sets detail levels by a trace level specification, for the components registered and for those that come later.
 * Initialises the library.
 *
 * pLevelString  entries "component:category=level" separated by commas. Component and category are extended regular
 *               expressions, matched anywhere in the identifier and the name without regard to case; "*" alone matches
 *               all. Without "=level", and with "=-1", each category gets its default level as described; another
 *               level does not go below the category's minimum, and its low eight bits are stored. NULL: nothing is
 *               done
 *
 * Returns 0; 10 to 13, 15 and 16 for a fault in the text, with its offset in the message (the text is refused whole); 14
 * when memory is short; 9 when the lock failed; or, with the levels set, the code of the trace file started last that
 * could not be opened (17 to 23, 35, -1). Takes the global lock; waits for file operations. */
KZ_TR_API int32_t tr_set_trace_levels_1(const char *pLevelString);
KZ_TR_API int32_t __tr_set_trace_levels_1(const char *pLevelString);

/* Sends categories to a trace file of their own, for the components registered and for those that come later: their
 * entries of the token arrays change. Initialises the library.
 *
 * fileName      the trace file, used as it is, at most 4,095 characters; empty or NULL: back to the default trace file
 * selectString  entries "component:category" separated by commas, patterns as in tr_set_trace_levels_1
 *
 * Returns 0, also when tracing is stopped for the process (nothing is done then); 10 to 12, 15 and 16 for a fault in the
 * list, with its offset in the message (the list is refused whole); 17 when the name is too long; and otherwise as
 * tr_set_trace_levels_1. */
KZ_TR_API int32_t tr_set_file_map_1(const char *fileName, const char *selectString);

/* Clean-up of the two parsers: removes from a list what came behind its recorded tail.
 *
 * pArg  the addresses of the list's head and of its tail, and the tail as the parsing began */
KZ_TR_API void cancel_parse_trace_spec(void *pArg);
KZ_TR_API void cancel_parse_map_spec(void *pArg);

/* Hands out a snapshot of all registered components with their levels, the newest component first.
 *
 * componentCount  receives the number of components
 * components      receives an array of so many, to be given back to tr_release_comp_info_1; NULL for none
 *
 * Returns 0; -1 when memory is short, the lock failed or an argument is NULL, without a message. */
KZ_TR_API int32_t tr_get_current_trace_levels_1(int32_t *componentCount, tr_mini_component_anchor_t **components);

/* Gives back a snapshot. NULL or a count of 0: does nothing. */
KZ_TR_API void tr_release_comp_info_1(int32_t componentCount, tr_mini_component_anchor_t *components);

/* ---- Names and sizes of trace files ----
 *
 * All initialise the library and take the global lock. A file that is started is flushed, stopped and started again to
 * take a new name or size; what is recorded to it meanwhile waits or is dropped. The size functions do nothing and
 * return 0 when tracing is stopped for the process. All return 9 when the lock failed, and with a new name or size the
 * codes of opening a trace file (17 to 23, 35, -1). */

/* Names the default trace file.
 *
 * pFileName  used as it is, at most 4,095 characters; empty: no default trace file any more; NULL: stops every trace
 *            file and keeps the name
 *
 * Returns 0, or 17 when the name is too long. */
KZ_TR_API int32_t tr_set_filename_1(const char *pFileName);
KZ_TR_API int32_t __tr_set_filename_1(const char *pFileName);

/* Copies the name of the default trace file, empty when there is none. Of a file that is kept in pages it is the name of
 * the first page; tr_set_filename_1 takes that for the same file.
 *
 * pFileName  buffer of 4,096 bytes
 *
 * Returns 0, or 17 when pFileName is NULL. */
KZ_TR_API int32_t tr_get_filename_1(char *pFileName);

/* Sets the size of a trace file, also of one that only a later file map names.
 *
 * fileName  as it was named; empty: the default trace file
 * size      bytes; rounded up to whole memory pages when the file is started, at least 4,096
 *
 * Returns 0; 17 when fileName is NULL or too long; 14 when memory is short. */
KZ_TR_API int32_t tr_set_file_size_1(const char *fileName, uint32_t size);
/* Of the default trace file. */
KZ_TR_API int32_t tr_set_size_1(uint32_t newSize);
KZ_TR_API int32_t __tr_set_size_1(uint32_t newSize);

/* Tells the size of a trace file.
 *
 * fileName  as it was named; empty: the default trace file
 * pSize     receives the size in bytes; untouched with 9 and 17
 *
 * Returns 0 and the size of the started file; 25 and the size asked for when it is not started; 17 when no such trace
 * file is known or an argument is NULL. */
KZ_TR_API int32_t tr_get_file_size_1(const char *fileName, uint32_t *pSize);
/* Of the default trace file. */
KZ_TR_API int32_t tr_get_size_1(uint32_t *pSize);

/* ---- Queries on trace files: who wrote a file ----
 *
 * They work on any trace file, of this process or not, and need no initialisation. A handle may be used by several
 * threads at once, but not beside its closing. All but opening return 37 for a handle that is NULL or not open, and when
 * an out-pointer is NULL. */

/* Opens a query.
 *
 * file_name  an existing file of at least one memory page
 * handle_p   receives the handle, to be given to tr_close_query_1; untouched on failure
 *
 * Returns 0; 17 when the name is NULL, empty or refused; 18 when the file can't be opened; 20 when it is not a regular
 * file; 36 when it is too small; 19, 21 when the system fails; 14 when memory is short; 37 when handle_p is NULL. */
KZ_TR_API int32_t tr_open_query_1(const char *file_name, tr_query_handle_t *handle_p);
/* Closes it; the handle is not to be used again. */
KZ_TR_API int32_t tr_close_query_1(tr_query_handle_t handle);
/* Tells the process that started the file last. */
KZ_TR_API int32_t tr_query_pid_1(tr_query_handle_t handle, pid_t *pid_p);
/* Tells the program that wrote the file, as it was called, at most 47 characters; the caller frees the text with free().
 * Returns also 14 when memory is short. */
KZ_TR_API int32_t tr_query_prog_1(tr_query_handle_t handle, char **program_name_p);
/* Tells the platform code of the machine that wrote the file: 2 for this library. */
KZ_TR_API int32_t tr_query_platform_1(tr_query_handle_t handle, uint32_t *platform_p);

/* ---- Spooling: copies of full pages and of other files ----
 *
 * One thread of the library makes all copies, in the order in which they were queued. It is started by the first trace
 * file that an entry of the spooling configuration governs, and by the first two functions here. It blocks SIGALRM,
 * SIGTERM and SIGCHLD, and ends when tracing is stopped for the process: what is queued then is not copied. */

/* Has a file copied into a directory, under its own name followed by the local time: "core" becomes
 * "core.2026_11_16_21_57_03.42", with the year of the week calendar and the microseconds at the end. Does not wait for
 * the copy; a failed one leaves no file and is not tried again.
 *
 * dest       the directory; "/dev/null": nothing is copied, which counts as a success. The text stays valid and unchanged
 *            until the copy is made
 * file_name  a regular file; copied into the request
 * del        1: the file is removed once it is copied
 *
 * Returns 0, also when memory is short (the thread's error is 14 then and nothing is queued) and in the child of a fork
 * (nothing is copied there); 1 when an argument is NULL or, with error 17, when file_name is longer than 4,095
 * characters. May wait for the copy of a page. */
KZ_TR_API int32_t tr_copy_file_1(const char *dest, const char *file_name, int32_t del);

/* Has the library's thread read the configuration file again, as if it had changed; no effect without that file. Does
 * not wait for it, and for a copy in progress for 50 ms at most. */
KZ_TR_API void tr_configure_1(void);

/* Names an event that the start record of a trace file is to tell, as when a core file was found: whenever that file is
 * started from now on, its first record carries the message. Replaces the event set before.
 *
 * trc_file  name of the trace file, as it was named or with its page number; copied
 * message   text; copied. Cut to what the file accepts as one record. When either is NULL there is no event any more
 *
 * Returns 0. */
KZ_TR_API int32_t tr_core_event_1(const char *trc_file, const char *message);

/* One trace file of a spooling report. */
typedef struct tr_mini_spooling_anchor_t {
    char fileName[4096]; /* name; of a file that is kept in pages its first page and "(N pages)" */
    char dest[4096];     /* spool directory, "/dev/null" when pages are copied nowhere, or "spooling not enabled" */
} tr_mini_spooling_anchor_t;

/* Hands out a snapshot of all trace files, started or not, sorted by name. The default trace file is always among them,
 * though its name may be empty.
 *
 * cnt  receives the number of entries
 * spa  receives an array of so many, to be given back to tr_release_spool_info_1
 *
 * Returns 0; -1 when memory is short, a lock failed or an argument is NULL, without a message and with NULL in *spa.
 * Takes the global lock. */
KZ_TR_API int32_t tr_get_current_spooling_status_1(int32_t *cnt, tr_mini_spooling_anchor_t **spa);

/* Gives back a snapshot. NULL does nothing; the count plays no part. */
KZ_TR_API void tr_release_spool_info_1(int32_t cnt, tr_mini_spooling_anchor_t *spa);

/* Takes the oldest element off a queue whose lock the caller holds. Returns it, to be given to free(), or NULL when the
 * queue is empty. For extensions that know the private structures. */
KZ_TR_API struct sp_q_element_t *spool_dequeue_last_element_inside_spq(struct sp_q_t *pQueue);

/* ---- Spool directories: where copies of full trace pages go ---- */

/* Tells into which directory the pages of a trace file are copied, and makes that directory when it is not there yet.
 *
 * trc_file  name of a trace file or of one of its pages ("FILE.3.sp"); it need not exist. NULL: there is no such file
 *
 * The directory is DESTINATION/CLUSTER/CLUSTER-ID/HOST/NODE-ID/PROGRAM, with the destination of the first spooling entry
 * that governs the file. Reads the spooling configuration when that has not been done yet, but does not initialise the
 * library otherwise. What has to be made gets mode 0700 less the file mode creation mask.
 *
 * Returns the directory: a text that belongs to the library, valid until the spooling configuration changes. NULL when no
 * entry governs the file, its entry is off or copies nowhere, the directory cannot be made or used (the entry is off from
 * then on), or the lock failed, as it may in the child of a fork. Sets no error message, except 14 when memory is short in
 * the first reading. Takes the global lock: waits for registrations. */
KZ_TR_API char *tr_get_spool_dir_1(const char *trc_file);

/* Makes sure that a directory can be written to: creates it, with mode 0700 less the file mode creation mask, when there
 * is nothing of that name. What is there is never changed.
 *
 * dir  path of the directory; the one above it has to exist. NULL: fails
 *
 * Returns 0 when it is a directory that this process may write to; otherwise not 0. Takes no lock. */
KZ_TR_API int32_t subdir(const char *dir);

/* ---- Flush and stop ---- */

/* Writes every started trace file to its disk and waits for it. Initialises the library.
 *
 * Returns 0; 32 when the system failed to write a file (those after it are not flushed); 9 when the lock failed. Takes
 * the global lock: registrations wait, and so do recorders of the default trace file. */
KZ_TR_API int32_t tr_flush_1(void);

/* The same with choices.
 *
 * incl_all_pages  non-zero: every mapped file and page; 0: only the active pages of page sets
 * msync_flags     MS_SYNC or MS_ASYNC, as for msync()
 * ignore_error    non-zero: a failure is passed over
 *
 * Returns as tr_flush_1. */
KZ_TR_API int32_t msync_trace_pages(int32_t incl_all_pages, int32_t msync_flags, int32_t ignore_error);

/* Ends tracing in the process for good: stops every trace file, forgets components and specifications. Runs at process
 * exit by itself. Later recording calls return 0 and do nothing. Waits for locks for two seconds at most; what it can't
 * have by then stays mapped. In the child of a fork it does nothing. */
KZ_TR_API void tr_term(void);
KZ_TR_API void __tr_term(void);

/* Tells whether tracing is stopped for the process: non-zero after tr_term, global_stop_trace or in a forked child. */
KZ_TR_API int32_t master_override_off(void);

/* Stops recording in the process for good; the files stay as they are until tr_term. */
KZ_TR_API void global_stop_trace(void);

/* Writes a line to standard error: the time, `opt`, a colon and `err_str`.
 *
 * err_str  text that ends with a newline; NULL is taken as empty
 * opt      one character that tells the writer */
KZ_TR_API void log_trc_error(const char *err_str, char opt);

#ifdef __cplusplus
}
#endif

#endif
