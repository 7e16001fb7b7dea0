// The argument block of a process, and the functions that the tracing library offers to this layer.
#include "cu/kz_cu.h"

#include <stdio.h>

#include "cu/files.h"

int32_t cu_get_proc_args_1(pid_t pid, char *buffer, size_t size) {
    if (pid <= 0 || buffer == nullptr || size < 2)
        return -1;
    char path[sizeof "/proc//cmdline" + 3 * sizeof pid];
    (void)snprintf(path, sizeof path, "/proc/%ld/cmdline", static_cast<long>(pid)); // fits: 3 digits a byte
    return read_file(path, buffer, size) > 0 ? 0 : -1; // nothing in it: a thread of the kernel, or a process that ended
}

void cu_trp_register(const struct tr_proxy_func_table_t *) {
    // Nothing in this layer records traces of its own, so nothing is kept. A site's own layer may do both.
}
