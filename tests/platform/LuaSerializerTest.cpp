// Lua::Serializer: exact text form, key order, and values that read back unchanged.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <cstring>
#include <limits>
#include <string>
#include <vector>

#include <lua.hpp>

#include "platform/PlatformTestUtil.h"
#include "vandrel/platform/LuaLoader.h"
#include "vandrel/platform/LuaSerializer.h"

namespace {

using platform_test::TempDir;

template <class F>
std::string failure(F&& action) {
    try {
        action();
    } catch (const Lua::LoaderException& e) {
        return e.what();
    }
    return "";
}

std::uint64_t bitsOf(double value) {
    std::uint64_t bits = 0;
    std::memcpy(&bits, &value, sizeof bits);
    return bits;
}

// A small scheme built through the setters, in the order a scheme save writes it.
void buildScheme(Lua::Loader& loader, double gain, const std::string& name) {
    loader.createGlobalTable("simulation_scheme");
    loader.createSubtable("blocks");
    loader.createSubtable(1);
    loader.setString("__name", name);
    loader.setString("__type", "wBlockSummatorDescriptor<double>");
    loader.createSubtable("__parameters");
    loader.createSubtable("gain");
    loader.setDouble("value", gain);
    loader.endSubtable();
    loader.createSubtable("offset");
    loader.endSubtable();
    loader.createSubtable("start");
    loader.setVector("value", Vec3d(1, -0.5, 1e-300));
    loader.endSubtable();
    loader.endSubtable();
    loader.endSubtable();
    loader.endSubtable();
    loader.createSubtable("io");
    loader.createSubtable("inputWires");
    loader.createSubtable(1);
    loader.setString("name", "in");
    loader.setInt("type", 2);
    loader.endSubtable();
    loader.endSubtable();
    loader.endSubtable();
    loader.createSubtable("connections");
    loader.createSubtable(1);
    loader.setInt("output_block", -666);
    loader.setString("output_lead", "in");
    loader.setInt("input_block", 0);
    loader.setString("input_lead", "a rather long lead name that pushes this line past the limit");
    loader.setBoolean("port", false);
    loader.endSubtable();
    loader.endSubtable();
}

TEST(LuaSerializer, SchemeTextForm) {
    Lua::Loader loader;
    buildScheme(loader, 2.5, "sum \"1\"");
    EXPECT_EQ(Lua::Serializer::toSource(loader.getState(), "simulation_scheme"),
              R"(simulation_scheme = {
  blocks = {
    {
      __name = "sum \"1\"",
      __type = "wBlockSummatorDescriptor<double>",
      __parameters = {
        gain = { value = 2.5 },
        offset = {},
        start = {
          value = { 1, -0.5, 1e-300 },
        },
      },
    },
  },
  io = {
    inputWires = {
      { name = "in", type = 2 },
    },
  },
  connections = {
    {
      output_block = -666,
      output_lead = "in",
      input_block = 0,
      input_lead = "a rather long lead name that pushes this line past the limit",
      port = false,
    },
  },
}
)");
    Lua::Loader empty;
    empty.createGlobalTable("e");
    EXPECT_EQ(Lua::Serializer::toSource(empty.getState(), "e"), "e = {}\n");
}

TEST(LuaSerializer, RewritingALoadedFileGivesTheSameBytes) {
    TempDir dir;
    const std::string first = dir.file("first.sch");
    const std::string second = dir.file("second.sch");
    {
        Lua::Loader writer;
        buildScheme(writer, 0.1, "blk\n\t\\");
        Lua::Serializer(first).serialize(writer.getState(), "simulation_scheme");
    }
    // Read every value back and write it again through the same setter calls.
    Lua::Loader reader;
    reader.load(first, "simulation_scheme");
    reader.beginSubtable("blocks");
    reader.beginSubtable(1);
    const std::string name = reader.getString("__name");
    reader.beginSubtable("__parameters");
    reader.beginSubtable("gain");
    const double gain = reader.getDouble("value");
    reader.endSubtable();
    reader.beginSubtable("start");
    Vec3d start;
    ASSERT_TRUE(reader.tryGetVector("value", &start));
    EXPECT_EQ(start, Vec3d(1, -0.5, 1e-300));
    EXPECT_EQ(name, "blk\n\t\\");
    EXPECT_EQ(bitsOf(gain), bitsOf(0.1));

    Lua::Loader rewriter;
    buildScheme(rewriter, gain, name);
    Lua::Serializer(second).serialize(rewriter.getState(), "simulation_scheme");
    EXPECT_EQ(platform_test::readFile(second), platform_test::readFile(first));

    // The same loader can write its loaded table back: keys it never wrote come sorted.
    const std::string third = dir.file("third.sch");
    Lua::Serializer(third).serialize(reader.getState(), "simulation_scheme");
    Lua::Loader again;
    again.load(third, "simulation_scheme");
    again.beginSubtable("connections");
    again.beginSubtable(1);
    EXPECT_EQ(again.getInt("output_block"), -666);
    EXPECT_FALSE(again.getBoolean("port"));
}

