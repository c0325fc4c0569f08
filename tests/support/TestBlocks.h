#pragma once
// Small blocks for tests of the scheme and runtime machinery, one of each kind:
//   "TestGain"        stateless: out = k * in (double wires), parameter "k"
//   "TestAdd"         stateless: out = a + b (double wires)
//   "TestIntegrator"  continuous: x' = in (double), plus the implicit x.initial input
//   "TestCounter"     discrete: count (int wire) += 1 per step, registered state,
//                     parameter "dt" (the returned delay; -1 stops it)
//   "TestSampler"     discrete: out = in at each step (double wires), parameter "dt"
//   "TestTrigger"     stateless, ports only: bool "in" -> pushes !in on "out", counts arrivals
//   "TestVecSource"   discrete: writes parameter "v" (Vec3d) to wire "v" once, no state
//   "TestNesting"     subsystem-like: owns a scheme and shows its leads turned inside out
// Every block but the last logs its calls ("<name>@<t>") into a process-wide trace.
#include <memory>
#include <string>
#include <vector>

#include "vandrel/core/Ports.h"
#include "vandrel/core/SimulationBlock.h"
#include "vandrel/core/SimulationBlockDescriptor.h"
#include "vandrel/runtime/SimulationException.h"
#include "vandrel/scheme/SimulationSystemScheme.h"

namespace testblocks {

// Registers the test classes in the block factory (once per process).
void registerAll();

std::vector<std::string>& trace();
inline void clearTrace() { trace().clear(); }

#define TESTBLOCK_NAMES(key)                  \
    static const zo::string& getBlockClassNameS() { \
        static const zo::string s = key;      \
        return s;                             \
    }                                         \
    static const zo::string& getBlockTypeNameS() { return getBlockClassNameS(); }

class GainDescriptor : public wDescriptorImpl<GainDescriptor, wSimulationBlockStatelessDescriptor> {
public:
    TESTBLOCK_NAMES("TestGain")
    std::unique_ptr<wSimulationBlockStateless> create(Lua::Loader*) const override;
    wParameterList getParametersList() override { return {parameterRef("k", k)}; }
    wBlockParameterProxy<double> k{1.0};

protected:
    const wLeadList& getInputWires_() const override;
    const wLeadList& getOutputWires_() const override;
};

class AddDescriptor : public wDescriptorImpl<AddDescriptor, wSimulationBlockStatelessDescriptor> {
public:
    TESTBLOCK_NAMES("TestAdd")
    std::unique_ptr<wSimulationBlockStateless> create(Lua::Loader*) const override;

protected:
    const wLeadList& getInputWires_() const override;
    const wLeadList& getOutputWires_() const override;
};

class IntegratorDescriptor : public wDescriptorImpl<IntegratorDescriptor, wDiffDescriptorBase<IntegratorDescriptor>> {
public:
    TESTBLOCK_NAMES("TestIntegrator")
    std::unique_ptr<wSimulationBlockDiff> create(Lua::Loader*) const override;

protected:
    const wLeadList& getInputWires_() const override;
    const wLeadList& getOutputWires_() const override;
};

class CounterDescriptor : public wDescriptorImpl<CounterDescriptor, wSimulationBlockDiscDescriptor> {
public:
    TESTBLOCK_NAMES("TestCounter")
    std::unique_ptr<wSimulationBlockDisc> create(Lua::Loader*, wSimulationSystem*) const override;
    wParameterList getParametersList() override { return {parameterRef("dt", dt)}; }
    wBlockParameterProxy<double> dt{0.1};

protected:
    const wLeadList& getOutputWires_() const override;
};

class SamplerDescriptor : public wDescriptorImpl<SamplerDescriptor, wSimulationBlockDiscDescriptor> {
public:
    TESTBLOCK_NAMES("TestSampler")
    std::unique_ptr<wSimulationBlockDisc> create(Lua::Loader*, wSimulationSystem*) const override;
    wParameterList getParametersList() override { return {parameterRef("dt", dt)}; }
    wBlockParameterProxy<double> dt{0.1};

protected:
    const wLeadList& getInputWires_() const override;
    const wLeadList& getOutputWires_() const override;
};

class TriggerDescriptor : public wDescriptorImpl<TriggerDescriptor, wSimulationBlockStatelessDescriptor> {
public:
    TESTBLOCK_NAMES("TestTrigger")
    std::unique_ptr<wSimulationBlockStateless> create(Lua::Loader*) const override;

protected:
    const wLeadList& getInputPorts_() const override;
    const wLeadList& getOutputPorts_() const override;
};

class VecSourceDescriptor : public wDescriptorImpl<VecSourceDescriptor, wSimulationBlockDiscDescriptor> {
public:
    TESTBLOCK_NAMES("TestVecSource")
    std::unique_ptr<wSimulationBlockDisc> create(Lua::Loader*, wSimulationSystem*) const override;
    wParameterList getParametersList() override { return {parameterRef("v", v)}; }
    wBlockParameterProxy<Vec3d> v{Vec3d{}};

protected:
    const wLeadList& getOutputWires_() const override;
};

// A discrete block owning a scheme: its input wires are the nested scheme's inputs, its
// outputs the nested outputs. Enough for the layout, not runnable.
class NestingDescriptor : public wDescriptorImpl<NestingDescriptor, wSimulationBlockDiscDescriptor> {
public:
    TESTBLOCK_NAMES("TestNesting")
    NestingDescriptor() : nested_(std::make_unique<wSimulationSystemScheme>()) {}
    NestingDescriptor(const NestingDescriptor& o)
        : wDescriptorImpl(o), nested_(std::make_unique<wSimulationSystemScheme>(*o.nested_)) {}
    bool isOfType(weBlockType t) const override { return t == BLOCK_DISCRETE || t == BLOCK_SUBSYSTEM; }
    wSimulationSystemScheme* getNestedScheme() const override { return nested_.get(); }
    std::unique_ptr<wSimulationBlockDisc> create(Lua::Loader*, wSimulationSystem*) const override {
        throw wSimulationException("TestNesting is not runnable");
    }

protected:
    const wLeadList& getInputWires_() const override { return nested_->getIOLeads(false, false); }
    const wLeadList& getOutputWires_() const override { return nested_->getIOLeads(true, false); }

private:
    std::unique_ptr<wSimulationSystemScheme> nested_;
};

#undef TESTBLOCK_NAMES

// Runtime side of TestTrigger, exposed so tests can count arrivals.
class Trigger : public wSimulationBlockStateless {
public:
    explicit Trigger(const TriggerDescriptor* d);
    wInputPortBase* getInputPort(std::string_view name) override { return name == "in" ? &in_ : nullptr; }
    wOutputPortBase* getOutputPort(std::string_view name) override { return name == "out" ? &out_ : nullptr; }
    void update(double, unsigned char*) override {}
    int arrivals = 0;

private:
    void onIn_(const bool& v);
    wInputPortImpl<bool, Trigger> in_;
    wOutputPort<bool> out_;
};

}  // namespace testblocks
