// Script states: libraries, limits, instances and calls. Every Lua API call that can
// raise an error runs inside lua_pcall or lua_cpcall; the C functions that Lua calls
// (the trampoline, the accessors, the hook) hold only trivially destructible locals, so
// a Lua error may leave them by longjmp.
#include "vandrel/platform/LuaScript.h"

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <limits>
#include <mutex>

#include <lua.hpp>

#include "vandrel/platform/LuaState.h"

namespace Lua {

// The handle behind an instance's accessors; lives in Lua memory, anchored in the
// registry while its block lives. A null host means the block is gone.
struct ScriptInstance {
    ScriptHost* host;
    unsigned char* data;
    int ref;  // registry reference that keeps the handle alive while the block lives
};

namespace {

// ---- Settings

std::mutex defaultsMutex;
ScriptSettings defaults;
thread_local const ScriptSettings* scoped = nullptr;

// ---- Per-state context, a userdata in the registry (freed with the state), reached
// from any thread of the state through the allocator's user pointer.

constexpr const char* kContextKey = "vandrel.script";
constexpr int kHookPeriod = 1000;  // instructions between two looks at the budget

struct Context {
    ScriptSettings settings;
    std::int64_t remaining;  // instructions left to the outermost call running now
    int period;              // instructions between two hook calls
    int depth;               // calls from the host running now (nested through ports)
    int trampolineRef;       // registry reference of callTrampoline
};

Context* contextOf(lua_State* L) { return static_cast<Context*>(ZO_lua_getuserdata(L)); }

std::int64_t budgetOf(const Context* ctx) {
    const std::uint64_t budget = ctx->settings.instructionBudget;
    constexpr auto max = static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max());
    return static_cast<std::int64_t>(budget > max ? max : budget);
}

// Runs every ctx->period instructions of any thread of the state (coroutines inherit the
// hook). Nested calls share the budget of the outermost call, so a loop that calls back
// into the state through a port still runs out.
void countHook(lua_State* L, lua_Debug*) {
    Context* ctx = contextOf(L);
    if (ctx == nullptr || ctx->settings.instructionBudget == 0) return;
    const int count = lua_gethookcount(L);
    ctx->remaining -= count;
    if (ctx->remaining > 0) {
        // A thread left at every instruction by an earlier call goes back to the period.
        if (count != ctx->period) lua_sethook(L, countHook, LUA_MASKCOUNT, ctx->period);
        return;
    }
    // From now on every instruction of this thread fails, so a script that catches the
    // error with pcall cannot go on: each error unwinds to the nearest pcall, and the next
    // instruction of its caller fails again, up to the host's call.
    if (count != 1) lua_sethook(L, countHook, LUA_MASKCOUNT, 1);
    // Where the running function is (level 0; level 1 would be its caller).
    luaL_where(L, 0);
    lua_pushfstring(L, "instruction limit exceeded: more than %f Lua instructions in one call",
                    static_cast<lua_Number>(ctx->settings.instructionBudget));
    lua_concat(L, 2);
    lua_error(L);
}

// Before and after one call from the host into the state.
void enterCall(lua_State* L, Context* ctx) {
    if (ctx->depth++ == 0) {
        ctx->remaining = budgetOf(ctx);
        (void)ZO_lua_memorylimithit(L);  // forget refusals of earlier calls
    }
}
void leaveCall(Context* ctx) { --ctx->depth; }

// The message of the error object on the top of the stack, without converting it in
// place (a conversion could allocate, outside any protected call).
void takeMessage(lua_State* L, int status, zo::string* error) {
    const int type = lua_type(L, -1);
    if (type == LUA_TSTRING) {
        std::size_t length = 0;
        const char* text = lua_tolstring(L, -1, &length);
        error->assign(text, length);
    } else if (type == LUA_TNUMBER) {
        char buffer[64];
        std::snprintf(buffer, sizeof buffer, "%.14g", lua_tonumber(L, -1));
        *error = buffer;
    } else {
        *error = "(error object is a ";
        *error += lua_typename(L, type);
        *error += " value)";
    }
    if (status == LUA_ERRMEM && ZO_lua_memorylimithit(L)) {
        const Context* ctx = contextOf(L);
        *error += " (the memory limit of ";
        *error += std::to_string(ctx != nullptr ? ctx->settings.memoryLimit : 0);
        *error += " bytes per script state was reached)";
    }
}

// ---- Libraries

constexpr const char* kNoPrecompiled = "precompiled chunks are not allowed in safe scripts";

// loadstring that refuses precompiled chunks; upvalue 1: the original.
int safeLoadstring(lua_State* L) {
    std::size_t length = 0;
    const char* text = luaL_checklstring(L, 1, &length);
    if (length > 0 && text[0] == LUA_SIGNATURE[0]) {
        lua_pushnil(L);
        lua_pushstring(L, kNoPrecompiled);
        return 2;
    }
    lua_pushvalue(L, lua_upvalueindex(1));
    lua_insert(L, 1);
    lua_call(L, lua_gettop(L) - 1, LUA_MULTRET);
    return lua_gettop(L);
}

// The reader given to the original load; upvalue 1: the script's reader, upvalue 2:
// true until the first non-empty piece, which must not start a precompiled chunk.
int guardedReader(lua_State* L) {
    lua_pushvalue(L, lua_upvalueindex(1));
    lua_call(L, 0, 1);
    if (lua_toboolean(L, lua_upvalueindex(2)) && lua_type(L, -1) == LUA_TSTRING) {
        std::size_t length = 0;
        const char* piece = lua_tolstring(L, -1, &length);
        if (length > 0) {
            if (piece[0] == LUA_SIGNATURE[0]) return luaL_error(L, "%s", kNoPrecompiled);
            lua_pushboolean(L, 0);
            lua_replace(L, lua_upvalueindex(2));
        }
    }
    return 1;
}

// load that refuses precompiled chunks; upvalue 1: the original.
int safeLoad(lua_State* L) {
    luaL_checktype(L, 1, LUA_TFUNCTION);
    lua_pushvalue(L, 1);
    lua_pushboolean(L, 1);
    lua_pushcclosure(L, guardedReader, 2);
    lua_replace(L, 1);
    lua_pushvalue(L, lua_upvalueindex(1));
    lua_insert(L, 1);
    lua_call(L, lua_gettop(L) - 1, LUA_MULTRET);
    return lua_gettop(L);
}

// string.rep that returns at once for the empty string: the original loops n times
// inside C, where no instruction is counted, so rep("", 2^31 - 1) would take seconds
// per call, out of reach of the budget.
// Upvalue 1: the original.
int boundedRep(lua_State* L) {
    std::size_t length = 0;
    luaL_checklstring(L, 1, &length);
    luaL_checkinteger(L, 2);
    if (length == 0) {
        lua_pushliteral(L, "");
        return 1;
    }
    lua_pushvalue(L, lua_upvalueindex(1));
    lua_insert(L, 1);
    lua_call(L, lua_gettop(L) - 1, 1);
    return 1;
}

// Replaces global `name` by a C closure with the old value as its upvalue.
void wrapGlobal(lua_State* L, const char* name, lua_CFunction wrapper) {
    lua_getfield(L, LUA_GLOBALSINDEX, name);
    lua_pushcclosure(L, wrapper, 1);
    lua_setfield(L, LUA_GLOBALSINDEX, name);
}

// The libraries that cannot reach the file system or the process.
void openSafeLibraries(lua_State* L) {
    static const luaL_Reg libraries[] = {
        {"", luaopen_base},
        {LUA_TABLIBNAME, luaopen_table},
        {LUA_STRLIBNAME, luaopen_string},
        {LUA_MATHLIBNAME, luaopen_math},
        {LUA_OSLIBNAME, luaopen_os},
    };
    for (const luaL_Reg& library : libraries) {
        lua_pushcfunction(L, library.func);
        lua_pushstring(L, library.name);
        lua_call(L, 1, 0);
    }
    for (const char* name : {"dofile", "loadfile"}) {
        lua_pushnil(L);
        lua_setfield(L, LUA_GLOBALSINDEX, name);
    }
    wrapGlobal(L, "loadstring", safeLoadstring);
    wrapGlobal(L, "load", safeLoad);

    // os keeps only the clock and the calendar; the full table stays unreachable.
    lua_getfield(L, LUA_GLOBALSINDEX, LUA_OSLIBNAME);
    lua_createtable(L, 0, 3);
    for (const char* name : {"time", "clock", "date"}) {
        lua_getfield(L, -2, name);
        lua_setfield(L, -2, name);
    }
    lua_pushvalue(L, -1);
    lua_setfield(L, LUA_GLOBALSINDEX, LUA_OSLIBNAME);
    lua_getfield(L, LUA_REGISTRYINDEX, "_LOADED");
    lua_insert(L, -2);
    lua_setfield(L, -2, LUA_OSLIBNAME);
    lua_pop(L, 2);
}

// ---- Calls

// What callTrampoline is asked to do.
struct CallRequest {
    const char* function;
    const void* key;
    int results;
};

// Called protected with (request, arguments...): fetches the global function, gives it
// the instance's environment and calls it.
int callTrampoline(lua_State* L) {
    const auto* request = static_cast<const CallRequest*>(lua_touserdata(L, 1));
    const int arguments = lua_gettop(L) - 1;
    lua_getfield(L, LUA_GLOBALSINDEX, request->function);
    lua_getfield(L, LUA_GLOBALSINDEX, "__instance_tables");
    if (!lua_istable(L, -1)) return luaL_error(L, "the global __instance_tables is not a table");
    lua_pushlightuserdata(L, const_cast<void*>(request->key));
    lua_gettable(L, -2);
    if (!lua_istable(L, -1)) return luaL_error(L, "__instance_tables holds no environment for this block");
    lua_remove(L, -2);
    lua_setfenv(L, -2);
    lua_insert(L, 2);
    lua_call(L, arguments, request->results);
    return request->results;
}

struct OpenRequest {
    const ScriptSettings* settings;
};

// Called protected: the context, the libraries, the trampoline.
int openState(lua_State* L) {
    const auto* request = static_cast<const OpenRequest*>(lua_touserdata(L, 1));
    auto* ctx = static_cast<Context*>(lua_newuserdata(L, sizeof(Context)));
    ctx->settings = *request->settings;
    ctx->remaining = 0;
    ctx->depth = 0;
    ctx->trampolineRef = LUA_NOREF;
    const std::uint64_t budget = ctx->settings.instructionBudget;
    ctx->period = budget != 0 && budget < kHookPeriod ? static_cast<int>(budget) : kHookPeriod;
    ctx->remaining = budgetOf(ctx);
    lua_setfield(L, LUA_REGISTRYINDEX, kContextKey);
    ZO_lua_setuserdata(L, ctx);

    if (ctx->settings.safeScripts) openSafeLibraries(L);
    else ZO_lua_openlibs(L);
    lua_getfield(L, LUA_GLOBALSINDEX, LUA_STRLIBNAME);
    lua_getfield(L, -1, "rep");
    lua_pushcclosure(L, boundedRep, 1);
    lua_setfield(L, -2, "rep");
    lua_pop(L, 1);

    lua_pushcfunction(L, callTrampoline);
    ctx->trampolineRef = luaL_ref(L, LUA_REGISTRYINDEX);
    return 0;
}

// The deleter of ScriptState: the budget is fresh for finalizers that run at close.
void closeScriptState(lua_State* L) {
    if (Context* ctx = contextOf(L)) {
        ctx->remaining = budgetOf(ctx);
        ctx->depth = 0;
    }
    ZO_lua_close(L);
}

// Runs f(ud) protected; on failure the message goes to *error (if given).
bool runProtected(lua_State* L, lua_CFunction f, void* ud, zo::string* error) {
    const int top = lua_gettop(L);
    const int status = lua_cpcall(L, f, ud);
    if (status != 0 && error != nullptr) takeMessage(L, status, error);
    lua_settop(L, top);
    return status == 0;
}

// ---- Accessors. Upvalues: 1 the instance handle, 2 the offset or port index, 3 the
// slot. Values are staged in a buffer laid out like the slot.

constexpr int kSlotBufferSize = 32;

ScriptInstance* liveHandle(lua_State* L) {
    auto* handle = static_cast<ScriptInstance*>(lua_touserdata(L, lua_upvalueindex(1)));
    if (handle == nullptr || handle->host == nullptr)
        luaL_error(L, "this accessor belongs to a Lua block that no longer exists");
    return handle;
}

// Bytes of a value laid out as `slot`: the wire's slot size.
std::size_t slotBytes(ScriptSlot slot) {
    switch (slot) {
        case SCRIPT_SLOT_BOOL:
        case SCRIPT_SLOT_BYTE: return 1;
        case SCRIPT_SLOT_INT:
        case SCRIPT_SLOT_UINT: return 4;
        case SCRIPT_SLOT_DOUBLE: return 8;
        case SCRIPT_SLOT_VECTOR: return 24;
        case SCRIPT_SLOT_QUATERNION: return 32;
    }
    return 0;
}

ScriptSlot slotOf(lua_State* L) { return static_cast<ScriptSlot>(lua_tointeger(L, lua_upvalueindex(3))); }

// The low 32 bits of an integer argument.
std::uint32_t checkLow32(lua_State* L, int arg) {
    return static_cast<std::uint32_t>(static_cast<std::uint64_t>(luaL_checkinteger(L, arg)) & 0xFFFFFFFFu);
}

// Reads the arguments of a setter or sender into `out`, laid out as `slot`.
void readArguments(lua_State* L, ScriptSlot slot, unsigned char* out) {
    switch (slot) {
        case SCRIPT_SLOT_INT:
        case SCRIPT_SLOT_UINT: {
            const std::uint32_t v = checkLow32(L, 1);
            std::memcpy(out, &v, sizeof v);
            break;
        }
        case SCRIPT_SLOT_BOOL:
            if (lua_type(L, 1) != LUA_TBOOLEAN)
                luaL_argerror(L, 1, lua_pushfstring(L, "boolean expected, got %s", luaL_typename(L, 1)));
            out[0] = lua_toboolean(L, 1) ? 1 : 0;
            break;
        case SCRIPT_SLOT_BYTE:
            out[0] = static_cast<unsigned char>(checkLow32(L, 1) & 0xFFu);
            break;
        case SCRIPT_SLOT_DOUBLE:
        case SCRIPT_SLOT_VECTOR:
        case SCRIPT_SLOT_QUATERNION: {
            // Arguments 1..n into the stored components in order (x, y, z, w).
            const int n = slot == SCRIPT_SLOT_DOUBLE ? 1 : (slot == SCRIPT_SLOT_VECTOR ? 3 : 4);
            for (int i = 0; i < n; ++i) {
                const double v = luaL_checknumber(L, i + 1);
                std::memcpy(out + 8 * i, &v, sizeof v);
            }
            break;
        }
    }
}

// Pushes the value at `in`, laid out as `slot`; returns the count of values pushed.
int pushValue(lua_State* L, ScriptSlot slot, const unsigned char* in) {
    switch (slot) {
        case SCRIPT_SLOT_INT: {
            std::int32_t v;
            std::memcpy(&v, in, sizeof v);
            lua_pushinteger(L, v);
            return 1;
        }
        case SCRIPT_SLOT_UINT: {
            std::uint32_t v;
            std::memcpy(&v, in, sizeof v);
            lua_pushinteger(L, static_cast<lua_Integer>(v));
            return 1;
        }
        case SCRIPT_SLOT_BOOL:
            lua_pushboolean(L, in[0] != 0);
            return 1;
        case SCRIPT_SLOT_BYTE:
            lua_pushinteger(L, in[0]);
            return 1;
        case SCRIPT_SLOT_DOUBLE:
        case SCRIPT_SLOT_VECTOR: {
            const int n = slot == SCRIPT_SLOT_DOUBLE ? 1 : 3;
            for (int i = 0; i < n; ++i) {
                double v;
                std::memcpy(&v, in + 8 * i, sizeof v);
                lua_pushnumber(L, v);
            }
            return n;
        }
        case SCRIPT_SLOT_QUATERNION: {
            // The fourth stored component (w) first, then x, y, z.
            static constexpr int order[4] = {3, 0, 1, 2};
            for (int i : order) {
                double v;
                std::memcpy(&v, in + 8 * i, sizeof v);
                lua_pushnumber(L, v);
            }
            return 4;
        }
    }
    return 0;
}

int wireGetter(lua_State* L) {
    if (lua_gettop(L) != 0) return luaL_error(L, "To many arguments for input callback");
    const ScriptInstance* handle = liveHandle(L);
    return pushValue(L, slotOf(L), handle->data + lua_tointeger(L, lua_upvalueindex(2)));
}

int wireSetter(lua_State* L) {
    const ScriptInstance* handle = liveHandle(L);
    const ScriptSlot slot = slotOf(L);
    unsigned char value[kSlotBufferSize];
    readArguments(L, slot, value);
    std::memcpy(handle->data + lua_tointeger(L, lua_upvalueindex(2)), value, slotBytes(slot));
    lua_settop(L, 0);
    return 0;
}

int portSender(lua_State* L) {
    const ScriptInstance* handle = liveHandle(L);
    unsigned char value[kSlotBufferSize];
    readArguments(L, slotOf(L), value);
    lua_settop(L, 0);
    const char* failure =
        handle->host->sendFromScript(static_cast<int>(lua_tointeger(L, lua_upvalueindex(2))), value);
    if (failure != nullptr) {
        lua_pushstring(L, failure);
        return lua_error(L);
    }
    return 0;
}

// What buildInstance is asked to do.
struct BuildRequest {
    const ScriptInstanceSpec* spec;
    ScriptInstance* result;
};

// Adds the accessor table `name` to the env at stack index `env`, one closure per lead
// over the handle at stack index `handle`.
void addAccessors(lua_State* L, int env, int handle, const char* name, const ScriptLead* leads, int count,
                  lua_CFunction accessor) {
    lua_createtable(L, 0, count);
    for (int i = 0; i < count; ++i) {
        lua_pushvalue(L, handle);
        lua_pushinteger(L, leads[i].where);
        lua_pushinteger(L, leads[i].slot);
        lua_pushcclosure(L, accessor, 3);
        lua_setfield(L, -2, leads[i].name);
    }
    lua_setfield(L, env, name);
}

// Called protected: the instance's env, stored under its key.
int buildInstance(lua_State* L) {
    auto* request = static_cast<BuildRequest*>(lua_touserdata(L, 1));
    const ScriptInstanceSpec& spec = *request->spec;
    lua_getfield(L, LUA_GLOBALSINDEX, "__instance_tables");  // 2
    if (!lua_istable(L, 2)) return luaL_error(L, "the global __instance_tables is not a table");
    lua_pushlightuserdata(L, const_cast<void*>(spec.key));  // 3
    lua_createtable(L, 0, 3);                                // 4: env
    if (luaL_newmetatable(L, "metatable")) {
        lua_pushvalue(L, LUA_GLOBALSINDEX);
        lua_setfield(L, -2, "__index");
    }
    lua_setmetatable(L, 4);
    auto* handle = static_cast<ScriptInstance*>(lua_newuserdata(L, sizeof(ScriptInstance)));  // 5
    handle->host = nullptr;
    handle->data = nullptr;
    handle->ref = LUA_NOREF;
    addAccessors(L, 4, 5, "inputs", spec.inputs, spec.inputCount, wireGetter);
    addAccessors(L, 4, 5, "outputs", spec.outputs, spec.outputCount, wireSetter);
    addAccessors(L, 4, 5, "outports", spec.outports, spec.outportCount, portSender);
    lua_pushvalue(L, 3);
    lua_pushvalue(L, 4);
    lua_settable(L, 2);
    lua_pushvalue(L, 5);
    handle->ref = luaL_ref(L, LUA_REGISTRYINDEX);
    handle->host = spec.host;
    handle->data = spec.data;
    request->result = handle;
    return 0;
}

int releaseInstance(lua_State* L) {
    auto* handle = static_cast<ScriptInstance*>(lua_touserdata(L, 1));
    luaL_unref(L, LUA_REGISTRYINDEX, handle->ref);
    handle->ref = LUA_NOREF;
    return 0;
}

struct GlobalRequest {
    const char* name;
    int type;
};

int queryGlobal(lua_State* L) {
    auto* request = static_cast<GlobalRequest*>(lua_touserdata(L, 1));
    lua_getfield(L, LUA_GLOBALSINDEX, request->name);
    request->type = lua_type(L, -1);
    return 0;
}

int newGlobalTable(lua_State* L) {
    const auto* name = static_cast<const char*>(lua_touserdata(L, 1));
    lua_newtable(L);
    lua_setfield(L, LUA_GLOBALSINDEX, name);
    return 0;
}

}  // namespace

