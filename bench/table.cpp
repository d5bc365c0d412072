#include "table.h"

#include <algorithm>
#include <cmath>

#include "measure.h"

namespace rfevent::bench {

namespace {

std::string formatted(const char* format, double value, const char* suffix) {
    char text[64];
    std::snprintf(text, sizeof text, format, value, suffix);
    return text;
}

std::string formatSeconds(double seconds) {
    if (seconds >= 1.0) {
        return formatted("%.3f %s", seconds, "s");
    }
    if (seconds >= 1e-3) {
        return formatted("%.3f %s", seconds * 1e3, "ms");
    }
    return formatted("%.2f %s", seconds * 1e6, "us");
}

std::string formatBytes(double bytes) {
    if (bytes >= 1024.0 * 1024.0) {
        return formatted("%.2f %s", bytes / (1024.0 * 1024.0), "MiB");
    }
    return formatted("%.1f %s", bytes / 1024.0, "KiB");
}

std::string formatCount(double value, const char* suffix) {
    if (value >= 1e6) {
        return formatted("%.2f M%s", value / 1e6, suffix);
    }
    if (value >= 1e4) {
        return formatted("%.1f k%s", value / 1e3, suffix);
    }
    return formatted("%.0f%s", value, suffix);
}

std::string boundOf(const Row& row) {
    if (row.bound == 0) {
        return "-";
    }
    if (!row.hasFloor) {
        return "<= " + formatFigure(row.bound, row.unit);
    }
    return formatted("<= %.2f%s", row.bound, "");
}

const char* verdictText(const Row& row) {
    switch (verdictOf(row)) {
    case Verdict::Within:
        return "yes";
    case Verdict::Over:
        return "NO";
    case Verdict::None:
        break;
    }
    return "-";
}

std::string lineOf(const Row& row, std::size_t nameWidth) {
    std::string plugin = formatFigure(row.plugin, row.unit);
    std::string floor = row.hasFloor ? formatFigure(row.floor, row.unit) : "-";
    char ratio[32] = "-";
    if (row.hasFloor) {
        std::snprintf(ratio, sizeof ratio, "%.2f", ratioOf(row));
    }
    char line[512];
    std::snprintf(line, sizeof line, "%-*s  %14s  %14s  %6s  %12s  %6s",
                  static_cast<int>(nameWidth), row.name.c_str(), plugin.c_str(), floor.c_str(),
                  ratio, boundOf(row).c_str(), verdictText(row));
    return line;
}

} // namespace

double ratioOf(const Row& row) {
    if (!row.hasFloor || row.floor == 0 || row.plugin == 0) {
        return NAN;
    }
    return row.unit == Unit::PerSecond ? row.floor / row.plugin : row.plugin / row.floor;
}

Verdict verdictOf(const Row& row) {
    if (row.bound == 0) {
        return Verdict::None;
    }
    // The ratio as printed, to two places, is what the bound is read against.
    const double value = row.hasFloor ? std::round(ratioOf(row) * 100) / 100 : row.plugin;
    if (std::isnan(value)) {
        return Verdict::Over;
    }
    return value <= row.bound ? Verdict::Within : Verdict::Over;
}

void addReuseRows(Table& table, const std::string& name, const Costs& full, const Costs& best) {
    table.add({name + " vs full handshakes, CPU", full.cpu.plugin, full.cpu.floor, Unit::Seconds,
               true, kReuseVsFullBound});
    table.add({name + " vs full handshakes, wall", full.wall.plugin, full.wall.floor, Unit::Seconds,
               true, kReuseVsFullBound});
    table.add({name + " vs best client, CPU", best.cpu.plugin, best.cpu.floor, Unit::Seconds, true,
               kReuseVsBestBound});
    table.add({name + " vs best client, wall", best.wall.plugin, best.wall.floor, Unit::Seconds,
               true, kReuseVsBestBound});
}

std::string formatFigure(double value, Unit unit) {
    switch (unit) {
    case Unit::Seconds:
        return formatSeconds(value);
    case Unit::Instructions:
        return formatCount(value, " instr");
    case Unit::Bytes:
        return formatBytes(value);
    case Unit::Count:
        return formatted("%.0f%s", value, "");
    case Unit::PerSecond:
        return formatCount(value, "/s");
    case Unit::Factor:
        return formatted("%.2f%s", value, "x");
    }
    return "?";
}

void Table::add(const Row& row) {
    rows_.push_back(row);
    std::fprintf(stderr, "  %s\n", lineOf(row, row.name.size()).c_str());
}

void Table::print(std::FILE* out) const {
    std::size_t width = 4;
    for (const Row& row : rows_) {
        width = std::max(width, row.name.size());
    }
    std::fprintf(out, "%-*s  %14s  %14s  %6s  %12s  %6s\n", static_cast<int>(width), "case",
                 "plug-in", "floor", "ratio", "bound", "within");
    std::fprintf(out, "%s\n", std::string(width + 64, '-').c_str());
    for (const Row& row : rows_) {
        std::fprintf(out, "%s\n", lineOf(row, width).c_str());
    }
}

int Table::overBound() const {
    int over = 0;
    for (const Row& row : rows_) {
        over += verdictOf(row) == Verdict::Over ? 1 : 0;
    }
    return over;
}

} // namespace rfevent::bench
