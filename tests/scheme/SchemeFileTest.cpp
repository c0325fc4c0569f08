#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <tuple>

#include "scheme/SchemeTestUtil.h"
#include "support/SchemeFiles.h"
#include "vandrel/platform/LuaLoader.h"
#include "vandrel/runtime/SolverExplEuler.h"
#include "vandrel/scheme/SimulationSystemScheme.h"

namespace {

using schemetest::add;
using schemetest::port;
using schemetest::wire;
using testblocks::CounterDescriptor;
using testblocks::GainDescriptor;
using testblocks::IntegratorDescriptor;
using testblocks::SamplerDescriptor;
using testblocks::TriggerDescriptor;
using testblocks::VecSourceDescriptor;
using testing::HasSubstr;
using testing::StartsWith;
using testutil::kCmds;
using testutil::kIO;
using testutil::SchemeText;

const char* const kSolver = R"(__type = "wSolverExplEulerDescriptor", H = 0.01)";

class SchemeFile : public testing::Test {
protected:
    void SetUp() override {
        testblocks::registerAll();
        dir_ = testutil::freshDir();
    }
    std::string write(const std::string& name, const std::string& text) {
        return testutil::writeFile(dir_ / name, text);
    }
    std::string path(const std::string& name) const { return (dir_ / name).string(); }

    // The message of a running load of `text`.
    std::string runtimeFailure(const std::string& text) {
        const std::string file = write("bad.lua", text);
        wSimulationSystemScheme s;
        return testutil::messageOf<wSimulationException>([&] { s.loadForRuntime(file); });
    }
    std::string prefix() const { return "Error while loading " + path("bad.lua") + ": "; }

