// Sum, AvgVal, MaxVal and MinVal through real scheme files, for int, double and Vec3d.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <climits>
#include <string>
#include <vector>

#include "support/SchemeFiles.h"
#include "vandrel/blocks/Aggregates.h"

using testutil::kIO;
using testutil::Running;
using testing::HasSubstr;

namespace {

// "inputs" of a Sum: { name = ..., coeff = ... } per input.
std::string sumInputs(const std::vector<std::pair<std::string, std::string>>& inputs) {
    std::string s = "inputs = {";
    for (const auto& [name, coeff] : inputs) s += " { name = \"" + name + "\", coeff = " + coeff + " },";
    return s + " }";
}

// "inputs" of a paired block: value and second wire of each pair, flattened.
std::string pairedInputs(const std::vector<std::string>& names) {
    std::string s = "inputs = {";
    for (const auto& n : names) s += " { name = \"" + n + "\" },";
    return s + " }";
}

// A scheme of one block whose every input wire is fed from a scheme input of the same
// name and type, and whose "output" goes to the scheme output "out".
std::string oneBlockScheme(const std::string& type, const std::string& rest,
                           const std::vector<std::pair<std::string, eLeadType>>& inputs, eLeadType outType) {
    testutil::SchemeText s;
    const int b = s.block("b", type, "", rest);
    for (const auto& [name, t] : inputs) {
        s.inputWire(name, t);
        s.wire(kIO, name, b, name);
    }
    s.outputWire("out", outType);
    s.wire(b, "output", kIO, "out");
    return s.text();
}

void expectVec(const Vec3d& got, const Vec3d& want) {
    EXPECT_DOUBLE_EQ(got.x, want.x);
    EXPECT_DOUBLE_EQ(got.y, want.y);
    EXPECT_DOUBLE_EQ(got.z, want.z);
}

}  // namespace

TEST(AggregateBlocks, SumOfEachType) {
    {
        Running r(oneBlockScheme("wBlockSummatorDescriptor<double>", sumInputs({{"p", "2"}, {"q", "3"}}),
                                 {{"p", LEAD_DOUBLE}, {"q", LEAD_DOUBLE}}, LEAD_DOUBLE));
        r.system->setInput<double>("p", 2.5);
        r.system->setInput<double>("q", -1.0);
        r.system->simulate(0);
        EXPECT_DOUBLE_EQ(r.system->getOutput<double>("out"), 2.0);
        // New inputs reach the output on the next call.
        r.system->setInput<double>("q", 4.0);
        r.system->simulate(1);
        EXPECT_DOUBLE_EQ(r.system->getOutput<double>("out"), 17.0);
    }
    {
        // Integer coefficients; the sum wraps around instead of failing on overflow.
        Running r(oneBlockScheme("wBlockSummatorDescriptor<int>",
                                            sumInputs({{"i", "2"}, {"j", "-3"}, {"k", "1"}}),
                                            {{"i", LEAD_INT}, {"j", LEAD_INT}, {"k", LEAD_INT}}, LEAD_INT));
        r.system->setInput<int>("i", 7);
        r.system->setInput<int>("j", 4);
        r.system->setInput<int>("k", -1);
        r.system->simulate(0);
        EXPECT_EQ(r.system->getOutput<int>("out"), 1);
        r.system->setInput<int>("i", INT_MAX);
        r.system->setInput<int>("j", 0);
        r.system->setInput<int>("k", 2);
        r.system->simulate(1);
        EXPECT_EQ(r.system->getOutput<int>("out"), 0);  // 2 * INT_MAX + 2 = 2^32
    }
    {
        // Vectors are scaled by double coefficients.
        Running r(oneBlockScheme("wBlockSummatorDescriptor<Vec3d>",
                                            sumInputs({{"u", "2"}, {"v", "-0.5"}}),
                                            {{"u", LEAD_VECTOR}, {"v", LEAD_VECTOR}}, LEAD_VECTOR));
        r.system->setInput<Vec3d>("u", {1, 2, 3});
        r.system->setInput<Vec3d>("v", {4, -2, 10});
        r.system->simulate(0);
        expectVec(r.system->getOutput<Vec3d>("out"), {0, 5, 1});
    }
}

