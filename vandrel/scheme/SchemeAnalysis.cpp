// Scheme analysis, run once at the end of a load for running:
//   1. blocks sorted by kind: stateless, continuous, discrete, then anything else;
//   2. stateless blocks put in evaluation order (each before everything it feeds);
//   3. loops through stateless blocks refused;
//   4. the index lists telling the runtime which stateless blocks to re-evaluate when a
//      scheme input, a discrete block or a continuous block changes;
//   5. for a top-level scheme, the memory layout of every wire in one data area.
//
// Reachability. There is an edge i -> j for a connection from block i to block j when i
// is stateless, or when the connection is a wire into a stateless j (the I/O block and
// the special-commands block count as one extra node, IO = block count). "i reaches j"
// means a path i -> ... -> j whose intermediate nodes are all stateless: only stateless
// blocks pass a value straight through. The lists are computed by graph searches that
// continue only through stateless nodes, so the cost follows the size of the regions
// actually reached rather than the square of the block count; every search is iterative,
// so long chains cannot exhaust the call stack.
#include <algorithm>
#include <memory>
#include <string>
#include <unordered_map>
#include <utility>

#include "vandrel/runtime/SimulationException.h"
#include "vandrel/scheme/SimulationSystemScheme.h"

namespace {

// Kind rank used for sorting and counting: the first of stateless (0), continuous (1),
// discrete (2) that the block answers; 3 for none.
int kindRank(const wSimulationBlockDescriptor& b) {
    if (b.isOfType(BLOCK_STATELESS)) return 0;
    if (b.isOfType(BLOCK_DIFF)) return 1;
    if (b.isOfType(BLOCK_DISCRETE)) return 2;
    return 3;
}

// Adjacency of a graph over nodes 0..n-1, successors ascending and without repeats.
class Adjacency {
public:
    Adjacency(int n, zo::vector<std::pair<int, int>> edges) : begin_(static_cast<std::size_t>(n) + 1, 0) {
        std::sort(edges.begin(), edges.end());
        edges.erase(std::unique(edges.begin(), edges.end()), edges.end());
        targets_.reserve(edges.size());
        for (const auto& [from, to] : edges) {
            ++begin_[static_cast<std::size_t>(from) + 1];
            targets_.push_back(to);
        }
        for (std::size_t v = 1; v < begin_.size(); ++v) begin_[v] += begin_[v - 1];
    }
    int size() const { return static_cast<int>(begin_.size()) - 1; }
    const int* beginOf(int v) const { return targets_.data() + begin_[static_cast<std::size_t>(v)]; }
    const int* endOf(int v) const { return targets_.data() + begin_[static_cast<std::size_t>(v) + 1]; }
    int degree(int v) const { return static_cast<int>(endOf(v) - beginOf(v)); }

    static zo::vector<std::pair<int, int>> reversed(zo::vector<std::pair<int, int>> edges) {
        for (auto& e : edges) std::swap(e.first, e.second);
        return edges;
    }

private:
    zo::vector<std::size_t> begin_;  // first successor of node v; begin_[n] = edge count
    zo::vector<int> targets_;
};

// Searches from one node through stateless nodes (those below `stateless`).
class StatelessReach {
public:
    StatelessReach(const Adjacency& graph, int stateless)
        : graph_(graph), stateless_(stateless), stamp_(static_cast<std::size_t>(stateless), 0) {}

    // The stateless nodes that `start` reaches, ascending, into `out`.
    void collect(int start, zo::vector<int>& out) {
        ++epoch_;
        out.clear();
        stack_.clear();
        push_(start);
        while (!stack_.empty()) {
            const int v = stack_.back();
            stack_.pop_back();
            out.push_back(v);
            push_(v);
        }
        std::sort(out.begin(), out.end());
    }

private:
    // Marks and stacks the stateless successors of v that this search has not seen.
    void push_(int v) {
        for (const int* w = graph_.beginOf(v); w != graph_.endOf(v); ++w) {
            if (*w >= stateless_) continue;
            unsigned& seen = stamp_[static_cast<std::size_t>(*w)];
            if (seen == epoch_) continue;
            seen = epoch_;
            stack_.push_back(*w);
        }
    }