    std::filesystem::path dir_;
};

TEST_F(SchemeFile, SaveLoadSaveGivesTheSameBytes) {
    wSimulationSystemScheme s;
    s.addIOLead(false, false, "u", LEAD_DOUBLE);
    s.addIOLead(false, false, "x0", LEAD_DOUBLE);
    s.addIOLead(false, true, "reset", LEAD_BOOL);
    s.addIOLead(true, false, "y", LEAD_DOUBLE);
    s.addIOLead(true, false, "cnt", LEAD_INT);
    s.addIOLead(true, true, "flag", LEAD_BOOL);
    auto* smp = add<SamplerDescriptor>(s, "S");
    smp->dt.setUndefined(true);  // to be supplied when running
    add<GainDescriptor>(s, "G")->k.set(2.5);
    add<IntegratorDescriptor>(s, "I");
    add<CounterDescriptor>(s, "C")->dt.set(0.5);
    add<TriggerDescriptor>(s, "T");
    add<VecSourceDescriptor>(s, "V")->v.set(Vec3d{1, -2, 0.125});
    auto* g = s.getBlockByName("G");
    auto* i = s.getBlockByName("I");
    auto* t = s.getBlockByName("T");
    wire(s, nullptr, "u", g, "in");
    wire(s, g, "out", i, "in");
    wire(s, nullptr, "x0", i, "x.initial");
    wire(s, i, "x", smp, "in");
    wire(s, smp, "out", nullptr, "y");
    wire(s, s.getBlockByName("C"), "count", nullptr, "cnt");
    port(s, nullptr, "reset", t, "in");
    port(s, t, "out", &s.getSpecialCmdsBlock(), "reset_diff_state");
    port(s, t, "out", nullptr, "flag");
    auto solver = std::make_unique<wSolverExplEulerDescriptor>();
    solver->setH(0.01);
    s.setOdeSolverDescriptor(std::move(solver));

    const std::string first = path("first.lua"), second = path("second.lua");
    s.save(first);

    wSimulationSystemScheme edited;
    zo::vector<int> discarded;
    edited.loadForEdit(first, discarded);
    EXPECT_TRUE(discarded.empty());
    EXPECT_EQ(edited.getRootDir(), dir_.string() + "/");
    // Same blocks in file order (no analysis), same leads, same connections.
    ASSERT_EQ(edited.getBlocksCount(), s.getBlocksCount());
    for (int k = 0; k < s.getBlocksCount(); ++k) {
        EXPECT_EQ(edited.getBlockByIndex(k)->getName(), s.getBlockByIndex(k)->getName());
        EXPECT_EQ(edited.getBlockByIndex(k)->getClassName(), s.getBlockByIndex(k)->getClassName());
    }
    for (bool isInput : {true, false})
        for (bool isPort : {true, false}) EXPECT_EQ(edited.getIOLeads(isInput, isPort), s.getIOLeads(isInput, isPort));
    ASSERT_EQ(edited.getConnections().size(), s.getConnections().size());
    auto where = [](const wSimulationSystemScheme& sc, const wSimulationBlockDescriptor* b) {
        if (b == &sc.getIOBlock()) return kIO;
        if (b == &sc.getSpecialCmdsBlock()) return kCmds;
        return sc.indexOfBlock(b);
    };
    for (std::size_t k = 0; k < s.getConnections().size(); ++k) {
        const auto& a = s.getConnections()[k];
        const auto& b = edited.getConnections()[k];
        EXPECT_EQ(where(s, a.from), where(edited, b.from));
        EXPECT_EQ(where(s, a.to), where(edited, b.to));
        EXPECT_EQ(std::tie(a.fromLead, a.toLead, a.isPort), std::tie(b.fromLead, b.toLead, b.isPort));
    }
    EXPECT_TRUE(dynamic_cast<SamplerDescriptor&>(*edited.getBlockByName("S")).dt.isUndefined());
    EXPECT_EQ(dynamic_cast<GainDescriptor&>(*edited.getBlockByName("G")).k.get(), 2.5);
    EXPECT_EQ(dynamic_cast<VecSourceDescriptor&>(*edited.getBlockByName("V")).v.get(), (Vec3d{1, -2, 0.125}));
    ASSERT_NE(edited.getOdeSolverDescriptor(), nullptr);
    EXPECT_EQ(dynamic_cast<wSolverExplEulerDescriptor&>(*edited.getOdeSolverDescriptor()).getH(), 0.01);

    edited.save(second);
    const std::string text = testutil::readFile(first);
    EXPECT_EQ(testutil::readFile(second), text);
    // Top-level keys in their fixed order.
    const auto blocks = text.find("blocks"), solverKey = text.find("solver"), io = text.find("io ="),
               connections = text.find("connections");
    EXPECT_LT(blocks, solverKey);
    EXPECT_LT(solverKey, io);
    EXPECT_LT(io, connections);
    EXPECT_NE(connections, std::string::npos);

    // Running: the undefined sampler step must come from the overrides.
    wSimulationSystemScheme running;
    EXPECT_EQ(testutil::messageOf([&] { running.loadForRuntime(first); }),
              "Error while loading " + first + ": Parameter not defined: S.dt");
    Lua::Loader overrides;
    overrides.loadString("ov = { S = { dt = 0.2 } }", "overrides", "ov");
    running.loadForRuntime(first, &overrides);
    EXPECT_EQ(dynamic_cast<SamplerDescriptor&>(*running.getBlockByName("S")).dt.get(), 0.2);
    EXPECT_EQ(running.getStatelessBlocksCount(), 2);  // analysed: G and T first
    EXPECT_EQ(running.getDiffBlocksCount(), 1);
    EXPECT_GT(running.getMemorySize(), 0);
    EXPECT_EQ(running.getConnections()[7].to, &running.getSpecialCmdsBlock());
}

TEST_F(SchemeFile, SolverIsReadOnlyWhenNeededForRunning) {
    SchemeText withSolver;
    withSolver.block("c", "TestCounter", "dt = { value = 1 }");
    withSolver.solver(kSolver);
    const std::string file = write("counter.lua", withSolver.text());
    wSimulationSystemScheme s;
    s.loadForRuntime(file);
    EXPECT_EQ(s.getOdeSolverDescriptor(), nullptr);  // nothing continuous
    zo::vector<int> discarded;
    s.loadForEdit(file, discarded);
    EXPECT_NE(s.getOdeSolverDescriptor(), nullptr);  // an editor keeps it

    SchemeText continuous;
    int i = continuous.block("i", "TestIntegrator");
    continuous.inputWire("x0", LEAD_DOUBLE);
    continuous.wire(i, "x", i, "in");
    continuous.wire(kIO, "x0", i, "x.initial");
    EXPECT_THAT(runtimeFailure(continuous.text()), StartsWith(prefix()));
    EXPECT_THAT(runtimeFailure(continuous.text()), HasSubstr("solver"));
    s.loadForEdit(write("nosolver.lua", continuous.text()), discarded);  // fine for an editor
    EXPECT_EQ(s.getOdeSolverDescriptor(), nullptr);
    EXPECT_EQ(s.getBlocksCount(), 1);

    continuous.solver(kSolver);
    s.loadForRuntime(write("solver.lua", continuous.text()));
    ASSERT_NE(s.getOdeSolverDescriptor(), nullptr);
    EXPECT_EQ(dynamic_cast<wSolverExplEulerDescriptor&>(*s.getOdeSolverDescriptor()).getH(), 0.01);
    EXPECT_EQ(s.getDiffMemorySize(), 8);

    continuous.solver(R"(__type = "NoSuchSolver")");
    EXPECT_THAT(runtimeFailure(continuous.text()), StartsWith(prefix()));
}

TEST_F(SchemeFile, ConnectionsReachTheBuiltInBlocks) {
    SchemeText text;
    int t = text.block("t", "TestTrigger");
    int u = text.block("u", "TestTrigger");
    text.inputPort("go", LEAD_BOOL);
    text.outputPort("done", LEAD_BOOL);
    text.port(kIO, "go", t, "in");
    text.port(kIO, "go", u, "in");
    text.port(u, "out", t, "in");  // two ports into one input port are fine
    text.port(t, "out", kCmds, "reset_diff_state");
    text.port(t, "out", kIO, "done");
    wSimulationSystemScheme s;
    s.loadForRuntime(write("ports.lua", text.text()));
    const auto& c = s.getConnections();
    ASSERT_EQ(c.size(), 5u);
    EXPECT_EQ(c[0].from, &s.getIOBlock());
    EXPECT_EQ(c[3].to, &s.getSpecialCmdsBlock());
    EXPECT_EQ(c[4].to, &s.getIOBlock());
    EXPECT_EQ(c[2].from, s.getBlockByName("u"));
    // Ports out of the scheme's inputs add no dependency; t and u drive its outputs.
    EXPECT_TRUE(s.getStatelessBlocksOnSchemeInput().empty());
    EXPECT_EQ(s.getStatelessBlocksOnSchemeOutput().size(), 2u);

    // A wire into the command block does not exist.
    text.wire(t, "out", kCmds, "reset_diff_state");
    EXPECT_EQ(runtimeFailure(text.text()), prefix() + "Block 0 has no output out (at simulation_scheme.connections[6])");
}

TEST_F(SchemeFile, MalformedFilesNameTheFileAndTheFault) {
    // Two blocks: 0 a gain, 1 a counter; one scheme input v.
    auto base = [] {
        SchemeText t;
        t.block("g", "TestGain", "k = { value = 1 }");
        t.block("c", "TestCounter", "dt = { value = 1 }");
        t.inputWire("v", LEAD_DOUBLE);
        return t;
    };
    auto withConnection = [&](const std::string& entry) {
        std::string text = base().text();
        text.replace(text.find("connections = {") + 15, 0, "\n    " + entry + ",");
        return text;
    };
    auto connection = [&](int out, const std::string& outLead, int in, const std::string& inLead, bool isPort) {
        SchemeText t = base();
        if (isPort) t.port(out, outLead, in, inLead);
        else t.wire(out, outLead, in, inLead);
        return runtimeFailure(t.text());
    };

    // Each check's message, then the help that says which value is wrong and which entry.
    const std::string use = " is not a block index; use 0 to 1, -666 for the scheme's I/O or -665 for its special commands";
    const std::string at1 = " (at simulation_scheme.connections[1])";
    EXPECT_EQ(connection(0, "out", 2, "in", false), prefix() + "invalid input block: 2" + use + at1);
    EXPECT_EQ(connection(-1, "out", 7, "in", false), prefix() + "invalid input block: 7" + use + at1);
    EXPECT_EQ(connection(-1, "out", 0, "in", false), prefix() + "invalid output block: -1" + use + at1);
    EXPECT_EQ(connection(-667, "out", 0, "in", false), prefix() + "invalid output block: -667" + use + at1);
    EXPECT_EQ(connection(0, "nosuch", 1, "in", false), prefix() + "Block 0 has no output nosuch" + at1);
    EXPECT_EQ(connection(0, "out", 0, "in", true), prefix() + "Block 0 has no output out" + at1);  // a wire, not a port
    EXPECT_EQ(connection(kIO, "v", kIO, "zz", false), prefix() + "Block -666 has no input zz" + at1);
    EXPECT_EQ(connection(1, "count", 0, "in", false),
              prefix() + "Cannot connect 1.count -> 0.in: different types" + at1);
    EXPECT_THAT(runtimeFailure(withConnection(R"({ output_block = 0, input_block = 1, input_lead = "x", port = false })")),
                HasSubstr("output_lead failed to Lua::Loader::getString"));
    EXPECT_THAT(runtimeFailure(withConnection(R"({ output_block = 0, output_lead = "out", input_block = 0, input_lead = "in" })")),
                StartsWith(prefix()));

    SchemeText twice = base();
    twice.wire(kIO, "v", 0, "in");
    twice.wire(kIO, "v", 0, "in");
    EXPECT_EQ(runtimeFailure(twice.text()), prefix() + "Cannot connect -666.v -> 0.in: too many input connections"
                                                        " (at simulation_scheme.connections[2])");

    SchemeText leads = base();
    leads.inputWire("v", LEAD_INT);
    EXPECT_EQ(runtimeFailure(leads.text()), prefix() + "Duplicate IO lead: v");
    std::string badType = base().text();
    badType.replace(badType.find("type = 2"), 8, "type = 7");
    EXPECT_EQ(runtimeFailure(badType), prefix() + "Invalid lead type (v): 7");
    std::string noName = base().text();
    noName.replace(noName.find("name = \"v\","), 11, "");
    EXPECT_THAT(runtimeFailure(noName), HasSubstr("name failed to Lua::Loader::getString"));

    SchemeText blocks = base();
    blocks.block("g", "TestGain", "k = { value = 1 }");
    EXPECT_EQ(runtimeFailure(blocks.text()), prefix() + "Trying to add block with duplicate name: g");
    SchemeText unknown;
    unknown.block("x", "NoSuchBlock");
    EXPECT_EQ(runtimeFailure(unknown.text()), prefix() + "Block NoSuchBlock not found");
    EXPECT_THAT(runtimeFailure(R"(simulation_scheme = { blocks = { { __type = "TestTrigger", __parameters = {} } },
        io = { inputWires = {}, inputPorts = {}, outputWires = {}, outputPorts = {} }, connections = {} })"),
                testing::AllOf(StartsWith(prefix()), HasSubstr("__name failed to Lua::Loader::getString")));

