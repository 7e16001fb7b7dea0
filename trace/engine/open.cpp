// Opening a trace file, bringing it to its size and mapping it.
//
// A file is extended by writing, so that its blocks are there: a mapping of a hole would die of a full disk later.
#include <fcntl.h>
#include <pthread.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/statfs.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

#include "cu/kz_cu.h"
#include "trace/engine/engine.h"
#include "trace/engine/page_set.h"
#include "trace/engine/starting.h"
#include "trace/frame/files.h"
#include "trace/frame/frame.h"
#include "trace/publish.h"

constexpr mode_t TR_FILE_MODE = 0600;
constexpr mode_t TR_GROUP_MODE = 0660; // once the file belongs to the administrative group
constexpr mode_t TR_MODE_BITS = 07777;
constexpr size_t TR_EXTEND_PIECE = 512;        // bytes a write
constexpr uint64_t TR_MAX_MAPPED = 0xFFFFFFFF; // bytes: offsets are 32 bits wide

static uint64_t round_up(uint64_t value, uint64_t unit) {
    return (value + unit - 1) / unit * unit;
}

// ---- Open ----

// Clean-up of a start that is cancelled while its file is open (pArg is the descriptor).
static void cancel_start_trace(void *pArg) {
    const int fd = *static_cast<int *>(pArg);
    if (fd != -1 && fd != 0)
        close(fd);
}

static int32_t open_file(starting_file_t *pFile) {
    (void)cancel_disable(); // it could act with the descriptor made and not yet where its clean-up looks
    pFile->fd = open_own_file(pFile->pAnchor->fileName, O_RDWR | O_CREAT, TR_FILE_MODE);
    cancel_restore(pFile->options.cancelState);
    if (pFile->fd != -1)
        return 0;
    switch (errno) {
    case EFAULT:
    case EINVAL:
        return start_error_name(pFile, TR_RC_FILE_NAME);
    case ENOSPC:
        return start_error_int(pFile, TR_RC_NO_SPACE, TR_MSG_NO_SPACE, errno);
    case EISDIR:
        return start_error_name(pFile, TR_RC_NOT_REGULAR);
    default:
        return start_error_int(pFile, TR_RC_OPEN, TR_RC_OPEN, errno);
    }
}

static bool is_mapping_of(const trace_anchor_t *pPage, const starting_file_t *pFile) TR_HOLDS(global_lock) {
    return pPage->pMap != nullptr && pPage->device == pFile->device && pPage->inode == pFile->inode;
}

// Whether an anchor or a page of this process has the file mapped: two positions in one ring would destroy each other.
static bool is_mapped_already(const starting_file_t *pFile) TR_HOLDS(global_lock) {
    for (const trace_anchor_t *pAnchor = &anchors; pAnchor != nullptr; pAnchor = observe(&pAnchor->next)) {
        for (const trace_anchor_t *pPage = pAnchor; pPage != nullptr; pPage = next_page_of(pAnchor, pPage)) {
            if (is_mapping_of(pPage, pFile))
                return true;
        }
        for (const trace_anchor_t *pPage = pAnchor->p_obsolete_pages; pPage != nullptr; pPage = pPage->nextPage) {
            if (is_mapping_of(pPage, pFile))
                return true;
        }
    }
    return false;
}

static int32_t check_file(starting_file_t *pFile, struct stat *pStat) TR_HOLDS(global_lock) {
    struct statfs fileSystem;
    if (fstatfs(pFile->fd, &fileSystem) == 0 && fileSystem.f_type == 0)
        return start_error(pFile, TR_RC_FSTAT, TR_MSG_AFS);
    const int result = fstat(pFile->fd, pStat);
    if (result != 0)
        return start_error_int(pFile, TR_RC_FSTAT, TR_RC_FSTAT, result);
    if (!S_ISREG(pStat->st_mode))
        return start_error_name(pFile, TR_RC_NOT_REGULAR);
    pFile->device = pStat->st_dev;
    pFile->inode = pStat->st_ino;
    if (is_mapped_already(pFile))
        return start_error_name(pFile, TR_RC_FILE_NAME);
    return 0;
}

// ---- Size ----

// Free bytes of the file's system, less 1 % of all its blocks. Returns 0, or the error number.
static int free_space(int fd, uint64_t *pFree) {
    struct statvfs fileSystem;
    if (fstatvfs(fd, &fileSystem) != 0)
        return errno;
    const uint64_t reserve = fileSystem.f_blocks / 100;
    *pFree = fileSystem.f_bfree > reserve ? (fileSystem.f_bfree - reserve) * fileSystem.f_bsize : 0;
    return 0;
}

// Writes the missing bytes, in pieces, from the file's end. Returns 0, or the error number.
static int write_pieces(int fd, uint64_t numMissing) {
    uint8_t piece[TR_EXTEND_PIECE];
    for (size_t i = 0; i < sizeof piece; i++)
        piece[i] = static_cast<uint8_t>(i); // 0 to 255, twice over
    size_t numLeft = 0;                     // of the present piece
    while (numMissing > 0) {
        if (numLeft == 0)
            numLeft = static_cast<size_t>(std::min<uint64_t>(numMissing, sizeof piece));
        const ssize_t numWritten = write(fd, piece, numLeft); // the rest of a piece begins at the front again
        if (numWritten == -1) {
            if (errno == EINTR)
                continue;
            return errno;
        }
        numLeft -= static_cast<size_t>(numWritten);
        numMissing -= static_cast<uint64_t>(numWritten);
    }
    return 0;
}

