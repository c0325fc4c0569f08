#pragma once
// The design-time half of every block: name, typed leads, parameters, wire offsets once
// the scheme is laid out, its entry in the scheme file, and the factory of its runtime
// block. Descriptors are the model: once a scheme is analysed, a run never writes to them.
#include <cstdint>
#include <memory>
#include <string_view>

#include "vandrel/core/BlockParameter.h"
#include "vandrel/core/LeadTypes.h"
#include "vandrel/platform/String.h"

namespace Lua {
class Loader;
}
class wBlockSerializer;
class wSimulationSystemScheme;
class wSimulationSystem;
class wSimulationBlockStateless;
class wSimulationBlockDiff;
class wSimulationBlockDisc;

// Kinds of block, as asked by isOfType. A subsystem answers both 2 and 3.
enum weBlockType : std::int32_t {
    BLOCK_STATELESS = 0,
    BLOCK_DIFF = 1,
    BLOCK_DISCRETE = 2,
    BLOCK_SUBSYSTEM = 3,
};

class wSimulationBlockDescriptor {
public:
    virtual ~wSimulationBlockDescriptor();

    // Registration key in the factory and "__type" in files, e.g. "wBlockANDDescriptor".
    virtual const zo::string& getClassName() const = 0;
    // Short display name, e.g. "Sum (dbl)".
    virtual const zo::string& getBlockTypeName() const = 0;
    virtual bool isOfType(weBlockType type) const;
    // Reads or writes the block's entry; see the .cpp for the layout of the entry.
    virtual void serialize(wBlockSerializer& s);
    // A new copy of the same class, owned by the caller.
    virtual wSimulationBlockDescriptor* clone() const = 0;

    virtual const wLeadList& getInputWires() const { return getInputWires_(); }
    virtual const wLeadList& getOutputWires() const { return getOutputWires_(); }
    virtual const wLeadList& getInputPorts() const { return getInputPorts_(); }
    virtual const wLeadList& getOutputPorts() const { return getOutputPorts_(); }

    // References to the block's parameters: editing a returned value edits the block.
    virtual wParameterList getParametersList();
    // Logs the block and its wire offsets at level 3 and above.
    virtual void debug_dump() const;
    // The scheme nested in a subsystem block; null for every other block.
    virtual wSimulationSystemScheme* getNestedScheme() const { return nullptr; }
    // Bytes the runtime block made from this descriptor will allocate for its own use,
    // as chosen by the scheme file (buffers sized by parameters), so that a load can
    // refuse what goes over the host's limits (see ResourceLimits.h). Small fixed-size
    // members need not be counted; 0 by default.
    virtual std::uint64_t getRuntimeAllocationSize() const { return 0; }

    const zo::string& getName() const { return name_; }
    void setName(const zo::string& name) { name_ = name; }
    wSimulationSystemScheme* getScheme() const { return scheme_; }
    void setScheme(wSimulationSystemScheme* scheme) { scheme_ = scheme; }

    // Offsets of the wires in the data area, one per wire in lead order; copied in.
    void setInputWireOffsets(const int* offsets);
    void setOutputWireOffsets(const int* offsets);
    // No bounds check: i must be a valid wire index and the offsets must have been set.
    int getInputWireOffset(int i) const { return inputWireOffsets_[static_cast<std::size_t>(i)]; }
    int getOutputWireOffset(int i) const { return outputWireOffsets_[static_cast<std::size_t>(i)]; }
    bool hasWireOffsets() const { return !inputWireOffsets_.empty() || !outputWireOffsets_.empty(); }

    // Lead queries; the flags are always (isInput, isPort).
    const wLeadList& getLeads(bool isInput, bool isPort) const;
    bool hasLead(bool isInput, bool isPort, std::string_view name) const;
    // The lead must exist (test with hasLead first).
    eLeadType getLeadType(bool isInput, bool isPort, std::string_view name) const;
    // Position of the first lead of that name, or -1; with mustExist a missing lead throws
    // "Block <name or type name> has no <input|output> <port|wire> <lead>".
    int getLeadIndex(bool isInput, bool isPort, std::string_view name, bool mustExist) const;
    bool hasInputPort(std::string_view n) const { return hasLead(true, true, n); }
    bool hasOutputPort(std::string_view n) const { return hasLead(false, true, n); }
    bool hasInputWire(std::string_view n) const { return hasLead(true, false, n); }
    bool hasOutputWire(std::string_view n) const { return hasLead(false, false, n); }
    eLeadType getInputPortType(std::string_view n) const { return getLeadType(true, true, n); }
    eLeadType getOutputPortType(std::string_view n) const { return getLeadType(false, true, n); }
    eLeadType getInputType(std::string_view n) const { return getLeadType(true, false, n); }
    eLeadType getOutputType(std::string_view n) const { return getLeadType(false, false, n); }

protected:
    wSimulationBlockDescriptor() = default;
    // Copies name, scheme and the offsets (so a copy is laid out like its source).
    wSimulationBlockDescriptor(const wSimulationBlockDescriptor&) = default;
    wSimulationBlockDescriptor& operator=(const wSimulationBlockDescriptor&) = default;

