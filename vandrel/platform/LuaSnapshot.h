#pragma once
// The state a Lua block's script keeps between calls, as bytes for whole-state snapshots.
//
// Captured:
//  - the instance's environment: every global the script's functions assign while running
//    for this block (its accessor tables excepted), when the value is nil, a boolean, a
//    number, a string, or a table of such values (nested tables included) without a
//    metatable;
//  - the upvalues of the script's global functions (locals of the script's chunk that
//    its functions use, such as a counter kept in a `local`) holding such values.
//    Upvalues holding functions or library tables (`local floor = math.floor`) are code,
//    not state, and are left as they are. The chunk runs once per descriptor, so these
//    locals are shared by every block made from it (in every system built from the
//    scheme): restoring one block's state sets them for all of them.
// Refused, with a message naming the global: functions, userdata, coroutines and tables
// with metatables stored in the environment, and tables nested deeper than 32 levels (a
// cycle). Not kept: the identity of tables (two names for one table come back as two
// tables), the order in which pairs() visits a table, and changes a script makes to the
// shared globals table through rawset or the like (its functions write their own globals).
//
// Every Lua call runs protected; the functions here hold nothing with a destructor.
#include <string_view>

#include "vandrel/platform/String.h"

struct lua_State;

namespace Lua {

// Appends the state of the instance keyed `key` to *out. False, with the reason in *error,
// when it holds something that cannot be saved.
bool saveScriptInstanceState(lua_State* L, const void* key, zo::vector<unsigned char>* out, zo::string* error);

// Replaces the instance's saved globals and the functions' upvalues with those of
// `size` bytes at `data`, as written by saveScriptInstanceState. False, with the reason,
// when the bytes are malformed; the instance may then be partly restored.
bool restoreScriptInstanceState(lua_State* L, const void* key, const unsigned char* data, std::size_t size,
                                zo::string* error);

}  // namespace Lua
