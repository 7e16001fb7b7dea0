// Spool directories. Programs of many nodes share one destination: each has a directory of its own below it.
//
//   destination / cluster name / cluster identifier / host / node identifier / program
//
// A path is computed first and created level by level then; an entry's `dest` becomes the full path when all of it is
// there, and until then stays what was configured.
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <fcntl.h>

#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstring>

#include "cu/kz_cu.h"
#include "trace/frame/frame.h"
#include "trace/spool/config.h"

constexpr char TR_IW_DIR[] = "/var/kz/IW"; // a symbolic link
constexpr size_t TR_IW_TARGET_SIZE = 64;
constexpr char TR_UNKNOWN[] = "unknown";
constexpr mode_t TR_SPOOL_DIR_MODE = 0700;

// ---- What a path is made of ----

// What stands behind the last "/".
static const char *base_name(const char *pPath) {
    const char *const pSlash = strrchr(pPath, '/');
    return pSlash != nullptr ? pSlash + 1 : pPath;
}

// The host's name up to its first ".", as it was at the first call.
static const char *short_host_name() TR_HOLDS(global_lock) {
    static constinit char hostName[TR_NAME_SIZE] = "";
    if (hostName[0] != '\0')
        return hostName;
    if (gethostname(hostName, sizeof hostName - 1) != 0)
        memcpy(hostName, TR_UNKNOWN, sizeof TR_UNKNOWN);
    hostName[strcspn(hostName, ".")] = '\0';
    return hostName;
}

// The command line of this process, as it was called.
static void get_program(char (&program)[TR_NAME_SIZE]) {
    if (cu_get_proc_args_1(getpid(), program, sizeof program) != 0)
        (void)snprintf(program, sizeof program, "/%s", TR_UNKNOWN);
    program[sizeof program - 1] = '\0';
}

// Adds a level, unless the path would be too long or is so already.
static void add_level(spool_dir_t *pDir, const char *pLevel) {
    const size_t length = strlen(pDir->path);
    const bool bFirst = pDir->numLevels == 0;
    const bool bSlash = !bFirst || length == 0 || pDir->path[length - 1] != '/';
    if (pDir->bTooLong || length + (bSlash ? 1 : 0) + strlen(pLevel) >= sizeof pDir->path) {
        pDir->bTooLong = true;
        return;
    }
    const int added = snprintf(pDir->path + length, sizeof pDir->path - length, "%s%s", bSlash ? "/" : "", pLevel);
    pDir->ends[pDir->numLevels++] = static_cast<uint32_t>(length) + static_cast<uint32_t>(added);
}

static void add_cluster_levels(spool_dir_t *pDir, const char *pTrcFile) {
    if (strstr(pTrcFile, TR_IW_DIR) != nullptr) {
        char target[TR_IW_TARGET_SIZE] = "";
        const ssize_t length = readlink(TR_IW_DIR, target, sizeof target - 1);
        add_level(pDir, "IW");
        add_level(pDir, length > 0 ? base_name(target) : TR_UNKNOWN);
        return;
    }
    cu_cluster_info_t cluster;
    if (get_cluster_info(&cluster) != 0)
        cluster = {};
    add_level(pDir, cluster.cu_cluster_name);
    add_level(pDir, cluster.cu_cluster_ID);
}

void compute_spool_dir(const char *pDest, const char *pTrcFile, const char *pProgram, spool_dir_t *pDir) {
    pDir->numLevels = 0;
    pDir->bTooLong = false;
    (void)snprintf(pDir->path, sizeof pDir->path, "%s", pDest); // a destination fits
    add_cluster_levels(pDir, pTrcFile);
    add_level(pDir, short_host_name());
    uint64_t nodeId = 0;
    if (cu_get_node_id_1(&nodeId) != 0)
        nodeId = 0;
    char node[2 * sizeof nodeId + 1];
    (void)snprintf(node, sizeof node, "%016" PRIx64, nodeId);
    add_level(pDir, node);
    add_level(pDir, base_name(pProgram));
}

// ---- Creating directories ----

// 0: it is there and can be used; -1: something is there that cannot; 1: there is nothing.
static int32_t check_directory(const char *pDir) {
    struct stat fileStat;
    if (stat(pDir, &fileStat) != 0)
        return 1;
    return S_ISDIR(fileStat.st_mode) && faccessat(AT_FDCWD, pDir, W_OK, AT_EACCESS) == 0 ? 0 : -1;
}

// Creates a directory. Programs that start together create the same ones: what another one has made meanwhile will do.
static int32_t create_directory(const char *pDir) {
    char reason[128] = "";
    const int32_t rc = mkdir(pDir, TR_SPOOL_DIR_MODE);
    const int error = errno;
    debug_line("subdir creating: '%s' (%d:%s)\n", pDir, rc, rc == 0 ? "" : strerror_r(error, reason, sizeof reason));
    return rc != 0 && error == EEXIST && check_directory(pDir) == 0 ? 0 : rc;
}

int32_t subdir(const char *dir) {
    debug_line("subdir checking: '%s'\n", dir != nullptr ? dir : TR_NULL_TEXT);
    if (dir == nullptr)
        return -1;
    int32_t rc = check_directory(dir);
    if (rc == -1)
        debug_line("subdir creating: '%s' (%d)\n", dir, 0);
    if (rc == 1) {
        rc = create_directory(dir);
        if (rc != 0)
            return rc;
    }
    debug_line("subdir returning %d\n", rc);
    return rc;
}

// Whether a directory was made, or something is there already; what it is shows when it is used.
static bool make_part(const char *pPath) {
    return mkdir(pPath, TR_SPOOL_DIR_MODE) == 0 || errno == EEXIST;
}

int32_t create_all_directories_in_path(const char *p_path) {
    if (!is_file_name(p_path))
        return 1;
    char path[TR_NAME_SIZE];
    memcpy(path, p_path, strlen(p_path) + 1);
    for (char *pSlash = path; *pSlash != '\0' && (pSlash = strchr(pSlash + 1, '/')) != nullptr;) {
        *pSlash = '\0';
        const bool bMade = make_part(path);
        *pSlash = '/';
        if (!bMade)
            return 1;
    }
    return make_part(path) ? 0 : 1;
}

// Checks or creates the directory down to a level.
static int32_t make_level(spool_dir_t *pDir, uint32_t level) {
    char *const pEnd = pDir->path + pDir->ends[level];
    const char next = *pEnd;
    *pEnd = '\0';
    const int32_t rc = subdir(pDir->path);
    *pEnd = next;
    return rc;
}

char *mkspooldir(trace_spool_spec_t *spec, const char *trc_file) {
    debug_line("entering mkspooldir: '%s'\n", spec->dest);
    if (strcmp(spec->dest, TR_NOWHERE) == 0)
        return spec->dest;
    if (create_all_directories_in_path(spec->dest) != 0)
        return nullptr;
    char program[TR_NAME_SIZE];
    get_program(program);
    const char *const pSlash = strrchr(program, '/');
    spool_dir_t dir;
    compute_spool_dir(spec->dest, trc_file, program, &dir);
    for (uint32_t level = 0; level < dir.numLevels; level++) {
        if (level == TR_NUM_SPOOL_LEVELS - 1)
            debug_line_at(TR_DEBUG_ALL, LOG_ERR, "mkspooldir: baseName: '%s' argsbuffer: %s\n",
                          pSlash != nullptr ? pSlash : "", program);
        if (make_level(&dir, level) != 0)
            return nullptr;
    }
    if (dir.bTooLong)
        return nullptr;
    memcpy(spec->dest, dir.path, strlen(dir.path) + 1);
    return spec->dest;
}
