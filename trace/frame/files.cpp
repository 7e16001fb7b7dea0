#include "trace/frame/files.h"

#include <fcntl.h>
#include <pthread.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>

#include "trace/locks.h"

constexpr int TR_FIRST_OWN_FD = 3; // a file of ours never takes the place of a standard stream

void close_keeping_errno(int *pFd) {
    const int error = errno;
    close(*pFd);
    *pFd = -1;
    errno = error;
}

// Moves a descriptor past the standard streams. Returns -1 with errno set, nothing left open, when there is no other.
static int move_past_streams(int fd) {
    if (fd >= TR_FIRST_OWN_FD)
        return fd;
    const int moved = fcntl(fd, F_DUPFD_CLOEXEC, TR_FIRST_OWN_FD);
    close_keeping_errno(&fd);
    return moved;
}

int open_own_file(const char *pName, int flags, mode_t mode) {
    int fd = -1;
    do
        fd = open(pName, flags | O_NONBLOCK | O_NOCTTY | O_CLOEXEC, mode);
    while (fd == -1 && errno == EINTR);
    return fd == -1 ? -1 : move_past_streams(fd);
}

int write_all(int fd, const void *pBytes, size_t size, size_t *pNumWritten) {
    const auto *pFrom = static_cast<const char *>(pBytes);
    *pNumWritten = 0;
    while (*pNumWritten < size) {
        const ssize_t numWritten = write(fd, pFrom + *pNumWritten, size - *pNumWritten);
        if (numWritten >= 0)
            *pNumWritten += static_cast<size_t>(numWritten);
        else if (errno != EINTR)
            return errno;
    }
    return 0;
}

void hold_size_signal(held_signal_t *pHeld) {
    sigset_t pending;
    sigemptyset(&pHeld->set);
    sigaddset(&pHeld->set, SIGXFSZ);
    sigpending(&pending);
    pHeld->bWasPending = sigismember(&pending, SIGXFSZ) == 1;
    (void)pthread_sigmask(SIG_BLOCK, &pHeld->set, &pHeld->before);
}

void release_size_signal(void *pArg) {
    const auto *pHeld = static_cast<held_signal_t *>(pArg);
    const timespec noWait = {};
    const int cancelState = cancel_disable();
    if (!pHeld->bWasPending)
        (void)sigtimedwait(&pHeld->set, nullptr, &noWait);
    (void)pthread_sigmask(SIG_SETMASK, &pHeld->before, nullptr);
    cancel_restore(cancelState);
}
