// Lua::Loader: reading scheme files in a data sandbox and walking their tables.
//
// Every Lua call here is either protected (luaL_loadbuffer, lua_pcall) or one that can
// raise nothing but a memory error, which outside a protected call ends the process
// through the panic handler. So no Lua error ever unwinds through these C++ frames.
#include "vandrel/platform/LuaLoader.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <memory>
#include <utility>

#include <lua.hpp>

#include "vandrel/platform/LuaDetail.h"
#include "vandrel/platform/LuaState.h"
#include "vandrel/platform/Suggest.h"

namespace Lua {

using detail::StackGuard;

namespace {

// A scheme file may run this many Lua instructions; data needs far fewer.
constexpr int kInstructionBudget = 10'000'000;
// Memory a scheme file may take while it runs (bytes), and the largest file read.
constexpr std::size_t kMemoryBudget = std::size_t{256} << 20;
constexpr std::size_t kMaxFileSize = std::size_t{256} << 20;
// Registry key of the untouched math library, copied into each sandbox.
constexpr const char* kMathRegistry = "vandrel.loader.math";

// Count hook: the file has used up its instruction budget.
void stopRunaway(lua_State* L, lua_Debug* /*event*/) {
    lua_Debug where;
    if (lua_getstack(L, 0, &where) != 0 && lua_getinfo(L, "Sl", &where) != 0 && where.currentline > 0)
        lua_pushfstring(L, "%s:%d: ", where.short_src, where.currentline);
    else
        lua_pushstring(L, "");
    lua_pushfstring(L, "stopped after %d Lua instructions (endless loop?)", kInstructionBudget);
    lua_concat(L, 2);
    lua_error(L);
}

// How Lua abbreviates a chunk name "@file" to fit `size` bytes (luaO_chunkid): run-time
// messages use LUA_IDSIZE, messages of the lexer and parser 80.
zo::string luaShortSource(const zo::string& file, std::size_t size) {
    const std::size_t room = size - sizeof(" '...' ");
    if (file.size() <= room) return file;
    return "..." + file.substr(file.size() - room);
}

// A Lua error message with the full file name in front.
zo::string messageNamingFile(const char* luaMessage, const zo::string& file) {
    const zo::string message = luaMessage != nullptr ? luaMessage : "error without a message";
    for (const std::size_t size : {std::size_t{LUA_IDSIZE}, std::size_t{80}}) {
        const zo::string shortSource = luaShortSource(file, size) + ":";
        if (message.compare(0, shortSource.size(), shortSource) == 0)
            return file + message.substr(shortSource.size() - 1);
    }
    return file + ": " + message;
}

zo::string directoryOf(const zo::string& file) {
    const std::size_t slash = file.find_last_of('/');
    if (slash == zo::string::npos) return "./";
    return file.substr(0, slash + 1);
}

zo::string numberText(double value) {
    zo::string text;
    detail::appendNumber(text, value);
    return text;
}

struct FileCloser {
    void operator()(std::FILE* file) const { std::fclose(file); }
};

}  // namespace

Loader::Loader() : L_(ZO_lua_open("Lua::Loader")) {
    // Keep a pristine math library in the registry; the globals stay empty.
    lua_pushcfunction(L_, luaopen_math);
    lua_pushstring(L_, LUA_MATHLIBNAME);
    lua_call(L_, 1, 0);
    lua_pushstring(L_, kMathRegistry);
    lua_pushstring(L_, LUA_MATHLIBNAME);
    lua_rawget(L_, LUA_GLOBALSINDEX);
    lua_rawset(L_, LUA_REGISTRYINDEX);
    lua_pushstring(L_, LUA_MATHLIBNAME);
    lua_pushnil(L_);
    lua_rawset(L_, LUA_GLOBALSINDEX);
    detail::createKeyOrderRegistry(L_);
}

Loader::~Loader() { ZO_lua_close(L_); }

void Loader::reset_(const zo::string& globalName) {
    lua_settop(L_, 0);
    frames_.clear();
    asked_.clear();
    fileName_.clear();
    directory_.clear();
    globalName_ = globalName;
}

void Loader::load(const zo::string& fileName, const zo::string& globalName) {
    std::unique_ptr<std::FILE, FileCloser> file(std::fopen(fileName.c_str(), "rb"));
    if (!file) {
        reset_(globalName);
        throw LoaderException("Cannot open file: " + fileName);
    }
    zo::string source;
    char buffer[65536];
    std::size_t count = 0;
    while ((count = std::fread(buffer, 1, sizeof buffer, file.get())) > 0) {
        source.append(buffer, count);
        if (source.size() > kMaxFileSize) {
            reset_(globalName);
            throw LoaderException(fileName + ": file too large (more than 256 MiB)");
        }
    }
    if (std::ferror(file.get()) != 0) {
        reset_(globalName);
        throw LoaderException("Cannot read file: " + fileName);
    }
    loadString(source, fileName, globalName);
}

void Loader::loadString(std::string_view source, const zo::string& chunkName,
                        const zo::string& globalName) {
    reset_(globalName);
    runChunk_(source, chunkName);
    // Stack: the sandbox environment, holding what the file defined.
    lua_pushlstring(L_, globalName.data(), globalName.size());
    lua_rawget(L_, 1);
    const int type = lua_type(L_, -1);
    if (type != LUA_TTABLE) {
        const zo::string typeName = lua_typename(L_, type);
        lua_settop(L_, 0);
        if (type == LUA_TNIL)
            throw LoaderException(chunkName + ": global table " + globalName + " is not defined");
        throw LoaderException(chunkName + ": global " + globalName + " is a " + typeName +
                              ", expected a table");
    }
    // Publish the table as a real global, where the serializer looks for it.
    lua_pushlstring(L_, globalName.data(), globalName.size());
    lua_pushvalue(L_, -2);
    lua_rawset(L_, LUA_GLOBALSINDEX);
    lua_remove(L_, 1);
    frames_.push_back(Frame{globalName});
    fileName_ = chunkName;
    directory_ = directoryOf(chunkName);
}

void Loader::runChunk_(std::string_view source, const zo::string& chunkName) {
    if (!source.empty() && source[0] == LUA_SIGNATURE[0])
        throw LoaderException(chunkName +
                              ": precompiled Lua chunks are not accepted, scheme files must be source text");

    // The sandbox: a fresh table holding only a private copy of math.
    lua_newtable(L_);
    lua_pushstring(L_, LUA_MATHLIBNAME);
    lua_newtable(L_);
    lua_pushstring(L_, kMathRegistry);
    lua_rawget(L_, LUA_REGISTRYINDEX);
    lua_pushnil(L_);
    while (lua_next(L_, -2) != 0) {
        lua_pushvalue(L_, -2);
        lua_insert(L_, -2);
        lua_rawset(L_, -5);
    }
    lua_pop(L_, 1);
    lua_rawset(L_, -3);

    // Run it with its budgets of memory and instructions in place.
    const std::size_t previousLimit = ZO_lua_setmemorylimit(L_, ZO_lua_memoryused(L_) + kMemoryBudget);
    lua_sethook(L_, stopRunaway, LUA_MASKCOUNT, kInstructionBudget);
    const zo::string luaChunkName = "@" + chunkName;
    int status = luaL_loadbuffer(L_, source.data(), source.size(), luaChunkName.c_str());
    if (status == 0) {
        lua_pushvalue(L_, 1);
        lua_setfenv(L_, -2);
        status = lua_pcall(L_, 0, 0, 0);
    }
    lua_sethook(L_, nullptr, 0, 0);
    ZO_lua_setmemorylimit(L_, previousLimit);
    if (status == 0) return;

    zo::string message;
    if (status == LUA_ERRMEM)
        message = chunkName + ": used more than the 256 MiB of memory a scheme file may take";
    else
        message = messageNamingFile(lua_tostring(L_, -1), chunkName);
    lua_settop(L_, 0);
    lua_gc(L_, LUA_GCCOLLECT, 0);
    throw LoaderException(message);
}

void Loader::createGlobalTable(const zo::string& name) {
    reset_(name);
    lua_newtable(L_);
    lua_pushlstring(L_, name.data(), name.size());
    lua_pushvalue(L_, -2);
    lua_rawset(L_, LUA_GLOBALSINDEX);
    frames_.push_back(Frame{name});
}

// ---- paths and failures ----

namespace {

// Appends one step of a path: ".name", ["odd key"] or [index].
void appendKey(zo::string& out, std::string_view name, int index, bool byIndex) {
    if (byIndex) {
        out += '[';
        out += std::to_string(index);
        out += ']';
    } else if (detail::isIdentifier(name)) {
        if (!out.empty()) out += '.';
        out += name;
    } else {
        out += '[';
        detail::appendQuoted(out, name);
        out += ']';
    }
}

// "a number", "a table": the type of a value as a message names it.
zo::string aType(int luaType, lua_State* L) { return zo::string("a ") + lua_typename(L, luaType); }

}  // namespace

zo::string Loader::path_(const Key* key) const {
    zo::string out;
    const auto append = [&out](std::string_view name, int index, bool byIndex) { appendKey(out, name, index, byIndex); };
    if (frames_.empty()) out = globalName_;
    for (std::size_t i = 0; i < frames_.size(); ++i) {
        const Frame& frame = frames_[i];
        if (i == 0)
            out = frame.key;
        else
            append(frame.key, frame.index, frame.byIndex);
    }
    if (key != nullptr) append(key->name, key->index, key->byIndex);
    return out;
}

zo::string Loader::formatPath_(std::string_view key) const {
    const Key k = key_(key);
    return path_(&k);
}

zo::string Loader::formatPath_(int index) const {
    const Key k = key_(index);
    return path_(&k);
}

void Loader::fail_(const Key& key, const char* operation, std::string_view reason) const {
    zo::string message = path_(&key) + " failed to Lua::Loader::" + operation;
    if (!reason.empty()) {
        message += ": ";
        message += reason;
    }
    throw LoaderException(message);
}

void Loader::missing_(const Key& key, std::string_view expected) const {
    zo::string message = path_(&key) + " is missing: " + zo::string(expected) + " is expected here";
    if (!key.byIndex) message += Text::meantToBe(key.name, getKeys());
    throw LoaderException(message);
}

void Loader::wrongType_(const Key& key, std::string_view expected, int luaType) const {
    throw LoaderException(path_(&key) + " must be " + zo::string(expected) + ", not " + aType(luaType, L_));
}

void Loader::requireTable_(const Key& key, const char* operation) const {
    if (frames_.empty()) fail_(key, operation, "no table is open");
}

// ---- raw access to the current table (the top of the Lua stack) ----

void Loader::pushKey_(const Key& key) const {
    if (key.byIndex)
        lua_pushinteger(L_, key.index);
    else
        lua_pushlstring(L_, key.name.data(), key.name.size());
}

void Loader::pushEntry_(const Key& key) const {
    if (tracking_) noteAsked_(key);
    if (key.byIndex) {
        lua_rawgeti(L_, -1, key.index);
    } else {
        lua_pushlstring(L_, key.name.data(), key.name.size());
        lua_rawget(L_, -2);
    }
}

// Stores the value on top of the stack under `key` in the table at stack index `table`
// and pops it.
void Loader::store_(const Key& key, int table) {
    pushKey_(key);
    lua_pushvalue(L_, -1);
    lua_pushvalue(L_, -3);
    lua_rawset(L_, table);
    detail::recordKey(L_, table, -1);
    lua_pop(L_, 2);
}

// The table on top of the stack becomes the current table.
void Loader::pushFrame_(const Key& key, bool arrayElement) {
    try {
        // An entered table is walked for unread entries even when nothing in it was asked.
        if (tracking_) asked_[lua_topointer(L_, -1)];
        Frame frame;
        if (!key.byIndex) frame.key = key.name;
        frame.index = key.index;
        frame.byIndex = key.byIndex;
        frame.arrayElement = arrayElement;
        frames_.push_back(std::move(frame));
    } catch (...) {
        lua_pop(L_, 1);
        throw;
    }
}

// ---- entering and leaving tables ----

void Loader::enter_(const Key& key, const char* operation) {
    requireTable_(key, operation);
    pushEntry_(key);
    const int type = lua_type(L_, -1);
    if (type != LUA_TTABLE) {
        lua_pop(L_, 1);
        if (type == LUA_TNIL) missing_(key, "a table");
        wrongType_(key, "a table", type);
    }
    if (lua_checkstack(L_, 8) == 0) {
        lua_pop(L_, 1);
        fail_(key, operation, "tables nested too deeply");
    }
    pushFrame_(key, false);
}

bool Loader::tryEnter_(const Key& key) {
    if (frames_.empty()) return false;
    pushEntry_(key);
    if (!lua_istable(L_, -1) || lua_checkstack(L_, 8) == 0) {
        lua_pop(L_, 1);
        return false;
    }
    pushFrame_(key, false);
    return true;
}

void Loader::create_(const Key& key) {
    requireTable_(key, "createSubtable");
    if (lua_checkstack(L_, 8) == 0) fail_(key, "createSubtable", "tables nested too deeply");
    const int table = lua_gettop(L_);
    lua_newtable(L_);
    lua_pushvalue(L_, -1);
    store_(key, table);
    pushFrame_(key, false);
}

void Loader::beginSubtable(std::string_view key) { enter_(key_(key), "beginSubtable"); }
void Loader::beginSubtable(int index) { enter_(key_(index), "beginSubtable"); }
bool Loader::tryBeginSubtable(std::string_view key) { return tryEnter_(key_(key)); }
bool Loader::tryBeginSubtable(int index) { return tryEnter_(key_(index)); }
void Loader::createSubtable(std::string_view key) { create_(key_(key)); }
void Loader::createSubtable(int index) { create_(key_(index)); }

void Loader::endSubtable() {
    if (frames_.size() <= 1)
        throw LoaderException(path_(nullptr) +
                              " failed to Lua::Loader::endSubtable: no subtable is open");
    lua_pop(L_, 1);
    frames_.pop_back();
}

int Loader::depth() const { return frames_.empty() ? 0 : static_cast<int>(frames_.size()) - 1; }

// ---- array walks ----

void Loader::beginArray() {
    if (frames_.empty())
        throw LoaderException(path_(nullptr) + " failed to Lua::Loader::beginArray: no table is open");
    frames_.back().arrayIndex = 0;
}

bool Loader::nextArray() {
    if (frames_.empty())
        throw LoaderException(path_(nullptr) + " failed to Lua::Loader::nextArray: no table is open");
    if (frames_.back().arrayIndex < 0) {
        // On an element of a walk: leave it for the next one.
        const Frame& top = frames_.back();
        if (!top.arrayElement || frames_.size() < 2 ||
            frames_[frames_.size() - 2].arrayIndex != top.index)
            throw LoaderException(path_(nullptr) +
                                  " failed to Lua::Loader::nextArray: no array walk was begun");
        lua_pop(L_, 1);
        frames_.pop_back();
    }
    Frame& array = frames_.back();
    const Key next = key_(array.arrayIndex + 1);
    pushEntry_(next);
    const int type = lua_type(L_, -1);
    if (type == LUA_TNIL) {
        lua_pop(L_, 1);
        array.arrayIndex = -1;
        return false;
    }
    if (type != LUA_TTABLE || lua_checkstack(L_, 8) == 0) {
        lua_pop(L_, 1);
        array.arrayIndex = -1;
        if (type != LUA_TTABLE) wrongType_(next, "a table", type);
        fail_(next, "nextArray", "tables nested too deeply");
    }
    array.arrayIndex = next.index;
    pushFrame_(next, true);
    return true;
}

int Loader::arrayIndex() const {
    if (frames_.empty()) return 0;
    const Frame& top = frames_.back();
    if (top.arrayIndex >= 0) return top.arrayIndex;
    if (top.arrayElement) return top.index;
    return 0;
}

// ---- getters ----

bool Loader::hasEntry_(const Key& key) const {
    if (frames_.empty()) return false;
    pushEntry_(key);
    const bool present = !lua_isnil(L_, -1);
    lua_pop(L_, 1);
    return present;
}

zo::vector<zo::string> Loader::getKeys() const {
    zo::vector<zo::string> keys;
    if (frames_.empty()) return keys;
    lua_pushnil(L_);
    while (lua_next(L_, -2) != 0) {
        lua_pop(L_, 1);
        // Only read a key that is a string already: converting would break the walk.
        if (lua_type(L_, -1) != LUA_TSTRING) continue;
        std::size_t n = 0;
        const char* text = lua_tolstring(L_, -1, &n);
        keys.emplace_back(text, n);
    }
    std::sort(keys.begin(), keys.end());
    return keys;
}

bool Loader::hasEntry(std::string_view key) const { return hasEntry_(key_(key)); }
bool Loader::hasEntry(int index) const { return hasEntry_(key_(index)); }

// A number that must be whole and within [low, high].
double Loader::getWhole_(const Key& key, const char* operation, double low, double high) const {
    requireTable_(key, operation);
    pushEntry_(key);
    const int type = lua_type(L_, -1);
    const double value = type == LUA_TNUMBER ? lua_tonumber(L_, -1) : 0.0;
    lua_pop(L_, 1);
    if (type == LUA_TNIL) missing_(key, "a whole number");
    if (type != LUA_TNUMBER) wrongType_(key, "a whole number", type);
    if (!std::isfinite(value) || value != std::floor(value))
        throw LoaderException(path_(&key) + " must be a whole number, got " + numberText(value));
    if (value < low || value > high)
        throw LoaderException(path_(&key) + " must be from " + numberText(low) + " to " + numberText(high) +
                              ", got " + numberText(value));
    return value;
}

int Loader::getInt(std::string_view key) const {
    return static_cast<int>(getWhole_(key_(key), "getInt", -2147483648.0, 2147483647.0));
}

int Loader::getInt(int index) const {
    return static_cast<int>(getWhole_(key_(index), "getInt", -2147483648.0, 2147483647.0));
}

unsigned Loader::getUINT32(std::string_view key) const {
    return static_cast<unsigned>(getWhole_(key_(key), "getUINT32", 0.0, 4294967295.0));
}

double Loader::getDouble_(const Key& key) const {
    requireTable_(key, "getDouble");
    pushEntry_(key);
    const int type = lua_type(L_, -1);
    const double value = type == LUA_TNUMBER ? lua_tonumber(L_, -1) : 0.0;
    lua_pop(L_, 1);
    if (type == LUA_TNIL) missing_(key, "a number");
    if (type != LUA_TNUMBER) wrongType_(key, "a number", type);
    return value;
}

double Loader::getDouble(std::string_view key) const { return getDouble_(key_(key)); }
double Loader::getDouble(int index) const { return getDouble_(key_(index)); }

bool Loader::getBoolean(std::string_view key) const {
    const Key k = key_(key);
    requireTable_(k, "getBoolean");
    pushEntry_(k);
    const int type = lua_type(L_, -1);
    const bool value = lua_toboolean(L_, -1) != 0;
    lua_pop(L_, 1);
    if (type == LUA_TNIL) missing_(k, "true or false");
    if (type != LUA_TBOOLEAN) wrongType_(k, "true or false", type);
    return value;
}

zo::string Loader::getString(std::string_view key) const {
    zo::string value;
    if (tryGetString(key, &value)) return value;
    // The form of this message is the one hosts know; what follows it says what to write.
    const Key k = key_(key);
    requireTable_(k, "getString");
    pushEntry_(k);
    const int type = lua_type(L_, -1);
    lua_pop(L_, 1);
    if (type == LUA_TNIL)
        fail_(k, "getString", "missing, a string is expected here" + Text::meantToBe(key, getKeys()));
    fail_(k, "getString", "expected a string, not " + aType(type, L_));
}

bool Loader::tryGetString(std::string_view key, zo::string* out) const {
    if (frames_.empty()) return false;
    const StackGuard guard(L_);
    pushEntry_(key_(key));
    if (lua_type(L_, -1) != LUA_TSTRING) return false;
    std::size_t length = 0;
    const char* text = lua_tolstring(L_, -1, &length);
    out->assign(text, length);
    return true;
}

bool Loader::tryGetVector(std::string_view key, Vec3d* out) const {
    if (frames_.empty()) return false;
    const StackGuard guard(L_);
    pushEntry_(key_(key));
    if (!lua_istable(L_, -1)) return false;
    double components[3];
    for (int i = 0; i < 3; ++i) {
        lua_rawgeti(L_, -1, i + 1);
        if (lua_type(L_, -1) != LUA_TNUMBER) return false;
        components[i] = lua_tonumber(L_, -1);
        lua_pop(L_, 1);
    }
    *out = Vec3d(components[0], components[1], components[2]);
    return true;
}

// ---- setters ----

void Loader::setInt(std::string_view key, int value) {
    const Key k = key_(key);
    requireTable_(k, "setInt");
    lua_pushinteger(L_, value);
    store_(k, lua_gettop(L_) - 1);
}

void Loader::setInt(int index, int value) {
    const Key k = key_(index);
    requireTable_(k, "setInt");
    lua_pushinteger(L_, value);
    store_(k, lua_gettop(L_) - 1);
}

void Loader::setUINT32(std::string_view key, unsigned value) {
    const Key k = key_(key);
    requireTable_(k, "setUINT32");
    lua_pushnumber(L_, static_cast<double>(value));
    store_(k, lua_gettop(L_) - 1);
}

void Loader::setDouble(std::string_view key, double value) {
    const Key k = key_(key);
    requireTable_(k, "setDouble");
    lua_pushnumber(L_, value);
    store_(k, lua_gettop(L_) - 1);
}

void Loader::setDouble(int index, double value) {
    const Key k = key_(index);
    requireTable_(k, "setDouble");
    lua_pushnumber(L_, value);
    store_(k, lua_gettop(L_) - 1);
}

void Loader::setBoolean(std::string_view key, bool value) {
    const Key k = key_(key);
    requireTable_(k, "setBoolean");
    lua_pushboolean(L_, value ? 1 : 0);
    store_(k, lua_gettop(L_) - 1);
}

void Loader::setString(std::string_view key, std::string_view value) {
    const Key k = key_(key);
    requireTable_(k, "setString");
    lua_pushlstring(L_, value.data(), value.size());
    store_(k, lua_gettop(L_) - 1);
}

void Loader::setString(int index, std::string_view value) {
    const Key k = key_(index);
    requireTable_(k, "setString");
    lua_pushlstring(L_, value.data(), value.size());
    store_(k, lua_gettop(L_) - 1);
}

void Loader::setVector(std::string_view key, const Vec3d& value) {
    const Key k = key_(key);
    requireTable_(k, "setVector");
    lua_createtable(L_, 3, 0);
    for (int i = 0; i < 3; ++i) {
        lua_pushnumber(L_, value[i]);
        lua_rawseti(L_, -2, i + 1);
    }
    store_(k, lua_gettop(L_) - 1);
}

}  // namespace Lua

