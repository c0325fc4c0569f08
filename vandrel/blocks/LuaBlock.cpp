#include "vandrel/blocks/LuaBlock.h"

#include <fstream>
#include <initializer_list>
#include <string>
#include <utility>

#include "vandrel/platform/LuaLoader.h"
#include "vandrel/platform/LuaSnapshot.h"
#include "vandrel/runtime/SimulationException.h"
#include "vandrel/runtime/SimulationLogger.h"
#include "vandrel/runtime/SimulationSystem.h"
#include "vandrel/runtime/Snapshot.h"
#include "vandrel/scheme/BlockSerializer.h"

namespace {

// A ${...} that keeps producing new references (a value that contains a reference to
// itself after some text) would grow its line for ever: stop after this many.
constexpr int kMaxSubstitutionsPerLine = 10000;

const char* leadKindName(bool isInput, bool isPort) {
    if (isInput) return isPort ? "input port" : "input wire";
    return isPort ? "output port" : "output wire";
}

// How an accessor lays out a value of lead type t.
Lua::ScriptSlot slotOf(eLeadType t) { return static_cast<Lua::ScriptSlot>(static_cast<int>(t)); }

// The text of the exception being handled.
zo::string currentMessage() {
    try {
        throw;
    } catch (const std::exception& e) {
        return e.what();
    } catch (...) {
        return "unknown exception";
    }
}

}  // namespace

// ---- Descriptor

const zo::string& wBlockLuaDescriptor::getBlockClassNameS() {
    static const zo::string s = "wBlockLuaDescriptor";
    return s;
}

const zo::string& wBlockLuaDescriptor::getBlockTypeNameS() {
    static const zo::string s = "Lua script";
    return s;
}

wBlockLuaDescriptor::~wBlockLuaDescriptor() = default;

void wBlockLuaDescriptor::serialize(wBlockSerializer& s) {
    Lua::Loader* loader = s.getLoader();
    if (!s.isReading()) {
        saveLeadList(*loader, "inputs", inputs_);
        saveLeadList(*loader, "outputs", outputs_);
        saveLeadList(*loader, "outPorts", outPorts_);
        saveLeadList(*loader, "inPorts", inPorts_);
        loader->createSubtable("additional_params");
        for (std::size_t i = 0; i < additional_.size(); ++i) {
            loader->createSubtable(static_cast<int>(i) + 1);
            loader->setString("name", additional_[i].getName());
            loader->setInt("type", static_cast<int>(additional_[i].getProxy()->getType()));
            loader->endSubtable();
        }
        loader->endSubtable();
        wSimulationBlockDiscDescriptor::serialize(s);
        return;
    }

    if (loader->hasEntry("inputs")) inputs_ = loadLeadList(*loader, "inputs");
    if (loader->hasEntry("outputs")) outputs_ = loadLeadList(*loader, "outputs");
    if (loader->hasEntry("outPorts")) outPorts_ = loadLeadList(*loader, "outPorts");
    if (loader->hasEntry("inPorts")) inPorts_ = loadLeadList(*loader, "inPorts");
    // A hand-written block without additional parameters may leave the array out.
    wParameterList additional;
    if (loader->tryBeginSubtable("additional_params")) {
        loader->beginArray();
        while (loader->nextArray()) {
            const int type = loader->getInt("type");
            if (type > 5) throw wSimulationException("Invalid parameter type");
            additional.push_back(createParameter(type, loader->getString("name")));
        }
        loader->endSubtable();
    }
    additional_ = std::move(additional);
    // The base entry restores every parameter's value by name, "File name" among them.
    wSimulationBlockDiscDescriptor::serialize(s);

    if (s.isReading() && s.isRuntime()) {
        checkLeads();
        loadScript_(s.getDirectory());
    }
}

wParameterList wBlockLuaDescriptor::getParametersList() {
    wParameterList list;
    list.reserve(additional_.size() + 1);
    list.push_back(parameterRef("File name", fileName));
    for (const wBlockParameterContainer& p : additional_)
        list.emplace_back(p.getName(), p.getProxy()->makeReference());
    return list;
}

void wBlockLuaDescriptor::setParameters(const zo::vector<wBlockParameterContainer>& parameters) {
    // Owning copies, built before the old list goes: `parameters` may refer to it.
    wParameterList copies;
    for (std::size_t i = 1; i < parameters.size(); ++i) {
        const wBlockParameterContainer& p = parameters[i];
        copies.emplace_back(p.getName(), p.getProxy() ? p.getProxy()->clone(true) : nullptr);
    }
    additional_ = std::move(copies);
}

bool wBlockLuaDescriptor::getParamValue_(const zo::basic_string<char>& name, zo::basic_string<char>& value) const {
    if (name == "File name") {
        value = fileName.get();
        return true;
    }
    for (const wBlockParameterContainer& p : additional_) {
        if (p.getName() != name || !p.getProxy()) continue;
        value = p.getProxy()->toString();
        return true;
    }
    return false;
}

