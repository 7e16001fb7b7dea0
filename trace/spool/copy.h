// The copying of one page or file, for the copy thread.
#ifndef KZ_TRACE_SPOOL_COPY_H
#define KZ_TRACE_SPOOL_COPY_H

#include <cstddef>
#include <cstdint>

#include "trace/trace.h"

// Copies what an element stands for into its destination directory, under a name that tells the time; for "/dev/null"
// there is nothing to do. A page's element needs the queue lock held: it keeps the page mapped. Cancellation is off.
//
// Returns 0, or as cp_mapped_file; 17 when the copy's name would be too long.
int32_t do_spool(const sp_q_element_t *elem);

// Writes a copy: of the file fname_in, or when that is null of `size` bytes from `map`. A failed copy leaves no file.
// Symbolic links are not followed to the copy. Cancellation is off.
//
// Returns 0, or with the error object set 17, 18, 35 (not opened, or 18 not read), 20 (not a regular file), 49 (not
// written), 14.
int32_t cp_mapped_file(const char *dest, const char *fname_in, const void *map, size_t size);

#endif
