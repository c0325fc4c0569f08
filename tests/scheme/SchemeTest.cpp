// Schemes as an editor and a host see them: editing operations, the block factory, and
// scheme files (their exact text, loading for editing and for running, overrides, and
// what a load does not use).
#include <gtest/gtest.h>

#include "support/SchemeFiles.h"
#include "vandrel/scheme/BlockFactory.h"

namespace {

using namespace testblocks;
using testutil::Builder;
using testutil::kCmds;
using testutil::kIO;
using testutil::loadError;
using testutil::messageOf;
using testutil::SchemeText;
using Connection = wSimulationSystemScheme::Connection;

std::string namesOf(const wSimulationSystemScheme& s) {
    std::string names;
    for (const auto& b : s.getBlocks()) names += b->getName() + " ";
    return names;
}

TEST(SchemeModel, BlockNamesLookupRemovalAndOrder) {
    Builder b;
    wSimulationSystemScheme& s = b.scheme;
    auto* a = b.add<GainDescriptor>("a");
    EXPECT_EQ(a->getScheme(), &s);
    b.add<GainDescriptor>("");
    b.add<GainDescriptor>("");  // several unnamed blocks are fine
    EXPECT_EQ(messageOf([&] { b.add<GainDescriptor>("a"); }), "Trying to add block with duplicate name: a");
    auto* c = b.add<CounterDescriptor>("c");
    EXPECT_EQ(messageOf([&] { s.renameBlock(c, "a"); }), "Cannot rename block c to a: name is used");
    s.renameBlock(a, "a");  // to its own name: nothing happens
    s.renameBlock(c, "d");
    EXPECT_EQ(namesOf(s), "a   d ");
    EXPECT_EQ(s.getBlockByName("d"), c);
    EXPECT_EQ(s.getBlockByName(""), nullptr);
    EXPECT_EQ(s.getBlockByIndex(kCmds), &s.getSpecialCmdsBlock());
    EXPECT_EQ(s.getBlockByIndex(kIO), &s.getIOBlock());
    EXPECT_EQ(s.indexOfBlock(c), 3);
    GainDescriptor stranger;
    EXPECT_EQ(s.indexOfBlock(&stranger), 4);
    s.removeBlock(&stranger);  // not ours: nothing happens
    s.removeBlock(a);
    EXPECT_EQ(s.indexOfBlock(c), 2);
    EXPECT_EQ(s.getBlocksCount(), 3);

    // Dotted names look inside subsystems, level by level.
    auto* sub = b.add<NestingDescriptor>("s");
    Builder in(sub->getNestedScheme());
    auto* k = in.add<GainDescriptor>("k");
    auto* deeper = in.add<NestingDescriptor>("t");
    auto* deepest = Builder(deeper->getNestedScheme()).add<CounterDescriptor>("c");
    EXPECT_EQ(s.getBlockByName("s.k"), k);
    EXPECT_EQ(std::as_const(s).getBlockByName("s.t.c"), deepest);
    for (const char* none : {"s.k.x", "d.k", "s.", ".k", "s..k", "nosuch.k"}) EXPECT_EQ(s.getBlockByName(none), nullptr);
    EXPECT_EQ(messageOf([&] { b.add<GainDescriptor>("s.k"); }), "Trying to add block with duplicate name: s.k");

    // Orders count discrete blocks; a reorder moves a block before the n-th discrete block
    // of the others, or to the end.
    Builder r;
    auto* d1 = r.add<CounterDescriptor>("D1");
    auto* g = r.add<GainDescriptor>("G");
    auto* d2 = r.add<SamplerDescriptor>("D2");
    auto* d3 = r.add<CounterDescriptor>("D3");
    auto* i = r.add<IntegratorDescriptor>("I");
    EXPECT_EQ(std::vector<int>({r.scheme.getBlockOrder(d1), r.scheme.getBlockOrder(g), r.scheme.getBlockOrder(d2),
                                r.scheme.getBlockOrder(d3), r.scheme.getBlockOrder(i), r.scheme.getBlockOrder(&stranger)}),
              std::vector<int>({1, 1, 2, 3, 3, -1}));
    const std::tuple<wSimulationBlockDescriptor*, int, std::string> moves[] = {
        {d3, 1, "D3 D1 G D2 I "}, {d3, 3, "D1 G D2 I D3 "}, {d3, 2, "D1 G D3 D2 I "},
        {d1, 5, "G D3 D2 I D1 "}, {g, 0, "D3 D2 I D1 G "},  {g, 1, "G D3 D2 I D1 "},
        {&stranger, 1, "G D3 D2 I D1 "}};
    for (const auto& [block, order, names] : moves) {
        r.scheme.reorderBlock(block, order);
        EXPECT_EQ(namesOf(r.scheme), names) << block->getName() << " to " << order;
    }
}

TEST(SchemeModel, ConnectionsLeadsAndCopies) {
    Builder b;
    wSimulationSystemScheme& s = b.scheme;
    auto* t = b.add<TriggerDescriptor>("t");
    auto* u = b.add<TriggerDescriptor>("u");
    const Connection asPort{t, u, "out", "in", true}, asWire{t, u, "out", "in", false};
    s.addConnection(asWire);
    s.addConnection(asPort);
    s.addConnection(asPort);
    EXPECT_EQ(s.indexOfConnection(asPort), 1);
    EXPECT_EQ(s.indexOfConnection(Connection{u, t, "out", "in", true}), -1);
    EXPECT_EQ(s.indexOfConnection(Connection{t, u, "out", "In", true}), -1);
    s.removeConnection(asWire);
    s.removeConnection(asPort);
    EXPECT_EQ(s.getConnections(), zo::vector<Connection>{asPort});

    b.inputWire("u");
    b.inputPort("u");  // same name, other list: fine
    b.outputWire("y", LEAD_INT);
    b.outputWire("z", LEAD_VECTOR);
    EXPECT_EQ(messageOf([&] { b.inputWire("u", LEAD_INT); }), "Duplicate IO lead: u");
    EXPECT_EQ(s.getIOBlock().getOutputPorts()[0].type, LEAD_BOOL);
    for (const char* to : {"z", "y"})
        EXPECT_EQ(messageOf([&] { s.renameIOLead(true, false, "y", to); }),
                  std::string("Cannot rename lead: lead \"") + to + "\" already exists");
    s.renameIOLead(true, false, "y", "w");
    s.renameIOLead(true, false, "nosuch", "v");
    EXPECT_EQ(s.getIOLeads(true, false), (wLeadList{{"w", LEAD_INT}, {"z", LEAD_VECTOR}}));
    s.removeIOLead(true, false, "w");
    s.removeIOLead(true, false, "nosuch");
    EXPECT_EQ(s.getIOLeads(true, false), (wLeadList{{"z", LEAD_VECTOR}}));
    EXPECT_EQ(messageOf([&] { (void)s.getIOBlock().create(nullptr, nullptr); }), "The I/O block has no runtime block");
    EXPECT_EQ(s.getSpecialCmdsBlock().getInputPorts(), (wLeadList{{"reset_diff_state", LEAD_BOOL}}));

    // Copies own copies of the blocks, the connections between them, and the solver.
    b.port(u, "out", b.special(), "reset_diff_state");
    b.port(nullptr, "u", t, "in");
    b.euler(0.25);
    std::unique_ptr<wSimulationSystemScheme> copy(s.clone());
    EXPECT_EQ(namesOf(*copy), "t u ");
    EXPECT_NE(copy->getBlockByName("t"), t);
    EXPECT_EQ(copy->getBlockByName("t")->getScheme(), copy.get());
    EXPECT_EQ(copy->getConnections(),
              (zo::vector<Connection>{{copy->getBlockByName("t"), copy->getBlockByName("u"), "out", "in", true},
                                      {copy->getBlockByName("u"), &copy->getSpecialCmdsBlock(), "out", "reset_diff_state", true},
                                      {&copy->getIOBlock(), copy->getBlockByName("t"), "u", "in", true}}));
    ASSERT_NE(copy->getOdeSolverDescriptor(), s.getOdeSolverDescriptor());
    EXPECT_EQ(dynamic_cast<wSolverExplEulerDescriptor&>(*copy->getOdeSolverDescriptor()).getH(), 0.25);
    // Assignment replaces what was there; self-assignment keeps it.
    wSimulationSystemScheme other;
    Builder(&other).add<CounterDescriptor>("old");
    other.addIOLead(true, true, "old", LEAD_INT);
    other = *copy;
    other = other;
    EXPECT_EQ(namesOf(other), "t u ");
    EXPECT_TRUE(other.getIOLeads(true, true).empty());
    EXPECT_EQ(other.getConnections()[2].from, &other.getIOBlock());
    EXPECT_EQ(other.getConnections()[1].to, &other.getSpecialCmdsBlock());
}

TEST(SchemeFile, SavedTextIsExactAndLoadsBackToTheSameBytes) {
    Builder b;
    b.inputWire("u");
    b.inputPort("reset");
    auto* smp = b.add<SamplerDescriptor>("S");
    smp->dt.setUndefined(true);  // to be supplied when running
    auto* g = b.add<GainDescriptor>("G \"quoted\"");
    g->k.set(0.1);
    b.wire(nullptr, "u", g, "in");
    b.wire(g, "out", smp, "in");
    b.port(nullptr, "reset", b.special(), "reset_diff_state");
    b.euler(0.01);
    const auto dir = testutil::freshDir();
    const std::string first = (dir / "first.lua").string(), second = (dir / "second.lua").string();
    b.scheme.save(first);
    const std::string text = testutil::readFile(first);
    EXPECT_EQ(text, R"(simulation_scheme = {
  blocks = {
    {
      __name = "S",
      __type = "TestSampler",
      __parameters = {
        dt = {},
      },
    },
    {
      __name = "G \"quoted\"",
      __type = "TestGain",
      __parameters = {
        k = { value = 0.1 },
      },
    },
  },
  solver = { __type = "wSolverExplEulerDescriptor", H = 0.01 },
  io = {
    inputWires = {},
    inputPorts = {},
    outputWires = {
      { name = "u", type = 2 },
    },
    outputPorts = {
      { name = "reset", type = 1 },
    },
  },
  connections = {
    {
      output_block = -666,
      output_lead = "u",
      input_block = 1,
      input_lead = "in",
      port = false,
    },
    {
      output_block = 1,
      output_lead = "out",
      input_block = 0,
      input_lead = "in",
      port = false,
    },
    {
      output_block = -666,
      output_lead = "reset",
      input_block = -665,
      input_lead = "reset_diff_state",
      port = true,
    },
  },
}
)");

