// Lua state helpers: libraries, protected calls, the memory limit and the panic handler.
#include <gtest/gtest.h>

#include <string>

#include <lua.hpp>

#include "vandrel/platform/LuaState.h"

namespace {

TEST(LuaState, ProtectedCallsAndLibraries) {
    lua_State* L = ZO_lua_open("test state");
    ZO_lua_openlibs(L);
    ASSERT_EQ(luaL_loadstring(L, "return string.rep('ab', 3), math.floor(2.5)"), 0);
    ASSERT_EQ(ZO_lua_pcall(L, 0, 2, 0), 0);
    EXPECT_STREQ(lua_tostring(L, -2), "ababab");
    EXPECT_EQ(lua_tonumber(L, -1), 2.0);
    lua_settop(L, 0);

    ASSERT_EQ(luaL_loadstring(L, "error('boom', 0)"), 0);
    EXPECT_EQ(ZO_lua_pcall(L, 0, 0, 0), LUA_ERRRUN);
    EXPECT_STREQ(lua_tostring(L, -1), "boom");
    ZO_lua_close(L);
    ZO_lua_close(nullptr);
}

TEST(LuaState, MemoryLimit) {
    lua_State* L = ZO_lua_open("limited");
    ZO_lua_openlibs(L);
    const std::size_t base = ZO_lua_memoryused(L);
    EXPECT_GT(base, 0u);
    EXPECT_EQ(ZO_lua_setmemorylimit(L, base + (1 << 20)), SIZE_MAX);
    ASSERT_EQ(luaL_loadstring(L, "local t = {} for i = 1, 100 do t[i] = string.rep('x', 65536) .. i end"), 0);
    EXPECT_EQ(ZO_lua_pcall(L, 0, 0, 0), LUA_ERRMEM);
    lua_settop(L, 0);
    lua_gc(L, LUA_GCCOLLECT, 0);
    EXPECT_LE(ZO_lua_memoryused(L), base + (1 << 20));

    // Without the limit the same chunk runs.
    ZO_lua_setmemorylimit(L, SIZE_MAX);
    ASSERT_EQ(luaL_loadstring(L, "local t = {} for i = 1, 100 do t[i] = string.rep('x', 65536) .. i end"), 0);
    EXPECT_EQ(ZO_lua_pcall(L, 0, 0, 0), 0);
    ZO_lua_close(L);
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
