// The simulation system end to end: scheme files loaded for running, instantiated and run
// the way a host does it.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <vector>

#include "runtime/RuntimeTestUtil.h"
#include "support/SchemeFiles.h"

namespace {

using testutil::kIO;

// u -> gain (k = 2) -> integrator -> sampler (every 0.25 s) -> y; the state is also an
// output, and the port "rst" resets it from x0 through the special-commands block.
std::string integratingScheme() {
    testutil::SchemeText s;
    const int g = s.block("g", "TestGain", "k = { value = 2 }");
    const int i = s.block("i", "TestIntegrator");
    const int smp = s.block("s", "TestSampler", "dt = { value = 0.25 }");
    s.solver(R"(__type = "wSolverExplEulerDescriptor", H = 0.1)");
    s.inputWire("u", LEAD_DOUBLE);
    s.inputWire("x0", LEAD_DOUBLE);
    s.inputPort("rst", LEAD_BOOL);
    s.outputWire("y", LEAD_DOUBLE);
    s.outputWire("x", LEAD_DOUBLE);
    s.wire(kIO, "u", g, "in");
    s.wire(g, "out", i, "in");
    s.wire(kIO, "x0", i, "x.initial");
    s.wire(i, "x", smp, "in");
    s.wire(smp, "out", kIO, "y");
    s.wire(i, "x", kIO, "x");
    s.port(kIO, "rst", testutil::kCmds, "reset_diff_state");
    return s.text();
}

// A counter and a sampler of u, both every 0.1 s.
std::string discreteScheme() {
    testutil::SchemeText s;
    const int c = s.block("c", "TestCounter", "dt = { value = 0.1 }");
    const int smp = s.block("s", "TestSampler", "dt = { value = 0.1 }");
    s.inputWire("u", LEAD_DOUBLE);
    s.outputWire("n", LEAD_INT);
    s.outputWire("y", LEAD_DOUBLE);
    s.wire(kIO, "u", smp, "in");
    s.wire(c, "count", kIO, "n");
    s.wire(smp, "out", kIO, "y");
    return s.text();
}

}  // namespace

TEST(RuntimeFile, ContinuousStateIsIntegratedToEachEventAndSampled) {
    testblocks::registerAll();
    testutil::Running file(integratingScheme());
    auto& sys = *file.system;
    const double u = 1.5;
    sys.setInput<double>("u", u);

    double T = 0;
    for (int k = 0; k < 8; ++k) {
        const double next = sys.simulate(T);
        EXPECT_DOUBLE_EQ(next, 0.25) << k;
        // The sampler saw the state at T; the state itself is integrated on to T + next.
        EXPECT_NEAR(sys.getOutput<double>("y"), 2 * u * T, 1e-12) << k;
        EXPECT_NEAR(sys.getOutput<double>("x"), 2 * u * (T + next), 1e-12) << k;
        T += next;
    }

    // The command port, reached through the special-commands block of the file.
    sys.setInput<double>("x0", 100.0);
    dynamic_cast<wInputPort<bool>&>(*sys.getInputPort("rst")).setValue(false);
    EXPECT_EQ(sys.getOutput<double>("x"), 100.0);
    T += sys.simulate(T);
    EXPECT_NEAR(sys.getOutput<double>("y"), 100.0, 1e-12);
}

TEST(RuntimeFile, RestoredStateContinuesBitForBit) {
    testblocks::registerAll();
    testutil::Running file(discreteScheme());

    struct Out {
        int n;
        double y;
        double next;
    };
    auto step = [](wSimulationSystem& sys, double T, int k) {
        sys.setInput<double>("u", std::sin(0.7 * k) * 1e3 + 1.0 / 3.0);
        const double next = sys.simulate(T);
        return Out{sys.getOutput<int>("n"), sys.getOutput<double>("y"), next};
    };

    auto& a = file.system;
    double T = 0;
    int k = 0;
    for (; k < 7; ++k) T += step(*a, T, k).next;
    zo::vector<unsigned char> blob;
    ASSERT_TRUE(a->getSchemeStateData(&blob));
    ASSERT_EQ(blob.size(), 12u);
    const double queueTime = a->getSchemeQueueTime();
    const double t1 = T;
    const int k1 = k;
    std::vector<Out> expected;
    for (; k < 15; ++k) {
        expected.push_back(step(*a, T, k));
        T += expected.back().next;
    }

    // A second system from a second load, as after a restart of the host.
    testutil::Running again(discreteScheme());
    auto& b = again.system;
    b->setSchemeStateData(&blob);
    b->setSchemeQueueTime(queueTime);
    T = t1;
    for (k = k1; k < 15; ++k) {
        const Out got = step(*b, T, k);
        const Out& want = expected[static_cast<std::size_t>(k - k1)];
        EXPECT_EQ(got.n, want.n) << k;
        EXPECT_EQ(std::memcmp(&got.y, &want.y, sizeof(double)), 0) << k;
        EXPECT_EQ(std::memcmp(&got.next, &want.next, sizeof(double)), 0) << k;
        T += got.next;
    }
    zo::vector<unsigned char> blobA, blobB;
    ASSERT_TRUE(a->getSchemeStateData(&blobA));
    ASSERT_TRUE(b->getSchemeStateData(&blobB));
    EXPECT_EQ(blobA, blobB);
}
