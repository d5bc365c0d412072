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

// The bounds the table is held to. A ratio is within its bound when it is at most the bound.
constexpr double kProtocolBound = 1.05;    // the plug-in's delivery against the plain floor
constexpr double kReuseVsFullBound = 0.55; // session reuse against full handshakes
constexpr double kReuseVsBestBound = 1.10; // session reuse against the best client
constexpr double kStoreSizeBound = 1.15;   // an alert with a large store against the best client
constexpr double kInstructionBound = 1.10; // instruction counts
constexpr double kFlatBound = 1.05;        // resident memory: flat
constexpr double kArmhfSizeBound = 128 * 1024.0;

struct Row {
    std::string name;
    double plugin = 0;
    double floor = 0; // 0 with hasFloor false: the figure stands alone
    Unit unit = Unit::Seconds;
    bool hasFloor = true;
    // The most the ratio may be; with hasFloor false, the most the figure may be. 0: none.
    double bound = 0;
};

class Table {
  public:
    // Adds a row and echoes it to stderr, so a long run shows its progress.
    void add(const Row& row);
    void print(std::FILE* out) const;
    // Rows whose ratio (or figure) is over its bound.
    int overBound() const;

  private:
    std::vector<Row> rows_;
};

struct Costs;
// The four rows of a session reuse case: CPU and wall against full handshakes, then against the
// best client. name is the case's name; the rows add the floor and the figure.
void addReuseRows(Table& table, const std::string& name, const Costs& full, const Costs& best);

double ratioOf(const Row& row);
// True, false, or unknown (no bound).
enum class Verdict { Within, Over, None };
Verdict verdictOf(const Row& row);
std::string formatFigure(double value, Unit unit);

} // namespace rfevent::bench

#endif
