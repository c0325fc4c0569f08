#include "vandrel/blocks/Timers.h"

#include <cmath>

#include "vandrel/core/Wire.h"
#include "vandrel/runtime/SimulationSystem.h"
#include "vandrel/runtime/Snapshot.h"

// ---- Delay trigger

const zo::string& wBlockDelayTriggerDescriptor::getBlockClassNameS() {
    static const zo::string s = "wBlockDelayTriggerDescriptor";
    return s;
}

const zo::string& wBlockDelayTriggerDescriptor::getBlockTypeNameS() {
    static const zo::string s = "Delay trigger";
    return s;
}

wSimulationBlockDisc* wBlockDelayTriggerDescriptor::create(Lua::Loader*, wSimulationSystem* system) const {
    return new wBlockDelayTrigger(this, system);
}

wParameterList wBlockDelayTriggerDescriptor::getParametersList() {
    wParameterList list = wSimulationBlockDiscDescriptor::getParametersList();
    list.push_back(parameterRef("dt", dt));
    list.push_back(parameterRef("enabled", enabled));
    list.push_back(parameterRef("delay_time", delayTime));
    return list;
}

const wLeadList& wBlockDelayTriggerDescriptor::getInputPorts_() const {
    static const wLeadList leads{{"reset", LEAD_BOOL}};
    return leads;
}

const wLeadList& wBlockDelayTriggerDescriptor::getOutputPorts_() const {
    static const wLeadList leads{{"timed_out", LEAD_BOOL}};
    return leads;
}

wBlockDelayTrigger::wBlockDelayTrigger(const wBlockDelayTriggerDescriptor* descriptor, wSimulationSystem* system)
    : wSimulationBlockDisc(descriptor, system), d_(descriptor), resetPort_(this, &wBlockDelayTrigger::onReset_) {}

wInputPortBase* wBlockDelayTrigger::getInputPort(std::string_view name) {
    return name == "reset" ? &resetPort_ : wSimulationBlockDisc::getInputPort(name);
}

wOutputPortBase* wBlockDelayTrigger::getOutputPort(std::string_view name) {
    return name == "timed_out" ? &timedOutPort_ : wSimulationBlockDisc::getOutputPort(name);
}

void wBlockDelayTrigger::onReset_(const bool&) {
    // "enabled" is read here only, so a change takes effect at the next reset.
    if (d_->enabled.get()) {
        remaining_ = d_->delayTime.get();
        timedOutPort_.setValue(false);
    } else {
        timedOutPort_.setValue(true);
    }
}

double wBlockDelayTrigger::step(double) {
    const double dt = d_->dt.get();
    if (firstUpdate_) {
        // The first step only arms (or reports at once); it counts no time.
        onReset_(true);
        firstUpdate_ = false;
        return dt;
    }
    // A delay of 0 or less never counts down, so it never fires while enabled.
    if (remaining_ > 0) {
        remaining_ -= dt;
        if (remaining_ <= 0) {
            timedOutPort_.setValue(true);
            remaining_ = 0.0;
        }
    }
    return dt;
}

// ---- Delay trigger multiple

const zo::string& wBlockDelayTriggerMultipleDescriptor::getBlockClassNameS() {
    static const zo::string s = "wBlockDelayTriggerMultipleDescriptor";
    return s;
}

const zo::string& wBlockDelayTriggerMultipleDescriptor::getBlockTypeNameS() {
    static const zo::string s = "Delay trigger multiple";
    return s;
}

wSimulationBlockDisc* wBlockDelayTriggerMultipleDescriptor::create(Lua::Loader*, wSimulationSystem* system) const {
    return new wBlockDelayTriggerMultiple(this, system);
}

wParameterList wBlockDelayTriggerMultipleDescriptor::getParametersList() {
    wParameterList list = wSimulationBlockDiscDescriptor::getParametersList();
    list.push_back(parameterRef("dt", dt));
    list.push_back(parameterRef("delay_time", delayTimes));
    return list;
}

const wLeadList& wBlockDelayTriggerMultipleDescriptor::getOutputPorts_() const {
    static const wLeadList leads{{"timed_out", LEAD_BOOL}};
    return leads;
}

wBlockDelayTriggerMultiple::wBlockDelayTriggerMultiple(const wBlockDelayTriggerMultipleDescriptor* descriptor,
                                                       wSimulationSystem* system)
    : wSimulationBlockDisc(descriptor, system),
      d_(descriptor),
      times_(descriptor->delayTimes.get()),
      count_(static_cast<int>(times_.size())) {}

wOutputPortBase* wBlockDelayTriggerMultiple::getOutputPort(std::string_view name) {
    return name == "timed_out" ? &timedOutPort_ : wSimulationBlockDisc::getOutputPort(name);
}

double wBlockDelayTriggerMultiple::step(double t) {
    // At most one time per step; an unsorted later time holds back the ones after it.
    if (next_ < count_ && t > times_[static_cast<std::size_t>(next_)]) {
        ++next_;
        timedOutPort_.setValue(true);
    }
    return d_->dt.get();
}

