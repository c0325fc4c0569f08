// The simulation system: schedule and dirty flags, ports, state blobs, the data area,
// failures while building, the guards against endless loops, and the trace log.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <malloc.h>

#include <cmath>
#include <cstring>
#include <limits>
#include <utility>
#include <vector>

#include "support/SchemeFiles.h"

using namespace testblocks;
using testing::ElementsAre;
using testutil::Builder;
using testutil::messageOf;

namespace {

// A discrete block that registers no state (so a scheme holding it has none to save),
// and notes whether its system still had a data area when it was destroyed.
struct Silent : wSimulationBlockDisc {
    using wSimulationBlockDisc::wSimulationBlockDisc;
    ~Silent() override { hadData = system_->getDataPtr() != nullptr; }
    double step(double) override { return 1.0; }
    static inline bool hadData = false;
};
class SilentDescriptor : public wDescriptorImpl<SilentDescriptor, wSimulationBlockDiscDescriptor> {
public:
    static const zo::string& getBlockClassNameS() {
        static const zo::string s = "TestSilent";
        return s;
    }
    static const zo::string& getBlockTypeNameS() { return getBlockClassNameS(); }
    wSimulationBlockDisc* create(Lua::Loader*, wSimulationSystem* s) const override {
        if (fail) throw wSimulationException("TestSilent cannot run");
        return new Silent(this, s);
    }
    bool fail = false;
};

// u -> g1 (k 2) -> g2 (k 3) -> y, added out of order; c counts every dt to "n".
struct Chain {
    explicit Chain(double dt) {
        g2 = b.add<GainDescriptor>("g2");
        g1 = b.add<GainDescriptor>("g1");
        c = b.add<CounterDescriptor>("c");
        g1->k.set(2.0);
        g2->k.set(3.0);
        c->dt.set(dt);
        b.inputWire("u");
        b.outputWire("y");
        b.outputWire("n", LEAD_INT);
        b.wire(nullptr, "u", g1, "in");
        b.wire(g1, "out", g2, "in");
        b.wire(g2, "out", nullptr, "y");
        b.wire(c, "count", nullptr, "n");
        sys = b.run();
    }
    Builder b;
    GainDescriptor *g1, *g2;
    CounterDescriptor* c;
    std::unique_ptr<wSimulationSystem> sys;
};

TEST(RuntimeSystem, HostAccessWithTheWrongCppTypeThrows) {
    Chain m(0.1);
    wSimulationSystem& sys = *m.sys;
    sys.setInput<double>("u", 1.5);
    sys.simulate(0.0);
    EXPECT_EQ(messageOf([&] { sys.setInput<int>("u", 1); }),
              "Scheme input wire u holds double, not integer: access it with the C++ type of its lead");
    EXPECT_EQ(messageOf([&] { sys.getOutput<double>("n"); }),
              "Scheme output wire n holds integer, not double: access it with the C++ type of its lead");
    EXPECT_EQ(messageOf([&] { sys.getOutput<bool>("y"); }),
              "Scheme output wire y holds double, not boolean: access it with the C++ type of its lead");
    EXPECT_EQ(messageOf([&] { sys.getOutput<double>("nosuch"); }), "No output wire in scheme: nosuch");
    // A refused write changes nothing.
    EXPECT_EQ(sys.getOutput<double>("y"), 9.0);
}

TEST(RuntimeSystem, InputsFlowInDataOrderAndDiscreteBlocksRunWhenDue) {
    Chain m(0.1);
    wSimulationSystem& sys = *m.sys;
    sys.setInput<double>("u", 1.5);
    EXPECT_NEAR(sys.simulate(0.0), 0.1, 1e-15);
    EXPECT_EQ(sys.getOutput<double>("y"), 9.0);
    EXPECT_EQ(sys.getOutput<int>("n"), 1);
    sys.setInput<double>("u", -1.0);
    EXPECT_NEAR(sys.simulate(0.1), 0.1, 1e-15);
    EXPECT_EQ(sys.getOutput<double>("y"), -6.0);
    // Discrete steps first; the output side is then brought up to the next event.
    EXPECT_THAT(trace(), ElementsAre("c@0", "g1@0.1", "g2@0.1", "c@0.1", "g1@0.2", "g2@0.2"));
    // Several periods behind: every missed step runs in one call.
    EXPECT_NEAR(sys.simulate(0.45), 0.05, 1e-12);
    EXPECT_EQ(sys.getOutput<int>("n"), 5);
    EXPECT_EQ(sys.getBlockCount(), 3);

    // A block due within 1e-8 after T runs now; one due later waits.
    for (const auto& [late, runs] : {std::pair{5e-9, true}, std::pair{2e-8, false}}) {
        Chain w(1.0 + late);
        w.sys->simulate(0.0);
        EXPECT_NEAR(w.sys->simulate(1.0), runs ? 1.0 + 2 * late : late, 1e-12) << late;
        EXPECT_EQ(w.sys->getOutput<int>("n"), runs ? 2 : 1) << late;
    }
    // A block that asks never to run again runs once per reset, from time 0.
    Chain once(-1.0);
    EXPECT_EQ(once.sys->simulate(0.0), -1.0);
    EXPECT_EQ(once.sys->simulate(5.0), -1.0);
    once.sys->reset();
    clearTrace();
    EXPECT_EQ(once.sys->simulate(7.0), -1.0);
    EXPECT_EQ(once.sys->getOutput<int>("n"), 1);  // the counter restarted
    EXPECT_THAT(trace(), ElementsAre("c@0", "g1@7", "g2@7"));
}

TEST(RuntimeSystem, StatelessBlocksRunOnlyWhenSomethingUpstreamChanged) {
    Builder b;
    auto* s = b.add<SamplerDescriptor>("s");
    auto* g = b.add<GainDescriptor>("g");
    s->dt.set(0.5);
    g->k.set(10.0);
    b.inputWire("u", s, "in");
    b.outputWire(g, "out", "y");
    b.wire(s, "out", g, "in");
    auto sys = b.run();
    sys->setInput<double>("u", 2.0);
    EXPECT_DOUBLE_EQ(sys->simulate(0.0), 0.5);
    EXPECT_EQ(sys->getOutput<double>("y"), 20.0);
    sys->setInput<double>("u", 5.0);
    EXPECT_DOUBLE_EQ(sys->simulate(0.1), 0.4);
    EXPECT_DOUBLE_EQ(sys->simulate(0.3), 0.2);
    EXPECT_EQ(sys->getOutput<double>("y"), 20.0);
    EXPECT_DOUBLE_EQ(sys->simulate(0.5), 0.5);
    EXPECT_EQ(sys->getOutput<double>("y"), 50.0);
    // The output side is brought up to the time of the next event.
    EXPECT_THAT(trace(), ElementsAre("s@0", "g@0.5", "s@0.5", "g@1"));

    // Nearly simultaneous events run by discrete index; further apart, by time.
    for (const auto& [gap, aFirst] : {std::pair{1e-10, true}, std::pair{5e-9, false}}) {
        Builder e;
        e.add<CounterDescriptor>("a")->dt.set(1.0 + gap);
        e.add<CounterDescriptor>("b")->dt.set(1.0);
        auto events = e.run();
        events->simulate(0.0);
        clearTrace();
        events->simulate(1.0);
        EXPECT_EQ(trace()[0], aFirst ? "a@1" : "b@1") << gap;
    }
}

TEST(RuntimeSystem, StateBlobConcatenatesBlockBlobsInDiscreteOrder) {
    Builder b;
    auto* c = b.add<CounterDescriptor>("c");
    b.add<VecSourceDescriptor>("v");  // state size 0: contributes nothing
    auto* s = b.add<SamplerDescriptor>("s");
    c->dt.set(0.5);
    s->dt.set(0.5);
    b.inputWire("u", s, "in");
    b.outputWire(c, "count", "n", LEAD_INT);
    auto sys = b.run();
    sys->setInput<double>("u", 2.5);
    sys->simulate(0.0);
    ASSERT_EQ(sys->getSchemeStateDataSize(), 12);
    zo::vector<unsigned char> blob(3, 0xEE);
    ASSERT_TRUE(sys->getSchemeStateData(&blob));
    int count = 0;
    double sampled = 0;
    ASSERT_EQ(blob.size(), 12u);
    std::memcpy(&count, blob.data(), 4);
    std::memcpy(&sampled, blob.data() + 4, 8);
    EXPECT_EQ(count, 1);
    EXPECT_EQ(sampled, 2.5);

    // Restoring sets the blocks' own state: the counter continues from the blob.
    count = 41;
    std::memcpy(blob.data(), &count, 4);
    sys->setSchemeStateData(&blob);
    zo::vector<unsigned char> again;
    ASSERT_TRUE(sys->getSchemeStateData(&again));
    EXPECT_EQ(again, blob);
    EXPECT_EQ(sys->getSchemeQueueTime(), 0.5);
    sys->simulate(0.5);
    EXPECT_EQ(sys->getOutput<int>("n"), 42);
    // Moving the queue time moves every scheduled block; ties then go by index.
    sys->setSchemeQueueTime(2.0);
    clearTrace();
    EXPECT_DOUBLE_EQ(sys->simulate(1.0), 1.0);
    EXPECT_TRUE(trace().empty());
    sys->simulate(2.0);
    EXPECT_THAT(trace(), ElementsAre("c@2", "s@2"));

    // A discrete block without registered state makes the whole scheme unsaveable.
    b.add<SilentDescriptor>("quiet");
    b.scheme.analyse();
    std::unique_ptr<wSimulationSystem> unsaveable(b.scheme.instantiate());
    EXPECT_EQ(unsaveable->getSchemeStateDataSize(), -1);
    zo::vector<unsigned char> untouched{7, 7};
    EXPECT_FALSE(unsaveable->getSchemeStateData(&untouched));
    EXPECT_EQ(untouched, (zo::vector<unsigned char>{7, 7}));
    unsaveable->setSchemeStateData(&blob);  // nothing is restored either
    unsaveable->simulate(0.0);
    EXPECT_EQ(unsaveable->getOutput<int>("n"), 1);
    // Runtime blocks go before the data area: a nested system may still work in it.
    unsaveable.reset();
    EXPECT_TRUE(Silent::hadData);
    // No discrete blocks at all: empty state, empty queue.
    Builder none;
    none.inputWire("u");
    none.wire(nullptr, "u", none.add<GainDescriptor>("g"), "in");
    auto empty = none.run();
    EXPECT_EQ(empty->getSchemeStateDataSize(), 0);
    EXPECT_TRUE(empty->getSchemeStateData(&untouched));
    EXPECT_TRUE(untouched.empty());
    EXPECT_EQ(empty->getSchemeQueueTime(), 0.0);
}

TEST(RuntimeSystem, SchemePortsFanOutInConnectionOrder) {
    Builder b;
    TriggerDescriptor* t[4];
    for (int i = 0; i < 4; ++i) t[i] = b.add<TriggerDescriptor>("t" + std::to_string(i + 1));
    b.inputPort("go");
    b.inputPort("solo");
    b.inputPort("pass", LEAD_DOUBLE);
    b.inputPort("spare", LEAD_DOUBLE);
    b.inputPort("obj", LEAD_OBJECT_PTR);
    for (const char* n : {"o1", "o2", "o3", "o4", "both"}) b.outputPort(n);
    b.outputPort("passOut", LEAD_DOUBLE);
    b.outputPort("idle", LEAD_INT);
    // Connected in the order t2, t1, t3: values must arrive in that order.
    for (int i : {1, 0, 2}) b.port(nullptr, "go", t[i], "in");
    b.port(nullptr, "solo", t[3], "in");
    for (int i = 0; i < 4; ++i) b.port(t[i], "out", nullptr, "o" + std::to_string(i + 1));
    // One scheme output fed from two blocks receives from both, connected before the host.
    b.port(t[0], "out", nullptr, "both");
    b.port(t[2], "out", nullptr, "both");
    b.port(nullptr, "pass", nullptr, "passOut");  // straight through
    auto sys = b.run();

    std::vector<std::string> got;
    struct Tagged {
        std::vector<std::string>* log;
        std::string tag;
        wInputPortImpl<bool, Tagged> port{this, &Tagged::on};
        void on(const bool& v) { log->push_back(tag + (v ? "+" : "-")); }
    };
    Tagged r[5] = {{&got, "o1"}, {&got, "o2"}, {&got, "o3"}, {&got, "o4"}, {&got, "both"}};
    for (Tagged& x : r) sys->getOutputPort(x.tag)->connect(&x.port);
    testutil::sendToInput(*sys, "go", true);
    EXPECT_THAT(got, ElementsAre("o2-", "both-", "o1-", "both-", "o3-"));
    got.clear();
    const bool v = false;
    sys->getInputPort("go")->setValueFromPtr(&v);  // untyped writes stop at the fan-out node
    EXPECT_TRUE(got.empty());
    for (int i = 0; i < 3; ++i) EXPECT_EQ(dynamic_cast<Trigger&>(*testutil::blockNamed(*sys, t[i]->getName())).arrivals, 1);
    // A single consumer is entered directly, without a proxy.
    EXPECT_EQ(sys->getInputPort("solo"), testutil::blockNamed(*sys, "t4")->getInputPort("in"));
    testutil::PortRecorder<double> passed;
    passed.listen(*sys, "passOut");
    testutil::sendToInput(*sys, "pass", 4.5);
    EXPECT_EQ(passed.take(), std::vector<double>{4.5});

    // Unused scheme ports share process-wide stand-ins of their type.
    Builder other;
    other.inputWire("u");
    other.inputPort("spare", LEAD_DOUBLE);
    other.outputPort("idle", LEAD_INT);
    auto sys2 = other.run();
    EXPECT_EQ(sys->getInputPort("spare"), sys2->getInputPort("spare"));
    EXPECT_EQ(sys->getInputPort("spare")->getType(), LEAD_DOUBLE);
    EXPECT_EQ(sys->getOutputPort("idle"), sys2->getOutputPort("idle"));
    EXPECT_NE(dynamic_cast<wInputPortObjPtrUnknown*>(sys->getInputPort("obj")), nullptr);
    EXPECT_EQ(messageOf([&] { sys->getInputPort("nope"); }), "No input port in scheme: nope");
    EXPECT_EQ(messageOf([&] { sys->getOutputPort("spare"); }), "No output port in scheme: spare");
    EXPECT_EQ(sys->getInputPort("idle", false), nullptr);
    EXPECT_EQ(messageOf([&] { sys2->getInputWireOffset("y"); }), "No input wire in scheme: y");
    EXPECT_EQ(messageOf([&] { sys2->getOutputWireOffset("u"); }), "No output wire in scheme: u");
}

TEST(RuntimeSystem, FailuresWhileBuildingFreeEverything) {
    // Each scheme has a data area from the host, which passes to the system and must be
    // freed with it (the leak checker sees), and fails in a different place.
    const std::pair<std::string, void (*)(Builder&)> cases[] = {
        {"Cannot create output port of type wWireObjectPtrBase", [](Builder& b) { b.outputPort("s", LEAD_OBJECT_PTR); }},
        {"Attempt to connect ports of different types",
         [](Builder& b) {
             b.inputPort("x", LEAD_DOUBLE);
             b.port(nullptr, "x", b.add<TriggerDescriptor>("t"), "in");
         }},
        {"Attempt to connect ports of different types",
         [](Builder& b) {
             b.outputPort("x", LEAD_INT);
             b.port(b.add<TriggerDescriptor>("t"), "out", nullptr, "x");
         }},
        {"Block t has no input port nope",
         [](Builder& b) {
             b.inputPort("go");
             b.port(nullptr, "go", b.add<TriggerDescriptor>("t"), "nope");
         }},
        {"Block I/O block has no input port nope", [](Builder& b) { b.port(b.add<TriggerDescriptor>("t"), "out", nullptr, "nope"); }},
        {"TestSilent cannot run",
         [](Builder& b) {
             b.add<CounterDescriptor>("c");
             b.add<SilentDescriptor>("f")->fail = true;
         }},
        {"Scheme with continuous blocks has no ODE solver",
         [](Builder& b) {
             auto* i = b.add<IntegratorDescriptor>("i");
             b.wire(nullptr, "u", i, "in");
             b.wire(nullptr, "u", i, "x.initial");
         }},
    };
    for (const auto& [expected, setUp] : cases) {
        Builder b;
        b.inputWire("u");
        setUp(b);
        b.scheme.analyse();
        unsigned char* area = wSimulationSystem::allocateData(b.scheme.getMemorySize());
        EXPECT_EQ(messageOf([&] { b.scheme.instantiate(nullptr, area); }), expected);
    }
    Builder unanalysed;
    unanalysed.add<CounterDescriptor>("c");
    EXPECT_EQ(messageOf([&] { unanalysed.scheme.instantiate(); }), "Scheme is not analysed for running: 1 blocks, 0 analysed");
}

TEST(RuntimeSystem, TheDataAreaIsTheHostsOrZeroedAndAlwaysFreed) {
    Builder b;
    auto* g = b.add<GainDescriptor>("g");
    g->k.set(4.0);
    b.inputWire("u", g, "in");
    b.outputWire(g, "out", "y");
    b.scheme.analyse();
    unsigned char* area = wSimulationSystem::allocateData(b.scheme.getMemorySize());
    for (int i = 0; i < b.scheme.getMemorySize(); ++i) EXPECT_EQ(area[i], 0);
    std::unique_ptr<wSimulationSystem> sys(b.scheme.instantiate(nullptr, area));
    EXPECT_EQ(sys->getDataPtr(), area);
    writeWire<double>(area, sys->getInputWireOffset("u"), 0.5);
    sys->simulate(0.0);
    EXPECT_EQ(readWire<double>(area, sys->getOutputWireOffset("y")), 2.0);
    sys.reset();

    // Destroying systems gives their areas back, the host's and their own alike.
    for (int i = 0; i < 64; ++i) b.inputWire("pad" + std::to_string(i), LEAD_QUATERNION);
    b.scheme.analyse();
    ASSERT_GT(b.scheme.getMemorySize(), 2000);
    const std::size_t before = mallinfo2().uordblks;
    for (int i = 0; i < 1000; ++i)
        delete b.scheme.instantiate(nullptr, i % 2 ? wSimulationSystem::allocateData(b.scheme.getMemorySize()) : nullptr);
    EXPECT_LT(mallinfo2().uordblks, before + 100000);
}

TEST(RuntimeSystem, ResetDiffStateReloadsInitialValuesWhateverIsWritten) {
    Builder b;
    auto* i = b.add<IntegratorDescriptor>("i");
    b.euler(0.1);
    b.inputWire("u", i, "in");
    b.inputWire("x0", i, "x.initial");
    b.inputPort("rst");
    b.outputWire(i, "x", "x");
    b.port(nullptr, "rst", b.special(), "reset_diff_state");
    auto sys = b.run();
    sys->setInput<double>("u", 1.0);
    double T = 0;
    for (int k = 0; k < 3; ++k) T += sys->simulate(T);
    EXPECT_NEAR(sys->getOutput<double>("x"), 0.3, 1e-12);
    for (bool value : {false, true}) {
        sys->setInput<double>("x0", value ? -1.0 : 7.5);
        testutil::sendToInput(*sys, "rst", value);
        EXPECT_EQ(sys->getDiffState()[0], value ? -1.0 : 7.5);
    }
    T += sys->simulate(T);
    EXPECT_NEAR(sys->getOutput<double>("x"), -0.9, 1e-12);
    sys->reset();  // zeroes the continuous state instead
    EXPECT_EQ(sys->getOutput<double>("x"), 0.0);
}

TEST(RuntimeSystem, DiscreteBlockThatNeverAdvancesIsStopped) {
    Builder b;
    b.add<CounterDescriptor>("fine")->dt.set(1.0);
    auto* c = b.add<CounterDescriptor>("stuck");
    c->dt.set(0.0);
    auto sys = b.run();
    EXPECT_EQ(messageOf([&] { sys->simulate(0.0); }),
              "Discrete block stuck keeps scheduling itself at t = 0 without advancing (returned delay 0): stuck is a"
              " TestCounter; a discrete block must ask for a positive delay: check its period (dt), or what its"
              " script's run returns");
    EXPECT_LT(trace().size(), 1300u);  // gave up after a bounded number of steps
    c->dt.set(-0.25);  // going back in time
    sys->reset();
    EXPECT_EQ(messageOf([&] { sys->simulate(0.0); }).rfind("Discrete block stuck keeps scheduling itself at t = -", 0), 0u);
    c->dt.set(std::nan(""));
    sys->reset();
    EXPECT_EQ(messageOf([&] { sys->simulate(0.0); }), "Discrete block stuck returned an invalid delay (nan) at t = 0");
    // Usable again once the block behaves.
    c->dt.set(0.5);
    sys->reset();
    clearTrace();
    EXPECT_DOUBLE_EQ(sys->simulate(0.0), 0.5);
    EXPECT_THAT(trace(), ElementsAre("fine@0", "stuck@0"));
}

TEST(RuntimeSystem, TracesSimulateCallsOnlyAtLevelThree) {
    Builder b;
    b.add<CounterDescriptor>("c");
    auto sys = b.run();
    {
        testutil::LogCapture below(2);
        sys->simulate(0.0);
        EXPECT_EQ(below.text(), "");
    }
    testutil::LogCapture log(3);
    wSimulationLogger& logger = wSimulationLogger::instance();
    logger.setIndent(2);
    sys->simulate(0.25);
    {
        wLogIndentScope nested;
        logger << wSimulationLogger::Indenter() << "x" << 1 << std::endl;
    }
    EXPECT_EQ(log.text(), "  simulate (0.25)\n  done simulate (0.25)\n      x1\n");
    EXPECT_THROW(logger.addIndent(-4), std::length_error);
    EXPECT_EQ(logger.getIndent(), 2);
    logger.setStream(nullptr);
    EXPECT_FALSE(logger.enabled(LOG_TRACE));  // no stream, nothing is enabled
}

TEST(RuntimeSystem, TimesThatAreNotFiniteAreRefused) {
    Builder b;
    b.add<CounterDescriptor>("c");
    auto sys = b.run();
    const double nan = std::numeric_limits<double>::quiet_NaN(), inf = std::numeric_limits<double>::infinity();
    for (const double t : {nan, inf, -inf}) {
        // NaN would never let the counter become due; infinity would run it for ever.
        EXPECT_THAT(messageOf<wSimulationException>([&] { sys->simulate(t); }),
                    testing::HasSubstr("simulate: the time must be a finite number of seconds, got "))
            << t;
        EXPECT_THAT(messageOf<wSimulationException>([&] { sys->setSchemeQueueTime(t); }),
                    testing::HasSubstr("setSchemeQueueTime: the time must be a finite number of seconds"))
            << t;
    }
    EXPECT_TRUE(testblocks::trace().empty());
    EXPECT_EQ(sys->getSchemeQueueTime(), 0.0);
    EXPECT_DOUBLE_EQ(sys->simulate(0.0), 0.1);
}

TEST(RuntimeSystem, AStateBlobTooShortIsRefusedBeforeAnyBlockChanges) {
    Builder b;
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
        EXPECT_THAT(messageOf<wSimulationException>([&] { sys->setSchemeStateData(&cut); }),
                    testing::HasSubstr("State data does not fit the scheme: block "))
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

}  // namespace
