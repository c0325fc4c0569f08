#pragma once
// Watches what the continuous right-hand side reads from outside the continuous part:
// the input wires of the continuous blocks and of the stateless blocks computed from the
// state, less the state itself and the outputs of those stateless blocks. A change there
// between two advances (a discrete block or the host wrote a new value) is a jump in the
// derivatives, after which solvers with history restart.
//
// Built once when the system is; changed() only compares bytes and allocates nothing.
#include <algorithm>

#include "vandrel/platform/String.h"

class wSimulationSystemScheme;

class wDiffInputWatch {
public:
    // Collects the watched byte ranges of an analysed scheme's data area.
    void build(const wSimulationSystemScheme& scheme);
    // True when a watched byte differs from the copy taken by the previous call (always
    // false on the first call); keeps the current bytes as the new copy.
    bool changed(const unsigned char* data);
    // The number of watched bytes.
    int size() const { return static_cast<int>(copy_.size()); }
    // The copy taken by the last call and whether there was one, for snapshots; restore
    // takes size() bytes.
    const unsigned char* copy() const { return copy_.data(); }
    bool primed() const { return primed_; }
    void restore(const unsigned char* copy, bool primed) {
        std::copy(copy, copy + copy_.size(), copy_.begin());
        primed_ = primed;
    }

private:
    struct Range {
        int offset;  // first byte in the data area
        int size;    // bytes
    };
    zo::vector<Range> ranges_;        // sorted, disjoint, not adjacent
    zo::vector<unsigned char> copy_;  // the watched bytes at the last call, range after range
    bool primed_ = false;             // copy_ holds a first reading
};
