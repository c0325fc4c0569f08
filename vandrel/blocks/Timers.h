#pragma once
// Timer blocks: discrete blocks that measure scheme time. Each step returns the block's
// "dt", so a block runs every "dt" seconds; parameters are read from the descriptor at
// each use. Ports are event-driven: an output port sends only when the block sends.
//
//   wBlockDelayTrigger          re-armable one-shot: after "delay_time" sends true on
//                               "timed_out"; any value at "reset" re-arms it
//   wBlockDelayTriggerMultiple  sends true on "timed_out" as t passes each listed time,
//                               at most one per step
//   wBlockDelayTriggerWire      wire "triggered" = t > "delay_par"
//   wBlockGo2doubleOntimer      moves "output" towards the "target" wire at "K_t" per
//                               second once active (optionally sawing back to a start value)
//   wBlockFlagOnSignalTimer     raises a flag once the "signal" wire has held the control
//                               value for "flag_timer" seconds after activation
#include <memory>
#include <string_view>

#include "vandrel/core/BlockParameter.h"
#include "vandrel/core/Ports.h"
#include "vandrel/core/SimulationBlock.h"
#include "vandrel/core/SimulationBlockDescriptor.h"

// ---- Delay trigger

class wBlockDelayTriggerDescriptor
    : public wDescriptorImpl<wBlockDelayTriggerDescriptor, wSimulationBlockDiscDescriptor> {
public:
    static const zo::string& getBlockClassNameS();  // "wBlockDelayTriggerDescriptor"
    static const zo::string& getBlockTypeNameS();   // "Delay trigger"
    wSimulationBlockDisc* create(Lua::Loader* loader, wSimulationSystem* system) const override;
    wParameterList getParametersList() override;  // "dt", "enabled", "delay_time"

    wBlockParameterProxy<double> dt{0.0};          // update period (s)
    wBlockParameterProxy<bool> enabled{false};     // at each reset: arm (true) or time out at once
    wBlockParameterProxy<double> delayTime{0.0};   // delay (s)

protected:
    const wLeadList& getInputPorts_() const override;   // "reset" (bool)
    const wLeadList& getOutputPorts_() const override;  // "timed_out" (bool)
};

class wBlockDelayTrigger : public wSimulationBlockDisc {
public:
    wBlockDelayTrigger(const wBlockDelayTriggerDescriptor* descriptor, wSimulationSystem* system);
    wBlockDelayTrigger(const wBlockDelayTrigger&) = delete;
    wBlockDelayTrigger& operator=(const wBlockDelayTrigger&) = delete;

    wInputPortBase* getInputPort(std::string_view name) override;
    wOutputPortBase* getOutputPort(std::string_view name) override;
    double step(double t) override;
    // Time left and first-step flag; the blob registers none, so that a scheme with a
    // delay trigger keeps the discrete blob it always had.
    void saveSnapshot(wSnapshotWriter& out) const override;
    void restoreSnapshot(wSnapshotReader& in) override;

private:
    // Runs at the first step and on every value arriving at "reset", true or false.
    void onReset_(const bool& value);

    const wBlockDelayTriggerDescriptor* d_;  // not owned
    wInputPortImpl<bool, wBlockDelayTrigger> resetPort_;
    wOutputPort<bool> timedOutPort_;
    double remaining_ = 0.0;   // time left (s) until "timed_out"
    bool firstUpdate_ = true;  // the next step is the first one
};

// ---- Delay trigger multiple

class wBlockDelayTriggerMultipleDescriptor
    : public wDescriptorImpl<wBlockDelayTriggerMultipleDescriptor, wSimulationBlockDiscDescriptor> {
public:
    static const zo::string& getBlockClassNameS();  // "wBlockDelayTriggerMultipleDescriptor"
    static const zo::string& getBlockTypeNameS();   // "Delay trigger multiple"
    wSimulationBlockDisc* create(Lua::Loader* loader, wSimulationSystem* system) const override;
    wParameterList getParametersList() override;  // "dt", "delay_time"

    wBlockParameterProxy<double> dt{0.0};                   // update period (s)
    wBlockParameterProxy<zo::vector<double>> delayTimes{};  // firing times (s), in the given order

protected:
    const wLeadList& getOutputPorts_() const override;  // "timed_out" (bool)
};

class wBlockDelayTriggerMultiple : public wSimulationBlockDisc {
public:
    wBlockDelayTriggerMultiple(const wBlockDelayTriggerMultipleDescriptor* descriptor, wSimulationSystem* system);
    wOutputPortBase* getOutputPort(std::string_view name) override;
    double step(double t) override;
    // The index of the next time to fire.
    void saveSnapshot(wSnapshotWriter& out) const override;
    void restoreSnapshot(wSnapshotReader& in) override;

private:
    const wBlockDelayTriggerMultipleDescriptor* d_;  // not owned
    wOutputPort<bool> timedOutPort_;
    zo::vector<double> times_;  // firing times (s), copied at creation, not sorted
    int next_ = 0;              // index of the next time to fire
    int count_ = 0;             // number of times
};

// ---- Delay trigger wire

class wBlockDelayTriggerWireDescriptor
    : public wDescriptorImpl<wBlockDelayTriggerWireDescriptor, wSimulationBlockDiscDescriptor> {
public:
    static const zo::string& getBlockClassNameS();  // "wBlockDelayTriggerWireDescriptor"
    static const zo::string& getBlockTypeNameS();   // "Delay trigger wire"
    wSimulationBlockDisc* create(Lua::Loader* loader, wSimulationSystem* system) const override;
    wParameterList getParametersList() override;  // "dt", "delay_par"

    wBlockParameterProxy<double> dt{0.0};        // update period (s)
    wBlockParameterProxy<double> delayPar{0.0};  // time (s) after which the wire is true

protected:
    const wLeadList& getOutputWires_() const override;  // "triggered" (bool)
};

