// Initialisation from the environment, at the first call that needs it, and the process's stop switch.
//
//   uninitialised ──first control call──▶ initialised ──tr_term──▶ terminated ──next control call──▶ initialised
//
// What runs once per process stays done after a termination, and the stop switch stays set.
#include <syslog.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>

#include "cu/counter.h"
#include "cu/kz_cu.h"
#include "trace/control/control.h"
#include "trace/engine/engine.h"
#include "trace/engine/set_lock.h"
#include "trace/frame/frame.h"
#include "trace/publish.h"
#include "trace/spool/spool.h"

int32_t global_switch = 0;

static pthread_once_t register_once = PTHREAD_ONCE_INIT;
static pthread_once_t counter_once = PTHREAD_ONCE_INIT;

pid_t init_pid = 0;

tr_proxy_func_table_t _trp_funcs = {.p_tr_flush = tr_flush_1, .p_tr_record_vfmt_string = tr_record_vfmt_string_1};

int32_t master_override_off(void) {
    return observe(&global_switch);
}

void global_stop_trace(void) {
    publish(&global_switch, 1);
}

// Value of a variable, or null when it is not set, is empty, or the program runs with rights that its caller lacks.
static const char *environment(const char *pName) {
    const char *pValue = secure_getenv(pName);
    return pValue != nullptr && *pValue != '\0' ? pValue : nullptr;
}

// Stores a file name, a relative one behind the working directory. Where that is not known the name stays empty.
static void set_default_name(trace_anchor_t *pAnchor, const char *pName) {
    char *pTo = pAnchor->fileName;
    size_t length = 0;
    if (*pName != '/') {
        if (getcwd(pTo, TR_NAME_SIZE - 1) == nullptr || *pTo != '/') { // "(unreachable)" is no directory
            *pTo = '\0';
            return;
        }
        length = strlen(pTo);
        if (pTo[length - 1] != '/')
            pTo[length++] = '/';
    }
    const size_t numCopy = strnlen(pName, TR_NAME_SIZE - 1 - length);
    memcpy(pTo + length, pName, numCopy);
    pTo[length + numCopy] = '\0';
}

static void read_environment(trace_anchor_t *pAnchor) TR_HOLDS(global_lock) {
    const char *pStop = nullptr;
    const bool bStarted = pAnchor->pMap != nullptr; // a termination could not stop it: name and size are in use
    if (const char *pName = environment("KZ_TR_FILENAME"); pName != nullptr && !bStarted)
        set_default_name(pAnchor, pName);
    if (const char *pSize = environment("KZ_TR_SIZE")) {
        const uint64_t size = read_number(pSize, &pStop);
        if (size != 0 && !bStarted)
            pAnchor->uRequestedFileSize = static_cast<uint32_t>(size);
    }
    if (const char *pLevel = environment("KZ_TR_DEBUG_LEVEL"))
        publish(&global_debug_level, static_cast<uint32_t>(read_number(pLevel, &pStop)));
    if (observe(&global_debug_level) != 0)
        openlog("zorv_trace", LOG_PID | LOG_CONS | LOG_NDELAY, LOG_DAEMON);
    take_environment_specs(environment("KZ_TR_TRACE_LEVELS"), environment("KZ_TR_FILE_MAP"),
                           environment("KZ_TR_FILE_SIZE"));
}

// The counter of the records follows cu_get_ctr_1(), to which the time bases in the files belong.
static void start_own_counter() {
    start_counter(distance_of(cu_get_ctr_1));
}

// Cannot fail; the result is there for callers that pass it on. Cancellation is off: it is never done by halves.
static int32_t init(trace_anchor_t *pAnchor) TR_HOLDS(global_lock) {
    const int cancelState = cancel_disable();
    if (pAnchor == &anchors)
        pAnchor->pageSize = sysconf(_SC_PAGESIZE);
    else
        initAnchor(pAnchor);
    (void)pthread_once(&register_once, register_atfork);
    (void)pthread_once(&counter_once, start_own_counter);
    read_environment(pAnchor);
    read_spool_cfg_once();
    (void)determine_configuration_action_from_the_configuration_file(); // what was read counts as taken up
    publish(&init_pid, getpid());
    (void)atexit(tr_term);
    cu_trp_register(&_trp_funcs);
    if (anchor_set_mutex(pAnchor) == nullptr)
        choose_set_mutex(pAnchor); // from here recorders may come in
    pAnchor->bInitialized = 1;
    cancel_restore(cancelState);
    return 0;
}

int32_t init_if_needed() {
    return anchors.bInitialized != 0 ? 0 : init(&anchors);
}
