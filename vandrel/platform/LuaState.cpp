// Lua states with vandrel's allocator and panic handler.
#include "vandrel/platform/LuaState.h"

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>

#include <lua.hpp>

namespace {

// Per-state bookkeeping, reached through the allocator's user data.
struct StateInfo {
    std::size_t used = 0;           // bytes held by the state
    std::size_t limit = SIZE_MAX;   // bytes the state may hold
    char* name = nullptr;           // for panic messages (malloc'd, NUL-terminated)
    void* user = nullptr;           // the owner's per-state data
    bool limitHit = false;          // an allocation was refused for the limit
};

void* allocate(void* ud, void* ptr, std::size_t osize, std::size_t nsize) {
    auto* info = static_cast<StateInfo*>(ud);
    if (nsize == 0) {
        std::free(ptr);
        info->used -= osize;
        return nullptr;
    }
    // Growing beyond the limit fails; Lua turns that into a memory error. Shrinking
    // must never fail, so it is not checked.
    if (nsize > osize &&
        (info->used >= info->limit || nsize - osize > info->limit - info->used)) {
        info->limitHit = true;
        return nullptr;
    }
    void* block = std::realloc(ptr, nsize);
    if (block == nullptr) return nsize <= osize ? ptr : nullptr;
    info->used = info->used - osize + nsize;
    return block;
}

StateInfo* infoOf(lua_State* L) {
    void* ud = nullptr;
    lua_getallocf(L, &ud);
    return static_cast<StateInfo*>(ud);
}

// An error outside any protected call: Lua would longjmp nowhere, so stop here with a
// message rather than unwind through C++ frames.
int panic(lua_State* L) {
    const StateInfo* info = infoOf(L);
    const char* message = lua_type(L, -1) == LUA_TSTRING ? lua_tostring(L, -1) : "(no message)";
    std::fprintf(stderr, "vandrel: unprotected Lua error in %s: %s\n",
                 info != nullptr && info->name != nullptr ? info->name : "?", message);
    std::fflush(stderr);
    std::abort();
}

}  // namespace

lua_State* ZO_lua_open(const char* name) {
    if (name == nullptr) name = "";
    const std::size_t length = std::strlen(name);
    auto info = std::make_unique<StateInfo>();
    info->name = static_cast<char*>(std::malloc(length + 1));
    if (info->name == nullptr) throw std::bad_alloc();
    std::memcpy(info->name, name, length + 1);
    lua_State* L = lua_newstate(allocate, info.get());
    if (L == nullptr) {
        std::free(info->name);
        throw std::bad_alloc();
    }
    lua_atpanic(L, panic);
    info.release();
    return L;
}

void ZO_lua_openlibs(lua_State* L) { luaL_openlibs(L); }

int ZO_lua_pcall(lua_State* L, int nargs, int nresults, int errfunc) {
    return lua_pcall(L, nargs, nresults, errfunc);
}

void ZO_lua_close(lua_State* L) {
    if (L == nullptr) return;
    StateInfo* info = infoOf(L);
    lua_close(L);
    std::free(info->name);
    delete info;
}

std::size_t ZO_lua_setmemorylimit(lua_State* L, std::size_t bytes) {
    StateInfo* info = infoOf(L);
    const std::size_t previous = info->limit;
    info->limit = bytes;
    return previous;
}

std::size_t ZO_lua_memoryused(lua_State* L) { return infoOf(L)->used; }

bool ZO_lua_memorylimithit(lua_State* L) {
    StateInfo* info = infoOf(L);
    const bool hit = info->limitHit;
    info->limitHit = false;
    return hit;
}

void ZO_lua_setuserdata(lua_State* L, void* data) { infoOf(L)->user = data; }

void* ZO_lua_getuserdata(lua_State* L) { return infoOf(L)->user; }
