// The core event: a message that the start record of one trace file is to tell.
#include <pthread.h>

#include <cstring>

#include "trace/engine/engine.h"
#include "trace/frame/frame.h"
#include "trace/publish.h"
#include "trace/spool/spool.h"

// A leaf lock: nothing is locked under it. Guards the event.
static pthread_mutex_t coreEventMutex = PTHREAD_MUTEX_INITIALIZER;
static constinit bool bCoreEvent = false; // there is one
static constinit char gCoreTrcFile[TR_NAME_SIZE] = "";
static constinit char gCoreMessage[TR_CORE_MESSAGE_SIZE] = "";

static void copy_cut(char *pTo, size_t size, const char *pFrom) {
    const size_t length = strnlen(pFrom, size - 1);
    memcpy(pTo, pFrom, length);
    pTo[length] = '\0';
}

// A name that no trace file can have is no event.
int32_t tr_core_event_1(const char *trc_file, const char *message) {
    if (observe(&this_is_child) != 0)
        return 0; // no file is started there, and whoever held the lock may not exist any more
    pthread_mutex_lock(&coreEventMutex);
    bCoreEvent = trc_file != nullptr && message != nullptr && is_file_name(trc_file);
    if (bCoreEvent) {
        copy_cut(gCoreTrcFile, sizeof gCoreTrcFile, trc_file);
        copy_cut(gCoreMessage, sizeof gCoreMessage, message);
    }
    pthread_mutex_unlock(&coreEventMutex);
    return 0;
}

bool get_core_message(const char *pFileName, const char *pBaseName, char *pMessage, size_t size) {
    pthread_mutex_lock(&coreEventMutex);
    const bool bMeant = bCoreEvent && (strcmp(gCoreTrcFile, pFileName) == 0 ||
                                       (pBaseName != nullptr && strcmp(gCoreTrcFile, pBaseName) == 0));
    if (bMeant)
        copy_cut(pMessage, size, gCoreMessage);
    pthread_mutex_unlock(&coreEventMutex);
    return bMeant;
}
