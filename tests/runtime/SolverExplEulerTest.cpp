// Explicit Euler through a running system, and the registry of solver kinds.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <limits>

#include "runtime/RuntimeTestUtil.h"
#include "support/SchemeFiles.h"
#include "vandrel/platform/LuaLoader.h"

using testblocks::CounterDescriptor;
using testblocks::GainDescriptor;
using testblocks::IntegratorDescriptor;
using ::testing::AllOf;
using ::testing::ElementsAre;
using ::testing::HasSubstr;

namespace {

// x' = k x through a gain in the continuous loop, plus a counter whose period sets the
// interval integrated per call.
struct Growth {
    explicit Growth(double H, double period) {
        auto* i = b.add<IntegratorDescriptor>("i");
        g = b.add<GainDescriptor>("g");
        c = b.add<CounterDescriptor>("c");
        c->dt.set(period);
        euler = b.euler(H);
        b.inputWire("x0", i, "x.initial");
        b.outputWire(i, "x", "x");
        b.wire(i, "x", g, "in");
        b.wire(g, "out", i, "in");
        sys = b.run();
    }
    rt::Builder b;
    GainDescriptor* g = nullptr;
    CounterDescriptor* c = nullptr;
    wSolverExplEulerDescriptor* euler = nullptr;
    std::unique_ptr<wSimulationSystem> sys;
};

}  // namespace

TEST(RuntimeEuler, SplitsTheIntervalIntoStepsOfAtMostH) {
    Growth m(0.1, 0.25);
    ASSERT_EQ(m.sys->getDiffStateSize(), 1);
    m.sys->getDiffState()[0] = 1.0;

    EXPECT_EQ(m.sys->simulate(0.0), 0.25);
    // Steps of 0.1, 0.1 and the rest; each multiplies the state by (1 + k s).
    const double rest = 0.25 - 0.1 - 0.1;
    EXPECT_DOUBLE_EQ(m.sys->getOutput<double>("x"), (1 + 0.1) * (1 + 0.1) * (1 + rest));
    // One update before integrating, which the first step's derivative reuses, then one
    // per further step, all at the call's time.
    EXPECT_THAT(testblocks::trace(), ElementsAre("c@0", "g@0", "g@0", "g@0"));

    testblocks::clearTrace();
    EXPECT_DOUBLE_EQ(m.sys->simulate(0.25), 0.25);
    EXPECT_THAT(testblocks::trace(), ElementsAre("c@0.25", "g@0.25", "g@0.25", "g@0.25"));

    // A host that sets the state between calls gets derivatives from the new state.
    m.sys->getDiffState()[0] = 2.0;
    EXPECT_DOUBLE_EQ(m.sys->simulate(0.5), 0.25);
    EXPECT_DOUBLE_EQ(m.sys->getOutput<double>("x"), 2.0 * (1 + 0.1) * (1 + 0.1) * (1 + rest));
}

TEST(RuntimeEuler, WithoutEventsIntegratesOneStepPerCall) {
    rt::Builder b;
    auto* i = b.add<IntegratorDescriptor>("i");
    b.euler(0.1);
    b.inputWire("c");
    b.outputWire(i, "x", "x");
    b.wire(b.io(), "c", i, "in");
    b.wire(b.io(), "c", i, "x.initial");
    auto sys = b.run();

    const double c = 3.0;
    sys->setInput<double>("c", c);
    double T = 0;
    const int n = 10;
    for (int k = 0; k < n; ++k) {
        const double r = sys->simulate(T);
        EXPECT_NEAR(r, 0.1, 1e-15);
        T += r;
    }
    EXPECT_NEAR(sys->getOutput<double>("x"), n * 0.1 * c, 1e-12);

    // H = 0 and nothing scheduled: no step, and the system asks to be called again at once.
    static_cast<wSolverExplEulerDescriptor*>(b.scheme.getOdeSolverDescriptor())->setH(0.0);
    const double before = sys->getOutput<double>("x");
    EXPECT_EQ(sys->simulate(T), 0.0);
    EXPECT_EQ(sys->getOutput<double>("x"), before);
}

