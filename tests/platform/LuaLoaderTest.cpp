// Lua::Loader: reading tables, paths in messages, array walks and the file directory.
#include <gtest/gtest.h>

#include <cmath>
#include <string>

#include "platform/PlatformTestUtil.h"
#include "vandrel/platform/LuaLoader.h"
#include "vandrel/platform/LuaSerializer.h"

namespace {

using platform_test::TempDir;

// The message of the LoaderException that `action` throws, or "" when none.
template <class F>
std::string failure(F&& action) {
    try {
        action();
    } catch (const Lua::LoaderException& e) {
        return e.what();
    }
    return "";
}

constexpr const char* kScheme = R"(
simulation_scheme = {
  blocks = {
    { __name = "first", __type = "T", gain = 2.5, count = 3, on = true,
      big = 2147483648, low = -2147483648, neg = -1, umax = 4294967295, huge = math.huge,
      pos = { 1, 2.5, -3 }, badpos = { 1, 2, "x" }, shortpos = { 1, 2 } },
    { __name = 7, ["odd key"] = { deep = {} }, ["end"] = 1 },
  },
  flag = true,
}
)";

TEST(LuaLoader, TypedGettersAndTheirMessages) {
    Lua::Loader loader;
    loader.loadString(kScheme, "scheme.sch", "simulation_scheme");
    EXPECT_EQ(loader.getFileName(), "scheme.sch");
    EXPECT_EQ(loader.getGlobalName(), "simulation_scheme");
    EXPECT_TRUE(loader.getBoolean("flag"));

    loader.beginSubtable("blocks");
    loader.beginSubtable(1);
    EXPECT_EQ(loader.depth(), 2);
    EXPECT_EQ(loader.getString("__name"), "first");
    EXPECT_EQ(loader.getInt("count"), 3);
    EXPECT_EQ(loader.getInt("low"), -2147483647 - 1);
    EXPECT_EQ(loader.getUINT32("umax"), 4294967295u);
    EXPECT_EQ(loader.getDouble("gain"), 2.5);
    EXPECT_EQ(loader.getDouble("count"), 3.0);
    EXPECT_TRUE(std::isinf(loader.getDouble("huge")));
    EXPECT_TRUE(loader.getBoolean("on"));

    const std::string at = "simulation_scheme.blocks[1].";
    EXPECT_EQ(failure([&] { loader.getInt("missing"); }),
              at + "missing failed to Lua::Loader::getInt: missing");
    EXPECT_EQ(failure([&] { loader.getInt("gain"); }),
              at + "gain failed to Lua::Loader::getInt: expected a whole number, got 2.5");
    EXPECT_EQ(failure([&] { loader.getInt("__name"); }),
              at + "__name failed to Lua::Loader::getInt: expected a whole number, got string");
    EXPECT_EQ(failure([&] { loader.getInt("big"); }),
              at + "big failed to Lua::Loader::getInt: out of range, got 2147483648");
    EXPECT_EQ(failure([&] { loader.getInt("huge"); }),
              at + "huge failed to Lua::Loader::getInt: expected a whole number, got math.huge");
    EXPECT_EQ(failure([&] { loader.getUINT32("neg"); }),
              at + "neg failed to Lua::Loader::getUINT32: out of range, got -1");
    EXPECT_EQ(failure([&] { loader.getDouble("__name"); }),
              at + "__name failed to Lua::Loader::getDouble: expected a number, got string");
    EXPECT_EQ(failure([&] { loader.getBoolean("count"); }),
              at + "count failed to Lua::Loader::getBoolean: expected a boolean, got number");
    EXPECT_EQ(failure([&] { loader.getString("count"); }),
              at + "count failed to Lua::Loader::getString");

    // Soft getters leave the output alone on failure.
    zo::string text = "untouched";
    EXPECT_FALSE(loader.tryGetString("count", &text));
    EXPECT_FALSE(loader.tryGetString("missing", &text));
    EXPECT_EQ(text, "untouched");
    Vec3d v(9, 9, 9);
    EXPECT_TRUE(loader.tryGetVector("pos", &v));
    EXPECT_EQ(v, Vec3d(1, 2.5, -3));
    v = Vec3d(9, 9, 9);
    EXPECT_FALSE(loader.tryGetVector("badpos", &v));
    EXPECT_FALSE(loader.tryGetVector("shortpos", &v));
    EXPECT_FALSE(loader.tryGetVector("gain", &v));
    EXPECT_EQ(v, Vec3d(9, 9, 9));
    // A failed getter leaves the cursor where it was.
    EXPECT_EQ(loader.depth(), 2);
    EXPECT_EQ(loader.getString("__name"), "first");

    loader.endSubtable();
    loader.beginSubtable(2);
    EXPECT_EQ(failure([&] { loader.getString("__name"); }),
              "simulation_scheme.blocks[2].__name failed to Lua::Loader::getString");
    EXPECT_EQ(loader.formatPath("odd key"), "simulation_scheme.blocks[2][\"odd key\"]");
    EXPECT_EQ(loader.formatPath_("end"), "simulation_scheme.blocks[2][\"end\"]");
    EXPECT_EQ(loader.formatPath(4), "simulation_scheme.blocks[2][4]");
    loader.beginSubtable("odd key");
    EXPECT_EQ(loader.formatPath("deep"), "simulation_scheme.blocks[2][\"odd key\"].deep");
    loader.endSubtable();
    EXPECT_EQ(loader.getInt("end"), 1);
}

