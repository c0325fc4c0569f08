#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "core/CoreTestBlocks.h"
#include "core/LuaTestUtil.h"
#include "vandrel/platform/LuaSerializer.h"
#include "vandrel/runtime/SimulationException.h"
#include "vandrel/scheme/BlockSerializer.h"

namespace {

using coretest::loaderFor;
using coretest::ParamsDescriptor;
using testing::ContainsRegex;
using testing::EndsWith;

class BlockSerializer : public testing::Test {
protected:
    void SetUp() override { coretest::registerClasses(); }

    // Reads the block entry "b" of the loader's current table through `s`.
    static std::unique_ptr<ParamsDescriptor> readParams(wBlockSerializer& s, Lua::Loader& loader) {
        loader.beginSubtable("b");
        std::unique_ptr<wSimulationBlockDescriptor> d = s.createBlock();
        loader.endSubtable();
        auto* typed = dynamic_cast<ParamsDescriptor*>(d.get());
        EXPECT_NE(typed, nullptr);
        if (!typed) return nullptr;
        d.release();
        return std::unique_ptr<ParamsDescriptor>(typed);
    }
};

TEST_F(BlockSerializer, EditorKeepsUndefinedParametersUndefined) {
    // gain has a value, label an empty subtable, count none at all.
    auto in = loaderFor(R"(t = { b = { __type = "wCoreTestParamsDescriptor", __name = "blockA",
        __parameters = { gain = { value = 2.5 }, label = {}, offset = { value = { 1, 2, 3 } } } } })",
                        "t");
    wEditorBlockSerializer reader(in.get(), true);
    EXPECT_FALSE(reader.isRuntime());
    auto d = readParams(reader, *in);
    ASSERT_TRUE(d);
    EXPECT_EQ(d->getName(), "blockA");
    EXPECT_EQ(d->gain.get(), 2.5);
    EXPECT_FALSE(d->gain.isUndefined());
    EXPECT_TRUE(d->label.isUndefined());
    EXPECT_EQ(d->label.get(), "none");
    EXPECT_TRUE(d->count.isUndefined());
    EXPECT_EQ(d->count.get(), 7);
    EXPECT_EQ(d->offset.get(), (Vec3d{1, 2, 3}));

    // Written back: defined values under "value", undefined ones as empty subtables.
    Lua::Loader out;
    out.createGlobalTable("t");
    out.createSubtable("b");
    wEditorBlockSerializer writer(&out, false);
    d->serialize(writer);
    out.endSubtable();
    auto back = coretest::reread(out, "t");
    back->beginSubtable("b");
    EXPECT_EQ(back->getString("__name"), "blockA");
    EXPECT_EQ(back->getString("__type"), "wCoreTestParamsDescriptor");
    back->beginSubtable("__parameters");
    for (const char* name : {"label", "count"}) {
        ASSERT_TRUE(back->tryBeginSubtable(name)) << name;
        EXPECT_FALSE(back->hasEntry("value")) << name;
        back->endSubtable();
    }
    back->beginSubtable("gain");
    EXPECT_EQ(back->getDouble("value"), 2.5);
}

TEST_F(BlockSerializer, EntryKeysInOrderAndEmptyParameters) {
    coretest::AndDescriptor gate;
    gate.setName("g1");
    Lua::Loader out;
    out.createGlobalTable("t");
    out.createSubtable("b");
    wEditorBlockSerializer writer(&out, false);
    gate.serialize(writer);
    out.endSubtable();
    const zo::string source = Lua::Serializer::toSource(out.getState(), "t");
    EXPECT_THAT(source, ContainsRegex("__name = \"g1\"[^}]*__type = \"wCoreTestAndDescriptor\"[^}]*__parameters = \\{ *\\}"));

    // And it reads back as the same block.
    auto in = coretest::reread(out, "t");
    in->beginSubtable("b");
    wEditorBlockSerializer reader(in.get(), true);
    std::unique_ptr<wSimulationBlockDescriptor> copy = reader.createBlock();
    EXPECT_EQ(copy->getClassName(), "wCoreTestAndDescriptor");
    EXPECT_EQ(copy->getName(), "g1");
}