namespace Lua {

// ---- read tracking ----

void Loader::trackReads(bool on) {
    tracking_ = on;
    if (!on) asked_.clear();
}

void Loader::noteAsked_(const Key& key) const {
    Asked& asked = asked_[lua_topointer(L_, -1)];
    if (key.byIndex) asked.indices.push_back(key.index);
    else asked.names.emplace_back(key.name);
}

namespace {

struct UnreadWalk {
    lua_State* L;
    const std::unordered_map<const void*, zo::vector<zo::string>>& names;
    const std::unordered_map<const void*, zo::vector<int>>& indices;
    zo::vector<const void*> visiting;
    zo::vector<Loader::UnreadEntry> out;

    // Walks the table on the stack top, whose path is `path`.
    void walk(const zo::string& path) {
        const void* table = lua_topointer(L, -1);
        const auto asked = names.find(table);
        if (asked == names.end() || lua_checkstack(L, 4) == 0) return;
        if (std::find(visiting.begin(), visiting.end(), table) != visiting.end()) return;
        visiting.push_back(table);
        const zo::vector<int>& askedIndices = indices.at(table);
        // Keys first, sorted, so that the report does not depend on Lua's hash order.
        struct Child {
            zo::string name;
            int index = 0;
            bool byIndex = false;
        };
        zo::vector<Child> children;
        lua_pushnil(L);
        while (lua_next(L, -2) != 0) {
            lua_pop(L, 1);
            if (lua_type(L, -1) == LUA_TSTRING) {
                std::size_t n = 0;
                const char* text = lua_tolstring(L, -1, &n);
                children.push_back(Child{zo::string(text, n), 0, false});
            } else if (lua_type(L, -1) == LUA_TNUMBER) {
                const double v = lua_tonumber(L, -1);
                if (v == std::floor(v) && v >= -2147483648.0 && v <= 2147483647.0)
                    children.push_back(Child{{}, static_cast<int>(v), true});
            }
        }
        std::sort(children.begin(), children.end(), [](const Child& a, const Child& b) {
            if (a.byIndex != b.byIndex) return a.byIndex;
            return a.byIndex ? a.index < b.index : a.name < b.name;
        });
        for (const Child& c : children) {
            zo::string childPath = path;
            appendKey(childPath, c.name, c.index, c.byIndex);
            if (c.byIndex) lua_rawgeti(L, -1, c.index);
            else {
                lua_pushlstring(L, c.name.data(), c.name.size());
                lua_rawget(L, -2);
            }
            const bool wasAsked = c.byIndex
                                      ? std::binary_search(askedIndices.begin(), askedIndices.end(), c.index)
                                      : std::binary_search(asked->second.begin(), asked->second.end(), c.name);
            if (wasAsked) {
                if (lua_istable(L, -1)) walk(childPath);
            } else {
                out.push_back(Loader::UnreadEntry{childPath, path,
                                                  c.byIndex ? "[" + std::to_string(c.index) + "]" : c.name,
                                                  lua_typename(L, lua_type(L, -1)), asked->second});
            }
            lua_pop(L, 1);
        }
        visiting.pop_back();
    }
};

}  // namespace

zo::vector<Loader::UnreadEntry> Loader::getUnreadEntries() const {
    if (frames_.empty()) return {};
    // Per table: the names and the indices asked for, sorted and unique.
    std::unordered_map<const void*, zo::vector<zo::string>> names;
    std::unordered_map<const void*, zo::vector<int>> indices;
    for (const auto& [table, asked] : asked_) {
        zo::vector<zo::string> n = asked.names;
        std::sort(n.begin(), n.end());
        n.erase(std::unique(n.begin(), n.end()), n.end());
        names.emplace(table, std::move(n));
        zo::vector<int> i = asked.indices;
        std::sort(i.begin(), i.end());
        i.erase(std::unique(i.begin(), i.end()), i.end());
        indices.emplace(table, std::move(i));
    }
    const StackGuard guard(L_);
    lua_pushvalue(L_, 1);
    UnreadWalk walk{L_, names, indices, {}, {}};
    walk.walk(frames_.front().key);
    return std::move(walk.out);
}

}  // namespace Lua
