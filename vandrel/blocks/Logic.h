#pragma once
// Boolean blocks in two styles.
//
//   AND, OR, NOT                       wires: evaluated in each step from the data area.
//                                      AND and OR have a list of inputs of their own
//                                      (default "input1", "input2"); with fewer than two
//                                      inputs they always give false.
//   AND (trig), OR (trig), NOT (trig)  ports only: every value that arrives on an input
//                                      port is answered at once by pushing the result to
//                                      every port connected to "output", also when it did
//                                      not change. A port that never received counts false.
//
// None of them has parameters.
#include "vandrel/core/Ports.h"
#include "vandrel/core/SimulationBlock.h"
#include "vandrel/core/SimulationBlockDescriptor.h"

// ---- Wire style

// AND and OR: a bool input wire per entry of the instance's own input list. Their file
// entry adds "inputs" = { [1] = { name = ... }, ... } after the common keys.
class wBlockLogicalMultiinputDescriptor : public wSimulationBlockStatelessDescriptor {
public:
    void serialize(wBlockSerializer& s) override;
    // Replaces the inputs by one bool input wire per name, in order.
    void set(const zo::vector<zo::string>& names);

protected:
    wBlockLogicalMultiinputDescriptor();
    wBlockLogicalMultiinputDescriptor(const wBlockLogicalMultiinputDescriptor&) = default;

    const wLeadList& getInputWires_() const override { return inputs_; }
    const wLeadList& getOutputWires_() const override;

private:
    wLeadList inputs_;
};

class wBlockAND;
class wBlockOR;
class wBlockNOT;

class wBlockANDDescriptor : public wDescriptorImpl<wBlockANDDescriptor, wBlockLogicalMultiinputDescriptor> {
public:
    static const zo::string& getBlockClassNameS();
    static const zo::string& getBlockTypeNameS();
    wSimulationBlockStateless* create(Lua::Loader* loader) const override;
};

class wBlockORDescriptor : public wDescriptorImpl<wBlockORDescriptor, wBlockLogicalMultiinputDescriptor> {
public:
    static const zo::string& getBlockClassNameS();
    static const zo::string& getBlockTypeNameS();
    wSimulationBlockStateless* create(Lua::Loader* loader) const override;
};

class wBlockNOTDescriptor : public wDescriptorImpl<wBlockNOTDescriptor, wSimulationBlockStatelessDescriptor> {
public:
    static const zo::string& getBlockClassNameS();
    static const zo::string& getBlockTypeNameS();
    wSimulationBlockStateless* create(Lua::Loader* loader) const override;

protected:
    const wLeadList& getInputWires_() const override;
    const wLeadList& getOutputWires_() const override;
};

class wBlockAND : public wSimulationBlockStateless {
public:
    explicit wBlockAND(const wBlockANDDescriptor* descriptor) : wSimulationBlockStateless(descriptor) {}
    void update(double t, unsigned char* data) override;
};

class wBlockOR : public wSimulationBlockStateless {
public:
    explicit wBlockOR(const wBlockORDescriptor* descriptor) : wSimulationBlockStateless(descriptor) {}
    void update(double t, unsigned char* data) override;
};

class wBlockNOT : public wSimulationBlockStateless {
public:
    explicit wBlockNOT(const wBlockNOTDescriptor* descriptor) : wSimulationBlockStateless(descriptor) {}
    void update(double t, unsigned char* data) override;
};

// ---- Trigger style

class wBlockANDtriggerDescriptor
    : public wDescriptorImpl<wBlockANDtriggerDescriptor, wSimulationBlockStatelessDescriptor> {
public:
    static const zo::string& getBlockClassNameS();
    static const zo::string& getBlockTypeNameS();
    wSimulationBlockStateless* create(Lua::Loader* loader) const override;

protected:
    const wLeadList& getInputPorts_() const override;
    const wLeadList& getOutputPorts_() const override;
};