    const Adjacency& graph_;
    int stateless_;
    zo::vector<unsigned> stamp_;  // epoch of the search that last reached the node
    unsigned epoch_ = 0;
    zo::vector<int> stack_;
};

// For each stateless node, whether it lies on a cycle of stateless nodes (a self-edge
// counts): Tarjan's strongly connected components over the stateless subgraph.
zo::vector<char> onStatelessCycle(const Adjacency& graph, int stateless) {
    const std::size_t n = static_cast<std::size_t>(stateless);
    zo::vector<int> index(n, -1), low(n, 0), component(n, -1), componentSize;
    zo::vector<char> onStack(n, 0);
    zo::vector<int> stack;
    struct Frame {
        int node;
        const int* next;  // next successor to look at
    };
    zo::vector<Frame> calls;
    int counter = 0;

    for (int root = 0; root < stateless; ++root) {
        if (index[static_cast<std::size_t>(root)] >= 0) continue;
        auto enter = [&](int v) {
            const std::size_t u = static_cast<std::size_t>(v);
            index[u] = low[u] = counter++;
            stack.push_back(v);
            onStack[u] = 1;
            calls.push_back(Frame{v, graph.beginOf(v)});
        };
        enter(root);
        while (!calls.empty()) {
            const int v = calls.back().node;
            const std::size_t u = static_cast<std::size_t>(v);
            if (calls.back().next != graph.endOf(v)) {
                const int w = *calls.back().next++;
                if (w >= stateless) continue;
                const std::size_t x = static_cast<std::size_t>(w);
                if (index[x] < 0) enter(w);
                else if (onStack[x]) low[u] = std::min(low[u], index[x]);
                continue;
            }
            // All successors done: close the component rooted here, if any.
            if (low[u] == index[u]) {
                const int id = static_cast<int>(componentSize.size());
                int size = 0;
                int w;
                do {
                    w = stack.back();
                    stack.pop_back();
                    onStack[static_cast<std::size_t>(w)] = 0;
                    component[static_cast<std::size_t>(w)] = id;
                    ++size;
                } while (w != v);
                componentSize.push_back(size);
            }
            calls.pop_back();
            if (!calls.empty()) {
                const std::size_t parent = static_cast<std::size_t>(calls.back().node);
                low[parent] = std::min(low[parent], low[u]);
            }
        }
    }

    zo::vector<char> cyclic(n, 0);
    for (int v = 0; v < stateless; ++v) {
        const std::size_t u = static_cast<std::size_t>(v);
        cyclic[u] = componentSize[static_cast<std::size_t>(component[u])] > 1 ||
                    std::binary_search(graph.beginOf(v), graph.endOf(v), v);
    }
    return cyclic;
}

// A shortest cycle through stateless node `start` (which lies on one), as a node list
// that begins and ends with `start`.
zo::vector<int> statelessCycleThrough(const Adjacency& graph, int stateless, int start) {
    zo::vector<int> parent(static_cast<std::size_t>(stateless), -1);
    zo::vector<int> queue;
    queue.push_back(start);
    int last = -1;  // the node whose edge closes the cycle back to start
    for (std::size_t head = 0; head < queue.size() && last < 0; ++head) {
        const int v = queue[head];
        for (const int* w = graph.beginOf(v); w != graph.endOf(v); ++w) {
            if (*w == start) {
                last = v;
                break;
            }
            if (*w >= stateless || parent[static_cast<std::size_t>(*w)] >= 0) continue;
            parent[static_cast<std::size_t>(*w)] = v;
            queue.push_back(*w);
        }
    }
    zo::vector<int> cycle{start};
    for (int v = last; v != start && v >= 0; v = parent[static_cast<std::size_t>(v)]) cycle.push_back(v);
    std::reverse(cycle.begin() + 1, cycle.end());
    cycle.push_back(start);
    return cycle;
}

const zo::string& displayName(const wSimulationBlockDescriptor& b) {
    return b.getName().empty() ? b.getBlockTypeName() : b.getName();
}

int roundUp8(int n) { return (n + 7) / 8 * 8; }

}  // namespace