    // The block class's own lead lists; the root's are empty.
    virtual const wLeadList& getInputWires_() const;
    virtual const wLeadList& getOutputWires_() const;
    virtual const wLeadList& getInputPorts_() const;
    virtual const wLeadList& getOutputPorts_() const;

    // An empty lead list shared by everyone.
    static const wLeadList& emptyLeads();

private:
    zo::string name_;
    wSimulationSystemScheme* scheme_ = nullptr;
    zo::vector<int> inputWireOffsets_;   // byte offset per input wire
    zo::vector<int> outputWireOffsets_;  // byte offset per output wire
};

class wSimulationBlockStatelessDescriptor : public wSimulationBlockDescriptor {
public:
    bool isOfType(weBlockType type) const override { return type == BLOCK_STATELESS; }
    // A new runtime block bound to this descriptor, owned by the caller.
    virtual wSimulationBlockStateless* create(Lua::Loader* loader) const = 0;

protected:
    wSimulationBlockStatelessDescriptor() = default;
    wSimulationBlockStatelessDescriptor(const wSimulationBlockStatelessDescriptor&) = default;
    wSimulationBlockStatelessDescriptor& operator=(const wSimulationBlockStatelessDescriptor&) = default;
};

class wSimulationBlockDiscDescriptor : public wSimulationBlockDescriptor {
public:
    bool isOfType(weBlockType type) const override { return type == BLOCK_DISCRETE; }
    // A new runtime block bound to this descriptor, owned by the caller.
    virtual wSimulationBlockDisc* create(Lua::Loader* loader, wSimulationSystem* system) const = 0;

protected:
    wSimulationBlockDiscDescriptor() = default;
    wSimulationBlockDiscDescriptor(const wSimulationBlockDiscDescriptor&) = default;
    wSimulationBlockDiscDescriptor& operator=(const wSimulationBlockDiscDescriptor&) = default;
};

// Continuous blocks: every output wire is a state, and gets an input wire "<name>.initial"
// of the same type, appended after the class's own inputs, from which a reset loads it.
class wSimulationBlockDiffDescriptor : public wSimulationBlockDescriptor {
public:
    bool isOfType(weBlockType type) const override { return type == BLOCK_DIFF; }
    const wLeadList& getInputWires() const override { return getCombinedInputWires_(); }
    // A new runtime block bound to this descriptor, owned by the caller.
    virtual wSimulationBlockDiff* create(Lua::Loader* loader) const = 0;

    // The class's inputs followed by one "<output>.initial" wire per output.
    static wLeadList combineInputWires(const wLeadList& inputs, const wLeadList& outputs);

protected:
    wSimulationBlockDiffDescriptor() = default;
    wSimulationBlockDiffDescriptor(const wSimulationBlockDiffDescriptor&) = default;
    wSimulationBlockDiffDescriptor& operator=(const wSimulationBlockDiffDescriptor&) = default;
    // The combined list, built once per class: derive through wDiffDescriptorBase.
    virtual const wLeadList& getCombinedInputWires_() const = 0;
};

// Gives each continuous block class D its own combined input list, built on first use.
template <class D>
class wDiffDescriptorBase : public wSimulationBlockDiffDescriptor {
protected:
    const wLeadList& getCombinedInputWires_() const override {
        static const wLeadList combined = combineInputWires(getInputWires_(), getOutputWires_());
        return combined;
    }
};

// The per-class boilerplate of a concrete descriptor D deriving from Base: D provides the
// static getBlockClassNameS() and getBlockTypeNameS(); this adds the virtual accessors,
// clone through D's copy constructor, and the factory's creator __create_instance.
template <class D, class Base>
class wDescriptorImpl : public Base {
public:
    const zo::string& getClassName() const override { return D::getBlockClassNameS(); }
    const zo::string& getBlockTypeName() const override { return D::getBlockTypeNameS(); }
    wSimulationBlockDescriptor* clone() const override { return new D(static_cast<const D&>(*this)); }
    // A new, unnamed descriptor of class D, owned by the caller.
    static D* __create_instance() { return new D(); }
};
