// Subsystem blocks: schemes built from reusable ".sch" files, through real files.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <filesystem>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "support/CliProcess.h"
#include "support/SchemeFiles.h"
#include "vandrel/blocks/Conversions.h"
#include "vandrel/core/Wire.h"
#include "vandrel/platform/LuaLoader.h"
#include "vandrel/runtime/ResourceLimits.h"
#include "vandrel/runtime/SimulationException.h"
#include "vandrel/scheme/SubsystemBlock.h"

namespace {

namespace fs = std::filesystem;
using testutil::kCmds;
using testutil::kIO;
using testutil::messageOf;

fs::path dataDir() { return fs::path(VANDREL_TEST_DATA_DIR) / "subsystem"; }
std::string dataFile(const char* name) { return (dataDir() / name).string(); }

// A fresh directory holding copies of the subsystem test files, for schemes written here.
fs::path dirWithSubsystemFiles() {
    const fs::path dir = testutil::freshDir();
    for (const auto& e : fs::directory_iterator(dataDir())) fs::copy_file(e.path(), dir / e.path().filename());
    return dir;
}

// The rest of a subsystem block's entry: its file and additional parameters (type 1, double).
std::string subsystemKeys(const std::string& file, const std::vector<std::string>& params = {}) {
    std::string list;
    for (const auto& p : params) list += "{ name = \"" + p + "\", type = 1 }, ";
    return "additional_params = { " + list + "}, template_scheme = \"" + file + "\"";
}
const char* const kSubsystem = "wBlockSubsystemDescriptor";

std::unique_ptr<wSimulationSystemScheme> loadRun(const std::string& file, Lua::Loader* overrides = nullptr) {
    auto s = std::make_unique<wSimulationSystemScheme>();
    if (overrides) s->loadForRuntime(file, overrides);
    else s->loadForRuntime(file);
    return s;
}

std::unique_ptr<wSimulationSystemScheme> loadEdit(const std::string& file, zo::vector<int>* discarded = nullptr) {
    auto s = std::make_unique<wSimulationSystemScheme>();
    zo::vector<int> ignored;
    s->loadForEdit(file, discarded ? *discarded : ignored);
    return s;
}

wBlockSubsystemDescriptor* subsystem(wSimulationSystemScheme& s, const char* name) {
    return dynamic_cast<wBlockSubsystemDescriptor*>(s.getBlockByName(name));
}

std::vector<std::string> names(const wLeadList& leads) {
    std::vector<std::string> v;
    for (const auto& l : leads) v.emplace_back(l.name);
    return v;
}

// ---- Parameters by path

TEST(SubsystemBlock, AddParameterWritesAlongTheDottedPathAndLeavesTheLoaderWhereItWas) {
    Lua::Loader loader;
    loader.createGlobalTable("o");
    loader.createSubtable("a");
    loader.setInt("keep", 7);
    loader.endSubtable();
    wBlockParameterContainer p = createParameter(PARAM_DOUBLE, "ignored");
    p.getProxy()->fromString("2.5");

    wBlockSubsystemDescriptor::addParameter_(&loader, "gain", p);
    wBlockSubsystemDescriptor::addParameter_(&loader, "a.b.c", p);
    EXPECT_EQ(loader.depth(), 0);
    EXPECT_EQ(loader.getDouble("gain"), 2.5);
    loader.beginSubtable("a");
    EXPECT_EQ(loader.getInt("keep"), 7);  // an existing table is entered, not replaced
    loader.beginSubtable("b");
    EXPECT_EQ(loader.getDouble("c"), 2.5);
    loader.endSubtable();
    loader.endSubtable();

    for (const char* bad : {"", ".x", "x.", "a..b", "."}) {
        EXPECT_EQ(messageOf<wSimulationException>([&] { wBlockSubsystemDescriptor::addParameter_(&loader, bad, p); }),
                  std::string("Subsystem: invalid parameter name - ") + bad);
        EXPECT_EQ(loader.depth(), 0) << bad;
    }
    EXPECT_FALSE(loader.hasEntry("x"));  // nothing was created on the way to a refusal
}

// ---- Leads, ports and values

TEST(SubsystemBlock, LeadsAreTheNestedSchemesOwnLeadsInsideOutAndPortsReachInside) {
    const fs::path dir = dirWithSubsystemFiles();
    // Nested: wire u -> Sum -> wire y; port p -> NOT (trig) -> port q.
    testutil::SchemeText nested;
    const int sum = nested.block("sum", "wBlockSummatorDescriptor<double>", "", "inputs = { { name = \"u\", coeff = 2 } }");
    const int inv = nested.block("inv", "wBlockNOTtriggerDescriptor");
    nested.inputWire("u", LEAD_DOUBLE, sum, "u");
    nested.inputPort("p", LEAD_BOOL, inv, "input");
    nested.outputWire(sum, "output", "y", LEAD_DOUBLE);
    nested.outputPort(inv, "output", "q", LEAD_BOOL);
    testutil::writeFile(dir / "both.sch", nested.text());

    testutil::SchemeText outer;
    const int s = outer.block("s", kSubsystem, "", subsystemKeys("both"));
    outer.inputWire("u", LEAD_DOUBLE, s, "u");
    outer.inputPort("p", LEAD_BOOL, s, "p");
    outer.outputWire(s, "y", "y", LEAD_DOUBLE);
    outer.outputPort(s, "q", "q", LEAD_BOOL);
    const std::string file = testutil::writeFile(dir / "outer.lua", outer.text());

    auto edited = loadEdit(file);
    auto* block = subsystem(*edited, "s");
    ASSERT_NE(block, nullptr);
    EXPECT_EQ(names(block->getInputWires()), std::vector<std::string>{"u"});
    EXPECT_EQ(names(block->getOutputWires()), std::vector<std::string>{"y"});
    EXPECT_EQ(names(block->getInputPorts()), std::vector<std::string>{"p"});
    EXPECT_EQ(names(block->getOutputPorts()), std::vector<std::string>{"q"});
    // Not copies: the nested I/O block's own lists.
    EXPECT_EQ(&block->getInputWires(), &block->getScheme().getIOBlock().getOutputWires());
    EXPECT_TRUE(block->isOfType(BLOCK_DISCRETE) && block->isOfType(BLOCK_SUBSYSTEM));
    EXPECT_FALSE(block->isOfType(BLOCK_STATELESS) || block->isOfType(BLOCK_DIFF));

    auto scheme = loadRun(file);
    std::unique_ptr<wSimulationSystem> system(scheme->instantiate());
    testutil::PortRecorder<bool> q;
    q.listen(*system, "q");
    system->setInput<double>("u", 1.25);
    EXPECT_EQ(system->simulate(0.0), -1.0);  // only stateless blocks inside: idle
    EXPECT_EQ(system->getOutput<double>("y"), 2.5);
    static_cast<wInputPort<bool>*>(system->getInputPort("p"))->setValue(true);
    static_cast<wInputPort<bool>*>(system->getInputPort("p"))->setValue(false);
    EXPECT_EQ(q.take(), (std::vector<bool>{false, true}));
}

TEST(SubsystemBlock, OneFileUsedTwiceWithDifferentParametersFollowsTheHostsInputs) {
    auto scheme = loadRun(dataFile("twice.lua"));
    std::unique_ptr<wSimulationSystem> system(scheme->instantiate());
    struct Step {
        double t, u, ya, yb;
    };
    // Idle subsystems run again whenever the host may have changed their inputs, also
    // twice at one time.
    for (const Step& s : {Step{0, 2, 3.5, 0}, Step{1, 5, 6.5, 3}, Step{1, -1, 0.5, -3}, Step{7, 0, 1.5, -2}}) {
        system->setInput<double>("u", s.u);
        EXPECT_EQ(system->simulate(s.t), -1.0);
        EXPECT_EQ(system->getOutput<double>("ya"), s.ya) << "t = " << s.t;
        EXPECT_EQ(system->getOutput<double>("yb"), s.yb) << "t = " << s.t;
    }
}

// An idle subsystem fed by a discrete block (here through a stateless Sum) runs again
// right after that block steps, whichever of the two comes first in the discrete order.
TEST(SubsystemBlock, IdleSubsystemRunsAgainWheneverWhatFeedsItChanges) {
    const fs::path dir = dirWithSubsystemFiles();
    testutil::SchemeText s;
    const int before = s.block("before", kSubsystem, "[\"c.k\"] = { value = 1 }", subsystemKeys("offset", {"c.k"}));
    const int target = s.block("target", "wBlockConstantsDescriptor", "v = { value = 10 }",
                               "values = { { name = \"v\", type = 1 } }");
    const int ramp = s.block("ramp", "wBlockRampDescriptor", "dt = { value = 0.1 }, slope = { value = 1 }");
    const int half = s.block("half", "wBlockSummatorDescriptor<double>", "", "inputs = { { name = \"r\", coeff = 0.5 } }");
    const int after = s.block("after", kSubsystem, "[\"c.k\"] = { value = 2 }", subsystemKeys("offset", {"c.k"}));
    s.wire(target, "v", ramp, "target");
    s.wire(ramp, "output", half, "r");
    s.wire(half, "output", before, "u");
    s.wire(half, "output", after, "u");
    s.outputWire(ramp, "output", "ramp", LEAD_DOUBLE);
    s.outputWire(before, "y", "before", LEAD_DOUBLE);
    s.outputWire(after, "y", "after", LEAD_DOUBLE);
    auto scheme = loadRun(testutil::writeFile(dir / "outer.lua", s.text()));
    std::unique_ptr<wSimulationSystem> system(scheme->instantiate());

    double t = 0;
    for (int n = 0; n < 30; ++n) {
        const double r = system->simulate(t);
        const double ramped = system->getOutput<double>("ramp");
        EXPECT_EQ(system->getOutput<double>("before"), 0.5 * ramped + 1) << "t = " << t;
        EXPECT_EQ(system->getOutput<double>("after"), 0.5 * ramped + 2) << "t = " << t;
        ASSERT_GT(r, 0);
        t += r;
    }
    EXPECT_GT(system->getOutput<double>("ramp"), 2.5);
}

// Fed from continuous state, an idle subsystem runs again at each time that the
// integration reaches, in the call that starts there: one step behind, as any discrete
// block sampling that state.
TEST(SubsystemBlock, IdleSubsystemFedByContinuousStateSamplesItEveryStep) {
    const fs::path dir = dirWithSubsystemFiles();
    testutil::SchemeText s;
    const int c = s.block("c", "wBlockConstantsDescriptor", "one = { value = 1 }, zero = { value = 0 }",
                          "values = { { name = \"one\", type = 1 }, { name = \"zero\", type = 1 } }");
    const int x = s.block("x", "wBlockIntegratorDescriptor<double>");
    const int sub = s.block("sub", kSubsystem, "[\"c.k\"] = { value = 1 }", subsystemKeys("offset", {"c.k"}));
    s.solver("__type = \"wSolverExplEulerDescriptor\", H = 0.1");
    s.wire(c, "one", x, "input");
    s.wire(c, "zero", x, "output.initial");
    s.wire(x, "output", sub, "u");
    s.outputWire(x, "output", "x", LEAD_DOUBLE);
    s.outputWire(sub, "y", "y", LEAD_DOUBLE);
    auto scheme = loadRun(testutil::writeFile(dir / "outer.lua", s.text()));
    std::unique_ptr<wSimulationSystem> system(scheme->instantiate());

    double t = 0, reached = 0;
    for (int n = 0; n < 10; ++n) {
        t += system->simulate(t);
        EXPECT_NEAR(system->getOutput<double>("x"), t, 1e-12);
        EXPECT_NEAR(system->getOutput<double>("y"), reached + 1, 1e-12) << "t = " << t;
        reached = system->getOutput<double>("x");
    }
}

// ---- Memory layout

TEST(SubsystemBlock, NestedLevelsGetTheirSlotsInTheTopLevelArea) {
    auto scheme = loadRun(dataFile("twice.lua"));
    // Top level: u at 0. Each nested level after it, rounded to 8: its stateless Sum's
    // output first, then the Constants' k. A subsystem's output is its nested output.
    struct Slot {
        const char* block;
        int output;          // offset of output wire 0
        std::vector<int> inputs;
    };
    for (const Slot& e : {Slot{"a.sum", 8, {0, 16}}, Slot{"a.c", 16, {}}, Slot{"b.sum", 24, {0, 32}}, Slot{"b.c", 32, {}}}) {
        const wSimulationBlockDescriptor* b = scheme->getBlockByName(e.block);
        ASSERT_NE(b, nullptr) << e.block;
        EXPECT_EQ(b->getOutputWireOffset(0), e.output) << e.block;
        for (std::size_t i = 0; i < e.inputs.size(); ++i)
            EXPECT_EQ(b->getInputWireOffset(static_cast<int>(i)), e.inputs[i]) << e.block << " input " << i;
    }
    EXPECT_EQ(scheme->getIOBlock().getInputWireOffset(0), 8);   // ya
    EXPECT_EQ(scheme->getIOBlock().getInputWireOffset(1), 24);  // yb
    EXPECT_EQ(scheme->getMemorySize(), 40);
    EXPECT_EQ(subsystem(*scheme, "a")->getScheme().getMemorySize(), 0);  // no area of its own
    EXPECT_FALSE(subsystem(*scheme, "a")->hasWireOffsets());

    std::unique_ptr<wSimulationSystem> system(scheme->instantiate());
    system->setInput<double>("u", 4);
    system->simulate(0);
    const unsigned char* data = system->getDataPtr();
    EXPECT_EQ(readWire<double>(data, 16), 1.5);
    EXPECT_EQ(readWire<double>(data, 32), -2.0);
    EXPECT_EQ(readWire<double>(data, 8), 5.5);
}

// One subsystem feeding another: the second's nested scheme reads the first's nested slot.
TEST(SubsystemBlock, ChainedSubsystemsShareTheSlotBetweenThem) {
    const fs::path dir = dirWithSubsystemFiles();
    testutil::SchemeText s;
    const int first = s.block("first", kSubsystem, "[\"c.k\"] = { value = 1 }", subsystemKeys("offset", {"c.k"}));
    const int second = s.block("second", kSubsystem, "[\"c.k\"] = { value = 10 }", subsystemKeys("offset", {"c.k"}));
    s.inputWire("u", LEAD_DOUBLE, first, "u");
    s.outputWire(second, "y", "y", LEAD_DOUBLE);
    s.wire(first, "y", second, "u");
    auto scheme = loadRun(testutil::writeFile(dir / "outer.lua", s.text()));
    const int between = scheme->getBlockByName("first.sum")->getOutputWireOffset(0);
    EXPECT_EQ(scheme->getBlockByName("second.sum")->getInputWireOffset(0), between);
    EXPECT_EQ(scheme->getIOBlock().getInputWireOffset(0), scheme->getBlockByName("second.sum")->getOutputWireOffset(0));
    std::unique_ptr<wSimulationSystem> system(scheme->instantiate());
    system->setInput<double>("u", 0.5);
    system->simulate(0);
    EXPECT_EQ(system->getOutput<double>("y"), 11.5);
    system->setInput<double>("u", 2);
    system->simulate(1);
    EXPECT_EQ(readWire<double>(system->getDataPtr(), between), 3.0);
    EXPECT_EQ(system->getOutput<double>("y"), 13.0);
}

TEST(SubsystemBlock, NestedContinuousStateStartsOnAMultipleOfEight) {
    const fs::path dir = dirWithSubsystemFiles();
    testutil::SchemeText s;
    const int lag = s.block("lag", kSubsystem, "", subsystemKeys("lag"));
    s.inputWire("flag", LEAD_BOOL);  // 1 byte, so the next level starts after padding
    s.inputWire("u", LEAD_DOUBLE, lag, "u");
    s.outputWire(lag, "x", "x", LEAD_DOUBLE);
    auto scheme = loadRun(testutil::writeFile(dir / "outer.lua", s.text()));
    const wSimulationSystemScheme& nested = subsystem(*scheme, "lag")->getScheme();
    EXPECT_EQ(scheme->getDiffMemorySize(), 0);
    EXPECT_EQ(nested.getDiffMemoryOffset(), 16);  // inputs take 0..8, padded to 16
    EXPECT_EQ(nested.getDiffMemorySize(), 8);
    EXPECT_EQ(scheme->getBlockByName("lag.x")->getOutputWireOffset(0), 16);
    EXPECT_EQ(scheme->getBlockByName("lag.e")->getOutputWireOffset(0), 24);
    EXPECT_EQ(scheme->getBlockByName("lag.e")->getInputWireOffset(0), 1);  // u, unaligned
    EXPECT_EQ(scheme->getMemorySize(), 40);
}

// ---- Continuous state, reset and the state blob

TEST(SubsystemBlock, NestedContinuousSchemeRunsOnItsOwnSolverAndResetsReachIt) {
    auto scheme = loadRun(dataFile("lag_outer.lua"));
    std::unique_ptr<wSimulationSystem> system(scheme->instantiate());
    auto* reset = static_cast<wInputPort<bool>*>(system->getInputPort("reset"));
    system->setInput<double>("u", 1);

    // Explicit Euler with H = 0.1 from x = 0: x_n = 1 - 0.9^n. Each call integrates ahead
    // one step and asks to be called again after it.
    double t = 0;
    for (int n = 1; n <= 5; ++n) {
        const double r = system->simulate(t);
        EXPECT_NEAR(r, 0.1, 1e-12);
        EXPECT_NEAR(system->getOutput<double>("x"), 1 - std::pow(0.9, n), 1e-12) << "step " << n;
        t += r;
    }
    // "reset_diff_state" loads the nested state from its initial value, x0 = 3.
    reset->setValue(false);
    EXPECT_EQ(system->getOutput<double>("x"), 3.0);
    system->simulate(t);
    EXPECT_NEAR(system->getOutput<double>("x"), 3 + 0.1 * (1 - 3), 1e-12);
    // A reset of the system zeroes the nested state and starts the schedule over.
    system->reset();
    EXPECT_EQ(system->getOutput<double>("x"), 0.0);
    EXPECT_NEAR(system->simulate(0), 0.1, 1e-12);
    EXPECT_NEAR(system->getOutput<double>("x"), 0.1, 1e-12);
    // Initial values reach the nested state too, without a reset trigger.
    std::unique_ptr<wSimulationSystem> fresh(scheme->instantiate());
    fresh->setInput<double>("u", 1);
    fresh->applyInitialValues();
    EXPECT_EQ(fresh->getOutput<double>("x"), 3.0);
    fresh->simulate(0);
    EXPECT_NEAR(fresh->getOutput<double>("x"), 3 + 0.1 * (1 - 3), 1e-12);
}

TEST(SubsystemBlock, StateBlobAndQueueTimeCarryTheNestedState) {
    const fs::path dir = dirWithSubsystemFiles();
    // Nested: "IncTimer to Double" moving from 0 towards 10 at 1 per second, every 0.1 s.
    testutil::SchemeText nested;
    const int target = nested.block("target", "wBlockConstantsDescriptor", "v = { value = 10 }",
                                    "values = { { name = \"v\", type = 1 } }");
    const int timer = nested.block("timer", "wBlockGo2doubleOntimerDescriptor",
                                   "dt = { value = 0.1 }, K_t = { value = 1 }, use_start_val = { value = true }, "
                                   "start_val = { value = 0 }, activate_by_port = { value = false }, loop = { value = false }");
    nested.wire(target, "v", timer, "target");
    nested.outputWire(timer, "output", "y", LEAD_DOUBLE);
    testutil::writeFile(dir / "timer.sch", nested.text());
    testutil::SchemeText s;
    const int sub = s.block("t", kSubsystem, "", subsystemKeys("timer"));
    s.outputWire(sub, "y", "y", LEAD_DOUBLE);
    auto scheme = loadRun(testutil::writeFile(dir / "outer.lua", s.text()));

    std::unique_ptr<wSimulationSystem> first(scheme->instantiate());
    double t = 0;
    for (int n = 0; n < 6; ++n) t += first->simulate(t);
    // The timer's current value (8 bytes), first-update flag and active flag (1 each); the
    // Constants block's state is empty.
    EXPECT_EQ(first->getSchemeStateDataSize(), 10);
    zo::vector<unsigned char> blob;
    ASSERT_TRUE(first->getSchemeStateData(&blob));
    const double queueTime = first->getSchemeQueueTime();
    EXPECT_NEAR(queueTime, t, 1e-9);

    std::unique_ptr<wSimulationSystem> second(scheme->instantiate());
    second->setSchemeStateData(&blob);
    second->setSchemeQueueTime(queueTime);
    for (int n = 0; n < 4; ++n) {
        const double r1 = first->simulate(t);
        const double r2 = second->simulate(t);
        EXPECT_EQ(r1, r2);
        EXPECT_EQ(first->getOutput<double>("y"), second->getOutput<double>("y")) << "t = " << t;
        t += r1;
    }
    EXPECT_NEAR(second->getOutput<double>("y"), 1.0, 1e-12);
}

// ---- Overrides

TEST(SubsystemBlock, OverridesReachNestedBlocksByPath) {
    Lua::Loader overrides;
    overrides.load(dataFile("open.overrides.lua"), "overrides");
    auto scheme = loadRun(dataFile("open.lua"), &overrides);
    std::unique_ptr<wSimulationSystem> system(scheme->instantiate());
    system->setInput<double>("u", 1);
    system->simulate(0);
    EXPECT_EQ(system->getOutput<double>("y1"), 11.0);   // direct.c.k
    EXPECT_EQ(system->getOutput<double>("y2"), 101.0);  // deep.inner.c.k
    EXPECT_EQ(overrides.depth(), 0);

    // Left open without overrides: the message names the parameter and every file on the way.
    const std::string message = messageOf<wSimulationException>([] { loadRun(dataFile("open.lua")); });
    EXPECT_NE(message.find("Parameter not defined: c.k"), std::string::npos) << message;
    EXPECT_NE(message.find("open.lua"), std::string::npos) << message;
    EXPECT_NE(message.find("offset.sch"), std::string::npos) << message;

    // A value that the file gives (here through the block's own parameter) wins over an
    // override, as everywhere else.
    Lua::Loader ignored;
    ignored.loadString("overrides = { a = { c = { k = 99 } } }", "ignored", "overrides");
    auto twice = loadRun(dataFile("twice.lua"), &ignored);
    std::unique_ptr<wSimulationSystem> run(twice->instantiate());
    run->simulate(0);
    EXPECT_EQ(run->getOutput<double>("ya"), 1.5);
}

// Through the real `vandrel` process, as users run subsystems.
class SubsystemCli : public testutil::CliProcess {};

TEST_F(SubsystemCli, CommandLineOverridesReachNestedBlocks) {
    const auto r = run("run " + dataFile("open.lua") + " --overrides " + dataFile("open.overrides.lua") +
                       " --set u=2 --until 0 -q");
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.out + r.err, "time,y1,y2\n0,12,102\n");
}

