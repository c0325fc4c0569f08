#pragma once
// Creation, library opening, protected calls and closing of Lua states. Lua is a C
// library: a Lua error is a longjmp that skips C++ destructors, so vandrel calls into Lua
// only through ZO_lua_pcall (or with calls that cannot raise), and unprotected errors end
// the process with a message instead of unwinding through C++ frames.
#include <cstddef>

struct lua_State;

// A new state with the panic handler installed and memory accounting (no limit);
// `name` appears in panic messages. Close it with ZO_lua_close, never lua_close.
lua_State* ZO_lua_open(const char* name);
// Opens the standard libraries (for script blocks, which are programs).
void ZO_lua_openlibs(lua_State* L);
// lua_pcall with the same meaning; errors are left on the stack as the message.
int ZO_lua_pcall(lua_State* L, int nargs, int nresults, int errfunc);
// Closes a state; null is accepted.
void ZO_lua_close(lua_State* L);

// Memory accounting of a state made by ZO_lua_open. An allocation that would take the
// state's memory above the limit fails, which Lua reports as a memory error (LUA_ERRMEM)
// to the innermost protected call. Returns the previous limit (bytes; SIZE_MAX: none).
std::size_t ZO_lua_setmemorylimit(lua_State* L, std::size_t bytes);
// Bytes currently held by the state.
std::size_t ZO_lua_memoryused(lua_State* L);
// True when an allocation was refused for the limit since the last call (which clears
// it): tells a memory error caused by the limit from one of the process.
bool ZO_lua_memorylimithit(lua_State* L);

// One pointer of the owner's own per-state data, reachable from any thread (coroutine)
// of the state without a Lua call; null until set.
void ZO_lua_setuserdata(lua_State* L, void* data);
void* ZO_lua_getuserdata(lua_State* L);