TEST(LuaSerializer, KeyOrder) {
    Lua::Loader loader;
    loader.createGlobalTable("t");
    loader.setInt("zeta", 1);
    loader.setInt("alpha", 2);
    loader.setInt(2, 20);
    loader.setInt(1, 10);
    loader.setInt("zeta", 3);  // rewriting a key keeps its place
    EXPECT_EQ(Lua::Serializer::toSource(loader.getState(), "t"),
              "t = { zeta = 3, alpha = 2, [2] = 20, [1] = 10 }\n");

    // Tables with no recorded order: the run 1..n, other numbers, then names, sorted;
    // keys written later through the loader follow in their write order.
    loader.loadString("t = { b = 1, [3] = 'c', a = 2, 10, 20, [0] = 5, [-1] = 4, [2.5] = 6, "
                      "['not a name'] = 7, ['and'] = 8, [5] = 9 }",
                      "t.lua", "t");
    EXPECT_EQ(Lua::Serializer::toSource(loader.getState(), "t"), R"(t = {
  10,
  20,
  "c",
  [-1] = 4,
  [0] = 5,
  [2.5] = 6,
  [5] = 9,
  a = 2,
  ["and"] = 8,
  b = 1,
  ["not a name"] = 7,
}
)");
    loader.setString("c", "new");
    loader.setInt("a", 0);
    EXPECT_EQ(Lua::Serializer::toSource(loader.getState(), "t"), R"(t = {
  10,
  20,
  "c",
  [-1] = 4,
  [0] = 5,
  [2.5] = 6,
  [5] = 9,
  ["and"] = 8,
  b = 1,
  ["not a name"] = 7,
  c = "new",
  a = 0,
}
)");
}

TEST(LuaSerializer, InlineOnlyForShortTablesOfPlainValues) {
    Lua::Loader loader;
    loader.createGlobalTable("t");
    loader.createSubtable("short");
    for (int i = 1; i <= 3; ++i) loader.setInt(i, i);
    loader.endSubtable();
    loader.createSubtable("long");
    for (int i = 1; i <= 30; ++i) loader.setInt(i, 100 + i);
    loader.endSubtable();
    loader.createSubtable("nested");
    loader.createSubtable("inner");
    loader.endSubtable();
    loader.endSubtable();
    const std::string text = Lua::Serializer::toSource(loader.getState(), "t");
    EXPECT_NE(text.find("  short = { 1, 2, 3 },\n"), std::string::npos) << text;
    EXPECT_NE(text.find("  long = {\n    101,\n    102,\n"), std::string::npos) << text;
    EXPECT_NE(text.find("    130,\n  },\n"), std::string::npos) << text;
    EXPECT_NE(text.find("  nested = {\n    inner = {},\n  },\n"), std::string::npos) << text;
}

TEST(LuaSerializer, StringsReadBackByteForByte) {
    std::string allBytes;
    for (int c = 1; c < 256; ++c) allBytes += static_cast<char>(c);
    const std::vector<std::string> strings = {
        "",
        "plain",
        "quote \" and 'single'",
        "back\\slash\\",
        "line\nbreak\r\n",
        std::string("nul\0inside", 10),
        std::string("\0" "1", 2),  // an escaped NUL followed by a digit
        std::string("\x01" "23\x7f" "9", 5),
        "]]",
        "[[ long ]] bracket ]=]",
        "tab\there",
        "gr\xc3\xbc\xc3\x9f dich \xe2\x82\xac",
        allBytes,
    };
    Lua::Loader loader;
    loader.createGlobalTable("s");
    for (std::size_t i = 0; i < strings.size(); ++i) loader.setString(static_cast<int>(i + 1), strings[i]);
    loader.createSubtable("keys");
    for (std::size_t i = 0; i < strings.size(); ++i) loader.setInt(strings[i], static_cast<int>(i));
    loader.endSubtable();
    const std::string text = Lua::Serializer::toSource(loader.getState(), "s");
    // Control bytes never appear raw, so the file survives editors and line-ending changes.
    for (char c : text) {
        const auto u = static_cast<unsigned char>(c);
        EXPECT_TRUE(u >= 0x20 || c == '\n') << "raw control byte " << int(u);
        EXPECT_NE(u, 0x7F);
    }
    EXPECT_NE(text.find(R"("\0001")"), std::string::npos) << text;
    EXPECT_NE(text.find("gr\xc3\xbc\xc3\x9f dich \xe2\x82\xac"), std::string::npos);

    Lua::Loader reader;
    reader.loadString(text, "s.lua", "s");
    // Values come back by index, keys by name.
    lua_State* L = reader.getState();
    lua_getglobal(L, "s");
    for (std::size_t i = 0; i < strings.size(); ++i) {
        lua_rawgeti(L, -1, static_cast<int>(i + 1));
        std::size_t length = 0;
        const char* value = lua_tolstring(L, -1, &length);
        ASSERT_NE(value, nullptr);
        EXPECT_EQ(std::string(value, length), strings[i]) << "string " << i;
        lua_pop(L, 1);
    }
    lua_pop(L, 1);
    reader.beginSubtable("keys");
    for (std::size_t i = 0; i < strings.size(); ++i)
        EXPECT_EQ(reader.getInt(strings[i]), static_cast<int>(i)) << "key " << i;
}

