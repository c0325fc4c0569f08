#pragma once
// A scheme as a Graphviz `dot` digraph: one node per block, labelled with its name and
// type and coloured by its kind, one node per scheme input and output lead, one edge per
// connection (wires solid, ports dashed, labelled with the leads they join), and nested
// schemes as clusters.
#include <ostream>
#include <string>

class wSimulationBlockDescriptor;
class wSimulationSystemScheme;

namespace host {

// The scheme that a block nests (a subsystem), drawn as a cluster in the block's place;
// null for an ordinary block.
using NestedSchemeOf = const wSimulationSystemScheme* (*)(const wSimulationBlockDescriptor& block);

// The nested scheme of a subsystem block that has loaded one; null for any other block.
const wSimulationSystemScheme* subsystemScheme(const wSimulationBlockDescriptor& block);

// Writes `scheme` as a digraph titled `title`. The text depends only on the scheme, so a
// diagram kept under version control changes only where the scheme does.
void writeDot(std::ostream& out, const wSimulationSystemScheme& scheme, const std::string& title,
              NestedSchemeOf nested = subsystemScheme);

}  // namespace host