TEST(RuntimeEuler, NonPositiveOrVanishingStepWithAPendingEventThrows) {
    Growth m(0.0, 0.5);
    EXPECT_EQ(testutil::messageOf<wSimulationException>([&] { m.sys->simulate(0.0); }),
              "Explicit Euler step H must be positive to integrate over h = 0.5 (H = 0)");
    m.euler->setH(-0.1);
    EXPECT_THAT(testutil::messageOf<wSimulationException>([&] { m.sys->simulate(0.0); }),
                HasSubstr("Explicit Euler step H must be positive"));
    // A step below the resolution of the interval would never finish it either.
    m.c->dt.set(1000.0);
    m.sys->reset();
    m.euler->setH(1e-20);
    EXPECT_THAT(testutil::messageOf<wSimulationException>([&] { m.sys->simulate(0.0); }),
                HasSubstr("is too small to integrate over h = 1000"));

    // Usable again with a proper step.
    m.c->dt.set(0.5);
    m.sys->reset();
    m.euler->setH(0.25);
    EXPECT_EQ(m.sys->simulate(0.0), 0.5);
}

TEST(RuntimeEuler, ABadStepIsRefusedNotReturnedAsTheIntervalCovered) {
    // Only continuous blocks: each call integrates one step of H and returns its length,
    // which the host takes as the time to advance by.
    const double nan = std::numeric_limits<double>::quiet_NaN(), inf = std::numeric_limits<double>::infinity();
    for (const double H : {nan, -0.01, inf, -inf}) {
        rt::Builder b;
        auto* i = b.add<IntegratorDescriptor>("i");
        auto* g = b.add<GainDescriptor>("g");
        b.euler(H);
        b.inputWire("x0", i, "x.initial");
        b.wire(i, "x", g, "in");
        b.wire(g, "out", i, "in");
        auto sys = b.run();
        EXPECT_THAT(testutil::messageOf<wSimulationException>([&] { sys->simulate(0.0); }),
                    HasSubstr("Explicit Euler step H must be positive"))
            << H;
    }

    // Asked directly, an interval that is negative or not finite is refused too.
    Growth m(0.1, 0.5);
    wSolverExplEuler solver(m.euler, m.sys.get());
    for (const double h : {nan, -0.25, inf})
        EXPECT_THAT(testutil::messageOf<wSimulationException>([&] { solver.advance(0.0, h); }),
                    HasSubstr("Explicit Euler cannot integrate over h = "))
            << h;
    EXPECT_EQ(solver.advance(0.0, 0.25), 0.25);
}

TEST(RuntimeEuler, AStepThatCannotIntegrateIsRefusedAtLoadWithItsPlace) {
    struct Case {
        const char* H;      // Lua expression in the file
        const char* shown;  // as the message prints it
    };
    const Case cases[] = {{"0/0", "nan"}, {"-0.01", "-0.01"}, {"math.huge", "inf"}, {"0", "0"}, {"-1/0", "-inf"}};
    for (const Case& c : cases) {
        testutil::SchemeText s;
        const int i = s.block("i", "wBlockIntegratorDescriptor<double>");
        const int k = s.block("k", "wBlockConstantsDescriptor", "y0 = { value = 1 }", "values = { { name = \"y0\", type = 1 } }");
        s.solver(std::string("__type = \"wSolverExplEulerDescriptor\", H = ") + c.H);
        s.inputWire("u", LEAD_DOUBLE);
        s.outputWire("y", LEAD_DOUBLE);
        s.wire(testutil::kIO, "u", i, "input");
        s.wire(k, "y0", i, "output.initial");
        s.wire(i, "output", testutil::kIO, "y");
        const std::string file = testutil::writeFile(testutil::freshDir() / "scheme.lua", s.text());

        wSimulationSystemScheme running;
        EXPECT_THAT(testutil::messageOf<wSimulationException>([&] { running.loadForRuntime(file); }),
                    AllOf(HasSubstr("Error while loading " + file +
                                    ": simulation_scheme.solver.H must be a positive finite number of seconds, got "),
                          HasSubstr(c.shown)))
            << c.H;
        // An editor still opens the file, so that the value can be fixed.
        wSimulationSystemScheme edited;
        zo::vector<int> discarded;
        EXPECT_NO_THROW(edited.loadForEdit(file, discarded)) << c.H;
    }
}

