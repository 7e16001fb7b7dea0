/* A program with functions of its own that happen to have the plain names of exported ones: the library does not call
 * them in place of its own. */
#include <kz_tr.h>

#include <stdlib.h>

int32_t msync_trace_pages(int32_t incl_all_pages, int32_t msync_flags, int32_t ignore_error) {
    (void)incl_all_pages, (void)msync_flags, (void)ignore_error;
    abort();
}

void tr_term(void) {
    abort();
}

int32_t master_override_off(void) {
    abort();
}

void global_stop_trace(void) {
    abort();
}

int32_t subdir(const char *dir) {
    (void)dir;
    abort();
}

void log_trc_error(const char *err_str, char opt) {
    (void)err_str, (void)opt;
    abort();
}

int main(void) {
    static tr_detail_level_t levels[1];
    static const tr_category_description_t category = {0, "io", 1, 1};
    if (tr_register_component_1("ABCD", levels, &category, 1) != 0 || tr_record_id_1("ABCD", 1) != 0 ||
        tr_get_spool_dir_1("/spooled") == NULL || tr_flush_1() != 0 || tr_unregister_component_1("ABCD") != 0)
        return 1;
    return 0; /* the library's exit handler runs now */
}