TEST_F(SubsystemCli, ExampleRunsTwoSlewLimitersFromOneFile) {
    const auto r = run("run " + example("slew_limiters.lua") + " --until 3 --every 1 -q");
    EXPECT_EQ(r.status, 0) << r.err;
    std::istringstream lines(r.out + r.err);
    std::string line;
    std::getline(lines, line);
    EXPECT_EQ(line, "time,fast,slow,gap");
    // Setpoint 10 from t = 0: the fast limiter (5/s) is there after 2 s, the slow one (1/s) is at t.
    int rows = 0;
    for (double t, fast, slow, gap; std::getline(lines, line); ++rows) {
        ASSERT_EQ(std::sscanf(line.c_str(), "%lf,%lf,%lf,%lf", &t, &fast, &slow, &gap), 4) << line;
        EXPECT_EQ(t, rows);  // from t = 0
        EXPECT_NEAR(fast, std::min(5 * t, 10.0), 1e-9) << line;
        EXPECT_NEAR(slow, t, 1e-9) << line;
        EXPECT_NEAR(gap, fast - slow, 1e-9) << line;
    }
    EXPECT_EQ(rows, 4);
}

// ---- Editing

TEST(SubsystemBlock, EditingLoadsTheNestedSchemeAndSavesTheBlockAsWritten) {
    // Saved and loaded again: the same bytes, every key of the block kept.
    const fs::path dir = dirWithSubsystemFiles();
    zo::vector<int> discarded;
    auto scheme = loadEdit((dir / "twice.lua").string(), &discarded);
    EXPECT_TRUE(discarded.empty());
    scheme->save((dir / "first.lua").string());
    auto reloaded = loadEdit((dir / "first.lua").string(), &discarded);
    EXPECT_TRUE(discarded.empty());
    reloaded->save((dir / "second.lua").string());
    const std::string saved = testutil::readFile((dir / "first.lua").string());
    EXPECT_EQ(saved, testutil::readFile((dir / "second.lua").string()));
    EXPECT_NE(saved.find("template_scheme = \"offset\""), std::string::npos) << saved;
    EXPECT_NE(saved.find("additional_params = {"), std::string::npos) << saved;
    EXPECT_EQ(testutil::parametersOf(*reloaded, "a"), "filename=offset, c.k=1.5");
    EXPECT_EQ(testutil::parametersOf(*reloaded, "b"), "filename=offset, c.k=-2");

    auto* a = subsystem(*scheme, "a");
    ASSERT_TRUE(a->hasNestedScheme());
    EXPECT_EQ(a->getNestedFileName(), dir.string() + "/offset.sch");
    EXPECT_NE(scheme->getBlockByName("a.c"), nullptr);
    EXPECT_EQ(scheme->getBlockByName("a.c.k"), nullptr);  // c is no subsystem
    // Names inside a subsystem count as taken.
    auto dup = std::make_unique<wBlockConstantsDescriptor>();
    dup->setName("a.c");
    EXPECT_EQ(messageOf<wSimulationException>([&] { scheme->addBlock(std::move(dup)); }),
              "Trying to add block with duplicate name: a.c");

    // Another file through the parameter list, then update(): the leads follow.
    wParameterList params = a->getParametersList();
    params[0].getProxy()->fromString("mid");
    a->setParameters(params);
    a->update();
    ASSERT_TRUE(a->hasNestedScheme());
    EXPECT_NE(scheme->getBlockByName("a.inner.c"), nullptr);
    EXPECT_EQ(names(a->getInputWires()), std::vector<std::string>{"u"});

    // A clone owns a copy of the nested scheme.
    std::unique_ptr<wSimulationSystemScheme> clone(scheme->clone());
    EXPECT_NE(clone->getBlockByName("a.inner.c"), nullptr);
    EXPECT_NE(clone->getBlockByName("a.inner.c"), scheme->getBlockByName("a.inner.c"));

    testutil::LogCapture log(3);
    scheme->debug_dump();
    EXPECT_NE(log.text().find("Subsystem block \"a\""), std::string::npos) << log.text();
}