// ---- Settings

ScriptSettings getDefaultScriptSettings() {
    std::lock_guard<std::mutex> lock(defaultsMutex);
    return defaults;
}

void setDefaultScriptSettings(const ScriptSettings& settings) {
    std::lock_guard<std::mutex> lock(defaultsMutex);
    defaults = settings;
}

ScriptSettings currentScriptSettings() { return scoped != nullptr ? *scoped : getDefaultScriptSettings(); }

ScriptSettingsScope::ScriptSettingsScope(const ScriptSettings& settings) : previous_(scoped), settings_(settings) {
    scoped = &settings_;
}

ScriptSettingsScope::~ScriptSettingsScope() { scoped = previous_; }

// ---- States

ScriptState openScriptState(const char* name, const ScriptSettings& settings, zo::string* error) {
    ScriptState state(ZO_lua_open(name), closeScriptState);
    lua_State* L = state.get();
    ZO_lua_setmemorylimit(L, settings.memoryLimit != 0 ? settings.memoryLimit : SIZE_MAX);
    OpenRequest request{&settings};
    if (!runProtected(L, openState, &request, error)) return nullptr;
    const Context* ctx = contextOf(L);
    if (settings.instructionBudget != 0) lua_sethook(L, countHook, LUA_MASKCOUNT, ctx->period);
    return state;
}

