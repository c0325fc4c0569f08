// One set of checks run against every solver kind: convergence on a problem with a known
// solution, exact arrival at discrete events, inputs that jump mid-run, resets of the
// continuous state; then what only the stiff solver can do, and the solver tables of
// scheme files.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <memory>
#include <string>

#include "runtime/RuntimeTestUtil.h"
#include "runtime/SolverTestUtil.h"
#include "support/SchemeFiles.h"
#include "vandrel/blocks/Conversions.h"

using ::testing::HasSubstr;
using solvers::Kind;
using testutil::kCmds;
using testutil::kIO;

namespace {

// x'' = -x through a summator and two integrators, from x = 1, v = 0: x = cos t,
// v = -sin t. The scheme input port "reset" loads the initial values from constants.
std::string oscillatorScheme(const std::string& solverBody) {
    testutil::SchemeText s;
    const int c = s.block("start", "wBlockConstantsDescriptor", "x0 = { value = 1 }, v0 = { value = 0 }",
                          "values = { { name = \"x0\", type = 1 }, { name = \"v0\", type = 1 } }");
    const int a = s.block("acceleration", "wBlockSummatorDescriptor<double>", "",
                          "inputs = { { name = \"x\", coeff = -1 } }");
    const int v = s.block("velocity", "wBlockIntegratorDescriptor<double>");
    const int x = s.block("position", "wBlockIntegratorDescriptor<double>");
    s.inputPort("reset", LEAD_BOOL);
    s.outputWire(x, "output", "x", LEAD_DOUBLE);
    s.outputWire(v, "output", "v", LEAD_DOUBLE);
    s.wire(x, "output", a, "x");
    s.wire(a, "output", v, "input");
    s.wire(v, "output", x, "input");
    s.wire(c, "x0", x, "output.initial");
    s.wire(c, "v0", v, "output.initial");
    s.port(kIO, "reset", kCmds, "reset_diff_state");
    s.solver(solverBody);
    return s.text();
}

// Runs the oscillator from 0 up to tEnd one call after the other; returns the error of
// the state at the time reached, and that time and the solver's steps through the pointers.
double oscillatorError(const std::string& solverBody, double tEnd, double* reached = nullptr,
                       long long* steps = nullptr) {
    testutil::Running r(oscillatorScheme(solverBody));
    testutil::sendToInput<bool>(*r.system, "reset", true);
    double T = 0;
    while (T < tEnd - 1e-12) T += r.system->simulate(T);
    if (reached) *reached = T;
    if (steps) *steps = r.system->getSolver()->getStepCount();
    return std::hypot(r.system->getOutput<double>("x") - std::cos(T), r.system->getOutput<double>("v") + std::sin(T));
}

class SolverSuite : public ::testing::TestWithParam<Kind> {};

}  // namespace

INSTANTIATE_TEST_SUITE_P(AllKinds, SolverSuite, ::testing::ValuesIn(solvers::kinds()), solvers::kindName);

TEST_P(SolverSuite, ConvergesAtItsOrderOnALinearOscillator) {
    const Kind& k = GetParam();
    if (k.order > 0) {
        // Halving the step divides the error by 2^order.
        const double H = k.order == 1 ? 0.01 : 0.1;
        double T1 = 0, T2 = 0;
        const double e1 = oscillatorError(solvers::table(k, H), 2.0, &T1);
        const double e2 = oscillatorError(solvers::table(k, H / 2), 2.0, &T2);
        EXPECT_NEAR(T1, 2.0, 1e-9);
        EXPECT_NEAR(T2, 2.0, 1e-9);
        const double expected = std::pow(2.0, k.order);
        EXPECT_GT(e1 / e2, 0.8 * expected) << "errors " << e1 << " and " << e2;
        EXPECT_LT(e1 / e2, 1.25 * expected) << "errors " << e1 << " and " << e2;
        return;
    }
    // With error control the error follows the tolerance: a hundred times tighter
    // tolerances give a much smaller error, and each stays near its tolerance.
    long long loose = 0, tight = 0;
    const double e1 = oscillatorError(solvers::table(k, 1.0, 1e-6, 1e-6), 5.0, nullptr, &loose);
    const double e2 = oscillatorError(solvers::table(k, 1.0, 1e-8, 1e-8), 5.0, nullptr, &tight);
    EXPECT_LT(e1, 1e-6 * 100);
    EXPECT_LT(e2, 1e-8 * 100);
    EXPECT_GT(e1 / e2, 10.0) << "errors " << e1 << " and " << e2;
    EXPECT_LT(e1 / e2, 1e4) << "errors " << e1 << " and " << e2;
    // It gets there by taking more steps, not by luck.
    EXPECT_GT(tight, loose);
}

