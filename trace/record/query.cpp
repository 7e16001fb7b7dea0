// Queries on trace files: who wrote a file, from the first page of any file. Needs neither initialisation nor locks.
#include <fcntl.h>
#include <pthread.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/statfs.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "cu/kz_cu.h"
#include "trace/frame/frame.h"

constexpr char TR_QUERY_ID[] = "_TR_"; // of an open handle
constexpr char TR_CLOSED_ID[] = "    ";
constexpr size_t TR_QUERY_ID_SIZE = 4;

struct trace_query_anchor_t {
    char id[TR_QUERY_ID_SIZE];
    int32_t fd;    // -1: not held
    int32_t uSize; // bytes of the file as it was opened
    uint8_t *pMap; // its first page, or null
    uint8_t *pMapEnd;
};

// Gives back all that a handle holds, and the handle (pArg). Closing a descriptor would act on a cancellation.
static void cancel_open_query(void *pArg) {
    auto *pQuery = static_cast<trace_query_anchor_t *>(pArg);
    const int cancelState = cancel_disable();
    memcpy(pQuery->id, TR_CLOSED_ID, TR_QUERY_ID_SIZE);
    if (pQuery->fd != -1)
        close(pQuery->fd);
    if (pQuery->pMap != nullptr)
        (void)munmap(pQuery->pMap, static_cast<size_t>(pQuery->pMapEnd - pQuery->pMap));
    free(pQuery);
    cancel_restore(cancelState);
}

static int32_t open_query_file(trace_query_anchor_t *pQuery, const char *pFileName) {
    const int cancelState = cancel_disable(); // it could act with the descriptor made and not yet handed out
    do                                        // never hangs on a FIFO
        pQuery->fd = open(pFileName, O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
    while (pQuery->fd == -1 && errno == EINTR);
    cancel_restore(cancelState);
    if (pQuery->fd != -1)
        return 0;
    if (errno == EFAULT || errno == EINVAL)
        return set_error_str(TR_RC_FILE_NAME, TR_RC_FILE_NAME, pFileName);
    return set_error_int(TR_RC_OPEN, TR_RC_OPEN, errno);
}

static int32_t check_query_file(trace_query_anchor_t *pQuery, const char *pFileName, long pageSize) {
    struct statfs fileSystem;
    struct stat status;
    if (fstatfs(pQuery->fd, &fileSystem) == 0 && fileSystem.f_type == 0)
        return set_error(TR_RC_FSTAT, TR_MSG_AFS);
    const int result = fstat(pQuery->fd, &status);
    if (result != 0)
        return set_error_int(TR_RC_FSTAT, TR_RC_FSTAT, result);
    if (!S_ISREG(status.st_mode))
        return set_error_str(TR_RC_NOT_REGULAR, TR_RC_NOT_REGULAR, pFileName);
    pQuery->uSize = static_cast<int32_t>(status.st_size); // 32 bits, signed: from 2 GiB on it reads as negative
    if (pQuery->uSize < pageSize)
        return set_error_str(TR_RC_NOT_TRACE_FILE, TR_MSG_NOT_TRACE_FILE, pFileName);
    return 0;
}

static int32_t map_first_page(trace_query_anchor_t *pQuery, long pageSize) {
    void *const pMap = mmap(nullptr, static_cast<size_t>(pageSize), PROT_READ, MAP_SHARED, pQuery->fd, 0);
    if (pMap == MAP_FAILED)
        return set_error_int(TR_RC_MMAP, TR_RC_MMAP, errno);
    pQuery->pMap = static_cast<uint8_t *>(pMap);
    pQuery->pMapEnd = pQuery->pMap + pageSize;
    return 0;
}

static int32_t open_query(trace_query_anchor_t *pQuery, const char *pFileName) {
    if (pFileName == nullptr || *pFileName == '\0')
        return set_error_str(TR_RC_FILE_NAME, TR_RC_FILE_NAME, TR_NULL_TEXT);
    const long pageSize = sysconf(_SC_PAGESIZE);
    int32_t rc = open_query_file(pQuery, pFileName);
    if (rc == 0)
        rc = check_query_file(pQuery, pFileName, pageSize);
    if (rc == 0)
        rc = map_first_page(pQuery, pageSize);
    if (rc == 0) {
        const int cancelState = cancel_disable();
        close(pQuery->fd);
        pQuery->fd = -1;
        cancel_restore(cancelState);
    }
    return rc;
}

int32_t tr_open_query_1(const char *file_name, tr_query_handle_t *handle_p) {
    if (handle_p == nullptr)
        return set_error(TR_RC_QUERY_HANDLE, TR_MSG_QUERY_HANDLE);
    auto *pQuery = static_cast<trace_query_anchor_t *>(calloc(1, sizeof(trace_query_anchor_t)));
    if (pQuery == nullptr)
        return set_error(TR_RC_NO_MEMORY, TR_RC_NO_MEMORY);
    memcpy(pQuery->id, TR_QUERY_ID, TR_QUERY_ID_SIZE);
    pQuery->fd = -1;
    int32_t rc = 0;
    pthread_cleanup_push(cancel_open_query, pQuery);
    rc = open_query(pQuery, file_name);
    pthread_cleanup_pop(rc != 0);
    if (rc != 0)
        return rc;
    *handle_p = pQuery;
    return cu_set_no_error_1();
}

// The handle's contents, or null with error 37 set when it is none.
static trace_query_anchor_t *checked_query(tr_query_handle_t handle, bool bHasResult) {
    auto *pQuery = static_cast<trace_query_anchor_t *>(handle);
    if (bHasResult && pQuery != nullptr && memcmp(pQuery->id, TR_QUERY_ID, TR_QUERY_ID_SIZE) == 0)
        return pQuery;
    (void)set_error(TR_RC_QUERY_HANDLE, TR_MSG_QUERY_HANDLE);
    return nullptr;
}

int32_t tr_close_query_1(tr_query_handle_t handle) {
    trace_query_anchor_t *const pQuery = checked_query(handle, true);
    if (pQuery == nullptr)
        return TR_RC_QUERY_HANDLE;
    cancel_open_query(pQuery);
    return cu_set_no_error_1();
}

int32_t tr_query_pid_1(tr_query_handle_t handle, pid_t *pid_p) {
    const trace_query_anchor_t *const pQuery = checked_query(handle, pid_p != nullptr);
    if (pQuery == nullptr)
        return TR_RC_QUERY_HANDLE;
    *pid_p = static_cast<pid_t>(header_of(pQuery->pMap)->uPid);
    return cu_set_no_error_1();
}

int32_t tr_query_prog_1(tr_query_handle_t handle, char **program_name_p) {
    const trace_query_anchor_t *const pQuery = checked_query(handle, program_name_p != nullptr);
    if (pQuery == nullptr)
        return TR_RC_QUERY_HANDLE;
    *program_name_p = strndup(header_of(pQuery->pMap)->program, TR_PROGRAM_SIZE);
    if (*program_name_p == nullptr)
        return set_error(TR_RC_NO_MEMORY, TR_RC_NO_MEMORY);
    return cu_set_no_error_1();
}

int32_t tr_query_platform_1(tr_query_handle_t handle, uint32_t *platform_p) {
    const trace_query_anchor_t *const pQuery = checked_query(handle, platform_p != nullptr);
    if (pQuery == nullptr)
        return TR_RC_QUERY_HANDLE;
    *platform_p = header_of(pQuery->pMap)->uPlatform;
    return cu_set_no_error_1();
}
