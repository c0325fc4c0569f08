// The block model: parameters and their text and Lua forms, lead types and ports, the
// descriptor's leads and offsets, and the state blobs of discrete blocks.
#include <gtest/gtest.h>

#include <algorithm>

#include <cmath>
#include <cstring>
#include <deque>

#include "support/SchemeFiles.h"
#include "vandrel/core/BlockParameter.h"
#include "vandrel/core/LeadTypes.h"
#include "vandrel/platform/LuaSerializer.h"

namespace {

using testutil::messageOf;

// A continuous block with a double and a vector state: wire u -> X (double), Y (Vec3d).
class DiffDescriptor : public wDescriptorImpl<DiffDescriptor, wDiffDescriptorBase<DiffDescriptor>> {
public:
    static const zo::string& getBlockClassNameS() {
        static const zo::string s = "wCoreTestDiff";
        return s;
    }
    static const zo::string& getBlockTypeNameS() { return getBlockClassNameS(); }
    wSimulationBlockDiff* create(Lua::Loader*) const override { return new Block(this); }

protected:
    const wLeadList& getInputWires_() const override {
        static const wLeadList l{{"u", LEAD_DOUBLE}};
        return l;
    }
    const wLeadList& getOutputWires_() const override {
        static const wLeadList l{{"X", LEAD_DOUBLE}, {"Y", LEAD_VECTOR}};
        return l;
    }
    struct Block : wSimulationBlockDiff {
        using wSimulationBlockDiff::wSimulationBlockDiff;
        void calculate_dy(double, unsigned char*, unsigned char*) override {}
    };
};

template <class T>
std::string parsed(const std::string& text) {
    wBlockParameterProxy<T> p;
    try {
        p.fromString(text);
    } catch (const wSimulationException& e) {
        EXPECT_EQ(std::string(e.what()), "Cannot parse: " + text);
        return "error";
    }
    return p.toString();
}

TEST(BlockParameter, TextForms) {
    // What an editor shows after the user typed the text; "error" when it is refused.
    const std::pair<std::string, std::string> ints[] = {{" -42x", "-42"}, {"+7", "7"}, {"5", "5"}, {"", "error"},
                                                        {"+-3", "error"}, {"99999999999", "error"}};
    for (const auto& [text, shown] : ints) EXPECT_EQ(parsed<int>(text), shown) << text;
    EXPECT_EQ(parsed<unsigned>("4000000000"), "4000000000");
    EXPECT_EQ(parsed<unsigned>("-1"), "error");
    const std::pair<std::string, std::string> doubles[] = {{"\t\n+2.5 trailing", "2.5"}, {"0.1", "0.1"}, {"abc", "error"}};
    for (const auto& [text, shown] : doubles) EXPECT_EQ(parsed<double>(text), shown) << text;
    const std::pair<std::string, std::string> bools[] = {{"1", "1"}, {"0", "0"}, {"true", "error"}, {"2", "error"}};
    for (const auto& [text, shown] : bools) EXPECT_EQ(parsed<bool>(text), shown) << text;
    // Vectors: any single character around and between the components.
    const std::pair<std::string, std::string> vectors[] = {
        {"[4;5;6]", "(4, 5, 6)"}, {"(1,2.5,-3)", "(1, 2.5, -3)"}, {"1 2 3", "error"}, {"(1, 2, 3", "error"}};
    for (const auto& [text, shown] : vectors) EXPECT_EQ(parsed<Vec3d>(text), shown) << text;
    EXPECT_EQ(parsed<zo::string>("  hello world"), "hello");
    EXPECT_EQ(parsed<zo::string>("   "), "error");
    EXPECT_EQ(parsed<zo::vector<double>>(" 3 1.5 7"), "3 1.5 7");
    EXPECT_EQ(parsed<zo::vector<double>>("1 x"), "error");

    // Doubles and vectors read back exactly, sign of zero included.
    for (double v : {0.1 + 0.2, -0.0, 1e-300, -2.5e17}) {
        wBlockParameterProxy<double> d(v), back;
        back.fromString(d.toString());
        EXPECT_EQ(std::signbit(back.get()), std::signbit(v));
        EXPECT_EQ(back.get(), v);
    }
    wBlockParameterProxy<Vec3d> v(Vec3d{0.1, -0.0, 1e300}), vBack;
    vBack.fromString(v.toString());
    EXPECT_EQ(vBack.get(), v.get());

    EXPECT_EQ(createParameter(PARAM_VEC3D, "v").getProxy()->toString(), "(0, 0, 0)");
    for (int bad : {6, -1}) EXPECT_EQ(messageOf([&] { createParameter(bad, "p"); }), "Invalid parameter type");
}

TEST(BlockParameter, ReferencesEditTheStoredValueCopiesDoNot) {
    wBlockParameterProxy<double> stored(1.0);
    wBlockParameterContainer ref = parameterRef("gain", stored);
    wBlockParameterContainer refCopy = ref;
    refCopy.getProxy()->fromString("5");
    refCopy.getProxy()->setUndefined(true);
    EXPECT_EQ(stored.get(), 5);
    EXPECT_TRUE(stored.isUndefined());
    std::unique_ptr<wBlockParameterProxyBase> own(ref.getProxy()->clone(true));  // a forced copy carries the flags
    EXPECT_TRUE(own->isUndefined());
    own->fromString("6");
    wBlockParameterProxy<double> member = stored;  // descriptor members copy by value
    member.set(8);
    EXPECT_EQ(stored.get(), 5);

    wBlockParameterContainer first = createParameter(PARAM_INT, "n"), second = first;
    second.getProxy()->fromString("3");
    EXPECT_EQ(first.getProxy()->toString(), "0");
    first = second;
    second.getProxy()->fromString("4");
    EXPECT_EQ(first.getProxy()->toString(), "3");

    // assign copies the value only, and never between the two double-coded types.
    wBlockParameterProxy<double> target(0.0);
    target.setRequired(false);
    target.assign(stored);
    EXPECT_EQ(target.get(), 5);
    EXPECT_FALSE(target.isRequired() || target.isUndefined());
    wBlockParameterProxy<zo::vector<double>> list;
    EXPECT_EQ(messageOf([&] { list.assign(stored); }), "Cannot assign a parameter of another type");
}

TEST(BlockParameter, LuaRoundTripAndMissingValues) {
    Lua::Loader out;
    out.createGlobalTable("t");
    wBlockParameterProxy<int>(-7).save(&out, "i");
    wBlockParameterProxy<unsigned>(4000000000u).save(&out, "u");
    wBlockParameterProxy<double>(0.1).save(&out, "d");
    wBlockParameterProxy<bool>(true).save(&out, "b");
    wBlockParameterProxy<Vec3d>(Vec3d{1, 2.5, -3}).save(&out, "v");
    wBlockParameterProxy<zo::string>("two words\n").save(&out, "s");
    wBlockParameterProxy<zo::vector<double>>(zo::vector<double>{1.5, -2, 3}).save(&out, "list");
    auto in = testutil::loaderFor(Lua::Serializer::toSource(out.getState(), "t") + "t.gaps = { 1.5, nil, 3 }");
    wBlockParameterProxy<int> i;
    wBlockParameterProxy<unsigned> u;
    wBlockParameterProxy<double> d;
    wBlockParameterProxy<bool> b;
    wBlockParameterProxy<Vec3d> v;
    wBlockParameterProxy<zo::string> s;
    wBlockParameterProxy<zo::vector<double>> list(zo::vector<double>{9}), gaps;
    for (auto [p, key] : std::initializer_list<std::pair<wBlockParameterProxyBase*, const char*>>{
             {&i, "i"}, {&u, "u"}, {&d, "d"}, {&b, "b"}, {&v, "v"}, {&s, "s"}, {&list, "list"}, {&gaps, "gaps"}})
        p->load(in.get(), key);
    EXPECT_EQ(i.get(), -7);
    EXPECT_EQ(u.get(), 4000000000u);
    EXPECT_EQ(d.get(), 0.1);
    EXPECT_TRUE(b.get());
    EXPECT_EQ(v.get(), (Vec3d{1, 2.5, -3}));
    EXPECT_EQ(s.get(), "two words\n");
    EXPECT_EQ(list.get(), (zo::vector<double>{1.5, -2, 3}));
    EXPECT_EQ(gaps.get(), zo::vector<double>{1.5});  // a list stops at the first gap
    EXPECT_EQ(in->depth(), 0);

    // Optional and absent: the value stays. Required: the loader fails, the value stays.
    d.setRequired(false);
    d.load(in.get(), "absent");
    EXPECT_EQ(d.get(), 0.1);
    d.setRequired(true);
    EXPECT_EQ(messageOf([&] { d.load(in.get(), "absent"); }), "t.absent is missing: a number is expected here");
    EXPECT_EQ(messageOf([&] { v.load(in.get(), "s"); }), "t.s failed to Lua::Loader::getVector");
    EXPECT_EQ(messageOf([&] { s.load(in.get(), "absent"); }), "t.absent failed to Lua::Loader::getString");
    EXPECT_EQ(d.get(), 0.1);
    EXPECT_EQ(v.get(), (Vec3d{1, 2.5, -3}));
    EXPECT_EQ(s.get(), "two words\n");
}

TEST(LeadTypes, SlotSizesPortsAndOutputArrays) {
    // The slot sizes are part of the saved data-area layout.
    const int sizes[kLeadTypeCount] = {4, 1, 8, 24, 32, 1, 4};
    wLeadList leads;
    for (int t = 0; t < kLeadTypeCount; ++t) {
        const auto type = static_cast<eLeadType>(t);
        EXPECT_EQ(leadTypeSize(type), sizes[t]) << leadTypeNames[t];
        EXPECT_EQ(std::unique_ptr<wInputPortBase>(leadCreator(type).createInputPort())->getType(), type);
        if (type != LEAD_OBJECT_PTR) leads.push_back({"o" + std::to_string(t), type});
    }
    // More leads than fit inline, in list order.
    while (leads.size() < 17) leads.push_back({"o" + std::to_string(leads.size()), LEAD_DOUBLE});
    wOutputPortArray ports(leads);
    ASSERT_EQ(ports.size(), 17u);
    for (std::size_t i = 0; i < 17; ++i) EXPECT_EQ(ports[i]->getType(), leads[i].type) << i;
    leads.push_back({"stream", LEAD_OBJECT_PTR});
    EXPECT_EQ(messageOf([&] { wOutputPortArray refused(leads); }), "Cannot create output port of type wWireObjectPtrBase");

    // A new quaternion port is all zeros, the fourth component included.
    std::unique_ptr<wInputPortBase> quat(leadCreator(LEAD_QUATERNION).createInputPort());
    unsigned char bytes[32];
    std::memset(bytes, 0xAB, sizeof bytes);
    ASSERT_TRUE(quat->getValueToPtr(bytes));
    for (unsigned char b : bytes) EXPECT_EQ(b, 0);
    // Object pointers: an input of unknown object type that cannot be fanned out.
    std::unique_ptr<wInputPortBase> obj(leadCreator(LEAD_OBJECT_PTR).createInputPort());
    EXPECT_NE(dynamic_cast<wInputPortObjPtrUnknown*>(obj.get()), nullptr);
    EXPECT_EQ(obj->createProxyPort(), nullptr);
}

// Records what reaches its callback ports, tagged by the port that received it.
struct Recorder {
    std::vector<std::string> log;
    void a(const double& v) { log.push_back("a" + std::to_string(static_cast<int>(v))); }
    void b(const double& v) { log.push_back("b" + std::to_string(static_cast<int>(v))); }
    void c(const double& v) { log.push_back("c" + std::to_string(static_cast<int>(v))); }
};

TEST(Ports, DeliveryOrderFanOutAndTypes) {
    Recorder r;
    wInputPortImpl<double, Recorder> a(&r, &Recorder::a), b(&r, &Recorder::b), c(&r, &Recorder::c);
    wOutputPort<double> out;
    out.setValue(9);  // nobody connected: nothing happens
    out.connect(&a);
    out.connect(&b);
    out.connect(&a);  // connected twice, receives twice
    out.setValue(1);
    const double two = 2;
    out.sendFromPtr(&two);
    EXPECT_EQ(r.log, (std::vector<std::string>{"a1", "b1", "a1", "a2", "b2", "a2"}));
    wInputPort<bool> flag;
    EXPECT_EQ(messageOf([&] { out.connect(&flag); }), "Attempt to connect ports of different types");
    EXPECT_EQ(out.connectionCount(), 3u);

    // Untyped writes store without calling back; any non-zero byte is a true bool.
    r.log.clear();
    a.setValueFromPtr(&two);
    EXPECT_EQ(a.getValue(), 2);
    const unsigned char byte = 2;
    flag.setValueFromPtr(&byte);
    EXPECT_TRUE(flag.getValue());

    // A fan-out as the system builds it: the first consumer behind a proxy, then others.
    std::unique_ptr<wProxyPortBase> proxy(a.createProxyPort());
    proxy->getOutputPort()->connect(&a);
    proxy->getOutputPort()->connect(&b);
    proxy->getOutputPort()->connect(&c);
    auto* entry = dynamic_cast<wInputPort<double>*>(proxy->getInputPort());
    ASSERT_NE(entry, nullptr);
    entry->setValue(3);
    EXPECT_EQ(r.log, (std::vector<std::string>{"a3", "b3", "c3"}));
    const double seven = 7;
    entry->setValueFromPtr(&seven);  // stays in the proxy
    EXPECT_EQ(entry->getValue(), 7);
    EXPECT_EQ(a.getValue(), 3);
}

TEST(Ports, ObjectPointerPorts) {
    struct TestStream : Mail::Stream {
        void transferBits(void*, unsigned) override {}
    } stream, other;
    struct Sink {
        std::vector<Mail::Stream*> got;
        void take(Mail::Stream* s) { got.push_back(s); }
    } sink;
    wInputPortObjPtr<Mail::Stream> keeper, second;
    wInputPortObjPtrCallback<Mail::Stream, Sink> callback(&sink, &Sink::take);
    wInputPortObjPtrUnknown unknown;
    wInputPort<int> number;
    wOutputPortObjPtr<Mail::Stream> out;
    out.connect(&keeper);
    out.connect(&unknown);  // accepted, receives nothing
    out.connect(&callback);
    EXPECT_EQ(out.connectionCount(), 2u);
    EXPECT_EQ(messageOf([&] { out.connect(&number); }), "Attempt to connect obj ptr ports of different types");
    out.setValue(&stream);
    EXPECT_EQ(keeper.getValue(), &stream);
    EXPECT_EQ(sink.got, std::vector<Mail::Stream*>{&stream});

    std::unique_ptr<wProxyPortBase> proxy(keeper.createProxyPort());
    proxy->getOutputPort()->connect(&keeper);
    proxy->getOutputPort()->connect(&second);
    dynamic_cast<wInputPortObjPtrBase<Mail::Stream>&>(*proxy->getInputPort()).setValue(&other);
    EXPECT_EQ(keeper.getValue(), &other);
    EXPECT_EQ(second.getValue(), &other);
    EXPECT_EQ(proxy->getInputPort()->getType(), LEAD_OBJECT_PTR);
}

TEST(BlockDescriptor, LeadsMessagesOffsetsAndDump) {
    testblocks::GainDescriptor gain;
    testblocks::TriggerDescriptor trigger;
    EXPECT_TRUE(gain.isOfType(BLOCK_STATELESS) && !gain.isOfType(BLOCK_DISCRETE));
    EXPECT_EQ(trigger.getLeads(true, true)[0].name, "in");  // (isInput, isPort)
    EXPECT_EQ(gain.getLeads(false, false)[0].name, "out");
    EXPECT_EQ(gain.getLeadIndex(true, false, "out", false), -1);
    // Messages name the block, or its type while it has no name.
    EXPECT_EQ(messageOf([&] { gain.getLeadIndex(true, false, "nosuch", true); }), "Block TestGain has no input wire nosuch");
    trigger.setName("t1");
    EXPECT_EQ(messageOf([&] { trigger.getLeadIndex(false, true, "x", true); }), "Block t1 has no output port x");

    // Continuous blocks get an initial-value input per output, one list per class.
    DiffDescriptor d, d2;
    EXPECT_EQ(d.getInputWires(), (wLeadList{{"u", LEAD_DOUBLE}, {"X.initial", LEAD_DOUBLE}, {"Y.initial", LEAD_VECTOR}}));
    EXPECT_EQ(&d2.getInputWires(), &d.getInputWires());
    EXPECT_EQ(testblocks::IntegratorDescriptor().getInputWires()[1], (wLeadDescription{"x.initial", LEAD_DOUBLE}));

    // Offsets: as many as the block has wires; a clone keeps them.
    d.setName("integ");
    const int in[] = {0, 9, 17, 999}, out[] = {43, 52};
    d.setInputWireOffsets(in);
    d.setOutputWireOffsets(out);
    std::unique_ptr<wSimulationBlockDescriptor> copy(d.clone());
    const int moved[] = {100, 101, 102};
    d.setInputWireOffsets(moved);
    EXPECT_EQ(copy->getName(), "integ");
    EXPECT_EQ(copy->getInputWireOffset(2), 17);
    EXPECT_EQ(copy->getOutputWireOffset(1), 52);

    // resetState copies each X.initial slot into its state slot, unaligned as they are.
    unsigned char data[80], before[80];
    for (int i = 0; i < 80; ++i) data[i] = before[i] = static_cast<unsigned char>(i);
    std::unique_ptr<wSimulationBlockDiff>(static_cast<const DiffDescriptor&>(*copy).create(nullptr))->resetState(data);
    for (int i = 0; i < 80; ++i) {
        const int expected = i >= 43 && i < 51 ? before[i - 43 + 9] : i >= 52 && i < 76 ? before[i - 52 + 17] : before[i];
        EXPECT_EQ(data[i], expected) << i;
    }

    testutil::LogCapture log(LOG_TRACE);
    wSimulationLogger::instance().setIndent(2);
    copy->debug_dump();
    d.setOutputWireOffsets(nullptr);
    d.debug_dump();
    EXPECT_EQ(log.text(),
              "  Dumping block \"integ\" (wCoreTestDiff)\n      Inputs:\n          u @ 0\n          X.initial @ 9\n"
              "          Y.initial @ 17\n      Outputs:\n          X @ 43\n          Y @ 52\n  -- end of block integ\n"
              "  Dumping block \"integ\" (wCoreTestDiff)\n      Inputs:\n          u @ 100\n          X.initial @ 101\n"
              "          Y.initial @ 102\n      Outputs:\n          X @ ?\n          Y @ ?\n  -- end of block integ\n");
}

// A discrete block with one member of each kind the tests register.
class StateBlock : public wSimulationBlockDisc {
public:
    StateBlock() : wSimulationBlockDisc(&desc_, nullptr) {}
    double step(double) override { return -1.0; }
    void registerAll() {
        regVar(d);
        regVar(b);
        regDeque(queue);
        regStr(&text);
        regStr(&empty);
        regVec(ints);
        regDeque(vectors);
    }
    double d = 0;
    wStateFlag b = false;
    std::deque<double> queue;
    zo::string text, empty;
    zo::vector<std::int32_t> ints;
    std::deque<Vec3d> vectors;

private:
    testblocks::CounterDescriptor desc_;
};

template <class T>
void put(std::vector<unsigned char>& blob, const T& v) {
    const auto* p = reinterpret_cast<const unsigned char*>(&v);
    blob.insert(blob.end(), p, p + sizeof(T));
}

TEST(BlockState, BlobLayoutAndRestore) {
    StateBlock none;
    EXPECT_FALSE(none.blockHasStateData());
    EXPECT_EQ(none.getBlockStateDataSize(), -1);
    EXPECT_EQ(none.setBlockStateDataByPtr(nullptr), 0);

    StateBlock source;
    source.registerAll();
    source.d = -1.25;
    source.b = true;
    // A queue whose front has moved far along its storage: 598, 599, 600 remain.
    for (int i = 0; i < 600; ++i) source.queue.push_back(i);
    while (source.queue.size() > 2) source.queue.pop_front();
    source.queue.push_back(600);
    source.text = "abc";
    source.ints = {5, -6};
    source.vectors = {Vec3d{1, 2, 3}};
    std::vector<unsigned char> expected;
    put(expected, -1.25);
    expected.push_back(1);
    put(expected, std::int32_t{3});
    for (double v : {598.0, 599.0, 600.0}) put(expected, v);
    put(expected, std::int32_t{3});
    expected.insert(expected.end(), {'a', 'b', 'c'});
    for (std::int32_t v : {0, 2, 5, -6, 1}) put(expected, v);
    put(expected, Vec3d{1, 2, 3});
    ASSERT_EQ(source.getBlockStateDataSize(), static_cast<int>(expected.size()));
    std::vector<unsigned char> blob(expected.size());
    source.getBlockStateData(blob.data());
    EXPECT_EQ(blob, expected);

    // Restoring into bigger containers leaves exactly what the blob holds.
    StateBlock target;
    target.registerAll();
    target.queue.assign(10, 1.0);
    target.text = "a much longer text";
    target.empty = "not empty";
    target.ints.assign(7, 9);
    target.vectors.assign(4, Vec3d{});
    EXPECT_EQ(target.setBlockStateDataByPtr(blob.data()), static_cast<int>(blob.size()));
    EXPECT_EQ(target.d, -1.25);
    EXPECT_TRUE(target.b);
    EXPECT_EQ(target.queue, source.queue);
    EXPECT_EQ(target.text, "abc");
    EXPECT_EQ(target.empty, "");
    EXPECT_EQ(target.ints, source.ints);
    EXPECT_EQ(target.vectors, source.vectors);

    // Any byte may arrive where a flag was saved: it comes back as a valid yes/no.
    for (const unsigned char byte : {0x00, 0x01, 0x02, 0x80, 0xFF}) {
        std::vector<unsigned char> flagged = blob;
        flagged[8] = byte;
        StateBlock restored;
        restored.registerAll();
        restored.setBlockStateDataByPtr(flagged.data());
        EXPECT_EQ(static_cast<bool>(restored.b), byte != 0) << int(byte);
        std::vector<unsigned char> again(blob.size());
        restored.getBlockStateData(again.data());
        EXPECT_EQ(again[8], byte != 0 ? 1 : 0) << int(byte);
    }

    // Measuring a blob from outside never reads past its end, nor trusts its counts.
    struct Cut {
        std::size_t available;
        int expected;
    };
    const int full = static_cast<int>(blob.size());
    for (const Cut& c : {Cut{blob.size(), full}, Cut{blob.size() + 5, full}, Cut{blob.size() - 1, -1}, Cut{11, -1},
                         Cut{20, -1}, Cut{0, -1}}) {
        // Exactly the available bytes, so that the sanitizers see any overread.
        std::vector<unsigned char> cut(blob.begin(), blob.begin() + static_cast<long>(std::min(c.available, blob.size())));
        cut.resize(c.available);
        EXPECT_EQ(target.measureStateData(cut.data(), cut.size()), c.expected) << c.available;
    }
    for (const std::int32_t count : {-1, 0x7FFFFFFF}) {
        std::vector<unsigned char> bad(blob.begin(), blob.begin() + 9);
        put(bad, count);
        put(bad, 1.0);
        EXPECT_EQ(target.measureStateData(bad.data(), bad.size()), -1) << count;
    }
}

}  // namespace
