#pragma once
// Lua states for script blocks: programs written by users, run inside the simulation.
//
// Everything here that touches the Lua C API runs inside a protected call, so a Lua error
// (a longjmp) never crosses a C++ frame that owns anything; the functions report failure
// through their results and throw nothing but std::bad_alloc.
//
// Each state is guarded against scripts that would hang or exhaust the host:
//   - an instruction budget per call from the host (the chunk, init, run, on_<port>):
//     a count hook raises a Lua error once a call, with everything it calls back into
//     the same state, has run that many Lua VM instructions (counted in steps of up to
//     1000, so the limit is exact to within one step);
//   - a memory limit per state: an allocation beyond it fails as a Lua memory error.
// With safe scripts only the libraries that cannot reach files or the process are
// opened: base (without dofile and loadfile; loadstring and load refuse precompiled
// chunks), coroutine, string, table, math, and os with only time, clock and date.
//
// A script instance is one environment table for one runtime block. Its accessor
// closures (inputs.x(), outputs.y(...), outports.z(...)) reach the block only through a
// handle that the block detaches when it is destroyed, so a closure that a script kept
// somewhere fails with a Lua error instead of touching freed memory.
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string_view>

#include "vandrel/platform/String.h"

struct lua_State;

namespace Lua {

// How script states are made. Captured when a state is created: a later change affects
// only states created after it.
struct ScriptSettings {
    // Open only the libraries that cannot reach the file system or the process.
    bool safeScripts = false;
    // Lua VM instructions one call from the host may run; 0: no limit.
    std::uint64_t instructionBudget = 100'000'000;
    // Bytes one script state may hold; 0: no limit.
    std::size_t memoryLimit = std::size_t{256} << 20;
};

// The process-wide settings, used wherever no ScriptSettingsScope is active.
ScriptSettings getDefaultScriptSettings();
void setDefaultScriptSettings(const ScriptSettings& settings);
// The settings in force on this thread: the innermost active scope's, else the defaults.
ScriptSettings currentScriptSettings();

// Settings for the loads made on this thread while the scope lives (e.g. one scheme
// load); scopes nest, and each restores what was in force before it.
class ScriptSettingsScope {
public:
    explicit ScriptSettingsScope(const ScriptSettings& settings);
    ~ScriptSettingsScope();
    ScriptSettingsScope(const ScriptSettingsScope&) = delete;
    ScriptSettingsScope& operator=(const ScriptSettingsScope&) = delete;

private:
    const ScriptSettings* previous_;
    ScriptSettings settings_;
};

// A script state, shared by its owners and closed with ZO_lua_close after the last.
using ScriptState = std::shared_ptr<lua_State>;

// A new state named `name` (for fatal messages) with the libraries, budget and memory
// limit of `settings`. Null, with the reason in *error, when the libraries do not fit in
// the memory limit.
ScriptState openScriptState(const char* name, const ScriptSettings& settings, zo::string* error);

// The settings the state was made with.
ScriptSettings scriptStateSettings(lua_State* L);

// Compiles `text` (without a chunk name) and runs it under the budget. False, with the
// Lua message in *error, when either fails.
bool runScriptChunk(lua_State* L, std::string_view text, zo::string* error);

// What global `name` holds, read as a script would read it (metamethods of the globals
// included); `failed`, with the message in *error, when the lookup itself fails.
enum class ScriptGlobal { nil, function, other, failed };
ScriptGlobal scriptGlobalKind(lua_State* L, const char* name, zo::string* error);

// Sets global `name` to a new empty table. False, with the message, on failure.
bool setScriptGlobalTable(lua_State* L, const char* name, zo::string* error);

// ---- Instances

// Memory layout of a value moved by an accessor, by lead type: 0 int32, 1 bool (one
// byte), 2 double, 3 three doubles, 4 quaternion (x, y, z, w doubles), 5 one byte read
// and written as an integer (the slot of an object pointer wire), 6 uint32.
enum ScriptSlot : int {
    SCRIPT_SLOT_INT = 0,
    SCRIPT_SLOT_BOOL = 1,
    SCRIPT_SLOT_DOUBLE = 2,
    SCRIPT_SLOT_VECTOR = 3,
    SCRIPT_SLOT_QUATERNION = 4,
    SCRIPT_SLOT_BYTE = 5,
    SCRIPT_SLOT_UINT = 6,
};

// One accessor of an instance: its key in the accessor table, the layout of its value,
// and where the value lives: a byte offset in the data area for wires, the port index
// for output ports.
struct ScriptLead {
    const char* name;
    ScriptSlot slot;
    int where;
};

// What a script's output-port accessors send through. Implemented by the runtime block.
class ScriptHost {
public:
    // Sends the value at `value` (laid out as the port's ScriptSlot) through output port
    // `port`. Returns null, or the message of a failure (kept by the host until its next
    // call), which becomes a Lua error in the sending script.
    virtual const char* sendFromScript(int port, const void* value) noexcept = 0;

protected:
    ~ScriptHost() = default;
};

// The handle through which an instance's accessors reach their block (Lua memory).
struct ScriptInstance;

struct ScriptInstanceSpec {
    const void* key = nullptr;           // the instance's key in "__instance_tables"
    ScriptHost* host = nullptr;          // receives what the outports send
    unsigned char* data = nullptr;       // the data area the wire accessors address
    const ScriptLead* inputs = nullptr;  // input wires
    int inputCount = 0;
    const ScriptLead* outputs = nullptr;  // output wires
    int outputCount = 0;
    const ScriptLead* outports = nullptr;  // output ports
    int outportCount = 0;
};

// Builds the instance's environment: a table whose metatable is the registry's
// "metatable" (reads fall back to the globals), holding "inputs", "outputs" and
// "outports" accessor tables, stored in the global "__instance_tables" under the key as
// a light userdata. Null, with the message, on failure.
ScriptInstance* createScriptInstance(lua_State* L, const ScriptInstanceSpec& spec, zo::string* error);

// Cuts the instance's accessors off from their block: from now on calling one raises a
// Lua error. The environment itself stays in "__instance_tables". Null is accepted.
void detachScriptInstance(lua_State* L, ScriptInstance* instance) noexcept;

// Arguments of a call: up to four numbers, or one boolean.
struct ScriptArgs {
    int count = 0;
    bool boolean = false;  // one boolean argument, `flag`
    bool flag = false;
    double numbers[4] = {};
};

enum class ScriptCallResult {
    ok,           // done (with a number in *number when one was wanted)
    notANumber,   // done, but the one result wanted was not a number
    failed,       // a Lua error: the message is in *error
};

// Calls global function `function` with the environment of the instance keyed `key`,
// as the instance's own call (the function's environment is set again for every call).
// With `wantNumber` one result is kept and must be a number. A failure for the memory
// limit says so after Lua's own message ("not enough memory").
ScriptCallResult callScriptFunction(lua_State* L, const void* key, const char* function, const ScriptArgs& args,
                                    bool wantNumber, double* number, zo::string* error);

// Bytes the state holds now.
std::size_t scriptMemoryUsed(lua_State* L);

}  // namespace Lua
