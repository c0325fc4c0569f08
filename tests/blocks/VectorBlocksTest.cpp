// Vector and quaternion blocks through real scheme files.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cmath>
#include <numbers>
#include <string>

#include "support/SchemeFiles.h"
#include "vandrel/blocks/VectorBlocks.h"

using testutil::kIO;
using testutil::Running;
using testutil::SchemeText;

namespace {

constexpr double kPi = std::numbers::pi;

std::string params(const std::vector<std::pair<std::string, std::string>>& values) {
    std::string s;
    for (const auto& [name, v] : values) s += name + " = { value = " + v + " }, ";
    return s;
}

std::string mults(const char* x, const char* y, const char* z) {
    return params({{"mult_x", x}, {"mult_y", y}, {"mult_z", z}});
}

void expectNear(const Vec3d& got, const Vec3d& want) {
    EXPECT_NEAR(got.x, want.x, 1e-12);
    EXPECT_NEAR(got.y, want.y, 1e-12);
    EXPECT_NEAR(got.z, want.z, 1e-12);
}

void expectNear(const Rot3d& got, const Rot3d& want) {
    EXPECT_NEAR(got.x, want.x, 1e-12);
    EXPECT_NEAR(got.y, want.y, 1e-12);
    EXPECT_NEAR(got.z, want.z, 1e-12);
    EXPECT_NEAR(got.w, want.w, 1e-12);
}

Rot3d ypr(double yaw, double pitch, double roll) {
    Rot3d q;
    q.setYawPitchRoll(yaw, pitch, roll);
    return q;
}

// Scheme: one "Vector modify" block named m between scheme input "v" and output "out".
std::string modifyScheme(const std::string& parameters) {
    SchemeText s;
    const int m = s.block("m", "wVec3dModDescriptor", parameters);
    s.inputWire("v", LEAD_VECTOR);
    s.outputWire("out", LEAD_VECTOR);
    s.wire(kIO, "v", m, "vec");
    s.wire(m, "mvec", kIO, "out");
    return s.text();
}

}  // namespace

TEST(VectorBlocks, ConversionsScalePerComponent) {
    SchemeText s;
    const int v2d = s.block("v2d", "wVec3dToDoubleDescriptor", mults("1", "-1", "2"));
    const int d2v = s.block("d2v", "wDoubleToVec3dDescriptor", mults("2", "3", "-4"));
    s.inputWire("vec", LEAD_VECTOR);
    s.wire(kIO, "vec", v2d, "vec");
    // The round trip: vec -> (x, y, z) -> vec again.
    for (const char* c : {"x", "y", "z"}) {
        s.wire(v2d, c, d2v, c);
        s.outputWire(c, LEAD_DOUBLE);
        s.wire(v2d, c, kIO, c);
    }
    s.outputWire("back", LEAD_VECTOR);
    s.wire(d2v, "vec", kIO, "back");
    Running r(s.text());
    r.system->setInput<Vec3d>("vec", {1, 2, 3});
    r.system->simulate(0);
    EXPECT_EQ(r.system->getOutput<double>("x"), 1);
    EXPECT_EQ(r.system->getOutput<double>("y"), -2);
    EXPECT_EQ(r.system->getOutput<double>("z"), 6);
    EXPECT_EQ(r.system->getOutput<Vec3d>("back"), (Vec3d{2, -6, -24}));

    // Infinities pass through by the floating-point rules.
    r.system->setInput<Vec3d>("vec", {INFINITY, 0, -1});
    r.system->simulate(1);
    EXPECT_EQ(r.system->getOutput<double>("x"), INFINITY);
    EXPECT_EQ(r.system->getOutput<Vec3d>("back").x, INFINITY);
}