// ---- Memory layout
//
// The data area of a top-level scheme: the scheme inputs (packed from 0), padding to 8,
// the continuous states (outputs of the continuous blocks), padding to 8, the outputs of
// the other blocks, then each subsystem's own level in the same pattern. Slots have no
// alignment of their own. Inputs take the offset of the output that feeds them; a
// subsystem block has no slots of its own: its outputs are its nested scheme's outputs,
// and its nested scheme's inputs are whatever feeds the subsystem block.

namespace {

struct LayoutLevel;

struct LayoutNode;
struct LayoutInput {
    LayoutNode* source = nullptr;  // node whose output feeds this input
    int sourceOutput = -1;         // that node's output index
};

struct LayoutNode {
    wSimulationBlockDescriptor* descriptor = nullptr;
    zo::vector<int> outputOffsets;  // byte offset per output wire
    zo::vector<LayoutInput> inputs;
    std::unique_ptr<LayoutLevel> nested;  // the level of a subsystem block's scheme
};

struct LayoutLevel {
    wSimulationSystemScheme* scheme = nullptr;
    zo::vector<LayoutNode> nodes;  // one per block, in block order
    LayoutNode io;                 // outputs: the scheme's inputs; inputs: its outputs
};

int sourceOffset(const LayoutInput& in) {
    return in.source->outputOffsets[static_cast<std::size_t>(in.sourceOutput)];
}

// Gives a block's output wires consecutive slots from `counter`. Offsets are ints: a
// scheme whose area would pass 1 GiB (nested subsystems multiply it) is refused here,
// long before the counter could overflow.
void placeOutputs(LayoutNode& node, const wLeadList& wires, int& counter) {
    constexpr int kMaxArea = 1 << 30;
    for (std::size_t i = 0; i < wires.size(); ++i) {
        if (counter > kMaxArea)
            throw wSimulationException(
                "The data area of the scheme would be larger than 1 GiB (at " +
                (node.descriptor != nullptr ? "block " + node.descriptor->getName() : zo::string("the scheme's inputs")) +
                ")");
        node.outputOffsets[i] = counter;
        counter += leadTypeSize(wires[i].type);
    }
}

}  // namespace

class wSchemeLayout {
public:
    static void layout(wSimulationSystemScheme& top) {
        std::unique_ptr<LayoutLevel> level = build_(top);
        check_(*level, top);

        int counter = 0;
        placeOutputs(level->io, top.ioBlock_.getOutputWires(), counter);
        place_(*level, counter);
        assignInputs_(*level);

        LayoutNode& io = level->io;
        zo::vector<int> outputs(io.inputs.size());
        for (std::size_t i = 0; i < io.inputs.size(); ++i) outputs[i] = sourceOffset(io.inputs[i]);
        top.ioBlock_.setOutputWireOffsets(io.outputOffsets.data());
        top.ioBlock_.setInputWireOffsets(outputs.data());
        top.memorySize_ = counter;
    }

private:
    static bool isSubsystem_(const wSimulationBlockDescriptor& b) {
        return b.isOfType(BLOCK_SUBSYSTEM) && b.getNestedScheme() != nullptr;
    }

    static std::unique_ptr<LayoutLevel> build_(wSimulationSystemScheme& s) {
        auto level = std::make_unique<LayoutLevel>();
        level->scheme = &s;
        level->nodes.resize(s.blocks_.size());
        std::unordered_map<const wSimulationBlockDescriptor*, LayoutNode*> nodeOf;
        nodeOf.reserve(s.blocks_.size() + 1);
        auto initNode = [&nodeOf](LayoutNode& node, wSimulationBlockDescriptor* d) {
            node.descriptor = d;
            node.outputOffsets.assign(d->getOutputWires().size(), -1);
            node.inputs.resize(d->getInputWires().size());
            nodeOf.emplace(d, &node);
        };
        for (std::size_t i = 0; i < s.blocks_.size(); ++i) {
            LayoutNode& node = level->nodes[i];
            initNode(node, s.blocks_[i].get());
            if (isSubsystem_(*node.descriptor)) node.nested = build_(*node.descriptor->getNestedScheme());
        }
        initNode(level->io, &s.ioBlock_);

        // Wires only: ports are joined by reference at run time and take no slot. The
        // special-commands block is no node, so a wire into it has no slot either.
        for (const wSimulationSystemScheme::Connection& c : s.connections_) {
            if (c.isPort) continue;
            auto target = nodeOf.find(c.to);
            auto source = nodeOf.find(c.from);
            if (target == nodeOf.end() || source == nodeOf.end()) continue;
            const int in = c.to->getLeadIndex(true, false, c.toLead, true);
            const int out = c.from->getLeadIndex(false, false, c.fromLead, true);
            target->second->inputs[static_cast<std::size_t>(in)] = LayoutInput{source->second, out};
        }
        return level;
    }

