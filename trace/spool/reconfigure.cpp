// Keeping up with the configuration file while the program runs.
#include <pthread.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstdlib>

#include "trace/engine/engine.h"
#include "trace/publish.h"
#include "trace/spool/config.h"
#include "trace/spool/spool.h"

time_t configuration_file_last_modified = 0;
pthread_mutex_t configuration_file_last_modified_mutex = PTHREAD_MUTEX_INITIALIZER;

// With the mutex of the time held.
static configuration_action_t do_determine_configuration_action_from_the_configuration_file() {
    struct stat status;
    if (stat(TR_SPOOL_CONFIG_FILE, &status) != 0)
        return errno == ENOENT ? TURN_SPOOLING_OFF : TAKE_NO_ACTION;
    if (status.st_mtim.tv_sec <= configuration_file_last_modified)
        return TAKE_NO_ACTION;
    configuration_file_last_modified = status.st_mtim.tv_sec;
    return RECONFIGURE;
}

// Reaches no cancellation point while the mutex is held. In the child of a fork its holder may not exist any more.
configuration_action_t determine_configuration_action_from_the_configuration_file() {
    if (observe(&this_is_child) != 0 || pthread_mutex_lock(&configuration_file_last_modified_mutex) != 0)
        return TAKE_NO_ACTION;
    const configuration_action_t action = do_determine_configuration_action_from_the_configuration_file();
    (void)pthread_mutex_unlock(&configuration_file_last_modified_mutex);
    return action;
}

void configure_if_necessary() {
    if (secure_getenv("KZ_TR_SPOOL") != nullptr)
        return; // entries of the environment never change
    (void)determine_configuration_action_from_the_configuration_file();
}
