/* Common utilities: error objects, the clock of the trace records, the identity of process, node and cluster.
 *
 * The tracing library stands on this layer and reaches the machine's identity only through it, so that a site can
 * provide its own. All functions may be called from any thread, but not from a signal handler; none of them is a
 * cancellation point. None of them calls the functions of the table given to cu_trp_register from inside another
 * function of this layer: the callers may hold locks that recording needs. */
#ifndef KZ_CU_KZ_CU_H
#define KZ_CU_KZ_CU_H

#include <stddef.h>
#include <stdint.h>
#include <sys/types.h>
#include <time.h>

#define KZ_CU_API __attribute__((visibility("default")))

#ifdef __cplusplus
extern "C" {
#endif

/* Kind of one insert of an error message. */
typedef enum cu_error_arg_type_t {
    CU_ERROR_ARG_INT = 0,
    CU_ERROR_ARG_LONG = 1,
    CU_ERROR_ARG_LONG_LONG = 2,
    CU_ERROR_ARG_DOUBLE = 3,
    CU_ERROR_ARG_RESERVED = 4,
    CU_ERROR_ARG_CHAR_STR = 5,
    CU_ERROR_ARG_VOID_PTR = 6
} cu_error_arg_type_t;

/* One insert. */
typedef struct cu_error_arg_t {
    cu_error_arg_type_t cu_arg_type;
    union {
        int cu_arg_int;
        long cu_arg_long;
        long long cu_arg_long_long;
        double cu_arg_double;
        char *cu_arg_char_str; /* null when a null text was given */
        void *cu_arg_void_ptr;
    } cu_arg_value;
} cu_error_arg_t;

/* What is known about a failure. An object and its texts belong together and are released together. */
typedef struct cu_error_t {
    int32_t cu_error_id;     /* the result code; 0: no error is set */
    char *cu_ffdc_id;        /* first-failure data-capture identifier, or null */
    char *cu_msg_cat;        /* name of the message catalogue, or null */
    int32_t cu_msg_set;      /* message set within the catalogue */
    int32_t cu_msg_num;      /* message within the set */
    char *cu_msg_default;    /* text used when the catalogue is not installed, a printf format, or null */
    uint32_t cu_arg_cnt;     /* number of inserts */
    cu_error_arg_t *cu_args; /* cu_arg_cnt inserts in the order of the default text's conversions, or null */
} cu_error_t;

/* Time base of counter values: a value v stands for v * 10^9 / timeinfo1 + timeinfo2 nanoseconds since 1970 (UTC). */
typedef struct cu_timeinfo_t {
    uint64_t timeinfo1; /* ticks a second, never 0 */
    uint64_t timeinfo2; /* nanoseconds to add, signed, as 64 bits of two's complement */
} cu_timeinfo_t;

#define CU_CLUSTER_TEXT_SIZE 64 /* bytes, zero byte included */

/* The cluster that this node belongs to. */
typedef struct cu_cluster_info_t {
    char cu_cluster_ID[CU_CLUSTER_TEXT_SIZE];
    char cu_cluster_name[CU_CLUSTER_TEXT_SIZE];
    int32_t cu_node_number;
} cu_cluster_info_t;

struct tr_proxy_func_table_t; /* kz_tr.h */

/* Records a failure as the calling thread's current error, in place of an earlier one.
 *
 * error_id     the result code that the caller is going to return
 * ffdc_id      first-failure data-capture identifier, or null; copied
 * msg_cat      name of the message catalogue, or null; copied
 * msg_set      message set within the catalogue
 * msg_num      message within the set
 * msg_default  default text, or null; copied. Its conversions say how many inserts follow and of which kinds: %d, %i,
 *              %u, %x, %o, %c int; with l, z or t long; with ll or j long long; %f, %g, %e, %a double, with L from
 *              a long double; %s text (copied up to its precision, if given); %p pointer, and %ls, whose text is not
 *              copied. The int of a width or precision "*" is no insert. Inserts beyond its conversions are not kept,
 *              nor those from a conversion on that is none of these.
 *
 * Returns error_id. When memory is short the error is kept without its texts and inserts. */
KZ_CU_API int32_t cu_set_error_1(int32_t error_id, const char *ffdc_id, const char *msg_cat, int32_t msg_set,
                                 int32_t msg_num, const char *msg_default, ...);

/* Clears the calling thread's current error. Returns 0. */
KZ_CU_API int32_t cu_set_no_error_1(void);

/* Hands out a copy of the calling thread's current error; cu_error_id is 0 when none is set.
 *
 * error_p  receives the copy, which the caller gives back with cu_rel_error_1; untouched on failure
 *
 * Returns 0; EINVAL when error_p is null; ENOMEM when memory is short. */
KZ_CU_API int32_t cu_get_error_1(cu_error_t **error_p);

/* Gives back what cu_get_error_1 handed out. Null is allowed. */
KZ_CU_API void cu_rel_error_1(cu_error_t *error);

/* Tells the cluster's identity: KZ_CU_CLUSTER_NAME, KZ_CU_CLUSTER_ID and KZ_CU_NODE_NUMBER of the environment, or else
 * cluster_name, cluster_id and node_number of "/var/kz/cfg/node.conf" (lines "name = value"). The environment of a
 * set-uid program is not looked at. Each of the three is looked for by itself, an empty one counts as absent, and the
 * file's first line for a name counts. Texts are cut to their fields; a node number that is absent or no number is 0.
 *
 * info  filled on success, untouched otherwise
 *
 * Returns 0; ENOENT when no cluster name is configured; EINVAL when info is null. */
KZ_CU_API int32_t cu_get_cluster_info_1(cu_cluster_info_t *info);

/* Tells the node's identifier: KZ_CU_NODE_ID or node_id (decimal, 0x hexadecimal or 0 octal), or else, also when
 * that is no number, the first 16 hexadecimal digits of "/etc/machine-id".
 *
 * node_id  filled on success, untouched otherwise
 *
 * Returns 0; ENOENT when none of these is there; EINVAL when node_id is null. */
KZ_CU_API int32_t cu_get_node_id_1(uint64_t *node_id);

/* Tells the administrative group: the group that KZ_CU_ADMIN_GROUP or admin_group names.
 *
 * group  filled on success, untouched otherwise
 *
 * Returns 0; ENOENT when none is configured or the machine has no group of that name; ENOMEM when memory is
 * short; EINVAL when group is null. */
KZ_CU_API int32_t cu_getadmin_group_id_1(gid_t *group);

/* Reads a process's argument block: its arguments, separated by zero bytes, so that as a text it is the program as it
 * was called.
 *
 * pid     the process; one's own or another's
 * buffer  receives the block; what it holds is terminated by a zero byte also when the block is cut
 * size    bytes of buffer, at least 2
 *
 * Returns 0, or -1 when the process is not there, has no arguments, or buffer or size cannot be used. */
KZ_CU_API int32_t cu_get_proc_args_1(pid_t pid, char *buffer, size_t size);

/* Tells the time base of the counter as the library was loaded: timeinfo1 ticks a second, timeinfo2 0. */
KZ_CU_API void cu_get_procspeed_1(cu_timeinfo_t *timeinfo);

/* Brings a time base up to date: timeinfo2 becomes how many nanoseconds CLOCK_REALTIME has moved away from the counter
 * since the library was loaded (signed). */
KZ_CU_API void cu_compute_base_timeinfo_1(cu_timeinfo_t *timeinfo);

/* Reads the counter: nanoseconds since 1970 (UTC) by a clock that never steps (CLOCK_BOOTTIME plus its distance from
 * CLOCK_REALTIME when the library was loaded). Never goes backwards within a thread. Makes no system call where the
 * kernel's clock source is the processor's time stamp counter. */
KZ_CU_API uint64_t cu_get_ctr_1(void);

/* Reads the time of day (CLOCK_REALTIME). */
KZ_CU_API void cu_get_current_time_1(struct timespec *now);

/* Takes the functions through which this layer may flush and record traces of its own.
 *
 * table  stays valid and unchanged for the life of the process */
KZ_CU_API void cu_trp_register(const struct tr_proxy_func_table_t *table);

#ifdef __cplusplus
}
#endif

#endif
