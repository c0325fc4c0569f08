#pragma once
// Building analysed schemes in memory for runtime tests, from the test blocks.
//
//     rt::Builder b;
//     auto* g = b.add<testblocks::GainDescriptor>("g");
//     b.inputWire("u");
//     b.wire(b.io(), "u", g, "in");
//     auto sys = b.run();
#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "support/TestBlocks.h"
#include "vandrel/runtime/SimulationSystem.h"
#include "vandrel/runtime/SolverExplEuler.h"
#include "vandrel/scheme/SimulationSystemScheme.h"

namespace rt {

using Scheme = wSimulationSystemScheme;
using Desc = wSimulationBlockDescriptor;

class Builder {
public:
    Builder() { testblocks::clearTrace(); }

    template <class D>
    D* add(const std::string& name) {
        auto d = std::make_unique<D>();
        d->setName(name);
        return static_cast<D*>(scheme.addBlock(std::move(d)));
    }

    Desc* io() { return &scheme.getIOBlock(); }
    Desc* special() { return &scheme.getSpecialCmdsBlock(); }

    // Scheme inputs are the I/O block's outputs; scheme outputs its inputs.
    void inputWire(const std::string& n, eLeadType t = LEAD_DOUBLE) { scheme.addIOLead(false, false, n, t); }
    void outputWire(const std::string& n, eLeadType t = LEAD_DOUBLE) { scheme.addIOLead(true, false, n, t); }
    void inputPort(const std::string& n, eLeadType t = LEAD_BOOL) { scheme.addIOLead(false, true, n, t); }
    void outputPort(const std::string& n, eLeadType t = LEAD_BOOL) { scheme.addIOLead(true, true, n, t); }

    void wire(Desc* from, const std::string& out, Desc* to, const std::string& in) {
        scheme.addConnection({from, to, out, in, false});
    }
    void port(Desc* from, const std::string& out, Desc* to, const std::string& in) {
        scheme.addConnection({from, to, out, in, true});
    }

    wSolverExplEulerDescriptor* euler(double H) {
        auto s = std::make_unique<wSolverExplEulerDescriptor>();
        s->setH(H);
        auto* raw = s.get();
        scheme.setOdeSolverDescriptor(std::move(s));
        return raw;
    }

    // Analyses the scheme and builds a system from it.
    std::unique_ptr<wSimulationSystem> run() {
        scheme.analyse();
        return scheme.instantiate();
    }

    Scheme scheme;
};

// The runtime block of the descriptor named `name` in a system, or null.
inline wSimulationBlock* blockNamed(const wSimulationSystem& sys, const std::string& name) {
    for (int i = 0; i < sys.getBlockCount(); ++i)
        if (sys.getBlock(i)->getDescriptor()->getName() == name) return sys.getBlock(i);
    return nullptr;
}

// Number of trace entries equal to `entry` ("<name>@<t>").
inline int traced(const std::string& entry) {
    int n = 0;
    for (const auto& e : testblocks::trace()) n += e == entry ? 1 : 0;
    return n;
}

}  // namespace rt
