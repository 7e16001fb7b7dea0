// The cluster's identity, kept once it is known.
#include "trace/engine/engine.h"
#include "trace/frame/frame.h"

// A leaf lock: nothing is locked under it. Guards the two words below.
static pthread_mutex_t clusterInfoMutex = PTHREAD_MUTEX_INITIALIZER;
static constinit cu_cluster_info_t clusterInfo = {};
static constinit int32_t clusterInfoRC = 0;

// Cancellation is off while the lock is held: fetching reads a file.
int32_t get_cluster_info(cu_cluster_info_t *pInfo) {
    const int cancelState = cancel_disable();
    // In the child of a fork whoever held the lock may not exist any more.
    if (observe(&this_is_child) != 0 && pthread_mutex_trylock(&clusterInfoMutex) != 0) {
        cancel_restore(cancelState);
        *pInfo = {};
        return -1;
    }
    if (observe(&this_is_child) == 0)
        pthread_mutex_lock(&clusterInfoMutex);
    if (clusterInfo.cu_cluster_name[0] == '\0')
        clusterInfoRC = cu_get_cluster_info_1(&clusterInfo);
    const int32_t rc = clusterInfoRC;
    *pInfo = clusterInfo;
    pthread_mutex_unlock(&clusterInfoMutex);
    cancel_restore(cancelState);
    return rc;
}