    // The loader's own failures and the analysis' are named the same way.
    EXPECT_THAT(runtimeFailure("simulation_scheme = {"), StartsWith(prefix()));
    EXPECT_THAT(runtimeFailure("other = {}"), StartsWith(prefix()));
    EXPECT_THAT(runtimeFailure("simulation_scheme = { blocks = {} }"), StartsWith(prefix()));
    EXPECT_EQ(runtimeFailure(base().text()),
              prefix() + "Inconsistency in scheme: block \"g\" (TestGain) has unassigned input in.");
    SchemeText loop;
    int a = loop.block("A", "TestGain", "k = { value = 1 }");
    int b = loop.block("B", "TestGain", "k = { value = 1 }");
    loop.wire(a, "out", b, "in");
    loop.wire(b, "out", a, "in");
    EXPECT_EQ(runtimeFailure(loop.text()), prefix() + "Stateless block 0 (A) is reachable from itself: A -> B -> A");

    const std::string missing = path("missing.lua");
    wSimulationSystemScheme s;
    EXPECT_THAT(testutil::messageOf([&] { s.loadForRuntime(missing); }), StartsWith("Error while loading " + missing + ": "));
    // A failed load leaves a usable scheme behind.
    SchemeText good = base();
    good.wire(kIO, "v", 0, "in");
    s.loadForRuntime(write("good.lua", good.text()));
    EXPECT_EQ(s.getBlocksCount(), 2);
}