// ---- Delay trigger wire

const zo::string& wBlockDelayTriggerWireDescriptor::getBlockClassNameS() {
    static const zo::string s = "wBlockDelayTriggerWireDescriptor";
    return s;
}

const zo::string& wBlockDelayTriggerWireDescriptor::getBlockTypeNameS() {
    static const zo::string s = "Delay trigger wire";
    return s;
}

wSimulationBlockDisc* wBlockDelayTriggerWireDescriptor::create(Lua::Loader*, wSimulationSystem* system) const {
    return new wBlockDelayTriggerWire(this, system);
}

wParameterList wBlockDelayTriggerWireDescriptor::getParametersList() {
    wParameterList list = wSimulationBlockDiscDescriptor::getParametersList();
    list.push_back(parameterRef("dt", dt));
    list.push_back(parameterRef("delay_par", delayPar));
    return list;
}

const wLeadList& wBlockDelayTriggerWireDescriptor::getOutputWires_() const {
    static const wLeadList leads{{"triggered", LEAD_BOOL}};
    return leads;
}

wBlockDelayTriggerWire::wBlockDelayTriggerWire(const wBlockDelayTriggerWireDescriptor* descriptor,
                                               wSimulationSystem* system)
    : wSimulationBlockDisc(descriptor, system), d_(descriptor) {}

double wBlockDelayTriggerWire::step(double t) {
    // Strictly later; false when either value is NaN.
    writeWire<bool>(system_->getDataPtr(), d_->getOutputWireOffset(0), t > d_->delayPar.get());
    return d_->dt.get();
}

// ---- IncTimer to Double

const zo::string& wBlockGo2doubleOntimerDescriptor::getBlockClassNameS() {
    static const zo::string s = "wBlockGo2doubleOntimerDescriptor";
    return s;
}

const zo::string& wBlockGo2doubleOntimerDescriptor::getBlockTypeNameS() {
    static const zo::string s = "IncTimer to Double";
    return s;
}

wSimulationBlockDisc* wBlockGo2doubleOntimerDescriptor::create(Lua::Loader*, wSimulationSystem* system) const {
    auto block = std::make_unique<wBlockGo2doubleOntimer>(this, system);
    writeWire<double>(system->getDataPtr(), getOutputWireOffset(0), 0.0);
    return block.release();
}

wParameterList wBlockGo2doubleOntimerDescriptor::getParametersList() {
    wParameterList list = wSimulationBlockDiscDescriptor::getParametersList();
    list.push_back(parameterRef("dt", dt));
    list.push_back(parameterRef("K_t", kT));
    list.push_back(parameterRef("use_start_val", useStartVal));
    list.push_back(parameterRef("start_val", startVal));
    list.push_back(parameterRef("activate_by_port", activateByPort));
    list.push_back(parameterRef("loop", loop));
    return list;
}

const wLeadList& wBlockGo2doubleOntimerDescriptor::getInputPorts_() const {
    static const wLeadList leads{{"activate", LEAD_BOOL}};
    return leads;
}

const wLeadList& wBlockGo2doubleOntimerDescriptor::getInputWires_() const {
    static const wLeadList leads{{"target", LEAD_DOUBLE}};
    return leads;
}

const wLeadList& wBlockGo2doubleOntimerDescriptor::getOutputWires_() const {
    static const wLeadList leads{{"output", LEAD_DOUBLE}};
    return leads;
}

wBlockGo2doubleOntimer::wBlockGo2doubleOntimer(const wBlockGo2doubleOntimerDescriptor* descriptor,
                                               wSimulationSystem* system)
    : wSimulationBlockDisc(descriptor, system), d_(descriptor), active_(!descriptor->activateByPort.get()) {}

wInputPortBase* wBlockGo2doubleOntimer::getInputPort(std::string_view name) {
    return name == "activate" ? &activatePort_ : wSimulationBlockDisc::getInputPort(name);
}

void wBlockGo2doubleOntimer::registerStateData() {
    regVar(current_);
    regVar(firstUpdate_);
    regVar(active_);
}

double wBlockGo2doubleOntimer::step(double) {
    unsigned char* data = system_->getDataPtr();
    const double target = readWire<double>(data, d_->getInputWireOffset(0));
    const double h = d_->dt.get();

    if (activatePort_.getValue()) active_ = true;
    if (firstUpdate_) {
        current_ = d_->useStartVal.get() ? d_->startVal.get() : target;
        firstUpdate_ = false;
    }
    if (active_) {
        const double step = d_->kT.get() * h;
        if (step > std::abs(target - current_)) {
            // Within one step: land on the target, or saw back to the start value.
            current_ = d_->loop.get() ? d_->startVal.get() : target;
        } else if (target > current_) {
            current_ += step;
        } else if (current_ > target) {
            current_ -= step;
        }
    }
    writeWire<double>(data, d_->getOutputWireOffset(0), current_);
    return h;
}

// ---- Flag cont. signal by timer

