// Scalar conversions and the Constants block through real scheme files.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <climits>
#include <cmath>
#include <limits>
#include <string>

#include "support/SchemeFiles.h"
#include "vandrel/blocks/Conversions.h"
#include "vandrel/platform/LuaLoader.h"

using testutil::kIO;
using testutil::messageOf;
using testutil::Running;
using testutil::SchemeText;
using testing::HasSubstr;

namespace {

std::string conversionScheme() {
    SchemeText s;
    const int i2d = s.block("i2d", "wBlockI2ODescriptor<int CMA double>");
    const int i2b = s.block("i2b", "wBlockI2ODescriptor<int CMA bool>");
    const int d2b = s.block("d2b", "wBlockI2ODescriptor<double CMA bool>");
    const int b2i = s.block("b2i", "wBlockI2ODescriptor<bool CMA int>");
    const int b2d = s.block("b2d", "wBlockI2ODescriptor<bool CMA double>");
    s.inputWire("i", LEAD_INT);
    s.inputWire("d", LEAD_DOUBLE);
    s.inputWire("b", LEAD_BOOL);
    s.wire(kIO, "i", i2d, "input");
    s.wire(kIO, "i", i2b, "input");
    s.wire(kIO, "d", d2b, "input");
    s.wire(kIO, "b", b2i, "input");
    s.wire(kIO, "b", b2d, "input");
    s.outputWire("i2d", LEAD_DOUBLE);
    s.outputWire("i2b", LEAD_BOOL);
    s.outputWire("d2b", LEAD_BOOL);
    s.outputWire("b2i", LEAD_INT);
    s.outputWire("b2d", LEAD_DOUBLE);
    for (int b : {i2d, i2b, d2b, b2i, b2d}) {
        static const char* const names[] = {"i2d", "i2b", "d2b", "b2i", "b2d"};
        s.wire(b, "output", kIO, names[b]);
    }
    return s.text();
}

// A Constants entry: "values" plus the parameters.
std::string constantsRest(const std::string& values) { return "values = { " + values + " }"; }

}  // namespace

TEST(ConversionBlocks, ConvertScalars) {
    Running r(conversionScheme());
    wSimulationSystem& sys = *r.system;
    struct IntCase {
        int in;
        bool positive;
    };
    double t = 0;
    for (const IntCase& k : {IntCase{-5, false}, IntCase{1, true}, IntCase{0, false}, IntCase{INT_MIN, false},
                             IntCase{INT_MAX, true}}) {
        sys.setInput<int>("i", k.in);
        sys.simulate(t += 1);
        EXPECT_EQ(sys.getOutput<double>("i2d"), static_cast<double>(k.in)) << k.in;
        EXPECT_EQ(sys.getOutput<bool>("i2b"), k.positive) << k.in;
    }

    const double nan = std::numeric_limits<double>::quiet_NaN();
    const double inf = std::numeric_limits<double>::infinity();
    struct DoubleCase {
        double in;
        bool positive;
    };
    for (const DoubleCase& k : {DoubleCase{0.0001, true}, DoubleCase{-0.0, false}, DoubleCase{0.0, false},
                                DoubleCase{nan, false}, DoubleCase{-3, false}, DoubleCase{inf, true},
                                DoubleCase{-inf, false}, DoubleCase{4.9e-324, true}}) {
        sys.setInput<double>("d", k.in);
        sys.simulate(t += 1);
        EXPECT_EQ(sys.getOutput<bool>("d2b"), k.positive) << k.in;
    }

    sys.setInput<bool>("b", true);
    sys.simulate(t += 1);
    EXPECT_EQ(sys.getOutput<int>("b2i"), 1);
    EXPECT_EQ(sys.getOutput<double>("b2d"), 1.0);
    sys.setInput<bool>("b", false);
    sys.simulate(t += 1);
    EXPECT_EQ(sys.getOutput<int>("b2i"), 0);
    EXPECT_EQ(sys.getOutput<double>("b2d"), 0.0);
}