ScriptSettings scriptStateSettings(lua_State* L) { return contextOf(L)->settings; }

bool runScriptChunk(lua_State* L, std::string_view text, zo::string* error) {
    Context* ctx = contextOf(L);
    const int top = lua_gettop(L);
    if (ctx->settings.safeScripts && !text.empty() && text[0] == LUA_SIGNATURE[0]) {
        *error = kNoPrecompiled;
        return false;
    }
    // luaL_loadbuffer is protected itself; no chunk name, as for every script.
    int status = luaL_loadbuffer(L, text.data(), text.size(), nullptr);
    if (status == 0) {
        enterCall(L, ctx);
        status = ZO_lua_pcall(L, 0, 0, 0);
        leaveCall(ctx);
    }
    if (status != 0) takeMessage(L, status, error);
    lua_settop(L, top);
    return status == 0;
}

ScriptGlobal scriptGlobalKind(lua_State* L, const char* name, zo::string* error) {
    GlobalRequest request{name, LUA_TNONE};
    if (!runProtected(L, queryGlobal, &request, error)) return ScriptGlobal::failed;
    if (request.type == LUA_TNIL) return ScriptGlobal::nil;
    return request.type == LUA_TFUNCTION ? ScriptGlobal::function : ScriptGlobal::other;
}

