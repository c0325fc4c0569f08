// Walks two Lua tables side by side. Only raw, non-raising Lua calls are made (rawget,
// next, type and value queries, checkstack), so no Lua error can unwind these frames.
#include "vandrel/platform/LuaCompare.h"

#include <algorithm>
#include <string_view>

#include <lua.hpp>

#include "vandrel/platform/LuaDetail.h"

namespace Lua {

namespace {

constexpr int kMaxDepth = 200;
constexpr long kMaxVisits = 1'000'000;

// A key of a table, held so that entries can be sorted and looked up in the other state.
struct KeyValue {
    int type = LUA_TNIL;  // LUA_TNUMBER, LUA_TSTRING, LUA_TBOOLEAN, or another (not comparable)
    double number = 0;
    zo::string text;
    bool boolean = false;
};

KeyValue readKey(lua_State* L, int index) {
    KeyValue k;
    k.type = lua_type(L, index);
    if (k.type == LUA_TNUMBER) {
        k.number = lua_tonumber(L, index);
    } else if (k.type == LUA_TSTRING) {
        std::size_t n = 0;
        const char* s = lua_tolstring(L, index, &n);  // a string already: no conversion
        k.text.assign(s, n);
    } else if (k.type == LUA_TBOOLEAN) {
        k.boolean = lua_toboolean(L, index) != 0;
    }
    return k;
}

// Numbers first (ascending), then strings, then booleans; others keep their walk order.
bool keyBefore(const KeyValue& a, const KeyValue& b) {
    auto rank = [](int t) { return t == LUA_TNUMBER ? 0 : t == LUA_TSTRING ? 1 : t == LUA_TBOOLEAN ? 2 : 3; };
    if (rank(a.type) != rank(b.type)) return rank(a.type) < rank(b.type);
    if (a.type == LUA_TNUMBER) return a.number < b.number;
    if (a.type == LUA_TSTRING) return a.text < b.text;
    if (a.type == LUA_TBOOLEAN) return !a.boolean && b.boolean;
    return false;
}

void pushKey(lua_State* L, const KeyValue& k) {
    switch (k.type) {
        case LUA_TNUMBER: lua_pushnumber(L, k.number); break;
        case LUA_TSTRING: lua_pushlstring(L, k.text.data(), k.text.size()); break;
        case LUA_TBOOLEAN: lua_pushboolean(L, k.boolean ? 1 : 0); break;
        default: lua_pushnil(L); break;
    }
}

void appendKey(zo::string& path, const KeyValue& k) {
    if (k.type == LUA_TSTRING && detail::isIdentifier(k.text)) {
        path += '.';
        path += k.text;
    } else if (k.type == LUA_TSTRING) {
        path += '[';
        detail::appendQuoted(path, k.text);
        path += ']';
    } else if (k.type == LUA_TNUMBER) {
        path += '[';
        detail::appendNumber(path, k.number);
        path += ']';
    } else if (k.type == LUA_TBOOLEAN) {
        path += k.boolean ? "[true]" : "[false]";
    } else {
        path += "[?]";
    }
}

// The value at `index` as short Lua text for messages.
zo::string describe(lua_State* L, int index) {
    zo::string out;
    switch (lua_type(L, index)) {
        case LUA_TNIL: return {};
        case LUA_TNUMBER: detail::appendNumber(out, lua_tonumber(L, index)); return out;
        case LUA_TBOOLEAN: return lua_toboolean(L, index) ? "true" : "false";
        case LUA_TSTRING: {
            std::size_t n = 0;
            const char* s = lua_tolstring(L, index, &n);
            std::string_view text(s, n);
            if (text.size() > 60) text = text.substr(0, 60);
            detail::appendQuoted(out, text);
            return out;
        }
        case LUA_TTABLE: return "a table";
        default: return zo::string("a ") + lua_typename(L, lua_type(L, index));
    }
}

class Walker {
public:
    Walker(lua_State* a, lua_State* b, std::size_t maxReport) : a_(a), b_(b), maxReport_(maxReport) {}