TEST(AggregateBlocks, AvgValWeightsPositivePairsOnly) {
    const std::string pairs = pairedInputs({"input1", "weight1", "input2", "weight2"});
    {
        Running r(oneBlockScheme(
            "wBlockAvgerageValDescriptor<double>", pairs,
            {{"input1", LEAD_DOUBLE}, {"weight1", LEAD_INT}, {"input2", LEAD_DOUBLE}, {"weight2", LEAD_INT}},
            LEAD_DOUBLE));
        wSimulationSystem& sys = *r.system;
        sys.setInput<double>("input1", 10);
        sys.setInput<double>("input2", 20);
        sys.setInput<int>("weight1", 1);
        sys.setInput<int>("weight2", 3);
        sys.simulate(0);
        EXPECT_DOUBLE_EQ(sys.getOutput<double>("out"), 17.5);
        // A negative weight does not subtract: the pair is left out.
        sys.setInput<int>("weight1", -1);
        sys.simulate(1);
        EXPECT_DOUBLE_EQ(sys.getOutput<double>("out"), 20);
        // No positive weight: 0, not a division by zero.
        sys.setInput<int>("weight1", 0);
        sys.setInput<int>("weight2", -2);
        sys.simulate(2);
        EXPECT_EQ(sys.getOutput<double>("out"), 0.0);
    }
    {
        // The int mean is computed in double and truncated toward zero.
        Running r(oneBlockScheme(
            "wBlockAvgerageValDescriptor<int>", pairs,
            {{"input1", LEAD_INT}, {"weight1", LEAD_INT}, {"input2", LEAD_INT}, {"weight2", LEAD_INT}}, LEAD_INT));
        wSimulationSystem& sys = *r.system;
        sys.setInput<int>("input1", 10);
        sys.setInput<int>("input2", 21);
        sys.setInput<int>("weight1", 1);
        sys.setInput<int>("weight2", 1);
        sys.simulate(0);
        EXPECT_EQ(sys.getOutput<int>("out"), 15);
        sys.setInput<int>("input1", -10);
        sys.setInput<int>("input2", -21);
        sys.simulate(1);
        EXPECT_EQ(sys.getOutput<int>("out"), -15);
        // Large values and weights do not overflow.
        sys.setInput<int>("input1", INT_MAX);
        sys.setInput<int>("input2", INT_MAX);
        sys.setInput<int>("weight1", INT_MAX);
        sys.setInput<int>("weight2", INT_MAX);
        sys.simulate(2);
        EXPECT_EQ(sys.getOutput<int>("out"), INT_MAX);
    }
    {
        Running r(oneBlockScheme(
            "wBlockAvgerageValDescriptor<Vec3d>", pairs,
            {{"input1", LEAD_VECTOR}, {"weight1", LEAD_INT}, {"input2", LEAD_VECTOR}, {"weight2", LEAD_INT}},
            LEAD_VECTOR));
        wSimulationSystem& sys = *r.system;
        sys.setInput<Vec3d>("input1", {4, 0, -4});
        sys.setInput<Vec3d>("input2", {0, 8, 4});
        sys.setInput<int>("weight1", 3);
        sys.setInput<int>("weight2", 1);
        sys.simulate(0);
        expectVec(sys.getOutput<Vec3d>("out"), {3, 2, -2});
    }
}

