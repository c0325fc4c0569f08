// The helpers behind "did you mean ...?" and the loader's record of what a load read.
#include <gtest/gtest.h>

#include <string>

#include "support/SchemeFiles.h"
#include "vandrel/platform/Suggest.h"

namespace {

TEST(Suggest, DistancesAndTheNameProbablyMeant) {
    const struct {
        const char* a;
        const char* b;
        std::size_t distance;
    } distances[] = {
        {"", "", 0}, {"abc", "", 3}, {"", "ab", 2}, {"kitten", "sitting", 3}, {"__nmae", "__name", 1},
        {"ab", "ba", 1}, {"abc", "abc", 0}, {"abcd", "acbd", 1}, {"ca", "abc", 3},
    };
    for (const auto& d : distances) {
        EXPECT_EQ(Text::editDistance(d.a, d.b), d.distance) << d.a << " / " << d.b;
        EXPECT_EQ(Text::editDistance(d.b, d.a), d.distance) << d.b << " / " << d.a;
    }

    const struct {
        const char* word;
        zo::vector<zo::string> candidates;
        const char* meant;
    } names[] = {
        {"TestGian", {"TestAdd", "TestGain"}, "TestGain"},
        {"testgain", {"TestGain"}, "TestGain"},          // case only
        {"k", {"k", "kk"}, ""},                          // a name that is there needs no help
        {"output", {"in", "out"}, "out"},                // cut short
        {"wSolverRK4", {"wSolverRK4Descriptor"}, "wSolverRK4Descriptor"},
        {"ab", {"abc"}, "abc"},                          // too short to be a prefix, one edit away
        {"xyz", {"k", "dt"}, ""},
        {"output_lead", {"input_lead", "port"}, ""},     // a different key, not a typo
        {"abcdefgh", {"abcdxxgh", "abcdefgx"}, "abcdefgx"},  // the nearest, not the first
        {"abcdefgh", {"abxxxxgh"}, ""},                  // beyond a quarter of the length
        {"abcdefgh", {"abcdxxgh"}, "abcdxxgh"},          // a quarter is close enough
    };
    for (const auto& n : names) EXPECT_EQ(Text::closestName(n.word, n.candidates), n.meant) << n.word;

    EXPECT_EQ(Text::didYouMean("dtt", {"k", "dt"}), "; did you mean dt?");
    EXPECT_EQ(Text::didYouMean("zzz", {"k", "dt"}), "");
    EXPECT_EQ(Text::listNames({"a", "b", "c"}, 2), "a, b and 1 more");
    EXPECT_EQ(Text::listNames({"a", "b"}), "a, b");
    EXPECT_EQ(Text::listNames({}), "");
}

TEST(LuaLoader, ReportsWhatALoadNeverAskedFor) {
    Lua::Loader l;
    l.loadString("t = { a = 1, b = { c = 2, d = 3 }, e = { f = 1 }, arr = { { x = 1 }, { x = 2 }, [4] = { x = 3 } },"
                 " [7] = 1, g = { }, h = { i = true } }",
                 "t.lua", "t");
    l.trackReads(true);
    (void)l.getInt("a");
    l.beginSubtable("b");
    (void)l.getInt("c");
    l.endSubtable();
    l.beginSubtable("arr");
    l.beginArray();
    while (l.nextArray()) (void)l.getInt("x");
    l.endSubtable();
    EXPECT_TRUE(l.tryBeginSubtable("h"));  // entered and left: everything in it is unread
    l.endSubtable();
    EXPECT_FALSE(l.hasEntry("z"));          // asking for what is not there counts as asking
    std::string report;
    for (const Lua::Loader::UnreadEntry& e : l.getUnreadEntries()) {
        report += e.path + " " + e.parent + " " + e.key + " " + e.valueType + " [";
        for (const zo::string& a : e.asked) report += a + " ";
        report += "]\n";
    }
    EXPECT_EQ(report,
              "t[7] t [7] number [a arr b h z ]\n"
              "t.arr[4] t.arr [4] table []\n"
              "t.b.d t.b d number [c ]\n"
              "t.e t e table [a arr b h z ]\n"
              "t.g t g table [a arr b h z ]\n"
              "t.h.i t.h i boolean []\n");
    // Without tracking, or after a new load, nothing is recorded.
    l.trackReads(false);
    EXPECT_TRUE(l.getUnreadEntries().empty());
    l.trackReads(true);
    l.loadString("t = { a = 1 }", "t.lua", "t");
    EXPECT_TRUE(l.getUnreadEntries().empty());
}

}  // namespace