TEST_P(SolverSuite, ArrivesExactlyAtEventTimes) {
    // x' = 3 from x = 0; a sampler due every 0.3 s reads the state. A constant derivative
    // makes every method exact, so any over- or undershoot of the event shows.
    rt::Builder b;
    auto* i = b.add<testblocks::IntegratorDescriptor>("i");
    auto* s = b.add<testblocks::SamplerDescriptor>("s");
    s->dt.set(0.3);
    b.scheme.setOdeSolverDescriptor(solvers::make(GetParam(), 0.25));
    b.inputWire("c");
    b.outputWire(s, "out", "sample");
    b.wire(b.io(), "c", i, "in");
    b.wire(b.io(), "c", i, "x.initial");
    b.wire(i, "x", s, "in");
    auto sys = b.run();
    sys->setInput<double>("c", 3.0);

    double T = 0;
    for (int k = 0; k < 20; ++k) {
        const double r = sys->simulate(T);
        // The sample taken at T is the state at T exactly; the call then integrates to the
        // next event and no further.
        EXPECT_NEAR(sys->getOutput<double>("sample"), 3.0 * T, 1e-12) << "at event " << k;
        EXPECT_NEAR(r, 0.3, 1e-12);
        EXPECT_NEAR(sys->getDiffState()[0], 3.0 * (T + r), 1e-12) << "after event " << k;
        T += r;
    }
}

// x' = 3 from x = 0 with a sampler every 0.3 s: see ArrivesExactlyAtEventTimes.
std::unique_ptr<wSimulationSystem> rampAndSampler(rt::Builder& b, const Kind& kind, double H) {
    auto* i = b.add<testblocks::IntegratorDescriptor>("i");
    auto* s = b.add<testblocks::SamplerDescriptor>("s");
    s->dt.set(0.3);
    b.scheme.setOdeSolverDescriptor(solvers::make(kind, H));
    b.inputWire("c");
    b.outputWire(s, "out", "sample");
    b.wire(b.io(), "c", i, "in");
    b.wire(b.io(), "c", i, "x.initial");
    b.wire(i, "x", s, "in");
    auto sys = b.run();
    sys->setInput<double>("c", 3.0);
    return sys;
}

TEST_P(SolverSuite, HandsControlBackAtTheHostsOutputTimes) {
    // Output times every 0.125 s between events every 0.3 s: each call integrates to the
    // next event or output time, whichever comes first, never beyond, and lands on an
    // output time exactly.
    rt::Builder b;
    auto sys = rampAndSampler(b, GetParam(), 0.25);
    double T = 0;
    int calls = 0;
    for (int k = 1; k <= 24; ++k) {
        const double target = 0.125 * k;
        while (sys->getCurrentTime() != target) {
            ASSERT_LT(++calls, 1000) << "no progress towards " << target;
            const long long steps = sys->getSolver()->getStepCount();
            const double r = sys->simulate(T, target);
            EXPECT_LE(T + r, target + 1e-15);
            EXPECT_LE(sys->getCurrentTime(), target);
            // No further than asked: the state is the exact ramp at the time reached.
            EXPECT_NEAR(sys->getDiffState()[0], 3.0 * sys->getCurrentTime(), 1e-12);
            // An event just taken was sampled at its own time.
            if (std::fmod(T + 1e-12, 0.3) < 1e-9) {
                EXPECT_NEAR(sys->getOutput<double>("sample"), 3.0 * T, 1e-12) << "event at " << T;
            }
            // Between events and output times the solver makes one step of its own.
            if (GetParam().order > 0) {
                EXPECT_EQ(sys->getSolver()->getStepCount() - steps, 1);
            }
            T = sys->getCurrentTime();
        }
    }
    EXPECT_EQ(T, 3.0);
    // Not a step more than events, output times and steps of H need.
    if (GetParam().order > 0) {
        EXPECT_LE(calls, 10 + 24 + 12);
    }
}

