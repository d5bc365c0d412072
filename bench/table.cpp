#include "table.h"

#include <algorithm>
#include <cmath>

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

std::string lineOf(const Row& row, std::size_t nameWidth) {
    std::string plugin = formatFigure(row.plugin, row.unit);
    std::string floor = row.hasFloor ? formatFigure(row.floor, row.unit) : "-";
    char ratio[32] = "-";
    if (row.hasFloor) {
        std::snprintf(ratio, sizeof ratio, "%.2f", ratioOf(row));
    }
    char line[512];
    std::snprintf(line, sizeof line, "%-*s  %14s  %14s  %6s", static_cast<int>(nameWidth),
                  row.name.c_str(), plugin.c_str(), floor.c_str(), ratio);
    return line;
}

} // namespace

double ratioOf(const Row& row) {
    if (!row.hasFloor || row.floor == 0 || row.plugin == 0) {
        return NAN;
    }
    return row.unit == Unit::PerSecond ? row.floor / row.plugin : row.plugin / row.floor;
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
    std::fprintf(out, "%-*s  %14s  %14s  %6s\n", static_cast<int>(width), "case", "plug-in",
                 "floor", "ratio");
    std::fprintf(out, "%s\n", std::string(width + 42, '-').c_str());
    for (const Row& row : rows_) {
        std::fprintf(out, "%s\n", lineOf(row, width).c_str());
    }
}

} // namespace rfevent::bench