TEST(VectorBlocks, DemuxPicksByIndexFixedAtCreation) {
    SchemeText s;
    const char* const indices[] = {"0", "1", "2", "7", "-1", "3"};
    s.inputWire("v", LEAD_VECTOR);
    for (int i = 0; i < 6; ++i) {
        const std::string name = std::string("pick") + indices[i];
        const int b = s.block(name, "wBlockVectorPickerDescriptor", params({{"index", indices[i]}}));
        s.wire(kIO, "v", b, "input");
        s.outputWire(name, LEAD_DOUBLE);
        s.wire(b, "output", kIO, name);
    }
    Running r(s.text());
    r.system->setInput<Vec3d>("v", {-1.5, 2.25, 3.125});
    r.system->simulate(0);
    EXPECT_EQ(r.system->getOutput<double>("pick0"), -1.5);
    EXPECT_EQ(r.system->getOutput<double>("pick1"), 2.25);
    EXPECT_EQ(r.system->getOutput<double>("pick2"), 3.125);
    EXPECT_EQ(r.system->getOutput<double>("pick7"), -1.5);
    EXPECT_EQ(r.system->getOutput<double>("pick-1"), -1.5);
    EXPECT_EQ(r.system->getOutput<double>("pick3"), -1.5);

    // Changing the index later does not change a running block.
    auto* d = dynamic_cast<wBlockVectorPickerDescriptor*>(r.scheme->getBlockByName("pick2"));
    ASSERT_NE(d, nullptr);
    EXPECT_EQ(d->component(), 2);
    d->index.set(0);
    r.system->setInput<Vec3d>("v", {1, 2, 4});
    r.system->simulate(1);
    EXPECT_EQ(r.system->getOutput<double>("pick2"), 4);
}

TEST(VectorBlocks, VectorModifyRotatesThenScales) {
    {
        // Unit multipliers, no rotation: the input unchanged.
        Running r(modifyScheme(mults("1", "1", "1") +
                                          params({{"rotate_x", "0"}, {"rotate_y", "0"}, {"rotate_z", "0"}})));
        r.system->setInput<Vec3d>("v", {1.5, -2, 1e-300});
        r.system->simulate(0);
        EXPECT_EQ(r.system->getOutput<Vec3d>("out"), (Vec3d{1.5, -2, 1e-300}));
    }
    {
        // A quarter turn about Z takes x to y; scaling comes after the rotation.
        Running r(modifyScheme(mults("1", "2", "3") +
                                          params({{"rotate_x", "0"}, {"rotate_y", "0"}, {"rotate_z", "math.pi / 2"}})));
        r.system->setInput<Vec3d>("v", {1, 0, 0});
        r.system->simulate(0);
        expectNear(r.system->getOutput<Vec3d>("out"), {0, 2, 0});
        r.system->setInput<Vec3d>("v", {0, 1, 5});
        r.system->simulate(1);
        expectNear(r.system->getOutput<Vec3d>("out"), {-1, 0, 15});
    }
    {
        // About X first, then Z: y goes to z (and Z leaves it), x goes to y.
        Running r(modifyScheme(mults("1", "1", "1") + params({{"rotate_x", "math.pi / 2"},
                                                                          {"rotate_y", "0"},
                                                                          {"rotate_z", "math.pi / 2"}})));
        r.system->setInput<Vec3d>("v", {0, 1, 0});
        r.system->simulate(0);
        expectNear(r.system->getOutput<Vec3d>("out"), {0, 0, 1});
        r.system->setInput<Vec3d>("v", {1, 0, 0});
        r.system->simulate(1);
        expectNear(r.system->getOutput<Vec3d>("out"), {0, 1, 0});
    }
    {
        // A half turn about Y on its own.
        Running r(modifyScheme(mults("1", "1", "1") +
                                          params({{"rotate_x", "0"}, {"rotate_y", "math.pi"}, {"rotate_z", "0"}})));
        r.system->setInput<Vec3d>("v", {1, 2, 3});
        r.system->simulate(0);
        expectNear(r.system->getOutput<Vec3d>("out"), {-1, 2, -3});
    }
}