    // Compares the values on top of both stacks (pops neither).
    void compare(const zo::string& path, int depth) {
        if (full()) return;
        const int ta = lua_type(a_, -1), tb = lua_type(b_, -1);
        if (ta != LUA_TTABLE) {
            if (!sameScalar(ta, tb)) lose(path);
            return;
        }
        if (++visits_ > kMaxVisits) {
            // Too big to compare: one report, and the walk ends.
            lose(path);
            exhausted_ = true;
            return;
        }
        if (tb != LUA_TTABLE || depth > kMaxDepth || onPath(lua_topointer(a_, -1)) || !lua_checkstack(a_, 8) ||
            !lua_checkstack(b_, 8)) {
            lose(path);
            return;
        }
        path_.push_back(lua_topointer(a_, -1));
        for (const KeyValue& k : keysOf()) {
            if (full()) break;
            pushKey(a_, k);
            lua_rawget(a_, -2);
            pushKey(b_, k);
            lua_rawget(b_, -2);
            zo::string sub = path;
            appendKey(sub, k);
            compare(sub, depth + 1);
            lua_pop(a_, 1);
            lua_pop(b_, 1);
        }
        path_.pop_back();
    }

    zo::vector<LostEntry> take() { return std::move(lost_); }

private:
    bool full() const { return exhausted_ || lost_.size() >= maxReport_; }
    bool onPath(const void* p) const { return std::find(path_.begin(), path_.end(), p) != path_.end(); }

    bool sameScalar(int ta, int tb) const {
        if (ta != tb) return false;
        switch (ta) {
            case LUA_TNUMBER: {
                const double x = lua_tonumber(a_, -1), y = lua_tonumber(b_, -1);
                return x == y || (x != x && y != y);
            }
            case LUA_TBOOLEAN: return (lua_toboolean(a_, -1) != 0) == (lua_toboolean(b_, -1) != 0);
            case LUA_TSTRING: {
                std::size_t na = 0, nb = 0;
                const char* sa = lua_tolstring(a_, -1, &na);
                const char* sb = lua_tolstring(b_, -1, &nb);
                return std::string_view(sa, na) == std::string_view(sb, nb);
            }
            default: return false;  // functions and the like cannot be written back
        }
    }

    // The keys of the table on top of a_, sorted.
    zo::vector<KeyValue> keysOf() {
        zo::vector<KeyValue> keys;
        lua_pushnil(a_);
        while (lua_next(a_, -2) != 0) {
            lua_pop(a_, 1);
            keys.push_back(readKey(a_, -1));
        }
        std::stable_sort(keys.begin(), keys.end(), keyBefore);
        return keys;
    }

    void lose(const zo::string& path) { lost_.push_back({path, describe(a_, -1), describe(b_, -1)}); }

    lua_State* a_;
    lua_State* b_;
    std::size_t maxReport_;
    long visits_ = 0;
    bool exhausted_ = false;
    zo::vector<const void*> path_;
    zo::vector<LostEntry> lost_;
};

}  // namespace

zo::vector<LostEntry> findLostEntries(const Loader& original, const Loader& rewritten, const zo::string& name,
                                      std::size_t maxReport) {
    lua_State* a = original.getState();
    lua_State* b = rewritten.getState();
    detail::StackGuard ga(a), gb(b);
    if (!lua_checkstack(a, 8) || !lua_checkstack(b, 8)) return {{name, "a table", ""}};
    lua_pushlstring(a, name.data(), name.size());
    lua_rawget(a, LUA_GLOBALSINDEX);
    lua_pushlstring(b, name.data(), name.size());
    lua_rawget(b, LUA_GLOBALSINDEX);
    Walker w(a, b, maxReport);
    w.compare(name, 0);
    return w.take();
}

}  // namespace Lua