// The file name is written twice (parameter and key); every way of leaving it unset or
// empty must save to a file that reloads to the same bytes.
TEST(SubsystemBlock, AnUnsetOrEmptyFileNameSavesStably) {
    const struct {
        const char* parameter;
        const char* key;
        const char* expect;
    } cases[] = {
        {"filename = {}", "", "filename = {},"},
        {"filename = {}", "template_scheme = \"\"", "filename = {},"},
        {"filename = { value = \"\" }", "template_scheme = \"\"", "filename = { value = \"\" },"},
        {"filename = {}", "template_scheme = 5", "filename = {},"},
        {"filename = { value = \"x\" }", "template_scheme = \"\"", "filename = { value = \"x\" },"},
        {"filename = {}", "template_scheme = \"y\"", "filename = { value = \"y\" },"},
    };
    for (const auto& c : cases) {
        const std::string text = "simulation_scheme = { blocks = { { __name = \"s\", __type = \"" +
                                 std::string(kSubsystem) + "\", __parameters = { " + c.parameter + " }, " + c.key +
                                 " } }, io = { inputWires = {}, inputPorts = {}, outputWires = {}, outputPorts = {} }, connections = {} }";
        std::string saved;
        testutil::saveAndReload(text, &saved);
        EXPECT_NE(saved.find(c.expect), std::string::npos) << text << "\n" << saved;
    }
}

