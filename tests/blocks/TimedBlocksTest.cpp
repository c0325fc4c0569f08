// Blocks with time and state through real scheme files: timers, the ramp and the
// integrators, the multiplexor and the oscilloscope.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <limits>

#include "blocks/BlockTestUtil.h"
#include "vandrel/blocks/Multiplexer.h"
#include "vandrel/blocks/Oscilloscope.h"

namespace {

using blocktest::Bench;
using blocktest::params;
using testutil::kIO;
using testutil::PortRecorder;
using testutil::Running;
using testutil::SchemeText;
using testutil::sendToInput;
using Updates = std::vector<std::vector<bool>>;

// What `rec` received during each of `n` updates of `sys`, from scheme time *T on.
Updates run(wSimulationSystem& sys, PortRecorder<bool>& rec, int n, double* T) {
    Updates got;
    for (int i = 0; i < n; ++i) {
        *T += sys.simulate(*T);
        got.push_back(rec.take());
    }
    return got;
}

// A delay trigger with its "reset" and "timed_out" ports on the scheme, and a recorder.
struct Delay {
    Delay(const char* dt, bool enabled, const char* delay) : r(text(dt, enabled, delay)) { rec.listen(*r.system, "timed_out"); }
    static std::string text(const char* dt, bool enabled, const char* delay) {
        SchemeText s;
        const int d = s.block("delay", "wBlockDelayTriggerDescriptor",
                              params({{"dt", dt}, {"enabled", enabled ? "true" : "false"}, {"delay_time", delay}}));
        s.inputPort("reset", LEAD_BOOL);
        s.outputPort("timed_out", LEAD_BOOL);
        s.port(kIO, "reset", d, "reset");
        s.port(d, "timed_out", kIO, "timed_out");
        return s.text();
    }
    Updates updates(int n) { return run(*r.system, rec, n, &T); }
    std::vector<bool> reset(bool v) {
        sendToInput(*r.system, "reset", v);
        return rec.take();
    }
    Running r;
    PortRecorder<bool> rec;
    double T = 0;
};

TEST(TimerBlocks, DelayTriggerFiresOnceAfterTheDelayAndResetRearms) {
    // The first update only arms; 0.3 - 3 * 0.1 is just below 0, so the fourth fires.
    EXPECT_EQ(Delay("0.1", true, "0.3").updates(6), (Updates{{false}, {}, {}, {true}, {}, {}}));
    // A delay of 0 never counts down, so an enabled trigger never fires.
    EXPECT_EQ(Delay("0.1", true, "0").updates(12), (Updates{{false}, {}, {}, {}, {}, {}, {}, {}, {}, {}, {}, {}}));
    // Disabled: "timed out" at the first update and at once on every reset, true or false.
    Delay off("0.1", false, "0.3");
    EXPECT_EQ(off.updates(2), (Updates{{true}, {}}));
    EXPECT_EQ(off.reset(true), std::vector<bool>{true});
    EXPECT_EQ(off.reset(false), std::vector<bool>{true});
    EXPECT_EQ(off.updates(3), (Updates{{}, {}, {}}));
    // Exact arithmetic: 0.25 left after the second update, 0 at the third. Any value at
    // "reset" re-arms the full delay, after firing and half-way alike.
    Delay on("0.25", true, "0.5");
    EXPECT_EQ(on.updates(4), (Updates{{false}, {}, {true}, {}}));
    EXPECT_EQ(on.reset(false), std::vector<bool>{false});
    EXPECT_EQ(on.updates(3), (Updates{{}, {true}, {}}));
    EXPECT_EQ(on.reset(true), std::vector<bool>{false});
    EXPECT_EQ(on.updates(1), (Updates{{}}));
    EXPECT_EQ(on.reset(true), std::vector<bool>{false});
    EXPECT_EQ(on.updates(3), (Updates{{}, {true}, {}}));
    EXPECT_EQ(on.r.system->getSchemeStateDataSize(), -1);  // no registered state: not saveable
}

TEST(TimerBlocks, MultipleDelaysAndTheDelayWire) {
    auto multiple = [](const char* dt, const char* times) {
        SchemeText s;
        const int d = s.block("multi", "wBlockDelayTriggerMultipleDescriptor", params({{"dt", dt}, {"delay_time", times}}));
        s.outputPort("timed_out", LEAD_BOOL);
        s.port(d, "timed_out", kIO, "timed_out");
        return s.text();
    };
    // All three times long past: still one true per update.
    Running past(multiple("0.1", "{ 1, 2, 3 }"));
    PortRecorder<bool> rec;
    rec.listen(*past.system, "timed_out");
    past.system->setSchemeQueueTime(5.0);
    double T = 5.0;
    EXPECT_EQ(run(*past.system, rec, 5, &T), (Updates{{true}, {true}, {true}, {}, {}}));
    // In the given order: 3 holds back 1 until t passes 3 (strictly: not at t = 3).
    Running unsorted(multiple("1.0", "{ 3, 1 }"));
    rec.listen(*unsorted.system, "timed_out");
    T = 0;
    EXPECT_EQ(run(*unsorted.system, rec, 7, &T), (Updates{{}, {}, {}, {}, {true}, {true}, {}}));

    Bench b;
    b.add("w", "wBlockDelayTriggerWireDescriptor", params({{"dt", "0.5"}, {"delay_par", "2"}}));
    Running wire(b.s.text());
    for (double t = 0; t < 4; t += 0.5) {
        EXPECT_EQ(wire.system->simulate(t), 0.5);
        EXPECT_EQ(wire.system->getOutput<bool>("w.triggered"), t > 2.0) << "t = " << t;
    }
    EXPECT_EQ(wire.system->getSchemeStateDataSize(), 0);
    b.add("multi", "wBlockDelayTriggerMultipleDescriptor", params({{"dt", "0.5"}, {"delay_time", "{ 3, 1.5, 7 }"}}));
    auto scheme = testutil::saveAndReload(b.s.text());
    EXPECT_EQ(testutil::parametersOf(*scheme, "multi"), "dt=0.5, delay_time=3 1.5 7");
    EXPECT_EQ(testutil::parametersOf(*scheme, "w"), "dt=0.5, delay_par=2");
    EXPECT_EQ(testutil::parametersOf(*testutil::saveAndReload(Delay::text("0.125", true, "2.5")), "delay"),
              "dt=0.125, enabled=1, delay_time=2.5");
}

TEST(TimerBlocks, IncTimerMovesByKtTimesDt) {
    Bench b;
    auto inc = [](bool useStart, const char* start, bool byPort, bool loop) {
        return params({{"dt", "0.25"}, {"K_t", "1"}, {"use_start_val", useStart ? "true" : "false"}, {"start_val", start},
                       {"activate_by_port", byPort ? "true" : "false"}, {"loop", loop ? "true" : "false"}});
    };
    b.add("plain", "wBlockGo2doubleOntimerDescriptor", inc(true, "0", false, false));
    b.add("saw", "wBlockGo2doubleOntimerDescriptor", inc(true, "0", false, true));
    b.add("fromTarget", "wBlockGo2doubleOntimerDescriptor", inc(false, "0", false, false));
    const int byPort = b.add("byPort", "wBlockGo2doubleOntimerDescriptor", inc(true, "0.5", true, false));
    b.s.inputPort("activate", LEAD_BOOL);
    b.s.port(kIO, "activate", byPort, "activate");
    Running r(b.s.text());
    wSimulationSystem& sys = *r.system;
    for (const char* n : {"plain", "saw", "fromTarget", "byPort"}) sys.setInput<double>(std::string(n) + ".target", 1.0);
    // The first update already steps; the fourth adds the last 0.25 (not above the gap).
    // With "loop", the update after reaching the target jumps back to the start value.
    const double plain[] = {0.25, 0.5, 0.75, 1.0, 1.0, 1.0}, saw[] = {0.25, 0.5, 0.75, 1.0, 0.0, 0.25};
    double T = 0.0;
    for (int i = 0; i < 6; ++i) {
        EXPECT_EQ(sys.simulate(T), 0.25);
        T += 0.25;
        EXPECT_EQ(sys.getOutput<double>("plain.output"), plain[i]) << i;
        EXPECT_EQ(sys.getOutput<double>("saw.output"), saw[i]) << i;
        EXPECT_EQ(sys.getOutput<double>("fromTarget.output"), 1.0);
        EXPECT_EQ(sys.getOutput<double>("byPort.output"), 0.5);  // waiting for the port
    }
    // Activated by the port, then moving; a later false does not stop it.
    for (bool v : {true, false}) {
        sendToInput(sys, "activate", v);
        sys.simulate(T);
        T += 0.25;
    }
    EXPECT_EQ(sys.getOutput<double>("byPort.output"), 1.0);
    sys.setInput<double>("plain.target", 0.25);  // moving down works the same way
    sys.simulate(T);
    EXPECT_EQ(sys.getOutput<double>("plain.output"), 0.75);
}

TEST(TimerBlocks, FlagTimerActivationAndTiming) {
    Bench b;
    auto flag = [](const char* byNot, const char* byPort) {
        return params({{"dt", "0.5"}, {"activation_check_delay", "1"}, {"flag_timer", "1"}, {"control_signal", "false"},
                       {"activate_by_not_control_signal", byNot}, {"activate_by_port", byPort}});
    };
    // Activated by the port only; or by the opposite of the control value.
    const int byPort = b.add("byPort", "wBlockFlagOnSignalTimerDescriptor", flag("false", "true"));
    const int inverse = b.add("inverse", "wBlockFlagOnSignalTimerDescriptor", flag("true", "false"));
    b.s.inputPort("activate", LEAD_BOOL);
    b.s.port(kIO, "activate", byPort, "activate");
    for (int i : {byPort, inverse}) {
        const std::string p = i == byPort ? "byPort_p" : "inverse_p";
        b.s.outputPort(p, LEAD_BOOL);
        b.s.port(i, "timer_flag_p", kIO, p);
    }
    Running r(b.s.text());
    wSimulationSystem& sys = *r.system;
    PortRecorder<bool> recPort, recInverse;
    recPort.listen(sys, "byPort_p");
    recInverse.listen(sys, "inverse_p");
    double T = 0.0;
    auto signal = [&](bool v, int updates) {
        sys.setInput<bool>("byPort.signal", v);
        sys.setInput<bool>("inverse.signal", v);
        for (int i = 0; i < updates; ++i) T += sys.simulate(T);
        return std::make_pair(sys.getOutput<bool>("byPort.timer_flag"), sys.getOutput<bool>("inverse.timer_flag"));
    };
    using Flags = std::pair<bool, bool>;
    // Holding the control value long past the check delay activates neither.
    EXPECT_EQ(signal(false, 10), Flags(false, false));
    // The opposite value activates "inverse", which keeps its elapsed time at 0 meanwhile.
    EXPECT_EQ(signal(true, 6), Flags(false, false));
    // A false at "activate" is ignored. Back on the control value, "inverse" raises its flag
    // after 1 s (two updates) and sends true once.
    sendToInput(sys, "activate", false);
    EXPECT_EQ(signal(false, 1), Flags(false, false));
    EXPECT_EQ(signal(false, 1), Flags(false, true));
    EXPECT_EQ(recInverse.take(), std::vector<bool>{true});
    // A true at "activate" activates at once; the flag follows after 1 s of the signal.
    sendToInput(sys, "activate", true);
    EXPECT_EQ(signal(false, 1), Flags(false, true));
    EXPECT_EQ(signal(false, 1), Flags(true, true));
    EXPECT_EQ(recPort.take(), std::vector<bool>{true});
    // Once raised, never lowered, and never sent again.
    signal(true, 3);
    EXPECT_EQ(signal(false, 3), Flags(true, true));
    EXPECT_TRUE(recPort.take().empty() && recInverse.take().empty());
}

TEST(TimerBlocks, StateBlobContinuesBitIdenticallyAndSettingsReload) {
    // Timers with registered state, and a ramp (state size 0).
    Bench b;
    b.add("inc", "wBlockGo2doubleOntimerDescriptor", params({{"dt", "0.25"}, {"K_t", "0.3"}, {"use_start_val", "true"},
                                                             {"start_val", "0.1"}, {"activate_by_port", "false"}, {"loop", "true"}}));
    const int flag = b.add("flag", "wBlockFlagOnSignalTimerDescriptor",
                           params({{"dt", "0.25"}, {"activation_check_delay", "1"}, {"flag_timer", "1.1"}, {"control_signal", "true"},
                                   {"activate_by_not_control_signal", "false"}, {"activate_by_port", "true"}}));
    b.add("ramp", "wBlockRampDescriptor", params({{"dt", "0.25"}, {"slope", "-3.5"}}));
    b.s.inputPort("activate", LEAD_BOOL);
    b.s.port(kIO, "activate", flag, "activate");
    auto scheme = testutil::saveAndReload(b.s.text());
    EXPECT_EQ(testutil::parametersOf(*scheme, "inc"), "dt=0.25, K_t=0.3, use_start_val=1, start_val=0.1, activate_by_port=0, loop=1");
    EXPECT_EQ(testutil::parametersOf(*scheme, "flag"), "dt=0.25, activation_check_delay=1, flag_timer=1.1, control_signal=1, "
                                                       "activate_by_not_control_signal=0, activate_by_port=1");
    EXPECT_EQ(testutil::parametersOf(*scheme, "ramp"), "dt=0.25, slope=-3.5");

    Running r(b.s.text());
    auto copy = r.scheme->instantiate();
    for (wSimulationSystem* sys : {r.system.get(), copy.get()}) {
        sys->setInput<double>("inc.target", 1.7);
        sys->setInput<bool>("flag.signal", true);
    }
    wSimulationSystem& sys = *r.system;
    double T = 0.0;
    for (int i = 0; i < 6; ++i) T += sys.simulate(T);
    // Activated through the port, then three updates on the control value: 0.75 s held.
    sendToInput(sys, "activate", true);
    for (int i = 0; i < 3; ++i) T += sys.simulate(T);
    EXPECT_FALSE(sys.getOutput<bool>("flag.timer_flag"));
    // inc: value 8 + first-update flag 1 + active flag 1; flag: 1 + 1 + elapsed 8; ramp: 0.
    zo::vector<unsigned char> blob;
    ASSERT_TRUE(sys.getSchemeStateData(&blob));
    ASSERT_EQ(blob.size(), 20u);
    const double saved = sys.getOutput<double>("inc.output");
    EXPECT_EQ(std::memcmp(blob.data(), &saved, sizeof saved), 0);
    EXPECT_EQ(std::vector<int>(blob.begin() + 8, blob.begin() + 12), std::vector<int>({0, 1, 1, 0}));
    EXPECT_EQ(sys.getSchemeQueueTime(), T);
    // A fresh system of the same scheme, given the blob and the queue time, continues.
    copy->setSchemeStateData(&blob);
    copy->setSchemeQueueTime(T);
    bool raised = false;
    for (int i = 0; i < 12; ++i, T += 0.25) {
        EXPECT_EQ(sys.simulate(T), copy->simulate(T));
        const double a = sys.getOutput<double>("inc.output"), c = copy->getOutput<double>("inc.output");
        EXPECT_EQ(std::memcmp(&a, &c, sizeof a), 0) << i;
        EXPECT_EQ(sys.getOutput<bool>("flag.timer_flag"), copy->getOutput<bool>("flag.timer_flag")) << i;
        raised = raised || sys.getOutput<bool>("flag.timer_flag");
    }
    EXPECT_TRUE(raised);  // the continuation depended on the restored elapsed time
}

TEST(IntegratorRamp, RampStepsTowardsTheTargetAndLandsOnIt) {
    Bench b;
    for (const auto& [name, slope] : {std::pair{"up", "2"}, std::pair{"flat", "0"}, std::pair{"away", "-1"}})
        b.add(name, "wBlockRampDescriptor", params({{"dt", "0.1"}, {"slope", slope}}));
    Running r(b.s.text());
    wSimulationSystem& sys = *r.system;
    auto target = [&](double v) {
        for (const char* n : {"up", "flat", "away"}) sys.setInput<double>(std::string(n) + ".target", v);
    };
    target(1.0);
    // Full steps of dt * slope = 0.2 until the gap is not above that: then the target.
    double T = 0.0;
    const double up[] = {0.2, 0.4, 0.6, 0.8, 1.0, 1.0};
    for (int i = 0; i < 6; ++i) {
        EXPECT_DOUBLE_EQ(sys.simulate(T), 0.1);
        T += 0.1;
        if (i < 4) EXPECT_NEAR(sys.getOutput<double>("up.output"), up[i], 1e-12) << i;
        else EXPECT_EQ(sys.getOutput<double>("up.output"), 1.0) << i;  // exactly, and it stays
        EXPECT_EQ(sys.getOutput<double>("flat.output"), 0.0);  // slope 0 never moves
        EXPECT_NEAR(sys.getOutput<double>("away.output"), -0.1 * (i + 1), 1e-12);  // every update, away
    }
    target(std::numeric_limits<double>::quiet_NaN());  // a NaN is copied through
    sys.simulate(T);
    EXPECT_TRUE(std::isnan(sys.getOutput<double>("up.output")) && std::isnan(sys.getOutput<double>("flat.output")) &&
                std::isnan(sys.getOutput<double>("away.output")));
    EXPECT_EQ(sys.getSchemeStateDataSize(), 0);
}

TEST(IntegratorRamp, IntegratorsAccumulateAndResetToTheirInitialValues) {
    Bench b;
    b.add("x", "wBlockIntegratorDescriptor<double>");
    b.add("p", "wBlockIntegratorDescriptor<Vec3d>");
    b.s.solver("__type = \"wSolverExplEulerDescriptor\", H = 0.125");
    b.s.inputPort("reset", LEAD_BOOL);
    b.s.port(kIO, "reset", testutil::kCmds, "reset_diff_state");
    Running r(b.s.text());
    wSimulationSystem& sys = *r.system;
    EXPECT_EQ(r.scheme->getBlockByName("x")->getInputWires()[1], (wLeadDescription{"output.initial", LEAD_DOUBLE}));
    EXPECT_EQ(r.scheme->getBlockByName("p")->getInputWires()[1], (wLeadDescription{"output.initial", LEAD_VECTOR}));
    // A step and inputs exact in binary: n steps give exactly n h c.
    const double h = 0.125;
    sys.setInput<double>("x.input", 2.5);
    sys.setInput<Vec3d>("p.input", {1.0, -2.0, 0.5});
    sys.setInput<double>("x.output.initial", 10.0);
    sys.setInput<Vec3d>("p.output.initial", {-1, 0, 4});
    double T = 0;
    for (int n = 1; n <= 8; ++n) {
        EXPECT_EQ(sys.simulate(T), h);  // without discrete blocks: one solver step per call
        T += h;
        EXPECT_EQ(sys.getOutput<double>("x.output"), n * h * 2.5);  // from 0, not the initial value
        EXPECT_EQ(sys.getOutput<Vec3d>("p.output"), (Vec3d{n * h, -2 * n * h, 0.5 * n * h}));
    }
    for (bool v : {true, false}) {
        sendToInput(sys, "reset", v);
        EXPECT_EQ(sys.getDiffState()[0], 10.0);
        sys.simulate(T);
        EXPECT_EQ(sys.getOutput<double>("x.output"), 10.0 + h * 2.5);
        EXPECT_EQ(sys.getOutput<Vec3d>("p.output"), (Vec3d{-1 + h, -2 * h, 4 + 0.5 * h}));
    }
}

// A multiplexor "mux" of lead type `type` with `outputs` of `outputType`, fed by scheme
// input port "in" and wire "sel"; output o goes to scheme output port "o" + o.
std::string muxScheme(int type, const std::vector<std::string>& outputs, int outputType) {
    SchemeText s;
    std::string leads = "outputs = { ";
    for (const auto& o : outputs) leads += "{ name = \"" + o + "\", type = " + std::to_string(outputType) + " }, ";
    const int m = s.block("mux", "wBlockMultiplexDescriptor", params({{"type", std::to_string(type)}}), leads + "}");
    s.inputPort("in", static_cast<eLeadType>(type));
    s.inputWire("sel", LEAD_INT);
    s.port(kIO, "in", m, "input");
    s.wire(kIO, "sel", m, "select");
    for (const auto& o : outputs) {
        s.outputPort("o" + o, static_cast<eLeadType>(outputType));
        s.port(m, o, kIO, "o" + o);
    }
    return s.text();
}

TEST(Multiplexer, RoutesEachValueByTheSelectWireAtArrival) {
    Running r(muxScheme(LEAD_DOUBLE, {"a", "b", "c"}, LEAD_DOUBLE));
    wSimulationSystem& sys = *r.system;
    PortRecorder<double> a, a2, b, c;
    a.listen(sys, "oa");
    a2.listen(sys, "oa");
    b.listen(sys, "ob");
    c.listen(sys, "oc");
    EXPECT_EQ(sys.simulate(0.0), -1.0);  // the step does nothing, and never again
    EXPECT_EQ(sys.getSchemeStateDataSize(), 0);
    // The select wire is read when the value arrives, with no simulate call in between;
    // out of range, the value is dropped.
    const std::pair<int, double> arrivals[] = {{1, 2.5}, {0, -1.0}, {2, 7.0}, {2, 8.0}, {3, 9.0}, {-1, 9.0}, {1000, 9.0}};
    for (const auto& [sel, v] : arrivals) {
        sys.setInput<int>("sel", sel);
        sendToInput(sys, "in", v);
    }
    EXPECT_EQ(a.take(), std::vector<double>{-1.0});
    EXPECT_EQ(a2.take(), std::vector<double>{-1.0});  // every input connected there
    EXPECT_EQ(b.take(), std::vector<double>{2.5});
    EXPECT_EQ(c.take(), (std::vector<double>{7.0, 8.0}));
    // Other lead types route alike.
    Running vec(muxScheme(LEAD_VECTOR, {"x", "y"}, LEAD_VECTOR));
    PortRecorder<Vec3d> y;
    y.listen(*vec.system, "oy");
    vec.system->setInput<int>("sel", 1);
    sendToInput(*vec.system, "in", Vec3d{1, 2, 3});
    EXPECT_EQ(y.take(), std::vector<Vec3d>{(Vec3d{1, 2, 3})});
    Running id(muxScheme(LEAD_OBJECT_ID, {"i", "j"}, LEAD_OBJECT_ID));
    PortRecorder<unsigned> j;
    j.listen(*id.system, "oj");
    id.system->setInput<int>("sel", 1);
    sendToInput(*id.system, "in", 4000000000u);
    EXPECT_EQ(j.take(), std::vector<unsigned>{4000000000u});

    auto reloaded = testutil::saveAndReload(muxScheme(LEAD_QUATERNION, {"left", "right"}, LEAD_QUATERNION));
    auto& m = dynamic_cast<wBlockMultiplexDescriptor&>(*reloaded->getBlockByName("mux"));
    EXPECT_EQ(m.getPortType(), LEAD_QUATERNION);
    EXPECT_EQ(m.getInputPorts()[0], (wLeadDescription{"input", LEAD_QUATERNION}));
    EXPECT_EQ(m.getOutputPorts(), (wLeadList{{"left", LEAD_QUATERNION}, {"right", LEAD_QUATERNION}}));
    EXPECT_EQ(reloaded->getConnections().size(), 4u);
}

TEST(Multiplexer, RefusesOutputsOfAnotherTypeDuplicatesAndUnroutableTypes) {
    EXPECT_EQ(testutil::loadError(muxScheme(LEAD_DOUBLE, {"a", "b"}, LEAD_BOOL)), "Multiplexor mux: output a has type 1, expected 2");
    EXPECT_EQ(testutil::loadError(muxScheme(LEAD_INT, {"a", "b", "a"}, LEAD_INT)), "Multiplexor mux: duplicate output a");
    EXPECT_EQ(testutil::loadError(muxScheme(LEAD_OBJECT_PTR, {"a"}, LEAD_OBJECT_PTR)), "Multiplexor mux: invalid type 5");
    wBlockMultiplexDescriptor d;
    d.setName("m");
    EXPECT_EQ(testutil::messageOf([&] { d.setOutputs(wLeadList{{"a", LEAD_DOUBLE}, {"a", LEAD_DOUBLE}}); }),
              "Multiplexor m: duplicate output a");
    EXPECT_EQ(d.getOutputs().size(), 2u);  // unchanged defaults
    EXPECT_EQ(testutil::messageOf([&] { d.setLeadType(LEAD_OBJECT_PTR); }), "Multiplexor m: invalid type 5");
    d.setLeadType(LEAD_BOOL);
    EXPECT_EQ(d.getOutputPorts()[1], (wLeadDescription{"output2", LEAD_BOOL}));
}

TEST(Oscilloscope, RecordsEveryInputFlattenedAndKeepsTheLatestSamples) {
    const std::pair<const char*, eLeadType> kinds[] = {{"u", LEAD_DOUBLE}, {"v", LEAD_VECTOR}, {"q", LEAD_QUATERNION},
                                                       {"b", LEAD_BOOL},   {"n", LEAD_INT},    {"id", LEAD_OBJECT_ID}};
    auto scope = [&](const char* dt, const char* capacity) {
        Bench b;
        std::string leads = "inputs = { ";
        for (const auto& [n, t] : kinds) leads += "{ name = \"" + std::string(n) + "\", type = " + std::to_string(int(t)) + " }, ";
        b.add("osc", "wBlockOscilloscopeDescriptor", params({{"dt", dt}, {"capacity", capacity}}), leads + "}");
        return b.s.text();
    };
    Running r(scope("0.5", "4"));
    wSimulationSystem& sys = *r.system;
    auto& osc = dynamic_cast<wBlockOscilloscope&>(*r.block("osc"));
    EXPECT_EQ(osc.columnNames(), (zo::vector<zo::string>{"time", "u", "v.x", "v.y", "v.z", "q.x", "q.y", "q.z", "q.w", "b", "n", "id"}));
    auto row = [&](int i) { return std::vector<double>(osc.sample(i), osc.sample(i) + osc.width()); };
    auto expected = [](int k, double t) {
        return std::vector<double>{t, 0.5 * k, double(k), -double(k), 100.0 + k, 0.25 * k, 1, 2, -0.5 * k, k % 2 ? 1.0 : 0.0,
                                   -7.0 * k, 4000000000.0 + k};
    };
    auto step = [&](int k, double T) {
        sys.setInput<double>("osc.u", 0.5 * k);
        sys.setInput<Vec3d>("osc.v", {double(k), -double(k), 100.0 + k});
        sys.setInput<Rot3d>("osc.q", {0.25 * k, 1, 2, -0.5 * k});
        sys.setInput<bool>("osc.b", k % 2 == 1);
        sys.setInput<int>("osc.n", -7 * k);
        sys.setInput<unsigned>("osc.id", 4000000000u + static_cast<unsigned>(k));
        return sys.simulate(T);
    };
    // Six samples at t = 0, 0.5, ... 2.5 into room for four.
    for (int k = 0; k < 6; ++k) {
        EXPECT_EQ(step(k, 0.5 * k), 0.5);
        ASSERT_EQ(osc.sampleCount(), std::min(k + 1, 4));
        EXPECT_EQ(row(osc.sampleCount() - 1), expected(k, 0.5 * k)) << k;
    }
    EXPECT_EQ(osc.dropped(), 2);
    for (int i = 0; i < 4; ++i) EXPECT_EQ(row(i), expected(i + 2, 0.5 * (i + 2))) << i;
    std::vector<double> times;
    osc.forEach([&](const double* sample) { times.push_back(sample[0]); });
    EXPECT_EQ(times, (std::vector<double>{1.0, 1.5, 2.0, 2.5}));
    EXPECT_EQ(sys.getSchemeStateDataSize(), 0);  // nothing saved, but saveable
    osc.clear();
    EXPECT_EQ(osc.sampleCount() + osc.dropped(), 0);
    step(9, 3.0);
    EXPECT_EQ(row(0), expected(9, 3.0));
    sys.reset();  // a fresh recording
    EXPECT_EQ(osc.sampleCount(), 0);

    auto reloaded = testutil::saveAndReload(scope("0.25", "50"));
    EXPECT_EQ(testutil::parametersOf(*reloaded, "osc"), "dt=0.25, capacity=50");
    ASSERT_EQ(reloaded->getBlockByName("osc")->getInputWires().size(), std::size(kinds));
    for (std::size_t i = 0; i < std::size(kinds); ++i)
        EXPECT_EQ(reloaded->getBlockByName("osc")->getInputWires()[i], (wLeadDescription{kinds[i].first, kinds[i].second}));

    const std::tuple<const char*, const char*, const char*> settings[] = {
        {"0", "10", "\"dt\" must be positive"}, {"-0.5", "10", "\"dt\" must be positive"},
        {"0/0", "10", "\"dt\" must be positive"}, {"0.1", "0", "\"capacity\" must be at least 1"}};
    for (const auto& [dt, capacity, message] : settings)
        EXPECT_EQ(testutil::createError(scope(dt, capacity)), std::string("Oscilloscope osc: ") + message);
    SchemeText bad;
    bad.block("osc", "wBlockOscilloscopeDescriptor", params({{"dt", "1"}, {"capacity", "1"}}), "inputs = { { name = 'p', type = 5 } }");
    EXPECT_EQ(testutil::loadError(bad.text()).rfind("Oscilloscope osc: input p has type 5", 0), 0u) << testutil::loadError(bad.text());
    wBlockOscilloscopeDescriptor d;
    d.setName("o");
    EXPECT_EQ(testutil::messageOf([&] { d.setInputs(wLeadList{{"a", LEAD_INT}, {"a", LEAD_BOOL}}); }), "Oscilloscope o: duplicate input a");
    EXPECT_EQ(d.getInputs(), (wLeadList{{"input1", LEAD_DOUBLE}}));
}

}  // namespace