void wBlockLuaDescriptor::checkLeads() const {
    checkObjectIdLeads_();
    for (const bool isInput : {true, false}) {
        for (const wLeadDescription& lead : getLeads(isInput, true)) {
            if (lead.type != LEAD_OBJECT_PTR) continue;
            const zo::string where = " (Lua block " + getName() + ", " + leadKindName(isInput, true) + " " + lead.name + ")";
            if (isInput) throw wSimulationException("Lua blocks cannot have input ports of type ObjectPtr" + where);
            throw wSimulationException("Cannot create output port of type wWireObjectPtrBase" + where);
        }
    }
}

void wBlockLuaDescriptor::checkObjectIdLeads_() const {
    for (const bool isInput : {true, false}) {
        for (const bool isPort : {false, true}) {
            // An object id arriving at an input port is passed on as an integer.
            if (isInput && isPort) continue;
            for (const wLeadDescription& lead : getLeads(isInput, isPort)) {
                if (lead.type != LEAD_OBJECT_ID) continue;
                throw wSimulationException("Lua block " + getName() + ": " + leadKindName(isInput, isPort) + " " +
                                           lead.name +
                                           " has lead type 6 (object id), which scripts cannot read or write; "
                                           "use an integer lead (type 0) instead");
            }
        }
    }
}

void wBlockLuaDescriptor::substitute_(zo::string& text, int line) const {
    int substitutions = 0;
    // The length is read again at each step: values change it.
    for (std::size_t i = 0; i + 1 < text.size(); ++i) {
        if (text[i] != '$' || text[i + 1] != '{') continue;
        const std::size_t close = text.find('}', i + 2);
        if (close == zo::string::npos) throw wSimulationException("Unmatched ${ on line " + std::to_string(line));
        const zo::string name = text.substr(i + 2, close - i - 2);
        zo::string value;
        if (!getParamValue_(name, value))
            throw wSimulationException("Parameter " + name + ", referenced on line " + std::to_string(line) +
                                       " not found.");
        if (++substitutions > kMaxSubstitutionsPerLine)
            throw wSimulationException("Substitution on line " + std::to_string(line) + " does not end: the value of " +
                                       name + " keeps bringing new references");
        text.replace(i, close - i + 1, value);
        // Scanning goes on at i + 1: a reference that begins later inside the value is
        // substituted too, one that begins at i is not looked at again.
    }
}

void wBlockLuaDescriptor::loadScript_(const zo::basic_string<char>& directory) {
    const zo::string path = directory + fileName.get();
    std::ifstream in(path.c_str());
    if (!in) throw wSimulationException("Cannot open file: " + path);
    zo::string script, text;
    for (int line = 1; std::getline(in, text); ++line) {
        substitute_(text, line);
        script += text;
        script += '\n';
    }

    zo::string error;
    const zo::string stateName = "wBlockLuaDescriptor::loadScript_ " + path;
    Lua::ScriptState state = Lua::openScriptState(stateName.c_str(), Lua::currentScriptSettings(), &error);
    if (!state) throw wSimulationException("Cannot load " + path + ": " + error + " (Lua block " + getName() + ")");
    // From here on the new state is this descriptor's, even if the script fails.
    state_ = std::move(state);
    lua_State* L = state_.get();
    if (!Lua::runScriptChunk(L, script, &error))
        throw wSimulationException("Cannot load " + path + ": " + error + " (Lua block " + getName() + ")");

    // Only nil is refused here; on_<port> functions are checked, as functions, per block.
    for (const char* function : {"init", "run"}) {
        const Lua::ScriptGlobal kind = Lua::scriptGlobalKind(L, function, &error);
        if (kind == Lua::ScriptGlobal::failed) throw wSimulationException("Cannot load " + path + ": " + error);
        if (kind == Lua::ScriptGlobal::nil)
            throw wSimulationException(zo::string("No ") + function + " function in " + path);
    }
    if (!Lua::setScriptGlobalTable(L, "__instance_tables", &error))
        throw wSimulationException("Cannot load " + path + ": " + error);
}

wSimulationBlockDisc* wBlockLuaDescriptor::create(Lua::Loader*, wSimulationSystem* system) const {
    if (!state_)
        throw wSimulationException("Lua block " + getName() +
                                   " has no script loaded: load the scheme for running before instantiating it");
    // Object pointers fail where the Part of the port layer says they do (the output
    // port array, the input port below); object ids have no accessor at all.
    checkObjectIdLeads_();
    auto block = std::make_unique<wBlockLua>(this, system);
    // On failure the block goes, detaching whatever the script has of it.
    block->start_();
    return block.release();
}

// ---- Input port proxy

