#include "reader/time.h"

#include <algorithm>
#include <limits>

namespace trread {

__extension__ typedef __int128 wide_t; // a 64-bit stamp times 10^9 takes 94 bits

static constexpr uint64_t NS_PER_SECOND = 1'000'000'000;

int64_t time_of_stamp(uint64_t timeStamp, const cu_timeinfo_t &timeInfo) {
    const uint64_t ticksPerSecond = timeInfo.timeinfo1 != 0 ? timeInfo.timeinfo1 : NS_PER_SECOND;
    const wide_t time_ns =
        wide_t{timeStamp} * NS_PER_SECOND / ticksPerSecond + static_cast<int64_t>(timeInfo.timeinfo2);
    constexpr wide_t LOWEST = std::numeric_limits<int64_t>::min();
    constexpr wide_t HIGHEST = std::numeric_limits<int64_t>::max();
    return static_cast<int64_t>(std::clamp(time_ns, LOWEST, HIGHEST));
}

} // namespace trread
