// The counter behind the time stamps, and the time bases that turn it into the time of day.
//
// The counter is CLOCK_BOOTTIME moved by a constant that is taken when the library is loaded. Where the kernel itself
// keeps time by the processor's cycle counter, a thread reads the clock only once a millisecond and extrapolates by the
// cycle counter in between:
//
//     no ratio yet --(two readings a millisecond apart)--> extrapolating <--(a millisecond is over: reading)--+
//      each call reads                                          |                                              |
//                                                               +----------------------------------------------+
//
// All of this is a thread's own. Nothing is shared but constants that are written while the library is loaded.
#include "cu/kz_cu.h"

#include <string.h>
#include <time.h>

#include "cu/files.h"

static constexpr uint64_t NS_PER_SEC = 1'000'000'000;
static constexpr uint64_t SPAN_NS = 1'000'000; // how long a reading of the clock is extrapolated
// A ratio comes from readings so far apart: the first as soon as it is good to 1 in 10^4, later ones better.
static constexpr uint64_t FIRST_RATIO_SPAN_NS = 1'000'000;
static constexpr uint64_t RATIO_SPAN_NS = 16'000'000;
static constexpr unsigned RATIO_SHIFT = 32; // a ratio, nanoseconds a cycle, has so many binary digits of fraction
// A cycle counter outside these bounds is not believed. They also keep all products below within 64 bits.
static constexpr uint64_t MIN_CYCLES_PER_US = 64;
static constexpr uint64_t MAX_CYCLES_PER_US = 64'000;
static constexpr uint64_t NARROW_CYCLES = 256; // a reading that took no longer was neither interrupted nor cold
static constexpr int MAX_TRIES = 4;
static constexpr uint64_t MIN_SUSPENDED_NS = 1'000'000; // no suspension is shorter

// A reading of CLOCK_BOOTTIME and the cycle counter as it stood then.
struct reading_t {
    uint64_t cycles;
    uint64_t ns;
};

// A thread's clock. All zero it says: no reading yet, read the clock at once.
struct thread_clock_t {
    // The stamp at a cycle count c with c - cycles < limit is stamp + (c - cycles) * slope / 2^RATIO_SHIFT.
    uint64_t cycles;
    uint64_t limit;
    uint64_t slope;
    uint64_t stamp;
    // Whence the slope comes.
    uint64_t ratio;       // nanoseconds a cycle * 2^RATIO_SHIFT; 0: not known yet
    reading_t last;       // the earlier one of the two readings that give the next ratio; ns 0: none yet
    uint64_t suspendedNs; // how long the machine had been suspended at that reading
};

[[gnu::tls_model("initial-exec")]] static constinit thread_local thread_clock_t threadClock = {};

// Constant after loading.
static constinit uint64_t counterBase = 0; // CLOCK_REALTIME - CLOCK_BOOTTIME
static constinit bool useCycles = false;

static uint64_t read_clock(clockid_t clock) {
    struct timespec now;
    (void)clock_gettime(clock, &now); // these clocks are always there
    return static_cast<uint64_t>(now.tv_sec) * NS_PER_SEC + static_cast<uint64_t>(now.tv_nsec);
}

#if defined(__x86_64__) || defined(__i386__)
static inline uint64_t read_cycles() {
    return __builtin_ia32_rdtsc();
}

// Says whether the cycle counter may be used: the kernel only keeps time by it where it is constant and in step on all
// processors.
static bool is_cycle_counter_good() {
    char source[16];
    return read_file("/sys/devices/system/clocksource/clocksource0/current_clocksource", source, sizeof source) > 0 &&
           strcmp(source, "tsc\n") == 0;
}
#else
static inline uint64_t read_cycles() {
    return 0;
}

static bool is_cycle_counter_good() {
    return false;
}
#endif

// Reads the time of day as a distance from CLOCK_BOOTTIME, modulo 2^64. An interruption between the two clocks would
// count as distance, so the best of a few tries is taken.
static uint64_t read_distance() {
    uint64_t distance = 0;
    uint64_t bestWidth = UINT64_MAX;
    for (int i = 0; i < MAX_TRIES; i++) {
        const uint64_t before = read_clock(CLOCK_BOOTTIME);
        const uint64_t now = read_clock(CLOCK_REALTIME);
        const uint64_t width = read_clock(CLOCK_BOOTTIME) - before;
        if (width < bestWidth) {
            bestWidth = width;
            distance = now - (before + width / 2);
        }
    }
    return distance;
}

