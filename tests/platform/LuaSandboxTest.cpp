// Scheme files are data: the loader's sandbox refuses programs, binary chunks, endless
// loops and memory bombs, each with a message that names the file.
#include <gtest/gtest.h>

#include <cmath>
#include <filesystem>
#include <string>

#include <lua.hpp>

#include "platform/PlatformTestUtil.h"
#include "vandrel/platform/LuaLoader.h"

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

bool startsWith(const std::string& text, const std::string& prefix) {
    return text.rfind(prefix, 0) == 0;
}

TEST(LuaSandbox, ProgramsCannotReachTheSystem) {
    TempDir dir;
    const std::string marker = dir.file("marker");
    // Each would have a visible effect (or load code) if the library were there.
    const std::string attempts[] = {
        "os.execute('touch " + marker + "')",
        "io.open('" + marker + "', 'w'):close()",
        "require('os').execute('touch " + marker + "')",
        "load('x = 1')()",
        "loadstring('x = 1')()",
        "dofile('" + marker + "')",
        "setmetatable({}, {})",
        "getmetatable('').__index.rep('x', 2)",
        "print('x')",
        "string.rep('x', 2)",
        "('x'):rep(2)",
        "rawset({}, 1, 1)",
        "collectgarbage('stop')",
        "newproxy(true)",
        "debug.getregistry()",
        "_G.print(1)",
        "coroutine.create(function() end)",
        "package.loadlib('libc.so.6', 'system')",
    };
    Lua::Loader loader;
    for (const std::string& attempt : attempts) {
        const std::string source = "local r = " + attempt + "\nscheme = {}\n";
        const std::string message = failure([&] { loader.loadString(source, "evil.sch", "scheme"); });
        EXPECT_TRUE(startsWith(message, "evil.sch:1: ")) << attempt << " -> " << message;
        EXPECT_NE(message.find("attempt to "), std::string::npos) << attempt << " -> " << message;
    }
    EXPECT_FALSE(std::filesystem::exists(marker));
}

TEST(LuaSandbox, MathIsAvailableAndPrivateToEachLoad) {
    Lua::Loader loader;
    loader.loadString("math.pi = 3\nscheme = { angle = math.pi }", "a.sch", "scheme");
    EXPECT_EQ(loader.getDouble("angle"), 3.0);
    loader.loadString("scheme = { angle = math.pi / 2, s = math.sin(0), h = -math.huge }", "b.sch",
                      "scheme");
    EXPECT_EQ(loader.getDouble("angle"), M_PI / 2);
    EXPECT_EQ(loader.getDouble("s"), 0.0);
    EXPECT_EQ(loader.getDouble("h"), -HUGE_VAL);
}

// A precompiled chunk of `source`, as luac would write it.
std::string compiled(const char* source) {
    lua_State* L = luaL_newstate();
    std::string bytes;
    EXPECT_EQ(luaL_loadstring(L, source), 0);
    lua_dump(
        L,
        [](lua_State*, const void* p, size_t size, void* ud) {
            static_cast<std::string*>(ud)->append(static_cast<const char*>(p), size);
            return 0;
        },
        &bytes);
    lua_close(L);
    return bytes;
}

TEST(LuaSandbox, BinaryChunksAreRefused) {
    TempDir dir;
    const std::string file = dir.file("compiled.sch");
    const std::string bytes = compiled("scheme = { x = 1 }");
    ASSERT_EQ(bytes.rfind(LUA_SIGNATURE, 0), 0u);
    platform_test::writeFile(file, bytes);
    Lua::Loader loader;
    EXPECT_EQ(failure([&] { loader.load(file, "scheme"); }),
              file + ": precompiled Lua chunks are not accepted, scheme files must be source text");
    EXPECT_FALSE(loader.hasEntry("x"));
}

TEST(LuaSandbox, EndlessLoopsAreStopped) {
    Lua::Loader loader;
    const std::string loops[] = {
        "while true do end",
        "scheme = {}\nlocal i = 0\nrepeat i = i + 1 until false",
        "local function f() return f() end\nf()",
    };
    for (const std::string& loop : loops) {
        const std::string message = failure([&] { loader.loadString(loop, "loop.sch", "scheme"); });
        EXPECT_TRUE(startsWith(message, "loop.sch:")) << message;
        EXPECT_NE(message.find("stopped after 10000000 Lua instructions"), std::string::npos) << message;
    }
    // The budget is per load: a normal file afterwards runs.
    loader.loadString("local t = {}\nfor i = 1, 1000 do t[i] = i end\nscheme = { n = #t }", "ok.sch",
                      "scheme");
    EXPECT_EQ(loader.getInt("n"), 1000);
}

TEST(LuaSandbox, MemoryBombsAreStopped) {
    Lua::Loader loader;
    const std::string message = failure([&] {
        loader.loadString("local s = 'x'\nwhile true do s = s .. s end", "bomb.sch", "scheme");
    });
    EXPECT_EQ(message, "bomb.sch: used more than the 256 MiB of memory a scheme file may take");
    // Many distinct 1 MiB strings kept alive in a table.
    const std::string kept = failure([&] {
        loader.loadString("local s = 'x'\nfor i = 1, 20 do s = s .. s end\n"
                          "local t, i = {}, 0\nwhile true do i = i + 1; t[i] = s .. i end",
                          "bomb2.sch", "scheme");
    });
    EXPECT_EQ(kept, "bomb2.sch: used more than the 256 MiB of memory a scheme file may take");
    // The state is usable again and the memory of the bomb is given back.
    loader.loadString("scheme = { ok = true }", "ok.sch", "scheme");
    EXPECT_TRUE(loader.getBoolean("ok"));
    EXPECT_LT(lua_gc(loader.getState(), LUA_GCCOUNT, 0), 16 * 1024);
}

}  // namespace
