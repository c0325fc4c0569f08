// End-to-end tests of the integrators and the ramp through scheme files.
#include <gtest/gtest.h>

#include <cmath>
#include <limits>

#include "support/SchemeFiles.h"
#include "vandrel/blocks/Integrator.h"

using testutil::kIO;
using testutil::Running;
using testutil::SchemeText;

namespace {

// Three ramps on one target, all with dt 0.1: slope 2, slope 0 and slope -1.
std::string rampScheme() {
    SchemeText s;
    const int up = s.block("up", "wBlockRampDescriptor", "dt = { value = 0.1 }, slope = { value = 2 }");
    const int flat = s.block("flat", "wBlockRampDescriptor", "dt = { value = 0.1 }, slope = { value = 0 }");
    const int away = s.block("away", "wBlockRampDescriptor", "dt = { value = 0.1 }, slope = { value = -1 }");
    s.inputWire("target", LEAD_DOUBLE);
    for (auto [index, name] : {std::pair{up, "up"}, std::pair{flat, "flat"}, std::pair{away, "away"}}) {
        s.outputWire(name, LEAD_DOUBLE);
        s.wire(kIO, "target", index, "target");
        s.wire(index, "output", kIO, name);
    }
    return s.text();
}

TEST(IntegratorRamp, RampStepsTowardsTargetAndLandsOnIt) {
    Running r(rampScheme());
    wSimulationSystem& sys = *r.system;
    sys.setInput<double>("target", 1.0);

    // Four full steps of dt * slope = 0.2, then the gap is not above 0.2: copy the target.
    double T = 0.0;
    const double expectedUp[] = {0.2, 0.4, 0.6, 0.8};
    for (int i = 0; i < 4; ++i) {
        EXPECT_DOUBLE_EQ(sys.simulate(T), 0.1);
        EXPECT_NEAR(sys.getOutput<double>("up"), expectedUp[i], 1e-12) << "update " << i + 1;
        // Slope 0: never moves towards a target it is not already on.
        EXPECT_EQ(sys.getOutput<double>("flat"), 0.0);
        // Negative slope: a negative threshold, so every update steps, away from the target.
        EXPECT_NEAR(sys.getOutput<double>("away"), -0.1 * (i + 1), 1e-12);
        T += 0.1;
    }
    for (int i = 0; i < 3; ++i) {
        sys.simulate(T);
        EXPECT_EQ(sys.getOutput<double>("up"), 1.0);  // exactly, and it stays
        T += 0.1;
    }
    EXPECT_NEAR(sys.getOutput<double>("away"), -0.7, 1e-12);

    // A target equal to the output: slope 0 "reaches" it at once; a NaN is copied through.
    sys.setInput<double>("target", 0.0);
    sys.simulate(T);
    T += 0.1;
    EXPECT_EQ(sys.getOutput<double>("flat"), 0.0);
    sys.setInput<double>("target", std::numeric_limits<double>::quiet_NaN());
    sys.simulate(T);
    EXPECT_TRUE(std::isnan(sys.getOutput<double>("up")));
    EXPECT_TRUE(std::isnan(sys.getOutput<double>("flat")));
    EXPECT_TRUE(std::isnan(sys.getOutput<double>("away")));

    // No state, but an empty saveable one.
    EXPECT_EQ(sys.getSchemeStateDataSize(), 0);
    zo::vector<unsigned char> blob{1, 2, 3};
    EXPECT_TRUE(sys.getSchemeStateData(&blob));
    EXPECT_TRUE(blob.empty());
}

// Scalar integrator x' = u from x0, vector integrator p' = v from p0, explicit Euler with
// step H, and a scheme input port "reset" wired to the special command.
std::string integratorScheme(double H) {
    SchemeText s;
    const int x = s.block("x", "wBlockIntegratorDescriptor<double>");
    const int p = s.block("p", "wBlockIntegratorDescriptor<Vec3d>");
    s.solver("__type = \"wSolverExplEulerDescriptor\", H = " + std::to_string(H));
    s.inputWire("u", LEAD_DOUBLE);
    s.inputWire("x0", LEAD_DOUBLE);
    s.inputWire("v", LEAD_VECTOR);
    s.inputWire("p0", LEAD_VECTOR);
    s.inputPort("reset", LEAD_BOOL);
    s.outputWire("x", LEAD_DOUBLE);
    s.outputWire("p", LEAD_VECTOR);
    s.wire(kIO, "u", x, "input");
    s.wire(kIO, "x0", x, "output.initial");
    s.wire(kIO, "v", p, "input");
    s.wire(kIO, "p0", p, "output.initial");
    s.wire(x, "output", kIO, "x");
    s.wire(p, "output", kIO, "p");
    s.port(kIO, "reset", wSimulationSystemScheme::kSpecialCommandsIndex, "reset_diff_state");
    return s.text();
}

TEST(IntegratorRamp, IntegratorsAccumulateHTimesInputPerStep) {
    // A step and inputs that are exact in binary, so n steps give n * h * c exactly.
    const double h = 0.125;
    Running r(integratorScheme(h));
    wSimulationSystem& sys = *r.system;
    const double c = 2.5;
    const Vec3d v{1.0, -2.0, 0.5};
    sys.setInput<double>("u", c);
    sys.setInput<Vec3d>("v", v);

    double T = 0.0;
    for (int n = 1; n <= 8; ++n) {
        // Without discrete blocks each call integrates one solver step and returns it.
        EXPECT_EQ(sys.simulate(T), h);
        T += h;
        EXPECT_EQ(sys.getOutput<double>("x"), n * h * c);
        const Vec3d pos = sys.getOutput<Vec3d>("p");
        EXPECT_EQ(pos.x, n * h * v.x);
        EXPECT_EQ(pos.y, n * h * v.y);
        EXPECT_EQ(pos.z, n * h * v.z);
    }
}

TEST(IntegratorRamp, ResetCommandLoadsTheInitialValues) {
    const double h = 0.25;
    Running r(integratorScheme(h));
    wSimulationSystem& sys = *r.system;
    sys.setInput<double>("u", 1.0);
    sys.setInput<double>("x0", 10.0);
    sys.setInput<Vec3d>("v", Vec3d{1, 2, 3});
    sys.setInput<Vec3d>("p0", Vec3d{-1, 0, 4});

    // The state starts at zero, not at the initial value: only a reset loads it.
    sys.simulate(0.0);
    EXPECT_EQ(sys.getOutput<double>("x"), h);

    testutil::sendToInput<bool>(sys, "reset", true);
    EXPECT_EQ(sys.getDiffState()[0], 10.0);
    sys.simulate(h);
    EXPECT_EQ(sys.getOutput<double>("x"), 10.0 + h);
    EXPECT_EQ(sys.getOutput<Vec3d>("p"), (Vec3d{-1 + h, 2 * h, 4 + 3 * h}));

    // false resets just as well.
    sys.setInput<double>("x0", -3.0);
    testutil::sendToInput<bool>(sys, "reset", false);
    sys.simulate(2 * h);
    EXPECT_EQ(sys.getOutput<double>("x"), -3.0 + h);
    EXPECT_EQ(sys.getOutput<Vec3d>("p"), (Vec3d{-1 + h, 2 * h, 4 + 3 * h}));
}

TEST(IntegratorRamp, EachIntegratorClassHasItsOwnInitialValueWire) {
    // Ask the vector class first: the scalar list must not follow it.
    const wLeadList& vl = wBlockIntegratorDescriptor<Vec3d>().getInputWires();
    const wLeadList& sl = wBlockIntegratorDescriptor<double>().getInputWires();
    EXPECT_EQ(vl[1], (wLeadDescription{"output.initial", LEAD_VECTOR}));
    EXPECT_EQ(sl[1], (wLeadDescription{"output.initial", LEAD_DOUBLE}));
}

TEST(IntegratorRamp, SaveAndReloadKeepsEverything) {
    SchemeText s;
    const int ramp = s.block("ramp", "wBlockRampDescriptor", "dt = { value = 0.25 }, slope = { value = -3.5 }");
    s.block("x", "wBlockIntegratorDescriptor<double>");
    s.block("p", "wBlockIntegratorDescriptor<Vec3d>");
    s.solver("__type = \"wSolverExplEulerDescriptor\", H = 0.5");
    s.inputWire("t", LEAD_DOUBLE);
    s.inputWire("u", LEAD_DOUBLE);
    s.inputWire("v", LEAD_VECTOR);
    s.wire(kIO, "t", ramp, "target");
    s.wire(kIO, "u", 1, "input");
    s.wire(kIO, "u", 1, "output.initial");
    s.wire(kIO, "v", 2, "input");
    s.wire(kIO, "v", 2, "output.initial");

    auto scheme = testutil::saveAndReload(s.text());
    EXPECT_EQ(testutil::parametersOf(*scheme, "ramp"), "dt=0.25, slope=-3.5");
    EXPECT_EQ(scheme->getBlockByName("p")->getClassName(), "wBlockIntegratorDescriptor<Vec3d>");
    EXPECT_EQ(scheme->getConnections().size(), 5u);
}

}  // namespace