TEST_F(SchemeFile, EditingLoadSkipsConnectionsItCannotMake) {
    SchemeText text;
    int c = text.block("c", "TestCounter", "dt = { value = 1 }");
    int g = text.block("g", "TestGain", "k = { value = 1 }");
    int h = text.block("h", "TestGain", "k = {}");
    text.inputWire("v", LEAD_DOUBLE);
    text.wire(kIO, "v", g, "in");      // 0 fine
    text.wire(g, "out", 3, "in");      // 1 no block 3
    text.wire(g, "out", h, "in");      // 2 fine
    text.wire(c, "count", h, "in");    // 3 types differ
    text.wire(kIO, "v", h, "in");      // 4 h.in is fed already
    text.wire(h, "out", g, "nosuch");  // 5 no such lead
    text.wire(h, "out", c, "in");      // 6 counters have no input
    const std::string file = write("edit.lua", text.text());

    wSimulationSystemScheme s;
    zo::vector<int> discarded{42};  // appended to, not replaced
    {
        testutil::LogCapture log(LOG_WARNINGS);
        s.loadForEdit(file, discarded);
        EXPECT_EQ(log.text(),
                  "Discarding connection: invalid input block: 3 is not a block index; use 0 to 2, -666 for the"
                  " scheme's I/O or -665 for its special commands (at simulation_scheme.connections[2])\n"
                  "Discarding connection: Cannot connect 0.count -> 2.in: different types"
                  " (at simulation_scheme.connections[4])\n"
                  "Discarding connection: Cannot connect -666.v -> 2.in: too many input connections"
                  " (at simulation_scheme.connections[5])\n"
                  "Discarding connection: Block 1 has no input nosuch (at simulation_scheme.connections[6])\n"
                  "Discarding connection: Block 0 has no input in (at simulation_scheme.connections[7])\n");
    }
    EXPECT_EQ(discarded, (zo::vector<int>{42, 1, 3, 4, 5, 6}));
    ASSERT_EQ(s.getConnections().size(), 2u);
    EXPECT_EQ(s.getConnections()[1].to, s.getBlockByName("h"));
    // No analysis: file order, and no complaint about anything a run would refuse.
    EXPECT_EQ(s.getBlockByIndex(0)->getName(), "c");
    EXPECT_EQ(s.getStatelessBlocksCount(), 0);
    EXPECT_EQ(s.getMemorySize(), 0);

    // Below level 2 nothing is logged, but positions are still reported.
    testutil::LogCapture quiet(LOG_ERRORS);
    zo::vector<int> again;
    s.loadForEdit(file, again);
    EXPECT_EQ(quiet.text(), "");
    EXPECT_EQ(again, (zo::vector<int>{1, 3, 4, 5, 6}));
    EXPECT_EQ(s.getBlocksCount(), 3);  // a reload replaces the content
}

