#pragma once
// Small blocks for tests of the scheme and runtime machinery, one of each kind:
//   "TestGain"        stateless: out = k * in (double wires), parameter "k"
//   "TestAdd"         stateless: out = a + b (double wires)
//   "TestIntegrator"  continuous: x' = in (double), plus the implicit x.initial input
//   "TestCounter"     discrete: count (int wire) += 1 per step, registered state,
//                     parameter "dt" (the returned delay; -1 stops it)
//   "TestSampler"     discrete: out = in at each step (double wires), parameter "dt"
//   "TestTrigger"     stateless, ports only: bool "in" -> pushes !in on "out", counts arrivals
//   "TestVecSource"   discrete: writes parameter "v" (Vec3d) to wire "v" once, returns -1
// Every block logs its calls into a process-wide trace so tests can check order.
#include <string>
#include <vector>

#include "vandrel/core/Ports.h"
#include "vandrel/core/SimulationBlock.h"
#include "vandrel/core/SimulationBlockDescriptor.h"

namespace testblocks {

// Registers the test classes in the block factory (once per process).
void registerAll();

// "<block name>@<t>" for every update/step/derivative call since the last clear.
std::vector<std::string>& trace();
inline void clearTrace() { trace().clear(); }

class GainDescriptor : public wDescriptorImpl<GainDescriptor, wSimulationBlockStatelessDescriptor> {
public:
    static const zo::string& getBlockClassNameS();
    static const zo::string& getBlockTypeNameS();
    std::unique_ptr<wSimulationBlockStateless> create(Lua::Loader*) const override;
    wParameterList getParametersList() override;
    wBlockParameterProxy<double> k{1.0};

protected:
    const wLeadList& getInputWires_() const override;
    const wLeadList& getOutputWires_() const override;
};

class AddDescriptor : public wDescriptorImpl<AddDescriptor, wSimulationBlockStatelessDescriptor> {
public:
    static const zo::string& getBlockClassNameS();
    static const zo::string& getBlockTypeNameS();
    std::unique_ptr<wSimulationBlockStateless> create(Lua::Loader*) const override;

protected:
    const wLeadList& getInputWires_() const override;
    const wLeadList& getOutputWires_() const override;
};

class IntegratorDescriptor : public wDescriptorImpl<IntegratorDescriptor, wDiffDescriptorBase<IntegratorDescriptor>> {
public:
    static const zo::string& getBlockClassNameS();
    static const zo::string& getBlockTypeNameS();
    std::unique_ptr<wSimulationBlockDiff> create(Lua::Loader*) const override;

protected:
    const wLeadList& getInputWires_() const override;
    const wLeadList& getOutputWires_() const override;
};

class CounterDescriptor : public wDescriptorImpl<CounterDescriptor, wSimulationBlockDiscDescriptor> {
public:
    static const zo::string& getBlockClassNameS();
    static const zo::string& getBlockTypeNameS();
    std::unique_ptr<wSimulationBlockDisc> create(Lua::Loader*, wSimulationSystem*) const override;
    wParameterList getParametersList() override;
    wBlockParameterProxy<double> dt{0.1};

protected:
    const wLeadList& getOutputWires_() const override;
};

class SamplerDescriptor : public wDescriptorImpl<SamplerDescriptor, wSimulationBlockDiscDescriptor> {
public:
    static const zo::string& getBlockClassNameS();
    static const zo::string& getBlockTypeNameS();
    std::unique_ptr<wSimulationBlockDisc> create(Lua::Loader*, wSimulationSystem*) const override;
    wParameterList getParametersList() override;
    wBlockParameterProxy<double> dt{0.1};

protected:
    const wLeadList& getInputWires_() const override;
    const wLeadList& getOutputWires_() const override;
};

class TriggerDescriptor : public wDescriptorImpl<TriggerDescriptor, wSimulationBlockStatelessDescriptor> {
public:
    static const zo::string& getBlockClassNameS();
    static const zo::string& getBlockTypeNameS();
    std::unique_ptr<wSimulationBlockStateless> create(Lua::Loader*) const override;

protected:
    const wLeadList& getInputPorts_() const override;
    const wLeadList& getOutputPorts_() const override;
};

class VecSourceDescriptor : public wDescriptorImpl<VecSourceDescriptor, wSimulationBlockDiscDescriptor> {
public:
    static const zo::string& getBlockClassNameS();
    static const zo::string& getBlockTypeNameS();
    std::unique_ptr<wSimulationBlockDisc> create(Lua::Loader*, wSimulationSystem*) const override;
    wParameterList getParametersList() override;
    wBlockParameterProxy<Vec3d> v{Vec3d{}};

protected:
    const wLeadList& getOutputWires_() const override;
};

// Runtime side of TestTrigger, exposed so tests can count arrivals.
class Trigger : public wSimulationBlockStateless {
public:
    explicit Trigger(const TriggerDescriptor* d);
    wInputPortBase* getInputPort(std::string_view name) override;
    wOutputPortBase* getOutputPort(std::string_view name) override;
    void update(double, unsigned char*) override {}
    int arrivals = 0;

private:
    void onIn_(const bool& v);
    wInputPortImpl<bool, Trigger> in_;
    wOutputPort<bool> out_;
};

}  // namespace testblocks