class wBlockDelayTriggerWire : public wSimulationBlockDisc {
public:
    wBlockDelayTriggerWire(const wBlockDelayTriggerWireDescriptor* descriptor, wSimulationSystem* system);
    double step(double t) override;
    // Stateless in practice: size 0 keeps a scheme holding it saveable.
    int getBlockStateDataSize() const override { return 0; }

private:
    const wBlockDelayTriggerWireDescriptor* d_;  // not owned
};

// ---- IncTimer to Double

class wBlockGo2doubleOntimerDescriptor
    : public wDescriptorImpl<wBlockGo2doubleOntimerDescriptor, wSimulationBlockDiscDescriptor> {
public:
    static const zo::string& getBlockClassNameS();  // "wBlockGo2doubleOntimerDescriptor"
    static const zo::string& getBlockTypeNameS();   // "IncTimer to Double"
    // Writes 0.0 to the output wire.
    wSimulationBlockDisc* create(Lua::Loader* loader, wSimulationSystem* system) const override;
    // "dt", "K_t", "use_start_val", "start_val", "activate_by_port", "loop"
    wParameterList getParametersList() override;

    wBlockParameterProxy<double> dt{0.0};               // update period (s)
    wBlockParameterProxy<double> kT{1.0};               // rate of change per second
    wBlockParameterProxy<bool> useStartVal{false};      // start from start_val, not from the target
    wBlockParameterProxy<double> startVal{0.0};         // start value
    wBlockParameterProxy<bool> activateByPort{false};   // wait for "activate" before moving
    wBlockParameterProxy<bool> loop{false};             // on reaching the target, jump back to start_val

protected:
    const wLeadList& getInputPorts_() const override;   // "activate" (bool)
    const wLeadList& getInputWires_() const override;   // "target" (double)
    const wLeadList& getOutputWires_() const override;  // "output" (double)
};

class wBlockGo2doubleOntimer : public wSimulationBlockDisc {
public:
    wBlockGo2doubleOntimer(const wBlockGo2doubleOntimerDescriptor* descriptor, wSimulationSystem* system);
    wInputPortBase* getInputPort(std::string_view name) override;
    double step(double t) override;
    // Current value, first-update flag, active flag (8 + 1 + 1 bytes).
    void registerStateData() override;

private:
    const wBlockGo2doubleOntimerDescriptor* d_;  // not owned
    wInputPort<bool> activatePort_;             // keeps the last value only
    double current_ = 0.0;                      // value written to "output"
    wStateFlag firstUpdate_ = true;             // the next step is the first one
    wStateFlag active_;                         // moving; once set, never cleared
};

// ---- Flag cont. signal by timer

class wBlockFlagOnSignalTimerDescriptor
    : public wDescriptorImpl<wBlockFlagOnSignalTimerDescriptor, wSimulationBlockDiscDescriptor> {
public:
    static const zo::string& getBlockClassNameS();  // "wBlockFlagOnSignalTimerDescriptor"
    static const zo::string& getBlockTypeNameS();   // "Flag cont. signal by timer"
    // Writes false to the "timer_flag" wire.
    wSimulationBlockDisc* create(Lua::Loader* loader, wSimulationSystem* system) const override;
    // "dt", "activation_check_delay", "flag_timer", "control_signal",
    // "activate_by_not_control_signal", "activate_by_port"
    wParameterList getParametersList() override;

    wBlockParameterProxy<double> dt{0.0};                        // update period (s)
    wBlockParameterProxy<double> activationCheckDelay{1.0};      // time (s) before the signal may activate
    wBlockParameterProxy<double> flagTimer{9999.0};              // how long (s) the signal must hold
    wBlockParameterProxy<bool> controlSignal{true};              // the value the signal must hold
    wBlockParameterProxy<bool> activateByNotControlSignal{false};  // activate on the opposite value
    wBlockParameterProxy<bool> activateByPort{true};             // only the "activate" port activates

protected:
    const wLeadList& getInputPorts_() const override;   // "activate" (bool)
    const wLeadList& getOutputPorts_() const override;  // "timer_flag_p" (bool)
    const wLeadList& getInputWires_() const override;   // "signal" (bool)
    const wLeadList& getOutputWires_() const override;  // "timer_flag" (bool)
};

class wBlockFlagOnSignalTimer : public wSimulationBlockDisc {
public:
    wBlockFlagOnSignalTimer(const wBlockFlagOnSignalTimerDescriptor* descriptor, wSimulationSystem* system);
    wBlockFlagOnSignalTimer(const wBlockFlagOnSignalTimer&) = delete;
    wBlockFlagOnSignalTimer& operator=(const wBlockFlagOnSignalTimer&) = delete;

    wInputPortBase* getInputPort(std::string_view name) override;
    wOutputPortBase* getOutputPort(std::string_view name) override;
    double step(double t) override;
    // Activated flag, flag-raised flag, elapsed time (1 + 1 + 8 bytes).
    void registerStateData() override;

private:
    // A true value activates the block at once, whatever "activate_by_port" says.
    void onActivate_(const bool& value);

    const wBlockFlagOnSignalTimerDescriptor* d_;  // not owned
    wInputPortImpl<bool, wBlockFlagOnSignalTimer> activatePort_;
    wOutputPort<bool> flagPort_;  // "timer_flag_p"
    wStateFlag activated_ = false;  // timing the signal
    wStateFlag raised_ = false;     // the flag is up; never lowered
    double elapsed_ = 0.0;        // time (s) the signal has held the control value
};
