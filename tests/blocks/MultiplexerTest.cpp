// End-to-end tests of the multiplexor (port router) through scheme files.
#include <gtest/gtest.h>

#include "support/SchemeFiles.h"
#include "vandrel/blocks/Multiplexer.h"
#include "vandrel/runtime/SimulationException.h"

using testutil::kIO;
using testutil::PortRecorder;
using testutil::Running;

namespace {

std::string leadsText(const std::vector<std::string>& names, int type) {
    std::string s = "{ ";
    for (const auto& n : names) s += "{ name = \"" + n + "\", type = " + std::to_string(type) + " }, ";
    return s + "}";
}

// A multiplexor "mux" of lead type `type` with the given outputs, fed by scheme input port
// "in" and wire "sel"; each output o goes to scheme output port "o" + o.
std::string muxScheme(int type, const std::vector<std::string>& outputs, int outputType) {
    testutil::SchemeText s;
    const int m = s.block("mux", "wBlockMultiplexDescriptor", "type = { value = " + std::to_string(type) + " }",
                          "outputs = " + leadsText(outputs, outputType));
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
    // The block's step does nothing and asks never to run again.
    EXPECT_EQ(sys.simulate(0.0), -1.0);
    EXPECT_EQ(sys.getSchemeStateDataSize(), 0);

    // The select wire is read when the value arrives; no simulate call in between.
    sys.setInput<int>("sel", 1);
    testutil::sendToInput<double>(sys, "in", 2.5);
    sys.setInput<int>("sel", 0);
    testutil::sendToInput<double>(sys, "in", -1.0);
    sys.setInput<int>("sel", 2);
    testutil::sendToInput<double>(sys, "in", 7.0);
    testutil::sendToInput<double>(sys, "in", 8.0);
    EXPECT_EQ(a.take(), std::vector<double>{-1.0});
    EXPECT_EQ(a2.take(), std::vector<double>{-1.0});  // every input connected there
    EXPECT_EQ(b.take(), std::vector<double>{2.5});
    EXPECT_EQ(c.take(), (std::vector<double>{7.0, 8.0}));

    // Out of range: dropped.
    for (int sel : {3, -1, 1000}) {
        sys.setInput<int>("sel", sel);
        testutil::sendToInput<double>(sys, "in", 9.0);
    }
    sys.simulate(1.0);
    EXPECT_TRUE(a.take().empty());
    EXPECT_TRUE(b.take().empty());
    EXPECT_TRUE(c.take().empty());
}

TEST(Multiplexer, RoutesOtherLeadTypes) {
    {
        Running r(muxScheme(LEAD_VECTOR, {"x", "y"}, LEAD_VECTOR));
        PortRecorder<Vec3d> x, y;
        x.listen(*r.system, "ox");
        y.listen(*r.system, "oy");
        r.system->setInput<int>("sel", 1);
        testutil::sendToInput<Vec3d>(*r.system, "in", Vec3d{1, 2, 3});
        EXPECT_TRUE(x.take().empty());
        EXPECT_EQ(y.take(), std::vector<Vec3d>{(Vec3d{1, 2, 3})});
    }
    {
        Running r(muxScheme(LEAD_BOOL, {"p", "q"}, LEAD_BOOL));
        PortRecorder<bool> p, q;
        p.listen(*r.system, "op");
        q.listen(*r.system, "oq");
        r.system->setInput<int>("sel", 0);
        testutil::sendToInput<bool>(*r.system, "in", true);
        testutil::sendToInput<bool>(*r.system, "in", false);
        EXPECT_EQ(p.take(), (std::vector<bool>{true, false}));
        EXPECT_TRUE(q.take().empty());
    }
    {
        Running r(muxScheme(LEAD_OBJECT_ID, {"i", "j"}, LEAD_OBJECT_ID));
        PortRecorder<unsigned int> i, j;
        i.listen(*r.system, "oi");
        j.listen(*r.system, "oj");
        r.system->setInput<int>("sel", 1);
        testutil::sendToInput<unsigned int>(*r.system, "in", 4000000000u);
        EXPECT_EQ(j.take(), std::vector<unsigned int>{4000000000u});
    }
}

std::string loadError(const std::string& text) {
    try {
        Running r(text);
    } catch (const Exception& e) {
        return e.what();
    }
    return "(no error)";
}

TEST(Multiplexer, RefusesOutputsOfAnotherTypeAndUnroutableTypes) {
    const std::string mismatch = loadError(muxScheme(LEAD_DOUBLE, {"a", "b"}, LEAD_BOOL));
    EXPECT_NE(mismatch.find("Multiplexor mux: output a has type 1, expected 2"), std::string::npos) << mismatch;
    const std::string pointers = loadError(muxScheme(LEAD_OBJECT_PTR, {"a"}, LEAD_OBJECT_PTR));
    EXPECT_NE(pointers.find("Multiplexor mux: invalid type 5"), std::string::npos) << pointers;

    wBlockMultiplexDescriptor d;
    d.setName("m");
    wLeadList dup{{"a", LEAD_DOUBLE}, {"a", LEAD_DOUBLE}};
    EXPECT_THROW(d.setOutputs(dup), wSimulationException);
    EXPECT_EQ(d.getOutputs().size(), 2u);  // unchanged
    EXPECT_THROW(d.setLeadType(LEAD_OBJECT_PTR), wSimulationException);
    d.setLeadType(LEAD_QUATERNION);
    EXPECT_EQ(d.getInputPorts()[0], (wLeadDescription{"input", LEAD_QUATERNION}));
    EXPECT_EQ(d.getOutputPorts()[1], (wLeadDescription{"output2", LEAD_QUATERNION}));
}

TEST(Multiplexer, SaveReload) {
    auto scheme = testutil::saveAndReload(muxScheme(LEAD_VECTOR, {"left", "right", "up"}, LEAD_VECTOR));
    auto* m = dynamic_cast<wBlockMultiplexDescriptor*>(scheme->getBlockByName("mux"));
    ASSERT_NE(m, nullptr);
    EXPECT_EQ(m->getPortType(), LEAD_VECTOR);
    EXPECT_EQ(m->getOutputPorts(), (wLeadList{{"left", LEAD_VECTOR}, {"right", LEAD_VECTOR}, {"up", LEAD_VECTOR}}));
    EXPECT_EQ(scheme->getConnections().size(), 5u);
}

}  // namespace
