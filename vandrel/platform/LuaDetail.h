#pragma once
// Helpers shared by Lua::Loader and Lua::Serializer: a Lua stack guard, Lua source text
// for names, strings and numbers, and the record of the order in which keys were written
// into tables.
#include <string_view>

#include <lua.hpp>

#include "vandrel/platform/String.h"

namespace Lua::detail {

// Restores the Lua stack height when a C++ exception leaves a scope.
class StackGuard {
public:
    explicit StackGuard(lua_State* L) : L_(L), top_(lua_gettop(L)) {}
    ~StackGuard() { lua_settop(L_, top_); }
    StackGuard(const StackGuard&) = delete;
    StackGuard& operator=(const StackGuard&) = delete;

private:
    lua_State* L_;
    int top_;
};

// True for a Lua name that is not a reserved word, so it can be written as `key = `.
bool isIdentifier(std::string_view text);

// Appends `bytes` as a double-quoted Lua string that reads back byte for byte.
void appendQuoted(zo::string& out, std::string_view bytes);

// Appends a Lua expression that evaluates to exactly `value`: the shortest decimal form
// that reads back bit-exact, or math.huge / -math.huge / 0/0 / -1/math.huge.
void appendNumber(zo::string& out, double value);

// Creates the registry table that records key order (weak in its keys, so it does not
// keep tables alive). Without it recordKey does nothing and every table is unordered.
void createKeyOrderRegistry(lua_State* L);

// Remembers that the key at stack index `key` was written into the table at stack
// index `table`, unless it was written before.
void recordKey(lua_State* L, int table, int key);

// Pushes the record of the table at stack index `table`: a table whose [1] lists the
// keys in write order and whose [2] maps each recorded key to true; nil when none.
void pushKeyRecord(lua_State* L, int table);

}  // namespace Lua::detail
