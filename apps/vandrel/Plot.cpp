#include "Plot.h"

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

namespace host {

namespace {

// A gnuplot single-quoted string: quotes are doubled.
std::string quoted(const std::string& s) {
    std::string q = "'";
    for (char c : s) q += c == '\'' ? std::string("''") : std::string(1, c);
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
    std::ostringstream gp;
    gp << "set terminal " << plotTerminal(plotFile) << " noenhanced\n"
       << "set output " << quoted(plotFile) << "\n"
       << "set datafile separator ','\n"
       << "set title " << quoted(title) << "\n"
       << "set xlabel 'time (s)'\nset grid\nset key outside right top\n"
       // The time axis spans the run exactly; the value axis gets a margin above and
       // below, so that a line along the top or bottom of the range is not hidden by
       // the border (a boolean at 1, a signal at its maximum).
       << "set autoscale xfix\nset autoscale yfix\nset offsets 0, 0, graph 0.05, graph 0.05\n"
       << "plot ";
    for (std::size_t i = 0; i < columns.size(); ++i) {
        // Held values are valid from the previous row up to their own row.
        gp << (i ? ", \\\n     '' " : quoted(csvFile) + " ") << "skip 1 using 1:" << i + 2 << " with "
           << (columns[i].steps ? "fsteps" : "lines") << " title " << quoted(columns[i].name);
    }
    gp << "\nset output\n";
    const ProcessResult r = runProcess({"gnuplot"}, gp.str());
    if (!r.started)
        throw std::runtime_error("Cannot draw " + plotFile + ": " + r.output + " (install the gnuplot package)");
    if (r.exitStatus != 0) {
        std::string message = r.output;
        while (!message.empty() && (message.back() == '\n' || message.back() == ' ')) message.pop_back();
        throw std::runtime_error("gnuplot could not draw " + plotFile + ": " + message);
    }
}

void writeScopeRecordings(const wSimulationSystem& system, const std::string& dir, int precision) {
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
            for (int c = 0; c < scope->width(); ++c) out << (c ? "," : "") << formatNumber(row[c], precision);
            out << '\n';
        }
    }
}

}  // namespace host
