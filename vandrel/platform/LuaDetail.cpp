// Lua source text and key-order records shared by the loader and the serializer.
#include "vandrel/platform/LuaDetail.h"

#include <charconv>
#include <cmath>
#include <iterator>

#include <lua.hpp>

namespace Lua::detail {

namespace {

// Registry key of the key-order table: table -> { [1] = keys in order, [2] = set }.
constexpr const char* kKeyOrderRegistry = "vandrel.keyorder";

constexpr std::string_view kReservedWords[] = {
    "and",  "break", "do",  "else", "elseif", "end",   "false", "for",  "function", "if", "in",
    "local", "nil",  "not", "or",   "repeat", "return", "then", "true", "until",    "while"};

bool isAsciiLetter(unsigned char c) { return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z'); }

}  // namespace

bool isIdentifier(std::string_view text) {
    if (text.empty()) return false;
    const auto first = static_cast<unsigned char>(text[0]);
    if (!isAsciiLetter(first) && first != '_') return false;
    for (char ch : text) {
        const auto c = static_cast<unsigned char>(ch);
        if (!isAsciiLetter(c) && c != '_' && !(c >= '0' && c <= '9')) return false;
    }
    for (std::string_view word : kReservedWords)
        if (text == word) return false;
    return true;
}

void appendQuoted(zo::string& out, std::string_view bytes) {
    out += '"';
    for (char ch : bytes) {
        const auto c = static_cast<unsigned char>(ch);
        switch (c) {
            case '\\': out += "\\\\"; break;
            case '"': out += "\\\""; break;
            case '\n': out += "\\n"; break;
            case '\r': out += "\\r"; break;
            case '\t': out += "\\t"; break;
            default:
                if (c < 0x20 || c == 0x7F) {
                    // Always three digits, so a digit that follows is not taken into it.
                    out += '\\';
                    out += static_cast<char>('0' + c / 100);
                    out += static_cast<char>('0' + c / 10 % 10);
                    out += static_cast<char>('0' + c % 10);
                } else {
                    out += ch;  // bytes from 0x80 stay raw, so UTF-8 text stays readable
                }
        }
    }
    out += '"';
}

void appendNumber(zo::string& out, double value) {
    if (std::isnan(value)) {
        out += "0/0";
    } else if (std::isinf(value)) {
        out += value > 0 ? "math.huge" : "-math.huge";
    } else if (value == 0 && std::signbit(value)) {
        // Lua folds the constant -0 into +0; a division at run time keeps the sign.
        out += "-1/math.huge";
    } else {
        char buffer[32];
        const auto result = std::to_chars(std::begin(buffer), std::end(buffer), value);
        out.append(buffer, result.ptr);
    }
}

void createKeyOrderRegistry(lua_State* L) {
    lua_pushstring(L, kKeyOrderRegistry);
    lua_newtable(L);
    lua_createtable(L, 0, 1);
    lua_pushstring(L, "__mode");
    lua_pushstring(L, "k");
    lua_rawset(L, -3);
    lua_setmetatable(L, -2);
    lua_rawset(L, LUA_REGISTRYINDEX);
}

void recordKey(lua_State* L, int table, int key) {
    const int top = lua_gettop(L);
    if (table < 0) table = top + table + 1;
    if (key < 0) key = top + key + 1;
    lua_pushstring(L, kKeyOrderRegistry);
    lua_rawget(L, LUA_REGISTRYINDEX);  // top + 1: registry of records
    if (!lua_istable(L, -1)) {
        lua_settop(L, top);
        return;
    }
    lua_pushvalue(L, table);
    lua_rawget(L, top + 1);  // top + 2: this table's record
    if (lua_isnil(L, -1)) {
        lua_pop(L, 1);
        lua_createtable(L, 2, 0);
        lua_newtable(L);
        lua_rawseti(L, -2, 1);
        lua_newtable(L);
        lua_rawseti(L, -2, 2);
        lua_pushvalue(L, table);
        lua_pushvalue(L, -2);
        lua_rawset(L, top + 1);
    }
    lua_rawgeti(L, top + 2, 2);  // top + 3: set of recorded keys
    lua_pushvalue(L, key);
    lua_rawget(L, top + 3);
    if (lua_isnil(L, -1)) {
        lua_pushvalue(L, key);
        lua_pushboolean(L, 1);
        lua_rawset(L, top + 3);
        lua_rawgeti(L, top + 2, 1);  // list of keys in write order
        const int count = static_cast<int>(lua_objlen(L, -1));
        lua_pushvalue(L, key);
        lua_rawseti(L, -2, count + 1);
    }
    lua_settop(L, top);
}

void pushKeyRecord(lua_State* L, int table) {
    if (table < 0) table = lua_gettop(L) + table + 1;
    lua_pushstring(L, kKeyOrderRegistry);
    lua_rawget(L, LUA_REGISTRYINDEX);
    if (!lua_istable(L, -1)) {  // a state without records: every table is unordered
        lua_pop(L, 1);
        lua_pushnil(L);
        return;
    }
    lua_pushvalue(L, table);
    lua_rawget(L, -2);
    lua_remove(L, -2);
}

}  // namespace Lua::detail
