// Opening and writing files from within somebody else's process: a daemon's standard streams, controlling terminal,
// children and signals are left alone.
#ifndef KZ_TRACE_FRAME_FILES_H
#define KZ_TRACE_FRAME_FILES_H

#include <signal.h>
#include <sys/types.h>

#include <cstddef>

// Opens a file, again while interrupted, with O_NONBLOCK, O_NOCTTY and O_CLOEXEC besides `flags`: it never hangs on a
// FIFO, never becomes the terminal of a daemon and is not handed to other programs. The descriptor is none of the three
// of the standard streams. Returns -1 with errno set. A cancellation point.
int open_own_file(const char *pName, int flags, mode_t mode);

// Closes a descriptor, sets it to -1 and leaves errno as it is. A cancellation point.
void close_keeping_errno(int *pFd);

// Writes all bytes, again while interrupted, and counts what was written. Returns 0, or the error number. A cancellation
// point.
int write_all(int fd, const void *pBytes, size_t size, size_t *pNumWritten);

// A write beyond the process's file size limit raises a signal that would end it: it is held back meanwhile, and taken
// off again. The release also serves as the clean-up of a cancelled write (pArg is the state).
struct held_signal_t {
    sigset_t set, before;
    bool bWasPending;
};
void hold_size_signal(held_signal_t *pHeld);
void release_size_signal(void *pArg);

#endif
