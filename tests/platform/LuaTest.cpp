// The Lua layer: reading tables (paths in messages, array walks, the sandbox), writing
// them back as source, and the Lua state helpers.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <filesystem>
#include <functional>
#include <limits>

#include <lua.hpp>

#include "support/SchemeFiles.h"
#include "vandrel/platform/LuaLoader.h"
#include "vandrel/platform/LuaSerializer.h"
#include "vandrel/platform/LuaState.h"

namespace {

using Lua::Loader;
using Lua::LoaderException;
using Lua::Serializer;

template <class F>
std::string failure(F&& f) {
    return testutil::messageOf<LoaderException>(f);
}

std::string source(const Loader& l, const char* global) { return Serializer::toSource(l.getState(), global); }

TEST(LuaLoader, TypedGettersAndEveryMessage) {
    Loader l;
    l.loadString(R"(s = { blocks = { { __name = "first", gain = 2.5, count = 3, on = true, big = 2147483648,
        low = -2147483648, neg = -1, umax = 4294967295, huge = math.huge, pos = { 1, 2.5, -3 },
        badpos = { 1, 2, "x" }, shortpos = { 1, 2 } }, { __name = 7, ["odd key"] = { deep = {} }, ["end"] = 1 } },
      flag = true })",
                 "dir/scheme.sch", "s");
    EXPECT_EQ(l.getDirectory(), "dir/");
    EXPECT_TRUE(l.getBoolean("flag"));
    l.beginSubtable("blocks");
    l.beginSubtable(1);
    EXPECT_EQ(l.getString("__name"), "first");
    EXPECT_EQ(l.getInt("low"), -2147483647 - 1);
    EXPECT_EQ(l.getUINT32("umax"), 4294967295u);
    EXPECT_EQ(l.getDouble("count"), 3.0);
    EXPECT_TRUE(l.getBoolean("on"));
    const std::string at = "s.blocks[1].";
    const std::pair<std::function<void()>, std::string> cases[] = {
        {[&] { l.getInt("missing"); }, "missing is missing: a whole number is expected here"},
        {[&] { l.getInt("gain"); }, "gain must be a whole number, got 2.5"},
        {[&] { l.getInt("__name"); }, "__name must be a whole number, not a string"},
        {[&] { l.getInt("big"); }, "big must be from -2147483648 to 2147483647, got 2147483648"},
        {[&] { l.getInt("huge"); }, "huge must be a whole number, got math.huge"},
        {[&] { l.getUINT32("neg"); }, "neg must be from 0 to 4294967295, got -1"},
        {[&] { l.getDouble("__name"); }, "__name must be a number, not a string"},
        {[&] { l.getDouble("nope"); }, "nope is missing: a number is expected here"},
        {[&] { l.getBoolean("count"); }, "count must be true or false, not a number"},
        {[&] { l.getBoolean("nope"); }, "nope is missing: true or false is expected here"},
        {[&] { l.getString("count"); }, "count failed to Lua::Loader::getString: expected a string, not a number"},
        {[&] { l.beginSubtable("nope"); }, "nope is missing: a table is expected here"},
        {[&] { l.beginSubtable("on"); }, "on must be a table, not a boolean"},
    };
    for (const auto& [action, message] : cases) EXPECT_EQ(failure(action), at + message);

    // Soft getters leave the output alone on failure; no failure moves the cursor.
    zo::string text = "untouched";
    EXPECT_FALSE(l.tryGetString("count", &text) || l.tryGetString("missing", &text));
    Vec3d v(9, 9, 9);
    EXPECT_FALSE(l.tryGetVector("badpos", &v) || l.tryGetVector("shortpos", &v) || l.tryGetVector("gain", &v));
    EXPECT_EQ(v, Vec3d(9, 9, 9));
    EXPECT_FALSE(l.tryBeginSubtable("nope") || l.tryBeginSubtable("on") || l.tryBeginSubtable(1));
    EXPECT_EQ(text, "untouched");
    EXPECT_TRUE(l.tryGetVector("pos", &v));
    EXPECT_EQ(v, Vec3d(1, 2.5, -3));
    EXPECT_EQ(l.depth(), 2);
    EXPECT_DOUBLE_EQ(l.getDouble("gain"), 2.5);

    l.endSubtable();
    l.beginSubtable(2);
    EXPECT_EQ(failure([&] { l.getString("__name"); }), "s.blocks[2].__name failed to Lua::Loader::getString: expected a string, not a number");
    EXPECT_EQ(l.formatPath("end"), "s.blocks[2][\"end\"]");
    EXPECT_EQ(l.formatPath(4), "s.blocks[2][4]");
    l.beginSubtable("odd key");
    EXPECT_EQ(l.formatPath("deep"), "s.blocks[2][\"odd key\"].deep");
    l.endSubtable();
    EXPECT_EQ(l.getInt("end"), 1);
    l.endSubtable();
    l.endSubtable();
    EXPECT_EQ(failure([&] { l.endSubtable(); }), "s failed to Lua::Loader::endSubtable: no subtable is open");
    EXPECT_TRUE(l.getBoolean("flag"));
    EXPECT_TRUE(l.hasEntry("blocks") && !l.hasEntry("nope"));
}

