#pragma once
// Lua::Loader: a cursor over nested Lua tables, used to read scheme files and to build
// tables that Lua::Serializer writes back out as Lua source.
//
// Files read through the loader are data, not programs: they run in an environment that
// holds nothing but `math`, binary chunks are refused, and a file that runs too long or
// allocates too much is stopped. Every failure is a Lua::LoaderException whose message
// names the place in the file, e.g. `simulation_scheme.blocks[3].__name failed to ...`.
//
// The cursor is a stack of tables: begin/create enter a table, endSubtable leaves it.
// Getters and setters work on the table at the top. Integer keys are Lua's 1-based keys.
// Keys written through the setters remember their order, so the serializer writes them
// back in the order they were written.
#include <string_view>
#include <unordered_map>

#include "vandrel/platform/Exception.h"
#include "vandrel/platform/Math.h"
#include "vandrel/platform/String.h"

struct lua_State;

namespace Lua {

class LoaderException : public Exception {
public:
    using Exception::Exception;
};

class Loader {
public:
    Loader();
    ~Loader();
    Loader(const Loader&) = delete;
    Loader& operator=(const Loader&) = delete;

    // Reads `fileName` in the data sandbox and enters its global table `globalName`.
    // Records the file's directory (see getDirectory).
    void load(const zo::string& fileName, const zo::string& globalName);
    // The same for Lua source held in memory; `chunkName` stands for the file in messages.
    void loadString(std::string_view source, const zo::string& chunkName,
                    const zo::string& globalName);
    // Starts a new, empty global table `name` and enters it (for writing).
    void createGlobalTable(const zo::string& name);

    // Directory of the loaded file, ending with a path separator ("./" for a bare file
    // name), so that directory + file name is a path; empty when nothing was loaded.
    const zo::string& getDirectory() const { return directory_; }
    const zo::string& getFileName() const { return fileName_; }
    const zo::string& getGlobalName() const { return globalName_; }

    // Entering and leaving tables. begin* throw when the entry is missing or no table;
    // tryBegin* return false instead (and stay where they were); create* make a new table
    // (replacing any value under the key) and enter it.
    void beginSubtable(std::string_view key);
    void beginSubtable(int index);
    bool tryBeginSubtable(std::string_view key);
    bool tryBeginSubtable(int index);
    void createSubtable(std::string_view key);
    void createSubtable(int index);
    void endSubtable();
    // Number of tables entered below the global table (0 at the global table).
    int depth() const;

    // Array walk over the current table: after beginArray, each nextArray leaves the
    // previous element and enters element 1, 2, ... (each must be a table); it returns
    // false, back on the array itself, when the next index has no entry.
    void beginArray();
    bool nextArray();
    // Index (1-based) of the element nextArray last entered, 0 before the first.
    int arrayIndex() const;

    bool hasEntry(std::string_view key) const;
    bool hasEntry(int index) const;
    // The string keys of the current table, sorted; keys of other types are left out.
    zo::vector<zo::string> getKeys() const;

    // Typed getters: throw LoaderException when the entry is missing or of another type,
    // saying what is expected there ("<path> must be a number, not a string"; for strings
    // "<path> failed to Lua::Loader::getString: ..."). Integers must be whole numbers in range.
    int getInt(std::string_view key) const;
    int getInt(int index) const;
    unsigned getUINT32(std::string_view key) const;
    double getDouble(std::string_view key) const;
    double getDouble(int index) const;
    bool getBoolean(std::string_view key) const;
    zo::string getString(std::string_view key) const;
    // Soft getters: false (value untouched) when the entry is missing or ill-typed.
    bool tryGetString(std::string_view key, zo::string* out) const;
    bool tryGetVector(std::string_view key, Vec3d* out) const;  // { x, y, z }

    void setInt(std::string_view key, int value);
    void setInt(int index, int value);
    void setUINT32(std::string_view key, unsigned value);
    void setDouble(std::string_view key, double value);
    void setDouble(int index, double value);
    void setBoolean(std::string_view key, bool value);
    void setString(std::string_view key, std::string_view value);
    void setString(int index, std::string_view value);
    void setVector(std::string_view key, const Vec3d& value);

    // Full path of an entry of the current table, for messages:
    // simulation_scheme.blocks[3].__name, or ...["odd key"] for keys that are not names.
    zo::string formatPath_(std::string_view key) const;
    zo::string formatPath_(int index) const;
    zo::string formatPath(std::string_view key) const { return formatPath_(key); }
    zo::string formatPath(int index) const { return formatPath_(index); }

    // The Lua state that holds the tables (globals include the loaded/created table).
    lua_State* getState() const { return L_; }

    // Read tracking, for reporting what a load never looked at: while on, the loader
    // remembers every key asked for (read, probed or entered) in every table it enters.
    // A new load or global table forgets what was remembered.
    void trackReads(bool on);
    struct UnreadEntry {
        zo::string path;               // full path of the entry, as formatPath gives it
        zo::string parent;             // path of the table it is in
        zo::string key;                // the key itself (a name, or "[n]" for an index)
        zo::string valueType;          // Lua type name of its value
        zo::vector<zo::string> asked;  // names asked for in the same table, sorted
    };
    // Entries of the tables entered while tracking that were never asked for, below the
    // global table, in path order. Only string keys and whole-number keys are listed.
    zo::vector<UnreadEntry> getUnreadEntries() const;

private:
    // One entered table: the key or index it was reached by (for paths) and the state
    // of an array walk over it (-1: none; 0: begun; n: element n entered). The tables
    // themselves sit on the Lua stack, frame i at stack index i + 1.
    struct Frame {
        zo::string key;
        int index = 0;
        int arrayIndex = -1;
        bool byIndex = false;       // reached by `index` rather than by `key`
        bool arrayElement = false;  // entered by nextArray
    };
    // A key of the current table: a string or a Lua integer key.
    struct Key {
        std::string_view name;
        int index = 0;
        bool byIndex = false;
    };
    lua_State* L_ = nullptr;
    zo::string fileName_;
    zo::string directory_;
    zo::string globalName_;
    zo::vector<Frame> frames_;
    // Keys asked for per table (by the table's address), while tracking reads.
    struct Asked {
        zo::vector<zo::string> names;
        zo::vector<int> indices;
    };
    bool tracking_ = false;
    mutable std::unordered_map<const void*, Asked> asked_;

    void reset_(const zo::string& globalName);
    void runChunk_(std::string_view source, const zo::string& chunkName);

    static Key key_(std::string_view name) { return Key{name, 0, false}; }
    static Key key_(int index) { return Key{{}, index, true}; }
    void requireTable_(const Key& key, const char* operation) const;
    [[noreturn]] void fail_(const Key& key, const char* operation, std::string_view reason) const;
    // "<path> is missing: <expected> is expected here", with a present key it may mean.
    [[noreturn]] void missing_(const Key& key, std::string_view expected) const;
    // "<path> must be <expected>, not a <type>" (the type is of the value on the stack top).
    [[noreturn]] void wrongType_(const Key& key, std::string_view expected, int luaType) const;
    void noteAsked_(const Key& key) const;
    zo::string path_(const Key* key) const;
    void pushKey_(const Key& key) const;
    void pushEntry_(const Key& key) const;
    void pushFrame_(const Key& key, bool arrayElement);
    void enter_(const Key& key, const char* operation);
    bool tryEnter_(const Key& key);
    void create_(const Key& key);
    void store_(const Key& key, int table);
    double getWhole_(const Key& key, const char* operation, double low, double high) const;
    double getDouble_(const Key& key) const;
    bool hasEntry_(const Key& key) const;
};

}  // namespace Lua