// ---- Bad files

TEST(SubsystemBlock, MissingOrSelfIncludingFilesAreClearErrors) {
    const fs::path dir = dirWithSubsystemFiles();
    const std::string d = dir.string() + "/";
    auto outerUsing = [&](const std::string& file) {
        testutil::SchemeText s;
        s.block("s", kSubsystem, "", subsystemKeys(file));
        return testutil::writeFile(dir / ("uses_" + file + ".lua"), s.text());
    };
    struct Case {
        std::string file;     // scheme loaded
        std::string message;  // part of the error of a running load
    };
    const std::vector<Case> cases = {
        {outerUsing("nowhere"), "Cannot load subsystem block s: Error while loading " + d + "nowhere.sch: Cannot open file"},
        {outerUsing("self"), "Subsystem file includes itself: " + d + "uses_self.lua -> " + d + "self.sch -> " + d + "self.sch"},
        {outerUsing("loop_a"), "Subsystem file includes itself: " + d + "uses_loop_a.lua -> " + d + "loop_a.sch -> " + d +
                                   "loop_b.sch -> " + d + "loop_a.sch"},
        {d + "self.sch", "Subsystem file includes itself: " + d + "self.sch -> " + d + "self.sch"},
    };
    for (const Case& c : cases) {
        const std::string message = messageOf<wSimulationException>([&] { loadRun(c.file); });
        EXPECT_NE(message.find(c.message), std::string::npos) << message;
        EXPECT_EQ(message.rfind("Error while loading " + c.file + ": ", 0), 0u) << message;

        // An editor still gets the scheme; the failing block has no scheme and no leads.
        testutil::LogCapture log(1);
        auto edited = loadEdit(c.file);
        EXPECT_NE(log.text().find("Cannot load subsystem block: "), std::string::npos) << c.file;
        auto* failed = subsystem(*edited, c.file.ends_with("self.sch") ? "again" : "s");
        for (int level = 0; failed && failed->hasNestedScheme(); ++level) {
            ASSERT_LT(level, 4);
            failed = dynamic_cast<wBlockSubsystemDescriptor*>(failed->getScheme().getBlocks()[0].get());
        }
        ASSERT_NE(failed, nullptr);
        EXPECT_FALSE(failed->getLoadError().empty());
        EXPECT_TRUE(failed->getInputWires().empty() && failed->getOutputWires().empty());
    }

    // Such a block cannot run: instantiating says which and why.
    auto edited = loadEdit(outerUsing("nowhere"));
    edited->analyse();
    EXPECT_NE(messageOf<wSimulationException>([&] { edited->instantiate(); }).find("Subsystem block s has no scheme"),
              std::string::npos);
}