TEST(LuaLoader, ArrayWalks) {
    Loader l;
    l.loadString(R"(t = { list = { { name = "a", inner = { { v = 1 }, { v = 2 } } }, { name = "b", inner = {} },
        { name = "c", inner = { { v = 3 } } }, [5] = { name = "after a gap" } }, mixed = { {}, 42 } })",
                 "walk.lua", "t");
    l.beginSubtable("list");
    l.beginArray();
    std::string seen;
    while (l.nextArray()) {
        seen += std::string(l.getString("name")) + std::to_string(l.arrayIndex()) + "(";
        l.beginSubtable("inner");
        l.beginArray();
        while (l.nextArray()) seen += std::to_string(l.getInt("v"));
        l.endSubtable();
        seen += ")";
    }
    // The walk stops at the first missing index and is back on the array.
    EXPECT_EQ(seen, "a1(12)b2()c3(3)");
    EXPECT_EQ(l.depth(), 1);
    EXPECT_TRUE(l.hasEntry(5));
    // Leaving an element early with endSubtable does not upset the walk.
    l.beginArray();
    ASSERT_TRUE(l.nextArray());
    l.endSubtable();
    ASSERT_TRUE(l.nextArray());
    EXPECT_EQ(l.getString("name"), "b");
    l.endSubtable();
    l.endSubtable();

    l.beginSubtable("mixed");
    l.beginArray();
    EXPECT_TRUE(l.nextArray());
    EXPECT_EQ(failure([&] { l.nextArray(); }), "t.mixed[2] must be a table, not a number");
    EXPECT_EQ(failure([&] { l.nextArray(); }), "t.mixed failed to Lua::Loader::nextArray: no array walk was begun");
    EXPECT_EQ(l.depth(), 1);
}

TEST(LuaLoader, FailedLoadsNameTheFileAndLeaveNoTable) {
    const auto dir = testutil::freshDir();
    Loader l;
    l.load(testutil::writeFile(dir / "ok.sch", "s = { x = 1 }\n"), "s");
    EXPECT_EQ(l.getDirectory(), dir.string() + "/");
    EXPECT_EQ(l.getInt("x"), 1);
    const std::string missing = (dir / "missing.sch").string();
    EXPECT_EQ(failure([&] { l.load(missing, "s"); }), "Cannot open file: " + missing);
    for (auto action : {+[](Loader& x) { x.getInt("x"); }, +[](Loader& x) { x.getBoolean("x"); },
                        +[](Loader& x) { x.getDouble("x"); }, +[](Loader& x) { x.beginSubtable("x"); },
                        +[](Loader& x) { x.setVector("x", Vec3d(1, 2, 3)); }}) {
        const std::string m = failure([&] { action(l); });
        EXPECT_TRUE(m.rfind("s.x failed to Lua::Loader::", 0) == 0 && m.find(": no table is open") != std::string::npos) << m;
    }
    EXPECT_FALSE(l.hasEntry("x"));

    const std::string broken = testutil::writeFile(dir / "broken.sch", "s = {\n  x = 1,\n  y = = 2,\n}\n");
    EXPECT_EQ(failure([&] { l.load(broken, "s"); }).rfind(broken + ":3:", 0), 0u);
    // Paths longer than Lua's own abbreviation still appear in full.
    const std::string longName = std::string(80, 'd') + "/scheme.sch";
    EXPECT_EQ(failure([&] { l.loadString("s = { x = nope.y }", longName, "s"); }),
              longName + ":1: attempt to index global 'nope' (a nil value)");
    EXPECT_EQ(failure([&] { l.loadString("t = {}", "f.sch", "s"); }), "f.sch: global table s is not defined");
    EXPECT_EQ(failure([&] { l.loadString("s = 3", "f.sch", "s"); }), "f.sch: global s is a number, expected a table");
    // The loader recovers, and a load replaces what the previous one left.
    l.loadString("s = { x = 2 }", "a.sch", "s");
    l.loadString("helper = { 1 }\ns = { y = 3 }", "bare.sch", "s");
    EXPECT_EQ(l.getDirectory(), "./");
    EXPECT_FALSE(l.hasEntry("x"));
    l.setInt("z", 4);
    // Only the named global is published, with what was written into it since.
    EXPECT_EQ(source(l, "s"), "s = { y = 3, z = 4 }\n");
    EXPECT_EQ(failure([&] { source(l, "helper"); }), "Cannot write global helper: it is not defined");
}