TEST(LuaLoader, EnteringAndLeavingTables) {
    Lua::Loader loader;
    loader.loadString(kScheme, "scheme.sch", "simulation_scheme");
    EXPECT_EQ(failure([&] { loader.beginSubtable("nope"); }),
              "simulation_scheme.nope failed to Lua::Loader::beginSubtable: missing");
    EXPECT_EQ(failure([&] { loader.beginSubtable("flag"); }),
              "simulation_scheme.flag failed to Lua::Loader::beginSubtable: expected a table, got boolean");
    EXPECT_FALSE(loader.tryBeginSubtable("nope"));
    EXPECT_FALSE(loader.tryBeginSubtable("flag"));
    EXPECT_FALSE(loader.tryBeginSubtable(1));
    EXPECT_EQ(loader.depth(), 0);
    EXPECT_TRUE(loader.hasEntry("flag"));
    EXPECT_FALSE(loader.hasEntry("nope"));

    ASSERT_TRUE(loader.tryBeginSubtable("blocks"));
    EXPECT_TRUE(loader.hasEntry(2));
    EXPECT_FALSE(loader.hasEntry(3));
    loader.endSubtable();
    EXPECT_EQ(failure([&] { loader.endSubtable(); }),
              "simulation_scheme failed to Lua::Loader::endSubtable: no subtable is open");
    EXPECT_EQ(loader.depth(), 0);
    EXPECT_TRUE(loader.getBoolean("flag"));

    // createSubtable replaces a value and enters the new, empty table.
    loader.createSubtable("flag");
    EXPECT_FALSE(loader.hasEntry(1));
    loader.setInt(1, 5);
    loader.endSubtable();
    loader.beginSubtable("flag");
    EXPECT_EQ(loader.getInt(1), 5);
}

TEST(LuaLoader, ArrayWalks) {
    Lua::Loader loader;
    loader.loadString(R"(
t = {
  list = {
    { name = "a", inner = { { v = 1 }, { v = 2 } } },
    { name = "b", inner = {} },
    { name = "c", inner = { { v = 3 } } },
    [5] = { name = "after a gap" },
  },
  mixed = { { }, 42 },
}
)",
                      "walk.lua", "t");
    loader.beginSubtable("list");
    loader.beginArray();
    EXPECT_EQ(loader.arrayIndex(), 0);
    std::string seen;
    while (loader.nextArray()) {
        seen += loader.getString("name");
        seen += std::to_string(loader.arrayIndex());
        seen += "(";
        loader.beginSubtable("inner");
        loader.beginArray();
        while (loader.nextArray()) seen += std::to_string(loader.getInt("v"));
        loader.endSubtable();
        seen += ")";
    }
    // The walk stops at the first missing index and is back on the array.
    EXPECT_EQ(seen, "a1(12)b2()c3(3)");
    EXPECT_EQ(loader.depth(), 1);
    EXPECT_TRUE(loader.hasEntry(5));

    // Leaving an element early with endSubtable does not upset the walk.
    loader.beginArray();
    ASSERT_TRUE(loader.nextArray());
    loader.endSubtable();
    ASSERT_TRUE(loader.nextArray());
    EXPECT_EQ(loader.getString("name"), "b");
    loader.endSubtable();
    loader.endSubtable();

    loader.beginSubtable("mixed");
    loader.beginArray();
    EXPECT_TRUE(loader.nextArray());
    EXPECT_EQ(failure([&] { loader.nextArray(); }),
              "t.mixed[2] failed to Lua::Loader::nextArray: expected a table, got number");
    EXPECT_EQ(loader.depth(), 1);
    EXPECT_EQ(failure([&] { loader.nextArray(); }),
              "t.mixed failed to Lua::Loader::nextArray: no array walk was begun");
}

