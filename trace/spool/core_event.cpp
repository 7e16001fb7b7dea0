// The core event: a message that the start record of one trace file is to tell.
#include <pthread.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>

#include "trace/engine/engine.h"
#include "trace/engine/page_set.h"
#include "trace/frame/frame.h"
#include "trace/publish.h"
#include "trace/spool/spool.h"

// A leaf lock: nothing is locked under it. Guards the event; there is one when both texts are there.
static pthread_mutex_t coreEventMutex = PTHREAD_MUTEX_INITIALIZER;
static constinit char *gCoreTrcFile = nullptr;
static constinit char *gCoreMessage = nullptr;

static char *copy_of(const char *pText) {
    return pText != nullptr ? strdup(pText) : nullptr;
}

int32_t tr_core_event_1(const char *trc_file, const char *message) {
    if (observe(&this_is_child) != 0)
        return 0; // no file is started there, and whoever held the lock may not exist any more
    char *const pTrcFile = copy_of(trc_file);
    char *const pMessage = copy_of(message);
    pthread_mutex_lock(&coreEventMutex);
    char *const pFormerFile = gCoreTrcFile;
    char *const pFormerMessage = gCoreMessage;
    gCoreTrcFile = pTrcFile;
    gCoreMessage = pMessage;
    pthread_mutex_unlock(&coreEventMutex);
    free(pFormerFile);
    free(pFormerMessage);
    return 0;
}

int64_t get_core_message(const trace_anchor_t *pAnchor, char *pMessage, size_t size) {
    int64_t length = -1;
    pthread_mutex_lock(&coreEventMutex);
    if (gCoreTrcFile != nullptr && gCoreMessage != nullptr &&
        (strcmp(gCoreTrcFile, pAnchor->fileName) == 0 || has_base_name(set_head(pAnchor), gCoreTrcFile))) {
        length = static_cast<int64_t>(strlen(gCoreMessage));
        if (size != 0) {
            const size_t numCopy = std::min(static_cast<size_t>(length), size - 1);
            memcpy(pMessage, gCoreMessage, numCopy);
            pMessage[numCopy] = '\0';
        }
    }
    pthread_mutex_unlock(&coreEventMutex);
    return length;
}