    wSimulationSystemScheme edited;
    zo::vector<int> discarded;
    edited.loadForEdit(first, discarded);
    EXPECT_TRUE(discarded.empty());
    EXPECT_EQ(edited.getRootDir(), dir.string() + "/");
    EXPECT_TRUE(dynamic_cast<SamplerDescriptor&>(*edited.getBlockByName("S")).dt.isUndefined());
    edited.save(second);
    EXPECT_EQ(testutil::readFile(second), text);

    // Running: the undefined step must come from the overrides.
    wSimulationSystemScheme running;
    EXPECT_EQ(messageOf([&] { running.loadForRuntime(first); }), "Error while loading " + first +
                  ": Parameter not defined: S.dt: simulation_scheme.blocks[1].__parameters.dt.value is missing; write a"
                  " value there, or give one in the overrides table as overrides.S.dt");
    auto overrides = testutil::loaderFor("ov = { S = { dt = 0.2 }, T = { dt = 1 } }", "ov");
    running.loadForRuntime(first, overrides.get());
    EXPECT_EQ(dynamic_cast<SamplerDescriptor&>(*running.getBlockByName("S")).dt.get(), 0.2);
    EXPECT_EQ(namesOf(running), "G \"quoted\" S ");  // analysed: stateless first
    EXPECT_EQ(overrides->depth(), 0);
    const std::string unwritable = (dir / "no/dir.lua").string();
    EXPECT_EQ(messageOf([&] { running.save(unwritable); }),
              "While serializing " + unwritable + ": Cannot open file for writing: " + unwritable);
}