TEST(LuaSerializer, NumbersReadBackBitExact) {
    const double values[] = {
        0.0, -0.0, 1.0, -3.0, 0.1, -0.1, 1.0 / 3, 1e-300, 5e-324, -5e-324, 2.2250738585072014e-308,
        1.7976931348623157e308, -1.7976931348623157e308, 9007199254740992.0, 9007199254740994.0,
        18014398509481988.0, 1e21, 123456789012345678901234567890.0, 2147483648.0, -2147483649.0,
        4294967295.0, 0.30000000000000004, 6.02214076e23,
        std::numeric_limits<double>::infinity(), -std::numeric_limits<double>::infinity()};
    Lua::Loader loader;
    loader.createGlobalTable("n");
    int count = 0;
    for (double v : values) loader.setDouble(++count, v);
    loader.setDouble("nan", std::nan(""));
    loader.setInt("int", -2147483647 - 1);
    loader.setUINT32("uint", 4294967295u);
    const std::string text = Lua::Serializer::toSource(loader.getState(), "n");

    Lua::Loader reader;
    reader.loadString(text, "n.lua", "n");
    for (int i = 1; i <= count; ++i)
        EXPECT_EQ(bitsOf(reader.getDouble(i)), bitsOf(values[i - 1])) << values[i - 1] << " in " << text;
    EXPECT_TRUE(std::isnan(reader.getDouble("nan")));
    EXPECT_EQ(reader.getInt("int"), -2147483647 - 1);
    EXPECT_EQ(reader.getUINT32("uint"), 4294967295u);
    // Whole numbers are written as integers.
    EXPECT_NE(text.find("\n  -3,\n"), std::string::npos) << text;
    EXPECT_NE(text.find("\n  9007199254740992,\n"), std::string::npos) << text;
    EXPECT_NE(text.find("\n  -1/math.huge,\n"), std::string::npos) << text;
    EXPECT_NE(text.find("nan = 0/0"), std::string::npos) << text;
}

TEST(LuaSerializer, RefusesWhatHasNoSourceForm) {
    TempDir dir;
    Lua::Loader loader;
    loader.loadString("t = { ok = 1, sub = { f = math.sin } }\nu = 3", "t.lua", "t");
    EXPECT_EQ(failure([&] { Lua::Serializer::toSource(loader.getState(), "t"); }),
              "t.sub.f cannot be written: values of type function have no source form");
    EXPECT_EQ(failure([&] { Lua::Serializer::toSource(loader.getState(), "nothing"); }),
              "Cannot write global nothing: it is not defined");
    EXPECT_EQ(failure([&] { Lua::Serializer::toSource(loader.getState(), "a b"); }),
              "Cannot write global \"a b\": not a Lua name");
    lua_State* L = loader.getState();
    lua_pushnumber(L, 3);
    lua_setglobal(L, "u");
    EXPECT_EQ(failure([&] { Lua::Serializer::toSource(L, "u"); }),
              "Cannot write global u: it is a number, not a table");

    // A table that contains itself, and a boolean key.
    loader.createGlobalTable("c");
    loader.createSubtable("self");
    lua_pushstring(L, "back");
    lua_getglobal(L, "c");
    lua_rawset(L, -3);
    EXPECT_EQ(failure([&] { Lua::Serializer::toSource(L, "c"); }),
              "c.self.back cannot be written: the table contains itself");
    loader.createGlobalTable("b");
    lua_pushboolean(L, 1);
    lua_pushnumber(L, 1);
    lua_rawset(L, -3);
    EXPECT_EQ(failure([&] { Lua::Serializer::toSource(L, "b"); }),
              "b cannot be written: it has a key of type boolean");
    // The Lua stack is left as it was.
    EXPECT_EQ(lua_gettop(L), 1);

    loader.createGlobalTable("w");
    const std::string unwritable = dir.file("no/such/dir/w.sch");
    EXPECT_EQ(failure([&] { Lua::Serializer(unwritable).serialize(L, "w"); }),
              "Cannot open file for writing: " + unwritable);
}

TEST(LuaSerializer, DeepNestingReadsBack) {
    Lua::Loader loader;
    loader.createGlobalTable("d");
    for (int i = 1; i < 64; ++i) loader.createSubtable("x");
    loader.setInt("leaf", 64);
    const std::string text = Lua::Serializer::toSource(loader.getState(), "d");
    Lua::Loader reader;
    reader.loadString(text, "d.lua", "d");
    for (int i = 1; i < 64; ++i) reader.beginSubtable("x");
    EXPECT_EQ(reader.getInt("leaf"), 64);
    EXPECT_EQ(reader.depth(), 63);

    loader.createSubtable("x");
    std::string path = "d";
    for (int i = 0; i < 64; ++i) path += ".x";
    EXPECT_EQ(failure([&] { Lua::Serializer::toSource(loader.getState(), "d"); }),
              path + " cannot be written: tables nested more than 64 deep");
}

}  // namespace
