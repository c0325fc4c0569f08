// The simulation system on schemes built in memory: schedule, dirty flags, ports,
// state blobs, failures while building, and the guards against endless loops.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstring>
#include <limits>
#include <utility>
#include <vector>

#include "runtime/RuntimeTestUtil.h"
#include "support/SchemeFiles.h"
#include "vandrel/runtime/SimulationLogger.h"

using testblocks::CounterDescriptor;
using testblocks::GainDescriptor;
using testblocks::IntegratorDescriptor;
using testblocks::SamplerDescriptor;
using testblocks::TriggerDescriptor;
using testblocks::VecSourceDescriptor;
using ::testing::ElementsAre;
using ::testing::HasSubstr;

namespace {

// A discrete block that registers no state (so a scheme holding it has none to save).
class Silent : public wSimulationBlockDisc {
public:
    using wSimulationBlockDisc::wSimulationBlockDisc;
    double step(double) override { return 1.0; }
};
class SilentDescriptor : public wDescriptorImpl<SilentDescriptor, wSimulationBlockDiscDescriptor> {
public:
    static const zo::string& getBlockClassNameS() {
        static const zo::string s = "RtSilent";
        return s;
    }
    static const zo::string& getBlockTypeNameS() { return getBlockClassNameS(); }
    std::unique_ptr<wSimulationBlockDisc> create(Lua::Loader*, wSimulationSystem* s) const override {
        return std::make_unique<Silent>(this, s);
    }
};

// A discrete block whose runtime block cannot be made.
class FailingDescriptor : public wDescriptorImpl<FailingDescriptor, wSimulationBlockDiscDescriptor> {
public:
    static const zo::string& getBlockClassNameS() {
        static const zo::string s = "RtFailing";
        return s;
    }
    static const zo::string& getBlockTypeNameS() { return getBlockClassNameS(); }
    std::unique_ptr<wSimulationBlockDisc> create(Lua::Loader*, wSimulationSystem*) const override {
        throw wSimulationException("RtFailing cannot run");
    }
};

// A host-side input port that records (id, value) of every value it receives.
template <class T>
struct Recorder {
    Recorder(std::vector<std::pair<int, T>>* log_, int id_) : log(log_), id(id_), port(this, &Recorder::on) {}
    void on(const T& v) { log->emplace_back(id, v); }
    std::vector<std::pair<int, T>>* log;
    int id;
    wInputPortImpl<T, Recorder> port;
};

}  // namespace

TEST(RuntimeSystem, StatelessOnlySchemeUpdatesOutputsAtTAndIsIdle) {
    rt::Builder b;
    // Added out of order: the run must follow the data flow, not the adding order.
    auto* g2 = b.add<GainDescriptor>("g2");
    auto* g1 = b.add<GainDescriptor>("g1");
    g1->k.set(2.0);
    g2->k.set(3.0);
    b.inputWire("u");
    b.outputWire("y");
    b.wire(b.io(), "u", g1, "in");
    b.wire(g1, "out", g2, "in");
    b.wire(g2, "out", b.io(), "y");
    auto sys = b.run();

    sys->setInput<double>("u", 1.5);
    EXPECT_EQ(sys->simulate(2.0), -1.0);
    EXPECT_EQ(sys->getOutput<double>("y"), 9.0);
    sys->setInput<double>("u", -1.0);
    EXPECT_EQ(sys->simulate(3.0), -1.0);
    EXPECT_EQ(sys->getOutput<double>("y"), -6.0);
    EXPECT_THAT(testblocks::trace(), ElementsAre("g1@2", "g2@2", "g1@3", "g2@3"));
}

