// Lua::Serializer: a global table written back out as deterministic Lua source.
//
// Only raw reads and lua_next run here, which raise no Lua errors; pushing a key string
// can fail only for want of memory, which is fatal.
#include "vandrel/platform/LuaSerializer.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <memory>

#include <lua.hpp>

#include "vandrel/platform/LuaDetail.h"
#include "vandrel/platform/LuaLoader.h"

namespace Lua {

using detail::StackGuard;

namespace {

// Longest one-line form of a table of plain values (characters, braces included).
constexpr std::size_t kInlineWidth = 72;
// Deepest nesting written; Lua's parser stops at about twice as many levels.
constexpr int kMaxDepth = 64;

// A table key as written: a number or a byte string.
struct TableKey {
    bool isNumber = false;
    double number = 0;
    zo::string text;
};

void pushTableKey(lua_State* L, const TableKey& key) {
    if (key.isNumber)
        lua_pushnumber(L, key.number);
    else
        lua_pushlstring(L, key.text.data(), key.text.size());
}

// Appends the key as it appears in a path, e.g. .name, [3] or ["odd key"].
void appendPathKey(zo::string& path, const TableKey& key) {
    if (key.isNumber) {
        path += '[';
        detail::appendNumber(path, key.number);
        path += ']';
    } else if (detail::isIdentifier(key.text)) {
        path += '.';
        path += key.text;
    } else {
        path += '[';
        detail::appendQuoted(path, key.text);
        path += ']';
    }
}

class Writer {
public:
    explicit Writer(lua_State* L) : L_(L) {}

    // Appends the table at stack index `table`; `indent` is the indentation of the line
    // that holds its opening brace, `path` names it in messages.
    void writeTable(int table, zo::string& out, int indent, const zo::string& path);

private:
    lua_State* L_;
    zo::vector<const void*> open_;  // tables being written, outermost first

