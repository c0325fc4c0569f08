#include "GraphDot.h"

#include <string_view>

#include "vandrel/core/LeadTypes.h"
#include "vandrel/core/SimulationBlockDescriptor.h"
#include "vandrel/scheme/SimulationSystemScheme.h"

namespace host {

const wSimulationSystemScheme* subsystemScheme(const wSimulationBlockDescriptor& block) {
    // Only subsystem blocks hold a nested scheme; every other block is a single node.
    return block.getNestedScheme();
}

namespace {

// A dot string literal: quotes and backslashes escaped, line breaks kept as "\n".
std::string quote(std::string_view s) {
    std::string q = "\"";
    for (char c : s) {
        if (c == '"' || c == '\\') q += '\\';
        if (c == '\n') q += "\\n";
        else if (c != '\r') q += c;
    }
    return q + '"';
}

// Block kinds, each with its fill colour; the legend lists the kinds a drawing uses.
enum Kind { kStateless, kContinuous, kDiscrete, kSubsystem, kKindCount };
constexpr const char* kKindNames[kKindCount] = {"stateless", "continuous", "discrete", "subsystem"};
constexpr const char* kKindFills[kKindCount] = {"#ffffff", "#d5e8d4", "#ffe6cc", "#e1d5e7"};
constexpr const char* kIOFill = "#eeeeee";

Kind kindOf(const wSimulationBlockDescriptor& b) {
    if (b.isOfType(BLOCK_SUBSYSTEM)) return kSubsystem;
    if (b.isOfType(BLOCK_DIFF)) return kContinuous;
    if (b.isOfType(BLOCK_DISCRETE)) return kDiscrete;
    return kStateless;
}

// Node names: a nested scheme's nodes carry the path of blocks that lead to it ("b3/"),
// so every node of the drawing has its own name. A scheme lead's node says which side
// and which list it is on, since a wire and a port may share a name.
std::string ioNode(const std::string& prefix, bool schemeInput, bool isPort, std::string_view lead) {
    return prefix + (schemeInput ? "in" : "out") + (isPort ? "port:" : ":") + std::string(lead);
}

class DotWriter {
public:
    DotWriter(std::ostream& out, NestedSchemeOf nested) : out_(out), nested_(nested) {}

    void write(const wSimulationSystemScheme& scheme, const std::string& title) {
        out_ << "digraph " << quote(title) << " {\n"
             << "  graph [rankdir=LR, label=" << quote(title)
             << ", labelloc=t, fontname=\"Helvetica,Arial,sans-serif\", fontsize=14];\n"
             << "  node [shape=box, style=filled, fontname=\"Helvetica,Arial,sans-serif\", fontsize=10];\n"
             << "  edge [fontname=\"Helvetica,Arial,sans-serif\", fontsize=9];\n";
        writeScheme(scheme, "", 1);
        writeLegend();
        out_ << "}\n";
    }

private:
    std::string indent(int depth) const { return std::string(2 * static_cast<std::size_t>(depth), ' '); }

    // The scheme's own leads: inputs first (wires, then ports), outputs last. At the top
    // level they are pinned to the left and right edges of the drawing.
    void writeIOLeads(const wSimulationSystemScheme& scheme, const std::string& prefix, int depth, bool schemeInput) {
        const std::string in = indent(depth);
        const bool pinned = depth == 1;
        bool any = false;
        for (bool isPort : {false, true}) {
            // The I/O block's output leads are the scheme's inputs.
            for (const auto& lead : scheme.getIOLeads(!schemeInput, isPort)) {
                if (!any && pinned) out_ << in << "{ rank=" << (schemeInput ? "source" : "sink") << ";\n";
                any = true;
                out_ << in << (pinned ? "  " : "") << quote(ioNode(prefix, schemeInput, isPort, lead.name))
                     << " [label=" << quote(std::string(lead.name) + "\n" + leadTypeNames[lead.type])
                     << ", shape=cds, style=" << (isPort ? "\"filled,dashed\"" : "filled") << ", fillcolor=\""
                     << kIOFill << "\", tooltip=" << quote(std::string("scheme ") + (schemeInput ? "input " : "output ") +
                                                          (isPort ? "port" : "wire"))
                     << "];\n";
            }
        }
        if (any && pinned) out_ << in << "}\n";
    }

