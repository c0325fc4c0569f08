// Logic blocks through real scheme files: wire gates evaluated by the system, trigger
// gates driven through ports, their file entries and reading errors.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <vector>

#include "support/SchemeFiles.h"
#include "vandrel/blocks/Logic.h"
#include "vandrel/runtime/SimulationException.h"

using testutil::kIO;
using testutil::Running;
using testutil::SchemeText;
using testing::HasSubstr;

namespace {

const char* const kAnd = "wBlockANDDescriptor";
const char* const kOr = "wBlockORDescriptor";

std::string inputsOf(const std::vector<std::string>& names) {
    std::string s = "inputs = {";
    for (const auto& n : names) s += " { name = \"" + n + "\" },";
    return s + " }";
}

// Every receiving end keeps the values it was sent, in order.
class Receiver : public wInputPort<bool> {
public:
    void setValue(const bool& v) override {
        value = v;
        got.push_back(v);
    }
    std::vector<bool> got;
};

void push(wSimulationSystem& sys, const char* port, bool v) {
    static_cast<wInputPort<bool>*>(sys.getInputPort(port))->setValue(v);
}

}  // namespace

TEST(LogicBlocks, WireGatesInAScheme) {
    SchemeText s;
    const int and3 = s.block("and3", kAnd, "", inputsOf({"p", "q", "r"}));
    const int or3 = s.block("or3", kOr, "", inputsOf({"p", "q", "r"}));
    const int not1 = s.block("not1", "wBlockNOTDescriptor");
    const int and1 = s.block("and1", kAnd, "", inputsOf({"only"}));
    const int or1 = s.block("or1", kOr, "", inputsOf({"only"}));
    const int and0 = s.block("and0", kAnd, "", "inputs = {}");
    for (const char* n : {"a", "b", "c"}) s.inputWire(n, LEAD_BOOL);
    for (const char* n : {"and3", "or3", "not1", "and1", "or1", "and0"}) s.outputWire(n, LEAD_BOOL);
    const char* ins[] = {"p", "q", "r"};
    const char* srcs[] = {"a", "b", "c"};
    for (int i = 0; i < 3; ++i) {
        s.wire(kIO, srcs[i], and3, ins[i]);
        s.wire(kIO, srcs[i], or3, ins[i]);
    }
    s.wire(kIO, "a", not1, "input");
    s.wire(kIO, "a", and1, "only");
    s.wire(kIO, "a", or1, "only");
    s.wire(and3, "output", kIO, "and3");
    s.wire(or3, "output", kIO, "or3");
    s.wire(not1, "output", kIO, "not1");
    s.wire(and1, "output", kIO, "and1");
    s.wire(or1, "output", kIO, "or1");
    s.wire(and0, "output", kIO, "and0");
    Running r(s.text());
    wSimulationSystem& sys = *r.system;

    struct Case {
        bool a, b, c, and3, or3;
    };
    const Case cases[] = {
        {true, true, false, false, true},  {true, true, true, true, true},   {false, false, true, false, true},
        {false, false, false, false, false}, {true, false, true, false, true}, {false, true, false, false, true},
    };
    double t = 0;
    for (const Case& k : cases) {
        sys.setInput<bool>("a", k.a);
        sys.setInput<bool>("b", k.b);
        sys.setInput<bool>("c", k.c);
        sys.simulate(t += 0.1);
        SCOPED_TRACE(testing::Message() << k.a << k.b << k.c);
        EXPECT_EQ(sys.getOutput<bool>("and3"), k.and3);
        EXPECT_EQ(sys.getOutput<bool>("or3"), k.or3);
        EXPECT_EQ(sys.getOutput<bool>("not1"), !k.a);
        // One input (or none): false whatever the input.
        EXPECT_FALSE(sys.getOutput<bool>("and1"));
        EXPECT_FALSE(sys.getOutput<bool>("or1"));
        EXPECT_FALSE(sys.getOutput<bool>("and0"));
    }

    // Any non-zero byte on a wire reads as true.
    writeWire<unsigned char>(sys.getDataPtr(), sys.getInputWireOffset("a"), 0x80);
    sys.setInput<bool>("b", true);
    sys.setInput<bool>("c", true);
    sys.simulate(t += 0.1);
    EXPECT_TRUE(sys.getOutput<bool>("and3"));
    EXPECT_FALSE(sys.getOutput<bool>("not1"));
}

