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

// A descriptor class named `key`, deriving from Base, made by Runtime in create().
#define TEST_DESCRIPTOR(Cls, Base, Kind, key)                                               \
    class Cls : public wDescriptorImpl<Cls, Base> {                                         \
    public:                                                                                 \
        static const zo::string& getBlockClassNameS() {                                     \
            static const zo::string s = key;                                                \
            return s;                                                                       \
        }                                                                                   \
        static const zo::string& getBlockTypeNameS() { return getBlockClassNameS(); }      \
        Kind* create(Lua::Loader*, wSimulationSystem*) const override;

#define TEST_LEADS(getter, ...)                      \
    const wLeadList& getter() const override {       \
        static const wLeadList l{__VA_ARGS__};       \
        return l;                                    \
    }

TEST_DESCRIPTOR(CounterDescriptor, wSimulationBlockDiscDescriptor, wSimulationBlockDisc, "TestCounter")
    wParameterList getParametersList() override { return {parameterRef("dt", dt)}; }
    wBlockParameterProxy<double> dt{0.1};
protected:
    TEST_LEADS(getOutputWires_, {"count", LEAD_INT})
};

TEST_DESCRIPTOR(SamplerDescriptor, wSimulationBlockDiscDescriptor, wSimulationBlockDisc, "TestSampler")
    wParameterList getParametersList() override { return {parameterRef("dt", dt)}; }
    wBlockParameterProxy<double> dt{0.1};
protected:
    TEST_LEADS(getInputWires_, {"in", LEAD_DOUBLE})
    TEST_LEADS(getOutputWires_, {"out", LEAD_DOUBLE})
};

TEST_DESCRIPTOR(VecSourceDescriptor, wSimulationBlockDiscDescriptor, wSimulationBlockDisc, "TestVecSource")
    wParameterList getParametersList() override { return {parameterRef("v", v)}; }
    wBlockParameterProxy<Vec3d> v{Vec3d{}};
protected:
    TEST_LEADS(getOutputWires_, {"v", LEAD_VECTOR})
};
#undef TEST_DESCRIPTOR

// Stateless and continuous blocks are created without a system.
#define TEST_DESCRIPTOR(Cls, Base, Kind, key)                                               \
    class Cls : public wDescriptorImpl<Cls, Base> {                                         \
    public:                                                                                 \
        static const zo::string& getBlockClassNameS() {                                     \
            static const zo::string s = key;                                                \
            return s;                                                                       \
        }                                                                                   \
        static const zo::string& getBlockTypeNameS() { return getBlockClassNameS(); }      \
        Kind* create(Lua::Loader*) const override;

TEST_DESCRIPTOR(GainDescriptor, wSimulationBlockStatelessDescriptor, wSimulationBlockStateless, "TestGain")
    wParameterList getParametersList() override { return {parameterRef("k", k)}; }
    wBlockParameterProxy<double> k{1.0};
protected:
    TEST_LEADS(getInputWires_, {"in", LEAD_DOUBLE})
    TEST_LEADS(getOutputWires_, {"out", LEAD_DOUBLE})
};

TEST_DESCRIPTOR(AddDescriptor, wSimulationBlockStatelessDescriptor, wSimulationBlockStateless, "TestAdd")
protected:
    TEST_LEADS(getInputWires_, {"a", LEAD_DOUBLE}, {"b", LEAD_DOUBLE})
    TEST_LEADS(getOutputWires_, {"out", LEAD_DOUBLE})
};

TEST_DESCRIPTOR(TriggerDescriptor, wSimulationBlockStatelessDescriptor, wSimulationBlockStateless, "TestTrigger")
protected:
    TEST_LEADS(getInputPorts_, {"in", LEAD_BOOL})
    TEST_LEADS(getOutputPorts_, {"out", LEAD_BOOL})
};

TEST_DESCRIPTOR(IntegratorDescriptor, wDiffDescriptorBase<IntegratorDescriptor>, wSimulationBlockDiff, "TestIntegrator")
protected:
    TEST_LEADS(getInputWires_, {"in", LEAD_DOUBLE})
    TEST_LEADS(getOutputWires_, {"x", LEAD_DOUBLE})
};
#undef TEST_DESCRIPTOR
#undef TEST_LEADS

// A discrete block owning a scheme: its input wires are the nested scheme's inputs, its
// outputs the nested outputs. Enough for the layout, not runnable.
class NestingDescriptor : public wDescriptorImpl<NestingDescriptor, wSimulationBlockDiscDescriptor> {
public:
    static const zo::string& getBlockClassNameS() {
        static const zo::string s = "TestNesting";
        return s;
    }
    static const zo::string& getBlockTypeNameS() { return getBlockClassNameS(); }
    NestingDescriptor() : nested_(std::make_unique<wSimulationSystemScheme>()) {}
    NestingDescriptor(const NestingDescriptor& o)
        : wDescriptorImpl(o), nested_(std::make_unique<wSimulationSystemScheme>(*o.nested_)) {}
    bool isOfType(weBlockType t) const override { return t == BLOCK_DISCRETE || t == BLOCK_SUBSYSTEM; }
    wSimulationSystemScheme* getNestedScheme() const override { return nested_.get(); }
    wSimulationBlockDisc* create(Lua::Loader*, wSimulationSystem*) const override {
        throw wSimulationException("TestNesting is not runnable");
    }

protected:
    const wLeadList& getInputWires_() const override { return nested_->getIOLeads(false, false); }
    const wLeadList& getOutputWires_() const override { return nested_->getIOLeads(true, false); }

private:
    std::unique_ptr<wSimulationSystemScheme> nested_;
};

// Runtime side of TestTrigger, exposed so tests can count arrivals.
class Trigger : public wSimulationBlockStateless {
public:
    explicit Trigger(const TriggerDescriptor* d) : wSimulationBlockStateless(d), in_(this, &Trigger::onIn_) {}
    wInputPortBase* getInputPort(std::string_view name) override { return name == "in" ? &in_ : nullptr; }
    wOutputPortBase* getOutputPort(std::string_view name) override { return name == "out" ? &out_ : nullptr; }
    void update(double, unsigned char*) override {}
    int arrivals = 0;

private:
    void onIn_(const bool& v) {
        ++arrivals;
        out_.setValue(!v);
    }
    wInputPortImpl<bool, Trigger> in_;
    wOutputPort<bool> out_;
};

}  // namespace testblocks