bool setScriptGlobalTable(lua_State* L, const char* name, zo::string* error) {
    return runProtected(L, newGlobalTable, const_cast<char*>(name), error);
}

// ---- Instances

ScriptInstance* createScriptInstance(lua_State* L, const ScriptInstanceSpec& spec, zo::string* error) {
    BuildRequest request{&spec, nullptr};
    return runProtected(L, buildInstance, &request, error) ? request.result : nullptr;
}

void detachScriptInstance(lua_State* L, ScriptInstance* instance) noexcept {
    if (instance == nullptr) return;
    instance->host = nullptr;
    instance->data = nullptr;
    // Should this fail (no memory for the protected call), the handle merely stays
    // anchored until the state closes.
    runProtected(L, releaseInstance, instance, nullptr);
}

// ---- Calls

ScriptCallResult callScriptFunction(lua_State* L, const void* key, const char* function, const ScriptArgs& args,
                                    bool wantNumber, double* number, zo::string* error) {
    Context* ctx = contextOf(L);
    const int top = lua_gettop(L);
    // Nothing below allocates: the trampoline is a registry value, the arguments are
    // numbers, booleans and a light userdata, and the stack has room for them (the host
    // calls with an almost empty stack, a port callback from a C function with
    // LUA_MINSTACK free slots).
    const CallRequest request{function, key, wantNumber ? 1 : 0};
    lua_rawgeti(L, LUA_REGISTRYINDEX, ctx->trampolineRef);
    lua_pushlightuserdata(L, const_cast<CallRequest*>(&request));
    int count = 1;
    if (args.boolean) {
        lua_pushboolean(L, args.flag);
        ++count;
    } else {
        for (int i = 0; i < args.count && i < 4; ++i, ++count) lua_pushnumber(L, args.numbers[i]);
    }
    enterCall(L, ctx);
    const int status = ZO_lua_pcall(L, count, request.results, 0);
    leaveCall(ctx);
    if (status != 0) {
        takeMessage(L, status, error);
        lua_settop(L, top);
        return ScriptCallResult::failed;
    }
    ScriptCallResult result = ScriptCallResult::ok;
    if (wantNumber) {
        if (lua_isnumber(L, -1)) *number = lua_tonumber(L, -1);
        else result = ScriptCallResult::notANumber;
    }
    lua_settop(L, top);
    return result;
}

std::size_t scriptMemoryUsed(lua_State* L) { return ZO_lua_memoryused(L); }

}  // namespace Lua
