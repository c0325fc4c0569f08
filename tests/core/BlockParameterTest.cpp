#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cmath>

#include "core/LuaTestUtil.h"
#include "vandrel/core/BlockParameter.h"
#include "vandrel/runtime/SimulationException.h"

namespace {

using testing::EndsWith;

// fromString on `p` must fail with "Cannot parse: " + text.
void expectCannotParse(wBlockParameterProxyBase& p, const zo::string& text) {
    try {
        p.fromString(text);
        ADD_FAILURE() << "parsed: " << text;
    } catch (const wSimulationException& e) {
        EXPECT_EQ(zo::string(e.what()), "Cannot parse: " + text);
    }
}

TEST(BlockParameter, TextForms) {
    wBlockParameterProxy<double> d;
    for (double v : {0.1, 0.1 + 0.2, -0.0, 1e-300, 123456789.125, -2.5e17}) {
        d.set(v);
        wBlockParameterProxy<double> back;
        back.fromString(d.toString());
        EXPECT_EQ(std::signbit(back.get()), std::signbit(v));
        EXPECT_EQ(back.get(), v) << d.toString();
    }
    d.set(0.1);
    EXPECT_EQ(d.toString(), "0.1");
    d.fromString("  +2.5 trailing");
    EXPECT_EQ(d.get(), 2.5);
    expectCannotParse(d, "abc");

    wBlockParameterProxy<int> i;
    i.fromString(" -42x");
    EXPECT_EQ(i.get(), -42);
    expectCannotParse(i, "");
    expectCannotParse(i, "99999999999");
    wBlockParameterProxy<unsigned int> u;
    u.fromString("4000000000");
    EXPECT_EQ(u.toString(), "4000000000");
    expectCannotParse(u, "-1");

    wBlockParameterProxy<bool> b;
    b.fromString("1");
    EXPECT_TRUE(b.get());
    EXPECT_EQ(b.toString(), "1");
    b.fromString("0");
    EXPECT_EQ(b.toString(), "0");
    expectCannotParse(b, "true");
    expectCannotParse(b, "2");

    // Vectors: any single character around and between the components.
    wBlockParameterProxy<Vec3d> v(Vec3d{1, 2.5, -3});
    EXPECT_EQ(v.toString(), "(1, 2.5, -3)");
    v.fromString("[4;5;6]");
    EXPECT_EQ(v.get(), (Vec3d{4, 5, 6}));
    v.fromString("(1,2,3)");
    EXPECT_EQ(v.get(), (Vec3d{1, 2, 3}));
    v.set(Vec3d{0.1, -0.0, 1e300});
    wBlockParameterProxy<Vec3d> vBack;
    vBack.fromString(v.toString());
    EXPECT_EQ(vBack.get(), v.get());
    expectCannotParse(v, "1 2 3");
    expectCannotParse(v, "(1, 2, 3");

    wBlockParameterProxy<zo::string> s;
    s.fromString("  hello world");
    EXPECT_EQ(s.get(), "hello");
    expectCannotParse(s, "   ");
}

TEST(BlockParameter, CreatorsRefuseUnknownTypeCodes) {
    EXPECT_EQ(createParameter(PARAM_VEC3D, "v").getProxy()->toString(), "(0, 0, 0)");
    for (int bad : {6, -1}) {
        try {
            createParameter(bad, "p");
            ADD_FAILURE() << bad;
        } catch (const wSimulationException& e) {
            EXPECT_STREQ(e.what(), "Invalid parameter type");
        }
    }
}

TEST(BlockParameter, ReferenceAndOwningCopies) {
    // A reference container (as getParametersList hands out) edits the stored value,
    // and so does any copy of it.
    wBlockParameterProxy<double> stored(1.0);
    wBlockParameterContainer ref = parameterRef("gain", stored);
    wBlockParameterContainer refCopy = ref;
    refCopy.getProxy()->fromString("5");
    EXPECT_EQ(stored.get(), 5);
    refCopy.getProxy()->setUndefined(true);
    EXPECT_TRUE(stored.isUndefined());

    // A forced copy is independent and carries the flags.
    auto own = ref.getProxy()->clone(true);
    EXPECT_TRUE(own->isUndefined());
    own->fromString("6");
    EXPECT_EQ(stored.get(), 5);

    // Copies of an owning container are deep.
    wBlockParameterContainer first = createParameter(PARAM_INT, "n");
    wBlockParameterContainer second = first;
    second.getProxy()->fromString("3");
    EXPECT_EQ(first.getProxy()->toString(), "0");
    first = second;
    second.getProxy()->fromString("4");
    EXPECT_EQ(first.getProxy()->toString(), "3");

    // Descriptor members are copied by value.
    wBlockParameterProxy<double> memberCopy = stored;
    memberCopy.set(8);
    EXPECT_EQ(stored.get(), 5);

    // assign copies the value only; mixing the two double-coded types is refused.
    wBlockParameterProxy<double> target(0.0);
    target.setRequired(false);
    target.assign(stored);
    EXPECT_EQ(target.get(), 5);
    EXPECT_FALSE(target.isRequired());
    EXPECT_FALSE(target.isUndefined());
    wBlockParameterProxy<zo::vector<double>> list;
    EXPECT_THROW(list.assign(stored), wSimulationException);
}

TEST(BlockParameter, LuaRoundTrip) {
    Lua::Loader out;
    out.createGlobalTable("t");
    wBlockParameterProxy<int>(-7).save(&out, "i");
    wBlockParameterProxy<unsigned int>(4000000000u).save(&out, "u");
    wBlockParameterProxy<double>(0.1).save(&out, "d");
    wBlockParameterProxy<bool>(true).save(&out, "b");
    wBlockParameterProxy<Vec3d>(Vec3d{1, 2.5, -3}).save(&out, "v");
    wBlockParameterProxy<zo::string>("two words\n").save(&out, "s");
    wBlockParameterProxy<zo::vector<double>>(zo::vector<double>{1.5, -2, 3}).save(&out, "list");

    auto in = coretest::reread(out, "t");
    wBlockParameterProxy<int> i;
    wBlockParameterProxy<unsigned int> u;
    wBlockParameterProxy<double> d;
    wBlockParameterProxy<bool> b;
    wBlockParameterProxy<Vec3d> v;
    wBlockParameterProxy<zo::string> s;
    wBlockParameterProxy<zo::vector<double>> list(zo::vector<double>{9});
    for (auto [p, key] : std::initializer_list<std::pair<wBlockParameterProxyBase*, const char*>>{
             {&i, "i"}, {&u, "u"}, {&d, "d"}, {&b, "b"}, {&v, "v"}, {&s, "s"}, {&list, "list"}})
        p->load(in.get(), key);
    EXPECT_EQ(i.get(), -7);
    EXPECT_EQ(u.get(), 4000000000u);
    EXPECT_EQ(d.get(), 0.1);
    EXPECT_TRUE(b.get());
    EXPECT_EQ(v.get(), (Vec3d{1, 2.5, -3}));
    EXPECT_EQ(s.get(), "two words\n");
    EXPECT_EQ(list.get(), (zo::vector<double>{1.5, -2, 3}));
    EXPECT_EQ(in->depth(), 0);
}

TEST(BlockParameter, LuaMissingValues) {
    auto in = coretest::loaderFor("t = { gaps = { 1.5, nil, 3 }, wrong = 'x' }", "t");

    // A list stops at the first gap.
    wBlockParameterProxy<zo::vector<double>> list;
    list.load(in.get(), "gaps");
    EXPECT_EQ(list.get(), (zo::vector<double>{1.5}));

    // Optional: absent keeps the value. Required: the loader fails, the value stays.
    wBlockParameterProxy<double> d(2.0);
    d.setRequired(false);
    d.load(in.get(), "absent");
    EXPECT_EQ(d.get(), 2.0);
    d.setRequired(true);
    EXPECT_THROW(d.load(in.get(), "absent"), Lua::LoaderException);
    EXPECT_EQ(d.get(), 2.0);

    wBlockParameterProxy<Vec3d> v(Vec3d{1, 2, 3});
    try {
        v.load(in.get(), "wrong");
        FAIL();
    } catch (const Lua::LoaderException& e) {
        EXPECT_EQ(zo::string(e.what()), in->formatPath("wrong") + " failed to Lua::Loader::getVector");
    }
    EXPECT_EQ(v.get(), (Vec3d{1, 2, 3}));
    wBlockParameterProxy<zo::string> s("kept");
    try {
        s.load(in.get(), "absent");
        FAIL();
    } catch (const Lua::LoaderException& e) {
        EXPECT_THAT(e.what(), EndsWith("absent failed to Lua::Loader::getString"));
    }
    EXPECT_EQ(s.get(), "kept");
}

}  // namespace
