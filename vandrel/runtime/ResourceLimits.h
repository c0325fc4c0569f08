#pragma once
// How much memory a scheme file may make the host allocate at run time.
//
// A scheme file is data, but some of its numbers size buffers (an Oscilloscope's
// "capacity", for one). A load for running adds up what each block will allocate
// (wSimulationBlockDescriptor::getRuntimeAllocationSize) and the data area, and refuses
// the scheme, naming the file and the block, when a block or the whole system would go
// over these limits. The defaults suit a desktop host; a host that knows better sets its
// own before loading. The setting is process-wide; reads and writes are atomic.
#include <cstdint>

#include "vandrel/platform/String.h"

class wSimulationSystemScheme;
class wSimulationBlockDescriptor;

struct wResourceLimits {
    static constexpr std::uint64_t kDefaultMaxBlockBytes = std::uint64_t{256} << 20;   // 256 MiB
    static constexpr std::uint64_t kDefaultMaxSchemeBytes = std::uint64_t{1} << 30;    // 1 GiB

    std::uint64_t maxBlockBytes = kDefaultMaxBlockBytes;    // one block's own allocations
    std::uint64_t maxSchemeBytes = kDefaultMaxSchemeBytes;  // the data area and every block together
};

// The limits that loads check against from now on.
void setResourceLimits(const wResourceLimits& limits);
wResourceLimits getResourceLimits();

// Throws wSimulationException when `block` would allocate more than a block may:
// "<where>: block <name> (<type>) would allocate <size> at run time, more than the <limit>
// a block may ...". `where` names its place in the file.
void checkBlockAllocation(const wSimulationBlockDescriptor& block, const zo::string& where);
// Throws when the analysed scheme's data area and blocks together go over the limit.
void checkSchemeAllocation(const wSimulationSystemScheme& scheme);

// "512 B", "1.5 KiB", "32 GiB": a byte count for messages.
zo::string describeBytes(std::uint64_t bytes);
