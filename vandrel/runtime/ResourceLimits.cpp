#include "vandrel/runtime/ResourceLimits.h"

#include <atomic>
#include <cstdio>
#include <string>

#include "vandrel/core/SimulationBlockDescriptor.h"
#include "vandrel/runtime/SimulationException.h"
#include "vandrel/scheme/SimulationSystemScheme.h"

namespace {

std::atomic<std::uint64_t> maxBlockBytes{wResourceLimits::kDefaultMaxBlockBytes};
std::atomic<std::uint64_t> maxSchemeBytes{wResourceLimits::kDefaultMaxSchemeBytes};

const char* const kHowToRaise = " (a host can raise the limit: setResourceLimits, or vandrel run --max-block-mib /"
                                " --max-scheme-mib)";

// What the analysed scheme's blocks allocate, nested schemes' blocks included; saturates.
std::uint64_t blockBytes(const wSimulationSystemScheme& scheme) {
    std::uint64_t total = 0;
    for (const auto& b : scheme.getBlocks()) {
        const wSimulationSystemScheme* nested = b->getNestedScheme();
        const std::uint64_t n = nested != nullptr ? blockBytes(*nested) : b->getRuntimeAllocationSize();
        total = n > UINT64_MAX - total ? UINT64_MAX : total + n;
    }
    return total;
}

}  // namespace

void setResourceLimits(const wResourceLimits& limits) {
    maxBlockBytes.store(limits.maxBlockBytes);
    maxSchemeBytes.store(limits.maxSchemeBytes);
}

wResourceLimits getResourceLimits() {
    wResourceLimits limits;
    limits.maxBlockBytes = maxBlockBytes.load();
    limits.maxSchemeBytes = maxSchemeBytes.load();
    return limits;
}

zo::string describeBytes(std::uint64_t bytes) {
    char buffer[32];
    static const char* const units[] = {"B", "KiB", "MiB", "GiB", "TiB", "PiB", "EiB"};
    double value = static_cast<double>(bytes);
    int unit = 0;
    while (value >= 1024 && unit < 6) {
        value /= 1024;
        ++unit;
    }
    if (unit == 0) std::snprintf(buffer, sizeof buffer, "%llu B", static_cast<unsigned long long>(bytes));
    else std::snprintf(buffer, sizeof buffer, "%.4g %s", value, units[unit]);
    return buffer;
}

void checkBlockAllocation(const wSimulationBlockDescriptor& block, const zo::string& where) {
    const std::uint64_t need = block.getRuntimeAllocationSize();
    const std::uint64_t limit = maxBlockBytes.load();
    if (need <= limit) return;
    throw wSimulationException(where + ": block " + block.getName() + " (" + block.getBlockTypeName() +
                               ") would allocate " + describeBytes(need) + " at run time, more than the " +
                               describeBytes(limit) + " a block may" + kHowToRaise);
}

void checkSchemeAllocation(const wSimulationSystemScheme& scheme) {
    const std::uint64_t blocks = blockBytes(scheme);
    const auto area = static_cast<std::uint64_t>(scheme.getMemorySize() > 0 ? scheme.getMemorySize() : 0);
    const std::uint64_t need = blocks > UINT64_MAX - area ? UINT64_MAX : blocks + area;
    const std::uint64_t limit = maxSchemeBytes.load();
    if (need <= limit) return;
    throw wSimulationException("the scheme would allocate " + describeBytes(need) + " at run time (data area " +
                               describeBytes(area) + ", blocks " + describeBytes(blocks) + "), more than the " +
                               describeBytes(limit) + " a scheme may" + kHowToRaise);
}