[[gnu::constructor]] static void start_counter() {
    counterBase = read_distance();
    useCycles = is_cycle_counter_good();
}

static reading_t take_reading() {
    reading_t best = {};
    uint64_t bestWidth = UINT64_MAX;
    for (int i = 0; i < MAX_TRIES && bestWidth > NARROW_CYCLES; i++) {
        const uint64_t before = read_cycles();
        const uint64_t ns = read_clock(CLOCK_BOOTTIME);
        const uint64_t width = read_cycles() - before;
        if (width < bestWidth) {
            bestWidth = width;
            best = {.cycles = before + width / 2, .ns = ns};
        }
    }
    return best;
}

// Derives the ratio from the last reading and this one when they lie far enough apart. The cycle counter may or may not
// go on while the machine is suspended, so two readings with that in between give no ratio: CLOCK_MONOTONIC, which
// stands still meanwhile, tells.
static void update_ratio(thread_clock_t *pClock, reading_t now) {
    const uint64_t elapsedNs = now.ns - pClock->last.ns;
    if (elapsedNs < (pClock->ratio == 0 ? FIRST_RATIO_SPAN_NS : RATIO_SPAN_NS))
        return;
    const uint64_t suspendedNs = now.ns - read_clock(CLOCK_MONOTONIC);
    // An interruption before the line above makes it look too short, hence a bound in both directions.
    const bool isAwake = suspendedNs - pClock->suspendedNs + MIN_SUSPENDED_NS < 2 * MIN_SUSPENDED_NS;
    if (pClock->last.ns != 0 && isAwake) {
        const uint64_t elapsedCycles = now.cycles - pClock->last.cycles;
        const double cyclesPerNs = static_cast<double>(elapsedCycles) / static_cast<double>(elapsedNs);
        const bool isGood = cyclesPerNs * 1000 > MIN_CYCLES_PER_US && cyclesPerNs * 1000 < MAX_CYCLES_PER_US;
        pClock->ratio = isGood ? static_cast<uint64_t>(static_cast<double>(1ULL << RATIO_SHIFT) / cyclesPerNs) : 0;
    }
    pClock->last = now;
    pClock->suspendedNs = suspendedNs;
}

// Reads the clock, and starts the next millisecond of extrapolation where the ratio is known. A stamp that has run
// ahead of the clock is not taken back: it goes on more slowly, so that the clock has caught up a millisecond later.
[[gnu::cold, gnu::noinline]] static uint64_t refresh() {
    if (!useCycles)
        return counterBase + read_clock(CLOCK_BOOTTIME);
    thread_clock_t *pClock = &threadClock;
    const reading_t now = take_reading();
    update_ratio(pClock, now);

    const uint64_t clockStamp = counterBase + now.ns;
    const uint64_t highest = pClock->stamp + ((pClock->limit * pClock->slope) >> RATIO_SHIFT); // given out so far
    const uint64_t stamp = clockStamp < highest ? highest : clockStamp;
    const uint64_t aheadNs = stamp - clockStamp < SPAN_NS ? stamp - clockStamp : SPAN_NS;
    const uint64_t ratio = pClock->ratio;
    pClock->cycles = now.cycles;
    pClock->stamp = stamp;
    pClock->limit = ratio == 0 ? 0 : (SPAN_NS << RATIO_SHIFT) / ratio;
    pClock->slope = ratio - ratio * aheadNs / SPAN_NS;
    return stamp;
}

uint64_t cu_get_ctr_1(void) {
    // A cycle count below the last reading's, too, makes a difference beyond the limit.
    const thread_clock_t *pClock = &threadClock;
    const uint64_t elapsed = read_cycles() - pClock->cycles;
    if (elapsed >= pClock->limit) [[unlikely]]
        return refresh();
    return pClock->stamp + ((elapsed * pClock->slope) >> RATIO_SHIFT);
}

void cu_get_procspeed_1(cu_timeinfo_t *timeinfo) {
    timeinfo->timeinfo1 = NS_PER_SEC;
    timeinfo->timeinfo2 = 0;
}

void cu_compute_base_timeinfo_1(cu_timeinfo_t *timeinfo) {
    timeinfo->timeinfo2 = read_distance() - counterBase;
}

void cu_get_current_time_1(struct timespec *now) {
    (void)clock_gettime(CLOCK_REALTIME, now); // this clock is always there
}
