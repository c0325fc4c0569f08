#include "vandrel/blocks/Multiplexer.h"

#include <string>

#include "vandrel/core/Wire.h"
#include "vandrel/platform/LuaLoader.h"
#include "vandrel/runtime/SimulationException.h"
#include "vandrel/runtime/SimulationSystem.h"
#include "vandrel/scheme/BlockSerializer.h"

namespace {

bool isRoutable(int t) { return isValidLeadType(t) && t != LEAD_OBJECT_PTR; }

}  // namespace

// ---- Descriptor

const zo::string& wBlockMultiplexDescriptor::getBlockClassNameS() {
    static const zo::string s = "wBlockMultiplexDescriptor";
    return s;
}

const zo::string& wBlockMultiplexDescriptor::getBlockTypeNameS() {
    static const zo::string s = "Multiplexor";
    return s;
}

wBlockMultiplexDescriptor::wBlockMultiplexDescriptor() : outputs_{{"output1", LEAD_DOUBLE}, {"output2", LEAD_DOUBLE}} {}

wSimulationBlockDisc* wBlockMultiplexDescriptor::create(Lua::Loader*, wSimulationSystem* system) const {
    checkType_(type.get());
    checkOutputs_(outputs_);
    return new wBlockMultiplex(this, system);
}

wParameterList wBlockMultiplexDescriptor::getParametersList() {
    wParameterList list = wSimulationBlockDiscDescriptor::getParametersList();
    list.push_back(parameterRef("type", type));
    return list;
}

void wBlockMultiplexDescriptor::serialize(wBlockSerializer& s) {
    wSimulationBlockDiscDescriptor::serialize(s);
    Lua::Loader* loader = s.getLoader();
    if (!s.isReading()) {
        saveLeadList(*loader, "outputs", outputs_);
        return;
    }
    checkType_(type.get());
    // A block entry without "outputs" keeps the default outputs, of the block's type.
    if (loader->hasEntry("outputs")) {
        wLeadList outputs = loadLeadList(*loader, "outputs");
        checkOutputs_(outputs);
        outputs_ = std::move(outputs);
    } else {
        for (wLeadDescription& lead : outputs_) lead.type = static_cast<eLeadType>(type.get());
    }
}

void wBlockMultiplexDescriptor::setLeadType(eLeadType t) {
    checkType_(t);
    type.set(t);
    for (wLeadDescription& lead : outputs_) lead.type = t;
}

void wBlockMultiplexDescriptor::setOutputs(const wLeadList& outputs) {
    checkOutputs_(outputs);
    outputs_ = outputs;
}

void wBlockMultiplexDescriptor::checkType_(int t) const {
    if (!isRoutable(t))
        throw wSimulationException("Multiplexor " + getName() + ": invalid type " + std::to_string(t));
}

void wBlockMultiplexDescriptor::checkOutputs_(const wLeadList& outputs) const {
    const int expected = type.get();
    for (std::size_t i = 0; i < outputs.size(); ++i) {
        const wLeadDescription& lead = outputs[i];
        if (lead.type != expected)
            throw wSimulationException("Multiplexor " + getName() + ": output " + lead.name + " has type " +
                                       std::to_string(static_cast<int>(lead.type)) + ", expected " +
                                       std::to_string(expected));
        for (std::size_t j = 0; j < i; ++j)
            if (outputs[j].name == lead.name)
                throw wSimulationException("Multiplexor " + getName() + ": duplicate output " + lead.name);
    }
}

const wLeadList& wBlockMultiplexDescriptor::getInputPorts_() const {
    // One list per lead type, so that the list follows "type" without being rebuilt.
    static const wLeadList byType[kLeadTypeCount] = {
        {{"input", LEAD_INT}},        {{"input", LEAD_BOOL}},       {{"input", LEAD_DOUBLE}},
        {{"input", LEAD_VECTOR}},     {{"input", LEAD_QUATERNION}}, {},
        {{"input", LEAD_OBJECT_ID}},
    };
    const int t = type.get();
    return isRoutable(t) ? byType[t] : emptyLeads();
}

const wLeadList& wBlockMultiplexDescriptor::getInputWires_() const {
    static const wLeadList leads{{"select", LEAD_INT}};
    return leads;
}

// ---- Runtime block

wBlockMultiplex::wBlockMultiplex(const wBlockMultiplexDescriptor* descriptor, wSimulationSystem* system)
    : wSimulationBlockDisc(descriptor, system), d_(descriptor), outputs_(descriptor->getOutputs()) {
    // The input port of the block's lead type; its callback routes each value.
    switch (descriptor->getPortType()) {
    case LEAD_INT:
        input_ = std::make_unique<wInputPortImpl<int, wBlockMultiplex>>(this, &wBlockMultiplex::onInput_<int>);
        break;
    case LEAD_BOOL:
        input_ = std::make_unique<wInputPortImpl<bool, wBlockMultiplex>>(this, &wBlockMultiplex::onInput_<bool>);
        break;
    case LEAD_DOUBLE:
        input_ = std::make_unique<wInputPortImpl<double, wBlockMultiplex>>(this, &wBlockMultiplex::onInput_<double>);
        break;
    case LEAD_VECTOR:
        input_ = std::make_unique<wInputPortImpl<Vec3d, wBlockMultiplex>>(this, &wBlockMultiplex::onInput_<Vec3d>);
        break;
    case LEAD_QUATERNION:
        input_ = std::make_unique<wInputPortImpl<Rot3d, wBlockMultiplex>>(this, &wBlockMultiplex::onInput_<Rot3d>);
        break;
    case LEAD_OBJECT_ID:
        input_ = std::make_unique<wInputPortImpl<unsigned int, wBlockMultiplex>>(
            this, &wBlockMultiplex::onInput_<unsigned int>);
        break;
    case LEAD_OBJECT_PTR:
        // Refused by the descriptor before a block is made.
        break;
    }
}

wBlockMultiplex::~wBlockMultiplex() = default;

wInputPortBase* wBlockMultiplex::getInputPort(std::string_view name) {
    return name == "input" ? input_.get() : wSimulationBlockDisc::getInputPort(name);
}

wOutputPortBase* wBlockMultiplex::getOutputPort(std::string_view name) {
    const int index = d_->getLeadIndex(false, true, name, false);
    return index < 0 ? wSimulationBlockDisc::getOutputPort(name) : outputs_[static_cast<std::size_t>(index)];
}

template <class T>
void wBlockMultiplex::onInput_(const T& value) {
    const int select = readWire<int>(system_->getDataPtr(), d_->getInputWireOffset(0));
    if (select < 0 || static_cast<std::size_t>(select) >= outputs_.size()) return;
    outputs_[static_cast<std::size_t>(select)]->sendFromPtr(&value);
}
