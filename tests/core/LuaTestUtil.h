#pragma once
// Round trip through Lua source: what a test wrote through a Loader, as a file would
// hold it, read back by a fresh Loader entered at the same global table.
#include <memory>

#include "vandrel/platform/LuaLoader.h"
#include "vandrel/platform/LuaSerializer.h"

namespace coretest {

inline std::unique_ptr<Lua::Loader> reread(const Lua::Loader& written, const zo::string& global) {
    auto loader = std::make_unique<Lua::Loader>();
    loader->loadString(Lua::Serializer::toSource(written.getState(), global), "reread", global);
    return loader;
}

inline std::unique_ptr<Lua::Loader> loaderFor(const char* source, const zo::string& global) {
    auto loader = std::make_unique<Lua::Loader>();
    loader->loadString(source, "test", global);
    return loader;
}

}  // namespace coretest