TEST_F(SchemeFile, MessagesNameTheFileOnce) {
    // The Lua loader's own messages name the file too; the load's prefix says it once.
    struct Case {
        const char* text;
        const char* expected;  // after the prefix
    };
    const Case cases[] = {
        {"simulation_scheme = {\n  blocks = ", "line 2: unexpected symbol near '<eof>'"},
        {"other = {}", "global table simulation_scheme is not defined"},
        {"simulation_scheme = 5", "global simulation_scheme is a number, expected a table"},
        {"x = {} + 1", "line 1: attempt to perform arithmetic on a table value"},
    };
    for (const Case& c : cases) EXPECT_EQ(runtimeFailure(c.text), prefix() + c.expected) << c.text;
    const std::string missing = path("missing.lua");
    wSimulationSystemScheme s;
    EXPECT_EQ(testutil::messageOf([&] { s.loadForRuntime(missing); }),
              "Error while loading " + missing + ": Cannot open file");
}

TEST_F(SchemeFile, UnusedOverridesAreReportedWithTheirPlace) {
    SchemeText text;
    const int g = text.block("g", "TestGain", "k = {}");
    text.block("c", "TestCounter", "dt = { value = 1 }");
    text.block("d", "TestCounter", "dt = { value = 1 }");
    text.inputWire("v", LEAD_DOUBLE);
    text.wire(kIO, "v", g, "in");
    const std::string file = write("scheme.lua", text.text());
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
    EXPECT_THAT(testutil::messageOf<wSimulationException>([&] { s.loadForRuntime(file, &notTable); }),
                HasSubstr(": overrides.d failed to Lua::Loader::beginSubtable: expected a table, got number"));
    // The overrides loader is left where the host put it, and a clean load has no warnings.
    EXPECT_EQ(overrides.depth(), 0);
    Lua::Loader exact;
    exact.loadString("overrides = { g = { k = 2 } }", "exact.lua", "overrides");
    s.loadForRuntime(file, &exact);
    EXPECT_TRUE(s.getLoadWarnings().empty());
}

