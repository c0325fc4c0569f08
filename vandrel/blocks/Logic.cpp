#include "vandrel/blocks/Logic.h"

#include <ostream>

#include "vandrel/core/Wire.h"
#include "vandrel/platform/LuaLoader.h"
#include "vandrel/runtime/SimulationLogger.h"
#include "vandrel/scheme/BlockSerializer.h"

namespace {

const wLeadList& boolOutputWire() {
    static const wLeadList l{{"output", LEAD_BOOL}};
    return l;
}

const wLeadList& boolOutputPort() {
    static const wLeadList l{{"output", LEAD_BOOL}};
    return l;
}

const wLeadList& twoBoolInputPorts() {
    static const wLeadList l{{"input1", LEAD_BOOL}, {"input2", LEAD_BOOL}};
    return l;
}

const wLeadList& oneBoolInput() {
    static const wLeadList l{{"input", LEAD_BOOL}};
    return l;
}

// One byte tested per evaluation; the line itself is written out of line.
inline void logStep(const char* what, double t) {
    if (wSimulationLogger::tracingSteps()) [[unlikely]] wSimulationLogger::traceStep(what, t);
}

}  // namespace

#define LOGIC_NAMES(Cls, className, typeName)                                                          \
    const zo::string& Cls::getBlockClassNameS() { static const zo::string s = className; return s; } \
    const zo::string& Cls::getBlockTypeNameS() { static const zo::string s = typeName; return s; }

LOGIC_NAMES(wBlockANDDescriptor, "wBlockANDDescriptor", "AND")
LOGIC_NAMES(wBlockORDescriptor, "wBlockORDescriptor", "OR")
LOGIC_NAMES(wBlockNOTDescriptor, "wBlockNOTDescriptor", "NOT")
LOGIC_NAMES(wBlockANDtriggerDescriptor, "wBlockANDtriggerDescriptor", "AND (trig)")
LOGIC_NAMES(wBlockORtriggerDescriptor, "wBlockORtriggerDescriptor", "OR (trig)")
LOGIC_NAMES(wBlockNOTtriggerDescriptor, "wBlockNOTtriggerDescriptor", "NOT (trig)")

#undef LOGIC_NAMES

// ---- AND / OR descriptors

wBlockLogicalMultiinputDescriptor::wBlockLogicalMultiinputDescriptor()
    : inputs_{{"input1", LEAD_BOOL}, {"input2", LEAD_BOOL}} {}

const wLeadList& wBlockLogicalMultiinputDescriptor::getOutputWires_() const { return boolOutputWire(); }

void wBlockLogicalMultiinputDescriptor::set(const zo::vector<zo::string>& names) {
    inputs_.clear();
    for (const zo::string& n : names) inputs_.push_back({n, LEAD_BOOL});
}

// After the common keys: "inputs" = { [1] = { name = "input1" }, [2] = { name = "input2" }, ... }.
void wBlockLogicalMultiinputDescriptor::serialize(wBlockSerializer& s) {
    wSimulationBlockDescriptor::serialize(s);
    Lua::Loader* loader = s.getLoader();
    if (!s.isReading()) {
        saveLeadNames(*loader, "inputs", inputs_);
        return;
    }

    inputs_.clear();
    loader->beginSubtable("inputs");
    loader->beginArray();
    while (loader->nextArray()) inputs_.push_back({loader->getString("name"), LEAD_BOOL});
    loader->endSubtable();
}

wSimulationBlockStateless* wBlockANDDescriptor::create(Lua::Loader*) const {
    return new wBlockAND(this);
}
wSimulationBlockStateless* wBlockORDescriptor::create(Lua::Loader*) const {
    return new wBlockOR(this);
}
wSimulationBlockStateless* wBlockNOTDescriptor::create(Lua::Loader*) const {
    return new wBlockNOT(this);
}
const wLeadList& wBlockNOTDescriptor::getInputWires_() const { return oneBoolInput(); }
const wLeadList& wBlockNOTDescriptor::getOutputWires_() const { return boolOutputWire(); }

// ---- Wire-style evaluation

void wBlockAND::update(double t, unsigned char* data) {
    logStep("wBlockAND<0>", t);
    const int out = descriptor_->getOutputWireOffset(0);
    const int n = static_cast<int>(descriptor_->getInputWires().size());
    // A gate of one input (or none) is false by definition.
    if (n < 2) {
        writeWire<bool>(data, out, false);
        return;
    }
    bool all = true;
    for (int i = 0; i < n; ++i) all = readWire<bool>(data, descriptor_->getInputWireOffset(i)) && all;
    writeWire<bool>(data, out, all);
}

void wBlockOR::update(double t, unsigned char* data) {
    logStep("wBlockOR<0>", t);
    const int out = descriptor_->getOutputWireOffset(0);
    const int n = static_cast<int>(descriptor_->getInputWires().size());
    bool any = false;
    // A gate of one input (or none) is false by definition.
    if (n >= 2) {
        for (int i = 0; i < n && !any; ++i) any = readWire<bool>(data, descriptor_->getInputWireOffset(i));
    }
    writeWire<bool>(data, out, any);
}

void wBlockNOT::update(double, unsigned char* data) {
    writeWire<bool>(data, descriptor_->getOutputWireOffset(0), !readWire<bool>(data, descriptor_->getInputWireOffset(0)));
}

// ---- Trigger descriptors

wSimulationBlockStateless* wBlockANDtriggerDescriptor::create(Lua::Loader*) const {
    return new wBlockANDtrigger(this);
}
const wLeadList& wBlockANDtriggerDescriptor::getInputPorts_() const { return twoBoolInputPorts(); }
const wLeadList& wBlockANDtriggerDescriptor::getOutputPorts_() const { return boolOutputPort(); }

wSimulationBlockStateless* wBlockORtriggerDescriptor::create(Lua::Loader*) const {
    return new wBlockORtrigger(this);
}
const wLeadList& wBlockORtriggerDescriptor::getInputPorts_() const { return twoBoolInputPorts(); }
const wLeadList& wBlockORtriggerDescriptor::getOutputPorts_() const { return boolOutputPort(); }

wSimulationBlockStateless* wBlockNOTtriggerDescriptor::create(Lua::Loader*) const {
    return new wBlockNOTtrigger(this);
}
const wLeadList& wBlockNOTtriggerDescriptor::getInputPorts_() const { return oneBoolInput(); }
const wLeadList& wBlockNOTtriggerDescriptor::getOutputPorts_() const { return boolOutputPort(); }
