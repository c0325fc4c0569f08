// The diagram writer's nesting: a block that stands for a scheme becomes a cluster, and
// connections to its leads reach the scheme's own lead nodes inside the cluster.
#include <gtest/gtest.h>

#include <sstream>
#include <string>

#include "support/SchemeFiles.h"
#include "apps/vandrel/GraphDot.h"

namespace {

using testutil::kIO;

// outer: u -> NOT "sub" -> y, where sub nests `middle`: input -> NOT "deep" -> output,
// and deep nests `inner`: input -> NOT "leaf" -> output.
struct Nesting {
    Nesting() {
        testutil::SchemeText o;
        const int sub = o.block("sub", "wBlockNOTDescriptor");
        o.inputWire("u", LEAD_BOOL, sub, "input");
        o.outputWire(sub, "output", "y", LEAD_BOOL);
        outer = testutil::loadForEdit(o.text());
        middle = testutil::loadForEdit(throughNot("deep"));
        inner = testutil::loadForEdit(throughNot("leaf"));
    }
    static std::string throughNot(const std::string& name) {
        testutil::SchemeText s;
        const int b = s.block(name, "wBlockNOTDescriptor");
        s.inputWire("input", LEAD_BOOL, b, "input");
        s.outputWire(b, "output", "output", LEAD_BOOL);
        return s.text();
    }
    std::unique_ptr<wSimulationSystemScheme> outer, middle, inner;
};

Nesting* nesting = nullptr;

const wSimulationSystemScheme* nestedByName(const wSimulationBlockDescriptor& b) {
    if (b.getName() == "sub") return nesting->middle.get();
    if (b.getName() == "deep") return nesting->inner.get();
    return nullptr;
}

TEST(GraphDot, NestedSchemesAreClustersJoinedThroughTheirLeads) {
    Nesting n;
    nesting = &n;
    std::ostringstream out;
    host::writeDot(out, *n.outer, "outer", nestedByName);
    nesting = nullptr;
    const std::string dot = out.str();
    const std::string expected =
        "  { rank=source;\n"
        "    \"in:u\" [label=\"u\\nboolean\", shape=cds, style=filled, fillcolor=\"#eeeeee\", tooltip=\"scheme input wire\"];\n"
        "  }\n"
        "  subgraph \"cluster_b0\" {\n"
        "    label=\"sub\\nNOT\"; style=\"rounded,filled\"; fillcolor=\"#ffffff\"; tooltip=\"wBlockNOTDescriptor\";\n"
        "    \"b0/in:input\" [label=\"input\\nboolean\", shape=cds, style=filled, fillcolor=\"#eeeeee\", tooltip=\"scheme input wire\"];\n"
        "    subgraph \"cluster_b0/b0\" {\n"
        "      label=\"deep\\nNOT\"; style=\"rounded,filled\"; fillcolor=\"#ffffff\"; tooltip=\"wBlockNOTDescriptor\";\n"
        "      \"b0/b0/in:input\" [label=\"input\\nboolean\", shape=cds, style=filled, fillcolor=\"#eeeeee\", tooltip=\"scheme input wire\"];\n"
        "      \"b0/b0/b0\" [label=\"leaf\\nNOT\", fillcolor=\"#ffffff\", tooltip=\"stateless block wBlockNOTDescriptor\"];\n"
        "      \"b0/b0/out:output\" [label=\"output\\nboolean\", shape=cds, style=filled, fillcolor=\"#eeeeee\", tooltip=\"scheme output wire\"];\n"
        "      \"b0/b0/in:input\" -> \"b0/b0/b0\" [label=\"input\"];\n"
        "      \"b0/b0/b0\" -> \"b0/b0/out:output\" [label=\"output\"];\n"
        "    }\n"
        "    \"b0/out:output\" [label=\"output\\nboolean\", shape=cds, style=filled, fillcolor=\"#eeeeee\", tooltip=\"scheme output wire\"];\n"
        "    \"b0/in:input\" -> \"b0/b0/in:input\" [label=\"input\"];\n"
        "    \"b0/b0/out:output\" -> \"b0/out:output\" [label=\"output\"];\n"
        "  }\n"
        "  { rank=sink;\n"
        "    \"out:y\" [label=\"y\\nboolean\", shape=cds, style=filled, fillcolor=\"#eeeeee\", tooltip=\"scheme output wire\"];\n"
        "  }\n"
        "  \"in:u\" -> \"b0/in:input\" [label=\"u → input\"];\n"
        "  \"b0/out:output\" -> \"out:y\" [label=\"output → y\"];\n";
    EXPECT_NE(dot.find(expected), std::string::npos) << dot;
    // Without the hook the same scheme is one plain node.
    std::ostringstream flat;
    host::writeDot(flat, *n.outer, "outer", nullptr);
    EXPECT_EQ(flat.str().find("cluster_b0"), std::string::npos);
    EXPECT_NE(flat.str().find("\"in:u\" -> \"b0\" [label=\"u → input\"];"), std::string::npos) << flat.str();
}

}  // namespace