TEST_P(SolverSuite, ShortensItsOwnStepToLandOnTheHorizon) {
    // x' = 3 and nothing scheduled: each call makes one step of the solver's own, the
    // last one cut to end at the horizon exactly. Fixed steps of H = 10 are all cut.
    rt::Builder b;
    auto* i = b.add<testblocks::IntegratorDescriptor>("i");
    b.scheme.setOdeSolverDescriptor(solvers::make(GetParam(), 10.0));
    b.inputWire("c");
    b.wire(b.io(), "c", i, "in");
    b.wire(b.io(), "c", i, "x.initial");
    auto sys = b.run();
    sys->setInput<double>("c", 3.0);
    double T = 0;
    for (int calls = 1; T != 0.1; ++calls) {
        ASSERT_LT(calls, 100);
        const long long steps = sys->getSolver()->getStepCount();
        const double r = sys->simulate(T, 0.1);
        EXPECT_EQ(sys->getSolver()->getStepCount() - steps, 1);
        EXPECT_LE(r, 0.1 - T);
        if (GetParam().order > 0) {
            EXPECT_EQ(r, 0.1);
        }
        T = sys->getCurrentTime();
        EXPECT_NEAR(sys->getDiffState()[0], 3 * T, 1e-12);
    }
    EXPECT_EQ(T, 0.1);
}

TEST(SimulateWithHorizon, EdgeCases) {
    rt::Builder b;
    auto sys = rampAndSampler(b, solvers::kinds()[0], 0.1);
    rt::Builder d;
    auto* sampler = d.add<testblocks::SamplerDescriptor>("s");
    sampler->dt.set(0.3);
    d.inputWire("c");
    d.wire(d.io(), "c", sampler, "in");
    auto discrete = d.run();

    struct Case {
        const char* name;
        wSimulationSystem* system;
        double T, Tmax;
        double delay;        // expected result
        double state;        // expected continuous state after the call (NaN: none)
        const char* error;   // or the message
    };
    const double nan = std::nan("");
    const double inf = std::numeric_limits<double>::infinity();
    const Case cases[] = {
        {"horizon before T", sys.get(), 0.0, -0.1, 0, 0, "latest time to return at (-0.1 s) must not be before"},
        {"horizon NaN", sys.get(), 0.0, nan, 0, 0, "latest time to return at (nan s)"},
        {"horizon at T integrates nothing", sys.get(), 0.0, 0.0, 0.0, 0.0, nullptr},
        {"no horizon: to the next event", sys.get(), 0.0, inf, 0.3, 0.9, nullptr},
        {"horizon inside a step", sys.get(), 0.3, 0.35, 0.05, 1.05, nullptr},
        {"event before the horizon", sys.get(), 0.35, 0.9, 0.25, 1.8, nullptr},
        {"horizon before the event: steps up to it", sys.get(), 0.6, 0.8, 0.2, 2.4, nullptr},
        {"no continuous part: back at the horizon", discrete.get(), 0.0, 0.05, 0.05, nan, nullptr},
        {"no continuous part: then the event", discrete.get(), 0.05, 1.0, 0.25, nan, nullptr},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        if (c.error != nullptr) {
            EXPECT_THAT(testutil::messageOf([&] { c.system->simulate(c.T, c.Tmax); }), HasSubstr(c.error));
            continue;
        }
        EXPECT_NEAR(c.system->simulate(c.T, c.Tmax), c.delay, 1e-12);
        if (!std::isnan(c.state)) {
            EXPECT_NEAR(c.system->getDiffState()[0], c.state, 1e-12);
        }
    }
}

