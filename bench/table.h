// The result table: one row per case, the plug-in's figure, the floor's figure and their ratio.
#ifndef RFEVENT_BENCH_TABLE_H
#define RFEVENT_BENCH_TABLE_H

#include <cstdio>
#include <string>
#include <vector>

namespace rfevent::bench {

// How a figure is shown. Every figure is a cost (lower is better) except PerSecond, a rate;
// the ratio is always the plug-in's cost over the floor's, so 1.00 means "at the floor".
enum class Unit { Seconds, Instructions, Bytes, Count, PerSecond, Factor };

struct Row {
    std::string name;
    double plugin = 0;
    double floor = 0; // 0 with hasFloor false: the figure stands alone
    Unit unit = Unit::Seconds;
    bool hasFloor = true;
};

class Table {
  public:
    // Adds a row and echoes it to stderr, so a long run shows its progress.
    void add(const Row& row);
    void print(std::FILE* out) const;

  private:
    std::vector<Row> rows_;
};

double ratioOf(const Row& row);
std::string formatFigure(double value, Unit unit);

} // namespace rfevent::bench

#endif
