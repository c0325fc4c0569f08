// The editor-side commands: check, blocks, fmt, dump.
#include "Commands.h"

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <sstream>

#include <unistd.h>

#include "vandrel/vandrel.h"

namespace host {

namespace {

const char* parameterTypeName(eParameterType t) {
    static const char* const names[] = {"int", "double", "string", "vector", "bool", "unsigned"};
    return t >= 0 && t < kParameterTypeCount ? names[t] : "?";
}

void printLeads(const char* title, const wLeadList& leads) {
    if (leads.empty()) return;
    std::cout << "    " << title << ":";
    for (const auto& l : leads) std::cout << " " << l.name << " (" << leadTypeNames[l.type] << ")";
    std::cout << "\n";
}

std::string readFile(const std::string& name) {
    std::ifstream in(name, std::ios::binary);
    std::ostringstream s;
    s << in.rdbuf();
    return s.str();
}

}  // namespace

// Loads `file` for running, with the overrides table from `overrides` when given.
std::unique_ptr<wSimulationSystemScheme> loadSchemeForRun(const std::string& file, const std::string& overrides) {
    auto scheme = std::make_unique<wSimulationSystemScheme>();
    Lua::Loader table;
    if (overrides.empty()) table.createGlobalTable("overrides");
    else table.load(overrides, "overrides");
    scheme->loadForRuntime(file, &table);
    return scheme;
}

int checkCommand(const std::string& file, const std::string& overrides) {
    auto scheme = loadSchemeForRun(file, overrides);
    auto system = scheme->instantiate();
    std::cout << "OK: " << file << ": " << scheme->getBlocksCount() << " blocks ("
              << scheme->getStatelessBlocksCount() << " stateless, " << scheme->getDiffBlocksCount()
              << " continuous, " << scheme->getDiscreteBlocksCount() << " discrete), "
              << scheme->getConnections().size() << " connections, data area "
              << scheme->getMemorySize() << " bytes\n";
    return kExitOk;
}

int blocksCommand(bool verbose) {
    for (const auto& [key, description] : wSimulationBlockFactory::instance()->getKeysDescriptions()) {
        std::cout << key << "  —  " << description << "\n";
        if (!verbose) continue;
        auto d = wSimulationBlockFactory::instance()->generate(key);
        printLeads("input wires", d->getInputWires());
        printLeads("output wires", d->getOutputWires());
        printLeads("input ports", d->getInputPorts());
        printLeads("output ports", d->getOutputPorts());
        const auto params = d->getParametersList();
        if (!params.empty()) {
            std::cout << "    parameters:";
            for (const auto& p : params) {
                const auto* proxy = p.getProxy();
                if (!proxy) continue;
                std::cout << " " << p.getName() << " (" << parameterTypeName(proxy->getType())
                          << ", default " << proxy->toString() << ")";
            }
            std::cout << "\n";
        }
    }
    return kExitOk;
}

int fmtCommand(const std::string& file, const std::string& out, bool check) {
    wSimulationSystemScheme scheme;
    zo::vector<int> discarded;
    scheme.loadForEdit(file, discarded);
    for (int p : discarded)
        std::cerr << "vandrel: " << file << ": discarded connection " << p + 1 << " (position "
                  << p << " of \"connections\")\n";
    if (check) {
        // Write to a scratch file and compare bytes.
        const auto tmp = std::filesystem::temp_directory_path() /
                         ("vandrel-fmt-" + std::to_string(::getpid()) + ".lua");
        scheme.save(tmp.string());
        const bool same = readFile(tmp.string()) == readFile(file);
        std::filesystem::remove(tmp);
        if (!same) {
            std::cerr << "vandrel: " << file << " is not in canonical form\n";
            return kExitError;
        }
        return discarded.empty() ? kExitOk : kExitError;
    }
    scheme.save(out.empty() ? file : out);
    return kExitOk;
}

int dumpCommand(const std::string& file, const std::string& overrides) {
    auto scheme = loadSchemeForRun(file, overrides);
    auto& log = wSimulationLogger::instance();
    log.setStream(&std::cout);
    log.setLevel(LOG_TRACE);
    scheme->debug_dump();
    log.setLevel(LOG_NONE);
    log.setStream(nullptr);
    return kExitOk;
}

}  // namespace host