TEST(SimulateWithHorizon, NestedContinuousPartsKeepToIt) {
    // A lag x' = u - x inside a subsystem, on its own Euler solver with H = 0.1, from
    // x = 3 with u = 1: asked for control back at 0.05, the nested lag takes one step of
    // 0.05 (x = 2.9), not its own 0.1 (2.8).
    wSimulationSystemScheme scheme;
    scheme.loadForRuntime(std::string(VANDREL_TEST_DATA_DIR) + "/subsystem/lag_outer.lua");
    std::unique_ptr<wSimulationSystem> sys(scheme.instantiate());
    sys->setInput<double>("u", 1.0);
    testutil::sendToInput<bool>(*sys, "reset", true);
    double t = 0;
    for (const double out : {0.05, 0.1, 0.15}) {
        while (t < out) {
            const double r = sys->simulate(t, out);
            t = r < 0 || r >= out - t ? out : t + r;
        }
        EXPECT_NEAR(sys->getOutput<double>("x"), 1 + 2 * std::pow(0.95, out / 0.05), 1e-12) << out;
    }
}

TEST_P(SolverSuite, FollowsAnInputThatADiscreteBlockChanges) {
    // A counter stepping every second feeds the integrator 1, 2, 3, ...; a sampler every
    // 0.5 s reads the state. x is piecewise linear: 1, 3, 6 at t = 1, 2, 3.
    rt::Builder b;
    auto* i = b.add<testblocks::IntegratorDescriptor>("i");
    auto* c = b.add<testblocks::CounterDescriptor>("c");
    auto* conv = b.add<wBlockI2ODescriptor<int, double>>("conv");
    auto* s = b.add<testblocks::SamplerDescriptor>("s");
    c->dt.set(1.0);
    s->dt.set(0.5);
    b.scheme.setOdeSolverDescriptor(solvers::make(GetParam(), 0.2));
    b.inputWire("x0", i, "x.initial");
    b.outputWire(s, "out", "sample");
    b.wire(c, "count", conv, "input");
    b.wire(conv, "output", i, "in");
    b.wire(i, "x", s, "in");
    auto sys = b.run();

    auto exact = [](double t) {
        const double whole = std::floor(t + 1e-12);
        return whole * (whole + 1) / 2 + (whole + 1) * (t - whole);
    };
    double T = 0;
    while (T < 3.0 - 1e-12) {
        T += sys->simulate(T);
        EXPECT_NEAR(sys->getDiffState()[0], exact(T), 1e-8) << "at t = " << T;
    }
    EXPECT_NEAR(T, 3.0, 1e-12);
    EXPECT_NEAR(sys->getDiffState()[0], 6.0, 1e-8);

    // CVODE starts afresh where the input jumped (t = 1, 2) and only there: the samples
    // in between change nothing that the derivatives read.
    if (auto* cvode = dynamic_cast<wSolverCvode*>(sys->getSolver())) {
        EXPECT_EQ(cvode->getRestartCount(), 3);
    }
}