void wBlockLuaInputPortProxy::callWithNumbers(std::initializer_list<double> numbers) {
    Lua::ScriptArgs args;
    for (const double v : numbers) args.numbers[args.count++] = v;
    block_->callFunction(function_.c_str(), args);
}

void wBlockLuaInputPortProxy::call(const int& value) { callWithNumbers({static_cast<double>(value)}); }

void wBlockLuaInputPortProxy::call(const bool& value) {
    Lua::ScriptArgs args;
    args.boolean = true;
    args.flag = value;
    block_->callFunction(function_.c_str(), args);
}

void wBlockLuaInputPortProxy::call(const double& value) { callWithNumbers({value}); }

void wBlockLuaInputPortProxy::call(const Vec3d& value) { callWithNumbers({value.x, value.y, value.z}); }

// The stored fourth component first, as the wire getter gives it.
void wBlockLuaInputPortProxy::call(const Rot3d& value) { callWithNumbers({value.w, value.x, value.y, value.z}); }

void wBlockLuaInputPortProxy::call(const unsigned int& value) { callWithNumbers({static_cast<double>(value)}); }

// ---- Runtime block

namespace {

// The input port of type T whose callback is the proxy's call for T.
template <class T>
std::unique_ptr<wInputPortBase> makeScriptPort(wBlockLuaInputPortProxy* proxy) {
    using Call = void (wBlockLuaInputPortProxy::*)(const T&);
    return std::make_unique<wInputPortImpl<T, wBlockLuaInputPortProxy>>(
        proxy, static_cast<Call>(&wBlockLuaInputPortProxy::call));
}

}  // namespace

wBlockLua::wBlockLua(const wBlockLuaDescriptor* descriptor, wSimulationSystem* system)
    : wSimulationBlockDisc(descriptor, system),
      d_(descriptor),
      state_(descriptor->getScriptState()),
      outPorts_(descriptor->getOutputPorts()) {}

wBlockLua::~wBlockLua() {
    // Closures that a script kept must not reach this block any more.
    if (instance_ != nullptr) Lua::detachScriptInstance(state_.get(), instance_);
}

void wBlockLua::start_() {
    lua_State* L = state_.get();
    zo::string error;
    const wLeadList& inPorts = d_->getInputPorts();
    proxies_.reserve(inPorts.size());
    inPorts_.reserve(inPorts.size());
    for (const wLeadDescription& lead : inPorts) {
        zo::string function = "on_" + lead.name;
        const Lua::ScriptGlobal kind = Lua::scriptGlobalKind(L, function.c_str(), &error);
        if (kind == Lua::ScriptGlobal::failed)
            throw wSimulationException("Error: " + error + " (looking up " + function + " of Lua block " +
                                       d_->getName() + ")");
        if (kind != Lua::ScriptGlobal::function)
            throw wSimulationException("Lua block " + d_->getName() + " has no function " + function);
        proxies_.push_back(std::make_unique<wBlockLuaInputPortProxy>(this, std::move(function)));
        wBlockLuaInputPortProxy* proxy = proxies_.back().get();
        switch (lead.type) {
            case LEAD_INT: inPorts_.push_back(makeScriptPort<int>(proxy)); break;
            case LEAD_BOOL: inPorts_.push_back(makeScriptPort<bool>(proxy)); break;
            case LEAD_DOUBLE: inPorts_.push_back(makeScriptPort<double>(proxy)); break;
            case LEAD_VECTOR: inPorts_.push_back(makeScriptPort<Vec3d>(proxy)); break;
            case LEAD_QUATERNION: inPorts_.push_back(makeScriptPort<Rot3d>(proxy)); break;
            case LEAD_OBJECT_ID: inPorts_.push_back(makeScriptPort<unsigned int>(proxy)); break;
            case LEAD_OBJECT_PTR:
                // Deliberately a pointer: hosts that build such a block in code catch it
                // as wSimulationException* (scheme files are refused when loaded).
                throw new wSimulationException("Lua blocks cannot have input ports of type ObjectPtr");
        }
    }

    // The environment: one accessor per wire and output port, in lead order.
    auto leadsOf = [](const wLeadList& leads, auto where) {
        zo::vector<Lua::ScriptLead> out;
        out.reserve(leads.size());
        for (std::size_t i = 0; i < leads.size(); ++i)
            out.push_back(Lua::ScriptLead{leads[i].name.c_str(), slotOf(leads[i].type), where(static_cast<int>(i))});
        return out;
    };
    const zo::vector<Lua::ScriptLead> inputs =
        leadsOf(d_->getInputWires(), [this](int i) { return d_->getInputWireOffset(i); });
    const zo::vector<Lua::ScriptLead> outputs =
        leadsOf(d_->getOutputWires(), [this](int i) { return d_->getOutputWireOffset(i); });
    const zo::vector<Lua::ScriptLead> outports = leadsOf(d_->getOutputPorts(), [](int i) { return i; });
    Lua::ScriptInstanceSpec spec;
    spec.key = this;
    spec.host = this;
    spec.data = system_->getDataPtr();
    spec.inputs = inputs.data();
    spec.inputCount = static_cast<int>(inputs.size());
    spec.outputs = outputs.data();
    spec.outputCount = static_cast<int>(outputs.size());
    spec.outports = outports.data();
    spec.outportCount = static_cast<int>(outports.size());
    instance_ = Lua::createScriptInstance(L, spec, &error);
    if (instance_ == nullptr)
        throw wSimulationException("Error: " + error + " (building the environment of Lua block " + d_->getName() +
                                   ")");

    callFunction("init", Lua::ScriptArgs{});
}

