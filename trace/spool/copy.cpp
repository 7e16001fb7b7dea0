// The copying of one page or file. A page is written from its mapping, a file through one buffer.
#include "trace/spool/copy.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "cu/kz_cu.h"
#include "trace/frame/files.h"
#include "trace/frame/frame.h"
#include "trace/publish.h"
#include "trace/spool/config.h"

constexpr mode_t TR_COPY_MODE = 0600;
constexpr size_t TR_COPY_BUFFER_SIZE = 262144; // bytes
constexpr size_t TR_TIME_SIZE = 32;            // bytes of the time in a copy's name; years have at most 10 digits
constexpr long TR_NS_PER_US = 1000;

// ---- Files ----

// Opens a regular file. Anything else that a name may lead to is refused without being waited for. Returns 0, or a code
// with the error object set and nothing left open.
static int32_t open_regular_file(const char *pName, int flags, int *pFd) {
    *pFd = open_own_file(pName, flags, TR_COPY_MODE);
    if (*pFd == -1) {
        switch (errno) {
        case EFAULT:
        case EINVAL:
            return set_error_str(TR_RC_FILE_NAME, TR_RC_FILE_NAME, pName);
        case ENOSPC:
            return set_error_int(TR_RC_NO_SPACE, TR_MSG_NO_SPACE, errno);
        default:
            return set_error_int(TR_RC_OPEN, TR_RC_OPEN, errno);
        }
    }
    struct stat status;
    const int result = fstat(*pFd, &status);
    if (result == 0 && S_ISREG(status.st_mode))
        return 0;
    close_keeping_errno(pFd);
    return result != 0 ? set_error_int(TR_RC_FSTAT, TR_RC_FSTAT, result)
                       : set_error_str(TR_RC_NOT_REGULAR, TR_RC_NOT_REGULAR, pName);
}

static int32_t write_buffer_to_file(int fd, const void *buffer, size_t in_size, size_t *bytesWritten) {
    const int error = write_all(fd, buffer, in_size, bytesWritten);
    return error == 0 ? 0 : set_error_int(TR_RC_WRITE, TR_MSG_WRITE, error);
}

static ssize_t read_piece(int fd, void *pBuffer) {
    ssize_t numRead = 0;
    do
        numRead = read(fd, pBuffer, TR_COPY_BUFFER_SIZE);
    while (numRead == -1 && errno == EINTR);
    return numRead;
}

static int32_t copy_pieces(int fdFrom, int fdTo) {
    struct free_t {
        void operator()(void *p) const {
            free(p);
        }
    };
    const std::unique_ptr<void, free_t> buffer(malloc(TR_COPY_BUFFER_SIZE));
    if (buffer == nullptr)
        return set_error(TR_RC_NO_MEMORY, TR_RC_NO_MEMORY);
    int32_t rc = 0;
    ssize_t numRead = 0;
    while (rc == 0 && (numRead = read_piece(fdFrom, buffer.get())) > 0) {
        size_t numWritten = 0;
        rc = write_buffer_to_file(fdTo, buffer.get(), static_cast<size_t>(numRead), &numWritten);
    }
    return numRead == -1 ? set_error_int(TR_RC_OPEN, TR_RC_OPEN, errno) : rc;
}

static int32_t copy_by_name(const char *pName, int fdTo) {
    int fdFrom = -1;
    int32_t rc = open_regular_file(pName, O_RDONLY, &fdFrom);
    if (rc == 0) {
        rc = copy_pieces(fdFrom, fdTo);
        (void)close(fdFrom);
    }
    return rc;
}

int32_t cp_mapped_file(const char *dest, const char *fname_in, const void *map, size_t size) {
    if (fname_in != nullptr)
        debug_line("cp_mapped_file: %s - from %s\n", dest, fname_in);
    else
        debug_line("cp_mapped_file: %s - %u bytes\n", dest, static_cast<uint32_t>(size));
    int fd = -1;
    int32_t rc = open_regular_file(dest, O_RDWR | O_CREAT | O_NOFOLLOW, &fd);
    if (rc != 0)
        return rc;
    size_t numWritten = 0;
    held_signal_t held;
    hold_size_signal(&held);
    rc = fname_in != nullptr ? copy_by_name(fname_in, fd) : write_buffer_to_file(fd, map, size, &numWritten);
    release_size_signal(&held);
    (void)close(fd);
    if (rc != 0)
        (void)unlink(dest); // the part that was written
    return rc;
}

// ---- Names ----

// Copies out where pages of a page's set go. Another thread may be replacing the text by "/dev/null", under a lock that
// comes before the queue lock: it is read byte by byte, and at any moment it has an end.
static void read_destination(const trace_anchor_t *pPage, char *pDest) {
    const trace_spool_spec_t *const pSpool = observe(&pPage->spool);
    const char *const pFrom = pSpool != nullptr ? pSpool->dest : TR_NOWHERE;
    size_t length = 0;
    while (length < TR_NAME_SIZE - 1 && (pDest[length] = observe(&pFrom[length])) != '\0')
        length++;
    pDest[length] = '\0';
}

// Directory, base name of the source, local time with the year of the week calendar, microseconds at least two
// characters wide. Returns false when the name would be longer than a file name may be.
static bool make_spooled_name(const char *pDest, const char *pSource, char *pName) {
    timespec now;
    cu_get_current_time_1(&now);
    tm local = {};
    (void)localtime_r(&now.tv_sec, &local);
    char when[TR_TIME_SIZE];
    if (strftime(when, sizeof when, "%G_%m_%d_%H_%M_%S", &local) == 0)
        when[0] = '\0';
    const char *const pSlash = strrchr(pSource, '/');
    const int length = snprintf(pName, TR_NAME_SIZE, "%s/%s.%s.%2d", pDest, pSlash != nullptr ? pSlash + 1 : pSource,
                                when, static_cast<int>(now.tv_nsec / TR_NS_PER_US));
    return length >= 0 && static_cast<size_t>(length) < TR_NAME_SIZE;
}

// ---- Elements ----

static int32_t copy_page(const trace_anchor_t *pPage, const char *pName) {
    (void)msync(pPage->pMap, pPage->uActualFileSize, MS_ASYNC); // the copy is made from the mapping all the same
    return cp_mapped_file(pName, nullptr, pPage->pMap, pPage->uActualFileSize);
}

int32_t do_spool(const sp_q_element_t *elem) {
    const trace_anchor_t *const pPage = elem->pAnchor;
    const char *const pSource = pPage != nullptr ? pPage->fileName : elem->fileName;
    char pageDest[TR_NAME_SIZE];
    if (pPage != nullptr)
        read_destination(pPage, pageDest);
    const char *const pDest = pPage != nullptr ? pageDest : elem->dest;
    if (strcmp(pDest, TR_NOWHERE) == 0)
        return 0;
    char name[TR_NAME_SIZE];
    if (!make_spooled_name(pDest, pSource, name))
        return set_error_str(TR_RC_FILE_NAME, TR_RC_FILE_NAME, pSource);
    debug_line("do_spool: %s\n", name);
    const int32_t rc = pPage != nullptr ? copy_page(pPage, name) : cp_mapped_file(name, pSource, nullptr, 0);
    debug_line("%s copied to %s\n", pSource, name);
    return rc;
}