TEST_P(SolverSuite, ResetDiffStateReloadsTheInitialValuesMidRun) {
    // x' = -x from x0 = 1, reset through the command port at t = 1: x(2) = x(1) = e^-1.
    const Kind& k = GetParam();
    rt::Builder b;
    auto* i = b.add<testblocks::IntegratorDescriptor>("i");
    auto* g = b.add<testblocks::GainDescriptor>("g");
    auto* s = b.add<testblocks::SamplerDescriptor>("s");
    g->k.set(-1.0);
    s->dt.set(0.25);
    b.scheme.setOdeSolverDescriptor(solvers::make(k, k.order == 1 ? 1e-4 : 0.05));
    b.inputWire("x0", i, "x.initial");
    b.inputPort("reset");
    b.wire(i, "x", g, "in");
    b.wire(g, "out", i, "in");
    b.wire(i, "x", s, "in");
    b.port(b.io(), "reset", b.special(), "reset_diff_state");
    auto sys = b.run();
    sys->setInput<double>("x0", 1.0);
    auto* reset = dynamic_cast<wInputPort<bool>*>(sys->getInputPort("reset"));
    ASSERT_NE(reset, nullptr);

    const double tol = k.order == 1 ? 1e-4 : 1e-7;
    auto runTo = [&](double from, double to) {
        double T = from;
        while (T < to - 1e-12) T += sys->simulate(T);
        EXPECT_NEAR(T, to, 1e-12);
        return sys->getDiffState()[0];
    };
    reset->setValue(true);
    const double first = runTo(0.0, 1.0);
    EXPECT_NEAR(first, std::exp(-1.0), tol);
    reset->setValue(false);  // either value resets
    EXPECT_EQ(sys->getDiffState()[0], 1.0);
    EXPECT_NEAR(runTo(1.0, 2.0), std::exp(-1.0), tol);

    // A reset of the whole system goes back to t = 0; the rerun repeats the first run bit
    // for bit, whatever the solver remembered from the later times.
    testblocks::clearTrace();
    sys->reset();
    reset->setValue(true);
    EXPECT_EQ(runTo(0.0, 1.0), first);
}

namespace {

// y1' = -y1, y2' = -1e4 y2 + 9999 y1 from y1 = y2 = 1: eigenvalues -1 and -1e4, and
// y1 = y2 = e^-t. A delay trigger loads the initial values at t = 0 and marks t = 10.
std::string stiffScheme(const std::string& solverBody) {
    testutil::SchemeText s;
    const int c = s.block("start", "wBlockConstantsDescriptor", "one = { value = 1 }",
                          "values = { { name = \"one\", type = 1 } }");
    const int d1 = s.block("slow", "wBlockSummatorDescriptor<double>", "", "inputs = { { name = \"y1\", coeff = -1 } }");
    const int d2 = s.block("fast", "wBlockSummatorDescriptor<double>", "",
                           "inputs = { { name = \"y1\", coeff = 9999 }, { name = \"y2\", coeff = -1e4 } }");
    const int y1 = s.block("y1", "wBlockIntegratorDescriptor<double>");
    const int y2 = s.block("y2", "wBlockIntegratorDescriptor<double>");
    const int t = s.block("start_trigger", "wBlockDelayTriggerDescriptor",
                          "dt = { value = 10 }, enabled = { value = false }, delay_time = { value = 0 }");
    s.outputWire(y1, "output", "y1", LEAD_DOUBLE);
    s.outputWire(y2, "output", "y2", LEAD_DOUBLE);
    s.wire(y1, "output", d1, "y1");
    s.wire(y1, "output", d2, "y1");
    s.wire(y2, "output", d2, "y2");
    s.wire(d1, "output", y1, "input");
    s.wire(d2, "output", y2, "input");
    s.wire(c, "one", y1, "output.initial");
    s.wire(c, "one", y2, "output.initial");
    s.port(t, "timed_out", kCmds, "reset_diff_state");
    s.solver(solverBody);
    return s.text();
}

}  // namespace

TEST(SolverStiff, CvodeCrossesAStiffPairInFewSteps) {
    const Kind& cvode = solvers::kinds()[3];
    const Kind& dopri = solvers::kinds()[2];
    ASSERT_EQ(cvode.typeName, "wSolverCvodeDescriptor");
    ASSERT_EQ(dopri.typeName, "wSolverDopri5Descriptor");

    auto run = [](const std::string& body, long long* steps) {
        testutil::Running r(stiffScheme(body));
        double T = 0;
        while (T < 10.0 - 1e-12) T += r.system->simulate(T);
        EXPECT_NEAR(T, 10.0, 1e-12);
        *steps = r.system->getSolver()->getStepCount();
        EXPECT_NEAR(r.system->getOutput<double>("y1"), std::exp(-10.0), 1e-4 * std::exp(-10.0));
        EXPECT_NEAR(r.system->getOutput<double>("y2"), std::exp(-10.0), 1e-4 * std::exp(-10.0));
        return r.system->getRhsEvaluationCount();
    };
    long long cvodeSteps = 0, dopriSteps = 0;
    const long long cvodeRhs = run(solvers::table(cvode, 10.0, 1e-7, 1e-12), &cvodeSteps);
    EXPECT_LT(cvodeSteps, 300);
    EXPECT_LT(cvodeRhs, 1000);
    // An explicit method is held to steps of about 2.8e-4 s by stability alone, accurate
    // or not: tens of thousands of steps for the same 10 s.
    run(solvers::table(dopri, 10.0, 1e-7, 1e-12), &dopriSteps);
    EXPECT_GT(dopriSteps, 100 * cvodeSteps);
}

