#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <random>

#include "scheme/SchemeTestUtil.h"
#include "support/SchemeFiles.h"
#include "vandrel/scheme/SimulationSystemScheme.h"

namespace {

using schemetest::add;
using schemetest::NestingBlock;
using schemetest::port;
using schemetest::wire;
using testblocks::AddDescriptor;
using testblocks::CounterDescriptor;
using testblocks::GainDescriptor;
using testblocks::IntegratorDescriptor;
using testblocks::SamplerDescriptor;
using testblocks::TriggerDescriptor;
using testblocks::VecSourceDescriptor;
using testing::HasSubstr;
using testing::StartsWith;
using List = zo::vector<int>;

template <class F>
std::string messageOf(F&& f) {
    return testutil::messageOf<wSimulationException>(f);
}

int indexOf(const wSimulationSystemScheme& s, const std::string& name) {
    return s.indexOfBlock(s.getBlockByName(name));
}

// ---- A direct transcription of the reachability analysis over an n x n matrix, kept
// as the reference that the graph searches of the library must agree with.

struct RefConnection {
    int from, to;  // block id in adding order, or -666 / -665 for the built-in blocks
    bool isPort;
};

struct RefResult {
    std::vector<int> order;  // block ids in final block order
    int stateless = 0, diff = 0, discrete = 0;
    std::string error;       // the loop message without any explanation after it
    List onSchemeInput, onSchemeOutput, onDiffInput, inDiff;
    std::vector<List> onInput, onOutput;
};

// kinds[id]: 0 stateless, 1 continuous, 2 discrete.
RefResult referenceAnalysis(const std::vector<int>& kinds, const std::vector<RefConnection>& conns,
                            const std::vector<std::string>& names) {
    RefResult r;
    const int count = static_cast<int>(kinds.size());
    r.order.resize(kinds.size());
    for (int i = 0; i < count; ++i) r.order[static_cast<std::size_t>(i)] = i;
    std::stable_sort(r.order.begin(), r.order.end(), [&](int a, int b) { return kinds[a] < kinds[b]; });
    for (int k : kinds) (k == 0 ? r.stateless : k == 1 ? r.diff : r.discrete)++;

    // buildGraph_(n) with the current order.
    auto isStateless = [&](int id) { return id == -665 || (id >= 0 && kinds[id] == 0); };
    auto buildGraph = [&](int n) {
        std::vector<int> position(kinds.size());
        for (int p = 0; p < count; ++p) position[r.order[p]] = p;
        auto index = [&](int id) { return id < 0 ? count : position[id]; };
        std::vector<std::vector<char>> g(n, std::vector<char>(n, 0));
        for (const RefConnection& c : conns) {
            const int s = index(c.from), t = index(c.to);
            if ((isStateless(c.from) || (!c.isPort && isStateless(c.to))) && s < n && t < n) g[s][t] = 1;
        }
        return g;
    };

    // sortStateless_: recursive depth-first search, successors in ascending order.
    if (r.stateless > 0) {
        const int n = r.stateless;
        auto g = buildGraph(n);
        std::vector<char> visited(n, 0);
        std::vector<int> result;
        std::function<void(int)> visit = [&](int v) {
            if (visited[v]) return;
            visited[v] = 1;
            for (int j = 0; j < n; ++j)
                if (g[v][j]) visit(j);
            result.push_back(v);
        };
        for (int i = 0; i < n; ++i) {
            if (visited[i]) continue;
            visited[i] = 1;
            for (int j = 0; j < n; ++j)
                if (g[i][j]) visit(j);
            result.push_back(i);
        }
        std::reverse(result.begin(), result.end());
        std::vector<int> head;
        for (int p : result) head.push_back(r.order[p]);
        std::copy(head.begin(), head.end(), r.order.begin());
    }

    const int io = count, n = count + 1;
    auto g = buildGraph(n);
    for (int k = 0; k < r.stateless; ++k)
        for (int i = 0; i < n; ++i)
            for (int j = 0; j < n; ++j)
                if (g[i][k] && g[k][j]) g[i][j] = 1;

    for (int i = 0; i < r.stateless; ++i) {
        if (g[i][i]) {
            r.error = "Stateless block " + std::to_string(i) + " (" + names[r.order[i]] + ") is reachable from itself";
            return r;
        }
    }
    const int firstDiff = r.stateless, firstDiscrete = r.stateless + r.diff;
    for (int d = 0; d < r.discrete; ++d) {
        const int D = firstDiscrete + d;
        List in, out;
        for (int s = 0; s < r.stateless; ++s) {
            if (g[s][D]) in.push_back(s);
            if (g[D][s]) out.push_back(s);
        }
        r.onInput.push_back(in);
        r.onOutput.push_back(out);
    }
    for (int s = 0; s < r.stateless; ++s) {
        if (g[io][s]) r.onSchemeInput.push_back(s);
        if (g[s][io]) r.onSchemeOutput.push_back(s);
    }
    std::vector<char> taken(r.stateless, 0);
    for (int c = 0; c < r.diff; ++c) {
        const int C = firstDiff + c;
        for (int s = 0; s < r.stateless; ++s) {
            if (g[C][s] && !taken[s]) {
                taken[s] = 1;
                r.inDiff.push_back(s);
            }
            if (g[s][C]) r.onDiffInput.push_back(s);
        }
    }
    return r;
}

TEST(SchemeAnalysis, GraphSearchesMatchTheMatrixReference) {
    std::mt19937 random(20240611);
    auto below = [&](int n) { return static_cast<int>(random() % static_cast<unsigned>(n)); };
    int loops = 0, clean = 0;
    for (int round = 0; round < 600; ++round) {
        const int count = below(40);
        // Half of the schemes feed stateless blocks only forward among themselves, so that
        // loops there run through stateful blocks only.
        const bool forwardOnly = round % 2 == 0;
        std::vector<int> kinds;
        std::vector<std::string> names;
        wSimulationSystemScheme s;
        for (int id = 0; id < count; ++id) {
            const int roll = below(10);
            const int kind = roll < 5 ? 0 : roll < 7 ? 1 : 2;
            kinds.push_back(kind);
            names.push_back("b" + std::to_string(id));
            if (kind == 0 && roll == 0) add<TriggerDescriptor>(s, names.back());
            else if (kind == 0) add<GainDescriptor>(s, names.back());
            else if (kind == 1) add<IntegratorDescriptor>(s, names.back());
            else if (roll == 9) add<CounterDescriptor>(s, names.back());
            else add<SamplerDescriptor>(s, names.back());
        }
        std::vector<wSimulationBlockDescriptor*> blocks;
        for (const auto& b : s.getBlocks()) blocks.push_back(b.get());

        std::vector<RefConnection> conns;
        const int connectionCount = count == 0 ? below(3) : below(2 * count + 4);
        for (int k = 0; k < connectionCount; ++k) {
            auto end = [&] {
                const int roll = below(20);
                if (count == 0 || roll == 0) return -666;
                if (roll == 1) return -665;
                return below(count);
            };
            RefConnection c{end(), end(), below(2) == 0};
            if (forwardOnly && c.from >= 0 && c.to >= 0 && kinds[c.from] == 0 && kinds[c.to] == 0 && c.from >= c.to)
                continue;
            conns.push_back(c);
            auto pointer = [&](int id) -> wSimulationBlockDescriptor* {
                if (id == -666) return &s.getIOBlock();
                if (id == -665) return &s.getSpecialCmdsBlock();
                return blocks[static_cast<std::size_t>(id)];
            };
            s.addConnection({pointer(c.from), pointer(c.to), "o", "i", c.isPort});
        }

        const RefResult want = referenceAnalysis(kinds, conns, names);
        std::string error;
        try {
            s.analyse(true);
        } catch (const wSimulationException& e) {
            error = e.what();
        }
        SCOPED_TRACE("round " + std::to_string(round));

        std::vector<int> order;
        for (const auto& b : s.getBlocks()) order.push_back(std::stoi(b->getName().substr(1)));
        EXPECT_EQ(order, want.order);
        if (!want.error.empty()) {
            ++loops;
            EXPECT_THAT(error, StartsWith(want.error + ": "));
            continue;
        }
        ++clean;
        ASSERT_EQ(error, "");
        EXPECT_EQ(s.getStatelessBlocksCount(), want.stateless);
        EXPECT_EQ(s.getDiffBlocksCount(), want.diff);
        EXPECT_EQ(s.getDiscreteBlocksCount(), want.discrete);
        EXPECT_EQ(s.getStatelessBlocksOnSchemeInput(), want.onSchemeInput);
        EXPECT_EQ(s.getStatelessBlocksOnSchemeOutput(), want.onSchemeOutput);
        EXPECT_EQ(s.getStatelessBlocksOnDiffInput(), want.onDiffInput);
        EXPECT_EQ(s.getStatelessBlocksInDiff(), want.inDiff);
        for (int d = 0; d < want.discrete; ++d) {
            EXPECT_EQ(s.getStatelessBlocksOnInput(d), want.onInput[static_cast<std::size_t>(d)]) << "discrete " << d;
            EXPECT_EQ(s.getStatelessBlocksOnOutput(d), want.onOutput[static_cast<std::size_t>(d)]) << "discrete " << d;
        }
    }
    // The generator must produce both outcomes in numbers.
    EXPECT_GT(loops, 100);
    EXPECT_GT(clean, 200);
}

// A scheme exercising every list:
//   u -> G1 -> I1 -> G2 -> A1.a,  G1 -> I2 -> A1.b,  A1 -> S1 -> G3 -> y
// plus a counter C1 and a vector source V1 feeding outputs, and x0 feeding both initials.
struct ListScheme {
    wSimulationSystemScheme s;
    ListScheme() {
        s.addIOLead(false, false, "flag", LEAD_BOOL);
        s.addIOLead(false, false, "u", LEAD_DOUBLE);
        s.addIOLead(false, false, "x0", LEAD_DOUBLE);
        s.addIOLead(true, false, "y", LEAD_DOUBLE);
        s.addIOLead(true, false, "cnt", LEAD_INT);
        s.addIOLead(true, false, "vec", LEAD_VECTOR);
        auto* s1 = add<SamplerDescriptor>(s, "S1");
        auto* g1 = add<GainDescriptor>(s, "G1");
        auto* i1 = add<IntegratorDescriptor>(s, "I1");
        auto* c1 = add<CounterDescriptor>(s, "C1");
        auto* g2 = add<GainDescriptor>(s, "G2");
        auto* a1 = add<AddDescriptor>(s, "A1");
        auto* i2 = add<IntegratorDescriptor>(s, "I2");
        auto* v1 = add<VecSourceDescriptor>(s, "V1");
        auto* g3 = add<GainDescriptor>(s, "G3");
        wire(s, nullptr, "u", g1, "in");
        wire(s, g1, "out", i1, "in");
        wire(s, g1, "out", i2, "in");
        wire(s, nullptr, "x0", i1, "x.initial");
        wire(s, nullptr, "x0", i2, "x.initial");
        wire(s, i1, "x", g2, "in");
        wire(s, g2, "out", a1, "a");
        wire(s, i2, "x", a1, "b");
        wire(s, a1, "out", s1, "in");
        wire(s, s1, "out", g3, "in");
        wire(s, g3, "out", nullptr, "y");
        wire(s, c1, "count", nullptr, "cnt");
        wire(s, v1, "v", nullptr, "vec");
    }
};

TEST(SchemeAnalysis, ListsOfAMixedScheme) {
    ListScheme fixture;
    wSimulationSystemScheme& s = fixture.s;
    s.analyse();

    // Kinds in order, file order kept inside each kind; then the stateless blocks in
    // evaluation order (G2 before A1, which it feeds).
    std::vector<std::string> names;
    for (const auto& b : s.getBlocks()) names.push_back(b->getName());
    EXPECT_EQ(names, (std::vector<std::string>{"G3", "G2", "A1", "G1", "I1", "I2", "S1", "C1", "V1"}));
    EXPECT_EQ(s.getStatelessBlocksCount(), 4);
    EXPECT_EQ(s.getDiffBlocksCount(), 2);
    EXPECT_EQ(s.getDiscreteBlocksCount(), 3);
    EXPECT_EQ(s.getDiffBlockIndex(1), 5);
    EXPECT_EQ(s.getDiscreteBlockIndex(0), 6);
    EXPECT_EQ(s.getDiscreteBlockIndex(2), 8);

    EXPECT_EQ(s.getStatelessBlocksOnSchemeInput(), (List{3}));
    EXPECT_EQ(s.getStatelessBlocksOnSchemeOutput(), (List{0}));
    EXPECT_EQ(s.getStatelessBlocksOnInput(0), (List{1, 2}));  // A1 and G2 feed S1
    EXPECT_EQ(s.getStatelessBlocksOnOutput(0), (List{0}));
    EXPECT_EQ(s.getStatelessBlocksOnInput(1), List{});
    EXPECT_EQ(s.getStatelessBlocksOnOutput(2), List{});
    EXPECT_EQ(s.getStatelessBlocksInDiff(), (List{1, 2}));
    EXPECT_EQ(s.getStatelessBlocksOnDiffInput(), (List{3, 3}));  // G1 feeds both integrators
}

TEST(SchemeLayout, OffsetsOfInputsContinuousAndOtherOutputs) {
    ListScheme fixture;
    wSimulationSystemScheme& s = fixture.s;
    s.analyse();
    auto out = [&](const char* name, int i = 0) { return s.getBlockByName(name)->getOutputWireOffset(i); };
    auto in = [&](const char* name, int i) { return s.getBlockByName(name)->getInputWireOffset(i); };

    // Scheme inputs packed from 0 without alignment: bool, then doubles at odd offsets.
    const auto& io = s.getIOBlock();
    EXPECT_EQ(io.getOutputWireOffset(0), 0);
    EXPECT_EQ(io.getOutputWireOffset(1), 1);
    EXPECT_EQ(io.getOutputWireOffset(2), 9);
    // Continuous states from the next multiple of 8 (17 -> 24), run padded to 8.
    EXPECT_EQ(s.getDiffMemoryOffset(), 24);
    EXPECT_EQ(out("I1"), 24);
    EXPECT_EQ(out("I2"), 32);
    EXPECT_EQ(s.getDiffMemorySize(), 16);
    // Then every other block's outputs in block order: stateless, then discrete.
    EXPECT_EQ(out("G3"), 40);
    EXPECT_EQ(out("G2"), 48);
    EXPECT_EQ(out("A1"), 56);
    EXPECT_EQ(out("G1"), 64);
    EXPECT_EQ(out("S1"), 72);
    EXPECT_EQ(out("C1"), 80);  // int, 4 bytes
    EXPECT_EQ(out("V1"), 84);  // Vec3d, 24 bytes, unaligned
    EXPECT_EQ(s.getMemorySize(), 108);

    // Inputs read their source's slot.
    EXPECT_EQ(in("G1", 0), 1);
    EXPECT_EQ(in("I1", 0), 64);
    EXPECT_EQ(in("I1", 1), 9);  // x.initial
    EXPECT_EQ(in("I2", 1), 9);
    EXPECT_EQ(in("G2", 0), 24);
    EXPECT_EQ(in("A1", 0), 48);
    EXPECT_EQ(in("A1", 1), 32);
    EXPECT_EQ(in("S1", 0), 56);
    EXPECT_EQ(in("G3", 0), 72);
    EXPECT_EQ(io.getInputWireOffset(0), 40);
    EXPECT_EQ(io.getInputWireOffset(1), 80);
    EXPECT_EQ(io.getInputWireOffset(2), 84);
}

TEST(SchemeLayout, NestedLevelsShareOneCounter) {
    // Inside: a -> NI (continuous, also its initial value) -> K -> b.
    wSimulationSystemScheme s;
    s.addIOLead(false, false, "u", LEAD_DOUBLE);
    s.addIOLead(true, false, "y", LEAD_DOUBLE);
    auto* g = add<GainDescriptor>(s, "G");
    auto* sub = add<NestingBlock>(s, "Sub");
    auto* samp = add<SamplerDescriptor>(s, "Samp");
    wSimulationSystemScheme& inner = *sub->getNestedScheme();
    inner.addIOLead(false, false, "a", LEAD_DOUBLE);
    inner.addIOLead(true, false, "b", LEAD_DOUBLE);
    auto* ni = add<IntegratorDescriptor>(inner, "NI");
    auto* k = add<GainDescriptor>(inner, "K");
    wire(inner, nullptr, "a", ni, "in");
    wire(inner, nullptr, "a", ni, "x.initial");
    wire(inner, ni, "x", k, "in");
    wire(inner, k, "out", nullptr, "b");
    inner.analyse(true);
    EXPECT_EQ(inner.getMemorySize(), 0);
    EXPECT_FALSE(k->hasWireOffsets());  // a nested scheme is laid out from the top

    wire(s, nullptr, "u", g, "in");
    wire(s, g, "out", sub, "a");
    wire(s, sub, "b", samp, "in");
    wire(s, samp, "out", nullptr, "y");
    s.analyse();

    // Top: u @0; no continuous state (offset 8, size 0); G @8, Samp @16; then the nested
    // level: its continuous run from 24, K @32.
    EXPECT_EQ(s.getDiffMemoryOffset(), 8);
    EXPECT_EQ(s.getDiffMemorySize(), 0);
    EXPECT_EQ(g->getInputWireOffset(0), 0);
    EXPECT_EQ(g->getOutputWireOffset(0), 8);
    EXPECT_EQ(samp->getOutputWireOffset(0), 16);
    EXPECT_EQ(inner.getDiffMemoryOffset(), 24);
    EXPECT_EQ(inner.getDiffMemorySize(), 8);
    EXPECT_EQ(ni->getOutputWireOffset(0), 24);
    EXPECT_EQ(k->getOutputWireOffset(0), 32);
    EXPECT_EQ(s.getMemorySize(), 40);
    EXPECT_EQ(inner.getMemorySize(), 0);

    // The nested inputs read what feeds the subsystem; its output is the nested one.
    EXPECT_EQ(ni->getInputWireOffset(0), 8);
    EXPECT_EQ(ni->getInputWireOffset(1), 8);
    EXPECT_EQ(k->getInputWireOffset(0), 24);
    EXPECT_EQ(samp->getInputWireOffset(0), 32);
    EXPECT_EQ(s.getIOBlock().getInputWireOffset(0), 16);
    EXPECT_FALSE(sub->hasWireOffsets());
    EXPECT_FALSE(inner.getIOBlock().hasWireOffsets());

    // Checks reach into the nested level, after the level above.
    wSimulationSystemScheme::Connection last = inner.getConnections().back();
    inner.removeConnection(last);
    // (named after the nested scheme's input at that index, as the message always was)
    EXPECT_EQ(messageOf([&] { s.analyse(); }), "Inconsistency in scheme: unassigned output a");
}

TEST(SchemeLayout, RefusesUnassignedAndDirectLeads) {
    {
        wSimulationSystemScheme s;
        add<GainDescriptor>(s, "g");
        EXPECT_EQ(messageOf([&] { s.analyse(); }), "Inconsistency in scheme: block \"g\" (TestGain) has unassigned input in.");
        EXPECT_NO_THROW(s.analyse(true));  // nested: no layout, no check
    }
    {
        // The message names the scheme input at the output's index.
        wSimulationSystemScheme s;
        s.addIOLead(false, false, "u", LEAD_DOUBLE);
        s.addIOLead(true, false, "y", LEAD_DOUBLE);
        EXPECT_EQ(messageOf([&] { s.analyse(); }), "Inconsistency in scheme: unassigned output u");
        wire(s, nullptr, "u", nullptr, "y");
        EXPECT_EQ(messageOf([&] { s.analyse(); }), "Direct connections from input to output are not implemented");
    }
    {
        wSimulationSystemScheme s;
        s.addIOLead(true, false, "y", LEAD_DOUBLE);
        EXPECT_EQ(messageOf([&] { s.analyse(); }), "Inconsistency in scheme: unassigned output y");
    }
    {
        // Ports take no room; a wire into a lead the block lacks is named.
        wSimulationSystemScheme s;
        s.addIOLead(false, true, "p", LEAD_BOOL);
        auto* t = add<TriggerDescriptor>(s, "t");
        port(s, nullptr, "p", t, "in");
        port(s, t, "out", &s.getSpecialCmdsBlock(), "reset_diff_state");
        s.analyse();
        EXPECT_EQ(s.getMemorySize(), 0);
        wire(s, nullptr, "p", t, "nosuch");
        EXPECT_EQ(messageOf([&] { s.analyse(); }), "Block t has no input wire nosuch");
    }
}

TEST(SchemeAnalysis, LoopsThroughStatelessBlocksAreRefused) {
    {
        wSimulationSystemScheme s;
        auto* a = add<GainDescriptor>(s, "A");
        auto* b = add<GainDescriptor>(s, "B");
        wire(s, a, "out", b, "in");
        wire(s, b, "out", a, "in");
        EXPECT_EQ(messageOf([&] { s.analyse(); }), "Stateless block 0 (A) is reachable from itself: A -> B -> A");
    }
    {
        // By ports; the first block of the loop in sorted order is reported.
        wSimulationSystemScheme s;
        auto* c = add<CounterDescriptor>(s, "C");
        auto* x = add<TriggerDescriptor>(s, "X");
        auto* p = add<TriggerDescriptor>(s, "P");
        auto* q = add<TriggerDescriptor>(s, "Q");
        auto* r = add<TriggerDescriptor>(s, "R");
        port(s, c, "o", x, "in");
        port(s, p, "out", q, "in");
        port(s, q, "out", r, "in");
        port(s, r, "out", q, "in");
        port(s, x, "out", p, "in");
        EXPECT_EQ(messageOf([&] { s.analyse(true); }), "Stateless block 2 (Q) is reachable from itself: Q -> R -> Q");
    }
    {
        wSimulationSystemScheme s;
        auto* self = add<TriggerDescriptor>(s, "S");
        port(s, self, "out", self, "in");
        EXPECT_EQ(messageOf([&] { s.analyse(true); }), "Stateless block 0 (S) is reachable from itself: S -> S");
    }
}

TEST(SchemeAnalysis, LoopsThroughStatefulBlocksAreAllowed) {
    wSimulationSystemScheme s;
    s.addIOLead(false, false, "x0", LEAD_DOUBLE);
    auto* g = add<GainDescriptor>(s, "G");
    auto* smp = add<SamplerDescriptor>(s, "S");
    auto* h = add<GainDescriptor>(s, "H");
    auto* i = add<IntegratorDescriptor>(s, "I");
    auto* c = add<CounterDescriptor>(s, "C");
    auto* t = add<TriggerDescriptor>(s, "T");
    wire(s, g, "out", smp, "in");
    wire(s, smp, "out", g, "in");
    wire(s, h, "out", i, "in");
    wire(s, i, "x", h, "in");
    wire(s, nullptr, "x0", i, "x.initial");
    port(s, c, "p", t, "in");  // a port out of a stateful block adds no edge
    s.analyse();
    ASSERT_EQ(s.getStatelessBlocksCount(), 3);
    const int G = indexOf(s, "G"), H = indexOf(s, "H");
    EXPECT_EQ(s.getStatelessBlocksOnInput(0), (List{G}));
    EXPECT_EQ(s.getStatelessBlocksOnOutput(0), (List{G}));
    EXPECT_EQ(s.getStatelessBlocksOnOutput(1), List{});
    EXPECT_EQ(s.getStatelessBlocksInDiff(), (List{H}));
    EXPECT_EQ(s.getStatelessBlocksOnDiffInput(), (List{H}));
    EXPECT_EQ(s.getStatelessBlocksOnSchemeInput(), List{});

    // The same link as a wire does make the trigger depend on the counter.
    wire(s, c, "count", t, "in");
    s.analyse(true);
    EXPECT_EQ(s.getStatelessBlocksOnOutput(1), (List{indexOf(s, "T")}));
}

TEST(SchemeAnalysis, EmptyAndStatelessFreeSchemes) {
    wSimulationSystemScheme s;
    s.analyse();
    EXPECT_EQ(s.getMemorySize(), 0);
    EXPECT_EQ(s.getBlocksCount(), 0);

    add<CounterDescriptor>(s, "C");
    add<IntegratorDescriptor>(s, "I");
    EXPECT_THAT(messageOf([&] { s.analyse(); }), HasSubstr("(TestIntegrator) has unassigned input in."));
    s.analyse(true);
    EXPECT_EQ(s.getStatelessBlocksCount(), 0);
    EXPECT_EQ(s.getBlockByIndex(0)->getName(), "I");
    EXPECT_EQ(s.getStatelessBlocksOnOutput(0), List{});
    EXPECT_TRUE(s.getStatelessBlocksInDiff().empty());
}

TEST(SchemeAnalysis, LongChainsNeedNoDeepRecursion) {
    // u -> g0 -> g1 -> ... -> g(n-1) -> y, unnamed blocks.
    constexpr int n = 100000;
    wSimulationSystemScheme s;
    s.addIOLead(false, false, "u", LEAD_DOUBLE);
    s.addIOLead(true, false, "y", LEAD_DOUBLE);
    std::vector<wSimulationBlockDescriptor*> chain;
    for (int i = 0; i < n; ++i) chain.push_back(s.addBlock(std::make_unique<GainDescriptor>()));
    wire(s, nullptr, "u", chain.front(), "in");
    for (int i = 0; i + 1 < n; ++i) wire(s, chain[i], "out", chain[i + 1], "in");
    wire(s, chain.back(), "out", nullptr, "y");
    s.analyse();

    for (int i = 0; i < n; i += 9999) EXPECT_EQ(s.getBlockByIndex(i), chain[static_cast<std::size_t>(i)]);
    EXPECT_EQ(s.getStatelessBlocksOnSchemeInput().size(), static_cast<std::size_t>(n));
    EXPECT_EQ(s.getStatelessBlocksOnSchemeOutput().size(), static_cast<std::size_t>(n));
    EXPECT_EQ(chain.back()->getOutputWireOffset(0), 8 + 8 * (n - 1));
    EXPECT_EQ(chain.back()->getInputWireOffset(0), 8 * (n - 1));
    EXPECT_EQ(s.getMemorySize(), 8 + 8 * n);

    // Closing the chain into a loop: reported, with a shortened path.
    wire(s, chain.back(), "out", chain.front(), "in");
    const std::string message = messageOf([&] { s.analyse(true); });
    EXPECT_THAT(message, StartsWith("Stateless block 0 () is reachable from itself: TestGain -> "));
    EXPECT_THAT(message, HasSubstr("... -> TestGain"));
    EXPECT_LT(message.size(), 400u);
}

}  // namespace