TEST(AggregateBlocks, MaxAndMinOverEnabledInputs) {
    const std::string pairs = pairedInputs({"v1", "e1", "v2", "e2", "v3", "e3"});
    const std::vector<std::pair<std::string, eLeadType>> doubleLeads = {
        {"v1", LEAD_DOUBLE}, {"e1", LEAD_BOOL}, {"v2", LEAD_DOUBLE}, {"e2", LEAD_BOOL}, {"v3", LEAD_DOUBLE}, {"e3", LEAD_BOOL}};
    struct Case {
        bool e1, e2, e3;
        double max, min;
    };
    // Values 5, 9, 7; the first enabled value starts the search.
    const Case cases[] = {
        {false, false, true, 7, 7}, {false, false, false, 0, 0}, {true, true, true, 9, 5},
        {true, false, true, 7, 5},  {false, true, true, 9, 7},
    };
    Running mx(oneBlockScheme("wBlockMaxValDescriptor<double>", pairs, doubleLeads, LEAD_DOUBLE));
    Running mn(oneBlockScheme("wBlockMinValDescriptor<double>", pairs, doubleLeads, LEAD_DOUBLE));
    double t = 0;
    for (const Case& k : cases) {
        for (wSimulationSystem* sys : {mx.system.get(), mn.system.get()}) {
            sys->setInput<double>("v1", 5);
            sys->setInput<double>("v2", 9);
            sys->setInput<double>("v3", 7);
            sys->setInput<bool>("e1", k.e1);
            sys->setInput<bool>("e2", k.e2);
            sys->setInput<bool>("e3", k.e3);
            sys->simulate(t);
        }
        t += 1;
        SCOPED_TRACE(testing::Message() << k.e1 << k.e2 << k.e3);
        EXPECT_EQ(mx.system->getOutput<double>("out"), k.max);
        EXPECT_EQ(mn.system->getOutput<double>("out"), k.min);
    }

    // Negative values: "no input yet" must not count as 0.
    const std::vector<std::pair<std::string, eLeadType>> intLeads = {
        {"v1", LEAD_INT}, {"e1", LEAD_BOOL}, {"v2", LEAD_INT}, {"e2", LEAD_BOOL}, {"v3", LEAD_INT}, {"e3", LEAD_BOOL}};
    Running mxi(oneBlockScheme("wBlockMaxValDescriptor<int>", pairs, intLeads, LEAD_INT));
    Running mni(oneBlockScheme("wBlockMinValDescriptor<int>", pairs, intLeads, LEAD_INT));
    for (wSimulationSystem* sys : {mxi.system.get(), mni.system.get()}) {
        sys->setInput<int>("v1", -8);
        sys->setInput<int>("v2", -3);
        sys->setInput<int>("v3", 100);
        sys->setInput<bool>("e1", true);
        sys->setInput<bool>("e2", true);
        sys->setInput<bool>("e3", false);
        sys->simulate(0);
    }
    EXPECT_EQ(mxi.system->getOutput<int>("out"), -3);
    EXPECT_EQ(mni.system->getOutput<int>("out"), -8);
}

TEST(AggregateBlocks, VectorMaxAndMinWorkPerComponent) {
    const std::string pairs = pairedInputs({"input1", "active1", "input2", "active2", "input3", "active3"});
    const std::vector<std::pair<std::string, eLeadType>> leads = {
        {"input1", LEAD_VECTOR}, {"active1", LEAD_BOOL}, {"input2", LEAD_VECTOR},
        {"active2", LEAD_BOOL},  {"input3", LEAD_VECTOR}, {"active3", LEAD_BOOL}};
    Running mx(oneBlockScheme("wBlockMaxValDescriptor<Vec3d>", pairs, leads, LEAD_VECTOR));
    Running mn(oneBlockScheme("wBlockMinValDescriptor<Vec3d>", pairs, leads, LEAD_VECTOR));
    for (wSimulationSystem* sys : {mx.system.get(), mn.system.get()}) {
        sys->setInput<Vec3d>("input1", {1, 5, 0});
        sys->setInput<Vec3d>("input2", {3, 2, -1});
        sys->setInput<Vec3d>("input3", {100, 100, -100});
        sys->setInput<bool>("active1", true);
        sys->setInput<bool>("active2", true);
        sys->setInput<bool>("active3", false);
        sys->simulate(0);
    }
    expectVec(mx.system->getOutput<Vec3d>("out"), {3, 5, 0});
    expectVec(mn.system->getOutput<Vec3d>("out"), {1, 2, -1});
    for (wSimulationSystem* sys : {mx.system.get(), mn.system.get()}) {
        sys->setInput<bool>("active1", false);
        sys->setInput<bool>("active2", false);
        sys->simulate(1);
        expectVec(sys->getOutput<Vec3d>("out"), {0, 0, 0});
    }
}

