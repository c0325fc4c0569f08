// `vandrel check`: loads a scheme for running, builds a system from it, and reports what
// would only fail (or silently mislead) once it runs, then a one-screen summary.
#include <cmath>
#include <cstdlib>
#include <iostream>
#include <map>
#include <optional>
#include <sstream>
#include <string>
#include <vector>

#include "Commands.h"
#include "Csv.h"
#include "vandrel/vandrel.h"

namespace host {

namespace {

// The period of a discrete block: its "dt" parameter, when it has one.
std::optional<double> periodOf(const wSimulationBlockDescriptor& d) {
    for (const wBlockParameterContainer& p : const_cast<wSimulationBlockDescriptor&>(d).getParametersList()) {
        const wBlockParameterProxyBase* proxy = p.getProxy();
        if (p.getName() != "dt" || proxy == nullptr || proxy->getType() != PARAM_DOUBLE) continue;
        const std::string text = proxy->toString();
        char* end = nullptr;
        const double v = std::strtod(text.c_str(), &end);
        return end != text.c_str() ? v : std::nan("");
    }
    return std::nullopt;
}

// "block NAME (TYPE) at simulation_scheme.blocks[N]"; a block of a nested scheme by its
// path ("fast.limiter") and the nested file.
std::string label(const wSimulationSystemScheme& s, const wSimulationBlockDescriptor& d, const std::string& path = "") {
    std::string text = "block " + path + d.getName() + " (" + d.getBlockTypeName() + ")";
    if (const int i = s.getFileIndex(&d); i >= 0) text += " at simulation_scheme.blocks[" + std::to_string(i + 1) + "]";
    if (!path.empty()) text += " of " + s.getFileName();
    return text;
}

// Discrete blocks, nested ones too, whose period is zero or negative: each would run again
// at the same instant forever, and the run would stop with an error at its first step.
void periodErrors(const wSimulationSystemScheme& s, const std::string& path, std::vector<std::string>& errors) {
    for (int d = 0; d < s.getDiscreteBlocksCount(); ++d) {
        const auto& b = *s.getBlocks()[static_cast<std::size_t>(s.getDiscreteBlockIndex(d))];
        const std::optional<double> period = periodOf(b);
        if (!period || (*period > 0 && std::isfinite(*period))) continue;
        errors.push_back(label(s, b, path) + " has dt = " + doubleToString(*period) +
                         ": a discrete block's period must be a positive number of seconds");
    }
    for (const auto& b : s.getBlocks())
        if (const wSimulationSystemScheme* nested = b->getNestedScheme())
            periodErrors(*nested, path + b->getName() + ".", errors);
}

// The first instant after 0 at which blocks of periods a and b both run again, or 0 when
// their periods have no small common multiple.
double commonPeriod(double a, double b) {
    for (int k = 1; k <= 1000; ++k) {
        const double m = k * a / b;
        if (std::abs(m - std::round(m)) <= 1e-9 * m) return k * a;
    }
    return 0.0;
}

// Discrete blocks that read, at an instant when both run, a wire that a discrete block
// running after them writes at that instant: they see the value from before it.
std::vector<std::string> orderWarnings(const wSimulationSystemScheme& s) {
    const int n = s.getDiscreteBlocksCount();
    // Run position of each discrete block, and the discrete blocks each stateless block feeds.
    std::map<const wSimulationBlockDescriptor*, int> position;
    for (int d = 0; d < n; ++d) position.emplace(s.getBlocks()[static_cast<std::size_t>(s.getDiscreteBlockIndex(d))].get(), d);
    std::vector<std::vector<int>> readersOf(static_cast<std::size_t>(s.getStatelessBlocksCount()));
    for (int d = 0; d < n; ++d)
        for (int stateless : s.getStatelessBlocksOnInput(d)) readersOf[static_cast<std::size_t>(stateless)].push_back(d);

    // (reader, writer) -> the writer's wire that leads to the reader, straight or not.
    std::map<std::pair<int, int>, const wSimulationSystemScheme::Connection*> pairs;
    for (const auto& c : s.getConnections()) {
        const auto writer = position.find(c.from);
        if (c.isPort || writer == position.end()) continue;
        std::vector<int> readers;
        if (const auto reader = position.find(c.to); reader != position.end()) readers.push_back(reader->second);
        const int target = s.indexOfBlock(c.to);
        if (target < s.getStatelessBlocksCount()) readers = readersOf[static_cast<std::size_t>(target)];
        for (int reader : readers)
            if (reader < writer->second) pairs.emplace(std::make_pair(reader, writer->second), &c);
    }

    std::vector<std::string> warnings;
    for (const auto& [pair, via] : pairs) {
        const wSimulationBlockDescriptor& reader = *s.getBlocks()[static_cast<std::size_t>(s.getDiscreteBlockIndex(pair.first))];
        const wSimulationBlockDescriptor& writer = *s.getBlocks()[static_cast<std::size_t>(s.getDiscreteBlockIndex(pair.second))];
        const std::optional<double> pa = periodOf(reader), pb = periodOf(writer);
        if (!pa || !pb || !(*pa > 0) || !(*pb > 0)) continue;
        const double common = commonPeriod(*pa, *pb);
        std::ostringstream w;
        w << label(s, reader) << " reads the wire " << via->fromLead << " of " << label(s, writer)
          << (via->to == &reader ? "" : " through stateless blocks") << ", and both run at t = 0";
        if (common > 0) w << " and every " << doubleToString(common) << " s";
        w << "; " << writer.getName() << " runs after " << reader.getName() << ", so " << reader.getName()
          << " reads the value from before each of those instants: list " << writer.getName() << " before "
          << reader.getName() << " in simulation_scheme.blocks if it should read the new one";
        warnings.push_back(w.str());
    }
    return warnings;
}

// Kind of a block for the summary.
const char* kindOf(const wSimulationBlockDescriptor& d) {
    if (d.isOfType(BLOCK_STATELESS)) return "stateless";
    if (d.isOfType(BLOCK_DIFF)) return "continuous";
    return "discrete";
}

void printSummary(const std::string& file, const wSimulationSystemScheme& s, const wSimulationSystem& system) {
    std::cout << "OK: " << file << ": " << s.getBlocksCount() << " blocks (" << s.getStatelessBlocksCount()
              << " stateless, " << s.getDiffBlocksCount() << " continuous, " << s.getDiscreteBlocksCount()
              << " discrete), " << s.getConnections().size() << " connections, data area " << s.getMemorySize()
              << " bytes\n";
    // Block types by kind, in the order blocks run.
    for (const char* kind : {"stateless", "continuous", "discrete"}) {
        std::map<std::string, int> types;
        for (const auto& b : s.getBlocks())
            if (std::string(kindOf(*b)) == kind) ++types[b->getBlockTypeName()];
        if (types.empty()) continue;
        std::cout << "  " << kind << ":";
        const char* sep = " ";
        for (const auto& [type, count] : types) {
            std::cout << sep << count << " " << printable(type);
            sep = ", ";
        }
        std::cout << "\n";
    }
    int wires = 0;
    for (const auto& c : s.getConnections()) wires += c.isPort ? 0 : 1;
    std::cout << "  connections: " << wires << " wires, " << s.getConnections().size() - wires << " ports; scheme "
              << s.getIOLeads(false, false).size() << " input wires, " << s.getIOLeads(true, false).size()
              << " output wires, " << s.getIOLeads(false, true).size() << " input ports, "
              << s.getIOLeads(true, true).size() << " output ports\n";
    std::cout << "  states: " << system.getDiffStateSize() << " continuous; ";
    if (system.getSchemeStateDataSize() >= 0) {
        std::cout << system.getSchemeStateDataSize() << " bytes of discrete state\n";
    } else {
        // A state file needs every discrete block to save its state.
        std::vector<std::string> unsaveable;
        for (int i = 0; i < system.getBlockCount(); ++i)
            if (const auto* d = dynamic_cast<const wSimulationBlockDisc*>(system.getBlock(i)))
                if (d->getBlockStateDataSize() < 0) unsaveable.push_back(printable(d->getDescriptor()->getName()));
        std::cout << "discrete state cannot be saved (no saveable state:";
        for (const std::string& name : unsaveable) std::cout << " " << name;
        std::cout << ")\n";
    }
    if (s.getDiscreteBlocksCount() > 0) std::cout << "  discrete blocks, in the order they run at one instant:\n";
    // One screen: a long list is cut, saying how much is left out.
    constexpr int kShown = 20;
    for (int d = 0; d < s.getDiscreteBlocksCount(); ++d) {
        if (d == kShown) {
            std::cout << "    ... and " << s.getDiscreteBlocksCount() - kShown << " more\n";
            break;
        }
        const wSimulationBlockDescriptor& b = *s.getBlocks()[static_cast<std::size_t>(s.getDiscreteBlockIndex(d))];
        const std::optional<double> period = periodOf(b);
        std::cout << "    " << d + 1 << ". " << printable(b.getName()) << " (" << printable(b.getBlockTypeName()) << ") "
                  << (period ? "every " + doubleToString(*period) + " s" : std::string("on its own schedule")) << "\n";
    }
    if (wOdeSolverDescriptor* solver = s.getOdeSolverDescriptor()) {
        std::cout << "  solver: " << solver->getTypeName();
        const char* sep = ", ";
        for (const wBlockParameterContainer& p : solver->getParametersList())
            if (p.getProxy() != nullptr) std::cout << sep << p.getName() << " = " << p.getProxy()->toString();
        std::cout << "\n";
    } else {
        std::cout << "  solver: none (no continuous blocks)\n";
    }
}

}  // namespace

int checkCommand(const std::string& file, const std::string& overrides) {
    auto scheme = loadSchemeForRun(file, overrides);
    const std::unique_ptr<wSimulationSystem> system(scheme->instantiate());

    std::vector<std::string> errors;
    periodErrors(*scheme, "", errors);
    for (const std::string& e : errors) std::cerr << "vandrel: " << file << ": " << printable(e) << "\n";
    for (const std::string& w : orderWarnings(*scheme))
        std::cerr << "vandrel: warning: " << file << ": " << printable(w) << "\n";
    if (!errors.empty()) return kExitError;
    printSummary(file, *scheme, *system);
    return kExitOk;
}

}  // namespace host