namespace {

std::unique_ptr<wSimulationSystemScheme> loadExample(const char* name) {
    auto scheme = std::make_unique<wSimulationSystemScheme>();
    scheme->loadForRuntime(std::string(VANDREL_EXAMPLES_DIR) + "/" + name);
    return scheme;
}

double runUntil(wSimulationSystem& sys, double end) {
    double T = 0;
    while (T < end - 1e-9) T += sys.simulate(T);
    return T;
}

}  // namespace

TEST(SolverExamples, StiffOvenCrossesAnHourInFewCvodeSteps) {
    auto scheme = loadExample("stiff_thermal.lua");
    ASSERT_EQ(scheme->getOdeSolverDescriptor()->getTypeName(), "wSolverCvodeDescriptor");
    std::unique_ptr<wSimulationSystem> sys(scheme->instantiate());
    EXPECT_NEAR(runUntil(*sys, 3600), 3600, 1e-9);
    EXPECT_LT(sys->getSolver()->getStepCount(), 400);
    const double element = sys->getOutput<double>("element"), load = sys->getOutput<double>("load"),
                 sensor = sys->getOutput<double>("sensor");

    // The same scheme with a tightly controlled explicit method, which needs the small
    // steps that stability imposes.
    scheme->setOdeSolverDescriptor(solvers::make(solvers::kinds()[2], 60, 1e-10, 1e-10));
    std::unique_ptr<wSimulationSystem> reference(scheme->instantiate());
    runUntil(*reference, 3600);
    EXPECT_GT(reference->getSolver()->getStepCount(), 50 * sys->getSolver()->getStepCount());
    EXPECT_NEAR(element, reference->getOutput<double>("element"), 1e-3);
    EXPECT_NEAR(load, reference->getOutput<double>("load"), 1e-3);
    EXPECT_NEAR(sensor, reference->getOutput<double>("sensor"), 1e-3);
    // The oven is warming: element above load, the sensor a hair behind the load.
    EXPECT_GT(element, load);
    EXPECT_GT(load, 200.0);
    EXPECT_LT(load - sensor, 0.01);
    EXPECT_GT(load - sensor, 0.0);
}

TEST(SolverExamples, ProjectileFollowsTheClosedFormOfLinearDrag) {
    // v' = g - k v: v = g/k + (v0 - g/k) e^-kt, x = x0 + g t / k + (v0 - g/k)(1 - e^-kt) / k.
    auto scheme = loadExample("projectile.lua");
    ASSERT_EQ(scheme->getOdeSolverDescriptor()->getTypeName(), "wSolverDopri5Descriptor");
    std::unique_ptr<wSimulationSystem> sys(scheme->instantiate());
    const double T = runUntil(*sys, 3.0);
    const double k = 0.05, decay = std::exp(-k * T);
    const Vec3d g{0, 0, -9.81}, v0{17.320508075688775, 10, 15}, x0{0, 0, 1.5};
    const Vec3d drift = v0 - g * (1 / k);
    const Vec3d x = x0 + g * (T / k) + drift * ((1 - decay) / k);
    const Vec3d got = sys->getOutput<Vec3d>("position");
    for (int i = 0; i < 3; ++i) EXPECT_NEAR(got[i], x[i], 1e-6) << i;
    EXPECT_NEAR(sys->getOutput<double>("climb"), (g * (1 / k) + drift * decay)[2], 1e-6);
}