TEST(RuntimeSystem, StatelessBlockBehindDiscreteRunsOnlyWhenDirty) {
    rt::Builder b;
    auto* s = b.add<SamplerDescriptor>("s");
    auto* g = b.add<GainDescriptor>("g");
    s->dt.set(0.5);
    g->k.set(10.0);
    b.inputWire("u");
    b.outputWire("y");
    b.wire(b.io(), "u", s, "in");
    b.wire(s, "out", g, "in");
    b.wire(g, "out", b.io(), "y");
    auto sys = b.run();

    sys->setInput<double>("u", 2.0);
    EXPECT_DOUBLE_EQ(sys->simulate(0.0), 0.5);
    EXPECT_EQ(sys->getOutput<double>("y"), 20.0);
    // Not due and nothing upstream changed: the gain is not run again.
    sys->setInput<double>("u", 5.0);
    EXPECT_DOUBLE_EQ(sys->simulate(0.1), 0.4);
    EXPECT_DOUBLE_EQ(sys->simulate(0.3), 0.2);
    EXPECT_EQ(sys->getOutput<double>("y"), 20.0);
    EXPECT_DOUBLE_EQ(sys->simulate(0.5), 0.5);
    EXPECT_EQ(sys->getOutput<double>("y"), 50.0);
    // The output side is brought up to the time of the next event.
    EXPECT_THAT(testblocks::trace(), ElementsAre("s@0", "g@0.5", "s@0.5", "g@1"));
}

TEST(RuntimeSystem, DiscreteBlocksRunWhenDueWithinTheWindow) {
    {
        rt::Builder b;
        auto* c = b.add<CounterDescriptor>("c");
        c->dt.set(0.1);
        b.outputWire("n", LEAD_INT);
        b.wire(c, "count", b.io(), "n");
        auto sys = b.run();
        EXPECT_NEAR(sys->simulate(0.0), 0.1, 1e-15);
        EXPECT_EQ(sys->getOutput<int>("n"), 1);
        EXPECT_NEAR(sys->simulate(0.1), 0.1, 1e-15);
        EXPECT_EQ(sys->getOutput<int>("n"), 2);
        EXPECT_THAT(testblocks::trace(), ElementsAre("c@0", "c@0.1"));
        // Several periods behind: every missed step runs in one call, in time order.
        EXPECT_NEAR(sys->simulate(0.45), 0.05, 1e-12);
        EXPECT_EQ(sys->getOutput<int>("n"), 5);
    }
    // Due 5e-9 after T: runs now. Due 2e-8 after T: waits.
    for (const auto& [late, runs] : {std::pair{5e-9, true}, std::pair{2e-8, false}}) {
        rt::Builder b;
        auto* c = b.add<CounterDescriptor>("c");
        c->dt.set(1.0 + late);
        b.outputWire("n", LEAD_INT);
        b.wire(c, "count", b.io(), "n");
        auto sys = b.run();
        sys->simulate(0.0);
        const double r = sys->simulate(1.0);
        EXPECT_EQ(sys->getOutput<int>("n"), runs ? 2 : 1) << late;
        EXPECT_NEAR(r, runs ? 1.0 + 2 * late : late, 1e-12) << late;
    }
}

TEST(RuntimeSystem, NearlySimultaneousEventsRunByDiscreteIndex) {
    // a has discrete index 0 and is due a little after b (index 1).
    for (const auto& [gap, expectAFirst] : {std::pair{1e-10, true}, std::pair{5e-9, false}}) {
        rt::Builder b;
        auto* a = b.add<CounterDescriptor>("a");
        auto* c = b.add<CounterDescriptor>("b");
        a->dt.set(1.0 + gap);
        c->dt.set(1.0);
        auto sys = b.run();
        sys->simulate(0.0);
        testblocks::clearTrace();
        sys->simulate(1.0);
        if (expectAFirst) EXPECT_THAT(testblocks::trace(), ElementsAre("a@1", "b@1")) << gap;
        else EXPECT_THAT(testblocks::trace(), ElementsAre("b@1", "a@1")) << gap;
    }
}

