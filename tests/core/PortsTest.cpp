#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "vandrel/core/Ports.h"
#include "vandrel/runtime/SimulationException.h"

namespace {

// Records what reaches its callback ports, tagged by the port that received it.
struct Recorder {
    std::vector<std::string> log;
    void a(const double& v) { log.push_back("a" + std::to_string(static_cast<int>(v))); }
    void b(const double& v) { log.push_back("b" + std::to_string(static_cast<int>(v))); }
    void c(const double& v) { log.push_back("c" + std::to_string(static_cast<int>(v))); }
};

class TestStream : public Mail::Stream {
public:
    void transferBits(void*, unsigned) override {}
};

struct StreamSink {
    std::vector<Mail::Stream*> got;
    void take(Mail::Stream* s) { got.push_back(s); }
};

TEST(Ports, OutputDeliversInConnectionOrder) {
    Recorder r;
    wInputPortImpl<double, Recorder> a(&r, &Recorder::a), b(&r, &Recorder::b);
    wOutputPort<double> out;
    out.setValue(9);  // nobody connected: nothing happens

    // The same input connected twice receives every value twice.
    out.connect(&a);
    out.connect(&b);
    out.connect(&a);
    out.setValue(1);
    const double two = 2;
    out.sendFromPtr(&two);
    EXPECT_EQ(r.log, (std::vector<std::string>{"a1", "b1", "a1", "a2", "b2", "a2"}));
    EXPECT_EQ(a.getValue(), 2);

    // A mismatched input is refused and the list stays as it was.
    wInputPort<bool> flag;
    try {
        out.connect(&flag);
        FAIL();
    } catch (const wSimulationException& e) {
        EXPECT_STREQ(e.what(), "Attempt to connect ports of different types");
    }
    EXPECT_EQ(out.connectionCount(), 3u);
}

TEST(Ports, UntypedWritesNeverCallBackOrForward) {
    Recorder r;
    wInputPortImpl<double, Recorder> a(&r, &Recorder::a);
    const double v = 4.5;
    EXPECT_TRUE(a.setValueFromPtr(&v));
    EXPECT_EQ(a.getValue(), 4.5);
    EXPECT_TRUE(r.log.empty());

    // A bool slot holding any non-zero byte reads as true.
    wInputPort<bool> flag;
    const unsigned char byte = 2;
    flag.setValueFromPtr(&byte);
    EXPECT_TRUE(flag.getValue());
}

TEST(Ports, ProxyFanOut) {
    // Build a fan-out as the system does: first consumer direct, then through a proxy.
    Recorder r;
    wInputPortImpl<double, Recorder> p(&r, &Recorder::a), q(&r, &Recorder::b), s(&r, &Recorder::c);
    wInputPortBase* entry = &p;
    std::unique_ptr<wProxyPortBase> proxy = entry->createProxyPort();
    proxy->getOutputPort()->connect(entry);
    entry = proxy->getInputPort();
    proxy->getOutputPort()->connect(&q);
    proxy->getOutputPort()->connect(&s);
    EXPECT_EQ(entry->getType(), LEAD_DOUBLE);

    auto* typed = dynamic_cast<wInputPort<double>*>(entry);
    ASSERT_NE(typed, nullptr);
    typed->setValue(3);
    EXPECT_EQ(r.log, (std::vector<std::string>{"a3", "b3", "c3"}));
    EXPECT_EQ(typed->getValue(), 0);  // the proxy keeps no copy

    // The untyped write only touches the proxy's own value.
    const double seven = 7;
    entry->setValueFromPtr(&seven);
    EXPECT_EQ(typed->getValue(), 7);
    EXPECT_EQ(r.log.size(), 3u);
    EXPECT_EQ(p.getValue(), 3);
}

TEST(Ports, ObjectPointerPorts) {
    TestStream stream;
    StreamSink sink;
    wInputPortObjPtr<Mail::Stream> keeper;
    wInputPortObjPtrCallback<Mail::Stream, StreamSink> callback(&sink, &StreamSink::take);
    wInputPortObjPtrUnknown unknown;
    wInputPort<int> number;

    wOutputPortObjPtr<Mail::Stream> out;
    out.connect(&keeper);
    out.connect(&unknown);  // accepted, receives nothing
    out.connect(&callback);
    EXPECT_EQ(out.connectionCount(), 2u);
    try {
        out.connect(&number);
        FAIL();
    } catch (const wSimulationException& e) {
        EXPECT_STREQ(e.what(), "Attempt to connect obj ptr ports of different types");
    }
    out.setValue(&stream);
    EXPECT_EQ(keeper.getValue(), &stream);
    EXPECT_EQ(sink.got, std::vector<Mail::Stream*>{&stream});

    // Fan-out of a typed object-pointer input through its proxy.
    wInputPortObjPtr<Mail::Stream> second;
    auto proxy = keeper.createProxyPort();
    proxy->getOutputPort()->connect(&keeper);
    proxy->getOutputPort()->connect(&second);
    TestStream other;
    dynamic_cast<wInputPortObjPtrBase<Mail::Stream>&>(*proxy->getInputPort()).setValue(&other);
    EXPECT_EQ(keeper.getValue(), &other);
    EXPECT_EQ(second.getValue(), &other);
    EXPECT_EQ(proxy->getInputPort()->getType(), LEAD_OBJECT_PTR);
}

}  // namespace