    zo::vector<TableKey> orderedKeys(int table, const zo::string& path);
    void writeValue(zo::string& out, int indent, const zo::string& path);
};

// Keys in the order they are written: keys without a recorded write order first (the
// run 1..n, then other numbers ascending, then strings bytewise), then the recorded keys
// in the order they were first written.
zo::vector<TableKey> Writer::orderedKeys(int table, const zo::string& path) {
    const StackGuard guard(L_);
    detail::pushKeyRecord(L_, table);
    const int record = lua_gettop(L_);
    int seen = 0;
    if (lua_istable(L_, record)) {
        lua_rawgeti(L_, record, 2);
        seen = lua_gettop(L_);
    }

    zo::vector<TableKey> numbers;
    zo::vector<TableKey> strings;
    lua_pushnil(L_);
    while (lua_next(L_, table) != 0) {
        lua_pop(L_, 1);  // the value
        const int type = lua_type(L_, -1);
        if (type != LUA_TNUMBER && type != LUA_TSTRING) {
            throw LoaderException(path + " cannot be written: it has a key of type " +
                                  lua_typename(L_, type));
        }
        if (seen != 0) {
            lua_pushvalue(L_, -1);
            lua_rawget(L_, seen);
            const bool recorded = !lua_isnil(L_, -1);
            lua_pop(L_, 1);
            if (recorded) continue;
        }
        TableKey key;
        if (type == LUA_TNUMBER) {
            key.isNumber = true;
            key.number = lua_tonumber(L_, -1);
            numbers.push_back(std::move(key));
        } else {
            std::size_t length = 0;
            const char* text = lua_tolstring(L_, -1, &length);
            key.text.assign(text, length);
            strings.push_back(std::move(key));
        }
    }

    std::sort(numbers.begin(), numbers.end(),
              [](const TableKey& a, const TableKey& b) { return a.number < b.number; });
    std::sort(strings.begin(), strings.end(),
              [](const TableKey& a, const TableKey& b) { return a.text < b.text; });
    // The run 1, 2, ..., n moves to the front, ahead of 0, negatives and fractions.
    double runLength = 0;
    for (const TableKey& key : numbers) {
        if (key.number == runLength + 1)
            runLength += 1;
        else if (key.number > runLength + 1)
            break;
    }
    std::stable_partition(numbers.begin(), numbers.end(), [runLength](const TableKey& k) {
        return k.number >= 1 && k.number <= runLength && k.number == std::floor(k.number);
    });

    zo::vector<TableKey> keys = std::move(numbers);
    for (TableKey& key : strings) keys.push_back(std::move(key));

    if (seen != 0) {
        lua_rawgeti(L_, record, 1);
        const int list = lua_gettop(L_);
        const int count = static_cast<int>(lua_objlen(L_, list));
        for (int i = 1; i <= count; ++i) {
            lua_rawgeti(L_, list, i);
            lua_pushvalue(L_, -1);
            lua_rawget(L_, table);
            const bool present = !lua_isnil(L_, -1);
            lua_pop(L_, 1);
            if (present) {
                TableKey key;
                if (lua_type(L_, -1) == LUA_TNUMBER) {
                    key.isNumber = true;
                    key.number = lua_tonumber(L_, -1);
                } else {
                    std::size_t length = 0;
                    const char* text = lua_tolstring(L_, -1, &length);
                    key.text.assign(text, length);
                }
                keys.push_back(std::move(key));
            }
            lua_pop(L_, 1);
        }
    }
    return keys;
}

// Appends the value on top of the stack (and leaves it there).
void Writer::writeValue(zo::string& out, int indent, const zo::string& path) {
    const int type = lua_type(L_, -1);
    switch (type) {
        case LUA_TNUMBER:
            detail::appendNumber(out, lua_tonumber(L_, -1));
            return;
        case LUA_TBOOLEAN:
            out += lua_toboolean(L_, -1) != 0 ? "true" : "false";
            return;
        case LUA_TSTRING: {
            std::size_t length = 0;
            const char* text = lua_tolstring(L_, -1, &length);
            detail::appendQuoted(out, std::string_view(text, length));
            return;
        }
        case LUA_TTABLE:
            writeTable(lua_gettop(L_), out, indent, path);
            return;
        default:
            throw LoaderException(path + " cannot be written: values of type " +
                                  lua_typename(L_, type) + " have no source form");
    }
}

void Writer::writeTable(int table, zo::string& out, int indent, const zo::string& path) {
    const void* identity = lua_topointer(L_, table);
    if (std::find(open_.begin(), open_.end(), identity) != open_.end())
        throw LoaderException(path + " cannot be written: the table contains itself");
    if (static_cast<int>(open_.size()) >= kMaxDepth)
        throw LoaderException(path + " cannot be written: tables nested more than 64 deep");
    if (lua_checkstack(L_, 8) == 0)
        throw LoaderException(path + " cannot be written: out of Lua stack");

    const zo::vector<TableKey> keys = orderedKeys(table, path);
    if (keys.empty()) {
        out += "{}";
        return;
    }
    open_.push_back(identity);
    const StackGuard guard(L_);

    // Leading keys 1, 2, ..., n are written as positional elements.
    std::size_t positional = 0;
    while (positional < keys.size() && keys[positional].isNumber &&
           keys[positional].number == static_cast<double>(positional + 1))
        ++positional;

    auto appendKey = [&](zo::string& text, std::size_t i) {
        const TableKey& key = keys[i];
        if (i < positional) return;
        if (key.isNumber) {
            text += '[';
            detail::appendNumber(text, key.number);
            text += "] = ";
        } else if (detail::isIdentifier(key.text)) {
            text += key.text;
            text += " = ";
        } else {
            text += '[';
            detail::appendQuoted(text, key.text);
            text += "] = ";
        }
    };

    // A table of plain values that fits on one line is written inline.
    bool plain = true;
    for (const TableKey& key : keys) {
        pushTableKey(L_, key);
        lua_rawget(L_, table);
        plain = plain && lua_type(L_, -1) != LUA_TTABLE;
        lua_pop(L_, 1);
    }
    if (plain) {
        zo::string line = "{ ";
        for (std::size_t i = 0; i < keys.size(); ++i) {
            if (i > 0) line += ", ";
            appendKey(line, i);
            pushTableKey(L_, keys[i]);
            lua_rawget(L_, table);
            zo::string valuePath = path;
            appendPathKey(valuePath, keys[i]);
            writeValue(line, indent, valuePath);
            lua_pop(L_, 1);
            if (line.size() > kInlineWidth) break;
        }
        line += " }";
        if (line.size() <= kInlineWidth) {
            out += line;
            open_.pop_back();
            return;
        }
    }

    out += "{\n";
    const zo::string padding(static_cast<std::size_t>(indent) + 2, ' ');
    for (std::size_t i = 0; i < keys.size(); ++i) {
        out += padding;
        appendKey(out, i);
        pushTableKey(L_, keys[i]);
        lua_rawget(L_, table);
        zo::string valuePath = path;
        appendPathKey(valuePath, keys[i]);
        writeValue(out, indent + 2, valuePath);
        lua_pop(L_, 1);
        out += ",\n";
    }
    out.append(static_cast<std::size_t>(indent), ' ');
    out += '}';
    open_.pop_back();
}

struct FileCloser {
    void operator()(std::FILE* file) const { std::fclose(file); }
};

}  // namespace

zo::string Serializer::toSource(lua_State* L, const zo::string& globalName) {
    if (!detail::isIdentifier(globalName)) {
        zo::string quoted;
        detail::appendQuoted(quoted, globalName);
        throw LoaderException("Cannot write global " + quoted + ": not a Lua name");
    }
    const StackGuard guard(L);
    lua_pushlstring(L, globalName.data(), globalName.size());
    lua_rawget(L, LUA_GLOBALSINDEX);
    const int type = lua_type(L, -1);
    if (type != LUA_TTABLE) {
        throw LoaderException("Cannot write global " + globalName + ": it is " +
                              (type == LUA_TNIL ? zo::string("not defined")
                                                : zo::string("a ") + lua_typename(L, type) +
                                                      ", not a table"));
    }
    zo::string out = globalName + " = ";
    Writer writer(L);
    writer.writeTable(lua_gettop(L), out, 0, globalName);
    out += '\n';
    return out;
}

void Serializer::serialize(lua_State* L, const zo::string& globalName) const {
    const zo::string text = toSource(L, globalName);
    std::unique_ptr<std::FILE, FileCloser> file(std::fopen(fileName_.c_str(), "wb"));
    if (!file) throw LoaderException("Cannot open file for writing: " + fileName_);
    const bool written = std::fwrite(text.data(), 1, text.size(), file.get()) == text.size();
    const bool closed = std::fclose(file.release()) == 0;
    if (!written || !closed) throw LoaderException("Cannot write file: " + fileName_);
}

}  // namespace Lua