TEST(SchemeFile, SolverIsReadOnlyWhenARunNeedsIt) {
    testblocks::registerAll();
    const auto dir = testutil::freshDir();
    SchemeText counter;
    counter.block("c", "TestCounter", "dt = { value = 1 }");
    counter.solver(R"(__type = "wSolverExplEulerDescriptor", H = 0.01)");
    const std::string file = testutil::writeFile(dir / "counter.lua", counter.text());
    wSimulationSystemScheme s;
    s.loadForRuntime(file);
    EXPECT_EQ(s.getOdeSolverDescriptor(), nullptr);  // nothing continuous
    zo::vector<int> discarded;
    s.loadForEdit(file, discarded);
    EXPECT_NE(s.getOdeSolverDescriptor(), nullptr);  // an editor keeps it

    SchemeText continuous;
    const int i = continuous.block("i", "TestIntegrator");
    continuous.inputWire("x0", LEAD_DOUBLE, i, "x.initial");
    continuous.wire(i, "x", i, "in");
    EXPECT_EQ(loadError(continuous.text()), "simulation_scheme.solver is missing: the continuous blocks i (TestIntegrator) need a"
                                          " solver, e.g. solver = { __type = \"wSolverExplEulerDescriptor\", H = 0.001 }");
    s.loadForEdit(testutil::writeFile(dir / "nosolver.lua", continuous.text()), discarded);  // fine for an editor
    EXPECT_EQ(s.getOdeSolverDescriptor(), nullptr);
    continuous.solver(R"(__type = "NoSuchSolver")");
    EXPECT_EQ(loadError(continuous.text()),
              "Unknown ODE solver type: NoSuchSolver (at simulation_scheme.solver.__type; the kinds are"
              " wSolverExplEulerDescriptor, wSolverRK4Descriptor, wSolverDopri5Descriptor, wSolverCvodeDescriptor)");
}