const zo::string& wBlockFlagOnSignalTimerDescriptor::getBlockClassNameS() {
    static const zo::string s = "wBlockFlagOnSignalTimerDescriptor";
    return s;
}

const zo::string& wBlockFlagOnSignalTimerDescriptor::getBlockTypeNameS() {
    static const zo::string s = "Flag cont. signal by timer";
    return s;
}

wSimulationBlockDisc* wBlockFlagOnSignalTimerDescriptor::create(Lua::Loader*, wSimulationSystem* system) const {
    auto block = std::make_unique<wBlockFlagOnSignalTimer>(this, system);
    writeWire<bool>(system->getDataPtr(), getOutputWireOffset(0), false);
    return block.release();
}

wParameterList wBlockFlagOnSignalTimerDescriptor::getParametersList() {
    wParameterList list = wSimulationBlockDiscDescriptor::getParametersList();
    list.push_back(parameterRef("dt", dt));
    list.push_back(parameterRef("activation_check_delay", activationCheckDelay));
    list.push_back(parameterRef("flag_timer", flagTimer));
    list.push_back(parameterRef("control_signal", controlSignal));
    list.push_back(parameterRef("activate_by_not_control_signal", activateByNotControlSignal));
    list.push_back(parameterRef("activate_by_port", activateByPort));
    return list;
}

const wLeadList& wBlockFlagOnSignalTimerDescriptor::getInputPorts_() const {
    static const wLeadList leads{{"activate", LEAD_BOOL}};
    return leads;
}

const wLeadList& wBlockFlagOnSignalTimerDescriptor::getOutputPorts_() const {
    static const wLeadList leads{{"timer_flag_p", LEAD_BOOL}};
    return leads;
}

const wLeadList& wBlockFlagOnSignalTimerDescriptor::getInputWires_() const {
    static const wLeadList leads{{"signal", LEAD_BOOL}};
    return leads;
}

const wLeadList& wBlockFlagOnSignalTimerDescriptor::getOutputWires_() const {
    static const wLeadList leads{{"timer_flag", LEAD_BOOL}};
    return leads;
}

wBlockFlagOnSignalTimer::wBlockFlagOnSignalTimer(const wBlockFlagOnSignalTimerDescriptor* descriptor,
                                                 wSimulationSystem* system)
    : wSimulationBlockDisc(descriptor, system),
      d_(descriptor),
      activatePort_(this, &wBlockFlagOnSignalTimer::onActivate_) {}

wInputPortBase* wBlockFlagOnSignalTimer::getInputPort(std::string_view name) {
    return name == "activate" ? &activatePort_ : wSimulationBlockDisc::getInputPort(name);
}

wOutputPortBase* wBlockFlagOnSignalTimer::getOutputPort(std::string_view name) {
    return name == "timer_flag_p" ? &flagPort_ : wSimulationBlockDisc::getOutputPort(name);
}

void wBlockFlagOnSignalTimer::registerStateData() {
    regVar(activated_);
    regVar(raised_);
    regVar(elapsed_);
}

void wBlockFlagOnSignalTimer::onActivate_(const bool& value) {
    if (value) activated_ = true;
}

double wBlockFlagOnSignalTimer::step(double t) {
    unsigned char* data = system_->getDataPtr();
    const bool signal = readWire<bool>(data, d_->getInputWireOffset(0));
    const double dt = d_->dt.get();
    const bool control = d_->controlSignal.get();

    // Activation compares with the possibly negated control value...
    if (t > d_->activationCheckDelay.get() && !activated_ && !d_->activateByPort.get()) {
        const bool activating = d_->activateByNotControlSignal.get() ? !control : control;
        if (signal == activating) activated_ = true;
    }
    if (!activated_) return dt;

    // ...while the timing always compares with the control value itself.
    if (signal != control) elapsed_ = 0.0;
    else elapsed_ += dt;
    if (!raised_ && elapsed_ >= d_->flagTimer.get()) {
        raised_ = true;
        flagPort_.setValue(true);
    }
    writeWire<bool>(data, d_->getOutputWireOffset(0), raised_);
    return dt;
}

// ---- Snapshots of the timers that register no state

void wBlockDelayTrigger::saveSnapshot(wSnapshotWriter& out) const {
    out.put(remaining_);
    out.putFlag(firstUpdate_);
}

void wBlockDelayTrigger::restoreSnapshot(wSnapshotReader& in) {
    const double remaining = in.getFinite("delay trigger time left");
    firstUpdate_ = in.getFlag("delay trigger first step");
    remaining_ = remaining;
}

void wBlockDelayTriggerMultiple::saveSnapshot(wSnapshotWriter& out) const { out.put(static_cast<std::int32_t>(next_)); }

void wBlockDelayTriggerMultiple::restoreSnapshot(wSnapshotReader& in) {
    const auto next = in.get<std::int32_t>("delay trigger multiple index");
    if (next < 0 || next > count_)
        in.fail("delay trigger multiple " + d_->getName() + ": index " + std::to_string(next) + " of " +
                std::to_string(count_) + " times");
    next_ = next;
}