TEST(LuaLoader, SandboxRefusesProgramsBinaryChunksLoopsAndMemoryBombs) {
    const auto dir = testutil::freshDir();
    const std::string marker = (dir / "marker").string();
    Loader l;
    const std::string attempts[] = {"os.execute('touch " + marker + "')", "io.open('" + marker + "', 'w'):close()", "require('os')",
          "loadstring('x = 1')()", "dofile('" + marker + "')", "setmetatable({}, {})", "('x'):rep(2)", "print('x')",
          "rawset({}, 1, 1)", "debug.getregistry()", "_G.print(1)", "package.loadlib('libc.so.6', 'system')"};
    for (const std::string& attempt : attempts) {
        const std::string m = failure([&] { l.loadString("local r = " + attempt + "\ns = {}", "evil.sch", "s"); });
        EXPECT_TRUE(m.rfind("evil.sch:1: ", 0) == 0 && m.find("attempt to ") != std::string::npos) << attempt << ": " << m;
    }
    EXPECT_FALSE(std::filesystem::exists(marker));
    for (const char* loop : {"while true do end", "local function f() return f() end\nf()"})
        EXPECT_NE(failure([&] { l.loadString(loop, "loop.sch", "s"); }).find("stopped after 10000000 Lua instructions"),
                  std::string::npos);
    EXPECT_EQ(failure([&] { l.loadString("local s = 'x'\nwhile true do s = s .. s end", "bomb.sch", "s"); }),
              "bomb.sch: used more than the 256 MiB of memory a scheme file may take");
    EXPECT_EQ(failure([&] {
                  l.loadString("local s = 'x'\nfor i = 1, 20 do s = s .. s end\nlocal t, i = {}, 0\nwhile true do i = i + 1; t[i] = s .. i end",
                               "bomb2.sch", "s");
              }),
              "bomb2.sch: used more than the 256 MiB of memory a scheme file may take");
    l.loadString("s = {}", "ok.sch", "s");
    EXPECT_LT(lua_gc(l.getState(), LUA_GCCOUNT, 0), 16 * 1024);  // the bombs' memory is given back

    // A precompiled chunk, as luac writes it.
    std::string bytes;
    lua_State* L = luaL_newstate();
    ASSERT_EQ(luaL_loadstring(L, "s = { x = 1 }"), 0);
    lua_dump(L, [](lua_State*, const void* p, size_t n, void* out) {
        static_cast<std::string*>(out)->append(static_cast<const char*>(p), n);
        return 0;
    }, &bytes);
    lua_close(L);
    const std::string chunk = testutil::writeFile(dir / "compiled.sch", bytes);
    EXPECT_EQ(failure([&] { l.load(chunk, "s"); }),
              chunk + ": precompiled Lua chunks are not accepted, scheme files must be source text");

    // Budgets are per load; math is there and private to each load.
    l.loadString("math.pi = 3\nlocal t = {}\nfor i = 1, 1000 do t[i] = i end\ns = { n = #t, a = math.pi }", "a.sch", "s");
    EXPECT_EQ(l.getInt("n"), 1000);
    EXPECT_EQ(l.getDouble("a"), 3.0);
    l.loadString("s = { a = math.pi / 2, h = -math.huge }", "b.sch", "s");
    EXPECT_EQ(l.getDouble("a"), M_PI / 2);
    EXPECT_EQ(l.getDouble("h"), -HUGE_VAL);
}

TEST(LuaLoader, FailedEnterTooDeepLeavesTheCursorInPlace) {
    Loader l;
    l.loadString("local t = { depth = 0 }\nlocal c = t\n"
                 "for i = 1, 10000 do c.x = { depth = i }; c = c.x end\ns = t", "deep.sch", "s");
    std::string m;
    try {
        while (l.depth() < 10000) l.beginSubtable("x");
    } catch (const LoaderException& e) {
        m = e.what();
    }
    EXPECT_NE(m.find("failed to Lua::Loader::beginSubtable: tables nested too deeply"), std::string::npos) << m;
    EXPECT_EQ(l.getInt("depth"), l.depth());
}