TEST(RuntimeSystem, BlockThatStopsRunsOncePerReset) {
    rt::Builder b;
    auto* c = b.add<CounterDescriptor>("c");
    c->dt.set(-1.0);
    b.outputWire("n", LEAD_INT);
    b.wire(c, "count", b.io(), "n");
    auto sys = b.run();

    EXPECT_EQ(sys->simulate(0.0), -1.0);
    EXPECT_EQ(sys->simulate(5.0), -1.0);
    EXPECT_EQ(sys->getOutput<int>("n"), 1);
    EXPECT_EQ(sys->getSchemeQueueTime(), 0.0);
    sys->reset();
    // Due at time 0 again, which is long past.
    EXPECT_EQ(sys->simulate(7.0), -1.0);
    EXPECT_EQ(sys->getOutput<int>("n"), 1);  // the counter restarted from 0
    EXPECT_THAT(testblocks::trace(), ElementsAre("c@0", "c@0"));
}

TEST(RuntimeSystem, StateBlobConcatenatesBlockBlobsInDiscreteOrder) {
    rt::Builder b;
    auto* c = b.add<CounterDescriptor>("c");
    auto* v = b.add<VecSourceDescriptor>("v");  // state size 0: contributes nothing
    auto* s = b.add<SamplerDescriptor>("s");
    c->dt.set(0.5);
    s->dt.set(0.5);
    b.inputWire("u");
    b.outputWire("n", LEAD_INT);
    b.outputWire("y");
    b.outputWire("vec", LEAD_VECTOR);
    b.wire(b.io(), "u", s, "in");
    b.wire(c, "count", b.io(), "n");
    b.wire(s, "out", b.io(), "y");
    b.wire(v, "v", b.io(), "vec");
    auto sys = b.run();

    sys->setInput<double>("u", 2.5);
    sys->simulate(0.0);
    ASSERT_EQ(sys->getSchemeStateDataSize(), 12);
    zo::vector<unsigned char> blob(3, 0xEE);
    ASSERT_TRUE(sys->getSchemeStateData(&blob));
    ASSERT_EQ(blob.size(), 12u);
    int count = 0;
    double sampled = 0;
    std::memcpy(&count, blob.data(), 4);
    std::memcpy(&sampled, blob.data() + 4, 8);
    EXPECT_EQ(count, 1);
    EXPECT_EQ(sampled, 2.5);

    // Restoring moves the blocks' own state: the counter continues from the blob.
    count = 41;
    sampled = -3.0;
    std::memcpy(blob.data(), &count, 4);
    std::memcpy(blob.data() + 4, &sampled, 8);
    sys->setSchemeStateData(&blob);
    zo::vector<unsigned char> again;
    ASSERT_TRUE(sys->getSchemeStateData(&again));
    EXPECT_EQ(again, blob);
    EXPECT_EQ(sys->getSchemeQueueTime(), 0.5);
    sys->simulate(0.5);
    EXPECT_EQ(sys->getOutput<int>("n"), 42);

    // Moving the queue time moves every scheduled block; ties then go by index.
    sys->setSchemeQueueTime(2.0);
    testblocks::clearTrace();
    EXPECT_DOUBLE_EQ(sys->simulate(1.0), 1.0);
    EXPECT_TRUE(testblocks::trace().empty());
    sys->simulate(2.0);
    EXPECT_THAT(testblocks::trace(), ElementsAre("c@2", "s@2"));
}

TEST(RuntimeSystem, SchemeWithAStatelessDiscreteBlockHasNoSaveableState) {
    rt::Builder b;
    auto* c = b.add<CounterDescriptor>("c");
    b.add<SilentDescriptor>("quiet");
    c->dt.set(1.0);
    b.outputWire("n", LEAD_INT);
    b.wire(c, "count", b.io(), "n");
    auto sys = b.run();
    sys->simulate(0.0);

    EXPECT_EQ(sys->getSchemeStateDataSize(), -1);
    zo::vector<unsigned char> out{7, 7};
    EXPECT_FALSE(sys->getSchemeStateData(&out));
    EXPECT_EQ(out, (zo::vector<unsigned char>{7, 7}));
    // Nothing is restored either.
    const zo::vector<unsigned char> blob{99, 0, 0, 0};
    sys->setSchemeStateData(&blob);
    sys->simulate(1.0);
    EXPECT_EQ(sys->getOutput<int>("n"), 2);
    sys->getInputData(&out);
    EXPECT_EQ(out, (zo::vector<unsigned char>{7, 7}));

    // No discrete blocks at all: empty state, empty queue.
    rt::Builder none;
    none.add<GainDescriptor>("g");
    none.inputWire("u");
    none.wire(none.io(), "u", none.scheme.getBlockByName("g"), "in");
    auto empty = none.run();
    EXPECT_EQ(empty->getSchemeStateDataSize(), 0);
    EXPECT_TRUE(empty->getSchemeStateData(&out));
    EXPECT_TRUE(out.empty());
    EXPECT_EQ(empty->getSchemeQueueTime(), 0.0);
}

