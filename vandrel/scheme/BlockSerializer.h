#pragma once
// Block serializers: what a descriptor's serialize() talks to. One serialize() serves
// reading and writing; the serializer decides what reading means:
//   wEditorBlockSerializer  reads or writes files faithfully (undefined stays undefined)
//   wRuntimeBlockSerializer reads for running: every parameter gets a concrete value, from
//                           the file or else from the overrides table, or the load fails
//                           with "Parameter not defined: <block>.<parameter>"
#include <memory>
#include <set>
#include <utility>

#include "vandrel/core/BlockParameter.h"
#include "vandrel/platform/String.h"

namespace Lua {
class Loader;
}
class wSimulationBlockDescriptor;

class wBlockSerializer {
public:
    virtual ~wBlockSerializer() = default;
    // The loader, positioned on the current block's table.
    virtual Lua::Loader* getLoader() = 0;
    // The overrides loader (positioned on the current block's overrides), or null.
    virtual Lua::Loader* getOverrides() = 0;
    virtual bool isReading() const = 0;
    virtual bool isRuntime() const = 0;
    // Reads one block entry and builds its descriptor through the factory; the new
    // descriptor is the caller's.
    virtual wSimulationBlockDescriptor* createBlock() = 0;
    virtual void beginParameters() = 0;
    virtual void serializeParameter(wBlockParameterContainer& p) = 0;
    virtual void endParameters() = 0;

    // Directory of the scheme file being read (ends with a separator), for files that a
    // block refers to relative to its scheme.
    const zo::string& getDirectory();
};

class wEditorBlockSerializer : public wBlockSerializer {
public:
    wEditorBlockSerializer(Lua::Loader* loader, bool reading) : loader_(loader), reading_(reading) {}
    Lua::Loader* getLoader() override { return loader_; }
    Lua::Loader* getOverrides() override { return nullptr; }
    bool isReading() const override { return reading_; }
    bool isRuntime() const override { return false; }
    wSimulationBlockDescriptor* createBlock() override;
    void beginParameters() override;
    void serializeParameter(wBlockParameterContainer& p) override;
    void endParameters() override;

private:
    Lua::Loader* loader_;  // not owned
    bool reading_;
};

class wRuntimeBlockSerializer : public wBlockSerializer {
public:
    wRuntimeBlockSerializer(Lua::Loader* loader, Lua::Loader* overrides) : loader_(loader), overrides_(overrides) {}
    Lua::Loader* getLoader() override { return loader_; }
    Lua::Loader* getOverrides() override { return overrides_; }
    bool isReading() const override { return true; }
    bool isRuntime() const override { return true; }
    wSimulationBlockDescriptor* createBlock() override;
    void beginParameters() override;
    void serializeParameter(wBlockParameterContainer& p) override;
    void endParameters() override;

    // The (block, parameter) entries of the overrides that gave a parameter its value.
    const std::set<std::pair<zo::string, zo::string>>& getUsedOverrides() const { return used_; }

private:
    Lua::Loader* loader_;     // not owned
    Lua::Loader* overrides_;  // not owned, may be null
    zo::string blockName_;    // block being read, for messages
    zo::string overridesPath_;  // where the overrides of the block being read would be, for messages
    std::set<std::pair<zo::string, zo::string>> used_;
};