TEST(ConversionBlocks, ConstantsPresentTheirValuesFromCreation) {
    SchemeText s;
    const int k = s.block("k", "wBlockConstantsDescriptor",
                          "a = { value = 3 }, b = { value = 2.5 }, v = { value = { 1, 2, 3 } }, "
                          "f = { value = true }, id = { value = 4000000000 }",
                          constantsRest("{ name = \"a\", type = 0 }, { name = \"b\", type = 1 }, "
                                        "{ name = \"v\", type = 3 }, { name = \"f\", type = 4 }, "
                                        "{ name = \"id\", type = 5 }"));
    s.outputWire("a", LEAD_INT);
    s.outputWire("b", LEAD_DOUBLE);
    s.outputWire("v", LEAD_VECTOR);
    s.outputWire("f", LEAD_BOOL);
    s.outputWire("id", LEAD_OBJECT_ID);
    for (const char* n : {"a", "b", "v", "f", "id"}) s.wire(k, n, kIO, n);
    Running r(s.text());

    EXPECT_EQ(r.scheme->getBlockByName("k")->getOutputWires()[4], (wLeadDescription{"id", LEAD_OBJECT_ID}));
    // Before any step.
    wSimulationSystem& sys = *r.system;
    EXPECT_EQ(sys.getOutput<int>("a"), 3);
    EXPECT_EQ(sys.getOutput<double>("b"), 2.5);
    EXPECT_EQ(sys.getOutput<Vec3d>("v"), (Vec3d{1, 2, 3}));
    EXPECT_TRUE(sys.getOutput<bool>("f"));
    EXPECT_EQ(sys.getOutput<unsigned>("id"), 4000000000u);

    // The block asks never to run again, and the values stay.
    EXPECT_EQ(sys.simulate(0.0), -1.0);
    EXPECT_EQ(sys.simulate(5.0), -1.0);
    EXPECT_EQ(sys.getOutput<int>("a"), 3);
    EXPECT_EQ(sys.getOutput<Vec3d>("v"), (Vec3d{1, 2, 3}));

    // No state, but an empty saveable one: the scheme's state can still be saved.
    EXPECT_EQ(sys.getSchemeStateDataSize(), 0);
    zo::vector<unsigned char> blob;
    EXPECT_TRUE(sys.getSchemeStateData(&blob));
    EXPECT_TRUE(blob.empty());
    sys.setSchemeStateData(&blob);
    EXPECT_EQ(sys.getOutput<double>("b"), 2.5);
}

TEST(ConversionBlocks, ConstantsTakeUndefinedValuesFromOverrides) {
    SchemeText s;
    const int k = s.block("k", "wBlockConstantsDescriptor", "a = { }, b = { value = 1.5 }",
                          constantsRest("{ name = \"a\", type = 0 }, { name = \"b\", type = 1 }"));
    s.outputWire("a", LEAD_INT);
    s.outputWire("b", LEAD_DOUBLE);
    s.wire(k, "a", kIO, "a");
    s.wire(k, "b", kIO, "b");

    Lua::Loader overrides;
    overrides.loadString("overrides = { k = { a = 42, b = 9 } }", "overrides", "overrides");
    Running r(s.text(), &overrides);
    EXPECT_EQ(r.system->getOutput<int>("a"), 42);
    // The file's value wins over the override.
    EXPECT_EQ(r.system->getOutput<double>("b"), 1.5);

    // Without an override the undefined value is an error.
    Lua::Loader none;
    none.loadString("overrides = { }", "overrides", "overrides");
    EXPECT_THAT(messageOf([&] { Running r2(s.text(), &none); }), HasSubstr("Parameter not defined: k.a"));
}

