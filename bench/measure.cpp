#include "measure.h"

#include <algorithm>
#include <chrono>
#include <ctime>
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

double processCpuSeconds() {
    timespec now{};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &now);
    return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) * 1e-9;
}

struct Sample {
    double wall;
    double cpu;
};

Sample timePerOperation(const std::function<void()>& operation, int count) {
    const double start = nowSeconds();
    const double cpuStart = processCpuSeconds();
    for (int i = 0; i < count; ++i) {
        operation();
    }
    return {secondsSince(start) / count, (processCpuSeconds() - cpuStart) / count};
}

struct Samples {
    std::vector<double> wall;
    std::vector<double> cpu;
    void add(const Sample& sample) {
        wall.push_back(sample.wall);
        cpu.push_back(sample.cpu);
    }
};

} // namespace

double nowSeconds() {
    using Clock = std::chrono::steady_clock;
    return std::chrono::duration<double>(Clock::now().time_since_epoch()).count();
}

double secondsSince(double start) {
    return nowSeconds() - start;
}

std::vector<Costs> compareCostsWithEach(const std::function<void()>& plugin,
                                        const std::vector<std::function<void()>>& floors,
                                        Schedule schedule) {
    // Side 0 is the plug-in, side i + 1 the floor i.
    std::vector<const std::function<void()>*> sides = {&plugin};
    for (const std::function<void()>& floor : floors) {
        sides.push_back(&floor);
    }
    for (const std::function<void()>* side : sides) {
        (*side)();
    }
    std::vector<Samples> times(sides.size());
    for (int round = 0; round < schedule.rounds; ++round) {
        for (std::size_t turn = 0; turn < sides.size(); ++turn) {
            const std::size_t side = (turn + static_cast<std::size_t>(round)) % sides.size();
            times[side].add(timePerOperation(*sides[side], schedule.perRound));
        }
    }
    std::vector<Costs> costs;
    const double pluginWall = median(times[0].wall);
    const double pluginCpu = median(times[0].cpu);
    for (std::size_t side = 1; side < sides.size(); ++side) {
        costs.push_back(
            {{pluginWall, median(times[side].wall)}, {pluginCpu, median(times[side].cpu)}});
    }
    return costs;
}

Costs compareCosts(const std::function<void()>& plugin, const std::function<void()>& floor,
                   Schedule schedule) {
    return compareCostsWithEach(plugin, {floor}, schedule).front();
}

Comparison compareAlternating(const std::function<void()>& plugin,
                              const std::function<void()>& floor, Schedule schedule) {
    return compareCosts(plugin, floor, schedule).wall;
}

double medianSeconds(const std::function<void()>& operation, Schedule schedule) {
    operation();
    std::vector<double> times;
    times.reserve(static_cast<std::size_t>(schedule.rounds));
    for (int round = 0; round < schedule.rounds; ++round) {
        times.push_back(timePerOperation(operation, schedule.perRound).wall);
    }
    return median(times);
}

} // namespace rfevent::bench