wInputPortBase* wBlockLua::getInputPort(std::string_view name) {
    const int i = d_->getLeadIndex(true, true, name, false);
    if (i < 0 || static_cast<std::size_t>(i) >= inPorts_.size()) return wSimulationBlockDisc::getInputPort(name);
    return inPorts_[static_cast<std::size_t>(i)].get();
}

wOutputPortBase* wBlockLua::getOutputPort(std::string_view name) {
    const int i = d_->getLeadIndex(false, true, name, false);
    if (i < 0 || static_cast<std::size_t>(i) >= outPorts_.size()) return wSimulationBlockDisc::getOutputPort(name);
    return outPorts_[static_cast<std::size_t>(i)];
}

double wBlockLua::step(double t) {
    if (wSimulationLogger::tracingSteps()) [[unlikely]] wSimulationLogger::traceStep("wBlockLua", t);

    Lua::ScriptArgs args;
    args.count = 1;
    args.numbers[0] = t;
    double r = 0.0;
    if (call_("run", args, true, &r) == Lua::ScriptCallResult::notANumber)
        throw wSimulationException("Function \"run\" in lua script hasn't returned a number, block \"" +
                                   d_->getName() + "\"");
    // The delay to the next update, or exactly -1: never again.
    if (r > 0.0 || r == -1.0) return r;
    throw wSimulationException("Function \"run\" in lua script hasn't returned a valid number (" + doubleToString(r) +
                               "), block \"" + d_->getName() + "\"");
}

void wBlockLua::callFunction(const char* function, const Lua::ScriptArgs& args) {
    call_(function, args, false, nullptr);
}

Lua::ScriptCallResult wBlockLua::call_(const char* function, const Lua::ScriptArgs& args, bool wantNumber,
                                       double* number) {
    // Calls nest when a script sends to a port that leads back into this block: each
    // keeps its own record of what its receivers threw.
    std::exception_ptr outer = std::exchange(pending_, nullptr);
    zo::string outerMessage = std::move(pendingMessage_);
    zo::string error;
    const Lua::ScriptCallResult result =
        Lua::callScriptFunction(state_.get(), this, function, args, wantNumber, number, &error);
    std::exception_ptr thrown = std::exchange(pending_, std::move(outer));
    zo::string thrownMessage = std::exchange(pendingMessage_, std::move(outerMessage));
    if (result != Lua::ScriptCallResult::failed) return result;
    // The call failed with what a receiver threw, unchanged: hand that exception on.
    if (thrown && error == thrownMessage) std::rethrow_exception(thrown);
    throw wSimulationException("Error: " + error + " (in " + function + " of Lua block " + d_->getName() + ")");
}

const char* wBlockLua::sendFromScript(int port, const void* value) noexcept {
    try {
        outPorts_[static_cast<std::size_t>(port)]->sendFromPtr(value);
        return nullptr;
    } catch (...) {
        pending_ = std::current_exception();
        try {
            pendingMessage_ = currentMessage();
        } catch (...) {
            pendingMessage_.clear();
        }
        return pendingMessage_.c_str();
    }
}

// ---- Snapshots

void wBlockLua::saveSnapshot(wSnapshotWriter& out) const {
    zo::vector<unsigned char> bytes;
    zo::string error;
    if (!Lua::saveScriptInstanceState(state_.get(), static_cast<const void*>(this), &bytes, &error))
        throw wSimulationException("Lua block " + d_->getName() + ": its script's state cannot be saved: " + error);
    out.put(static_cast<std::uint32_t>(bytes.size()));
    out.putBytes(bytes.data(), bytes.size());
}

void wBlockLua::restoreSnapshot(wSnapshotReader& in) {
    const std::size_t size = in.getCount(1, "Lua script state");
    const unsigned char* bytes = in.getBytes(size, "Lua script state");
    zo::string error;
    if (!Lua::restoreScriptInstanceState(state_.get(), static_cast<const void*>(this), bytes, size, &error))
        in.fail("Lua block " + d_->getName() + ": " + error);
}
