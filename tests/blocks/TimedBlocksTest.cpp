// Blocks with time and state through real scheme files: timers, the ramp and the
// integrators, the multiplexor and the oscilloscope.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>

#include "blocks/BlockTestUtil.h"
#include "vandrel/blocks/Multiplexer.h"
#include "vandrel/blocks/Oscilloscope.h"

namespace {

using blocktest::Bench;
using blocktest::params;
using testutil::kIO;
using testutil::parametersOf;
using testutil::PortRecorder;
using testutil::Running;
using testutil::SchemeText;
using testutil::sendToInput;
using Updates = std::vector<std::vector<bool>>;

// A timer block `type` whose port `out` is scheme output port "out", its port `in` (if
// any) scheme input port "in", and for a flag timer its wires "signal" and "timer_flag";
// run() gives what arrived at "out" during each of n updates.
struct Timer {
    Timer(const std::string& type, const std::string& params, const char* out, const char* in = nullptr,
          const char* signal = nullptr)
        : r([&] {
              SchemeText s;
              s.block("t", type, params);
              s.outputPort("out", LEAD_BOOL);
              s.port(0, out, kIO, "out");
              if (in) s.inputPort("in", LEAD_BOOL), s.port(kIO, "in", 0, in);
              if (signal) {  // a flag timer: its signal in, its flag wire out
                  s.inputWire("t.signal", LEAD_BOOL), s.wire(kIO, "t.signal", 0, signal);
                  s.outputWire("t.timer_flag", LEAD_BOOL), s.wire(0, "timer_flag", kIO, "t.timer_flag");
              }
              return s.text();
          }()) {
        rec.listen(*r.system, "out");
    }
    Updates run(int n) {
        Updates got;
        for (int i = 0; i < n; ++i, got.push_back(rec.take())) T += r.system->simulate(T);
        return got;
    }
    std::vector<bool> send(bool v) {
        sendToInput(*r.system, "in", v);
        return rec.take();
    }
    Running r;
    PortRecorder<bool> rec;
    double T = 0;
};

std::string delay(const char* dt, const char* enabled, const char* time) {
    return params({{"dt", dt}, {"enabled", enabled}, {"delay_time", time}});
}

TEST(TimerBlocks, DelayTriggersFireAfterTheirDelays) {
    // The first update only arms; 0.3 - 3 * 0.1 is just below 0, so the fourth fires.
    EXPECT_EQ(Timer("wBlockDelayTriggerDescriptor", delay("0.1", "true", "0.3"), "timed_out").run(6),
              (Updates{{false}, {}, {}, {true}, {}, {}}));
    // Disabled: "timed out" at the first update and at once on every reset, true or false.
    Timer off("wBlockDelayTriggerDescriptor", delay("0.1", "false", "0.3"), "timed_out", "reset");
    EXPECT_EQ(off.run(2), (Updates{{true}, {}}));
    EXPECT_EQ(off.send(true), std::vector<bool>{true});
    EXPECT_EQ(off.send(false), std::vector<bool>{true});
    EXPECT_EQ(off.run(2), (Updates{{}, {}}));
    // Exact arithmetic: 0 left at the third update. Any reset re-arms the full delay, after
    // firing and half-way alike. No registered state: a scheme holding it is not saveable.
    Timer on("wBlockDelayTriggerDescriptor", delay("0.25", "true", "0.5"), "timed_out", "reset");
    EXPECT_EQ(on.run(4), (Updates{{false}, {}, {true}, {}}));
    EXPECT_EQ(on.send(false), std::vector<bool>{false});
    EXPECT_EQ(on.run(1), (Updates{{}}));
    EXPECT_EQ(on.send(true), std::vector<bool>{false});
    EXPECT_EQ(on.run(3), (Updates{{}, {true}, {}}));
    EXPECT_EQ(on.r.system->getSchemeStateDataSize(), -1);
    // A delay of 0 never counts down, so an enabled trigger never fires.
    EXPECT_EQ(Timer("wBlockDelayTriggerDescriptor", delay("0.1", "true", "0"), "timed_out").run(8),
              (Updates{{false}, {}, {}, {}, {}, {}, {}, {}}));

    // Several times, in the given order: 3 holds back 1 until t passes 3 (not at t = 3);
    // all long past: still one per update.
    const std::string multiple = "wBlockDelayTriggerMultipleDescriptor";
    EXPECT_EQ(Timer(multiple, params({{"dt", "1"}, {"delay_time", "{ 3, 1 }"}}), "timed_out").run(7),
              (Updates{{}, {}, {}, {}, {true}, {true}, {}}));
    Timer past(multiple, params({{"dt", "0.1"}, {"delay_time", "{ 1, 2, 3 }"}}), "timed_out");
    past.r.system->setSchemeQueueTime(past.T = 5.0);
    EXPECT_EQ(past.run(4), (Updates{{true}, {true}, {true}, {}}));

    // The wire version: true strictly after the delay.
    Bench b;
    b.add("w", "wBlockDelayTriggerWireDescriptor", params({{"dt", "0.5"}, {"delay_par", "2"}}));
    Running wire(b.s.text());
    for (double t = 0; t < 4; t += 0.5) {
        EXPECT_EQ(wire.system->simulate(t), 0.5);
        EXPECT_EQ(wire.system->getOutput<bool>("w.triggered"), t > 2.0) << t;
    }
}

TEST(TimerBlocks, IncTimerMovesByKtTimesDt) {
    Bench b;
    auto inc = [](const char* useStart, const char* byPort, const char* loop) {
        return params({{"dt", "0.25"}, {"K_t", "1"}, {"use_start_val", useStart}, {"start_val", "0.5"},
                       {"activate_by_port", byPort}, {"loop", loop}});
    };
    b.add("plain", "wBlockGo2doubleOntimerDescriptor", inc("false", "false", "false"));
    b.add("saw", "wBlockGo2doubleOntimerDescriptor", inc("true", "false", "true"));
    const int byPort = b.add("byPort", "wBlockGo2doubleOntimerDescriptor", inc("true", "true", "false"));
    b.s.inputPort("activate", LEAD_BOOL);
    b.s.port(kIO, "activate", byPort, "activate");
    Running r(b.s.text());
    wSimulationSystem& sys = *r.system;
    for (const char* n : {"plain", "saw", "byPort"}) sys.setInput<double>(std::string(n) + ".target", 1.5);
    // Without a start value the output starts at the target. The first update already
    // steps; the last step lands on the target; with "loop" the next one jumps back to the
    // start value. Waiting for the port, the output holds the start value.
    const double saw[] = {0.75, 1.0, 1.25, 1.5, 0.5, 0.75};
    double T = 0.0;
    for (int i = 0; i < 6; ++i, T += 0.25) {
        EXPECT_EQ(sys.simulate(T), 0.25);
        EXPECT_EQ(std::vector<double>({sys.getOutput<double>("plain.output"), sys.getOutput<double>("saw.output"),
                                       sys.getOutput<double>("byPort.output")}),
                  std::vector<double>({1.5, saw[i], 0.5})) << i;
    }
    // Activated by the port, then moving; a later false does not stop it.
    for (bool v : {true, false}) {
        sendToInput(sys, "activate", v);
        sys.simulate(T);
        T += 0.25;
    }
    EXPECT_EQ(sys.getOutput<double>("byPort.output"), 1.0);
    sys.setInput<double>("plain.target", 1.0);  // moving down works the same way
    sys.simulate(T);
    EXPECT_EQ(sys.getOutput<double>("plain.output"), 1.25);
}

TEST(TimerBlocks, FlagTimerActivationAndTiming) {
    auto flag = [](const char* byNot, const char* byPort) {
        return params({{"dt", "0.5"}, {"activation_check_delay", "1"}, {"flag_timer", "1"}, {"control_signal", "false"},
                       {"activate_by_not_control_signal", byNot}, {"activate_by_port", byPort}});
    };
    // Activated by the port only; or by the opposite of the control value (false here).
    Timer byPort("wBlockFlagOnSignalTimerDescriptor", flag("false", "true"), "timer_flag_p", "activate", "signal");
    Timer inverse("wBlockFlagOnSignalTimerDescriptor", flag("true", "false"), "timer_flag_p", nullptr, "signal");
    auto signal = [&](bool v, int updates) {
        Updates got;
        for (Timer* t : {&byPort, &inverse}) {
            t->r.system->setInput<bool>("t.signal", v);
            got.push_back(t->run(updates).back());
        }
        return got;
    };
    auto flags = [&] {
        return std::pair{byPort.r.system->getOutput<bool>("t.timer_flag"), inverse.r.system->getOutput<bool>("t.timer_flag")};
    };
    // Holding the control value long past the check delay activates neither; the opposite
    // value activates "inverse", which keeps its elapsed time at 0 meanwhile.
    signal(false, 10);
    signal(true, 6);
    EXPECT_EQ(flags(), std::pair(false, false));
    // A false at "activate" is ignored. Back on the control value, "inverse" raises its flag
    // after 1 s (two updates) and sends true once.
    EXPECT_TRUE(byPort.send(false).empty());
    EXPECT_EQ(signal(false, 1), (Updates{{}, {}}));
    EXPECT_EQ(signal(false, 1), (Updates{{}, {true}}));
    // A true at "activate" activates at once; the flag follows after 1 s of the signal.
    byPort.send(true);
    EXPECT_EQ(signal(false, 1), (Updates{{}, {}}));
    EXPECT_EQ(signal(false, 1), (Updates{{true}, {}}));
    // Once raised, never lowered, and never sent again.
    signal(true, 3);
    EXPECT_EQ(signal(false, 3), (Updates{{}, {}}));
    EXPECT_EQ(flags(), std::pair(true, true));
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
    SchemeText all = b.s;
    all.block("delay", "wBlockDelayTriggerDescriptor", delay("0.125", "true", "2.5"));
    all.block("multi", "wBlockDelayTriggerMultipleDescriptor", params({{"dt", "0.5"}, {"delay_time", "{ 3, 1.5, 7 }"}}));
    all.block("wire", "wBlockDelayTriggerWireDescriptor", params({{"dt", "0.25"}, {"delay_par", "4.5"}}));
    auto scheme = testutil::saveAndReload(all.text());
    EXPECT_EQ(parametersOf(*scheme, "inc"), "dt=0.25, K_t=0.3, use_start_val=1, start_val=0.1, activate_by_port=0, loop=1");
    EXPECT_EQ(parametersOf(*scheme, "flag"), "dt=0.25, activation_check_delay=1, flag_timer=1.1, control_signal=1, "
                                             "activate_by_not_control_signal=0, activate_by_port=1");
    EXPECT_EQ(parametersOf(*scheme, "ramp"), "dt=0.25, slope=-3.5");
    EXPECT_EQ(parametersOf(*scheme, "delay") + "; " + parametersOf(*scheme, "multi") + "; " + parametersOf(*scheme, "wire"),
              "dt=0.125, enabled=1, delay_time=2.5; dt=0.5, delay_time=3 1.5 7; dt=0.25, delay_par=4.5");

    Running r(b.s.text());
    std::unique_ptr<wSimulationSystem> copy(r.scheme->instantiate());
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

TEST(IntegratorRamp, RampsStepTowardsTheTargetAndIntegratorsAccumulate) {
    Bench b;
    for (const auto& [name, slope] : {std::pair{"up", "2"}, std::pair{"flat", "0"}, std::pair{"away", "-1"}})
        b.add(name, "wBlockRampDescriptor", params({{"dt", "0.125"}, {"slope", slope}}));
    b.add("x", "wBlockIntegratorDescriptor<double>");
    b.add("p", "wBlockIntegratorDescriptor<Vec3d>");
    b.s.solver("__type = \"wSolverExplEulerDescriptor\", H = 0.125");
    b.s.inputPort("reset", LEAD_BOOL);
    b.s.port(kIO, "reset", testutil::kCmds, "reset_diff_state");
    Running r(b.s.text());
    wSimulationSystem& sys = *r.system;
    for (const char* n : {"up.target", "flat.target", "away.target"}) sys.setInput<double>(n, 1.0);
    // A step and inputs exact in binary: n steps give exactly n h c.
    const double h = 0.125;
    sys.setInput<double>("x.input", 2.5);
    sys.setInput<Vec3d>("p.input", {1.0, -2.0, 0.5});
    sys.setInput<double>("x.output.initial", 10.0);
    sys.setInput<Vec3d>("p.output.initial", {-1, 0, 4});
    // Ramps: full steps of dt * slope until the gap is not above that, then the target;
    // slope 0 never moves, a negative slope steps away at every update.
    const double up[] = {0.25, 0.5, 0.75, 1.0, 1.0};
    for (int n = 1; n <= 5; ++n) {
        EXPECT_EQ(sys.simulate((n - 1) * h), h);
        EXPECT_EQ(std::vector<double>({sys.getOutput<double>("up.output"), sys.getOutput<double>("flat.output"),
                                       sys.getOutput<double>("away.output")}),
                  std::vector<double>({up[n - 1], 0.0, -n * h})) << n;
        EXPECT_EQ(sys.getOutput<double>("x.output"), n * h * 2.5);  // from 0, not the initial value
        EXPECT_EQ(sys.getOutput<Vec3d>("p.output"), (Vec3d{n * h, -2 * n * h, 0.5 * n * h}));
    }
    for (bool v : {true, false}) {
        sendToInput(sys, "reset", v);
        EXPECT_EQ(sys.getDiffState()[0], 10.0);
        sys.simulate(6 * h);
        EXPECT_EQ(sys.getOutput<double>("x.output"), 10.0 + h * 2.5);
        EXPECT_EQ(sys.getOutput<Vec3d>("p.output"), (Vec3d{-1 + h, -2 * h, 4 + 0.5 * h}));
    }
    EXPECT_EQ(r.scheme->getBlockByName("p")->getInputWires()[1], (wLeadDescription{"output.initial", LEAD_VECTOR}));
    sys.setInput<double>("up.target", std::nan(""));  // a NaN is copied through
    sys.simulate(7 * h);
    EXPECT_TRUE(std::isnan(sys.getOutput<double>("up.output")));
}

// A multiplexor "mux" of lead type `type` with `outputs` of `outputType`, fed by scheme
// input port "in" and wire "sel"; output o goes to scheme output port "o" + o.
std::string muxScheme(int type, const std::vector<std::string>& outputs, int outputType) {
    SchemeText s;
    std::string leads = "outputs = { ";
    for (const auto& o : outputs) leads += "{ name = \"" + o + "\", type = " + std::to_string(outputType) + " }, ";
    const int m = s.block("mux", "wBlockMultiplexDescriptor", params({{"type", std::to_string(type)}}), leads + "}");
    s.inputPort("in", static_cast<eLeadType>(type));
    s.inputWire("sel", LEAD_INT, m, "select");
    s.port(kIO, "in", m, "input");
    for (const auto& o : outputs) {
        s.outputPort("o" + o, static_cast<eLeadType>(outputType));
        s.port(m, o, kIO, "o" + o);
    }
    return s.text();
}

TEST(Multiplexer, RoutesEachValueByTheSelectWireAtArrival) {
    Running r(muxScheme(LEAD_VECTOR, {"a", "b", "c"}, LEAD_VECTOR));
    wSimulationSystem& sys = *r.system;
    PortRecorder<Vec3d> a, a2, b, c;
    a.listen(sys, "oa");
    a2.listen(sys, "oa");
    b.listen(sys, "ob");
    c.listen(sys, "oc");
    EXPECT_EQ(sys.simulate(0.0), -1.0);  // the step does nothing, and never again
    EXPECT_EQ(sys.getSchemeStateDataSize(), 0);
    // The select wire is read when the value arrives; out of range, the value is dropped.
    const std::pair<int, double> arrivals[] = {{1, 2.5}, {0, -1.0}, {2, 7.0}, {2, 8.0}, {3, 9.0}, {-1, 9.0}};
    for (const auto& [sel, v] : arrivals) {
        sys.setInput<int>("sel", sel);
        sendToInput(sys, "in", Vec3d{v, 0, 0});
    }
    EXPECT_EQ(a.take(), std::vector<Vec3d>{Vec3d(-1, 0, 0)});
    EXPECT_EQ(a2.take(), std::vector<Vec3d>{Vec3d(-1, 0, 0)});  // every input connected there
    EXPECT_EQ(b.take(), std::vector<Vec3d>{Vec3d(2.5, 0, 0)});
    EXPECT_EQ(c.take(), (std::vector<Vec3d>{Vec3d(7, 0, 0), Vec3d(8, 0, 0)}));

    auto reloaded = testutil::saveAndReload(muxScheme(LEAD_OBJECT_ID, {"left", "right"}, LEAD_OBJECT_ID));
    auto& m = dynamic_cast<wBlockMultiplexDescriptor&>(*reloaded->getBlockByName("mux"));
    EXPECT_EQ(m.getInputPorts()[0], (wLeadDescription{"input", LEAD_OBJECT_ID}));
    EXPECT_EQ(m.getOutputPorts(), (wLeadList{{"left", LEAD_OBJECT_ID}, {"right", LEAD_OBJECT_ID}}));

    EXPECT_EQ(testutil::loadError(muxScheme(LEAD_DOUBLE, {"a", "b"}, LEAD_BOOL)), "Multiplexor mux: output a has type 1, expected 2 (at simulation_scheme.blocks[1])");
    EXPECT_EQ(testutil::loadError(muxScheme(LEAD_INT, {"a", "b", "a"}, LEAD_INT)), "Multiplexor mux: duplicate output a (at simulation_scheme.blocks[1])");
    EXPECT_EQ(testutil::loadError(muxScheme(LEAD_OBJECT_PTR, {"a"}, LEAD_OBJECT_PTR)), "Multiplexor mux: invalid type 5 (at simulation_scheme.blocks[1])");
    EXPECT_EQ(testutil::messageOf([&] { m.setLeadType(LEAD_OBJECT_PTR); }), "Multiplexor mux: invalid type 5");
    m.setLeadType(LEAD_BOOL);
    EXPECT_EQ(m.getOutputPorts()[1], (wLeadDescription{"right", LEAD_BOOL}));
    // An editor setting the outputs gets the same checks as a file, and a refused list
    // leaves the block as it was.
    EXPECT_EQ(testutil::messageOf([&] { m.setOutputs(wLeadList{{"x", LEAD_BOOL}, {"x", LEAD_BOOL}}); }),
              "Multiplexor mux: duplicate output x");
    EXPECT_EQ(testutil::messageOf([&] { m.setOutputs(wLeadList{{"x", LEAD_INT}}); }),
              "Multiplexor mux: output x has type 0, expected 1");
    EXPECT_EQ(m.getOutputPorts(), (wLeadList{{"left", LEAD_BOOL}, {"right", LEAD_BOOL}}));

    // Without "outputs", the default outputs take the block's type, and save so.
    SchemeText bare;
    bare.block("mux", "wBlockMultiplexDescriptor", params({{"type", "1"}}));
    auto defaults = testutil::saveAndReload(bare.text());
    EXPECT_EQ(defaults->getBlockByName("mux")->getOutputPorts(),
              (wLeadList{{"output1", LEAD_BOOL}, {"output2", LEAD_BOOL}}));
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
    Running r(scope("0.5", "3"));
    wSimulationSystem& sys = *r.system;
    auto& osc = dynamic_cast<wBlockOscilloscope&>(*r.block("osc"));
    EXPECT_EQ(osc.columnNames(), (zo::vector<zo::string>{"time", "u", "v.x", "v.y", "v.z", "q.x", "q.y", "q.z", "q.w", "b", "n", "id"}));
    auto row = [&](int i) { return std::vector<double>(osc.sample(i), osc.sample(i) + osc.width()); };
    auto expected = [](int k) {
        return std::vector<double>{0.5 * k, 0.5 * k, double(k), -double(k), 100.0 + k, 0.25 * k, 1, 2, -0.5 * k,
                                   k % 2 ? 1.0 : 0.0, -7.0 * k, 4000000000.0 + k};
    };
    // Five samples at t = 0, 0.5, ... 2 into room for three.
    for (int k = 0; k < 5; ++k) {
        sys.setInput<double>("osc.u", 0.5 * k);
        sys.setInput<Vec3d>("osc.v", {double(k), -double(k), 100.0 + k});
        sys.setInput<Rot3d>("osc.q", {0.25 * k, 1, 2, -0.5 * k});
        sys.setInput<bool>("osc.b", k % 2 == 1);
        sys.setInput<int>("osc.n", -7 * k);
        sys.setInput<unsigned>("osc.id", 4000000000u + static_cast<unsigned>(k));
        EXPECT_EQ(sys.simulate(0.5 * k), 0.5);
    }
    EXPECT_EQ(osc.sampleCount(), 3);
    EXPECT_EQ(osc.dropped(), 2);
    for (int i = 0; i < 3; ++i) EXPECT_EQ(row(i), expected(i + 2)) << i;
    std::vector<double> times;
    osc.forEach([&](const double* sample) { times.push_back(sample[0]); });
    EXPECT_EQ(times, (std::vector<double>{1.0, 1.5, 2.0}));
    EXPECT_EQ(sys.getSchemeStateDataSize(), 0);  // nothing saved, but saveable
    osc.clear();
    EXPECT_EQ(osc.sampleCount() + osc.dropped(), 0);
    sys.simulate(2.5);
    sys.reset();  // a fresh recording
    EXPECT_EQ(osc.sampleCount(), 0);

    auto reloaded = testutil::saveAndReload(scope("0.25", "50"));
    EXPECT_EQ(parametersOf(*reloaded, "osc"), "dt=0.25, capacity=50");
    for (std::size_t i = 0; i < std::size(kinds); ++i)
        EXPECT_EQ(reloaded->getBlockByName("osc")->getInputWires().at(i), (wLeadDescription{kinds[i].first, kinds[i].second}));
    for (const auto& [dt, capacity, message] : {std::tuple{"0", "10", "\"dt\" must be positive"}, std::tuple{"-0.5", "10", "\"dt\" must be positive"},
                                               std::tuple{"0/0", "10", "\"dt\" must be positive"}, std::tuple{"0.1", "0", "\"capacity\" must be at least 1"}})
        EXPECT_EQ(testutil::loadError(scope(dt, capacity)), std::string("Oscilloscope osc: ") + message + " (at simulation_scheme.blocks[1])");
    SchemeText bad;
    bad.block("osc", "wBlockOscilloscopeDescriptor", params({{"dt", "1"}, {"capacity", "1"}}), "inputs = { { name = 'p', type = 5 } }");
    EXPECT_EQ(testutil::loadError(bad.text()).rfind("Oscilloscope osc: input p has type 5", 0), 0u);
    wBlockOscilloscopeDescriptor d;
    d.setName("o");
    EXPECT_EQ(testutil::messageOf([&] { d.setInputs(wLeadList{{"a", LEAD_INT}, {"a", LEAD_BOOL}}); }), "Oscilloscope o: duplicate input a");
    EXPECT_EQ(d.getInputs(), (wLeadList{{"input1", LEAD_DOUBLE}}));
}

}  // namespace
