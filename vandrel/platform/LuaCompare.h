#pragma once
// Compares what two Lua tables hold, for tools that rewrite a file and must not lose
// anything of it silently: every entry of the original, at any depth, must be in the
// rewritten table with an equal value.
#include <cstddef>

#include "vandrel/platform/LuaLoader.h"
#include "vandrel/platform/String.h"

namespace Lua {

// One entry of the original that the rewritten table lacks or holds differently.
struct LostEntry {
    zo::string path;    // simulation_scheme.blocks[2].__parameters.gian
    zo::string before;  // the original value as Lua text ("2", "\"x\"", "a table", "a function")
    zo::string after;   // the rewritten value, or empty when the entry is missing
};

// The entries of the global table `name` of `original` that `rewritten` does not keep,
// in a stable order (array parts by index, then the other keys sorted), at most
// `maxReport` of them. Numbers compare by value, strings by bytes; a table must be a
// table holding (at least) the same entries. A table met again inside itself counts as
// lost, as does anything past a depth of 200 or a walk of more than a million entries.
zo::vector<LostEntry> findLostEntries(const Loader& original, const Loader& rewritten, const zo::string& name,
                                      std::size_t maxReport = 10);

}  // namespace Lua
