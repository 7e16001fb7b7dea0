// What control calls cost: levels applied to many components, registration with many stored specifications, and the way
// from the first registration to a started file.
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <string>
#include <vector>

#include "trace/kz_tr.h"

namespace {

constexpr uint32_t NUM_COMPONENTS = 100;
constexpr uint32_t NUM_CATEGORIES = 50;
constexpr int NUM_SPECS = 100;
constexpr int NUM_RUNS = 15;

std::array<std::string, NUM_CATEGORIES> names;
std::array<tr_category_description_t, NUM_CATEGORIES> categories;
std::array<std::array<tr_detail_level_t, NUM_CATEGORIES>, NUM_COMPONENTS> levels;

double seconds(const std::function<int32_t()> &call) {
    const auto start = std::chrono::steady_clock::now();
    const int32_t rc = call();
    const std::chrono::duration<double> elapsed = std::chrono::steady_clock::now() - start;
    if (rc != 0) {
        fprintf(stderr, "failed: %d\n", rc);
        exit(1);
    }
    return elapsed.count();
}

std::string component_name(uint32_t i) {
    char name[8];
    snprintf(name, sizeof name, "C%03u", i);
    return name;
}

int32_t register_component(uint32_t i) {
    return tr_register_component_1(component_name(i).c_str(), levels[i].data(), categories.data(), NUM_CATEGORIES);
}

void describe_categories() {
    for (uint32_t i = 0; i < NUM_CATEGORIES; i++) {
        names[i] = "category_" + std::to_string(i);
        categories[i] = {i, names[i].c_str(), 3, 1};
    }
}

// Each run in a process of its own: the library initialises once.
void measure(const char *pWhat, const std::function<double()> &run) {
    std::vector<double> times;
    for (int i = 0; i < NUM_RUNS; i++) {
        int ends[2];
        if (pipe(ends) != 0)
            exit(1);
        if (fork() == 0) {
            const double time = run();
            _exit(write(ends[1], &time, sizeof time) == sizeof time ? 0 : 1);
        }
        double time = 0;
        close(ends[1]);
        if (read(ends[0], &time, sizeof time) != sizeof time)
            exit(1);
        close(ends[0]);
        wait(nullptr);
        times.push_back(time);
    }
    std::sort(times.begin(), times.end());
    printf("%-56s %9.3f %9.3f\n", pWhat, times.front() * 1000, times[times.size() / 2] * 1000);
}

} // namespace

int main() {
    describe_categories();
    setenv("KZ_TR_FILENAME", ("/dev/shm/bench-control-" + std::to_string(getpid())).c_str(), 1);
    printf("%-56s %9s %9s\n", "ms", "best", "median");
    measure("first registration to a started file of 64 KiB", [] {
        unlink(getenv("KZ_TR_FILENAME"));
        return seconds([] { return register_component(0); });
    });
    measure("*:*=1 applied to 100 components of 50 categories", [] {
        for (uint32_t i = 0; i < NUM_COMPONENTS; i++)
            register_component(i);
        return seconds([] { return tr_set_trace_levels_1("*:*=1"); });
    });
    measure("registration with 100 stored specifications", [] {
        for (int i = 0; i < NUM_SPECS; i++)
            tr_set_trace_levels_1("C0.*:category_[0-9]+=2");
        return seconds([] { return register_component(0); });
    });
    unlink(getenv("KZ_TR_FILENAME"));
    return 0;
}
