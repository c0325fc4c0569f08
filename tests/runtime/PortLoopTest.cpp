// Loops of port connections: values go round synchronously, so a loop in which every block
// sends again must fail with a message instead of overflowing the stack.
#include <gtest/gtest.h>

#include <string>

#include "support/SchemeFiles.h"
#include "vandrel/core/Ports.h"

namespace {

using testutil::kIO;
using testutil::messageOf;
using testutil::Running;
using testutil::SchemeText;

// Sends every value it receives on, decremented, until it reaches 0: a loop through it
// settles after as many rounds as the first value says.
struct Countdown {
    wOutputPort<int> out;
    wInputPortImpl<int, Countdown> in{this, &Countdown::receive};
    int received = 0;
    void receive(const int& v) {
        ++received;
        if (v > 0) out.setValue(v - 1);
    }
};

TEST(PortLoop, LoopsThatSettleRunAndEndlessOnesFailWithoutLeavingTheirMark) {
    Countdown c;
    c.out.connect(&c.in);

    // Re-entry is legitimate up to the limit: a value may come back a few times.
    c.in.setValue(kMaxPortReentry - 1);
    EXPECT_EQ(c.received, kMaxPortReentry);

    c.received = 0;
    const std::string message = messageOf<wSimulationException>([&] { c.in.setValue(1000); });
    EXPECT_EQ(message, "Endless port loop: a value keeps coming back to the input port it arrived at (32 times within "
                       "one delivery); break the loop of port connections or route it through a wire");
    EXPECT_EQ(c.received, kMaxPortReentry);

    // The unwinding reset the nesting count: the same port takes a full loop again.
    c.received = 0;
    c.in.setValue(kMaxPortReentry - 1);
    EXPECT_EQ(c.received, kMaxPortReentry);
}

// Schemes whose port loops never settle, and how each is set going.
struct EndlessCase {
    const char* name;
    std::string scheme;
    bool startedByHost;  // by a write to scheme input port "go"; else by simulate(0)
    const char* block;   // the first whose input port is re-entered once too often
};

std::string delayTriggerFeedingItsOwnReset() {
    SchemeText s;
    const int d = s.block("trig", "wBlockDelayTriggerDescriptor",
                          "dt = { value = 0.1 }, enabled = { value = true }, delay_time = { value = 0.3 }");
    s.port(d, "timed_out", d, "reset");
    return s.text();
}

// Trigger blocks alone cannot close a loop (a loop of stateless blocks is refused when the
// scheme loads); through a discrete block one can.
std::string ringThroughADelayTrigger() {
    SchemeText s;
    const int either = s.block("either", "wBlockORtriggerDescriptor");
    const int d = s.block("trig", "wBlockDelayTriggerDescriptor",
                          "dt = { value = 0.1 }, enabled = { value = false }, delay_time = { value = 0 }");
    s.inputPort("go", LEAD_BOOL);
    s.port(kIO, "go", either, "input1");
    s.port(either, "output", d, "reset");
    s.port(d, "timed_out", either, "input2");
    return s.text();
}

TEST(PortLoop, EndlessLoopsInSchemesFailWithTheBlockThatSeesItsValueComeBack) {
    const EndlessCase cases[] = {
        {"delay trigger feeding its own reset", delayTriggerFeedingItsOwnReset(), false, "trig"},
        {"ring through a delay trigger", ringThroughADelayTrigger(), true, "trig"},
    };
    for (const EndlessCase& c : cases) {
        SCOPED_TRACE(c.name);
        Running r(c.scheme);
        const std::string message = messageOf<wSimulationException>([&] {
            if (c.startedByHost) dynamic_cast<wInputPort<bool>&>(*r.system->getInputPort("go")).setValue(true);
            else r.system->simulate(0.0);
        });
        EXPECT_EQ(message.rfind(std::string("Endless port loop at block ") + c.block + ": ", 0), 0u) << message;
    }
}

}  // namespace
