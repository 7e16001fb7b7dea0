#include "cu/files.h"

#include <errno.h>
#include <fcntl.h>
#include <pthread.h>
#include <sys/stat.h>
#include <unistd.h>

int open_regular(const char *pPath) {
    const int fd = open(pPath, O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY);
    if (fd < 0)
        return -1;
    struct stat fileStat;
    if (fstat(fd, &fileStat) != 0 || !S_ISREG(fileStat.st_mode)) {
        (void)close(fd); // nothing was written
        return -1;
    }
    return fd;
}

// Reads until the buffer is full or the file ends. Returns the length, or -1.
static ssize_t read_fully(int fd, char *pBuffer, size_t size) {
    size_t length = 0;
    while (length < size) {
        const ssize_t num = read(fd, pBuffer + length, size - length);
        if (num == 0)
            break;
        if (num > 0)
            length += static_cast<size_t>(num);
        else if (errno != EINTR)
            return -1;
    }
    return static_cast<ssize_t>(length);
}

ssize_t read_file(const char *pPath, char *pBuffer, size_t size) {
    int cancelState;
    (void)pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &cancelState);
    ssize_t length = -1;
    const int fd = open_regular(pPath);
    if (fd >= 0) {
        length = read_fully(fd, pBuffer, size - 1);
        if (length >= 0)
            pBuffer[length] = '\0';
        (void)close(fd); // nothing was written
    }
    (void)pthread_setcancelstate(cancelState, nullptr);
    return length;
}