TEST(SchemeFile, UnusedOverridesAreReportedWithTheirPlace) {
    testblocks::registerAll();
    SchemeText text;
    const int g = text.block("g", "TestGain", "k = {}");
    text.block("c", "TestCounter", "dt = { value = 1 }");
    text.block("d", "TestCounter", "dt = { value = 1 }");
    text.inputWire("v", LEAD_DOUBLE, g, "in");
    const std::string file = testutil::writeFile(testutil::freshDir() / "scheme.lua", text.text());
    Lua::Loader overrides;
    overrides.loadString("overrides = { g = { k = 2, gain = 3 }, c = { dt = 5 }, gg = { k = 1 }, [1] = 4, x = {} }",
                         "overrides.lua", "overrides");
    wSimulationSystemScheme s;
    s.loadForRuntime(file, &overrides);
    // g.k is taken from the overrides; everything else would be silently ignored.
    EXPECT_EQ(testing::PrintToString(s.getLoadWarnings()),
              testing::PrintToString(zo::vector<zo::string>{
                  "overrides.c.dt was not used: an override only fills a parameter whose entry in the scheme file"
                  " has no value",
                  "overrides.g.gain was not used: block g has no parameter gain",
                  "overrides.gg was not used: the scheme has no block named gg",
                  "overrides.x was not used: the scheme has no block named x",
              }));
    // An entry for a block must be a table.
    Lua::Loader notTable;
    notTable.loadString("overrides = { g = { k = 2 }, d = 7 }", "o.lua", "overrides");
    EXPECT_NE(messageOf([&] { s.loadForRuntime(file, &notTable); })
                  .find(": overrides.d must be a table, not a number"),
              std::string::npos);
    // The overrides loader is left where the host put it, and a clean load has no warnings.
    EXPECT_EQ(overrides.depth(), 0);
    Lua::Loader exact;
    exact.loadString("overrides = { g = { k = 2 } }", "exact.lua", "overrides");
    s.loadForRuntime(file, &exact);
    EXPECT_TRUE(s.getLoadWarnings().empty());
}

TEST(SchemeFile, ErrorsWhileInstantiatingNameTheFile) {
    SchemeText text;
    const int scope = text.block("scope", "wBlockOscilloscopeDescriptor", "dt = { value = 1 }, capacity = { value = 5 }");
    text.inputWire("v", LEAD_DOUBLE, scope, "input1");
    const std::string file = testutil::writeFile(testutil::freshDir() / "scheme.lua", text.text());
    wSimulationSystemScheme s;
    s.loadForRuntime(file);
    // Changed after the load, the setting is refused only when the block is made.
    wParameterList params = s.getBlockByName("scope")->getParametersList();
    for (auto& p : params)
        if (p.getName() == "capacity") p.getProxy()->fromString("0");
    EXPECT_EQ(messageOf([&] { s.instantiate(); }),
              "Oscilloscope scope: \"capacity\" must be at least 1 (while instantiating " + file + ")");
}