TEST(RuntimeSystem, SchemeInputPortFansOutInConnectionOrder) {
    rt::Builder b;
    auto* t1 = b.add<TriggerDescriptor>("t1");
    auto* t2 = b.add<TriggerDescriptor>("t2");
    auto* t3 = b.add<TriggerDescriptor>("t3");
    auto* t4 = b.add<TriggerDescriptor>("t4");
    b.inputPort("go");
    b.inputPort("solo");
    b.inputPort("pass", LEAD_DOUBLE);
    b.outputPort("o1");
    b.outputPort("o2");
    b.outputPort("o3");
    b.outputPort("o4");
    b.outputPort("both");
    b.outputPort("passOut", LEAD_DOUBLE);
    // Connected in the order t2, t1, t3: values must arrive in that order.
    b.port(b.io(), "go", t2, "in");
    b.port(b.io(), "go", t1, "in");
    b.port(b.io(), "go", t3, "in");
    b.port(b.io(), "solo", t4, "in");
    b.port(t1, "out", b.io(), "o1");
    b.port(t2, "out", b.io(), "o2");
    b.port(t3, "out", b.io(), "o3");
    b.port(t4, "out", b.io(), "o4");
    // One scheme output fed from two blocks receives from both.
    b.port(t1, "out", b.io(), "both");
    b.port(t3, "out", b.io(), "both");
    // A scheme input port passed straight on to a scheme output port.
    b.port(b.io(), "pass", b.io(), "passOut");
    auto sys = b.run();

    std::vector<std::pair<int, bool>> got;
    Recorder<bool> r1(&got, 1), r2(&got, 2), r3(&got, 3), r4(&got, 4), rBoth(&got, 5);
    sys->getOutputPort("o1")->connect(&r1.port);
    sys->getOutputPort("o2")->connect(&r2.port);
    sys->getOutputPort("o3")->connect(&r3.port);
    sys->getOutputPort("o4")->connect(&r4.port);
    sys->getOutputPort("both")->connect(&rBoth.port);

    auto* go = dynamic_cast<wInputPort<bool>*>(sys->getInputPort("go"));
    ASSERT_NE(go, nullptr);
    go->setValue(true);
    // t1 and t3 send into "both" first: that connection was made while building, the
    // host's own connections to o1 and o3 came after it.
    EXPECT_THAT(got, ElementsAre(std::pair{2, false}, std::pair{5, false}, std::pair{1, false}, std::pair{5, false},
                                 std::pair{3, false}));
    // Untyped writes into the fan-out node stop there.
    got.clear();
    const bool v = false;
    go->setValueFromPtr(&v);
    EXPECT_TRUE(got.empty());
    for (const char* n : {"t1", "t2", "t3"}) {
        auto* t = dynamic_cast<testblocks::Trigger*>(rt::blockNamed(*sys, n));
        ASSERT_NE(t, nullptr) << n;
        EXPECT_EQ(t->arrivals, 1) << n;
    }

    // A single consumer is entered directly, without a proxy.
    EXPECT_EQ(sys->getInputPort("solo"), rt::blockNamed(*sys, "t4")->getInputPort("in"));
    dynamic_cast<wInputPort<bool>*>(sys->getInputPort("solo"))->setValue(false);
    EXPECT_THAT(got, ElementsAre(std::pair{4, true}));

    std::vector<std::pair<int, double>> passed;
    Recorder<double> rPass(&passed, 9);
    sys->getOutputPort("passOut")->connect(&rPass.port);
    dynamic_cast<wInputPort<double>*>(sys->getInputPort("pass"))->setValue(4.5);
    EXPECT_THAT(passed, ElementsAre(std::pair{9, 4.5}));
}

