// The simulation system end to end: scheme files loaded for running, instantiated and run
// the way a host does it.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <vector>

#include "runtime/RuntimeTestUtil.h"

namespace {

// u -> gain (k = 2) -> integrator -> sampler (every 0.25 s) -> y; the state is also an
// output, and the port "rst" resets it from x0 through the special-commands block.
// In "io" the I/O block's output leads are the scheme's inputs and its input leads the
// scheme's outputs.
const char* const kIntegratingScheme = R"(
simulation_scheme = {
  blocks = {
    { __name = "g", __type = "TestGain", __parameters = { k = { value = 2 } } },
    { __name = "i", __type = "TestIntegrator", __parameters = { } },
    { __name = "s", __type = "TestSampler", __parameters = { dt = { value = 0.25 } } },
  },
  solver = { __type = "wSolverExplEulerDescriptor", H = 0.1 },
  io = {
    inputWires = { { name = "y", type = 2 }, { name = "x", type = 2 } },
    inputPorts = { },
    outputWires = { { name = "u", type = 2 }, { name = "x0", type = 2 } },
    outputPorts = { { name = "rst", type = 1 } },
  },
  connections = {
    { output_block = -666, output_lead = "u", input_block = 0, input_lead = "in", port = false },
    { output_block = 0, output_lead = "out", input_block = 1, input_lead = "in", port = false },
    { output_block = -666, output_lead = "x0", input_block = 1, input_lead = "x.initial", port = false },
    { output_block = 1, output_lead = "x", input_block = 2, input_lead = "in", port = false },
    { output_block = 2, output_lead = "out", input_block = -666, input_lead = "y", port = false },
    { output_block = 1, output_lead = "x", input_block = -666, input_lead = "x", port = false },
    { output_block = -666, output_lead = "rst", input_block = -665, input_lead = "reset_diff_state", port = true },
  },
}
)";

// A counter and a sampler of u, both every 0.1 s.
const char* const kDiscreteScheme = R"(
simulation_scheme = {
  blocks = {
    { __name = "c", __type = "TestCounter", __parameters = { dt = { value = 0.1 } } },
    { __name = "s", __type = "TestSampler", __parameters = { dt = { value = 0.1 } } },
  },
  io = {
    inputWires = { { name = "n", type = 0 }, { name = "y", type = 2 } },
    inputPorts = { },
    outputWires = { { name = "u", type = 2 } },
    outputPorts = { },
  },
  connections = {
    { output_block = -666, output_lead = "u", input_block = 1, input_lead = "in", port = false },
    { output_block = 0, output_lead = "count", input_block = -666, input_lead = "n", port = false },
    { output_block = 1, output_lead = "out", input_block = -666, input_lead = "y", port = false },
  },
}
)";

}  // namespace

TEST(RuntimeFile, ContinuousStateIsIntegratedToEachEventAndSampled) {
    testblocks::registerAll();
    rt::Loaded file(kIntegratingScheme);
    auto system = file.scheme.instantiate();
    auto& sys = *system;
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
    rt::Loaded file(kDiscreteScheme);

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

    auto a = file.scheme.instantiate();
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
    rt::Loaded again(kDiscreteScheme);
    auto b = again.scheme.instantiate();
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