    // " (in nested.sch)" for a nested level, so that a message names the file at fault.
    static zo::string inFile(const LayoutLevel& level, const wSimulationSystemScheme& top) {
        if (level.scheme == &top || level.scheme->getFileName().empty()) return {};
        return " (in " + level.scheme->getFileName() + ")";
    }
    // What to write so that an input wire is fed.
    static zo::string unassignedHelp(const LayoutLevel& level, const wSimulationSystemScheme& top,
                                     const wSimulationBlockDescriptor& block, const zo::string& input) {
        const int index = level.scheme->getFileIndex(&block);
        if (index < 0) return " Connect a wire to it.";
        return " Connect a wire to it: a connection with input_block = " + std::to_string(index) +
               ", input_lead = \"" + input + "\" (the block is simulation_scheme.blocks[" +
               std::to_string(index + 1) + "]" +
               (level.scheme == &top || level.scheme->getFileName().empty() ? zo::string()
                                                                            : " of " + level.scheme->getFileName()) +
               ").";
    }
    static void check_(const LayoutLevel& level, const wSimulationSystemScheme& top) {
        for (const LayoutNode& node : level.nodes) {
            const wLeadList& wires = node.descriptor->getInputWires();
            for (std::size_t i = 0; i < node.inputs.size(); ++i) {
                if (node.inputs[i].source != nullptr) continue;
                throw wSimulationException("Inconsistency in scheme: block \"" + node.descriptor->getName() + "\" (" +
                                           node.descriptor->getBlockTypeName() + ") has unassigned input " +
                                           wires[i].name + "." + unassignedHelp(level, top, *node.descriptor, wires[i].name));
            }
        }
        const wSimulationSystemScheme::InputOutputBlock& ioBlock = level.scheme->ioBlock_;
        for (std::size_t i = 0; i < level.io.inputs.size(); ++i) {
            const LayoutInput& in = level.io.inputs[i];
            if (in.source == nullptr) {
                // Named from the scheme-input list at the same index, as this message always was.
                const wLeadList& names = ioBlock.getOutputWires().size() > i ? ioBlock.getOutputWires()
                                                                              : ioBlock.getInputWires();
                const zo::string& output = ioBlock.getInputWires()[i].name;
                throw wSimulationException("Inconsistency in scheme: unassigned output " + names[i].name +
                                           ": nothing feeds the scheme output " + output +
                                           "; add a connection with input_block = -666, input_lead = \"" + output +
                                           "\"" + inFile(level, top));
            }
            if (in.source == &level.io)
                throw wSimulationException(
                    "Direct connections from input to output are not implemented: scheme input " +
                    ioBlock.getOutputWires()[static_cast<std::size_t>(in.sourceOutput)].name +
                    " feeds scheme output " + ioBlock.getInputWires()[i].name +
                    " directly; pass it through a block (a gain of 1, for instance)" + inFile(level, top));
        }
        for (const LayoutNode& node : level.nodes)
            if (node.nested) check_(*node.nested, top);
    }