TEST(LogicBlocks, GatesLogTheirStepAtTraceLevel) {
    SchemeText s;
    const int g = s.block("g", kAnd, "", inputsOf({"input1", "input2"}));
    s.inputWire("a", LEAD_BOOL);
    s.outputWire("y", LEAD_BOOL);
    s.wire(kIO, "a", g, "input1");
    s.wire(kIO, "a", g, "input2");
    s.wire(g, "output", kIO, "y");
    Running r(s.text());
    {
        testutil::LogCapture below(2);
        r.system->simulate(0.5);
        EXPECT_EQ(below.text(), "");
    }
    testutil::LogCapture log(3);
    r.system->setInput<bool>("a", true);
    r.system->simulate(1.25);
    EXPECT_THAT(log.text(), HasSubstr("wBlockAND<0>(1.25)\n"));
}

TEST(LogicBlocks, TriggerGatesPushOnEveryArrival) {
    SchemeText s;
    const int andT = s.block("andT", "wBlockANDtriggerDescriptor");
    const int orT = s.block("orT", "wBlockORtriggerDescriptor");
    const int notT = s.block("notT", "wBlockNOTtriggerDescriptor");
    s.inputPort("p1", LEAD_BOOL);
    s.inputPort("p2", LEAD_BOOL);
    s.outputPort("and_out", LEAD_BOOL);
    s.outputPort("or_out", LEAD_BOOL);
    s.port(kIO, "p1", andT, "input1");
    s.port(kIO, "p2", andT, "input2");
    s.port(kIO, "p1", orT, "input1");
    s.port(kIO, "p2", orT, "input2");
    s.port(kIO, "p1", notT, "input");
    s.port(andT, "output", kIO, "and_out");
    s.port(orT, "output", kIO, "or_out");
    Running r(s.text());
    wSimulationSystem& sys = *r.system;

    Receiver andRx, orRx;
    sys.getOutputPort("and_out")->connect(&andRx);
    sys.getOutputPort("or_out")->connect(&orRx);
    // Three receivers on the NOT gate's own output port.
    Receiver notRx[3];
    wSimulationBlock* notBlock = r.block("notT");
    ASSERT_NE(notBlock, nullptr);
    for (Receiver& rx : notRx) notBlock->getOutputPort("output")->connect(&rx);
    EXPECT_EQ(notBlock->getOutputPort("input"), nullptr);
    EXPECT_EQ(notBlock->getInputPort("output"), nullptr);
    EXPECT_EQ(r.block("andT")->getInputPort("input3"), nullptr);

    sys.simulate(0);  // the trigger gates do nothing in a step
    EXPECT_TRUE(andRx.got.empty());

    push(sys, "p1", true);   // and: true & (nothing yet = false)
    push(sys, "p2", true);   // and: true & true
    push(sys, "p2", true);   // unchanged, pushed again
    push(sys, "p2", false);
    push(sys, "p1", false);
    EXPECT_EQ(andRx.got, (std::vector<bool>{false, true, true, false, false}));
    EXPECT_EQ(orRx.got, (std::vector<bool>{true, true, true, true, false}));
    for (const Receiver& rx : notRx) EXPECT_EQ(rx.got, (std::vector<bool>{false, true}));
}

TEST(LogicBlocks, InputsListIsSavedAndReadBack) {
    SchemeText s;
    s.block("and3", kAnd, "", inputsOf({"a", "b", "c"}));
    s.block("or1", kOr, "", inputsOf({"solo"}));
    s.block("not", "wBlockNOTDescriptor");
    s.block("andT", "wBlockANDtriggerDescriptor");
    s.block("orT", "wBlockORtriggerDescriptor");
    s.block("notT", "wBlockNOTtriggerDescriptor");
    auto scheme = testutil::saveAndReload(s.text());
    const wSimulationBlockDescriptor* and3 = scheme->getBlockByName("and3");
    ASSERT_EQ(and3->getInputWires().size(), 3u);
    EXPECT_EQ(and3->getInputWires()[2], (wLeadDescription{"c", LEAD_BOOL}));
    EXPECT_EQ(scheme->getBlockByName("or1")->getInputWires()[0].name, "solo");
    EXPECT_EQ(scheme->getBlockByName("notT")->getClassName(), "wBlockNOTtriggerDescriptor");

    // Each gate has a list of its own: changing one, or its clone, leaves the others alone.
    wBlockORDescriptor orD;
    orD.set({"a", "b", "c"});
    EXPECT_EQ(orD.clone()->getInputWires().size(), 3u);
    EXPECT_EQ(wBlockORDescriptor().getInputWires().size(), 2u);
}

TEST(LogicBlocks, ReadingErrors) {
    // An input without a name; no "inputs" table at all.
    SchemeText s;
    s.block("g", kAnd, "", "inputs = { { name = \"a\" }, { nom = \"b\" } }");
    EXPECT_THAT(testutil::messageOf([&] { Running r(s.text()); }), HasSubstr("name failed to Lua::Loader::getString"));
    SchemeText t;
    t.block("g", kOr);
    EXPECT_THROW(Running r(t.text()), std::exception);
}