TEST(VectorBlocks, RotatorAddsToTheRollAndWrapsOnce) {
    SchemeText s;
    const int rot = s.block("rot", "wRotatorBlockDescriptor",
                            params({{"rotate_x", "false"}, {"rotate_y", "false"}, {"rotate_z", "false"}}));
    // The flags have no effect.
    const int flagged = s.block("flagged", "wRotatorBlockDescriptor",
                                params({{"rotate_x", "true"}, {"rotate_y", "false"}, {"rotate_z", "true"}}));
    s.inputWire("q", LEAD_QUATERNION);
    s.inputWire("angle", LEAD_DOUBLE);
    s.outputWire("out", LEAD_QUATERNION);
    s.outputWire("out2", LEAD_QUATERNION);
    for (int b : {rot, flagged}) {
        s.wire(kIO, "q", b, "rot");
        s.wire(kIO, "angle", b, "angle");
    }
    s.wire(rot, "out", kIO, "out");
    s.wire(flagged, "out", kIO, "out2");
    Running r(s.text());
    wSimulationSystem& sys = *r.system;

    // 3.0 + 0.5 passes pi and comes back as 3.5 - 2 pi. Which of q and -q comes out
    // tells the wrapped roll from the unwrapped one.
    sys.setInput<Rot3d>("q", ypr(0.2, 0.1, 3.0));
    sys.setInput<double>("angle", 0.5);
    sys.simulate(0);
    const Rot3d out = sys.getOutput<Rot3d>("out");
    expectNear(out, ypr(0.2, 0.1, 3.5 - 2 * kPi));
    expectNear(out.getYawPitchRoll(), {0.2, 0.1, 3.5 - 2 * kPi});
    EXPECT_EQ(sys.getOutput<Rot3d>("out2"), out);

    // Below -pi: one correction upwards.
    sys.setInput<Rot3d>("q", ypr(-1.0, -0.3, -3.0));
    sys.setInput<double>("angle", -0.5);
    sys.simulate(1);
    expectNear(sys.getOutput<Rot3d>("out"), ypr(-1.0, -0.3, -3.5 + 2 * kPi));

    // Inside (-pi, pi): no correction.
    sys.setInput<Rot3d>("q", ypr(0.5, 0.25, 1.0));
    sys.setInput<double>("angle", -2.0);
    sys.simulate(2);
    expectNear(sys.getOutput<Rot3d>("out"), ypr(0.5, 0.25, -1.0));

    // A single correction, not a modulo: -10 becomes -10 + 2 pi, not -10 + 4 pi.
    sys.setInput<Rot3d>("q", ypr(0.0, 0.0, 0.0));
    sys.setInput<double>("angle", -10.0);
    sys.simulate(3);
    expectNear(sys.getOutput<Rot3d>("out"), ypr(0.0, 0.0, -10.0 + 2 * kPi));
}

TEST(VectorBlocks, SaveAndReload) {
    SchemeText s;
    s.block("d2v", "wDoubleToVec3dDescriptor", mults("1.5", "-2", "1e-9"));
    s.block("v2d", "wVec3dToDoubleDescriptor", mults("0.1", "0.2", "0.3"));
    s.block("demux", "wBlockVectorPickerDescriptor", params({{"index", "2"}}));
    s.block("mod", "wVec3dModDescriptor",
            mults("3", "4", "5") + params({{"rotate_x", "0.25"}, {"rotate_y", "-1"}, {"rotate_z", "math.pi"}}));
    s.block("rot", "wRotatorBlockDescriptor",
            params({{"rotate_x", "true"}, {"rotate_y", "false"}, {"rotate_z", "true"}}));
    auto scheme = testutil::saveAndReload(s.text());
    EXPECT_EQ(testutil::parametersOf(*scheme, "d2v"), "mult_x=1.5, mult_y=-2, mult_z=1e-09");
    EXPECT_EQ(testutil::parametersOf(*scheme, "v2d"), "mult_x=0.1, mult_y=0.2, mult_z=0.3");
    EXPECT_EQ(testutil::parametersOf(*scheme, "demux"), "index=2");
    EXPECT_EQ(testutil::parametersOf(*scheme, "rot"), "rotate_x=1, rotate_y=0, rotate_z=1");
    auto* mod = dynamic_cast<wVec3dModDescriptor*>(scheme->getBlockByName("mod"));
    ASSERT_NE(mod, nullptr);
    EXPECT_EQ(mod->mult_z.get(), 5);
    EXPECT_EQ(mod->rotate_z.get(), kPi);  // bit-exact through the file
}