    // Output slots of one level and, recursively, of its subsystems' levels.
    static void place_(LayoutLevel& level, int& counter) {
        wSimulationSystemScheme& s = *level.scheme;
        counter = roundUp8(counter);
        s.diffMemoryOffset_ = counter;
        for (LayoutNode& node : level.nodes) {
            if (kindRank(*node.descriptor) != 1) continue;
            placeOutputs(node, node.descriptor->getOutputWires(), counter);
            node.descriptor->setOutputWireOffsets(node.outputOffsets.data());
        }
        counter = roundUp8(counter);
        s.diffMemorySize_ = counter - s.diffMemoryOffset_;

        for (LayoutNode& node : level.nodes) {
            if (kindRank(*node.descriptor) == 1 || node.nested) continue;
            placeOutputs(node, node.descriptor->getOutputWires(), counter);
            node.descriptor->setOutputWireOffsets(node.outputOffsets.data());
        }

        for (LayoutNode& node : level.nodes) {
            if (!node.nested) continue;
            place_(*node.nested, counter);
            const zo::vector<LayoutInput>& results = node.nested->io.inputs;
            for (std::size_t i = 0; i < node.outputOffsets.size() && i < results.size(); ++i)
                node.outputOffsets[i] = sourceOffset(results[i]);
        }
    }

    // Input offsets of one level, then of its subsystems' levels, whose scheme inputs
    // take the offsets of what feeds the subsystem block.
    static void assignInputs_(LayoutLevel& level) {
        zo::vector<int> offsets;
        for (LayoutNode& node : level.nodes) {
            if (node.nested) {
                zo::vector<int>& nestedInputs = node.nested->io.outputOffsets;
                for (std::size_t i = 0; i < node.inputs.size() && i < nestedInputs.size(); ++i)
                    nestedInputs[i] = sourceOffset(node.inputs[i]);
                continue;
            }
            offsets.resize(node.inputs.size());
            for (std::size_t i = 0; i < node.inputs.size(); ++i) offsets[i] = sourceOffset(node.inputs[i]);
            node.descriptor->setInputWireOffsets(offsets.data());
        }
        for (LayoutNode& node : level.nodes)
            if (node.nested) assignInputs_(*node.nested);
    }
};

// ---- Ordering, loop check and index lists

// The dependency edges of a scheme over nodes 0..n-1 (see the top of this file).
class wSchemeAnalysis {
public:
    static zo::vector<std::pair<int, int>> edges(const wSimulationSystemScheme& s, int n) {
        const int count = s.getBlocksCount();
        std::unordered_map<const wSimulationBlockDescriptor*, int> indexOf;
        indexOf.reserve(s.blocks_.size() + 2);
        for (int i = 0; i < count; ++i) indexOf.emplace(s.blocks_[static_cast<std::size_t>(i)].get(), i);
        indexOf.emplace(&s.ioBlock_, count);
        indexOf.emplace(&s.specialCmdsBlock_, count);

        zo::vector<std::pair<int, int>> result;
        result.reserve(s.connections_.size());
        for (const wSimulationSystemScheme::Connection& c : s.connections_) {
            // A connection naming a block this scheme does not hold adds nothing.
            auto from = indexOf.find(c.from);
            auto to = indexOf.find(c.to);
            if (from == indexOf.end() || to == indexOf.end()) continue;
            const bool edge = c.from->isOfType(BLOCK_STATELESS) || (!c.isPort && c.to->isOfType(BLOCK_STATELESS));
            if (edge && from->second < n && to->second < n) result.emplace_back(from->second, to->second);
        }
        return result;
    }
};

