#include "Plot.h"

#include <cstdio>
#include <string>

namespace host {

namespace {

// A gnuplot single-quoted string: quotes are doubled.
std::string quoted(const std::string& s) {
    std::string q = "'";
    for (char c : s) q += c == '\'' ? std::string("''") : std::string(1, c);
    return q + "'";
}

bool endsWith(const std::string& s, const char* suffix) {
    const std::string x(suffix);
    return s.size() >= x.size() && s.compare(s.size() - x.size(), x.size(), x) == 0;
}

}  // namespace

bool drawPlot(const std::string& csvFile, int columns, const std::string& plotFile, const std::string& title) {
    if (columns <= 0) return false;
    std::FILE* gp = ::popen("gnuplot 2>&1", "w");
    if (!gp) return false;
    const bool svg = endsWith(plotFile, ".svg") || endsWith(plotFile, ".SVG");
    std::fprintf(gp, "set terminal %s size 1000,600 noenhanced\n", svg ? "svg" : "pngcairo");
    std::fprintf(gp, "set output %s\n", quoted(plotFile).c_str());
    std::fprintf(gp, "set datafile separator ','\n");
    std::fprintf(gp, "set title %s\n", quoted(title).c_str());
    std::fprintf(gp, "set xlabel 'time (s)'\nset grid\nset key outside right top\n");
    std::fprintf(gp, "plot for [i=2:%d] %s using 1:i with lines title columnhead(i)\n", columns + 1,
                 quoted(csvFile).c_str());
    std::fprintf(gp, "set output\n");
    return ::pclose(gp) == 0;
}

}  // namespace host

#include <filesystem>
#include <fstream>

#include "vandrel/blocks/Oscilloscope.h"
#include "vandrel/core/BlockParameter.h"
#include "vandrel/runtime/SimulationSystem.h"

namespace host {

void writeScopeRecordings(const wSimulationSystem& system, const std::string& dir) {
    if (dir.empty()) return;
    std::filesystem::create_directories(dir);
    for (int i = 0; i < system.getBlockCount(); ++i) {
        const auto* scope = dynamic_cast<const wBlockOscilloscope*>(system.getBlock(i));
        if (!scope) continue;
        const std::string file = (std::filesystem::path(dir) / (scope->getDescriptor()->getName() + ".csv")).string();
        std::ofstream out(file);
        if (!out) throw std::runtime_error("Cannot write " + file);
        const auto& names = scope->columnNames();
        for (std::size_t c = 0; c < names.size(); ++c) out << (c ? "," : "") << names[c];
        out << '\n';
        for (int s = 0; s < scope->sampleCount(); ++s) {
            const double* row = scope->sample(s);
            for (int c = 0; c < scope->width(); ++c) out << (c ? "," : "") << doubleToString(row[c]);
            out << '\n';
        }
    }
}

}  // namespace host
