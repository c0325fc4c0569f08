// End-to-end tests of the timer blocks through scheme files.
#include <gtest/gtest.h>

#include <cstring>
#include <iomanip>
#include <sstream>

#include "support/SchemeFiles.h"
#include "vandrel/blocks/Timers.h"

using testutil::kIO;
using testutil::PortRecorder;
using testutil::Running;
using testutil::SchemeText;
using testutil::sendToInput;

namespace {

// A double as Lua source that reads back to the same value.
std::string num(double v) {
    std::ostringstream s;
    s << std::setprecision(17) << v;
    return s.str();
}

std::string param(const std::string& name, const std::string& luaValue) {
    return name + " = { value = " + luaValue + " }, ";
}

// One delay trigger with its "reset" and "timed_out" ports on the scheme.
std::string delayScheme(double dt, bool enabled, double delay) {
    SchemeText s;
    const int d = s.block("delay", "wBlockDelayTriggerDescriptor",
                          param("dt", num(dt)) + param("enabled", enabled ? "true" : "false") +
                              param("delay_time", num(delay)));
    s.inputPort("reset", LEAD_BOOL);
    s.outputPort("timed_out", LEAD_BOOL);
    s.port(kIO, "reset", d, "reset");
    s.port(d, "timed_out", kIO, "timed_out");
    return s.text();
}

// Runs `n` updates of a scheme whose discrete blocks share one period, from scheme time
// *T on, and returns what `rec` received during each.
std::vector<std::vector<bool>> runUpdates(wSimulationSystem& sys, PortRecorder<bool>& rec, int n, double* T) {
    std::vector<std::vector<bool>> got;
    for (int i = 0; i < n; ++i) {
        *T += sys.simulate(*T);
        got.push_back(rec.take());
    }
    return got;
}

using Updates = std::vector<std::vector<bool>>;

// The updates a delay trigger, run for `n` updates, sends "timed_out" in.
Updates delayRun(double dt, bool enabled, double delay, int n) {
    Running r(delayScheme(dt, enabled, delay));
    PortRecorder<bool> rec;
    rec.listen(*r.system, "timed_out");
    double T = 0.0;
    return runUpdates(*r.system, rec, n, &T);
}

TEST(TimerBlocks, DelayTriggerFiresOnceAfterTheDelay) {
    // The first update only arms; 0.3 - 3 * 0.1 is just below 0, so the fourth fires.
    EXPECT_EQ(delayRun(0.1, true, 0.3, 7), (Updates{{false}, {}, {}, {true}, {}, {}, {}}));
    // Exact arithmetic: 0.25 left after the second update, exactly 0 at the third.
    EXPECT_EQ(delayRun(0.25, true, 0.5, 6), (Updates{{false}, {}, {true}, {}, {}, {}}));
    // A delay of 0 never counts down, so an enabled trigger never fires.
    Updates never(20);
    never[0] = {false};
    EXPECT_EQ(delayRun(0.1, true, 0.0, 20), never);
}

TEST(TimerBlocks, DelayTriggerResetPortRearms) {
    {
        // Disabled: "timed out" at the first update and at once on every reset, true or false.
        Running r(delayScheme(0.1, false, 0.3));
        PortRecorder<bool> rec;
        rec.listen(*r.system, "timed_out");
        double T = 0.0;
        EXPECT_EQ(runUpdates(*r.system, rec, 3, &T), (Updates{{true}, {}, {}}));
        sendToInput<bool>(*r.system, "reset", true);
        EXPECT_EQ(rec.take(), std::vector<bool>{true});
        sendToInput<bool>(*r.system, "reset", false);
        EXPECT_EQ(rec.take(), std::vector<bool>{true});
        EXPECT_EQ(runUpdates(*r.system, rec, 5, &T), (Updates{{}, {}, {}, {}, {}}));
    }
    {
        // Enabled: a false arriving at "reset" re-arms the full delay, after firing too.
        Running r(delayScheme(0.25, true, 0.5));
        PortRecorder<bool> rec;
        rec.listen(*r.system, "timed_out");
        double T = 0.0;
        EXPECT_EQ(runUpdates(*r.system, rec, 4, &T), (Updates{{false}, {}, {true}, {}}));
        sendToInput<bool>(*r.system, "reset", false);
        EXPECT_EQ(rec.take(), std::vector<bool>{false});
        EXPECT_EQ(runUpdates(*r.system, rec, 3, &T), (Updates{{}, {true}, {}}));
        // Re-armed half-way: the count restarts from the full delay.
        sendToInput<bool>(*r.system, "reset", true);
        EXPECT_EQ(rec.take(), std::vector<bool>{false});
        EXPECT_EQ(runUpdates(*r.system, rec, 1, &T), (Updates{{}}));
        sendToInput<bool>(*r.system, "reset", true);
        EXPECT_EQ(rec.take(), std::vector<bool>{false});
        EXPECT_EQ(runUpdates(*r.system, rec, 3, &T), (Updates{{}, {true}, {}}));
        // No registered state: a scheme holding a delay trigger cannot save its state.
        EXPECT_EQ(r.system->getSchemeStateDataSize(), -1);
    }
}

std::string multipleScheme(double dt, const std::string& times) {
    SchemeText s;
    const int d = s.block("multi", "wBlockDelayTriggerMultipleDescriptor",
                          param("dt", num(dt)) + param("delay_time", "{ " + times + " }"));
    s.outputPort("timed_out", LEAD_BOOL);
    s.port(d, "timed_out", kIO, "timed_out");
    return s.text();
}

TEST(TimerBlocks, DelayTriggerMultipleFiresOneTimePerUpdate) {
    {
        // All three times long past: still one true per update.
        Running r(multipleScheme(0.1, "1, 2, 3"));
        PortRecorder<bool> rec;
        rec.listen(*r.system, "timed_out");
        r.system->setSchemeQueueTime(5.0);
        double T = 5.0;
        EXPECT_EQ(runUpdates(*r.system, rec, 5, &T), (Updates{{true}, {true}, {true}, {}, {}}));
    }
    {
        // Unsorted: 3 holds back 1 until t passes 3 (strictly: not at t = 3).
        Running r(multipleScheme(1.0, "3, 1"));
        PortRecorder<bool> rec;
        rec.listen(*r.system, "timed_out");
        double T = 0.0;
        EXPECT_EQ(runUpdates(*r.system, rec, 7, &T), (Updates{{}, {}, {}, {}, {true}, {true}, {}}));
    }
}

TEST(TimerBlocks, DelayTriggerWireIsTrueStrictlyAfterTheDelay) {
    SchemeText s;
    const int d = s.block("w", "wBlockDelayTriggerWireDescriptor", param("dt", "0.5") + param("delay_par", "2"));
    s.outputWire("triggered", LEAD_BOOL);
    s.wire(d, "triggered", kIO, "triggered");
    Running r(s.text());
    double T = 0.0;
    for (int i = 0; i < 8; ++i) {
        const double stepTime = T;
        EXPECT_EQ(r.system->simulate(T), 0.5);
        EXPECT_EQ(r.system->getOutput<bool>("triggered"), stepTime > 2.0) << "t = " << stepTime;
        T += 0.5;
    }
    EXPECT_EQ(r.system->getSchemeStateDataSize(), 0);
}

std::string incTimerParams(bool useStart, double start, bool byPort, bool loop) {
    return param("dt", "0.25") + param("K_t", "1") + param("use_start_val", useStart ? "true" : "false") +
           param("start_val", num(start)) + param("activate_by_port", byPort ? "true" : "false") +
           param("loop", loop ? "true" : "false");
}

TEST(TimerBlocks, IncTimerMovesByKtTimesDt) {
    SchemeText s;
    const int plain = s.block("plain", "wBlockGo2doubleOntimerDescriptor", incTimerParams(true, 0, false, false));
    const int saw = s.block("saw", "wBlockGo2doubleOntimerDescriptor", incTimerParams(true, 0, false, true));
    const int fromTarget =
        s.block("fromTarget", "wBlockGo2doubleOntimerDescriptor", incTimerParams(false, 0, false, false));
    const int byPort = s.block("byPort", "wBlockGo2doubleOntimerDescriptor", incTimerParams(true, 0.5, true, false));
    s.inputWire("target", LEAD_DOUBLE);
    s.inputPort("activate", LEAD_BOOL);
    s.port(kIO, "activate", byPort, "activate");
    for (auto [index, name] : {std::pair{plain, "plain"}, std::pair{saw, "saw"}, std::pair{fromTarget, "fromTarget"},
                               std::pair{byPort, "byPort"}}) {
        s.wire(kIO, "target", index, "target");
        s.outputWire(name, LEAD_DOUBLE);
        s.wire(index, "output", kIO, name);
    }
    Running r(s.text());
    wSimulationSystem& sys = *r.system;
    sys.setInput<double>("target", 1.0);

    // The first update already steps; the fourth adds the last 0.25 (not above the gap).
    const double plainOut[] = {0.25, 0.5, 0.75, 1.0, 1.0, 1.0, 1.0};
    // With "loop", the update after reaching the target jumps back to the start value.
    const double sawOut[] = {0.25, 0.5, 0.75, 1.0, 0.0, 0.25, 0.5};
    double T = 0.0;
    for (int i = 0; i < 7; ++i) {
        EXPECT_EQ(sys.simulate(T), 0.25);
        T += 0.25;
        EXPECT_EQ(sys.getOutput<double>("plain"), plainOut[i]) << "update " << i + 1;
        EXPECT_EQ(sys.getOutput<double>("saw"), sawOut[i]) << "update " << i + 1;
        EXPECT_EQ(sys.getOutput<double>("fromTarget"), 1.0);
        // Waiting for the port: holds the start value.
        EXPECT_EQ(sys.getOutput<double>("byPort"), 0.5);
    }

    // Activated by the port, then moving; a later false does not stop it.
    sendToInput<bool>(sys, "activate", true);
    sys.simulate(T);
    T += 0.25;
    EXPECT_EQ(sys.getOutput<double>("byPort"), 0.75);
    sendToInput<bool>(sys, "activate", false);
    sys.simulate(T);
    EXPECT_EQ(sys.getOutput<double>("byPort"), 1.0);

    // Moving down works the same way.
    sys.setInput<double>("target", 0.25);
    T += 0.25;
    sys.simulate(T);
    EXPECT_EQ(sys.getOutput<double>("plain"), 0.75);
    EXPECT_EQ(sys.getOutput<double>("fromTarget"), 0.75);
}

std::string flagParams(double checkDelay, double flagTimer, bool control, bool byNot, bool byPort) {
    return param("dt", "0.5") + param("activation_check_delay", num(checkDelay)) +
           param("flag_timer", num(flagTimer)) + param("control_signal", control ? "true" : "false") +
           param("activate_by_not_control_signal", byNot ? "true" : "false") +
           param("activate_by_port", byPort ? "true" : "false");
}

TEST(TimerBlocks, FlagTimerActivationAndTiming) {
    SchemeText s;
    // Defaults except the period and the hold time: activated by the port only.
    const int byPort = s.block("byPort", "wBlockFlagOnSignalTimerDescriptor", flagParams(1.0, 1.0, true, false, true));
    // Activated by the opposite of the control value, then timing the control value.
    const int inverse = s.block("inverse", "wBlockFlagOnSignalTimerDescriptor", flagParams(1.0, 1.0, true, true, false));
    s.inputWire("signal", LEAD_BOOL);
    s.inputPort("activate", LEAD_BOOL);
    s.port(kIO, "activate", byPort, "activate");
    for (auto [index, name] : {std::pair{byPort, "byPort"}, std::pair{inverse, "inverse"}}) {
        s.wire(kIO, "signal", index, "signal");
        s.outputWire(std::string(name) + "_flag", LEAD_BOOL);
        s.wire(index, "timer_flag", kIO, std::string(name) + "_flag");
        s.outputPort(std::string(name) + "_p", LEAD_BOOL);
        s.port(index, "timer_flag_p", kIO, std::string(name) + "_p");
    }
    Running r(s.text());
    wSimulationSystem& sys = *r.system;
    PortRecorder<bool> recPort, recInverse;
    recPort.listen(sys, "byPort_p");
    recInverse.listen(sys, "inverse_p");
    double T = 0.0;
    auto update = [&] { T += sys.simulate(T); };

    // The signal holds the control value long past the check delay: neither activates.
    sys.setInput<bool>("signal", true);
    for (int i = 0; i < 10; ++i) update();
    EXPECT_FALSE(sys.getOutput<bool>("byPort_flag"));
    EXPECT_FALSE(sys.getOutput<bool>("inverse_flag"));

    // The opposite value activates "inverse", which then keeps its elapsed time at 0.
    sys.setInput<bool>("signal", false);
    for (int i = 0; i < 6; ++i) update();
    EXPECT_FALSE(sys.getOutput<bool>("inverse_flag"));
    EXPECT_TRUE(recInverse.take().empty());

    // A false at "activate" is ignored. Back on the control value, "inverse" raises its
    // flag after 1 s (two updates) and sends true once.
    sendToInput<bool>(sys, "activate", false);
    sys.setInput<bool>("signal", true);
    update();
    EXPECT_FALSE(sys.getOutput<bool>("inverse_flag"));
    update();
    EXPECT_TRUE(sys.getOutput<bool>("inverse_flag"));
    EXPECT_EQ(recInverse.take(), std::vector<bool>{true});
    update();
    EXPECT_FALSE(sys.getOutput<bool>("byPort_flag"));
    EXPECT_TRUE(recPort.take().empty());

    // A true at "activate" activates at once; the flag follows after 1 s of the signal.
    sendToInput<bool>(sys, "activate", true);
    update();
    EXPECT_FALSE(sys.getOutput<bool>("byPort_flag"));
    update();
    EXPECT_TRUE(sys.getOutput<bool>("byPort_flag"));
    EXPECT_EQ(recPort.take(), std::vector<bool>{true});

    // Once raised, never lowered, and never sent again.
    sys.setInput<bool>("signal", false);
    for (int i = 0; i < 3; ++i) update();
    sys.setInput<bool>("signal", true);
    for (int i = 0; i < 3; ++i) update();
    EXPECT_TRUE(sys.getOutput<bool>("byPort_flag"));
    EXPECT_TRUE(sys.getOutput<bool>("inverse_flag"));
    EXPECT_TRUE(recPort.take().empty());
    EXPECT_TRUE(recInverse.take().empty());
}

// An IncTimer and a Flag timer (both with registered state) and a ramp (size 0).
std::string stateScheme() {
    SchemeText s;
    const int inc = s.block("inc", "wBlockGo2doubleOntimerDescriptor",
                            param("dt", "0.25") + param("K_t", "0.3") + param("use_start_val", "true") +
                                param("start_val", "0.1") + param("activate_by_port", "false") + param("loop", "true"));
    const int flag = s.block("flag", "wBlockFlagOnSignalTimerDescriptor",
                             param("dt", "0.25") + param("activation_check_delay", "1") + param("flag_timer", "1.1") +
                                 param("control_signal", "true") + param("activate_by_not_control_signal", "false") +
                                 param("activate_by_port", "true"));
    const int ramp = s.block("ramp", "wBlockRampDescriptor", param("dt", "0.25") + param("slope", "1"));
    s.inputWire("target", LEAD_DOUBLE);
    s.inputWire("signal", LEAD_BOOL);
    s.inputPort("activate", LEAD_BOOL);
    s.outputWire("value", LEAD_DOUBLE);
    s.outputWire("flag", LEAD_BOOL);
    s.wire(kIO, "target", inc, "target");
    s.wire(kIO, "target", ramp, "target");
    s.wire(kIO, "signal", flag, "signal");
    s.port(kIO, "activate", flag, "activate");
    s.wire(inc, "output", kIO, "value");
    s.wire(flag, "timer_flag", kIO, "flag");
    return s.text();
}

TEST(TimerBlocks, StateBlobContinuesBitIdentically) {
    Running r(stateScheme());
    wSimulationSystem& sys = *r.system;
    sys.setInput<double>("target", 1.7);
    sys.setInput<bool>("signal", true);
    double T = 0.0;
    for (int i = 0; i < 6; ++i) T += sys.simulate(T);
    // Activated through the port, then three updates on the control value: 0.75 s held.
    sendToInput<bool>(sys, "activate", true);
    for (int i = 0; i < 3; ++i) T += sys.simulate(T);
    EXPECT_FALSE(sys.getOutput<bool>("flag"));

    // inc: value 8 + first-update flag 1 + active flag 1; flag: 1 + 1 + elapsed 8; ramp: 0.
    ASSERT_EQ(sys.getSchemeStateDataSize(), 20);
    zo::vector<unsigned char> blob;
    ASSERT_TRUE(sys.getSchemeStateData(&blob));
    ASSERT_EQ(blob.size(), 20u);
    const double saved = sys.getOutput<double>("value");
    EXPECT_EQ(std::memcmp(blob.data(), &saved, sizeof saved), 0);
    EXPECT_EQ(blob[8], 0);   // inc: first update done
    EXPECT_EQ(blob[9], 1);   // inc: active
    EXPECT_EQ(blob[10], 1);  // flag: activated
    EXPECT_EQ(blob[11], 0);  // flag: not raised yet
    const double queueTime = sys.getSchemeQueueTime();
    EXPECT_EQ(queueTime, T);

    // A fresh system of the same scheme, given the blob and the queue time.
    auto copy = r.scheme->instantiate();
    copy->setSchemeStateData(&blob);
    copy->setSchemeQueueTime(queueTime);
    copy->setInput<double>("target", 1.7);
    copy->setInput<bool>("signal", true);

    bool raised = false;
    for (int i = 0; i < 12; ++i) {
        const double d1 = sys.simulate(T);
        const double d2 = copy->simulate(T);
        EXPECT_EQ(d1, d2);
        const double a = sys.getOutput<double>("value");
        const double b = copy->getOutput<double>("value");
        EXPECT_EQ(std::memcmp(&a, &b, sizeof a), 0) << "update " << i;
        EXPECT_EQ(sys.getOutput<bool>("flag"), copy->getOutput<bool>("flag")) << "update " << i;
        raised = raised || sys.getOutput<bool>("flag");
        T += d1;
    }
    // The continuation depended on the restored elapsed time: the flag rose within it.
    EXPECT_TRUE(raised);
}

TEST(TimerBlocks, SaveAndReloadKeepsEverySetting) {
    SchemeText s;
    const int delay = s.block("delay", "wBlockDelayTriggerDescriptor",
                              param("dt", "0.125") + param("enabled", "true") + param("delay_time", "2.5"));
    s.block("multi", "wBlockDelayTriggerMultipleDescriptor", param("dt", "0.5") + param("delay_time", "{ 3, 1.5, 7 }"));
    s.block("wire", "wBlockDelayTriggerWireDescriptor", param("dt", "0.25") + param("delay_par", "4.5"));
    const int inc = s.block("inc", "wBlockGo2doubleOntimerDescriptor",
                            param("dt", "0.2") + param("K_t", "3") + param("use_start_val", "true") +
                                param("start_val", "-1.5") + param("activate_by_port", "true") + param("loop", "true"));
    const int flag = s.block("flag", "wBlockFlagOnSignalTimerDescriptor",
                             param("dt", "0.1") + param("activation_check_delay", "2") + param("flag_timer", "5") +
                                 param("control_signal", "false") + param("activate_by_not_control_signal", "true") +
                                 param("activate_by_port", "false"));
    s.inputWire("target", LEAD_DOUBLE);
    s.inputWire("signal", LEAD_BOOL);
    s.inputPort("go", LEAD_BOOL);
    s.wire(kIO, "target", inc, "target");
    s.wire(kIO, "signal", flag, "signal");
    s.port(kIO, "go", delay, "reset");
    s.port(kIO, "go", inc, "activate");
    s.port(delay, "timed_out", flag, "activate");

    auto scheme = testutil::saveAndReload(s.text());
    EXPECT_EQ(scheme->getConnections().size(), 5u);
    EXPECT_EQ(testutil::parametersOf(*scheme, "delay"), "dt=0.125, enabled=1, delay_time=2.5");
    EXPECT_EQ(testutil::parametersOf(*scheme, "multi"), "dt=0.5, delay_time=3 1.5 7");
    EXPECT_EQ(testutil::parametersOf(*scheme, "wire"), "dt=0.25, delay_par=4.5");
    EXPECT_EQ(testutil::parametersOf(*scheme, "inc"),
              "dt=0.2, K_t=3, use_start_val=1, start_val=-1.5, activate_by_port=1, loop=1");
    EXPECT_EQ(testutil::parametersOf(*scheme, "flag"), "dt=0.1, activation_check_delay=2, flag_timer=5, "
                                                       "control_signal=0, activate_by_not_control_signal=1, activate_by_port=0");
}

}  // namespace