    void writeBlock(const wSimulationSystemScheme& scheme, int index, const std::string& prefix, int depth) {
        const wSimulationBlockDescriptor& b = *scheme.getBlocks()[static_cast<std::size_t>(index)];
        const std::string in = indent(depth);
        const Kind kind = kindOf(b);
        used_[kind] = true;
        const std::string name = b.getName().empty() ? "blocks[" + std::to_string(index) + "]" : std::string(b.getName());
        const std::string label = name + "\n" + std::string(b.getBlockTypeName());
        const std::string id = prefix + "b" + std::to_string(index);
        if (const wSimulationSystemScheme* inner = nested_ ? nested_(b) : nullptr) {
            out_ << in << "subgraph " << quote("cluster_" + id) << " {\n"
                 << in << "  label=" << quote(label) << "; style=\"rounded,filled\"; fillcolor=\"" << kKindFills[kind]
                 << "\"; tooltip=" << quote(std::string(b.getClassName())) << ";\n";
            writeScheme(*inner, id + "/", depth + 1);
            out_ << in << "}\n";
            return;
        }
        out_ << in << quote(id) << " [label=" << quote(label) << ", fillcolor=\"" << kKindFills[kind]
             << "\", tooltip=" << quote(std::string(kKindNames[kind]) + " block " + std::string(b.getClassName()))
             << "];\n";
    }

    // The node an end of a connection attaches to: a block, a scheme lead, the special
    // commands, or, for a nested scheme, the lead node inside its cluster.
    std::string endpoint(const wSimulationSystemScheme& scheme, const wSimulationBlockDescriptor* block,
                         std::string_view lead, bool isPort, bool isSource, const std::string& prefix) const {
        if (block == &scheme.getIOBlock()) return ioNode(prefix, isSource, isPort, lead);
        if (block == &scheme.getSpecialCmdsBlock()) return prefix + "cmd";
        const std::string id = prefix + "b" + std::to_string(scheme.indexOfBlock(block));
        if (block && nested_ && nested_(*block)) return ioNode(id + "/", !isSource, isPort, lead);
        return id;
    }

    void writeScheme(const wSimulationSystemScheme& scheme, const std::string& prefix, int depth) {
        const std::string in = indent(depth);
        writeIOLeads(scheme, prefix, depth, true);
        for (int i = 0; i < scheme.getBlocksCount(); ++i) writeBlock(scheme, i, prefix, depth);
        bool commands = false;
        for (const auto& c : scheme.getConnections()) commands = commands || c.to == &scheme.getSpecialCmdsBlock();
        if (commands)
            out_ << in << quote(prefix + "cmd") << " [label=\"special commands\", shape=octagon, fillcolor=\"" << kIOFill
                 << "\"];\n";
        writeIOLeads(scheme, prefix, depth, false);
        // Wires solid, ports dashed; the label names the output lead, and the input lead
        // when it differs.
        for (const auto& c : scheme.getConnections()) {
            std::string label(c.fromLead);
            if (c.toLead != c.fromLead) label += " → " + std::string(c.toLead);
            out_ << in << quote(endpoint(scheme, c.from, c.fromLead, c.isPort, true, prefix)) << " -> "
                 << quote(endpoint(scheme, c.to, c.toLead, c.isPort, false, prefix)) << " [label=" << quote(label)
                 << (c.isPort ? ", style=dashed" : "") << "];\n";
        }
    }

    void writeLegend() {
        bool any = false;
        for (bool u : used_) any = any || u;
        if (!any) return;
        out_ << "  subgraph \"cluster_legend\" {\n"
             << "    label=\"block kinds\"; style=dashed; fontsize=10;\n";
        for (int k = 0; k < kKindCount; ++k)
            if (used_[k])
                out_ << "    " << quote(std::string("legend:") + kKindNames[k]) << " [label=" << quote(kKindNames[k])
                     << ", fillcolor=\"" << kKindFills[k] << "\"];\n";
        out_ << "  }\n";
    }

    std::ostream& out_;
    NestedSchemeOf nested_;
    bool used_[kKindCount] = {};
};

}  // namespace

void writeDot(std::ostream& out, const wSimulationSystemScheme& scheme, const std::string& title, NestedSchemeOf nested) {
    DotWriter(out, nested).write(scheme, title);
}

}  // namespace host
