// Finding what a rewrite of a Lua table loses, and listing a table's keys.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "vandrel/platform/LuaCompare.h"
#include "vandrel/platform/LuaLoader.h"

namespace {

// "path: before -> after" for each entry of `original` that `rewritten` loses.
std::vector<std::string> lost(const std::string& original, const std::string& rewritten, std::size_t max = 10) {
    Lua::Loader a, b;
    a.loadString(original, "a.lua", "t");
    b.loadString(rewritten, "b.lua", "t");
    std::vector<std::string> out;
    for (const Lua::LostEntry& e : Lua::findLostEntries(a, b, "t", max))
        out.push_back(std::string(e.path) + ": " + std::string(e.before) + " -> " + std::string(e.after));
    return out;
}

using V = std::vector<std::string>;

}  // namespace

TEST(LuaCompare, ReportsEveryEntryTheRewriteDropsOrChanges) {
    struct Case {
        const char* what;
        const char* original;
        const char* rewritten;
        V expected;
    };
    const Case cases[] = {
        {"identical", "t = { a = 1, b = { 'x', true } }", "t = { b = { 'x', true }, a = 1 }", {}},
        {"additions are fine", "t = { a = 1 }", "t = { a = 1, b = {} }", {}},
        {"numbers by value", "t = { a = 1, b = 0/0 }", "t = { a = 1.0, b = 0/0 }", {}},
        {"a dropped key", "t = { a = 1, gian = 2 }", "t = { a = 1 }", {"t.gian: 2 -> "}},
        {"a changed value", "t = { a = 'x' }", "t = { a = 'y' }", {"t.a: \"x\" -> \"y\""}},
        {"a type change", "t = { a = { 1 } }", "t = { a = 1 }", {"t.a: a table -> 1"}},
        {"an array element", "t = { c = { { p = 1 }, { p = 2 } } }", "t = { c = { { p = 1 } } }", {"t.c[2]: a table -> "}},
        {"odd keys", "t = { ['a b'] = 1, [2.5] = 2, [true] = 3 }", "t = {}",
         {"t[2.5]: 2 -> ", "t[\"a b\"]: 1 -> ", "t[true]: 3 -> "}},
        {"functions cannot be kept", "t = { f = function() end }", "t = { f = 1 }", {"t.f: a function -> 1"}},
        {"a table inside itself", "t = { } t.self = t", "t = { self = { } }", {"t.self: a table -> a table"}},
    };
    for (const Case& c : cases) EXPECT_EQ(lost(c.original, c.rewritten), c.expected) << c.what;

    // Reports stop at the maximum, and a table replaced by a value is reported whole.
    EXPECT_EQ(lost("t = { 1, 2, 3, 4 }", "t = {}", 2).size(), 2u);
    EXPECT_EQ(lost("t = { a = { b = 1 } }", "t = { a = 5 }"), (V{"t.a: a table -> 5"}));
}

TEST(LuaCompare, DeepOrHugeTablesEndTheWalk) {
    // Deeper than the walk goes: reported rather than followed.
    const std::string deep = "local x = {} for i = 1, 300 do x = { x } end t = x";
    const V result = lost(deep, deep);
    ASSERT_EQ(result.size(), 1u);
    EXPECT_EQ(result[0].find("t[1][1][1]"), 0u);
    // A table shared many times over (2^25 paths) is walked a bounded number of times.
    const V shared = lost("local x = {1} for i = 1, 25 do x = { x, x } end t = x",
                          "local x = {1} for i = 1, 25 do x = { x, x } end t = x");
    ASSERT_EQ(shared.size(), 1u);
}

TEST(LuaLoader, GetKeysListsTheStringKeysSorted) {
    Lua::Loader l;
    l.loadString("t = { b = 1, a = { z = 1 }, [1] = 2, ['x y'] = 3 }", "mem", "t");
    EXPECT_EQ(l.getKeys(), (zo::vector<zo::string>{"a", "b", "x y"}));
    l.beginSubtable("a");
    EXPECT_EQ(l.getKeys(), (zo::vector<zo::string>{"z"}));
    l.endSubtable();
    Lua::Loader empty;
    EXPECT_TRUE(empty.getKeys().empty());
}