TEST(AggregateBlocks, ReadingErrors) {
    // An unpaired last element fails on the "name" of its missing partner.
    try {
        Running r(oneBlockScheme("wBlockAvgerageValDescriptor<double>",
                                            pairedInputs({"input1", "weight1", "input2"}),
                                            {{"input1", LEAD_DOUBLE}, {"weight1", LEAD_INT}, {"input2", LEAD_DOUBLE}},
                                            LEAD_DOUBLE));
        FAIL() << "loaded";
    } catch (const std::exception& e) {
        // The path names the missing element, and the message says why it is needed.
        EXPECT_THAT(e.what(), HasSubstr("simulation_scheme.blocks[1].inputs[4].name failed to Lua::Loader::getString: "
                                        "the inputs come in pairs, and element 3 has no weight after it"));
    }
    // A Sum input needs its coefficient.
    testutil::SchemeText s;
    s.block("sum", "wBlockSummatorDescriptor<int>", "", "inputs = { { name = \"a\" } }");
    EXPECT_THROW(Running r(s.text()), std::exception);
    // An element without a name.
    testutil::SchemeText m;
    m.block("max", "wBlockMaxValDescriptor<int>", "", "inputs = { { name = \"a\" }, { } }");
    try {
        Running r(m.text());
        FAIL() << "loaded";
    } catch (const std::exception& e) {
        EXPECT_THAT(e.what(), HasSubstr("name failed to Lua::Loader::getString"));
    }
}

TEST(AggregateBlocks, SaveAndReloadKeepInputsAndCoefficients) {
    testutil::SchemeText s;
    for (const char* t : {"int", "double", "Vec3d"}) {
        const std::string T = t;
        s.block("sum_" + T, "wBlockSummatorDescriptor<" + T + ">", "",
                sumInputs({{"a", "3"}, {"b", "-2"}, {"c", T == "int" ? "7" : "0.25"}}));
        s.block("avg_" + T, "wBlockAvgerageValDescriptor<" + T + ">", "", pairedInputs({"x", "wx", "y", "wy", "z", "wz"}));
        s.block("max_" + T, "wBlockMaxValDescriptor<" + T + ">", "", pairedInputs({"m", "on_m"}));
        s.block("min_" + T, "wBlockMinValDescriptor<" + T + ">", "", pairedInputs({"p", "on_p", "q", "on_q", "r", "on_r"}));
    }
    auto scheme = testutil::saveAndReload(s.text());
    const auto* sumD = dynamic_cast<const wBlockSummatorDescriptor<double>*>(scheme->getBlockByName("sum_double"));
    ASSERT_NE(sumD, nullptr);
    EXPECT_EQ(sumD->getCoefficients(), (zo::vector<double>{3, -2, 0.25}));
    const auto* sumI = dynamic_cast<const wBlockSummatorDescriptor<int>*>(scheme->getBlockByName("sum_int"));
    ASSERT_NE(sumI, nullptr);
    EXPECT_EQ(sumI->getCoefficients(), (zo::vector<int>{3, -2, 7}));
    const wLeadList avg = scheme->getBlockByName("avg_Vec3d")->getInputWires();
    ASSERT_EQ(avg.size(), 6u);
    EXPECT_EQ(avg[4], (wLeadDescription{"z", LEAD_VECTOR}));
    EXPECT_EQ(avg[5], (wLeadDescription{"wz", LEAD_INT}));
}

TEST(AggregateBlocks, FreshSumIsSavedWithUnitCoefficients) {
    wSimulationSystemScheme scheme;
    auto sum = std::make_unique<wBlockSummatorDescriptor<double>>();
    sum->setName("s");
    scheme.addBlock(std::move(sum));
    const auto file = (testutil::freshDir() / "fresh.lua").string();
    scheme.save(file);
    auto reloaded = testutil::loadForEdit(testutil::readFile(file));
    const auto* d = dynamic_cast<const wBlockSummatorDescriptor<double>*>(reloaded->getBlockByName("s"));
    ASSERT_NE(d, nullptr);
    EXPECT_EQ(d->getCoefficients(), (zo::vector<double>{1, 1}));
    EXPECT_EQ(d->getInputWires()[1], (wLeadDescription{"input2", LEAD_DOUBLE}));
}