TEST_F(BlockSerializer, RuntimeTakesMissingValuesFromOverrides) {
    auto in = loaderFor(R"(t = { b = { __type = "wCoreTestParamsDescriptor", __name = "blockA",
        __parameters = { gain = {}, label = { value = "file" }, count = { value = 3 } } } })",
                        "t");
    auto overrides = loaderFor("o = { blockA = { gain = 2, label = 'ignored' }, other = { count = 1 } }", "o");
    wRuntimeBlockSerializer reader(in.get(), overrides.get());
    EXPECT_TRUE(reader.isReading() && reader.isRuntime());
    auto d = readParams(reader, *in);
    ASSERT_TRUE(d);
    EXPECT_EQ(d->gain.get(), 2);
    EXPECT_EQ(d->label.get(), "file");  // the file wins
    EXPECT_EQ(d->count.get(), 3);
    EXPECT_EQ(d->offset.get(), (Vec3d{1, 1, 1}));  // optional and absent: default kept
    EXPECT_EQ(overrides->depth(), 0);
    EXPECT_EQ(reader.getOverrides(), overrides.get());
}

TEST_F(BlockSerializer, RuntimeFailsOnUndefinedRequiredParameter) {
    const char* source = R"(t = { b = { __type = "wCoreTestParamsDescriptor", __name = "blockA",
        __parameters = { gain = {}, label = { value = "x" }, count = { value = 3 } } } })";
    // Overrides for another block only, then none at all.
    auto overrides = loaderFor("o = { blockB = { gain = 2 } }", "o");
    for (Lua::Loader* o : {overrides.get(), static_cast<Lua::Loader*>(nullptr)}) {
        auto in = loaderFor(source, "t");
        wRuntimeBlockSerializer reader(in.get(), o);
        const int liveBefore = ParamsDescriptor::live();
        try {
            readParams(reader, *in);
            FAIL();
        } catch (const wSimulationException& e) {
            EXPECT_STREQ(e.what(), "Parameter not defined: blockA.gain");
        }
        EXPECT_EQ(ParamsDescriptor::live(), liveBefore);
        EXPECT_EQ(reader.getOverrides(), o);
    }
    EXPECT_EQ(overrides->depth(), 0);

    // The block's overrides are left again when its load fails.
    auto badValue = loaderFor(R"(t = { b = { __type = "wCoreTestParamsDescriptor", __name = "blockA",
        __parameters = { gain = {}, label = { value = {} }, count = { value = 3 } } } })",
                              "t");
    auto own = loaderFor("o = { blockA = { gain = 2 } }", "o");
    wRuntimeBlockSerializer reader(badValue.get(), own.get());
    EXPECT_THROW(readParams(reader, *badValue), Lua::LoaderException);
    EXPECT_EQ(own->depth(), 0);
}

TEST_F(BlockSerializer, BadEntriesLeaveNoDescriptor) {
    const int liveBefore = ParamsDescriptor::live();
    auto unknown = loaderFor(R"(t = { b = { __type = "nosuch", __name = "x", __parameters = {} } })", "t");
    wEditorBlockSerializer r1(unknown.get(), true);
    try {
        readParams(r1, *unknown);
        FAIL();
    } catch (const wSimulationException& e) {
        EXPECT_STREQ(e.what(), "Block nosuch not found");
    }

    auto noType = loaderFor(R"(t = { b = { __name = "x" } })", "t");
    wRuntimeBlockSerializer r2(noType.get(), nullptr);
    try {
        readParams(r2, *noType);
        FAIL();
    } catch (const Lua::LoaderException& e) {
        EXPECT_THAT(e.what(), EndsWith("__type failed to Lua::Loader::getString"));
    }

    // A block that fails half-way through its parameters is destroyed.
    for (bool runtime : {false, true}) {
        auto bad = loaderFor(R"(t = { b = { __type = "wCoreTestParamsDescriptor", __name = "x",
            __parameters = { gain = { value = "not a number" } } } })",
                             "t");
        std::unique_ptr<wBlockSerializer> s;
        if (runtime) s = std::make_unique<wRuntimeBlockSerializer>(bad.get(), nullptr);
        else s = std::make_unique<wEditorBlockSerializer>(bad.get(), true);
        EXPECT_THROW(readParams(*s, *bad), Lua::LoaderException);
    }
    EXPECT_EQ(ParamsDescriptor::live(), liveBefore);
}

}  // namespace