TEST(RuntimeSystem, UnusedSchemePortsShareProcessWidePlaceholders) {
    auto build = [](rt::Builder& b) {
        b.inputWire("u");  // some data area, so the scheme is laid out
        b.inputPort("spare", LEAD_DOUBLE);
        b.inputPort("obj", LEAD_OBJECT_PTR);
        b.outputPort("idle", LEAD_INT);
        return b.run();
    };
    rt::Builder b1, b2;
    b2.add<TriggerDescriptor>("t");  // a different scheme
    auto s1 = build(b1);
    auto s2 = build(b2);

    wInputPortBase* spare = s1->getInputPort("spare");
    ASSERT_NE(spare, nullptr);
    EXPECT_EQ(spare->getType(), LEAD_DOUBLE);
    EXPECT_EQ(spare, s2->getInputPort("spare"));
    dynamic_cast<wInputPort<double>&>(*spare).setValue(3.25);
    EXPECT_EQ(dynamic_cast<wInputPort<double>&>(*s2->getInputPort("spare")).getValue(), 3.25);
    EXPECT_NE(dynamic_cast<wInputPortObjPtrUnknown*>(s1->getInputPort("obj")), nullptr);
    EXPECT_EQ(s1->getInputPort("obj"), s2->getInputPort("obj"));
    wOutputPortBase* idle = s1->getOutputPort("idle");
    ASSERT_NE(idle, nullptr);
    EXPECT_EQ(idle->getType(), LEAD_INT);
    EXPECT_EQ(idle, s2->getOutputPort("idle"));

    // Unknown names.
    EXPECT_EQ(testutil::messageOf([&] { s1->getInputPort("nope"); }), "No input port in scheme: nope");
    EXPECT_EQ(testutil::messageOf([&] { s1->getOutputPort("spare"); }), "No output port in scheme: spare");
    EXPECT_EQ(s1->getInputPort("idle", false), nullptr);
    EXPECT_EQ(s1->getOutputPort("nope", false), nullptr);
    EXPECT_EQ(testutil::messageOf([&] { s1->getInputWireOffset("y"); }), "No input wire in scheme: y");
    EXPECT_EQ(testutil::messageOf([&] { s1->getOutputWireOffset("u"); }), "No output wire in scheme: u");
}

TEST(RuntimeSystem, FailuresWhileBuildingPropagateAndFreeEverything) {
    // Each scheme gets a wire (so it has a data area) and fails in a different place; the
    // host's area passes to the system and must be freed with it (the leak checker sees).
    struct Case {
        const char* expected;
        void (*setUp)(rt::Builder&);
    };
    const Case cases[] = {
        {"Cannot create output port of type wWireObjectPtrBase",
         [](rt::Builder& b) { b.outputPort("stream", LEAD_OBJECT_PTR); }},
        {"Attempt to connect ports of different types",
         [](rt::Builder& b) {
             auto* t = b.add<TriggerDescriptor>("t");
             b.inputPort("x", LEAD_DOUBLE);
             b.port(b.io(), "x", t, "in");
         }},
        {"Attempt to connect ports of different types",
         [](rt::Builder& b) {
             auto* t = b.add<TriggerDescriptor>("t");
             b.outputPort("x", LEAD_INT);
             b.port(t, "out", b.io(), "x");
         }},
        {"Block t has no input port nope",
         [](rt::Builder& b) {
             auto* t = b.add<TriggerDescriptor>("t");
             b.inputPort("go");
             b.port(b.io(), "go", t, "nope");
         }},
        {"RtFailing cannot run",
         [](rt::Builder& b) {
             auto* c = b.add<CounterDescriptor>("c");
             b.add<FailingDescriptor>("f");
             b.outputWire("n", LEAD_INT);
             b.wire(c, "count", b.io(), "n");
         }},
        {"Scheme with continuous blocks has no ODE solver",
         [](rt::Builder& b) {
             auto* i = b.add<IntegratorDescriptor>("i");
             b.wire(b.io(), "u", i, "in");
             b.wire(b.io(), "u", i, "x.initial");
         }},
    };
    for (const Case& c : cases) {
        rt::Builder b;
        b.inputWire("u");
        c.setUp(b);
        b.scheme.analyse();
        ASSERT_GT(b.scheme.getMemorySize(), 0) << c.expected;
        unsigned char* area = wSimulationSystem::allocateData(b.scheme.getMemorySize());
        EXPECT_EQ(testutil::messageOf([&] { b.scheme.instantiate(nullptr, area); }), c.expected);
    }
}