TEST(ConversionBlocks, ConstantsRefuseTypesWithoutWires) {
    // Strings (2) and unknown codes cannot be constants.
    for (const char* type : {"2", "6", "-1", "99"}) {
        SchemeText s;
        s.block("k", "wBlockConstantsDescriptor", "s = { value = \"text\" }",
                constantsRest(std::string("{ name = \"s\", type = ") + type + " }"));
        EXPECT_THAT(messageOf([&] { Running r(s.text()); }), HasSubstr("Cannot convert parameter type to constant type"))
            << type;
    }
    // A value without a name.
    SchemeText s;
    s.block("k", "wBlockConstantsDescriptor", "", constantsRest("{ type = 0 }"));
    EXPECT_THAT(messageOf([&] { Running r(s.text()); }), HasSubstr("name failed to Lua::Loader::getString"));

    // setParameters refuses a string value and leaves the block as it was.
    wBlockConstantsDescriptor d;
    wParameterList good;
    good.push_back(createParameter(PARAM_INT, "n"));
    d.setParameters(good);
    ASSERT_EQ(d.getOutputWires().size(), 1u);
    wParameterList bad;
    bad.push_back(createParameter(PARAM_DOUBLE, "x"));
    bad.push_back(createParameter(PARAM_STRING, "s"));
    EXPECT_EQ(messageOf([&] { d.setParameters(bad); }), "Cannot convert parameter type to constant type");
    ASSERT_EQ(d.getParametersList().size(), 1u);
    EXPECT_EQ(d.getParametersList()[0].getName(), "n");
    EXPECT_EQ(d.getOutputWires()[0], (wLeadDescription{"n", LEAD_INT}));
}

TEST(ConversionBlocks, ConstantsKeepTheirOwnStorage) {
    wBlockConstantsDescriptor d;
    wParameterList list;
    list.push_back(createParameter(PARAM_DOUBLE, "x"));
    list[0].getProxy()->fromString("1.5");
    d.setParameters(list);
    // Editing the source afterwards does not reach the block...
    list[0].getProxy()->fromString("7");
    EXPECT_EQ(d.getParametersList()[0].getProxy()->toString(), "1.5");
    // ...while editing through its parameter list does, and a clone is independent.
    auto copy = d.clone();
    d.getParametersList()[0].getProxy()->fromString("2.25");
    EXPECT_EQ(d.getParametersList()[0].getProxy()->toString(), "2.25");
    EXPECT_EQ(copy->getParametersList()[0].getProxy()->toString(), "1.5");
    EXPECT_EQ(copy->getOutputWires()[0], (wLeadDescription{"x", LEAD_DOUBLE}));
}

TEST(ConversionBlocks, SaveAndReload) {
    SchemeText s;
    s.block("i2d", "wBlockI2ODescriptor<int CMA double>");
    s.block("i2b", "wBlockI2ODescriptor<int CMA bool>");
    s.block("d2b", "wBlockI2ODescriptor<double CMA bool>");
    s.block("b2i", "wBlockI2ODescriptor<bool CMA int>");
    s.block("b2d", "wBlockI2ODescriptor<bool CMA double>");
    s.block("k", "wBlockConstantsDescriptor",
            "z = { value = -7 }, y = { value = 0.1 }, x = { value = { -1, 0.5, 1e300 } }, "
            "w = { value = true }, u = { value = 123 }, open = { }",
            constantsRest("{ name = \"z\", type = 0 }, { name = \"y\", type = 1 }, { name = \"x\", type = 3 }, "
                          "{ name = \"w\", type = 4 }, { name = \"u\", type = 5 }, { name = \"open\", type = 1 }"));
    auto scheme = testutil::saveAndReload(s.text());
    EXPECT_EQ(scheme->getBlockByName("b2i")->getClassName(), "wBlockI2ODescriptor<bool CMA int>");
    EXPECT_EQ(testutil::parametersOf(*scheme, "k"), "z=-7, y=0.1, x=(-1, 0.5, 1e+300), w=1, u=123, open=0");
    const wParameterList values = scheme->getBlockByName("k")->getParametersList();
    EXPECT_EQ(values[4].getProxy()->getType(), PARAM_UINT);
    EXPECT_TRUE(values[5].getProxy()->isUndefined());
    EXPECT_EQ(scheme->getBlockByName("k")->getOutputWires()[4], (wLeadDescription{"u", LEAD_OBJECT_ID}));
}