TEST(RuntimeEuler, DescriptorParametersCloneAndRegistration) {
    wSolverExplEulerDescriptor d;
    wParameterList params = d.getParametersList();
    ASSERT_EQ(params.size(), 1u);
    params[0].getProxy()->fromString("0.125");  // the list refers to the descriptor
    EXPECT_EQ(d.getH(), 0.125);

    std::unique_ptr<wOdeSolverDescriptor> copy(d.clone());
    d.setH(0.5);
    EXPECT_EQ(static_cast<wSolverExplEulerDescriptor&>(*copy).getH(), 0.125);

    auto* f = wOdeSolversFactory::instance();
    auto kinds = f->getKeysDescriptions();
    ASSERT_FALSE(kinds.empty());
    EXPECT_EQ(kinds[0], std::make_pair(zo::string("wSolverExplEulerDescriptor"), zo::string("Explicit Euler")));
    std::unique_ptr<wOdeSolverDescriptor> made(f->generate("wSolverExplEulerDescriptor"));
    ASSERT_NE(dynamic_cast<wSolverExplEulerDescriptor*>(made.get()), nullptr);
    EXPECT_EQ(testutil::messageOf([&] { f->generate("wSolverRK4"); }), "Unknown ODE solver type: wSolverRK4");

    // A second registration under a known name changes nothing.
    EXPECT_EQ(testutil::messageOf([&] {
                  f->register_descriptor("wSolverExplEulerDescriptor",
                                         []() -> wOdeSolverDescriptor* { return nullptr; }, "Other");
              }),
              "Duplicated ODE solver type: wSolverExplEulerDescriptor");
    EXPECT_EQ(f->getKeysDescriptions(), kinds);
    EXPECT_NE(std::unique_ptr<wOdeSolverDescriptor>(f->generate("wSolverExplEulerDescriptor")), nullptr);
}

TEST(RuntimeEuler, SolverTableRoundTripsThroughTheLoader) {
    wSolverExplEulerDescriptor d;
    d.setH(0.1);
    Lua::Loader out;
    out.createGlobalTable("solver");
    wOdeSolversFactory::save(&out, d);
    EXPECT_EQ(out.getString("__type"), "wSolverExplEulerDescriptor");
    EXPECT_EQ(out.getDouble("H"), 0.1);

    Lua::Loader in;
    in.loadString("solver = { __type = \"wSolverExplEulerDescriptor\", H = 0.02 }", "mem", "solver");
    std::unique_ptr<wOdeSolverDescriptor> loaded(wOdeSolversFactory::instance()->load(&in));
    EXPECT_EQ(static_cast<wSolverExplEulerDescriptor&>(*loaded).getH(), 0.02);

    // Missing entries fail in the loader, naming the entry.
    Lua::Loader noH;
    noH.loadString("solver = { __type = \"wSolverExplEulerDescriptor\" }", "mem", "solver");
    EXPECT_THAT(testutil::messageOf<Lua::LoaderException>([&] { wOdeSolversFactory::instance()->load(&noH); }),
                HasSubstr("solver.H"));
    Lua::Loader noType;
    noType.loadString("solver = { H = 0.1 }", "mem", "solver");
    EXPECT_THAT(testutil::messageOf<Lua::LoaderException>([&] { wOdeSolversFactory::instance()->load(&noType); }),
                HasSubstr("solver.__type"));
    Lua::Loader unknown;
    unknown.loadString("solver = { __type = \"Verlet\", H = 0.1 }", "mem", "solver");
    EXPECT_EQ(testutil::messageOf<wSimulationException>([&] { wOdeSolversFactory::instance()->load(&unknown); }),
              "Unknown ODE solver type: Verlet");
}
