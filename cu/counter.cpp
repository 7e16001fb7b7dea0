// How the counter keeps in step with CLOCK_BOOTTIME, which it is ahead of by a constant.
//
// Where the kernel itself keeps time by the processor's cycle counter, a thread reads the clock only once a millisecond
// and extrapolates by the cycle counter in between:
//
//     no ratio yet --(two readings a millisecond apart)--> extrapolating <--(a millisecond is over: reading)--+
//      each call reads                                          |                                              |
//                                                               +----------------------------------------------+
//
// All of this is a thread's own. Nothing is shared but constants that are written before the counter is read.
#include "cu/counter.h"

#include <string.h>
#include <time.h>

#include "cu/files.h"

static constexpr uint64_t NS_PER_SEC = 1'000'000'000;
static constexpr uint64_t SPAN_NS = 1'000'000; // how long a reading of the clock is extrapolated
// A ratio comes from readings so far apart: the first as soon as it is good to 1 in 10^4, later ones better.
static constexpr uint64_t FIRST_RATIO_SPAN_NS = 1'000'000;
static constexpr uint64_t RATIO_SPAN_NS = 16'000'000;
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

// Whence a thread's slope comes.
struct thread_ratio_t {
    uint64_t ratio;       // nanoseconds a cycle * 2^RATIO_SHIFT; 0: not known yet
    reading_t last;       // the earlier one of the two readings that give the next ratio; ns 0: none yet
    uint64_t suspendedNs; // how long the machine had been suspended at that reading
};

constinit thread_local extrapolation_t threadExtrapolation = {};
[[gnu::tls_model("initial-exec")]] static constinit thread_local thread_ratio_t threadRatio = {};

// Constant once the counter is started.
static constinit uint64_t counterBase = 0; // CLOCK_BOOTTIME + counterBase is the counter
static constinit bool useCycles = false;

static uint64_t read_clock(clockid_t clock) {
    struct timespec now;
    (void)clock_gettime(clock, &now); // these clocks are always there
    return static_cast<uint64_t>(now.tv_sec) * NS_PER_SEC + static_cast<uint64_t>(now.tv_nsec);
}

// Says whether the cycle counter may be used: the kernel only keeps time by it where it is constant and in step on all
// processors.
static bool is_cycle_counter_good() {
#if defined(__x86_64__) || defined(__i386__)
    char source[16];
    return read_file("/sys/devices/system/clocksource/clocksource0/current_clocksource", source, sizeof source) > 0 &&
           strcmp(source, "tsc\n") == 0;
#else
    return false;
#endif
}

void start_counter(uint64_t base) {
    counterBase = base;
    useCycles = is_cycle_counter_good();
}

// An interruption between the two clocks would count as distance, so the best of a few tries is taken.
uint64_t distance_of(uint64_t (*pReadClock)()) {
    uint64_t distance = 0;
    uint64_t bestWidth = UINT64_MAX;
    for (int i = 0; i < MAX_TRIES; i++) {
        const uint64_t before = read_clock(CLOCK_BOOTTIME);
        const uint64_t now = pReadClock();
        const uint64_t width = read_clock(CLOCK_BOOTTIME) - before;
        if (width < bestWidth) {
            bestWidth = width;
            distance = now - (before + width / 2);
        }
    }
    return distance;
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
static void update_ratio(thread_ratio_t *pRatio, reading_t now) {
    const uint64_t elapsedNs = now.ns - pRatio->last.ns;
    if (elapsedNs < (pRatio->ratio == 0 ? FIRST_RATIO_SPAN_NS : RATIO_SPAN_NS))
        return;
    const uint64_t suspendedNs = now.ns - read_clock(CLOCK_MONOTONIC);
    // An interruption before the line above makes it look too short, hence a bound in both directions.
    const bool isAwake = suspendedNs - pRatio->suspendedNs + MIN_SUSPENDED_NS < 2 * MIN_SUSPENDED_NS;
    if (pRatio->last.ns != 0 && isAwake) {
        const uint64_t elapsedCycles = now.cycles - pRatio->last.cycles;
        const double cyclesPerNs = static_cast<double>(elapsedCycles) / static_cast<double>(elapsedNs);
        const bool isGood = cyclesPerNs * 1000 > MIN_CYCLES_PER_US && cyclesPerNs * 1000 < MAX_CYCLES_PER_US;
        pRatio->ratio = isGood ? static_cast<uint64_t>(static_cast<double>(1ULL << RATIO_SHIFT) / cyclesPerNs) : 0;
    }
    pRatio->last = now;
    pRatio->suspendedNs = suspendedNs;
}

// Extrapolates where the ratio is known. A stamp that has run ahead of the clock is not taken back: it goes on more
// slowly, so that the clock has caught up a millisecond later.
uint64_t refresh_counter() {
    if (!useCycles)
        return counterBase + read_clock(CLOCK_BOOTTIME);
    thread_ratio_t *const pRatio = &threadRatio;
    const reading_t now = take_reading();
    update_ratio(pRatio, now);

    extrapolation_t *const pFrom = &threadExtrapolation;
    const uint64_t clockStamp = counterBase + now.ns;
    const uint64_t highest = pFrom->stamp + ((pFrom->limit * pFrom->slope) >> RATIO_SHIFT); // given out so far
    const uint64_t stamp = clockStamp < highest ? highest : clockStamp;
    const uint64_t aheadNs = stamp - clockStamp < SPAN_NS ? stamp - clockStamp : SPAN_NS;
    const uint64_t ratio = pRatio->ratio;
    pFrom->cycles = now.cycles;
    pFrom->stamp = stamp;
    pFrom->limit = ratio == 0 ? 0 : (SPAN_NS << RATIO_SHIFT) / ratio;
    pFrom->slope = ratio - ratio * aheadNs / SPAN_NS;
    return stamp;
}
