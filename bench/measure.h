// Wall-clock measurement of a plug-in operation against its floor, taken in alternation so
// that whatever else the machine does weighs on both alike.
#ifndef RFEVENT_BENCH_MEASURE_H
#define RFEVENT_BENCH_MEASURE_H

#include <functional>
#include <vector>

namespace rfevent::bench {

struct Comparison {
    double plugin = 0; // seconds per operation, median over the rounds
    double floor = 0;
};

struct Schedule {
    int rounds = 7;   // rounds; each times both sides
    int perRound = 5; // operations per side and round
};

// Runs each side once to warm up, then `rounds` rounds of `perRound` operations per side; the
// side that goes first alternates from round to round.
Comparison compareAlternating(const std::function<void()>& plugin,
                              const std::function<void()>& floor, Schedule schedule);

// The same, timing each round both by the clock and by the CPU time of the whole process (the
// plug-in or floor and the in-process receivers together).
struct Costs {
    Comparison wall;
    Comparison cpu;
};
Costs compareCosts(const std::function<void()>& plugin, const std::function<void()>& floor,
                   Schedule schedule);

// The plug-in against several floors: each round times the plug-in and every floor, the side
// that goes first rotating from round to round. One Costs per floor, with the same plug-in
// figures in each.
std::vector<Costs> compareCostsWithEach(const std::function<void()>& plugin,
                                        const std::vector<std::function<void()>>& floors,
                                        Schedule schedule);

// Seconds per operation of one side alone, median over the rounds.
double medianSeconds(const std::function<void()>& operation, Schedule schedule);

double secondsSince(double start);
double nowSeconds();

} // namespace rfevent::bench

#endif