TEST(SchemeFile, EditingLoadSkipsConnectionsItCannotMake) {
    testblocks::registerAll();
    SchemeText text;
    const int c = text.block("c", "TestCounter", "dt = { value = 1 }");
    const int g = text.block("g", "TestGain", "k = { value = 1 }");
    const int h = text.block("h", "TestGain", "k = {}");
    text.inputWire("v", LEAD_DOUBLE);
    text.wire(kIO, "v", g, "in");      // 0 fine
    text.wire(g, "out", 3, "in");      // 1 no block 3
    text.wire(g, "out", h, "in");      // 2 fine
    text.wire(c, "count", h, "in");    // 3 types differ
    text.wire(kIO, "v", h, "in");      // 4 h.in is fed already
    text.wire(h, "out", g, "nosuch");  // 5 no such lead
    text.wire(h, "out", c, "in");      // 6 counters have no input
    const std::string file = testutil::writeFile(testutil::freshDir() / "edit.lua", text.text());
    wSimulationSystemScheme s;
    zo::vector<int> discarded{42};  // appended to, not replaced
    {
        testutil::LogCapture log(LOG_WARNINGS);
        s.loadForEdit(file, discarded);
        EXPECT_EQ(log.text(),
                  "Discarding connection: invalid input block: 3 is not a block index; use 0 to 2, -666 for the"
                  " scheme's I/O or -665 for its special commands (at simulation_scheme.connections[2])\n"
                  "Discarding connection: Cannot connect 0.count -> 2.in: different types: count of block c"
                  " (TestCounter) at simulation_scheme.blocks[1] is integer, in of block h (TestGain) at"
                  " simulation_scheme.blocks[3] is double (at simulation_scheme.connections[4])\n"
                  "Discarding connection: Cannot connect -666.v -> 2.in: too many input connections: in of block h"
                  " (TestGain) at simulation_scheme.blocks[3] is fed by simulation_scheme.connections[3] already, and"
                  " an input wire reads one wire (at simulation_scheme.connections[5])\n"
                  "Discarding connection: Block 1 has no input nosuch: the input wires of block g (TestGain) at"
                  " simulation_scheme.blocks[2] are in (double) (at simulation_scheme.connections[6])\n"
                  "Discarding connection: Block 0 has no input in: there are no input wires of block c (TestCounter)"
                  " at simulation_scheme.blocks[1] (at simulation_scheme.connections[7])\n");
    }
    EXPECT_EQ(discarded, (zo::vector<int>{42, 1, 3, 4, 5, 6}));
    EXPECT_EQ(s.getConnections().size(), 2u);
    EXPECT_EQ(namesOf(s), "c g h ");  // no analysis: file order, nothing refused
    EXPECT_TRUE(s.getBlockByName("h")->getParametersList()[0].getProxy()->isUndefined());
    // Below level 2 nothing is logged, but positions are still reported; a reload replaces.
    testutil::LogCapture quiet(LOG_ERRORS);
    zo::vector<int> again;
    s.loadForEdit(file, again);
    EXPECT_EQ(quiet.text(), "");
    EXPECT_EQ(again, (zo::vector<int>{1, 3, 4, 5, 6}));
    EXPECT_EQ(s.getBlocksCount(), 3);
}

TEST(SchemeFile, OverridesFillOnlyMissingValuesAndAreLeftAsFound) {
    SchemeText text;
    const int a = text.block("a", "TestSampler", "dt = {}");
    const int b = text.block("b", "TestSampler", "dt = { value = 0.5 }");
    text.inputWire("u", LEAD_DOUBLE);
    text.wire(kIO, "u", a, "in");
    text.wire(kIO, "u", b, "in");
    // The file's value wins; other blocks' overrides do not apply.
    auto overrides = testutil::loaderFor("o = { a = { dt = 0.25 }, b = { dt = 9 }, c = { dt = 1 } }", "o");
    testutil::Running r(text.text(), overrides.get());
    EXPECT_EQ(dynamic_cast<SamplerDescriptor&>(*r.scheme->getBlockByName("a")).dt.get(), 0.25);
    EXPECT_EQ(dynamic_cast<SamplerDescriptor&>(*r.scheme->getBlockByName("b")).dt.get(), 0.5);
    // A load failing inside a block with overrides leaves the overrides loader as it was,
    // so the host can use it for the next load.
    SchemeText bad = text;
    bad.block("c", "TestSampler", "dt = { value = 'x' }");
    EXPECT_EQ(loadError(bad.text(), overrides.get()),
              "simulation_scheme.blocks[3].__parameters.dt.value must be a number, not a string");
    EXPECT_EQ(overrides->depth(), 0);
    testutil::Running again(text.text(), overrides.get());
    auto none = testutil::loaderFor("o = { b = { dt = 1 } }", "o");
    EXPECT_EQ(loadError(text.text(), none.get()),
              "Parameter not defined: a.dt: simulation_scheme.blocks[1].__parameters.dt.value is missing; write a value"
              " there, or give one in the overrides table as o.a.dt");
}

}  // namespace
