// Diagnostic lines: to the system log when the process raised its debug level, and to standard error for damaged files.
#include <syslog.h>
#include <time.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>

#include "trace/frame/frame.h"
#include "trace/publish.h"

uint32_t global_debug_level = 0;

static void write_line(uint32_t level, int priority, const char *pFormat, va_list args) {
    if (observe(&global_debug_level) < level)
        return;
    const int savedErrno = errno; // recorders keep it
    const int cancelState = cancel_disable();
    vsyslog(priority, pFormat, args);
    cancel_restore(cancelState);
    errno = savedErrno;
}

void debug_line(const char *pFormat, ...) {
    va_list args;
    va_start(args, pFormat);
    write_line(TR_DEBUG_ALL, LOG_WARNING, pFormat, args);
    va_end(args);
}

void debug_line_at(uint32_t level, int priority, const char *pFormat, ...) {
    va_list args;
    va_start(args, pFormat);
    write_line(level, priority, pFormat, args);
    va_end(args);
}

void log_trc_error(const char *err_str, char opt) {
    char when[26] = ""; // the size that ctime_r demands
    const time_t now = time(nullptr);
    (void)ctime_r(&now, when); // a year that does not fit leaves it empty
    fprintf(stderr, "%s%c:%s", when, opt, err_str != nullptr ? err_str : "");
}
