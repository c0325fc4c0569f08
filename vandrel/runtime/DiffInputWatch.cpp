#include "vandrel/runtime/DiffInputWatch.h"

#include <algorithm>
#include <cstring>

#include "vandrel/core/LeadTypes.h"
#include "vandrel/scheme/SimulationSystemScheme.h"

void wDiffInputWatch::build(const wSimulationSystemScheme& scheme) {
    ranges_.clear();
    copy_.clear();
    primed_ = false;
    if (scheme.getDiffBlocksCount() == 0) return;

    // One mark per byte of the part of the area that any wire of interest touches.
    zo::vector<signed char> mark;  // 0 untouched, 1 watched, -1 produced inside
    auto touch = [&](int offset, eLeadType type, signed char value) {
        const int size = leadTypeSize(type);
        if (offset < 0 || size <= 0) return;
        const auto end = static_cast<std::size_t>(offset + size);
        if (mark.size() < end) mark.resize(end, 0);
        for (std::size_t b = static_cast<std::size_t>(offset); b < end; ++b)
            if (value < 0 || mark[b] == 0) mark[b] = value;
    };
    const auto& blocks = scheme.getBlocks();

    // Inputs of the continuous blocks, without the "<state>.initial" wires that only a
    // reset reads.
    for (int i = 0; i < scheme.getDiffBlocksCount(); ++i) {
        const wSimulationBlockDescriptor& d = *blocks[static_cast<std::size_t>(scheme.getDiffBlockIndex(i))];
        const wLeadList& ins = d.getInputWires();
        const std::size_t own = ins.size() - std::min(ins.size(), d.getOutputWires().size());
        for (std::size_t k = 0; k < own; ++k) touch(d.getInputWireOffset(static_cast<int>(k)), ins[k].type, 1);
    }
    // Inputs and outputs of the stateless blocks that follow the state.
    for (int s : scheme.getStatelessBlocksInDiff()) {
        const wSimulationBlockDescriptor& d = *blocks[static_cast<std::size_t>(s)];
        const wLeadList& ins = d.getInputWires();
        for (std::size_t k = 0; k < ins.size(); ++k) touch(d.getInputWireOffset(static_cast<int>(k)), ins[k].type, 1);
    }
    for (int s : scheme.getStatelessBlocksInDiff()) {
        const wSimulationBlockDescriptor& d = *blocks[static_cast<std::size_t>(s)];
        const wLeadList& outs = d.getOutputWires();
        for (std::size_t k = 0; k < outs.size(); ++k)
            touch(d.getOutputWireOffset(static_cast<int>(k)), outs[k].type, -1);
    }
    // The state itself moves with the solver.
    const std::size_t stateBegin = static_cast<std::size_t>(scheme.getDiffMemoryOffset());
    const std::size_t stateEnd = std::min(mark.size(), stateBegin + static_cast<std::size_t>(scheme.getDiffMemorySize()));
    for (std::size_t b = stateBegin; b < stateEnd; ++b) mark[b] = -1;

    // Runs of watched bytes become ranges.
    std::size_t total = 0;
    for (std::size_t b = 0; b < mark.size();) {
        if (mark[b] != 1) {
            ++b;
            continue;
        }
        std::size_t e = b;
        while (e < mark.size() && mark[e] == 1) ++e;
        ranges_.push_back({static_cast<int>(b), static_cast<int>(e - b)});
        total += e - b;
        b = e;
    }
    copy_.assign(total, 0);
}

bool wDiffInputWatch::changed(const unsigned char* data) {
    bool differs = false;
    unsigned char* copy = copy_.data();
    for (const Range& r : ranges_) {
        const unsigned char* now = data + r.offset;
        const auto n = static_cast<std::size_t>(r.size);
        if (std::memcmp(copy, now, n) != 0) {
            differs = true;
            std::memcpy(copy, now, n);
        }
        copy += n;
    }
    const bool report = differs && primed_;
    primed_ = true;
    return report;
}
