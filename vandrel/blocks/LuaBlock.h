#pragma once
// Lua script block: a discrete block whose behaviour is a Lua 5.1 script.
//
// The descriptor holds the script's file name (relative to the scheme's directory), the
// user-defined lead lists and a list of additional parameters. A load for running reads
// the script, replaces every ${name} by the text of parameter `name` ("File name" or an
// additional parameter), and compiles it once into a Lua state that the descriptor
// shares with its clones. Each runtime block made from it gets its own environment table
// in that state, keyed by the block's address in the global "__instance_tables":
//
//   inputs.<wire>()            the wire's value (vector: x, y, z; quaternion: w, x, y, z)
//   outputs.<wire>(value...)   stores into the wire (quaternion arguments: x, y, z, w)
//   outports.<port>(value...)  sends through the output port (as the wire setter)
//
// Globals written by a script land in its block's environment; reads fall back to the
// shared globals. The script's global init() runs once per block, run(t) at each update
// and must return the delay to the next one (> 0, or -1 for never), and on_<port>(...)
// runs whenever a value arrives at input port <port>, with the value's components as
// arguments (as the wire getter gives them).
//
// Calls run under the limits of Lua::ScriptSettings (instruction budget per call,
// memory per state, optionally safe libraries only), taken from the settings in force
// when the scheme is loaded. Object-id leads (type 6) have no accessor and are refused
// among wires and output ports, as are object-pointer ports, when the scheme is loaded
// for running. The script's variables are not part of the block's saved state.
#include <exception>
#include <initializer_list>
#include <memory>
#include <string_view>

#include "vandrel/core/BlockParameter.h"
#include "vandrel/core/LeadTypes.h"
#include "vandrel/core/Ports.h"
#include "vandrel/core/SimulationBlock.h"
#include "vandrel/core/SimulationBlockDescriptor.h"
#include "vandrel/platform/LuaScript.h"

class wBlockLua;

class wBlockLuaDescriptor : public wDescriptorImpl<wBlockLuaDescriptor, wSimulationBlockDiscDescriptor> {
public:
    static const zo::string& getBlockClassNameS();  // "wBlockLuaDescriptor"
    static const zo::string& getBlockTypeNameS();   // "Lua script"

    wBlockLuaDescriptor() = default;
    // A copy (clone) shares the compiled script's state with its source.
    wBlockLuaDescriptor(const wBlockLuaDescriptor&) = default;
    wBlockLuaDescriptor& operator=(const wBlockLuaDescriptor&) = default;
    ~wBlockLuaDescriptor() override;

    // Saves "inputs", "outputs", "outPorts", "inPorts", then "additional_params" (an
    // array of { name = ..., type = <eParameterType> }), then the base entry. Reading
    // takes each list only when present; a load for running then checks the leads and
    // loads the script from the scheme's directory.
    void serialize(wBlockSerializer& s) override;
    // "File name" first (bound to the file name), then the additional parameters.
    wParameterList getParametersList() override;
    // Builds the block's ports and environment and calls init(). Throws "Lua block <name>
    // has no function on_<port>" for an input port without its function, and, as a
    // pointer to a new wSimulationException that the caller must delete, "Lua blocks
    // cannot have input ports of type ObjectPtr" (a scheme file cannot get this far).
    wSimulationBlockDisc* create(Lua::Loader* loader, wSimulationSystem* system) const override;

    void setInputs(const wLeadList& leads) { inputs_ = leads; }
    void setOutputs(const wLeadList& leads) { outputs_ = leads; }
    void setInputPorts(const wLeadList& leads) { inPorts_ = leads; }
    void setOutPorts(const wLeadList& leads) { outPorts_ = leads; }
    // Replaces the additional parameters by copies of every element but the first, which
    // is always the "File name" entry of getParametersList (edited through its reference).
    void setParameters(const zo::vector<wBlockParameterContainer>& parameters);
    const wParameterList& getAdditionalParameters() const { return additional_; }