TEST(LuaLoader, DirectoryOfTheLoadedFile) {
    TempDir dir;
    const std::string file = dir.file("scheme.sch");
    platform_test::writeFile(file, "s = { x = 1 }\n");
    Lua::Loader loader;
    EXPECT_EQ(loader.getDirectory(), "");
    loader.load(file, "s");
    EXPECT_EQ(loader.getDirectory(), dir.path() + "/");
    EXPECT_EQ(loader.getDirectory() + "scheme.sch", file);
    EXPECT_EQ(loader.getInt("x"), 1);

    loader.loadString("s = {}", "bare.sch", "s");
    EXPECT_EQ(loader.getDirectory(), "./");
    loader.loadString("s = {}", "a/b/c.sch", "s");
    EXPECT_EQ(loader.getDirectory(), "a/b/");

    loader.createGlobalTable("fresh");
    EXPECT_EQ(loader.getDirectory(), "");
}

TEST(LuaLoader, LoadFailuresNameTheFile) {
    TempDir dir;
    Lua::Loader loader;
    const std::string missing = dir.file("missing.sch");
    EXPECT_EQ(failure([&] { loader.load(missing, "s"); }), "Cannot open file: " + missing);
    // The loader holds no table after a failed load, and says so.
    EXPECT_EQ(failure([&] { loader.getInt("x"); }), "s.x failed to Lua::Loader::getInt: no table is open");
    EXPECT_FALSE(loader.hasEntry("x"));

    const std::string broken = dir.file("broken.sch");
    platform_test::writeFile(broken, "s = {\n  x = 1,\n  y = = 2,\n}\n");
    const std::string syntax = failure([&] { loader.load(broken, "s"); });
    EXPECT_EQ(syntax.rfind(broken + ":3:", 0), 0u) << syntax;

    // Paths longer than Lua's own abbreviation still appear in full.
    const std::string longName = std::string(80, 'd') + "/scheme.sch";
    const std::string runtime = failure([&] { loader.loadString("s = { x = nope.y }", longName, "s"); });
    EXPECT_EQ(runtime, longName + ":1: attempt to index global 'nope' (a nil value)");

    EXPECT_EQ(failure([&] { loader.loadString("t = {}", "f.sch", "s"); }),
              "f.sch: global table s is not defined");
    EXPECT_EQ(failure([&] { loader.loadString("s = 3", "f.sch", "s"); }),
              "f.sch: global s is a number, expected a table");

    // The loader recovers: the next load works.
    loader.loadString("s = { x = 2 }", "ok.sch", "s");
    EXPECT_EQ(loader.getInt("x"), 2);
}

TEST(LuaLoader, LoadedTableBecomesAGlobalOfTheState) {
    Lua::Loader loader;
    loader.loadString("helper = { 1 }\ns = { x = 1 }", "f.sch", "s");
    loader.setInt("y", 2);
    // Only the named global is published, with what was written into it since.
    EXPECT_EQ(Lua::Serializer::toSource(loader.getState(), "s"), "s = { x = 1, y = 2 }\n");
    EXPECT_EQ(failure([&] { Lua::Serializer::toSource(loader.getState(), "helper"); }),
              "Cannot write global helper: it is not defined");
    // Two loaders do not share tables.
    Lua::Loader other;
    other.loadString("s = { x = 5 }", "g.sch", "s");
    EXPECT_EQ(other.getInt("x"), 5);
    EXPECT_FALSE(other.hasEntry("y"));
    EXPECT_EQ(loader.getInt("x"), 1);
}

}  // namespace
