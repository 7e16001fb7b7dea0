/* A program as users write it. Compiled as C11 and as C++20, inside the project and against what is installed: it calls
 * whatever the header offers, so a changed signature or a header that does not stand alone fails the compilation. */
#include <kz_tr.h>

#include <stdio.h>
#include <stdlib.h>
#include <string.h>

int check_utilities(void); /* utilities.c: it includes the other header alone */

/* Signatures, also of what the program does not call. */
static const struct {
    int32_t (*p_register)(const char *, tr_detail_level_t *, const tr_category_description_t *, uint32_t);
    int32_t (*p_register_2nd)(const char *, tr_detail_level_t *, const tr_category_description_t *, uint32_t);
    int32_t (*p_unregister)(const char *);
    int32_t (*p_ms_values_32)(const char *, uint32_t, tr_file_token_t, uint32_t, ...);
    int32_t (*p_ms_values_64)(const char *, uint32_t, tr_file_token_t, uint32_t, ...);
    int32_t (*p_ms_values_32_v)(const char *, uint32_t, tr_file_token_t, uint32_t, va_list);
    int32_t (*p_ms_values_64_v)(const char *, uint32_t, tr_file_token_t, uint32_t, va_list);
    int32_t (*p_values_64_v)(const char *, uint32_t, uint32_t, va_list);
    int32_t (*p_msync)(int32_t, int32_t, int32_t);
    void (*p_term)(void);
    void (*p_stop)(void);
    void (*p_log)(const char *, char);
    struct sp_q_element_t *(*p_dequeue)(struct sp_q_t *);
} signatures = {tr_register_component_1,
                __tr_register_component_1,
                __tr_unregister_component_1,
                tr_ms_record_values_32_1,
                tr_ms_record_values_64_1,
                tr_ms_record_values_32_v_1,
                tr_ms_record_values_64_v_1,
                tr_record_values_64_v_1,
                msync_trace_pages,
                __tr_term,
                global_stop_trace,
                log_trc_error,
                spool_dequeue_last_element_inside_spq};

#ifdef __cplusplus
static_assert(!noexcept(tr_record_id_1("", 0)) && !noexcept(tr_flush_1()), "a cancelled thread unwinds through them");
#endif

static int numFaults;

static void expect(const char *pWhat, long long actual, long long expected) {
    if (actual != expected) {
        numFaults++;
        printf("%s: %lld instead of %lld\n", pWhat, actual, expected);
    }
}

static int32_t record_forwarded(const char *pCompId, uint32_t traceId, uint32_t numValues, ...) {
    va_list values;
    va_start(values, numValues);
    const int32_t rc = tr_record_values_32_v_1(pCompId, traceId, numValues, values);
    va_end(values);
    return rc;
}

static long file_size(const char *pName) {
    FILE *pFile = fopen(pName, "rb");
    if (pFile == NULL)
        return -1;
    long size = -1;
    if (fseek(pFile, 0, SEEK_END) == 0)
        size = ftell(pFile);
    (void)fclose(pFile);
    return size;
}

/* KZ_TR_FILENAME names the trace file, and KZ_TR_SPOOL has an entry for "/spooled". */
int main(void) {
    static tr_detail_level_t levels[2];
    static const tr_category_description_t categories[2] = {{0, "io", 3, 1}, {1, "net", 3, 0}};
    tr_file_token_t *tokens = NULL;

    expect("signatures", signatures.p_log != NULL, 1);
    expect("register", tr_ms_register_component_1("ABCD", levels, categories, 2, &tokens), 0);
    expect("token array", tokens != NULL, 1);
    expect("minimum level", tr_level_on(levels, 0, 1), 1);
    expect("level above it", tr_level_on(levels, 0, 2), 0);
    expect("second component", tr_register_component_1("EFGH", levels, categories, 2), 0);
    if (tokens == NULL)
        return 1;

    expect("id", tr_record_id_1("ABCD", 1), 0);
    expect("id, token", tr_ms_record_id_1("ABCD", 2, tokens[0]), 0);
    expect("values", tr_record_values_32_1("ABCD", 3, 2, 1, 0xffffffffU), 0);
    expect("values, token", tr_ms_record_values_32_1("ABCD", 4, tokens[0], 1, 1), 0);
    expect("values, forwarded", record_forwarded("ABCD", 5, 3, 1, 2, 3), 0);
    expect("long values", tr_record_values_64_1("ABCD", 6, 2, INT64_MIN, UINT64_MAX), 0);
    expect("no identifier", tr_record_id_1("", 7), 2);
    expect("int32", tr_record_int32_1("ABCD", 8, INT32_MIN), 0);
    expect("int32, two", tr_record_int32_2_1("ABCD", 9, INT32_MIN, INT32_MAX), 0);
    expect("uint32", tr_record_uint32_1("ABCD", 10, UINT32_MAX), 0);
    expect("uint32, two", tr_record_uint32_2_1("ABCD", 11, 0, UINT32_MAX), 0);
    expect("int64", tr_record_int64_1("ABCD", 12, INT64_MIN), 0);
    expect("int64, two", tr_record_int64_2_1("ABCD", 13, INT64_MIN, INT64_MAX), 0);
    expect("uint64", tr_record_uint64_1("ABCD", 14, UINT64_MAX), 0);
    expect("uint64, two", tr_record_uint64_2_1("ABCD", 15, 0, UINT64_MAX), 0);

    expect("spool directory", tr_get_spool_dir_1("/spooled") != NULL, 1);
    expect("no spool directory", tr_get_spool_dir_1("/other") != NULL, 0);
    expect("directory", subdir("."), 0);
    int32_t numFiles = 0;
    tr_mini_spooling_anchor_t *files = NULL;
    expect("spooling report", tr_get_current_spooling_status_1(&numFiles, &files), 0);
    expect("default file's entry", numFiles == 1 && files[0].fileName[0] == '/', 1);
    tr_release_spool_info_1(numFiles, files);
    expect("core event", tr_core_event_1("core", "message"), 0);
    expect("copy", tr_copy_file_1("/dev/null", "core", 0), 0);
    tr_configure_1();
    expect("flush", tr_flush_1(), 0);
    expect("function table", _trp_funcs.p_tr_flush != NULL, 1);
    expect("unregister", tr_unregister_component_1("EFGH"), 0);
    expect("stopped before the end", master_override_off() != 0, 0);
    tr_term();
    expect("stopped at the end", master_override_off() != 0, 1);
    expect("trace file", file_size(getenv("KZ_TR_FILENAME")), 65536);
    return check_utilities() + numFaults == 0 ? 0 : 1;
}
