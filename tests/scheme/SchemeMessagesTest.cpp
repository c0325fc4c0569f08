// Every message a scheme file can make a running load give, checked word for word: each
// says where the fault is and what would fix it. Then the warnings about what a load does
// not read, in the file and in nested files, and the message of a schedule that never
// advances.
#include <gtest/gtest.h>

#include "support/SchemeFiles.h"

namespace {

using testutil::kCmds;
using testutil::kIO;
using testutil::loadError;
using testutil::messageOf;
using testutil::SchemeText;

// Blocks 0 a gain g, 1 a counter c; scheme input v, scheme output y; one change per case.
SchemeText base() {
    SchemeText t;
    t.block("g", "TestGain", "k = { value = 1 }");
    t.block("c", "TestCounter", "dt = { value = 1 }");
    t.inputWire("v", LEAD_DOUBLE);
    t.outputWire("y", LEAD_DOUBLE);
    return t;
}

template <class F>
std::string with(F change) {
    SchemeText t = base();
    change(t);
    return t.text();
}

// The base text with `what` replaced by `by`.
std::string replaced(const std::string& what, const std::string& by) {
    std::string text = base().text();
    return text.replace(text.find(what), what.size(), by);
}

// A base scheme that loads: v -> g -> y.
void fed(SchemeText& t) {
    t.wire(kIO, "v", 0, "in");
    t.wire(0, "out", kIO, "y");
}

TEST(SchemeMessages, EveryLoadErrorSaysWhereAndWhatWouldFixIt) {
    const std::pair<std::string, std::string> cases[] = {
        // The file itself.
        {"simulation_scheme = {", "line 1: unexpected symbol near '<eof>'"},
        {"other = {}", "global table simulation_scheme is not defined"},
        {"simulation_scheme = 3", "global simulation_scheme is a number, expected a table"},
        {"while true do end", "line 1: stopped after 10000000 Lua instructions (endless loop?)"},
        {"simulation_scheme = { blocks = {} }", "simulation_scheme.io is missing: a table is expected here"},
        {"simulation_scheme = { blocs = {} }", "simulation_scheme.blocks is missing: a table is expected here; is blocs meant to be blocks?"},
        {"simulation_scheme = { blocks = { 5 } }", "simulation_scheme.blocks[1] must be a table, not a number"},
        // Block entries.
        {with([](SchemeText& t) { t.block("x", "TestGian"); }), "Block TestGian not found; did you mean TestGain? (at simulation_scheme.blocks[3])"},
        {with([](SchemeText& t) { t.block("x", "Ramp block"); }),
         "Block Ramp block not found; Ramp block is the display name of wBlockRampDescriptor: write __type ="
         " \"wBlockRampDescriptor\" (at simulation_scheme.blocks[3])"},
        {with([](SchemeText& t) { t.block("x", "NoSuchBlock"); }), "Block NoSuchBlock not found (at simulation_scheme.blocks[3])"},
        {with([](SchemeText& t) { t.block("g", "TestGain", "k = { value = 1 }"); }),
         "Trying to add block with duplicate name: g (at simulation_scheme.blocks[3];"
         " simulation_scheme.blocks[1] has that name already)"},
        {replaced("__name = \"c\", ", ""),
         "simulation_scheme.blocks[2].__name failed to Lua::Loader::getString: missing, a string is expected"
         " here"},
        {replaced("__type = \"TestCounter\", ", ""),
         "simulation_scheme.blocks[2].__type failed to Lua::Loader::getString: missing, a string is expected"
         " here"},
        {replaced("__parameters = { dt = { value = 1 } }", "params = {}"), "simulation_scheme.blocks[2].__parameters is missing: a table is expected here"},
        {replaced("k = { value = 1 }", "k = { value = 'one' }"), "simulation_scheme.blocks[1].__parameters.k.value must be a number, not a string"},
        {replaced("k = { value = 1 }", "kk = { value = 1 }"),
         "simulation_scheme.blocks[1].__parameters.k is missing: block g needs its parameter k, as k = {"
         " value = ... }; is kk meant to be k?"},
        {replaced("k = { value = 1 }", "k = 1"),
         "simulation_scheme.blocks[1].__parameters.k must be a table: block g needs its parameter k, as k = {"
         " value = ... }"},
        {replaced("k = { value = 1 }", "k = {}"),
         "Parameter not defined: g.k: simulation_scheme.blocks[1].__parameters.k.value is missing; write a"
         " value there, or give one in the overrides table as overrides.g.k"},
        {with([](SchemeText& t) { t.block("o", "wBlockOscilloscopeDescriptor", "dt = { value = 0 }, capacity = { value = 5 }"); }), "Oscilloscope o: \"dt\" must be positive (at simulation_scheme.blocks[3])"},
        {with([](SchemeText& t) { t.block("vs", "TestVecSource", "v = { value = 3 }"); }),
         "simulation_scheme.blocks[3].__parameters.v.value failed to Lua::Loader::getVector: expected three"
         " numbers, { x, y, z }"},
        // The solver.
        {with([](SchemeText& t) { t.block("i", "TestIntegrator"); }),
         "simulation_scheme.solver is missing: the continuous blocks i (TestIntegrator) need a solver, e.g."
         " solver = { __type = \"wSolverExplEulerDescriptor\", H = 0.001 }"},
        {with([](SchemeText& t) { t.block("i", "TestIntegrator"), t.solver("__type = 'wSolverExplEuler', H = 0.1"); }),
         "Unknown ODE solver type: wSolverExplEuler; did you mean wSolverExplEulerDescriptor? (at"
         " simulation_scheme.solver.__type; the kinds are wSolverExplEulerDescriptor, wSolverRK4Descriptor,"
         " wSolverDopri5Descriptor, wSolverCvodeDescriptor)"},
        {with([](SchemeText& t) { t.block("i", "TestIntegrator"), t.solver("__type = 'wSolverExplEulerDescriptor', H = 0"); }), "simulation_scheme.solver.H must be a positive finite number of seconds, got 0"},
        {with([](SchemeText& t) { t.block("i", "TestIntegrator"), t.solver("__type = 'wSolverExplEulerDescriptor'"); }), "simulation_scheme.solver.H is missing: a number is expected here"},
        // The scheme's own leads.
        {with([](SchemeText& t) { t.inputWire("v", LEAD_INT); }),
         "Duplicate IO lead: v (at simulation_scheme.io.outputWires[2].name; each name appears once in"
         " outputWires)"},
        {replaced("type = 2", "type = 7"),
         "Invalid lead type (y): 7; use 0 integer, 1 boolean, 2 double, 3 vector, 4 quaternion, 5 object ptr,"
         " 6 object id (at simulation_scheme.io.inputWires[1].type)"},
        {replaced("type = 2", "type = 'double'"), "simulation_scheme.io.inputWires[1].type must be a whole number, not a string"},
        {replaced("name = \"v\",", ""),
         "simulation_scheme.io.outputWires[1].name failed to Lua::Loader::getString: missing, a string is"
         " expected here"},
        // Connections.
        {with([](SchemeText& t) { t.wire(0, "out", 2, "in"); }),
         "invalid input block: 2 is not a block index; use 0 to 1, -666 for the scheme's I/O or -665 for its"
         " special commands (at simulation_scheme.connections[1])"},
        {with([](SchemeText& t) { t.wire(-1, "out", 0, "in"); }),
         "invalid output block: -1 is not a block index; use 0 to 1, -666 for the scheme's I/O or -665 for"
         " its special commands (at simulation_scheme.connections[1])"},
        {with([](SchemeText& t) { t.wire(0, "output", 1, "in"); }),
         "Block 0 has no output output: the output wires of block g (TestGain) at simulation_scheme.blocks[1]"
         " are out (double); did you mean out? (at simulation_scheme.connections[1])"},
        {with([](SchemeText& t) { t.wire(kIO, "v", 1, "in"); }),
         "Block 1 has no input in: there are no input wires of block c (TestCounter) at"
         " simulation_scheme.blocks[2] (at simulation_scheme.connections[1])"},
        {with([](SchemeText& t) { t.port(0, "out", 0, "in"); }),
         "Block 0 has no output out: out is one of the output wires of block g (TestGain) at"
         " simulation_scheme.blocks[1], so write port = false (at simulation_scheme.connections[1])"},
        {with([](SchemeText& t) { t.wire(kIO, "w", 0, "in"); }),
         "Block -666 has no output w: the scheme's input wires (simulation_scheme.io.outputWires) are v"
         " (double); did you mean v? (at simulation_scheme.connections[1])"},
        {with([](SchemeText& t) { t.wire(0, "out", kIO, "z"); }),
         "Block -666 has no input z: the scheme's output wires (simulation_scheme.io.inputWires) are y"
         " (double); did you mean y? (at simulation_scheme.connections[1])"},
        {with([](SchemeText& t) { t.port(kIO, "v", 0, "in"); }),
         "Block -666 has no output v: the scheme's input wires hold v, so write port = false (at"
         " simulation_scheme.connections[1])"},
        {with([](SchemeText& t) { t.wire(0, "out", kCmds, "reset_diff_state"); }),
         "Block -665 has no input reset_diff_state: reset_diff_state is one of the input ports of the special"
         " commands block, so write port = true (at simulation_scheme.connections[1])"},
        {with([](SchemeText& t) { t.port(kCmds, "x", 0, "in"); }),
         "Block -665 has no output x: there are no output ports of the special commands block (at"
         " simulation_scheme.connections[1])"},
        {with([](SchemeText& t) { t.wire(1, "count", 0, "in"); }),
         "Cannot connect 1.count -> 0.in: different types: count of block c (TestCounter) at"
         " simulation_scheme.blocks[2] is integer, in of block g (TestGain) at simulation_scheme.blocks[1] is"
         " double (at simulation_scheme.connections[1])"},
        {with([](SchemeText& t) { t.wire(kIO, "v", 0, "in"), t.wire(kIO, "v", 0, "in"); }),
         "Cannot connect -666.v -> 0.in: too many input connections: in of block g (TestGain) at"
         " simulation_scheme.blocks[1] is fed by simulation_scheme.connections[1] already, and an input wire"
         " reads one wire (at simulation_scheme.connections[2])"},
        {with([](SchemeText& t) { t.connection("{ output_block = 0, input_block = 1, input_lead = 'x', port = false }"); }),
         "simulation_scheme.connections[1].output_lead failed to Lua::Loader::getString: missing, a string is"
         " expected here"},
        {with([](SchemeText& t) { t.connection("{ output_block = 0, output_lead = 'out', input_block = 0, input_lead = 'in' }"); }), "simulation_scheme.connections[1].port is missing: true or false is expected here"},
        {with([](SchemeText& t) { t.connection("{ output_block = 'g', output_lead = 'out', input_block = 0, input_lead = 'in', port = false }"); }), "simulation_scheme.connections[1].output_block must be a whole number, not a string"},
        {replaced("connections = {", "conections = {"),
         "simulation_scheme.connections is missing: a table is expected here; is conections meant to be connections?"},
        {with([](SchemeText& t) { t.connection("{ output_block = 0, output_led = 'out', input_block = 0, input_lead = 'in', port = false }"); }),
         "simulation_scheme.connections[1].output_lead failed to Lua::Loader::getString: missing, a string is expected"
         " here; is output_led meant to be output_lead?"},
        // The analysis.
        {with([](SchemeText& t) { t.wire(0, "out", kIO, "y"); }),
         "Inconsistency in scheme: block \"g\" (TestGain) has unassigned input in. Connect a wire to it: a"
         " connection with input_block = 0, input_lead = \"in\" (the block is simulation_scheme.blocks[1])."},
        {with([](SchemeText& t) { t.wire(kIO, "v", 0, "in"); }),
         "Inconsistency in scheme: unassigned output v: nothing feeds the scheme output y; add a connection"
         " with input_block = -666, input_lead = \"y\""},
        {with([](SchemeText& t) { t.wire(kIO, "v", 0, "in"), t.wire(kIO, "v", kIO, "y"); }),
         "Direct connections from input to output are not implemented: scheme input v feeds scheme output y"
         " directly; pass it through a block (a gain of 1, for instance)"},
        {with([](SchemeText& t) { t.block("h", "TestGain", "k = { value = 1 }"), t.wire(0, "out", 2, "in"), t.wire(2, "out", 0, "in"), t.wire(0, "out", kIO, "y"); }),
         "Stateless block 0 (g) is reachable from itself: g -> h -> g; put a discrete or continuous block"
         " into the loop"},
    };
    for (const auto& [text, message] : cases) EXPECT_EQ(loadError(text), message) << text;

    // A file that is not there; and a failed load leaves a usable scheme behind.
    wSimulationSystemScheme s;
    const std::string missing = (testutil::freshDir() / "missing.lua").string();
    EXPECT_EQ(messageOf([&] { s.loadForRuntime(missing); }), "Error while loading " + missing + ": Cannot open file");
    s.loadForRuntime(testutil::writeFile(testutil::freshDir() / "good.lua", with(fed)));
    EXPECT_EQ(s.getBlocksCount(), 2);
}

TEST(SchemeMessages, WhatALoadDoesNotReadIsReported) {
    // One entry a running load does not read per case; the rest of the scheme loads.
    const std::pair<std::string, std::string> cases[] = {
        {"simulation_scheme.colour = 1",
         "simulation_scheme.colour was not read: a scheme file holds blocks, solver, io and connections"},
        {"simulation_scheme['my key'] = 1",
         "simulation_scheme[\"my key\"] was not read: a scheme file holds blocks, solver, io and connections"},
        {"simulation_scheme.block = {}",
         "simulation_scheme.block was not read: a scheme file holds blocks, solver, io and connections; did you mean"
         " blocks?"},
        {"simulation_scheme.solver = { __type = 'wSolverExplEulerDescriptor', H = 1 }",
         "simulation_scheme.solver was not read: the scheme has no continuous blocks, so it runs without a solver"},
        {"simulation_scheme.blocks[1].colour = 'red'",
         "simulation_scheme.blocks[1].colour was not read: block g (TestGain) does not use the key colour"},
        {"simulation_scheme.blocks[1].__nam = 'x'",
         "simulation_scheme.blocks[1].__nam was not read: block g (TestGain) does not use the key __nam; did you"
         " mean __name?"},
        {"simulation_scheme.blocks[1].__parameters.kk = { value = 2 }",
         "simulation_scheme.blocks[1].__parameters.kk was not read: block g (TestGain) has no parameter kk; did you"
         " mean k?"},
        {"simulation_scheme.blocks[1].__parameters.k.valu = 2",
         "simulation_scheme.blocks[1].__parameters.k.valu was not read: only value is read here; did you mean value?"},
        {"simulation_scheme.blocks[4] = simulation_scheme.blocks[1]",
         "simulation_scheme.blocks[4] was not read: the list is read up to its first gap, and this entry comes after"
         " it"},
        {"simulation_scheme.connections[1].note = 'x'",
         "simulation_scheme.connections[1].note was not read: only input_block, input_lead, output_block, output_lead,"
         " port are read here"},
        {"simulation_scheme.io.outputWires[1].unit = 's'",
         "simulation_scheme.io.outputWires[1].unit was not read: only name, type are read here"},
    };
    for (const auto& [line, warning] : cases) {
        testutil::LogCapture log(LOG_WARNINGS);
        testutil::Running r(with(fed) + line + "\n");
        EXPECT_EQ(testing::PrintToString(r.scheme->getLoadWarnings()),
                  testing::PrintToString(zo::vector<zo::string>{r.file + ": " + warning}))
            << line;
        EXPECT_EQ(log.text(), "Warning: " + r.file + ": " + warning + "\n");
    }
    // A scheme that uses everything it holds loads without a word.
    testutil::Running clean(with(fed));
    EXPECT_TRUE(clean.scheme->getLoadWarnings().empty());
}

TEST(SchemeMessages, WhatANestedFileDoesNotReadIsReportedOnce) {
    testblocks::registerAll();
    const auto dir = testutil::freshDir();
    SchemeText inner;
    inner.block("g", "TestGain", "k = { value = 2 }", "colour = 'red'");
    inner.inputWire("u", LEAD_DOUBLE, 0, "in");
    inner.outputWire(0, "out", "y", LEAD_DOUBLE);
    testutil::writeFile(dir / "inner.sch", inner.text());
    SchemeText outer;
    for (const char* name : {"a", "b"})
        outer.block(name, "wBlockSubsystemDescriptor", "filename = { value = 'inner' }", "template_scheme = 'inner'");
    outer.inputWire("v", LEAD_DOUBLE, 0, "u");
    outer.wire(kIO, "v", 1, "u");
    outer.outputWire(0, "y", "y", LEAD_DOUBLE);
    wSimulationSystemScheme s;
    s.loadForRuntime(testutil::writeFile(dir / "outer.lua", outer.text()));
    EXPECT_EQ(testing::PrintToString(s.getLoadWarnings()),
              testing::PrintToString(zo::vector<zo::string>{
                  (dir / "inner.sch").string() +
                  ": simulation_scheme.blocks[1].colour was not read: block g (TestGain) does not use the key colour"}));

    // An error in the nested file names both files and both entries.
    inner.block("x", "TestGian");
    testutil::writeFile(dir / "inner.sch", inner.text());
    const std::string outerFile = (dir / "outer.lua").string(), innerFile = (dir / "inner.sch").string();
    EXPECT_EQ(messageOf([&] { s.loadForRuntime(outerFile); }),
              "Error while loading " + outerFile + ": Cannot load subsystem block a: Error while loading " + innerFile +
                  ": Block TestGian not found; did you mean TestGain? (at simulation_scheme.blocks[2]) (at"
                  " simulation_scheme.blocks[1])");
}

TEST(SchemeMessages, AScheduleThatNeverAdvancesNamesTheBlock) {
    testutil::Running r(with([](SchemeText& t) {
        fed(t);
        t.block("stuck", "TestCounter", "dt = { value = 0 }");
    }));
    EXPECT_EQ(messageOf([&] { r.system->simulate(1.0); }),
              "Discrete block stuck keeps scheduling itself at t = 0 without advancing (returned delay 0): stuck is a"
              " TestCounter at simulation_scheme.blocks[3]; a discrete block must ask for a positive delay: check its"
              " period (dt), or what its script's run returns");
}

}  // namespace
