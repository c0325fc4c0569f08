// `vandrel graph` through a real process: the dot text of every example and of small
// schemes, the files it writes, and what it refuses.
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <string>
#include <vector>

#include "support/CliProcess.h"
#include "support/SchemeFiles.h"
#include "vandrel/vandrel.h"

namespace {

namespace fs = std::filesystem;
using testutil::slurp;

class Graph : public testutil::CliProcess {};

// Every example scheme (the overrides files beside them are not schemes).
std::vector<fs::path> exampleSchemes() {
    std::vector<fs::path> files;
    for (const auto& e : fs::directory_iterator(VANDREL_EXAMPLES_DIR)) {
        const std::string name = e.path().filename().string();
        if (e.path().extension() == ".lua" && name.find(".overrides.") == std::string::npos) files.push_back(e.path());
    }
    std::sort(files.begin(), files.end());
    return files;
}

// The node a connection end is drawn at, worked out from the scheme as loaded here.
std::string nodeOf(const wSimulationSystemScheme& s, const wSimulationBlockDescriptor* b, const std::string& lead,
                   bool isPort, bool isSource) {
    if (b == &s.getIOBlock()) return std::string(isSource ? "in" : "out") + (isPort ? "port:" : ":") + lead;
    if (b == &s.getSpecialCmdsBlock()) return "cmd";
    const std::string id = "b" + std::to_string(s.indexOfBlock(b));
    // A subsystem is a cluster: its edges end at the nested scheme's own lead nodes.
    if (b->getNestedScheme() != nullptr) return id + "/" + (isSource ? "out" : "in") + (isPort ? "port:" : ":") + lead;
    return id;
}

std::size_t count(const std::string& text, const std::string& what) {
    std::size_t n = 0;
    for (auto p = text.find(what); p != std::string::npos; p = text.find(what, p + 1)) ++n;
    return n;
}

TEST_F(Graph, DrawsEveryBlockAndConnectionOfEveryExample) {
    const auto files = exampleSchemes();
    ASSERT_GE(files.size(), 4u);
    for (const fs::path& file : files) {
        SCOPED_TRACE(file.string());
        const auto r = run("graph " + file.string());
        ASSERT_EQ(r.status, 0) << r.err;
        EXPECT_EQ(r.err, "");
        EXPECT_EQ(r.out.rfind("digraph \"" + file.stem().string() + "\" {\n", 0), 0u) << r.out.substr(0, 200);
        EXPECT_EQ(r.out.substr(r.out.size() - 2), "}\n");

        wSimulationSystemScheme s;
        zo::vector<int> discarded;
        s.loadForEdit(file.string(), discarded);
        ASSERT_TRUE(discarded.empty());
        // Each block once, as a node named by its position, labelled with name and type;
        // a subsystem once, as a cluster holding its nested scheme.
        std::size_t nestedEdges = 0;
        for (int i = 0; i < s.getBlocksCount(); ++i) {
            const auto& b = s.getBlocks()[static_cast<std::size_t>(i)];
            if (const auto* nested = b->getNestedScheme()) {
                EXPECT_EQ(count(r.out, "  subgraph \"cluster_b" + std::to_string(i) + "\" {\n"), 1u);
                nestedEdges += nested->getConnections().size();
                continue;
            }
            const std::string node = "  \"b" + std::to_string(i) + "\" [label=\"" + std::string(b->getName()) + "\\n" +
                                     std::string(b->getBlockTypeName()) + "\", fillcolor=";
            EXPECT_EQ(count(r.out, node), 1u) << node;
        }
        // Each connection once, in file order, ports dashed and wires solid.
        std::size_t at = 0;
        for (const auto& c : s.getConnections()) {
            std::string label(c.fromLead);
            if (c.toLead != c.fromLead) label += " → " + std::string(c.toLead);
            const std::string edge = "  \"" + nodeOf(s, c.from, std::string(c.fromLead), c.isPort, true) + "\" -> \"" +
                                     nodeOf(s, c.to, std::string(c.toLead), c.isPort, false) + "\" [label=\"" + label +
                                     "\"" + (c.isPort ? ", style=dashed" : "") + "];\n";
            const auto p = r.out.find(edge, at);
            EXPECT_NE(p, std::string::npos) << edge;
            if (p != std::string::npos) at = p;
        }
        EXPECT_EQ(count(r.out, " -> "), s.getConnections().size() + nestedEdges);
        // Every scheme lead has its node, even when nothing is connected to it.
        for (bool isInput : {true, false})
            for (bool isPort : {true, false})
                for (const auto& lead : s.getIOLeads(isInput, isPort))
                    EXPECT_EQ(count(r.out, "\n    \"" + std::string(isInput ? "out" : "in") + (isPort ? "port:" : ":") +
                                               std::string(lead.name) + "\" [label="),
                              1u)
                        << lead.name;
    }
}

// A scheme input through a NOT and a trigger to the outputs and the special commands.
std::string small() {
    testutil::SchemeText s;
    const int n = s.block("invert", "wBlockNOTDescriptor");
    const int t = s.block("", "wBlockNOTtriggerDescriptor");
    s.inputWire("u", LEAD_BOOL);
    s.inputPort("kick", LEAD_BOOL);
    s.outputWire("y", LEAD_BOOL);
    s.outputPort("idle", LEAD_INT);
    s.wire(testutil::kIO, "u", n, "input");
    s.wire(n, "output", testutil::kIO, "y");
    s.port(testutil::kIO, "kick", t, "input");
    s.port(t, "output", testutil::kCmds, "reset_diff_state");
    return s.text();
}

TEST_F(Graph, DotTextOfASmallScheme) {
    const auto file = write("small.lua", small());
    const auto r = run("graph " + file.string());
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.out, R"dot(digraph "small" {
  graph [rankdir=LR, label="small", labelloc=t, fontname="Helvetica,Arial,sans-serif", fontsize=14];
  node [shape=box, style=filled, fontname="Helvetica,Arial,sans-serif", fontsize=10];
  edge [fontname="Helvetica,Arial,sans-serif", fontsize=9];
  { rank=source;
    "in:u" [label="u\nboolean", shape=cds, style=filled, fillcolor="#eeeeee", tooltip="scheme input wire"];
    "inport:kick" [label="kick\nboolean", shape=cds, style="filled,dashed", fillcolor="#eeeeee", tooltip="scheme input port"];
  }
  "b0" [label="invert\nNOT", fillcolor="#ffffff", tooltip="stateless block wBlockNOTDescriptor"];
  "b1" [label="blocks[1]\nNOT (trig)", fillcolor="#ffffff", tooltip="stateless block wBlockNOTtriggerDescriptor"];
  "cmd" [label="special commands", shape=octagon, fillcolor="#eeeeee"];
  { rank=sink;
    "out:y" [label="y\nboolean", shape=cds, style=filled, fillcolor="#eeeeee", tooltip="scheme output wire"];
    "outport:idle" [label="idle\ninteger", shape=cds, style="filled,dashed", fillcolor="#eeeeee", tooltip="scheme output port"];
  }
  "in:u" -> "b0" [label="u → input"];
  "b0" -> "out:y" [label="output → y"];
  "inport:kick" -> "b1" [label="kick → input", style=dashed];
  "b1" -> "cmd" [label="output → reset_diff_state", style=dashed];
  subgraph "cluster_legend" {
    label="block kinds"; style=dashed; fontsize=10;
    "legend:stateless" [label="stateless", fillcolor="#ffffff"];
  }
}
)dot");
    // -o with a text extension writes the same text.
    for (const char* name : {"small.dot", "small.GV"}) {
        ASSERT_EQ(run("graph " + file.string() + " -o " + (dir_ / name).string()).status, 0) << name;
        EXPECT_EQ(slurp(dir_ / name), r.out) << name;
    }
}