TEST(SubsystemBlock, NestingIsLimitedToSixteenLevels) {
    const fs::path dir = testutil::freshDir();
    // level<n>.sch holds a subsystem using level<n+1>.sch; the deepest holds a Constants block.
    auto writeChain = [&](int levels) {
        for (int n = 1; n <= levels; ++n) {
            testutil::SchemeText s;
            if (n < levels) s.block("next", kSubsystem, "", subsystemKeys("level" + std::to_string(n + 1)));
            else s.block("c", "wBlockConstantsDescriptor", "v = { value = 1 }", "values = { { name = \"v\", type = 1 } }");
            testutil::writeFile(dir / ("level" + std::to_string(n) + ".sch"), s.text());
        }
        testutil::SchemeText top;
        top.block("next", kSubsystem, "", subsystemKeys("level1"));
        return testutil::writeFile(dir / "top.lua", top.text());
    };
    auto scheme = loadRun(writeChain(wBlockSubsystemDescriptor::kMaxNestingDepth));
    std::string path = "next";
    for (int n = 1; n < wBlockSubsystemDescriptor::kMaxNestingDepth; ++n) path += ".next";
    EXPECT_NE(scheme->getBlockByName(path + ".c"), nullptr);
    std::unique_ptr<wSimulationSystem>(scheme->instantiate())->simulate(0);

    const std::string message =
        messageOf<wSimulationException>([&] { loadRun(writeChain(wBlockSubsystemDescriptor::kMaxNestingDepth + 1)); });
    EXPECT_NE(message.find("Subsystems nested deeper than 16 levels: " + (dir / "top.lua").string() + " -> " +
                           (dir / "level1.sch").string()),
              std::string::npos)
        << message;
    EXPECT_NE(message.find("level17.sch"), std::string::npos) << message;
}

}  // namespace

