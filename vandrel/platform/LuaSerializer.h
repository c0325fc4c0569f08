#pragma once
// Lua::Serializer: writes a global table of a Lua state as Lua source.
//
// The output is deterministic and meant to be kept in version control: keys come in the
// order they were written through Lua::Loader (tables built elsewhere: array part first,
// then the other keys sorted), one entry per line with two-space indentation, small
// tables of plain values on one line. Strings are escaped so that any byte string reads
// back unchanged; doubles are written in the shortest form that reads back bit-exact
// (whole numbers as integers, -0 and infinities as expressions that evaluate exactly).
#include <string_view>

#include "vandrel/platform/String.h"

struct lua_State;

namespace Lua {

class Serializer {
public:
    explicit Serializer(zo::string fileName) : fileName_(std::move(fileName)) {}

    // Writes `globalName = { ... }` to the file; throws LoaderException when the global
    // is not a table or the file cannot be written.
    void serialize(lua_State* L, const zo::string& globalName) const;

    // The same text, returned instead of written.
    static zo::string toSource(lua_State* L, const zo::string& globalName);

private:
    zo::string fileName_;
};

}  // namespace Lua