TEST(LuaSerializer, KeyOrderAndLayout) {
    // Keys never written through a loader come sorted: the run 1..n, other numbers, names;
    // keys written through it follow in their first write order.
    Loader l;
    l.loadString("local shared = { inner = {} }\nt = { b = 1, [3] = 'c', a = 2, 10, 20, [0] = 5, [-1] = 4, [2.5] = 6, "
                 "['not a name'] = 7, ['and'] = 8, [5] = 9, p = shared, q = shared, "
                 "long = { 'a rather long text that pushes this table past the width of a line, indeed' } }",
                 "t.lua", "t");
    l.setString("z", "q\"\x01");
    l.setInt("a", 0);
    l.createSubtable("rec");
    l.setInt(2, 20);
    l.setInt(1, 10);
    l.setInt("zeta", 1);
    l.setVector("v", {1, -0.5, 1e-300});
    l.setInt("zeta", 3);  // rewriting a key keeps its place
    EXPECT_EQ(source(l, "t"), R"(t = {
  10,
  20,
  "c",
  [-1] = 4,
  [0] = 5,
  [2.5] = 6,
  [5] = 9,
  ["and"] = 8,
  b = 1,
  long = {
    "a rather long text that pushes this table past the width of a line, indeed",
  },
  ["not a name"] = 7,
  p = {
    inner = {},
  },
  q = {
    inner = {},
  },
  z = "q\"\001",
  a = 0,
  rec = {
    [2] = 20,
    [1] = 10,
    zeta = 3,
    v = { 1, -0.5, 1e-300 },
  },
}
)");
    l.createGlobalTable("e");
    EXPECT_EQ(source(l, "e"), "e = {}\n");
}

TEST(LuaSerializer, EveryStringAndNumberReadsBackExactly) {
    std::string allBytes;
    for (int c = 1; c < 256; ++c) allBytes += static_cast<char>(c);
    const std::string strings[] = {"", "quote \" and 'single' \\", "line\nbreak\r\n\t", std::string("nul\0in", 6),
                                   std::string("\0" "1", 2), "]] [[ x ]=]", "gr\xc3\xbc\xc3\x9f \xe2\x82\xac", allBytes};
    const double numbers[] = {0.0, -0.0, -3.0, 0.1, 1.0 / 3, 5e-324, -1.7976931348623157e308, 9007199254740993.0,
                              1e21, -2147483649.0, std::numeric_limits<double>::infinity(), -HUGE_VAL};
    Loader l;
    l.createGlobalTable("s");
    for (std::size_t i = 0; i < std::size(strings); ++i) l.setString(static_cast<int>(i + 1), strings[i]);
    l.createSubtable("keys");
    for (std::size_t i = 0; i < std::size(strings); ++i) l.setInt(strings[i], static_cast<int>(i));
    l.endSubtable();
    l.createSubtable("n");
    for (std::size_t i = 0; i < std::size(numbers); ++i) l.setDouble(static_cast<int>(i + 1), numbers[i]);
    l.setDouble("nan", std::nan(""));
    l.endSubtable();
    const std::string text = source(l, "s");
    // Control bytes never appear raw, so the file survives editors and line-ending changes.
    for (char c : text) EXPECT_TRUE((static_cast<unsigned char>(c) >= 0x20 && c != 0x7F) || c == '\n') << int(c);
    EXPECT_NE(text.find("\"\\0001\""), std::string::npos);
    EXPECT_NE(text.find("\n    -1/math.huge,\n    -3,\n"), std::string::npos) << text;
    EXPECT_NE(text.find("nan = 0/0"), std::string::npos);

    Loader r;
    r.loadString(text, "s.lua", "s");
    lua_State* L = r.getState();
    lua_getglobal(L, "s");
    for (std::size_t i = 0; i < std::size(strings); ++i) {
        lua_rawgeti(L, -1, static_cast<int>(i + 1));
        std::size_t length = 0;
        const char* value = lua_tolstring(L, -1, &length);
        EXPECT_EQ(std::string(value, length), strings[i]) << i;
        lua_pop(L, 1);
    }
    lua_pop(L, 1);
    r.beginSubtable("keys");
    for (std::size_t i = 0; i < std::size(strings); ++i) EXPECT_EQ(r.getInt(strings[i]), static_cast<int>(i));
    r.endSubtable();
    r.beginSubtable("n");
    for (std::size_t i = 0; i < std::size(numbers); ++i) {
        const double got = r.getDouble(static_cast<int>(i + 1));
        EXPECT_EQ(std::memcmp(&got, &numbers[i], sizeof got), 0) << numbers[i];
    }
    EXPECT_TRUE(std::isnan(r.getDouble("nan")));
}

