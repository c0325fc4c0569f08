// The stateless blocks through real scheme files: logic gates, aggregates, conversions,
// constants and vector blocks, their saved settings and their reading errors.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <climits>
#include <cmath>
#include <numbers>

#include "blocks/BlockTestUtil.h"
#include "vandrel/blocks/Aggregates.h"
#include "vandrel/blocks/Conversions.h"
#include "vandrel/blocks/VectorBlocks.h"

namespace {

using blocktest::Bench;
using blocktest::inputs;
using blocktest::params;
using testutil::Running;
using testutil::SchemeText;
constexpr double kPi = std::numbers::pi;

void expectNear(const Vec3d& got, const Vec3d& want) {
    for (int i = 0; i < 3; ++i) EXPECT_NEAR(got[i], want[i], 1e-12) << i;
}

Rot3d ypr(double yaw, double pitch, double roll) {
    Rot3d q;
    q.setYawPitchRoll(yaw, pitch, roll);
    return q;
}

TEST(StatelessBlocks, LogicGatesAndScalarConversions) {
    Bench b;
    b.add("and3", "wBlockANDDescriptor", "", inputs({"p", "q", "r"}));
    b.add("or3", "wBlockORDescriptor", "", inputs({"p", "q", "r"}));
    b.add("not", "wBlockNOTDescriptor");
    b.add("and1", "wBlockANDDescriptor", "", inputs({"p"}));  // one input (or none): false
    b.add("or1", "wBlockORDescriptor", "", inputs({"p"}));
    b.add("and0", "wBlockANDDescriptor", "", "inputs = {}");
    for (const char* c : {"int CMA double", "int CMA bool", "double CMA bool", "bool CMA int", "bool CMA double"})
        b.add(c, std::string("wBlockI2ODescriptor<") + c + ">");
    Running r(b.s.text());
    wSimulationSystem& sys = *r.system;
    // a, b, c -> and3, or3; a also feeds not, and1, or1; then the conversions.
    const bool rows[][5] = {{1, 1, 0, 0, 1}, {1, 1, 1, 1, 1}, {0, 0, 1, 0, 1}, {0, 0, 0, 0, 0}, {1, 0, 1, 0, 1}, {0, 1, 0, 0, 1}};
    double t = 0;
    for (const auto& row : rows) {
        for (const char* g : {"and3", "or3"})
            for (int i = 0; i < 3; ++i) sys.setInput<bool>(std::string(g) + "." + "pqr"[i], row[i]);
        for (const char* g : {"not.input", "and1.p", "or1.p"}) sys.setInput<bool>(g, row[0]);
        sys.simulate(t += 0.1);
        EXPECT_EQ(sys.getOutput<bool>("and3.output"), row[3]);
        EXPECT_EQ(sys.getOutput<bool>("or3.output"), row[4]);
        EXPECT_EQ(sys.getOutput<bool>("not.output"), !row[0]);
        EXPECT_FALSE(sys.getOutput<bool>("and1.output") || sys.getOutput<bool>("or1.output") ||
                     sys.getOutput<bool>("and0.output"));
    }
    // Any non-zero byte on a wire reads as true.
    writeWire<unsigned char>(sys.getDataPtr(), sys.getInputWireOffset("not.input"), 0x80);
    sys.simulate(t += 0.1);
    EXPECT_FALSE(sys.getOutput<bool>("not.output"));

    for (int in : {-5, 1, 0, INT_MIN, INT_MAX}) {
        sys.setInput<int>("int CMA double.input", in);
        sys.setInput<int>("int CMA bool.input", in);
        sys.simulate(t += 1);
        EXPECT_EQ(sys.getOutput<double>("int CMA double.output"), static_cast<double>(in));
        EXPECT_EQ(sys.getOutput<bool>("int CMA bool.output"), in > 0) << in;
    }
    const double inf = HUGE_VAL;
    for (double in : {0.0001, -0.0, 0.0, std::nan(""), -3.0, inf, -inf, 4.9e-324}) {
        sys.setInput<double>("double CMA bool.input", in);
        sys.simulate(t += 1);
        EXPECT_EQ(sys.getOutput<bool>("double CMA bool.output"), in > 0) << in;
    }
    for (bool in : {true, false}) {
        sys.setInput<bool>("bool CMA int.input", in);
        sys.setInput<bool>("bool CMA double.input", in);
        sys.simulate(t += 1);
        EXPECT_EQ(sys.getOutput<int>("bool CMA int.output"), in ? 1 : 0);
        EXPECT_EQ(sys.getOutput<double>("bool CMA double.output"), in ? 1.0 : 0.0);
    }
    testutil::LogCapture log(3);  // each gate logs its step at trace level
    sys.simulate(t = 99.25);
    EXPECT_NE(log.text().find("wBlockAND<0>(99.25)\n"), std::string::npos) << log.text();
}

TEST(StatelessBlocks, TriggerGatesPushOnEveryArrival) {
    SchemeText s;
    const int andT = s.block("andT", "wBlockANDtriggerDescriptor");
    const int orT = s.block("orT", "wBlockORtriggerDescriptor");
    const int notT = s.block("notT", "wBlockNOTtriggerDescriptor");
    s.inputPort("p1", LEAD_BOOL);
    s.inputPort("p2", LEAD_BOOL);
    for (int g : {andT, orT}) {
        s.port(testutil::kIO, "p1", g, "input1");
        s.port(testutil::kIO, "p2", g, "input2");
        s.outputPort(g == andT ? "and" : "or", LEAD_BOOL);
        s.port(g, "output", testutil::kIO, g == andT ? "and" : "or");
    }
    s.port(testutil::kIO, "p1", notT, "input");
    Running r(s.text());
    testutil::PortRecorder<bool> andRx, orRx, notRx[2];
    andRx.listen(*r.system, "and");
    orRx.listen(*r.system, "or");
    for (auto& rx : notRx) r.block("notT")->getOutputPort("output")->connect(rx.port());
    EXPECT_EQ(r.block("notT")->getOutputPort("input"), nullptr);
    EXPECT_EQ(r.block("andT")->getInputPort("input3"), nullptr);
    r.system->simulate(0);  // the trigger gates do nothing in a step
    EXPECT_TRUE(andRx.take().empty());
    const std::pair<const char*, bool> arrivals[] = {{"p1", true}, {"p2", true}, {"p2", true}, {"p2", false}, {"p1", false}};
    for (const auto& [port, v] : arrivals) testutil::sendToInput(*r.system, port, v);
    EXPECT_EQ(andRx.take(), (std::vector<bool>{false, true, true, false, false}));  // nothing yet is false
    EXPECT_EQ(orRx.take(), (std::vector<bool>{true, true, true, true, false}));
    for (auto& rx : notRx) EXPECT_EQ(rx.take(), (std::vector<bool>{false, true}));
}

TEST(StatelessBlocks, AggregatesOfEachType) {
    Bench b;
    b.add("sd", "wBlockSummatorDescriptor<double>", "", inputs({"p", "q"}, {"2", "3"}));
    b.add("si", "wBlockSummatorDescriptor<int>", "", inputs({"i", "j", "k"}, {"2", "-3", "1"}));
    b.add("sv", "wBlockSummatorDescriptor<Vec3d>", "", inputs({"u", "v"}, {"2", "-0.5"}));
    for (const char* t : {"double", "int", "Vec3d"}) {
        b.add(std::string("avg_") + t, std::string("wBlockAvgerageValDescriptor<") + t + ">", "",
              inputs({"x1", "w1", "x2", "w2"}));
        for (const char* m : {"Max", "Min"})
            b.add(std::string(m) + t, std::string("wBlock") + m + "ValDescriptor<" + t + ">", "",
                  inputs({"v1", "e1", "v2", "e2", "v3", "e3"}));
    }
    Running r(b.s.text());
    wSimulationSystem& sys = *r.system;
    auto set = [&](const char* block, std::initializer_list<double> values, std::initializer_list<bool> flags) {
        int i = 1;
        for (double v : values) {
            const std::string n = std::string(block) + ".v" + std::to_string(i);
            if (std::string(block).ends_with("int")) sys.setInput<int>(n, static_cast<int>(v));
            else if (std::string(block).ends_with("Vec3d")) sys.setInput<Vec3d>(n, {v, -v, 2.0 * i});
            else sys.setInput<double>(n, v);
            ++i;
        }
        i = 1;
        for (bool f : flags) sys.setInput<bool>(std::string(block) + ".e" + std::to_string(i++), f);
    };
    sys.setInput<double>("sd.p", 2.5);
    sys.setInput<double>("sd.q", -1.0);
    sys.setInput<int>("si.i", INT_MAX);  // the int sum wraps around: 2 * INT_MAX + 2 = 2^32
    sys.setInput<int>("si.k", 2);
    sys.setInput<Vec3d>("sv.u", {1, 2, 3});
    sys.setInput<Vec3d>("sv.v", {4, -2, 10});
    sys.setInput<double>("avg_double.x1", 10);
    sys.setInput<double>("avg_double.x2", 20);
    sys.setInput<int>("avg_double.w1", 1);
    sys.setInput<int>("avg_double.w2", 3);
    sys.setInput<int>("avg_int.x1", -10);
    sys.setInput<int>("avg_int.x2", -21);
    sys.setInput<int>("avg_int.w1", 1);
    sys.setInput<int>("avg_int.w2", 1);
    sys.setInput<Vec3d>("avg_Vec3d.x1", {4, 0, -4});
    sys.setInput<Vec3d>("avg_Vec3d.x2", {0, 8, 4});
    sys.setInput<int>("avg_Vec3d.w1", 3);
    sys.setInput<int>("avg_Vec3d.w2", 1);
    for (const char* m : {"Maxdouble", "Mindouble", "MaxVec3d", "MinVec3d"}) set(m, {5, 9, 7}, {true, true, true});
    for (const char* m : {"Maxint", "Minint"}) set(m, {-8, -3, 100}, {true, true, false});
    sys.simulate(0);
    EXPECT_DOUBLE_EQ(sys.getOutput<double>("sd.output"), 2.0);
    EXPECT_EQ(sys.getOutput<int>("si.output"), 0);
    expectNear(sys.getOutput<Vec3d>("sv.output"), {0, 5, 1});
    EXPECT_DOUBLE_EQ(sys.getOutput<double>("avg_double.output"), 17.5);
    EXPECT_EQ(sys.getOutput<int>("avg_int.output"), -15);  // computed in double, truncated toward zero
    expectNear(sys.getOutput<Vec3d>("avg_Vec3d.output"), {3, 2, -2});
    EXPECT_EQ(sys.getOutput<double>("Maxdouble.output"), 9);
    EXPECT_EQ(sys.getOutput<double>("Mindouble.output"), 5);
    EXPECT_EQ(sys.getOutput<int>("Maxint.output"), -3);  // "no input yet" does not count as 0
    EXPECT_EQ(sys.getOutput<int>("Minint.output"), -8);
    expectNear(sys.getOutput<Vec3d>("MaxVec3d.output"), {9, -5, 6});  // per component
    expectNear(sys.getOutput<Vec3d>("MinVec3d.output"), {5, -9, 2});

    // A negative weight leaves its pair out; no positive weight gives 0; no enabled input 0.
    sys.setInput<int>("avg_double.w1", -1);
    sys.setInput<int>("avg_int.w1", INT_MAX);  // large values and weights do not overflow
    sys.setInput<int>("avg_int.w2", INT_MAX);
    sys.setInput<int>("avg_int.x1", INT_MAX);
    sys.setInput<int>("avg_int.x2", INT_MAX);
    sys.setInput<int>("avg_Vec3d.w1", 0);
    sys.setInput<int>("avg_Vec3d.w2", -2);
    sys.setInput<double>("sd.q", 4.0);
    for (const char* m : {"Maxdouble", "Mindouble"}) set(m, {5, 9, 7}, {true, false, true});
    for (const char* m : {"MaxVec3d", "Minint"}) set(m, {1, 2, 3}, {false, false, false});
    sys.simulate(1);
    EXPECT_DOUBLE_EQ(sys.getOutput<double>("sd.output"), 17.0);
    EXPECT_DOUBLE_EQ(sys.getOutput<double>("avg_double.output"), 20);
    EXPECT_EQ(sys.getOutput<int>("avg_int.output"), INT_MAX);
    EXPECT_EQ(sys.getOutput<Vec3d>("avg_Vec3d.output"), Vec3d{});
    EXPECT_EQ(sys.getOutput<double>("Maxdouble.output"), 7);
    EXPECT_EQ(sys.getOutput<double>("Mindouble.output"), 5);
    EXPECT_EQ(sys.getOutput<Vec3d>("MaxVec3d.output"), Vec3d{});
    EXPECT_EQ(sys.getOutput<int>("Minint.output"), 0);
}

TEST(StatelessBlocks, VectorBlocks) {
    Bench b;
    b.add("v2d", "wVec3dToDoubleDescriptor", params({{"mult_x", "1"}, {"mult_y", "-1"}, {"mult_z", "2"}}));
    b.add("d2v", "wDoubleToVec3dDescriptor", params({{"mult_x", "2"}, {"mult_y", "3"}, {"mult_z", "-4"}}));
    for (const char* i : {"0", "1", "2", "7", "-1"}) b.add(std::string("pick") + i, "wBlockVectorPickerDescriptor", params({{"index", i}}));
    // Rotates about X, then Y, then Z, then scales.
    b.add("mod", "wVec3dModDescriptor", params({{"mult_x", "1"}, {"mult_y", "2"}, {"mult_z", "3"}, {"rotate_x", "math.pi / 2"},
                                                {"rotate_y", "0"}, {"rotate_z", "math.pi / 2"}}));
    b.add("flip", "wVec3dModDescriptor", params({{"mult_x", "1"}, {"mult_y", "1"}, {"mult_z", "1"}, {"rotate_x", "0"},
                                                 {"rotate_y", "math.pi"}, {"rotate_z", "0"}}));
    b.add("rot", "wRotatorBlockDescriptor", params({{"rotate_x", "true"}, {"rotate_y", "false"}, {"rotate_z", "true"}}));
    Running r(b.s.text());
    wSimulationSystem& sys = *r.system;
    sys.setInput<Vec3d>("v2d.vec", {1, 2, 3});
    for (const char* c : {"x", "y", "z"}) sys.setInput<double>(std::string("d2v.") + c, 1 + (*c - 'x'));
    for (const char* i : {"0", "1", "2", "7", "-1"}) sys.setInput<Vec3d>(std::string("pick") + i + ".input", {-1.5, 2.25, 3.125});
    sys.setInput<Vec3d>("mod.vec", {1, 0, 0});
    sys.setInput<Vec3d>("flip.vec", {1, 2, 3});
    // 3.0 + 0.5 passes pi and comes back as 3.5 - 2 pi: which of q and -q comes out tells
    // the wrapped roll from the unwrapped one. The flags have no effect.
    sys.setInput<Rot3d>("rot.rot", ypr(0.2, 0.1, 3.0));
    sys.setInput<double>("rot.angle", 0.5);
    sys.simulate(0);
    EXPECT_EQ(std::vector<double>({sys.getOutput<double>("v2d.x"), sys.getOutput<double>("v2d.y"), sys.getOutput<double>("v2d.z")}),
              std::vector<double>({1, -2, 6}));
    EXPECT_EQ(sys.getOutput<Vec3d>("d2v.vec"), (Vec3d{2, 6, -12}));
    // Out of range picks the first component.
    const std::pair<const char*, double> picked[] = {{"0", -1.5}, {"1", 2.25}, {"2", 3.125}, {"7", -1.5}, {"-1", -1.5}};
    for (const auto& [i, v] : picked)
        EXPECT_EQ(sys.getOutput<double>(std::string("pick") + i + ".output"), v) << i;
    expectNear(sys.getOutput<Vec3d>("mod.mvec"), {0, 2, 0});
    expectNear(sys.getOutput<Vec3d>("flip.mvec"), {-1, 2, -3});
    const Rot3d out = sys.getOutput<Rot3d>("rot.out"), want = ypr(0.2, 0.1, 3.5 - 2 * kPi);
    for (int i = 0; i < 4; ++i) EXPECT_NEAR((&out.x)[i], (&want.x)[i], 1e-12) << i;

    // About X first, then Z: y goes to z (and Z leaves it). A roll of exactly pi stays pi;
    // a single correction, not a modulo, below -pi.
    sys.setInput<Vec3d>("mod.vec", {0, 1, 0});
    sys.setInput<Rot3d>("rot.rot", Rot3d::identity());
    sys.setInput<double>("rot.angle", kPi);
    sys.simulate(1);
    expectNear(sys.getOutput<Vec3d>("mod.mvec"), {0, 0, 3});
    EXPECT_EQ(sys.getOutput<Rot3d>("rot.out"), ypr(0, 0, kPi));
    sys.setInput<double>("rot.angle", -10.0);
    sys.simulate(2);
    const Rot3d once = sys.getOutput<Rot3d>("rot.out"), wrapped = ypr(0, 0, -10.0 + 2 * kPi);
    for (int i = 0; i < 4; ++i) EXPECT_NEAR((&once.x)[i], (&wrapped.x)[i], 1e-12) << i;
    // A running demux keeps the index it was created with.
    dynamic_cast<wBlockVectorPickerDescriptor&>(*r.scheme->getBlockByName("pick2")).index.set(0);
    sys.simulate(3);
    EXPECT_EQ(sys.getOutput<double>("pick2.output"), 3.125);
}

TEST(StatelessBlocks, ConstantsFromCreationAndFromOverrides) {
    SchemeText s;
    const int k = s.block("k", "wBlockConstantsDescriptor",
                          params({{"a", "3"}, {"b", "2.5"}, {"v", "{ 1, 2, 3 }"}, {"f", "true"}, {"id", "4000000000"}}) + "u = {}",
                          "values = { { name = 'a', type = 0 }, { name = 'b', type = 1 }, { name = 'v', type = 3 }, "
                          "{ name = 'f', type = 4 }, { name = 'id', type = 5 }, { name = 'u', type = 0 } }");
    const std::pair<const char*, eLeadType> outs[] = {{"a", LEAD_INT}, {"b", LEAD_DOUBLE}, {"v", LEAD_VECTOR},
                                                      {"f", LEAD_BOOL}, {"id", LEAD_OBJECT_ID}, {"u", LEAD_INT}};
    for (const auto& [n, type] : outs) {
        s.outputWire(n, type);
        s.wire(k, n, testutil::kIO, n);
    }
    auto overrides = testutil::loaderFor("o = { k = { u = 42, b = 9 } }", "o");
    Running r(s.text(), overrides.get());
    wSimulationSystem& sys = *r.system;
    // Present before any step, and they stay; the file's value wins over an override.
    for (double T : {-1.0, 0.0, 5.0}) {
        if (T >= 0) {
            EXPECT_EQ(sys.simulate(T), -1.0);
        }
        EXPECT_EQ(sys.getOutput<int>("a"), 3);
        EXPECT_EQ(sys.getOutput<double>("b"), 2.5);
        EXPECT_EQ(sys.getOutput<Vec3d>("v"), (Vec3d{1, 2, 3}));
        EXPECT_TRUE(sys.getOutput<bool>("f"));
        EXPECT_EQ(sys.getOutput<unsigned>("id"), 4000000000u);
        EXPECT_EQ(sys.getOutput<int>("u"), 42);
    }
    EXPECT_EQ(sys.getSchemeStateDataSize(), 0);  // no state, but an empty saveable one
    EXPECT_EQ(testutil::loadError(s.text()), "Parameter not defined: k.u: simulation_scheme.blocks[1].__parameters.u.value is"
                                            " missing; write a value there, or give one in the overrides table as"
                                            " overrides.k.u");

    // Editing the parameters: the block keeps its own storage, and refuses strings whole.
    wBlockConstantsDescriptor d;
    wParameterList list;
    list.push_back(createParameter(PARAM_DOUBLE, "x"));
    list[0].getProxy()->fromString("1.5");
    d.setParameters(list);
    list[0].getProxy()->fromString("7");
    std::unique_ptr<wSimulationBlockDescriptor> copy(d.clone());
    d.getParametersList()[0].getProxy()->fromString("2.25");
    EXPECT_EQ(d.getParametersList()[0].getProxy()->toString(), "2.25");
    EXPECT_EQ(copy->getParametersList()[0].getProxy()->toString(), "1.5");
    EXPECT_EQ(copy->getOutputWires(), (wLeadList{{"x", LEAD_DOUBLE}}));
    list.push_back(createParameter(PARAM_STRING, "s"));
    EXPECT_EQ(testutil::messageOf([&] { d.setParameters(list); }), "Cannot convert parameter type to constant type");
    EXPECT_EQ(d.getOutputWires(), (wLeadList{{"x", LEAD_DOUBLE}}));
}

TEST(StatelessBlocks, SavedSettingsReloadUnchanged) {
    SchemeText s;
    for (const char* t : {"int", "double", "Vec3d"}) {
        const std::string T = t;
        s.block("sum_" + T, "wBlockSummatorDescriptor<" + T + ">", "", inputs({"a", "b", "c"}, {"3", "-2", T == "int" ? "7" : "0.25"}));
        s.block("avg_" + T, "wBlockAvgerageValDescriptor<" + T + ">", "", inputs({"x", "wx", "y", "wy", "z", "wz"}));
        s.block("max_" + T, "wBlockMaxValDescriptor<" + T + ">", "", inputs({"m", "on_m"}));
    }
    s.block("and3", "wBlockANDDescriptor", "", inputs({"a", "b", "c"}));
    s.block("notT", "wBlockNOTtriggerDescriptor");
    s.block("b2i", "wBlockI2ODescriptor<bool CMA int>");
    s.block("k", "wBlockConstantsDescriptor", params({{"z", "-7"}, {"y", "0.1"}, {"x", "{ -1, 0.5, 1e300 }"}, {"w", "true"}, {"u", "123"}}) + "open = {}",
            "values = { { name = 'z', type = 0 }, { name = 'y', type = 1 }, { name = 'x', type = 3 }, "
            "{ name = 'w', type = 4 }, { name = 'u', type = 5 }, { name = 'open', type = 1 } }");
    s.block("d2v", "wDoubleToVec3dDescriptor", params({{"mult_x", "1.5"}, {"mult_y", "-2"}, {"mult_z", "1e-9"}}));
    s.block("v2d", "wVec3dToDoubleDescriptor", params({{"mult_x", "0.1"}, {"mult_y", "0.2"}, {"mult_z", "0.3"}}));
    s.block("demux", "wBlockVectorPickerDescriptor", params({{"index", "2"}}));
    s.block("mod", "wVec3dModDescriptor", params({{"mult_x", "3"}, {"mult_y", "4"}, {"mult_z", "5"}, {"rotate_x", "0.25"},
                                                  {"rotate_y", "-1"}, {"rotate_z", "math.pi"}}));
    s.block("rot", "wRotatorBlockDescriptor", params({{"rotate_x", "true"}, {"rotate_y", "false"}, {"rotate_z", "true"}}));
    auto scheme = testutil::saveAndReload(s.text());
    using W = wLeadList;
    EXPECT_EQ(dynamic_cast<wBlockSummatorDescriptor<double>&>(*scheme->getBlockByName("sum_double")).getCoefficients(),
              (zo::vector<double>{3, -2, 0.25}));
    EXPECT_EQ(dynamic_cast<wBlockSummatorDescriptor<int>&>(*scheme->getBlockByName("sum_int")).getCoefficients(),
              (zo::vector<int>{3, -2, 7}));
    EXPECT_EQ(scheme->getBlockByName("sum_Vec3d")->getInputWires()[2], (wLeadDescription{"c", LEAD_VECTOR}));
    EXPECT_EQ(scheme->getBlockByName("avg_Vec3d")->getInputWires(),
              (W{{"x", LEAD_VECTOR}, {"wx", LEAD_INT}, {"y", LEAD_VECTOR}, {"wy", LEAD_INT}, {"z", LEAD_VECTOR}, {"wz", LEAD_INT}}));
    EXPECT_EQ(scheme->getBlockByName("max_int")->getInputWires(), (W{{"m", LEAD_INT}, {"on_m", LEAD_BOOL}}));
    EXPECT_EQ(scheme->getBlockByName("and3")->getInputWires(), (W{{"a", LEAD_BOOL}, {"b", LEAD_BOOL}, {"c", LEAD_BOOL}}));
    EXPECT_EQ(scheme->getBlockByName("notT")->getClassName(), "wBlockNOTtriggerDescriptor");
    EXPECT_EQ(scheme->getBlockByName("b2i")->getClassName(), "wBlockI2ODescriptor<bool CMA int>");
    EXPECT_EQ(testutil::parametersOf(*scheme, "k"), "z=-7, y=0.1, x=(-1, 0.5, 1e+300), w=1, u=123, open=0");
    EXPECT_TRUE(scheme->getBlockByName("k")->getParametersList()[5].getProxy()->isUndefined());
    EXPECT_EQ(scheme->getBlockByName("k")->getOutputWires()[4], (wLeadDescription{"u", LEAD_OBJECT_ID}));
    EXPECT_EQ(testutil::parametersOf(*scheme, "d2v"), "mult_x=1.5, mult_y=-2, mult_z=1e-09");
    EXPECT_EQ(testutil::parametersOf(*scheme, "v2d"), "mult_x=0.1, mult_y=0.2, mult_z=0.3");
    EXPECT_EQ(testutil::parametersOf(*scheme, "demux"), "index=2");
    EXPECT_EQ(testutil::parametersOf(*scheme, "mod"), "mult_x=3, mult_y=4, mult_z=5, rotate_x=0.25, rotate_y=-1, rotate_z=" +
                                                          doubleToString(kPi));
    EXPECT_EQ(testutil::parametersOf(*scheme, "rot"), "rotate_x=1, rotate_y=0, rotate_z=1");

    // Fresh blocks have default inputs, and sums unit coefficients.
    testutil::Builder fresh;
    fresh.add<wBlockSummatorDescriptor<double>>("sum");
    fresh.add<wBlockAvgerageValDescriptor<int>>("avg");
    fresh.add<wBlockMaxValDescriptor<double>>("max");
    const std::string file = (testutil::freshDir() / "fresh.lua").string();
    fresh.scheme.save(file);
    auto reloaded = testutil::loadForEdit(testutil::readFile(file));
    EXPECT_EQ(dynamic_cast<wBlockSummatorDescriptor<double>&>(*reloaded->getBlockByIndex(0)).getCoefficients(),
              (zo::vector<double>{1, 1}));
    EXPECT_EQ(reloaded->getBlockByIndex(0)->getInputWires(), (W{{"input1", LEAD_DOUBLE}, {"input2", LEAD_DOUBLE}}));
    EXPECT_EQ(reloaded->getBlockByIndex(1)->getInputWires(),
              (W{{"input1", LEAD_INT}, {"weight1", LEAD_INT}, {"input2", LEAD_INT}, {"weight2", LEAD_INT}}));
    EXPECT_EQ(reloaded->getBlockByIndex(2)->getInputWires()[3], (wLeadDescription{"active2", LEAD_BOOL}));
}

TEST(StatelessBlocks, ReadingErrors) {
    auto one = [](const std::string& type, const std::string& params, const std::string& rest) {
        SchemeText s;
        s.block("b", type, params, rest);
        return testutil::loadError(s.text());
    };
    const std::string at = "simulation_scheme.blocks[1].";
    // An unpaired last element fails on the "name" of its missing partner.
    EXPECT_EQ(one("wBlockAvgerageValDescriptor<double>", "", inputs({"x1", "w1", "x2"})),
              at + "inputs[4].name failed to Lua::Loader::getString: the inputs come in pairs, and element 3 has no"
                   " weight after it");
    EXPECT_EQ(one("wBlockMaxValDescriptor<int>", "", "inputs = { { name = 'a' }, { } }"), at + "inputs[2].name failed to Lua::Loader::getString: missing, a string is expected here");
    EXPECT_EQ(one("wBlockSummatorDescriptor<int>", "", inputs({"a"})), at + "inputs[1].coeff is missing: a whole number is expected here");
    EXPECT_EQ(one("wBlockANDDescriptor", "", "inputs = { { name = 'a' }, { nom = 'b' } }"), at + "inputs[2].name failed to Lua::Loader::getString: missing, a string is expected here");
    EXPECT_EQ(one("wBlockORDescriptor", "", ""), at + "inputs is missing: a table is expected here");
    EXPECT_EQ(one("wBlockConstantsDescriptor", "", "values = { { type = 0 } }"), at + "values[1].name failed to Lua::Loader::getString: missing, a string is expected here");
    // Strings (2) and unknown codes cannot be constants.
    for (const char* type : {"2", "6", "-1", "99"})
        EXPECT_EQ(one("wBlockConstantsDescriptor", "s = { value = 'text' }", std::string("values = { { name = 's', type = ") + type + " } }"),
                  "Cannot convert parameter type to constant type (at simulation_scheme.blocks[1])");
}

}  // namespace