TEST_F(SchemeFile, ErrorsWhileInstantiatingNameTheFile) {
    SchemeText text;
    const int scope = text.block("scope", "wBlockOscilloscopeDescriptor", "dt = { value = 1 }, capacity = { value = 5 }");
    text.inputWire("v", LEAD_DOUBLE);
    text.wire(kIO, "v", scope, "input1");
    const std::string file = write("scheme.lua", text.text());
    wSimulationSystemScheme s;
    s.loadForRuntime(file);
    EXPECT_EQ(s.getFileName(), file);
    // Changed after the load, the setting is refused only when the block is made.
    wParameterList params = s.getBlockByName("scope")->getParametersList();
    for (auto& p : params)
        if (p.getName() == "capacity") p.getProxy()->fromString("0");
    EXPECT_EQ(testutil::messageOf<wSimulationException>([&] { s.instantiate(); }),
              "Oscilloscope scope: \"capacity\" must be at least 1 (while instantiating " + file + ")");
}

TEST_F(SchemeFile, SaveFailureNamesTheFile) {
    wSimulationSystemScheme s;
    add<GainDescriptor>(s, "g");
    const std::string file = path("no/such/dir/out.lua");
    EXPECT_THAT(testutil::messageOf([&] { s.save(file); }), StartsWith("While serializing " + file + ": "));
    // An empty scheme saves and loads back empty.
    wSimulationSystemScheme empty;
    const std::string emptyFile = path("empty.lua");
    empty.save(emptyFile);
    zo::vector<int> discarded;
    s.loadForEdit(emptyFile, discarded);
    EXPECT_EQ(s.getBlocksCount(), 0);
    s.loadForRuntime(emptyFile);
    EXPECT_EQ(s.getMemorySize(), 0);
}

}  // namespace
