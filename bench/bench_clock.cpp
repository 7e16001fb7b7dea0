// What a reading of the counter costs, beside a bare reading of the processor's time stamp counter and of the clock.
#include <time.h>

#include <benchmark/benchmark.h>

#include "bench/ratio_reporter.h"
#include "cu/kz_cu.h"

namespace {

#if defined(__x86_64__)
void BM_Bare(benchmark::State &state) {
    for (auto _ : state)
        benchmark::DoNotOptimize(__builtin_ia32_rdtsc());
}
#endif

void BM_Counter(benchmark::State &state) {
    for (auto _ : state)
        benchmark::DoNotOptimize(cu_get_ctr_1());
}

void BM_Clock(benchmark::State &state) {
    timespec now;
    for (auto _ : state) {
        clock_gettime(CLOCK_BOOTTIME, &now);
        benchmark::DoNotOptimize(now);
    }
}

} // namespace

int main(int argc, char **argv) {
#if defined(__x86_64__)
    take_best(benchmark::RegisterBenchmark("time stamp counter", BM_Bare));
#endif
    take_best(benchmark::RegisterBenchmark("cu_get_ctr_1", BM_Counter));
    take_best(benchmark::RegisterBenchmark("clock_gettime", BM_Clock));
    benchmark::Initialize(&argc, argv);
    ratio_reporter_t reporter({{"time stamp counter", {"time stamp counter", ""}},
                               {"cu_get_ctr_1", {"time stamp counter", ""}},
                               {"clock_gettime", {"time stamp counter", ""}}});
    benchmark::RunSpecifiedBenchmarks(&reporter);
    return 0;
}