static int extend_file(int fd, uint64_t numMissing) {
    int error = 0;
    held_signal_t held;
    hold_size_signal(&held);
    pthread_cleanup_push(release_size_signal, &held);
    error = write_pieces(fd, numMissing);
    pthread_cleanup_pop(0);
    release_size_signal(&held);
    return error;
}

// Space ran out while the file was extended: what it got, cut down to whole memory pages, is its size.
static int32_t settle_for_less(starting_file_t *pFile, int error) {
    const auto pageSize = static_cast<uint64_t>(pFile->pAnchor->pageSize);
    const auto reached = static_cast<uint64_t>(lseek(pFile->fd, 0, SEEK_CUR));
    pFile->uSize = reached / pageSize * pageSize;
    if (pFile->uSize < TR_MIN_FILE_SIZE)
        return start_error_int(pFile, TR_RC_NO_SPACE, TR_MSG_NO_SPACE, error);
    if (ftruncate(pFile->fd, static_cast<off_t>(pFile->uSize)) != 0)
        return start_error_int(pFile, TR_RC_RESIZE, TR_RC_RESIZE, errno);
    return 0;
}

static int32_t extend_to_size(starting_file_t *pFile, uint64_t presentSize) {
    const int error = extend_file(pFile->fd, pFile->uSize - presentSize);
    if (error == ENOSPC || error == EDQUOT)
        return settle_for_less(pFile, error);
    return error == 0 ? 0 : start_error_int(pFile, TR_RC_CLEAR, TR_RC_CLEAR, error);
}

// Brings the file to the wanted size, as far as the file system has room; a larger file stays as it is. A file that did
// not have exactly that size is not re-used.
static int32_t size_file(starting_file_t *pFile, uint64_t presentSize) {
    const auto pageSize = static_cast<uint64_t>(pFile->pAnchor->pageSize);
    const uint64_t wanted =
        std::max({round_up(pFile->pAnchor->uRequestedFileSize, pageSize), uint64_t{TR_MIN_FILE_SIZE}, pageSize});
    pFile->uSize = wanted;
    if (presentSize == wanted)
        return 0;
    debug_line("\ttrace: uSize(%llu) != statData.st_size(%llu) for %s\n", static_cast<unsigned long long>(wanted),
               static_cast<unsigned long long>(presentSize), pFile->pAnchor->fileName);
    uint64_t numFree = 0;
    const int error = lseek(pFile->fd, 0, SEEK_END) == -1 ? errno : free_space(pFile->fd, &numFree);
    if (error != 0)
        return start_error_int(pFile, TR_RC_RESIZE, TR_RC_RESIZE, error);
    pFile->uSize = std::min(wanted, std::max(numFree, uint64_t{TR_MIN_FILE_SIZE}));
    if (pFile->uSize <= presentSize) {
        pFile->uSize = presentSize;
    } else {
        const int32_t rc = extend_to_size(pFile, presentSize);
        if (rc != 0)
            return rc;
    }
    (void)fsync(pFile->fd); // the mapping works without it as well
    debug_line("\ttrace: reInit for %s due to size\n", pFile->pAnchor->fileName);
    pFile->bReinit = true;
    return 0;
}

// ---- Mode and mapping ----

// Lets the administrative group in, where there is one. Not done again for a file that has the mode: it may belong to
// another member of the group.
static void set_group_mode(starting_file_t *pFile, mode_t mode) {
    gid_t group = 0;
    if (cu_getadmin_group_id_1(&group) != 0)
        return;
    (void)fchown(pFile->fd, static_cast<uid_t>(-1), group); // not ours to give: the mode is set all the same
    if ((mode & TR_MODE_BITS) != TR_GROUP_MODE)
        pFile->bModeFailed = fchmod(pFile->fd, TR_GROUP_MODE) != 0;
}

static int32_t map_file(starting_file_t *pFile) {
    const auto pageSize = static_cast<uint64_t>(pFile->pAnchor->pageSize);
    pFile->uSize = std::min(pFile->uSize, TR_MAX_MAPPED / pageSize * pageSize);
    void *pMap = mmap(nullptr, pFile->uSize, PROT_READ | PROT_WRITE, MAP_SHARED, pFile->fd, 0);
    if (pMap == MAP_FAILED)
        return start_error_int(pFile, TR_RC_MMAP, TR_RC_MMAP, errno);
    pFile->pMap = static_cast<uint8_t *>(pMap);
    return 0;
}

// The part of a start that may be cancelled.
static int32_t open_sized_file(starting_file_t *pFile, struct stat *pStat) TR_HOLDS(global_lock) {
    int32_t rc = 0;
    pthread_cleanup_push(cancel_start_trace, &pFile->fd);
    cancel_restore(pFile->options.cancelState);
    rc = open_file(pFile);
    if (rc == 0)
        rc = check_file(pFile, pStat);
    if (rc == 0)
        rc = size_file(pFile, static_cast<uint64_t>(pStat->st_size));
    (void)cancel_disable();
    pthread_cleanup_pop(0);
    return rc;
}

int32_t open_trace_file(starting_file_t *pFile) {
    struct stat status = {};
    int32_t rc = open_sized_file(pFile, &status);
    if (rc == 0) {
        set_group_mode(pFile, status.st_mode);
        rc = map_file(pFile);
    }
    if (pFile->fd != -1)
        close_keeping_errno(&pFile->fd);
    return rc;
}