TEST(RuntimeSystem, HostSuppliedAreaIsUsedAndOwned) {
    rt::Builder b;
    auto* g = b.add<GainDescriptor>("g");
    g->k.set(4.0);
    b.inputWire("u");
    b.outputWire("y");
    b.wire(b.io(), "u", g, "in");
    b.wire(g, "out", b.io(), "y");
    b.scheme.analyse();
    unsigned char* area = wSimulationSystem::allocateData(b.scheme.getMemorySize());
    for (int i = 0; i < b.scheme.getMemorySize(); ++i) EXPECT_EQ(area[i], 0);
    auto sys = b.scheme.instantiate(nullptr, area);
    EXPECT_EQ(sys->getDataPtr(), area);
    writeWire<double>(area, sys->getInputWireOffset("u"), 0.5);
    sys->simulate(0.0);
    EXPECT_EQ(readWire<double>(area, sys->getOutputWireOffset("y")), 2.0);
    // Destroying the system frees the area (checked by the leak checker).
}

TEST(RuntimeSystem, ResetDiffStateReloadsInitialValuesWhateverIsWritten) {
    rt::Builder b;
    auto* i = b.add<IntegratorDescriptor>("i");
    b.euler(0.1);
    b.inputWire("u");
    b.inputWire("x0");
    b.inputPort("rst");
    b.outputWire("x");
    b.wire(b.io(), "u", i, "in");
    b.wire(b.io(), "x0", i, "x.initial");
    b.wire(i, "x", b.io(), "x");
    b.port(b.io(), "rst", b.special(), "reset_diff_state");
    auto sys = b.run();

    sys->setInput<double>("u", 1.0);
    double T = 0;
    for (int k = 0; k < 3; ++k) T += sys->simulate(T);
    EXPECT_NEAR(sys->getOutput<double>("x"), 0.3, 1e-12);

    auto* rst = dynamic_cast<wInputPort<bool>*>(sys->getInputPort("rst"));
    ASSERT_NE(rst, nullptr);
    sys->setInput<double>("x0", 7.5);
    rst->setValue(false);
    EXPECT_EQ(sys->getDiffState()[0], 7.5);
    sys->setInput<double>("x0", -1.0);
    rst->setValue(true);
    EXPECT_EQ(sys->getDiffState()[0], -1.0);
    T += sys->simulate(T);
    EXPECT_NEAR(sys->getOutput<double>("x"), -0.9, 1e-12);
    // reset() zeroes the continuous state instead.
    sys->reset();
    EXPECT_EQ(sys->getOutput<double>("x"), 0.0);
}

