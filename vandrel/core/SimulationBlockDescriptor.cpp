#include "vandrel/core/SimulationBlockDescriptor.h"

#include <ostream>

#include "vandrel/platform/LuaLoader.h"
#include "vandrel/runtime/SimulationException.h"
#include "vandrel/runtime/SimulationLogger.h"
#include "vandrel/scheme/BlockSerializer.h"

wSimulationBlockDescriptor::~wSimulationBlockDescriptor() = default;

bool wSimulationBlockDescriptor::isOfType(weBlockType) const { return false; }

// A block's entry in a scheme file, keys in this order:
//   __name        the block's name
//   __type        the class name (written only; a reader has already used it to pick
//                 the class through the factory)
//   __parameters  one subtable per parameter, keyed by its name: { value = ... }, with
//                 "value" absent for an undefined parameter; empty without parameters
// Block classes with more data add their own keys around this.
void wSimulationBlockDescriptor::serialize(wBlockSerializer& s) {
    Lua::Loader* loader = s.getLoader();
    if (s.isReading()) {
        name_ = loader->getString("__name");
    } else {
        loader->setString("__name", name_);
        loader->setString("__type", getClassName());
    }

    wParameterList parameters = getParametersList();
    s.beginParameters();
    for (wBlockParameterContainer& p : parameters) s.serializeParameter(p);
    s.endParameters();
}

wParameterList wSimulationBlockDescriptor::getParametersList() { return {}; }

void wSimulationBlockDescriptor::debug_dump() const {
    wSimulationLogger& log = wSimulationLogger::instance();
    if (!log.enabled(LOG_TRACE)) return;
    using Indenter = wSimulationLogger::Indenter;

    // One line per wire: "<name> @ <offset>"; a wire not laid out yet shows "?".
    auto dumpWires = [&log](const wLeadList& wires, const zo::vector<int>& offsets) {
        wLogIndentScope indent;
        for (std::size_t i = 0; i < wires.size(); ++i) {
            log << Indenter() << wires[i].name << " @ ";
            if (i < offsets.size()) log << offsets[i];
            else log << "?";
            log << std::endl;
        }
    };

    log << Indenter() << "Dumping block \"" << name_ << "\" (" << getBlockTypeName() << ")" << std::endl;
    {
        wLogIndentScope indent;
        log << Indenter() << "Inputs:" << std::endl;
        dumpWires(getInputWires(), inputWireOffsets_);
        log << Indenter() << "Outputs:" << std::endl;
        dumpWires(getOutputWires(), outputWireOffsets_);
    }
    log << Indenter() << "-- end of block " << name_ << std::endl;
}

void wSimulationBlockDescriptor::setInputWireOffsets(const int* offsets) {
    if (!offsets) {
        inputWireOffsets_.clear();
        return;
    }
    inputWireOffsets_.assign(offsets, offsets + getInputWires().size());
}

void wSimulationBlockDescriptor::setOutputWireOffsets(const int* offsets) {
    if (!offsets) {
        outputWireOffsets_.clear();
        return;
    }
    outputWireOffsets_.assign(offsets, offsets + getOutputWires().size());
}

const wLeadList& wSimulationBlockDescriptor::getLeads(bool isInput, bool isPort) const {
    if (isInput) return isPort ? getInputPorts() : getInputWires();
    return isPort ? getOutputPorts() : getOutputWires();
}

bool wSimulationBlockDescriptor::hasLead(bool isInput, bool isPort, std::string_view name) const {
    return getLeadIndex(isInput, isPort, name, false) >= 0;
}

eLeadType wSimulationBlockDescriptor::getLeadType(bool isInput, bool isPort, std::string_view name) const {
    const int i = getLeadIndex(isInput, isPort, name, true);
    return getLeads(isInput, isPort)[static_cast<std::size_t>(i)].type;
}

int wSimulationBlockDescriptor::getLeadIndex(bool isInput, bool isPort, std::string_view name,
                                             bool mustExist) const {
    const wLeadList& leads = getLeads(isInput, isPort);
    for (std::size_t i = 0; i < leads.size(); ++i)
        if (leads[i].name == name) return static_cast<int>(i);
    if (!mustExist) return -1;

    const zo::string& who = name_.empty() ? getBlockTypeName() : name_;
    zo::string message = "Block " + who + " has no ";
    message += isInput ? "input " : "output ";
    message += isPort ? "port " : "wire ";
    message += name;
    throw wSimulationException(std::move(message));
}

const wLeadList& wSimulationBlockDescriptor::emptyLeads() {
    static const wLeadList empty;
    return empty;
}

const wLeadList& wSimulationBlockDescriptor::getInputWires_() const { return emptyLeads(); }
const wLeadList& wSimulationBlockDescriptor::getOutputWires_() const { return emptyLeads(); }
const wLeadList& wSimulationBlockDescriptor::getInputPorts_() const { return emptyLeads(); }
const wLeadList& wSimulationBlockDescriptor::getOutputPorts_() const { return emptyLeads(); }

wLeadList wSimulationBlockDiffDescriptor::combineInputWires(const wLeadList& inputs, const wLeadList& outputs) {
    wLeadList combined(inputs);
    for (const wLeadDescription& out : outputs) combined.push_back(wLeadDescription{out.name + ".initial", out.type});
    return combined;
}