TEST_F(Graph, DrawsSchemesThatCannotRunAndNamesConnectionsItCannotDraw) {
    // A loop through stateless blocks and an open parameter do not stop a drawing: it is
    // how one looks for the loop.
    testutil::SchemeText s;
    const int a = s.block("a", "wBlockNOTDescriptor");
    const int b = s.block("b", "wBlockNOTDescriptor");
    const int r = s.block("r", "wBlockRampDescriptor", "dt = { value = 1 }, slope = {}");
    s.wire(a, "output", b, "input");
    s.wire(b, "output", a, "input");
    s.wire(b, "nosuch", r, "target");
    const auto file = write("loop.lua", s.text());
    ASSERT_EQ(run("check " + file.string()).status, 1);
    const auto g = run("graph " + file.string());
    ASSERT_EQ(g.status, 0) << g.err;
    EXPECT_NE(g.out.find("  \"b0\" -> \"b1\" [label=\"output → input\"];\n  \"b1\" -> \"b0\" [label=\"output → input\"];\n"),
              std::string::npos)
        << g.out;
    EXPECT_EQ(count(g.out, " -> "), 2u);
    EXPECT_NE(g.err.find(file.string() + ": connections[3] is not drawn"), std::string::npos) << g.err;
}

TEST_F(Graph, RendersWithGraphvizAndRefusesFormatsItCannotWrite) {
    const std::string scheme = example("thermostat.lua");
    for (const char* name : {"t.jpg", "t", "t.svg.bak"}) {
        const auto r = run("graph " + scheme + " -o " + (dir_ / name).string());
        EXPECT_EQ(r.status, 2) << name;
        EXPECT_NE(r.err.find("cannot tell the format of"), std::string::npos) << r.err;
        EXPECT_FALSE(fs::exists(dir_ / name)) << name;
    }
    const auto missing = run("graph " + scheme + " -o " + (dir_ / "t.svg").string(), "PATH=/nonexistent");
    EXPECT_EQ(missing.status, 1);
    EXPECT_NE(missing.err.find("install the graphviz package"), std::string::npos) << missing.err;

    if (!testutil::onPath("dot")) GTEST_SKIP() << "Graphviz is not installed";
    auto r = run("graph " + scheme + " -o " + (dir_ / "t.svg").string());
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.out + r.err, "");
    const std::string svg = slurp(dir_ / "t.svg");
    EXPECT_NE(svg.find("<svg"), std::string::npos);
    for (const char* text : {">thermostat<", ">long_heating<", ">Flag cont. signal by timer<", ">special commands<",
                             ">timed_out → reset_diff_state<", ">temperature<"})
        EXPECT_NE(svg.find(text), std::string::npos) << text;
    const std::string unwritable = (dir_ / "nodir" / "t.svg").string();
    r = run("graph " + scheme + " -o " + unwritable);
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.err.rfind("vandrel: Graphviz could not draw " + unwritable + ": ", 0), 0u) << r.err;
    EXPECT_NE(r.err.find("Could not open \"" + unwritable + "\" for writing"), std::string::npos) << r.err;
    r = run("graph " + scheme + " -o " + (dir_ / "t.png").string());
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(slurp(dir_ / "t.png").substr(0, 4), "\x89PNG");
}

}  // namespace