class wBlockORtriggerDescriptor
    : public wDescriptorImpl<wBlockORtriggerDescriptor, wSimulationBlockStatelessDescriptor> {
public:
    static const zo::string& getBlockClassNameS();
    static const zo::string& getBlockTypeNameS();
    wSimulationBlockStateless* create(Lua::Loader* loader) const override;

protected:
    const wLeadList& getInputPorts_() const override;
    const wLeadList& getOutputPorts_() const override;
};

class wBlockNOTtriggerDescriptor
    : public wDescriptorImpl<wBlockNOTtriggerDescriptor, wSimulationBlockStatelessDescriptor> {
public:
    static const zo::string& getBlockClassNameS();
    static const zo::string& getBlockTypeNameS();
    wSimulationBlockStateless* create(Lua::Loader* loader) const override;

protected:
    const wLeadList& getInputPorts_() const override;
    const wLeadList& getOutputPorts_() const override;
};

// Two-input trigger gate; Op combines (arrived value, last value of the other input).
// The ports point back at the block, so it is neither copied nor moved.
template <bool (*Op)(bool, bool)>
class wBlockBinaryTrigger : public wSimulationBlockStateless {
public:
    explicit wBlockBinaryTrigger(const wSimulationBlockStatelessDescriptor* descriptor)
        : wSimulationBlockStateless(descriptor),
          input1_(this, &wBlockBinaryTrigger::onInput1_),
          input2_(this, &wBlockBinaryTrigger::onInput2_) {}
    wBlockBinaryTrigger(const wBlockBinaryTrigger&) = delete;
    wBlockBinaryTrigger& operator=(const wBlockBinaryTrigger&) = delete;

    wInputPortBase* getInputPort(std::string_view name) override {
        if (name == "input1") return &input1_;
        if (name == "input2") return &input2_;
        return nullptr;
    }
    wOutputPortBase* getOutputPort(std::string_view name) override {
        return name == "output" ? &output_ : nullptr;
    }
    // All work happens when a value arrives.
    void update(double, unsigned char*) override {}

private:
    void onInput1_(const bool& v) { output_.setValue(Op(v, input2_.getValue())); }
    void onInput2_(const bool& v) { output_.setValue(Op(v, input1_.getValue())); }

    wInputPortImpl<bool, wBlockBinaryTrigger> input1_;
    wInputPortImpl<bool, wBlockBinaryTrigger> input2_;
    wOutputPort<bool> output_;
};

inline bool wLogicAnd(bool a, bool b) { return a && b; }
inline bool wLogicOr(bool a, bool b) { return a || b; }

class wBlockANDtrigger : public wBlockBinaryTrigger<&wLogicAnd> {
public:
    using wBlockBinaryTrigger::wBlockBinaryTrigger;
};

class wBlockORtrigger : public wBlockBinaryTrigger<&wLogicOr> {
public:
    using wBlockBinaryTrigger::wBlockBinaryTrigger;
};

class wBlockNOTtrigger : public wSimulationBlockStateless {
public:
    explicit wBlockNOTtrigger(const wBlockNOTtriggerDescriptor* descriptor)
        : wSimulationBlockStateless(descriptor), input_(this, &wBlockNOTtrigger::onInput_) {}
    wBlockNOTtrigger(const wBlockNOTtrigger&) = delete;
    wBlockNOTtrigger& operator=(const wBlockNOTtrigger&) = delete;

    wInputPortBase* getInputPort(std::string_view name) override { return name == "input" ? &input_ : nullptr; }
    wOutputPortBase* getOutputPort(std::string_view name) override { return name == "output" ? &output_ : nullptr; }
    void update(double, unsigned char*) override {}

private:
    void onInput_(const bool& v) { output_.setValue(!v); }

    wInputPortImpl<bool, wBlockNOTtrigger> input_;
    wOutputPort<bool> output_;
};
