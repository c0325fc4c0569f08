// End-to-end tests of the Serializer, Deserializer and Wire to port blocks through scheme
// files: the bit layout of the stream, round trips, fresh values on both sides, and bad
// lists and streams.
#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <limits>
#include <string>
#include <vector>

#include "support/SchemeFiles.h"
#include "vandrel/blocks/WireSerialization.h"
#include "vandrel/platform/MailStream.h"
#include "vandrel/runtime/SimulationException.h"

using testutil::kIO;
using testutil::messageOf;
using testutil::PortRecorder;
using testutil::Running;
using testutil::SchemeText;

namespace {

// One wire value as the bytes of its slot.
struct Field {
    eLeadType type;
    std::vector<unsigned char> bytes;  // empty for an object pointer
};

template <class T>
Field fieldOf(const T& v) {
    Field f{wLeadTypeOf<T>::value, std::vector<unsigned char>(sizeof(T))};
    std::memcpy(f.bytes.data(), &v, sizeof(T));
    return f;
}
Field fieldOf(bool v) { return {LEAD_BOOL, {static_cast<unsigned char>(v ? 1 : 0)}}; }
Field objectPtr() { return {LEAD_OBJECT_PTR, {}}; }

double bitsToDouble(std::uint64_t bits) {
    double d;
    std::memcpy(&d, &bits, sizeof d);
    return d;
}

// The bits of a stream, first to last (the library's stream packs LSB first).
std::vector<int> streamBits(const Mail::BitStream& s) {
    std::vector<int> bits;
    for (std::size_t i = 0; i < s.bitCount(); ++i) bits.push_back((s.bytes()[i / 8] >> (i % 8)) & 1);
    return bits;
}

// The bits a field must take: its slot's bits in memory order, 1 for a bool, none for a
// pointer.
std::vector<int> expectedBits(const Field& f) {
    std::vector<int> bits;
    const std::size_t n = f.type == LEAD_BOOL ? 1 : f.bytes.size() * 8;
    for (std::size_t i = 0; i < n; ++i) bits.push_back((f.bytes[i / 8] >> (i % 8)) & 1);
    return bits;
}

std::string leadList(const std::vector<Field>& fields) {
    std::string s = "{ ";
    for (std::size_t i = 0; i < fields.size(); ++i)
        s += "{ name = \"w" + std::to_string(i) + "\", type = " + std::to_string(static_cast<int>(fields[i].type)) + " }, ";
    return s + "}";
}

// A Serializer fed by scheme input wires w0.., or a Deserializer filling scheme output
// wires w0.. and its "signal" port; the "stream" port is the scheme input "stream".
std::string endScheme(const std::vector<Field>& fields, bool sender) {
    SchemeText s;
    const int b = s.block(sender ? "ser" : "des", sender ? "wBlockWireSerializerDescriptor" : "wBlockWireDeserializerDescriptor",
                          "", "wires = " + leadList(fields));
    s.inputPort("stream", LEAD_OBJECT_PTR, b, "stream");
    if (!sender) s.outputPort(b, "signal", "signal", LEAD_BOOL);
    for (std::size_t i = 0; i < fields.size(); ++i) {
        const std::string w = "w" + std::to_string(i);
        if (sender) s.inputWire(w, fields[i].type, b, w);
        else s.outputWire(b, w, w, fields[i].type);
    }
    return s.text();
}
std::string senderScheme(const std::vector<Field>& fields) { return endScheme(fields, true); }
std::string receiverScheme(const std::vector<Field>& fields) { return endScheme(fields, false); }

// Delivers a stream pointer to scheme input port `name`, as a host does.
void sendStream(wSimulationSystem& system, std::string_view name, Mail::Stream* stream) {
    auto* in = dynamic_cast<wInputPortObjPtrBase<Mail::Stream>*>(system.getInputPort(name));
    ASSERT_NE(in, nullptr) << name << " is not a stream port";
    in->setValue(stream);
}

struct LayoutCase {
    const char* what;
    std::vector<Field> fields;
    std::vector<std::size_t> offsets;  // bit offset of each field in the stream
    std::size_t totalBits;
};

TEST(WireSerialization, BitLayoutAndRoundTripOfEveryLeadType) {
    const double nanPayload = bitsToDouble(0x7ff4000000000123ull);  // signalling NaN, payload 0x123
    const double negNan = bitsToDouble(0xfff8000000abcdefull);
    const std::vector<LayoutCase> cases = {
        {"bool int double", {fieldOf(true), fieldOf(-2), fieldOf(0.1)}, {0, 1, 33}, 97},
        {"every lead type",
         {fieldOf(-123456789), fieldOf(true), fieldOf(2.5), fieldOf(Vec3d{1.0, -2.0, 1e300}),
          fieldOf(Rot3d{0.1, 0.2, 0.3, 0.4}), objectPtr(), fieldOf(4000000000u)},
         {0, 32, 33, 97, 289, 545, 545},
         577},
        {"NaN payloads and negative zero", {fieldOf(nanPayload), fieldOf(-0.0), fieldOf(negNan)}, {0, 64, 128}, 192},
        {"bools take one bit each",
         {fieldOf(true), fieldOf(false), fieldOf(true), fieldOf(true), fieldOf(false), fieldOf(true), fieldOf(false),
          fieldOf(false), fieldOf(true)},
         {0, 1, 2, 3, 4, 5, 6, 7, 8},
         9},
        {"odd offsets for wide fields",
         {fieldOf(false), fieldOf(Vec3d{-0.0, std::numeric_limits<double>::infinity(), nanPayload}),
          fieldOf(Rot3d{-0.0, nanPayload, -1.0, 0.5}), fieldOf(std::numeric_limits<int>::min())},
         {0, 1, 193, 449},
         481},
        {"pointers take nothing", {objectPtr(), fieldOf(7u), objectPtr()}, {0, 0, 32}, 32},
        {"empty list", {}, {}, 0},
    };
    for (const LayoutCase& c : cases) {
        SCOPED_TRACE(c.what);
        Running sender(senderScheme(c.fields));
        unsigned char* in = sender.system->getDataPtr();
        for (std::size_t i = 0; i < c.fields.size(); ++i)
            if (!c.fields[i].bytes.empty())
                std::memcpy(in + sender.system->getInputWireOffset("w" + std::to_string(i)), c.fields[i].bytes.data(),
                            c.fields[i].bytes.size());
        EXPECT_EQ(sender.system->simulate(0.0), -1.0);  // nothing scheduled after the first step

        Mail::BitStream stream;
        sendStream(*sender.system, "stream", &stream);
        ASSERT_EQ(stream.bitCount(), c.totalBits);
        const std::vector<int> bits = streamBits(stream);
        for (std::size_t i = 0; i < c.fields.size(); ++i) {
            const std::vector<int> want = expectedBits(c.fields[i]);
            ASSERT_LE(c.offsets[i] + want.size(), bits.size()) << "field " << i;
            EXPECT_EQ(std::vector<int>(bits.begin() + static_cast<long>(c.offsets[i]),
                                       bits.begin() + static_cast<long>(c.offsets[i] + want.size())),
                      want)
                << "field " << i;
        }

        // The same list on the other side gets every slot back bit for bit; an object
        // pointer's slot is left as it was.
        Running receiver(receiverScheme(c.fields));
        unsigned char* out = receiver.system->getDataPtr();
        std::vector<int> pointerSlots;
        for (std::size_t i = 0; i < c.fields.size(); ++i)
            if (c.fields[i].type == LEAD_OBJECT_PTR) {
                const int at = receiver.system->getOutputWireOffset("w" + std::to_string(i));
                out[at] = 0xAB;
                pointerSlots.push_back(at);
            }
        PortRecorder<bool> signal;
        signal.listen(*receiver.system, "signal");
        stream.rewind();
        sendStream(*receiver.system, "stream", &stream);
        EXPECT_EQ(stream.position(), c.totalBits);
        for (std::size_t i = 0; i < c.fields.size(); ++i) {
            const Field& f = c.fields[i];
            if (f.bytes.empty()) continue;
            const int at = receiver.system->getOutputWireOffset("w" + std::to_string(i));
            EXPECT_EQ(std::memcmp(out + at, f.bytes.data(), f.bytes.size()), 0) << "field " << i;
        }
        for (int at : pointerSlots) EXPECT_EQ(out[at], 0xAB);
        receiver.system->simulate(1.0);
        EXPECT_TRUE(signal.take().empty());  // "signal" never sends
    }
}

TEST(WireSerialization, BitsOfLeadLists) {
    EXPECT_EQ(wireStreamBits(wLeadList{{"b", LEAD_BOOL}, {"i", LEAD_INT}, {"d", LEAD_DOUBLE}}), 97u);
    EXPECT_EQ(wireStreamBits(wLeadList{{"v", LEAD_VECTOR}, {"q", LEAD_QUATERNION}, {"p", LEAD_OBJECT_PTR}}), 448u);
    EXPECT_EQ(wireStreamBits(wLeadList{{"id", LEAD_OBJECT_ID}}), 32u);
}

TEST(WireSerialization, ABoolSlotHoldingAnyNonZeroByteGoesOutAsTrue) {
    Running sender(senderScheme({fieldOf(false), fieldOf(false)}));
    unsigned char* data = sender.system->getDataPtr();
    data[sender.system->getInputWireOffset("w0")] = 0x02;  // true, although bit 0 is clear
    data[sender.system->getInputWireOffset("w1")] = 0x00;
    Mail::BitStream stream;
    sendStream(*sender.system, "stream", &stream);
    EXPECT_EQ(streamBits(stream), (std::vector<int>{1, 0}));

    // Coming in, a bool slot holds exactly 0 or 1 whatever it held before.
    Running receiver(receiverScheme({fieldOf(false), fieldOf(false)}));
    unsigned char* out = receiver.system->getDataPtr();
    out[receiver.system->getOutputWireOffset("w0")] = 0xFE;
    out[receiver.system->getOutputWireOffset("w1")] = 0xFF;
    stream.rewind();
    sendStream(*receiver.system, "stream", &stream);
    EXPECT_EQ(out[receiver.system->getOutputWireOffset("w0")], 1);
    EXPECT_EQ(out[receiver.system->getOutputWireOffset("w1")], 0);
}

// Scheme input "a" -> Sum (x2) -> Serializer wire "x". Scheme input port "stream".
std::string staleSender() {
    SchemeText s;
    const int sum = s.block("double_it", "wBlockSummatorDescriptor<double>", "", "inputs = { { name = \"a\", coeff = 2 } }");
    const int ser = s.block("ser", "wBlockWireSerializerDescriptor", "", "wires = { { name = \"x\", type = 2 } }");
    s.inputWire("a", LEAD_DOUBLE, sum, "a");
    s.inputPort("stream", LEAD_OBJECT_PTR, ser, "stream");
    s.wire(sum, "output", ser, "x");
    return s.text();
}

// Deserializer wire "x" -> Sum (x3) -> scheme output "y".
std::string staleReceiver() {
    SchemeText s;
    const int des = s.block("des", "wBlockWireDeserializerDescriptor", "", "wires = { { name = \"x\", type = 2 } }");
    const int sum = s.block("triple_it", "wBlockSummatorDescriptor<double>", "", "inputs = { { name = \"x\", coeff = 3 } }");
    s.inputPort("stream", LEAD_OBJECT_PTR, des, "stream");
    s.outputWire(sum, "output", "y", LEAD_DOUBLE);
    s.wire(des, "x", sum, "x");
    return s.text();
}

double readDouble(const Mail::BitStream& s) {
    Mail::BitStream copy(s.bytes());
    double v = 0;
    copy.transferBits(&v, 64);
    return v;
}

TEST(WireSerialization, StatelessBlocksOnBothSidesAreNeverStale) {
    Running sender(staleSender());
    Running receiver(staleReceiver());
    wSimulationSystem& tx = *sender.system;
    wSimulationSystem& rx = *receiver.system;
    double t = 0.0;
    tx.simulate(t);
    rx.simulate(t);

    for (double a : {1.5, -4.0, 1.5, 0.25}) {
        SCOPED_TRACE(a);
        // The host writes the input and sends the stream without a simulate in between:
        // the Sum feeding the Serializer must run first.
        tx.setInput<double>("a", a);
        Mail::BitStream stream;
        sendStream(tx, "stream", &stream);
        EXPECT_EQ(readDouble(stream), 2 * a);

        // The Sum fed by the Deserializer must run again at the next simulate.
        stream.rewind();
        sendStream(rx, "stream", &stream);
        t += 0.5;
        rx.simulate(t);
        EXPECT_EQ(rx.getOutput<double>("y"), 6 * a);
        tx.simulate(t);
    }
}

TEST(WireSerialization, OneStreamReadInTurnByTwoDeserializers) {
    // Two Deserializers on one scheme input port (fanned out through a proxy) read
    // consecutive parts of the stream, in connection order.
    SchemeText s;
    const int first = s.block("first", "wBlockWireDeserializerDescriptor", "", "wires = { { name = \"i\", type = 0 } }");
    const int second = s.block("second", "wBlockWireDeserializerDescriptor", "", "wires = { { name = \"d\", type = 2 } }");
    s.inputPort("stream", LEAD_OBJECT_PTR);
    s.outputWire(first, "i", "i", LEAD_INT);
    s.outputWire(second, "d", "d", LEAD_DOUBLE);
    s.port(kIO, "stream", first, "stream");
    s.port(kIO, "stream", second, "stream");
    Running r(s.text());

    Mail::BitStream stream;
    int i = 42;
    double d = -7.25;
    stream.transferBits(&i, 32);
    stream.transferBits(&d, 64);
    stream.rewind();
    sendStream(*r.system, "stream", &stream);
    EXPECT_EQ(r.system->getOutput<int>("i"), 42);
    EXPECT_EQ(r.system->getOutput<double>("d"), -7.25);
}

TEST(WireSerialization, BadStreamsAreRefusedBeforeAnythingMoves) {
    const std::vector<Field> fields = {fieldOf(true), fieldOf(-2), fieldOf(0.1)};
    Running sender(senderScheme(fields));
    Running receiver(receiverScheme(fields));
    wSimulationSystem& rx = *receiver.system;
    rx.simulate(0.0);
    const int at = rx.getOutputWireOffset("w2");
    writeWire<double>(rx.getDataPtr(), at, 9.5);

    struct Bad {
        const char* what;
        wSimulationSystem* system;
        Mail::BitStream* stream;
        std::string message;
    };
    Mail::BitStream shortStream(zo::vector<std::uint8_t>(12, 0xFF));  // 96 bits, the list takes 97
    Mail::BitStream writing;
    Mail::BitStream reading(zo::vector<std::uint8_t>(16, 0));
    const std::vector<Bad> bad = {
        {"null into a Serializer", sender.system.get(), nullptr,
         "Stream cannot be null while serializing (Serializer ser: send a Mail::Stream object to its \"stream\" port)"},
        {"null into a Deserializer", &rx, nullptr,
         "Stream cannot be null while serializing (Deserializer des: send a Mail::Stream object to its \"stream\" port)"},
        {"too short", &rx, &shortStream,
         "Deserializer des: stream too short: the wires take 97 bits, 96 are left (do both ends list the same lead "
         "types in the same order?)"},
        {"writing stream into a Deserializer", &rx, &writing,
         "Deserializer des: the stream is being written; rewind it (or make it from bytes) to read it"},
        {"reading stream into a Serializer", sender.system.get(), &reading,
         "Serializer ser: the stream is being read; a Serializer needs a stream in writing mode"},
    };
    for (const Bad& b : bad) {
        SCOPED_TRACE(b.what);
        auto* port = dynamic_cast<wInputPortObjPtrBase<Mail::Stream>*>(b.system->getInputPort("stream"));
        ASSERT_NE(port, nullptr);
        EXPECT_EQ(messageOf<wSimulationException>([&] { port->setValue(b.stream); }), b.message);
        if (b.stream) {
            EXPECT_EQ(b.stream->position(), 0u);  // nothing read
            EXPECT_FALSE(b.stream->overrun());
        }
    }
    EXPECT_EQ(writing.bitCount(), 0u);               // nothing written
    EXPECT_EQ(readWire<double>(rx.getDataPtr(), at), 9.5);  // the wires kept their values

    // The systems keep working after the errors.
    Mail::BitStream good;
    sendStream(*sender.system, "stream", &good);
    good.rewind();
    sendStream(rx, "stream", &good);
    EXPECT_FALSE(good.overrun());
    EXPECT_EQ(readWire<double>(rx.getDataPtr(), at), 0.0);
}

std::string loadError(const std::string& text) {
    return messageOf([&] { Running r(text); });
}

TEST(WireSerialization, BadListsAreRefusedWithTheirPlace) {
    auto block = [](const char* type, const std::string& rest) {
        SchemeText s;
        s.block("b", type, "", rest);
        return s.text();
    };
    SchemeText withPointer;
    const int w2p = withPointer.block("b", "wBlockWireToPortDescriptor", "", "leads = { { name = \"p\", type = 5 } }");
    withPointer.inputWire("p", LEAD_OBJECT_PTR, w2p, "p");
    const std::string pointerLead = withPointer.text();
    struct Case {
        const char* what;
        std::string scheme;
        std::string expected;  // part of the message
    };
    const std::vector<Case> cases = {
        {"duplicate wire", block("wBlockWireSerializerDescriptor", "wires = { { name = \"x\", type = 2 }, { name = \"x\", type = 0 } }"),
         "wires: duplicate wire x (each name must be unique: connections find leads by name)"},
        {"duplicate lead", block("wBlockWireToPortDescriptor", "leads = { { name = \"a\", type = 1 }, { name = \"a\", type = 1 } }"),
         "leads: duplicate lead a"},
        {"invalid lead type", block("wBlockWireDeserializerDescriptor", "wires = { { name = \"x\", type = 9 } }"),
         "Invalid lead type (x): 9"},
        {"wire without a name", block("wBlockWireDeserializerDescriptor", "wires = { { type = 2 } }"),
         "failed to Lua::Loader::getString"},
        {"no wires", block("wBlockWireSerializerDescriptor", ""), "wires"},
        {"no leads", block("wBlockWireToPortDescriptor", ""), "leads"},
        {"object pointer lead", pointerLead,
         "Cannot create output port of type wWireObjectPtrBase (Wire to port b: lead p is an object ptr; remove it "
         "from \"leads\")"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        const std::string message = loadError(c.scheme);
        EXPECT_NE(message.find(c.expected), std::string::npos) << message;
    }
    // Wires of a list must be connected like any other input.
    SchemeText unconnected;
    unconnected.block("ser", "wBlockWireSerializerDescriptor", "", "wires = { { name = \"x\", type = 2 } }");
    EXPECT_NE(loadError(unconnected.text()).find("x"), std::string::npos);

    // Editing refuses a repeated name and keeps the list.
    wBlockWireSerializerDescriptor ser;
    ser.setName("s");
    ser.setWires({{"a", LEAD_INT}});
    EXPECT_EQ(messageOf<wSimulationException>([&] { ser.setWires({{"b", LEAD_INT}, {"b", LEAD_BOOL}}); }),
              "Serializer s: duplicate wire b (each name must be unique: connections find leads by name)");
    EXPECT_EQ(ser.getInputWires(), (wLeadList{{"a", LEAD_INT}}));
}

// Wire to port "w2p" with leads n (int), on (bool), v (vector); "on" is computed by a NOT.
std::string wireToPortScheme() {
    SchemeText s;
    const int w2p = s.block("w2p", "wBlockWireToPortDescriptor", "",
                            "leads = { { name = \"n\", type = 0 }, { name = \"on\", type = 1 }, { name = \"v\", type = 3 } }");
    const int inv = s.block("inv", "wBlockNOTDescriptor");
    s.inputWire("n", LEAD_INT, w2p, "n");
    s.inputWire("off", LEAD_BOOL, inv, "input");
    s.inputWire("v", LEAD_VECTOR, w2p, "v");
    s.inputPort("latch", LEAD_BOOL, w2p, "latch");
    s.outputPort("n", LEAD_INT);
    s.outputPort("on", LEAD_BOOL);
    s.outputPort("v", LEAD_VECTOR);
    s.wire(inv, "output", w2p, "on");
    for (const char* lead : {"n", "on", "v"}) s.port(w2p, lead, kIO, lead);
    return s.text();
}

TEST(WireSerialization, WireToPortSendsFreshValuesOnEveryLatchAndNothingBetween) {
    Running r(wireToPortScheme());
    wSimulationSystem& sys = *r.system;
    PortRecorder<int> n;
    PortRecorder<bool> on;
    PortRecorder<Vec3d> v;
    n.listen(sys, "n");
    on.listen(sys, "on");
    v.listen(sys, "v");
    EXPECT_EQ(sys.simulate(0.0), -1.0);
    EXPECT_EQ(sys.getSchemeStateDataSize(), 0);

    // Wires change, time passes: nothing is sent until a latch.
    sys.setInput<int>("n", 5);
    sys.setInput<bool>("off", false);
    sys.setInput<Vec3d>("v", Vec3d{1, 2, 3});
    sys.simulate(1.0);
    EXPECT_TRUE(n.take().empty());
    EXPECT_TRUE(on.take().empty());
    EXPECT_TRUE(v.take().empty());

    // A false latch sends as a true one does, the NOT's output freshly computed.
    testutil::sendToInput<bool>(sys, "latch", false);
    EXPECT_EQ(n.take(), std::vector<int>{5});
    EXPECT_EQ(on.take(), std::vector<bool>{true});
    EXPECT_EQ(v.take(), std::vector<Vec3d>{(Vec3d{1, 2, 3})});

    sys.setInput<int>("n", -9);
    sys.setInput<bool>("off", true);  // no simulate: the NOT still must run before the latch
    testutil::sendToInput<bool>(sys, "latch", true);
    testutil::sendToInput<bool>(sys, "latch", true);
    EXPECT_EQ(n.take(), (std::vector<int>{-9, -9}));
    EXPECT_EQ(on.take(), (std::vector<bool>{false, false}));
    EXPECT_EQ(v.take().size(), 2u);
}

TEST(WireSerialization, ListsSurviveSaveAndReload) {
    SchemeText s;
    const std::vector<Field> fields = {fieldOf(1), fieldOf(true), fieldOf(Rot3d{}), objectPtr()};
    s.block("ser", "wBlockWireSerializerDescriptor", "", "wires = " + leadList(fields));
    s.block("des", "wBlockWireDeserializerDescriptor", "", "wires = " + leadList(fields));
    s.block("w2p", "wBlockWireToPortDescriptor", "", "leads = { { name = \"q\", type = 4 }, { name = \"id\", type = 6 } }");
    std::string saved;
    auto scheme = testutil::saveAndReload(s.text(), &saved);
    const wLeadList expected{{"w0", LEAD_INT}, {"w1", LEAD_BOOL}, {"w2", LEAD_QUATERNION}, {"w3", LEAD_OBJECT_PTR}};
    const auto* ser = dynamic_cast<const wBlockWireSerializerDescriptor*>(scheme->getBlockByName("ser"));
    const auto* des = dynamic_cast<const wBlockWireDeserializerDescriptor*>(scheme->getBlockByName("des"));
    const auto* w2p = dynamic_cast<const wBlockWireToPortDescriptor*>(scheme->getBlockByName("w2p"));
    ASSERT_TRUE(ser && des && w2p);
    EXPECT_EQ(ser->getInputWires(), expected);
    EXPECT_TRUE(ser->getOutputWires().empty());
    EXPECT_EQ(des->getOutputWires(), expected);
    EXPECT_TRUE(des->getInputWires().empty());
    EXPECT_EQ(des->getOutputPorts(), (wLeadList{{"signal", LEAD_BOOL}}));
    const wLeadList leads{{"q", LEAD_QUATERNION}, {"id", LEAD_OBJECT_ID}};
    EXPECT_EQ(w2p->getInputWires(), leads);
    EXPECT_EQ(w2p->getOutputPorts(), leads);
    EXPECT_EQ(w2p->getInputPorts(), (wLeadList{{"latch", LEAD_BOOL}}));
    EXPECT_NE(saved.find("wires"), std::string::npos);
    EXPECT_NE(saved.find("leads"), std::string::npos);
    // A clone keeps its list.
    std::unique_ptr<wSimulationBlockDescriptor> copy(ser->clone());
    EXPECT_EQ(copy->getInputWires(), expected);
}

}  // namespace
