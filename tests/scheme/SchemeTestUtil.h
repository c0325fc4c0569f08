#pragma once
// Helpers for the scheme tests: a subsystem-like block nesting a scheme, block adders.
#include <memory>
#include <string>

#include "support/TestBlocks.h"
#include "vandrel/runtime/SimulationException.h"
#include "vandrel/scheme/SimulationSystemScheme.h"

namespace schemetest {

// A discrete block that owns a scheme and shows that scheme's leads turned inside out:
// its input wires are the nested I/O block's output wires (the nested scheme's inputs),
// its output wires the nested I/O block's input wires. Enough for the layout, not runnable.
class NestingBlock : public wDescriptorImpl<NestingBlock, wSimulationBlockDiscDescriptor> {
public:
    NestingBlock() : nested_(std::make_unique<wSimulationSystemScheme>()) {}
    NestingBlock(const NestingBlock& other)
        : wDescriptorImpl<NestingBlock, wSimulationBlockDiscDescriptor>(other),
          nested_(std::make_unique<wSimulationSystemScheme>(*other.nested_)) {}

    static const zo::string& getBlockClassNameS() {
        static const zo::string s = "TestNesting";
        return s;
    }
    static const zo::string& getBlockTypeNameS() { return getBlockClassNameS(); }

    bool isOfType(weBlockType t) const override { return t == BLOCK_DISCRETE || t == BLOCK_SUBSYSTEM; }
    wSimulationSystemScheme* getNestedScheme() const override { return nested_.get(); }
    std::unique_ptr<wSimulationBlockDisc> create(Lua::Loader*, wSimulationSystem*) const override {
        throw wSimulationException("TestNesting is not runnable");
    }

protected:
    const wLeadList& getInputWires_() const override { return nested_->getIOLeads(false, false); }
    const wLeadList& getOutputWires_() const override { return nested_->getIOLeads(true, false); }
    const wLeadList& getInputPorts_() const override { return nested_->getIOLeads(false, true); }
    const wLeadList& getOutputPorts_() const override { return nested_->getIOLeads(true, true); }

private:
    std::unique_ptr<wSimulationSystemScheme> nested_;
};

// Adds a new block of class D named `name` to `s`.
template <class D>
D* add(wSimulationSystemScheme& s, const std::string& name) {
    auto block = std::make_unique<D>();
    block->setName(name);
    return static_cast<D*>(s.addBlock(std::move(block)));
}

// Wire and port connections; null stands for the scheme's I/O block.
inline void wire(wSimulationSystemScheme& s, wSimulationBlockDescriptor* from, const std::string& out,
                 wSimulationBlockDescriptor* to, const std::string& in) {
    s.addConnection({from ? from : &s.getIOBlock(), to ? to : &s.getIOBlock(), out, in, false});
}
inline void port(wSimulationSystemScheme& s, wSimulationBlockDescriptor* from, const std::string& out,
                 wSimulationBlockDescriptor* to, const std::string& in) {
    s.addConnection({from ? from : &s.getIOBlock(), to ? to : &s.getIOBlock(), out, in, true});
}

}  // namespace schemetest
