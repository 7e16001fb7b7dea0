// The counter of the time stamps, as programs call it, and the time bases that turn it into the time of day.
#include "cu/kz_cu.h"

#include <time.h>

#include "cu/counter.h"

static constexpr uint64_t NS_PER_SEC = 1'000'000'000;

static constinit uint64_t baseAtLoading = 0; // CLOCK_REALTIME - CLOCK_BOOTTIME; constant after loading

static uint64_t read_time_of_day() {
    struct timespec now;
    cu_get_current_time_1(&now);
    return static_cast<uint64_t>(now.tv_sec) * NS_PER_SEC + static_cast<uint64_t>(now.tv_nsec);
}

[[gnu::constructor]] static void start_at_loading() {
    baseAtLoading = distance_of(read_time_of_day);
    start_counter(baseAtLoading);
}

uint64_t cu_get_ctr_1(void) {
    return read_counter();
}

void cu_get_procspeed_1(cu_timeinfo_t *timeinfo) {
    timeinfo->timeinfo1 = NS_PER_SEC;
    timeinfo->timeinfo2 = 0;
}

void cu_compute_base_timeinfo_1(cu_timeinfo_t *timeinfo) {
    timeinfo->timeinfo2 = distance_of(read_time_of_day) - baseAtLoading;
}

void cu_get_current_time_1(struct timespec *now) {
    (void)clock_gettime(CLOCK_REALTIME, now); // this clock is always there
}