TEST(LuaSerializer, RefusesWhatHasNoSourceForm) {
    Loader l;
    l.loadString("t = { ok = 1, sub = { f = math.sin } }", "t.lua", "t");
    lua_State* L = l.getState();
    EXPECT_EQ(failure([&] { source(l, "t"); }), "t.sub.f cannot be written: values of type function have no source form");
    EXPECT_EQ(failure([&] { source(l, "a b"); }), "Cannot write global \"a b\": not a Lua name");
    lua_pushnumber(L, 3);
    lua_setglobal(L, "u");
    EXPECT_EQ(failure([&] { source(l, "u"); }), "Cannot write global u: it is a number, not a table");
    l.createGlobalTable("c");
    l.createSubtable("self");
    lua_pushstring(L, "back");
    lua_getglobal(L, "c");
    lua_rawset(L, -3);
    EXPECT_EQ(failure([&] { source(l, "c"); }), "c.self.back cannot be written: the table contains itself");
    l.createGlobalTable("b");
    lua_pushboolean(L, 1);
    lua_pushnumber(L, 1);
    lua_rawset(L, -3);
    EXPECT_EQ(failure([&] { source(l, "b"); }), "b cannot be written: it has a key of type boolean");
    EXPECT_EQ(lua_gettop(L), 1);  // the stack is left as it was

    // 63 levels below the global read back; one more is refused.
    l.createGlobalTable("d");
    for (int i = 1; i < 64; ++i) l.createSubtable("x");
    l.setInt("leaf", 64);
    Loader r;
    r.loadString(source(l, "d"), "d.lua", "d");
    for (int i = 1; i < 64; ++i) r.beginSubtable("x");
    EXPECT_EQ(r.getInt("leaf"), 64);
    l.createSubtable("x");
    std::string path = "d";
    for (int i = 0; i < 64; ++i) path += ".x";
    EXPECT_EQ(failure([&] { source(l, "d"); }), path + " cannot be written: tables nested more than 64 deep");
    const std::string unwritable = (testutil::freshDir() / "no/such/w.sch").string();
    l.createGlobalTable("w");
    EXPECT_EQ(failure([&] { Serializer(unwritable).serialize(L, "w"); }), "Cannot open file for writing: " + unwritable);
}

TEST(LuaState, ProtectedCallsLibrariesAndTheMemoryLimit) {
    lua_State* L = ZO_lua_open("test state");
    ZO_lua_openlibs(L);
    ASSERT_EQ(luaL_loadstring(L, "return string.rep('ab', 3), math.floor(2.5)"), 0);
    ASSERT_EQ(ZO_lua_pcall(L, 0, 2, 0), 0);
    EXPECT_STREQ(lua_tostring(L, -2), "ababab");
    EXPECT_EQ(lua_tonumber(L, -1), 2.0);
    ASSERT_EQ(luaL_loadstring(L, "error('boom', 0)"), 0);
    EXPECT_EQ(ZO_lua_pcall(L, 0, 0, 0), LUA_ERRRUN);
    EXPECT_STREQ(lua_tostring(L, -1), "boom");
    lua_settop(L, 0);

    const std::size_t base = ZO_lua_memoryused(L);
    EXPECT_EQ(ZO_lua_setmemorylimit(L, base + (1 << 20)), SIZE_MAX);
    const char* hog = "local t = {} for i = 1, 100 do t[i] = string.rep('x', 65536) .. i end";
    ASSERT_EQ(luaL_loadstring(L, hog), 0);
    EXPECT_EQ(ZO_lua_pcall(L, 0, 0, 0), LUA_ERRMEM);
    lua_settop(L, 0);
    ZO_lua_setmemorylimit(L, SIZE_MAX);
    ASSERT_EQ(luaL_loadstring(L, hog), 0);
    EXPECT_EQ(ZO_lua_pcall(L, 0, 0, 0), 0);
    ZO_lua_close(L);
    ZO_lua_close(nullptr);
}

TEST(LuaStateDeathTest, UnprotectedErrorEndsTheProcessWithAMessage) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH(
        {
            lua_State* L = ZO_lua_open("doomed state");
            lua_pushstring(L, "boom");
            lua_error(L);
        },
        "vandrel: unprotected Lua error in doomed state: boom");
}

}  // namespace
