#pragma once
// Multiplexor: a port router. A value arriving at the input port "input" goes out of the
// output port chosen by the int wire "select" (0-based, in the order of the block's output
// list) to every input connected there; a select outside the list drops the value.
//
// Design:
// - All ports carry one lead type, the int parameter "type" (an eLeadType: 0 int, 1 bool,
//   2 double, 3 vector, 4 quaternion or 6 object id; default 2). Object pointers (5) are
//   refused: they have no generic output port.
// - The outputs are a user-defined lead list kept by the descriptor and saved under the
//   block's key "outputs" as an array of { name = ..., type = ... } after its parameters;
//   a new block has "output1" and "output2". An output whose type differs from "type" is
//   refused when reading, with "Multiplexor <name>: output <o> has type <t>, expected <type>".
// - The block is discrete although its step does nothing (it returns -1.0 and is never
//   scheduled again): the routing happens in the input port's callback, at the moment
//   the value is pushed, and reading "select" there needs the system's data area, which
//   only discrete blocks can reach. The wire is sampled: the callback sees whatever its
//   writer stored last. No state is registered, yet the size answers 0 so that schemes
//   holding a multiplexor stay saveable.
#include <memory>
#include <string_view>

#include "vandrel/core/BlockParameter.h"
#include "vandrel/core/LeadTypes.h"
#include "vandrel/core/Ports.h"
#include "vandrel/core/SimulationBlock.h"
#include "vandrel/core/SimulationBlockDescriptor.h"

class wBlockMultiplexDescriptor : public wDescriptorImpl<wBlockMultiplexDescriptor, wSimulationBlockDiscDescriptor> {
public:
    static const zo::string& getBlockClassNameS();  // "wBlockMultiplexDescriptor"
    static const zo::string& getBlockTypeNameS();   // "Multiplexor"

    wBlockMultiplexDescriptor();

    // Throws "Multiplexor <name>: ..." when "type" is not a routable lead type.
    wSimulationBlockDisc* create(Lua::Loader* loader, wSimulationSystem* system) const override;
    wParameterList getParametersList() override;  // "type"
    // The base entry, then "outputs"; reading checks the outputs against "type".
    void serialize(wBlockSerializer& s) override;

    // The lead type of every port.
    eLeadType getPortType() const { return static_cast<eLeadType>(type.get()); }
    // Sets "type" and retypes every output; throws for a type that cannot be routed.
    void setLeadType(eLeadType t);
    const wLeadList& getOutputs() const { return outputs_; }
    // Replaces the outputs; throws on a type mismatch or a repeated name, keeping the old list.
    void setOutputs(const wLeadList& outputs);

    wBlockParameterProxy<int> type{LEAD_DOUBLE};  // eLeadType of all ports

protected:
    const wLeadList& getInputPorts_() const override;                       // "input" (type)
    const wLeadList& getOutputPorts_() const override { return outputs_; }  // the outputs
    const wLeadList& getInputWires_() const override;                       // "select" (int)

private:
    // Throw "Multiplexor <name>: ..." for a type that cannot be routed, and for outputs
    // of another type than "type" or with a repeated name.
    void checkType_(int t) const;
    void checkOutputs_(const wLeadList& outputs) const;

    wLeadList outputs_;  // output ports, all of lead type `type`
};

class wBlockMultiplex : public wSimulationBlockDisc {
public:
    wBlockMultiplex(const wBlockMultiplexDescriptor* descriptor, wSimulationSystem* system);
    ~wBlockMultiplex() override;
    wBlockMultiplex(const wBlockMultiplex&) = delete;
    wBlockMultiplex& operator=(const wBlockMultiplex&) = delete;

    wInputPortBase* getInputPort(std::string_view name) override;
    wOutputPortBase* getOutputPort(std::string_view name) override;
    // Nothing to do on the schedule: routing happens when a value arrives.
    double step(double) override { return -1.0; }
    int getBlockStateDataSize() const override { return 0; }

private:
    template <class T>
    void onInput_(const T& value);

    const wBlockMultiplexDescriptor* d_;  // not owned
    std::unique_ptr<wInputPortBase> input_;  // a wInputPortImpl<T, wBlockMultiplex> for the lead type
    wOutputPortArray outputs_;               // one per output lead, in list order
};