TEST(RuntimeSystem, DiscreteBlockThatNeverAdvancesIsStopped) {
    rt::Builder b;
    auto* keep = b.add<CounterDescriptor>("fine");
    auto* c = b.add<CounterDescriptor>("stuck");
    keep->dt.set(1.0);
    c->dt.set(0.0);
    auto sys = b.run();
    EXPECT_EQ(testutil::messageOf<wSimulationException>([&] { sys->simulate(0.0); }),
              "Discrete block stuck keeps scheduling itself at t = 0 without advancing (returned delay 0)");
    // Gave up after a bounded number of steps.
    EXPECT_LT(testblocks::trace().size(), 1300u);

    // Going back in time by a negative delay is caught the same way.
    c->dt.set(-0.25);
    sys->reset();
    EXPECT_THAT(testutil::messageOf<wSimulationException>([&] { sys->simulate(0.0); }),
                HasSubstr("Discrete block stuck keeps scheduling itself at t = -"));

    // The system is still usable once the block behaves.
    c->dt.set(0.5);
    sys->reset();
    testblocks::clearTrace();
    EXPECT_DOUBLE_EQ(sys->simulate(0.0), 0.5);
    EXPECT_THAT(testblocks::trace(), ElementsAre("fine@0", "stuck@0"));
}

TEST(RuntimeSystem, TracesSimulateCallsOnlyAtLevelThree) {
    rt::Builder b;
    b.add<CounterDescriptor>("c");
    auto sys = b.run();
    testutil::LogCapture below(2);
    sys->simulate(0.0);
    EXPECT_EQ(below.text(), "");
    testutil::LogCapture log(3);
    wSimulationLogger::instance().setIndent(2);
    sys->simulate(0.25);
    EXPECT_EQ(log.text(), "  simulate (0.25)\n  done simulate (0.25)\n");
}

TEST(RuntimeSystem, TimesThatAreNotFiniteAreRefused) {
    rt::Builder b;
    b.add<CounterDescriptor>("c");
    auto sys = b.run();
    const double nan = std::numeric_limits<double>::quiet_NaN(), inf = std::numeric_limits<double>::infinity();
    for (const double t : {nan, inf, -inf}) {
        // NaN would never let the counter become due; infinity would run it for ever.
        EXPECT_THAT(testutil::messageOf<wSimulationException>([&] { sys->simulate(t); }),
                    HasSubstr("simulate: the time must be a finite number of seconds, got "))
            << t;
        EXPECT_THAT(testutil::messageOf<wSimulationException>([&] { sys->setSchemeQueueTime(t); }),
                    HasSubstr("setSchemeQueueTime: the time must be a finite number of seconds"))
            << t;
    }
    EXPECT_TRUE(testblocks::trace().empty());
    EXPECT_EQ(sys->getSchemeQueueTime(), 0.0);
    EXPECT_DOUBLE_EQ(sys->simulate(0.0), 0.1);
}

TEST(RuntimeSystem, AStateBlobTooShortIsRefusedBeforeAnyBlockChanges) {
    rt::Builder b;
    b.add<CounterDescriptor>("a");
    b.add<CounterDescriptor>("b");
    auto sys = b.run();
    sys->simulate(0.0);
    zo::vector<unsigned char> saved;
    ASSERT_TRUE(sys->getSchemeStateData(&saved));
    ASSERT_EQ(saved.size(), 8u);

    zo::vector<unsigned char> other(8, 0);
    other[0] = 7;  // a: 7 steps; b: 0
    for (std::size_t size : {0u, 3u, 7u}) {
        zo::vector<unsigned char> cut(other.begin(), other.begin() + static_cast<long>(size));
        EXPECT_THAT(testutil::messageOf<wSimulationException>([&] { sys->setSchemeStateData(&cut); }),
                    HasSubstr("State data does not fit the scheme: block "))
            << size;
        zo::vector<unsigned char> now;
        sys->getSchemeStateData(&now);
        EXPECT_EQ(now, saved) << "a short blob changed the state (" << size << " bytes)";
    }
    // A longer blob is read as far as the blocks need, as before.
    zo::vector<unsigned char> longer = other;
    longer.resize(20, 0xAB);
    sys->setSchemeStateData(&longer);
    zo::vector<unsigned char> now;
    sys->getSchemeStateData(&now);
    EXPECT_EQ(now, other);
}
