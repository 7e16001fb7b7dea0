// What a program may ask of the copy thread: the copy of a file, and a look at the configuration file.
#include <pthread.h>
#include <syslog.h>

#include "cu/kz_cu.h"
#include "trace/engine/engine.h"
#include "trace/frame/frame.h"
#include "trace/publish.h"
#include "trace/spool/spool.h"

static const char *text_or_null(const char *pText) {
    return pText != nullptr ? pText : TR_NULL_TEXT;
}

int32_t tr_copy_file_1(const char *dest, const char *file_name, int32_t del) {
    debug_line_at(TR_DEBUG_ALL, LOG_ERR, "tr_copy_file '%s' -> '%s'\n", text_or_null(file_name), text_or_null(dest));
    if (dest == nullptr || file_name == nullptr)
        return 1;
    if (!is_file_name(file_name)) {
        (void)set_error_str(TR_RC_FILE_NAME, TR_RC_FILE_NAME, file_name);
        return 1;
    }
    if (observe(&this_is_child) != 0)
        return 0; // there is no thread to make the copy
    const int cancelState = cancel_disable();
    start_copy_thread_once();
    (void)cu_set_no_error_1(); // first: the error of a request that could not be queued stays
    (void)spool_enqueue(file_name, dest, nullptr, &spq, del);
    cancel_restore(cancelState);
    return 0;
}

void tr_configure_1(void) {
    if (observe(&this_is_child) != 0)
        return; // there is no thread to ask, and whoever held the lock may not exist any more
    const int cancelState = cancel_disable();
    start_copy_thread_once();
    pthread_mutex_lock(&configuration_file_last_modified_mutex);
    configuration_file_last_modified = 0;
    pthread_mutex_unlock(&configuration_file_last_modified_mutex);
    ask_for_configuration();
    cancel_restore(cancelState);
}