void wSimulationSystemScheme::postLoad_(bool isNested) {
    clearAnalysis_();

    // Kinds in order; a stable sort keeps the file order inside each kind, which for the
    // discrete blocks is their execution order.
    std::stable_sort(blocks_.begin(), blocks_.end(),
                     [](const auto& a, const auto& b) { return kindRank(*a) < kindRank(*b); });
    for (const auto& b : blocks_) {
        switch (kindRank(*b)) {
            case 0: ++statelessCount_; break;
            case 1: ++diffCount_; break;
            case 2: ++discreteCount_; break;
            default: break;
        }
    }
    firstDiffIndex_ = statelessCount_;
    firstDiscreteIndex_ = statelessCount_ + diffCount_;

    sortStateless_();

    // The whole graph, blocks plus the IO node.
    const int io = getBlocksCount();
    const int n = io + 1;
    const int stateless = statelessCount_;
    zo::vector<std::pair<int, int>> edgeList = wSchemeAnalysis::edges(*this, n);
    const Adjacency forward(n, edgeList);
    const Adjacency backward(n, Adjacency::reversed(std::move(edgeList)));

    // Loops: the first stateless block, by index, that reaches itself.
    const zo::vector<char> cyclic = onStatelessCycle(forward, stateless);
    for (int i = 0; i < stateless; ++i) {
        if (!cyclic[static_cast<std::size_t>(i)]) continue;
        const wSimulationBlockDescriptor& block = *blocks_[static_cast<std::size_t>(i)];
        zo::string message = "Stateless block " + std::to_string(i) + " (" + block.getName() +
                             ") is reachable from itself: ";
        // The loop itself, shortened in the middle when it is long.
        const zo::vector<int> cycle = statelessCycleThrough(forward, stateless, i);
        constexpr std::size_t kShown = 16;
        for (std::size_t k = 0; k < cycle.size(); ++k) {
            if (cycle.size() > kShown + 1 && k == kShown - 1) {
                message += "... -> ";
                k = cycle.size() - 1;
            }
            message += displayName(*blocks_[static_cast<std::size_t>(cycle[k])]);
            if (k + 1 < cycle.size()) message += " -> ";
        }
        message += "; put a discrete or continuous block into the loop";
        throw wSimulationException(std::move(message));
    }

    StatelessReach downstream(forward, stateless);
    StatelessReach upstream(backward, stateless);

    // Per discrete block: what must be current before it steps, and what it makes stale.
    onInput_.resize(static_cast<std::size_t>(discreteCount_));
    onOutput_.resize(static_cast<std::size_t>(discreteCount_));
    for (int d = 0; d < discreteCount_; ++d) {
        upstream.collect(getDiscreteBlockIndex(d), onInput_[static_cast<std::size_t>(d)]);
        downstream.collect(getDiscreteBlockIndex(d), onOutput_[static_cast<std::size_t>(d)]);
    }

    downstream.collect(io, onSchemeInput_);
    upstream.collect(io, onSchemeOutput_);

    // InDiff holds each block once, grouped by the first continuous block reaching it;
    // OnDiffInput lists a block once per continuous block that it feeds.
    zo::vector<char> taken(static_cast<std::size_t>(stateless), 0);
    zo::vector<int> found;
    for (int c = 0; c < diffCount_; ++c) {
        downstream.collect(getDiffBlockIndex(c), found);
        for (int s : found) {
            if (taken[static_cast<std::size_t>(s)]) continue;
            taken[static_cast<std::size_t>(s)] = 1;
            inDiff_.push_back(s);
        }
        upstream.collect(getDiffBlockIndex(c), found);
        onDiffInput_.insert(onDiffInput_.end(), found.begin(), found.end());
    }

    if (!isNested) wSchemeLayout::layout(*this);
}

void wSimulationSystemScheme::sortStateless_() {
    const int stateless = statelessCount_;
    if (stateless == 0) return;
    const Adjacency graph(stateless, wSchemeAnalysis::edges(*this, stateless));

    // Depth-first search from each unvisited block in index order, successors in
    // ascending order; a block is appended after all its successors. Reversed, every
    // block precedes the blocks it feeds.
    zo::vector<char> visited(static_cast<std::size_t>(stateless), 0);
    zo::vector<int> finished;
    finished.reserve(static_cast<std::size_t>(stateless));
    struct Frame {
        int node;
        const int* next;  // next successor to visit
    };
    zo::vector<Frame> calls;
    for (int root = 0; root < stateless; ++root) {
        if (visited[static_cast<std::size_t>(root)]) continue;
        visited[static_cast<std::size_t>(root)] = 1;
        calls.push_back(Frame{root, graph.beginOf(root)});
        while (!calls.empty()) {
            Frame& top = calls.back();
            if (top.next == graph.endOf(top.node)) {
                finished.push_back(top.node);
                calls.pop_back();
                continue;
            }
            const int w = *top.next++;
            if (visited[static_cast<std::size_t>(w)]) continue;
            visited[static_cast<std::size_t>(w)] = 1;
            calls.push_back(Frame{w, graph.beginOf(w)});
        }
    }
    std::reverse(finished.begin(), finished.end());

    BlockList ordered;
    ordered.reserve(static_cast<std::size_t>(stateless));
    for (int i : finished) ordered.push_back(std::move(blocks_[static_cast<std::size_t>(i)]));
    std::move(ordered.begin(), ordered.end(), blocks_.begin());
}
