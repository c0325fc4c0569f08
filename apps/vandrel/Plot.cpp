#include "Plot.h"

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <set>
#include <sstream>
#include <stdexcept>
#include <string>

#include "Commands.h"
#include "HostIO.h"
#include "Process.h"
#include "vandrel/blocks/Oscilloscope.h"
#include "vandrel/runtime/SimulationSystem.h"
#include "vandrel/core/SimulationBlockDescriptor.h"
#include "vandrel/scheme/SimulationSystemScheme.h"
#include "Csv.h"
#include "Files.h"
#include "vandrel/core/BlockParameter.h"

namespace host {

namespace {

// A gnuplot single-quoted string: quotes are doubled, and control characters (a newline
// would end the command and start another) become '?'.
std::string quoted(const std::string& s) {
    std::string q = "'";
    for (char c : s) {
        if (c == '\'') q += "''";
        else if (static_cast<unsigned char>(c) < 0x20 || c == 0x7f) q += '?';
        else q += c;
    }
    return q + "'";
}

// Whether the value on `lead` of `block` only changes at events: follows the wires back
// through stateless blocks; a continuous block, or a subsystem that may hide one, makes
// it continuous.
bool heldSource(const wSimulationSystemScheme& scheme, const wSimulationBlockDescriptor* block,
                std::set<const wSimulationBlockDescriptor*>& seen) {
    if (block == &scheme.getIOBlock()) return true;  // scheme inputs hold between changes
    if (block->isOfType(BLOCK_SUBSYSTEM) || block->isOfType(BLOCK_DIFF)) return false;
    if (block->isOfType(BLOCK_DISCRETE)) return true;
    if (!seen.insert(block).second) return true;
    for (const auto& c : scheme.getConnections())
        if (c.to == block && !c.isPort && !heldSource(scheme, c.from, seen)) return false;
    return true;
}

}  // namespace

std::string plotTerminal(const std::string& plotFile) {
    const std::string ext = lowerExtension(plotFile);
    if (ext == ".png") return "pngcairo size 1000,600";
    if (ext == ".svg") return "svg size 1000,600 dynamic";
    if (ext == ".pdf") return "pdfcairo size 10in,6in";
    throw UsageError{"--plot: cannot tell the format of \"" + plotFile + "\" from its extension; use .png, .svg or .pdf"};
}

void checkPlotFile(const std::string& plotFile) {
    plotTerminal(plotFile);
    std::error_code ec;
    const bool existed = std::filesystem::exists(plotFile, ec);
    // Appending creates a missing file and keeps an existing one as it is.
    if (!std::ofstream(plotFile, std::ios::app | std::ios::binary))
        throw std::runtime_error("Cannot write the plot " + plotFile);
    if (!existed) std::filesystem::remove(plotFile, ec);
}

std::vector<bool> heldOutputs(const wSimulationSystemScheme& scheme) {
    std::vector<bool> held;
    const auto& io = scheme.getIOBlock();
    for (const auto& lead : scheme.getIOLeads(true, false)) {
        bool h = lead.type == LEAD_BOOL || lead.type == LEAD_INT || lead.type == LEAD_OBJECT_ID;
        if (!h) {
            h = true;
            std::set<const wSimulationBlockDescriptor*> seen;
            for (const auto& c : scheme.getConnections())
                if (c.to == &io && !c.isPort && c.toLead == lead.name) h = h && heldSource(scheme, c.from, seen);
        }
        held.push_back(h);
    }
    return held;
}

void drawPlot(const std::string& csvFile, const std::vector<PlotColumn>& columns, const std::string& plotFile,
              const std::string& title) {
    if (columns.empty()) throw std::runtime_error("Nothing to plot in " + plotFile + ": the scheme has no output wires");
    int logicCount = 0;
    for (const PlotColumn& c : columns) logicCount += c.logic ? 1 : 0;
    const bool split = logicCount > 0 && logicCount < static_cast<int>(columns.size());
    // One plot command over the columns of one panel; each column keeps its own colour
    // across panels. Where booleans are drawn on their own, each has a lane, the first on
    // top, high meaning true.
    auto plotCommand = [&](bool logic) {
        std::string cmd = "plot ";
        int lane = logicCount;
        for (std::size_t i = 0; i < columns.size(); ++i) {
            if (split && columns[i].logic != logic) continue;
            const std::string column = std::to_string(i + 2);
            const std::string y = logic ? "(" + std::to_string(--lane) + " + 0.8 * $" + column + ")" : column;
            // Held values are valid from the previous row up to their own row.
            cmd += std::string(cmd.size() > 5 ? ", \\\n     '' " : quoted(csvFile) + " ") + "skip 1 using 1:" + y +
                   " with " + (columns[i].steps ? "fsteps" : "lines") + " linetype " + std::to_string(i + 1) +
                   " title " + quoted(columns[i].name);
        }
        return cmd + "\n";
    };
    std::ostringstream gp;
    gp << "set terminal " << plotTerminal(plotFile) << " noenhanced\n"
       << "set output " << quoted(plotFile) << "\n"
       << "set datafile separator ','\n"
       << "set grid\nset key outside right top\n"
       // The time axis spans the run exactly; the value axis gets a margin above and
       // below, so that a line along the top or bottom of the range is not hidden by
       // the border (a boolean at 1, a signal at its maximum).
       << "set autoscale xfix\nset autoscale yfix\nset offsets 0, 0, graph 0.05, graph 0.05\n";
    std::string lanes = "set yrange [-0.15:" + std::to_string(logicCount) + " - 0.05]\nset ytics (";
    int lane = logicCount;
    for (const PlotColumn& c : columns) {
        if (!c.logic) continue;
        --lane;
        lanes += std::string(lane == logicCount - 1 ? "" : ", ") + quoted(c.name) + " " + std::to_string(lane) + ".4";
    }
    lanes += ")\nunset grid\n";
    if (!split) {
        gp << "set title " << quoted(title) << "\nset xlabel 'time (s)'\n" << (logicCount > 0 ? lanes : "")
           << plotCommand(logicCount > 0);
    } else {
        // Booleans get a strip under the other values, on the same time axis, rather than
        // flat lines at the foot of a tall range; it grows with their number.
        const double strip = std::min(0.12 + 0.06 * logicCount, 0.45);
        gp << "set multiplot title " << quoted(title) << "\n"
           << "set lmargin at screen 0.10\nset rmargin at screen 0.80\n"
           << "set tmargin at screen 0.90\nset bmargin at screen " << 0.16 + strip << "\nset format x ''\n"
           << plotCommand(false) << "set tmargin at screen " << 0.10 + strip
           << "\nset bmargin at screen 0.10\nset format x '% h'\nset xlabel 'time (s)'\n"
           << lanes << plotCommand(true) << "unset multiplot\n";
    }
    gp << "set output\n";
    const ProcessResult r = runProcess({"gnuplot"}, gp.str());
    if (!r.started)
        throw std::runtime_error("Cannot draw " + plotFile + ": " + r.output + " (install the gnuplot package)");
    if (r.exitStatus != 0) throw std::runtime_error("gnuplot could not draw " + plotFile + ": " + outputExcerpt(r.output));
}


std::string scopeFileName(std::string_view blockName) {
    // Percent-escaping keeps the mapping one-to-one, so distinct blocks get distinct
    // files; only characters that are plain in any file system pass unchanged.
    constexpr std::size_t kMaxStem = 200;  // bytes; leaves room below NAME_MAX (255)
    static const char* const hex = "0123456789ABCDEF";
    std::string stem;
    for (std::size_t i = 0; i < blockName.size(); ++i) {
        const auto c = static_cast<unsigned char>(blockName[i]);
        const bool plain = std::isalnum(c) != 0 || c == '_' || c == '-' || (c == '.' && i > 0) || (c == ' ' && i > 0);
        if (plain) {
            stem += static_cast<char>(c);
        } else {
            stem += '%';
            stem += hex[c >> 4];
            stem += hex[c & 15];
        }
    }
    if (stem.empty()) stem = "%unnamed";
    if (stem.size() > kMaxStem) stem.resize(kMaxStem);
    return stem;
}

void writeScopeRecordings(const wSimulationSystem& system, const std::string& dir, int precision) {
    if (dir.empty()) return;
    std::filesystem::create_directories(dir);
    std::set<std::string> used;
    for (int i = 0; i < system.getBlockCount(); ++i) {
        const auto* scope = dynamic_cast<const wBlockOscilloscope*>(system.getBlock(i));
        if (!scope) continue;
        // Names that only differ beyond the length limit (or were cut) get a counter.
        const std::string stem = scopeFileName(scope->getDescriptor()->getName());
        std::string name = stem + ".csv";
        for (int k = 2; !used.insert(name).second; ++k) name = stem + "~" + std::to_string(k) + ".csv";
        const std::string file = (std::filesystem::path(dir) / name).string();

        std::FILE* out = openForWriting(file);
        const auto& names = scope->columnNames();
        for (std::size_t c = 0; c < names.size(); ++c)
            std::fprintf(out, "%s%s", c ? "," : "", csvField(std::string_view(names[c].data(), names[c].size())).c_str());
        std::fputc('\n', out);
        for (int k = 0; k < scope->sampleCount(); ++k) {
            const double* row = scope->sample(k);
            for (int c = 0; c < scope->width(); ++c)
                std::fprintf(out, "%s%s", c ? "," : "", formatNumber(row[c], precision).c_str());
            std::fputc('\n', out);
        }
        const bool failed = std::ferror(out) != 0;
        if (std::fclose(out) != 0 || failed) throw std::runtime_error("Cannot write " + file);
    }
}

}  // namespace host
