#include "measure.h"

#include <algorithm>
#include <chrono>
#include <vector>

namespace rfevent::bench {

namespace {

double median(std::vector<double> values) {
    if (values.empty()) {
        return 0;
    }
    std::sort(values.begin(), values.end());
    const std::size_t middle = values.size() / 2;
    return values.size() % 2 == 1 ? values[middle] : (values[middle - 1] + values[middle]) / 2;
}

double timePerOperation(const std::function<void()>& operation, int count) {
    const double start = nowSeconds();
    for (int i = 0; i < count; ++i) {
        operation();
    }
    return secondsSince(start) / count;
}

} // namespace

double nowSeconds() {
    using Clock = std::chrono::steady_clock;
    return std::chrono::duration<double>(Clock::now().time_since_epoch()).count();
}

double secondsSince(double start) {
    return nowSeconds() - start;
}

Comparison compareAlternating(const std::function<void()>& plugin,
                              const std::function<void()>& floor, Schedule schedule) {
    plugin();
    floor();
    std::vector<double> pluginTimes;
    std::vector<double> floorTimes;
    for (int round = 0; round < schedule.rounds; ++round) {
        if (round % 2 == 0) {
            pluginTimes.push_back(timePerOperation(plugin, schedule.perRound));
            floorTimes.push_back(timePerOperation(floor, schedule.perRound));
        } else {
            floorTimes.push_back(timePerOperation(floor, schedule.perRound));
            pluginTimes.push_back(timePerOperation(plugin, schedule.perRound));
        }
    }
    return {median(pluginTimes), median(floorTimes)};
}

double medianSeconds(const std::function<void()>& operation, Schedule schedule) {
    operation();
    std::vector<double> times;
    times.reserve(static_cast<std::size_t>(schedule.rounds));
    for (int round = 0; round < schedule.rounds; ++round) {
        times.push_back(timePerOperation(operation, schedule.perRound));
    }
    return median(times);
}

} // namespace rfevent::bench
