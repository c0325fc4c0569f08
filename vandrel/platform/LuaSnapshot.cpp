// Saving and restoring a script instance's state. Both run inside lua_cpcall; the C
// functions below hold only trivially destructible locals, so a Lua error (a refusal,
// malformed bytes, no memory) may leave them by longjmp.
#include "vandrel/platform/LuaSnapshot.h"

#include <cstdint>
#include <cstring>

#include <lua.hpp>

namespace Lua {

namespace {

constexpr int kMaxDepth = 32;  // nested tables; deeper is taken for a cycle

enum Tag : unsigned char { TAG_NIL = 0, TAG_FALSE = 1, TAG_TRUE = 2, TAG_NUMBER = 3, TAG_STRING = 4, TAG_TABLE = 5 };

bool isAccessorKey(lua_State* L, int index) {
    if (lua_type(L, index) != LUA_TSTRING) return false;
    const char* k = lua_tostring(L, index);
    return std::strcmp(k, "inputs") == 0 || std::strcmp(k, "outputs") == 0 || std::strcmp(k, "outports") == 0;
}

bool plainKey(lua_State* L, int index) {
    const int t = lua_type(L, index);
    return t == LUA_TSTRING || t == LUA_TNUMBER || t == LUA_TBOOLEAN;
}

// Pushes the environment of the instance keyed `key`, or raises an error.
void pushEnvironment(lua_State* L, const void* key) {
    lua_getfield(L, LUA_GLOBALSINDEX, "__instance_tables");
    if (!lua_istable(L, -1)) luaL_error(L, "the global __instance_tables is not a table");
    lua_pushlightuserdata(L, const_cast<void*>(key));
    lua_rawget(L, -2);
    if (!lua_istable(L, -1)) luaL_error(L, "__instance_tables holds no environment for this block");
    lua_remove(L, -2);
}

// ---- Saving

struct SaveRequest {
    const void* key;
    zo::vector<unsigned char>* out;
};

// Whether the value at `index` is one that can be saved (see the header).
bool saveable(lua_State* L, int index, int depth) {
    switch (lua_type(L, index)) {
    case LUA_TNIL:
    case LUA_TBOOLEAN:
    case LUA_TNUMBER:
    case LUA_TSTRING: return true;
    case LUA_TTABLE: break;
    default: return false;
    }
    if (depth >= kMaxDepth || lua_getmetatable(L, index) != 0) {
        if (depth < kMaxDepth) lua_pop(L, 1);
        return false;
    }
    luaL_checkstack(L, 3, "snapshot of a Lua table");
    const int table = index < 0 ? lua_gettop(L) + index + 1 : index;
    lua_pushnil(L);
    while (lua_next(L, table) != 0) {
        if (!plainKey(L, -2) || !saveable(L, lua_gettop(L), depth + 1)) {
            lua_pop(L, 2);
            return false;
        }
        lua_pop(L, 1);
    }
    return true;
}

// Key order for writing: booleans (false first), numbers, strings, each by value, so
// that equal tables are written as equal bytes whatever order pairs() visits them in.
bool keyBefore(lua_State* L, int a, int b) {
    const int ta = lua_type(L, a), tb = lua_type(L, b);
    if (ta != tb) return ta < tb;  // LUA_TBOOLEAN < LUA_TNUMBER < LUA_TSTRING
    if (ta == LUA_TBOOLEAN) return lua_toboolean(L, a) < lua_toboolean(L, b);
    return lua_lessthan(L, a, b) != 0;
}

// Pushes an array of the plain keys of the table at `table` (accessors skipped when
// `skipAccessors`), sorted by keyBefore; returns their number. Insertion sort: the
// tables a block keeps are small.
int pushSortedKeys(lua_State* L, int table, bool skipAccessors) {
    luaL_checkstack(L, 6, "snapshot of a Lua table");
    lua_newtable(L);
    const int keys = lua_gettop(L);
    int n = 0;
    lua_pushnil(L);
    while (lua_next(L, table) != 0) {
        lua_pop(L, 1);
        if (!plainKey(L, -1) || (skipAccessors && isAccessorKey(L, -1))) continue;
        // Insert the key (on top) at its place among keys[1..n].
        int i = n;
        for (; i >= 1; --i) {
            lua_rawgeti(L, keys, i);
            const bool after = keyBefore(L, -2, -1);
            if (!after) {
                lua_pop(L, 1);
                break;
            }
            lua_rawseti(L, keys, i + 1);
        }
        lua_pushvalue(L, -1);
        lua_rawseti(L, keys, i + 1);
        ++n;
    }
    return n;
}

void put(zo::vector<unsigned char>& out, const void* p, std::size_t n) {
    const auto* b = static_cast<const unsigned char*>(p);
    out.insert(out.end(), b, b + n);
}

void putCount(zo::vector<unsigned char>& out, std::size_t n) {
    const auto v = static_cast<std::uint32_t>(n);
    put(out, &v, sizeof v);
}

void write(lua_State* L, int index, zo::vector<unsigned char>& out);

// The count of the table's pairs, then each pair in key order.
void writePairs(lua_State* L, int table, bool skipAccessors, zo::vector<unsigned char>& out) {
    const int n = pushSortedKeys(L, table, skipAccessors);
    const int keys = lua_gettop(L);
    putCount(out, static_cast<std::size_t>(n));
    for (int i = 1; i <= n; ++i) {
        lua_rawgeti(L, keys, i);
        lua_pushvalue(L, -1);
        lua_rawget(L, table);
        write(L, lua_gettop(L) - 1, out);
        write(L, lua_gettop(L), out);
        lua_pop(L, 2);
    }
    lua_pop(L, 1);
}

// Writes a value that saveable() accepted.
void write(lua_State* L, int index, zo::vector<unsigned char>& out) {
    const int t = lua_type(L, index);
    if (t == LUA_TNIL) {
        out.push_back(TAG_NIL);
    } else if (t == LUA_TBOOLEAN) {
        out.push_back(lua_toboolean(L, index) != 0 ? TAG_TRUE : TAG_FALSE);
    } else if (t == LUA_TNUMBER) {
        out.push_back(TAG_NUMBER);
        const double v = lua_tonumber(L, index);
        put(out, &v, sizeof v);
    } else if (t == LUA_TSTRING) {
        out.push_back(TAG_STRING);
        std::size_t n = 0;
        const char* s = lua_tolstring(L, index, &n);
        putCount(out, n);
        put(out, s, n);
    } else {
        out.push_back(TAG_TABLE);
        const int table = index < 0 ? lua_gettop(L) + index + 1 : index;
        writePairs(L, table, false, out);
    }
}

int saveInstance(lua_State* L) {
    auto* rq = static_cast<SaveRequest*>(lua_touserdata(L, 1));
    zo::vector<unsigned char>& out = *rq->out;
    pushEnvironment(L, rq->key);  // 2
    // The block's own globals: everything is checked before anything is written.
    lua_pushnil(L);
    while (lua_next(L, 2) != 0) {
        if (!isAccessorKey(L, -2)) {
            if (!plainKey(L, -2))
                return luaL_error(L, "a global keyed by a %s cannot be saved", luaL_typename(L, -2));
            if (!saveable(L, lua_gettop(L), 0)) {
                lua_pushvalue(L, -2);  // tostring would change a number key in place
                return luaL_error(L, "global '%s' holds a %s%s, which a snapshot cannot save", lua_tostring(L, -1),
                                  luaL_typename(L, -2),
                                  lua_istable(L, -2) ? " with a metatable, a function or a cycle" : "");
            }
        }
        lua_pop(L, 1);
    }
    writePairs(L, 2, true, out);
    // The upvalues of the script's functions that hold state, by function name.
    const std::size_t countAt = out.size();
    putCount(out, 0);
    std::uint32_t upvalues = 0;
    const int n = pushSortedKeys(L, LUA_GLOBALSINDEX, false);
    const int names = lua_gettop(L);
    for (int k = 1; k <= n; ++k) {
        lua_rawgeti(L, names, k);
        lua_pushvalue(L, -1);
        lua_rawget(L, LUA_GLOBALSINDEX);
        const int f = lua_gettop(L);
        if (lua_type(L, f - 1) == LUA_TSTRING && lua_isfunction(L, f) && !lua_iscfunction(L, f)) {
            for (int i = 1; lua_getupvalue(L, f, i) != nullptr; ++i) {
                if (!lua_isfunction(L, -1) && saveable(L, lua_gettop(L), 0)) {
                    std::size_t len = 0;
                    const char* name = lua_tolstring(L, f - 1, &len);
                    putCount(out, len);
                    put(out, name, len);
                    putCount(out, static_cast<std::size_t>(i));
                    write(L, lua_gettop(L), out);
                    ++upvalues;
                }
                lua_pop(L, 1);
            }
        }
        lua_pop(L, 2);
    }
    std::memcpy(out.data() + countAt, &upvalues, sizeof upvalues);
    return 0;
}

// ---- Restoring

struct RestoreRequest {
    const void* key;
    const unsigned char* data;
    std::size_t size;
    std::size_t pos;
};

const unsigned char* take(lua_State* L, RestoreRequest& rq, std::size_t n) {
    if (n > rq.size - rq.pos) luaL_error(L, "the saved Lua state is truncated");
    const unsigned char* p = rq.data + rq.pos;
    rq.pos += n;
    return p;
}

std::uint32_t takeCount(lua_State* L, RestoreRequest& rq) {
    std::uint32_t n = 0;
    std::memcpy(&n, take(L, rq, sizeof n), sizeof n);
    return n;
}

// Pushes the next value; `key`: it must be usable as a table key.
void read(lua_State* L, RestoreRequest& rq, int depth, bool key) {
    luaL_checkstack(L, 4, "restoring a Lua table");
    const unsigned char tag = *take(L, rq, 1);
    if (key && (tag == TAG_NIL || tag == TAG_TABLE)) luaL_error(L, "the saved Lua state has a malformed key");
    switch (tag) {
    case TAG_NIL: lua_pushnil(L); return;
    case TAG_FALSE: lua_pushboolean(L, 0); return;
    case TAG_TRUE: lua_pushboolean(L, 1); return;
    case TAG_NUMBER: {
        double v = 0;
        std::memcpy(&v, take(L, rq, sizeof v), sizeof v);
        if (key && v != v) luaL_error(L, "the saved Lua state has a NaN key");
        lua_pushnumber(L, v);
        return;
    }
    case TAG_STRING: {
        const std::uint32_t n = takeCount(L, rq);
        const unsigned char* s = take(L, rq, n);
        lua_pushlstring(L, reinterpret_cast<const char*>(s), n);
        return;
    }
    case TAG_TABLE: {
        if (depth >= kMaxDepth) luaL_error(L, "the saved Lua state nests tables too deep");
        const std::uint32_t n = takeCount(L, rq);
        // Each pair takes at least two bytes: a count beyond that is not believed.
        if (n > (rq.size - rq.pos) / 2) luaL_error(L, "the saved Lua state is truncated");
        lua_createtable(L, 0, static_cast<int>(n));
        for (std::uint32_t i = 0; i < n; ++i) {
            read(L, rq, depth + 1, true);
            read(L, rq, depth + 1, false);
            lua_rawset(L, -3);
        }
        return;
    }
    default: luaL_error(L, "the saved Lua state holds an unknown value tag %d", static_cast<int>(tag));
    }
}

int restoreInstance(lua_State* L) {
    auto* rq = static_cast<RestoreRequest*>(lua_touserdata(L, 1));
    pushEnvironment(L, rq->key);  // 2
    // Forget the block's own globals first: those absent from the snapshot were nil then.
    lua_newtable(L);  // 3: the keys to clear
    int keys = 0;
    lua_pushnil(L);
    while (lua_next(L, 2) != 0) {
        lua_pop(L, 1);
        if (isAccessorKey(L, -1)) continue;
        lua_pushvalue(L, -1);
        lua_rawseti(L, 3, ++keys);
    }
    for (int i = 1; i <= keys; ++i) {
        lua_rawgeti(L, 3, i);
        lua_pushnil(L);
        lua_rawset(L, 2);
    }
    lua_pop(L, 1);
    const std::uint32_t globals = takeCount(L, *rq);
    for (std::uint32_t i = 0; i < globals; ++i) {
        read(L, *rq, 0, true);
        if (isAccessorKey(L, -1)) luaL_error(L, "the saved Lua state replaces the block's accessors");
        read(L, *rq, 0, false);
        lua_rawset(L, 2);
    }
    const std::uint32_t upvalues = takeCount(L, *rq);
    for (std::uint32_t i = 0; i < upvalues; ++i) {
        const std::uint32_t n = takeCount(L, *rq);
        const unsigned char* name = take(L, *rq, n);
        const std::uint32_t index = takeCount(L, *rq);
        lua_pushlstring(L, reinterpret_cast<const char*>(name), n);
        lua_pushvalue(L, -1);
        lua_rawget(L, LUA_GLOBALSINDEX);
        const int f = lua_gettop(L);
        if (!lua_isfunction(L, f) || lua_iscfunction(L, f) || index == 0 || index > 255 ||
            lua_getupvalue(L, f, static_cast<int>(index)) == nullptr)
            luaL_error(L, "the saved Lua state names local %d of function '%s', which the script does not have",
                       static_cast<int>(index), lua_tostring(L, f - 1));
        lua_pop(L, 1);
        read(L, *rq, 0, false);
        lua_setupvalue(L, f, static_cast<int>(index));
        lua_pop(L, 2);
    }
    if (rq->pos != rq->size) luaL_error(L, "the saved Lua state has bytes left over");
    return 0;
}

bool run(lua_State* L, lua_CFunction f, void* ud, zo::string* error) {
    const int top = lua_gettop(L);
    const int status = lua_cpcall(L, f, ud);
    if (status != 0 && error != nullptr) {
        const char* m = lua_tostring(L, -1);
        *error = m != nullptr ? m : "unknown Lua error";
    }
    lua_settop(L, top);
    return status == 0;
}

}  // namespace

bool saveScriptInstanceState(lua_State* L, const void* key, zo::vector<unsigned char>* out, zo::string* error) {
    SaveRequest rq{key, out};
    return run(L, saveInstance, &rq, error);
}

bool restoreScriptInstanceState(lua_State* L, const void* key, const unsigned char* data, std::size_t size,
                                zo::string* error) {
    RestoreRequest rq{key, data, size, 0};
    return run(L, restoreInstance, &rq, error);
}

}  // namespace Lua
