// The counter behind the time stamps, in line: who stamps records reads it for each of them.
//
// Private to the project. Each library that uses it has a copy of its own, with a state of its own for each thread; the
// copies agree to a microsecond.
#ifndef KZ_CU_COUNTER_H
#define KZ_CU_COUNTER_H

#include <stdint.h>

// How a thread extrapolates from its last reading of the clock. All zero it says: no reading yet, read the clock at once.
struct extrapolation_t {
    // The counter at a cycle count c with c - cycles < limit is stamp + (c - cycles) * slope / 2^RATIO_SHIFT.
    uint64_t cycles;
    uint64_t limit;
    uint64_t slope;
    uint64_t stamp;
};

constexpr unsigned RATIO_SHIFT = 32; // a ratio, nanoseconds a cycle, has so many binary digits of fraction

[[gnu::tls_model("initial-exec")]] extern constinit thread_local extrapolation_t threadExtrapolation;

// Sets the library's copy off. Once, before anything is read.
//
// base  what the counter is ahead of CLOCK_BOOTTIME, modulo 2^64
void start_counter(uint64_t base);

// How far a clock, in nanoseconds, is ahead of CLOCK_BOOTTIME, modulo 2^64.
uint64_t distance_of(uint64_t (*pReadClock)());

// Reads the clock, and starts the next millisecond of extrapolation.
[[gnu::cold]] uint64_t refresh_counter();

inline uint64_t read_cycles() {
#if defined(__x86_64__) || defined(__i386__)
    return __builtin_ia32_rdtsc();
#else
    return 0;
#endif
}

// What cu_get_ctr_1() is. Never goes backwards within a thread.
inline uint64_t read_counter() {
    // A cycle count below the last reading's, too, makes a difference beyond the limit.
    const extrapolation_t *const pFrom = &threadExtrapolation;
    const uint64_t elapsed = read_cycles() - pFrom->cycles;
    if (elapsed >= pFrom->limit) [[unlikely]]
        return refresh_counter();
    return pFrom->stamp + ((elapsed * pFrom->slope) >> RATIO_SHIFT);
}

#endif