TEST(SubsystemBlock, NestedAllocationsCountTowardsTheSchemeLimit) {
    const fs::path dir = dirWithSubsystemFiles();
    // 1000 samples of time + one input: 16 kB per recording subsystem.
    testutil::writeFile(dir / "rec.sch", R"(simulation_scheme = {
  blocks = { { __name = "c", __type = "wBlockConstantsDescriptor",
               values = { { name = "v", type = 1 } }, __parameters = { v = { value = 1 } } },
             { __name = "scope", __type = "wBlockOscilloscopeDescriptor",
               __parameters = { dt = { value = 0.1 }, capacity = { value = 1000 } } } },
  io = { inputWires = {}, inputPorts = {}, outputWires = {}, outputPorts = {} },
  connections = { { output_block = 0, output_lead = "v", input_block = 1, input_lead = "input1", port = false } },
})");
    testutil::SchemeText s;
    for (const char* name : {"r1", "r2", "r3"}) s.block(name, kSubsystem, "", subsystemKeys("rec"));
    const std::string file = testutil::writeFile(dir / "recorders.lua", s.text());

    const wResourceLimits saved = getResourceLimits();
    wResourceLimits limits;
    limits.maxBlockBytes = 20'000;   // each recorder fits
    limits.maxSchemeBytes = 40'000;  // three of them do not
    setResourceLimits(limits);
    const std::string message = messageOf<wSimulationException>([&] { loadRun(file); });
    limits.maxSchemeBytes = 60'000;
    setResourceLimits(limits);
    EXPECT_NO_THROW(loadRun(file));
    setResourceLimits(saved);
    EXPECT_NE(message.find("more than the 39.06 KiB a scheme may"), std::string::npos) << message;
}