    // The text of parameter `name`: "File name" gives the file name, any other name the
    // first additional parameter of exactly that name. False when there is none.
    bool getParamValue_(const zo::basic_string<char>& name, zo::basic_string<char>& value) const;
    // Reads the script at directory + file name (no separator is inserted), substitutes
    // ${name} references, and compiles it into a new state of this descriptor (clones
    // keep the state they had). The state is kept even when compiling fails.
    void loadScript_(const zo::basic_string<char>& directory);
    // The descriptor's Lua state; null before a script is loaded.
    lua_State* getLuaState_() const { return state_.get(); }
    const Lua::ScriptState& getScriptState() const { return state_; }

    // Throws for leads that a script cannot serve: object-id wires and output ports,
    // object-pointer input and output ports (message names the block and the lead).
    void checkLeads() const;

    wBlockParameterProxy<zo::string> fileName{zo::string()};  // script path, relative to the scheme

protected:
    const wLeadList& getInputWires_() const override { return inputs_; }
    const wLeadList& getOutputWires_() const override { return outputs_; }
    const wLeadList& getOutputPorts_() const override { return outPorts_; }
    const wLeadList& getInputPorts_() const override { return inPorts_; }

private:
    // Replaces the ${name} references of one line (number `line`, from 1).
    void substitute_(zo::string& text, int line) const;
    // Throws for an object-id wire or output port.
    void checkObjectIdLeads_() const;

    wParameterList additional_;  // owned, in order
    wLeadList inputs_, outputs_, outPorts_, inPorts_;
    Lua::ScriptState state_;     // shared with clones and with the runtime blocks
};

// The owner of a Lua block's input port: calls on_<port> of its block with each value
// that arrives (after the port has stored it).
class wBlockLuaInputPortProxy {
public:
    wBlockLuaInputPortProxy(wBlockLua* block, zo::string function) : block_(block), function_(std::move(function)) {}

    void call(const int& value);
    void call(const bool& value);
    void call(const double& value);
    void call(const Vec3d& value);
    void call(const Rot3d& value);  // as w, x, y, z
    void call(const unsigned int& value);
    const zo::string& getFunctionName() const { return function_; }

private:
    // Calls the function with these numbers as its arguments.
    void callWithNumbers(std::initializer_list<double> numbers);
    wBlockLua* block_;  // not owned: the block that owns this proxy
    zo::string function_;
};

class wBlockLua : public wSimulationBlockDisc, private Lua::ScriptHost {
public:
    wBlockLua(const wBlockLuaDescriptor* descriptor, wSimulationSystem* system);
    ~wBlockLua() override;
    wBlockLua(const wBlockLua&) = delete;
    wBlockLua& operator=(const wBlockLua&) = delete;

    wInputPortBase* getInputPort(std::string_view name) override;
    wOutputPortBase* getOutputPort(std::string_view name) override;
    // Calls run(t); its result is the delay to the next update.
    double step(double t) override;
    // The script's state for this block, as far as a snapshot can hold it (see
    // platform/LuaSnapshot.h): its own globals and the locals its functions keep.
    // Saving throws for a global that holds a function, userdata or the like.
    void saveSnapshot(wSnapshotWriter& out) const override;
    void restoreSnapshot(wSnapshotReader& in) override;

    // Calls the script's global `function` as this block's own call, with no result
    // kept. A Lua error throws "Error: <Lua message>" followed by where it happened; an
    // exception thrown by a block that received a value sent during the call passes on
    // as it was.
    void callFunction(const char* function, const Lua::ScriptArgs& args);

private:
    friend class wBlockLuaDescriptor;

    // Makes the input ports (the on_<port> functions are checked), the environment,
    // then calls init().
    void start_();
    Lua::ScriptCallResult call_(const char* function, const Lua::ScriptArgs& args, bool wantNumber, double* number);
    const char* sendFromScript(int port, const void* value) noexcept override;

    const wBlockLuaDescriptor* d_;  // not owned
    Lua::ScriptState state_;        // declared first: outlives the ports and the handle
    wOutputPortArray outPorts_;     // one per output port of the descriptor
    zo::vector<std::unique_ptr<wBlockLuaInputPortProxy>> proxies_;
    zo::vector<std::unique_ptr<wInputPortBase>> inPorts_;  // one per input port
    Lua::ScriptInstance* instance_ = nullptr;              // the environment's handle
    // An exception that a receiver threw while the script was sending, and the text the
    // script was given for it, to hand the exception on when the call fails with it.
    std::exception_ptr pending_;
    zo::string pendingMessage_;
};
