// The analysis of a scheme: block order, loop checks, the index lists the runtime follows
// (checked against a plain matrix transcription of the rules), and the data-area layout.
#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <random>

#include "support/SchemeFiles.h"

namespace {

using namespace testblocks;
using List = zo::vector<int>;
using testutil::Builder;

std::string analysisError(wSimulationSystemScheme& s, bool nested = false) {
    return testutil::messageOf<wSimulationException>([&] { s.analyse(nested); });
}

// ---- The reference: reachability over an n x n matrix, as the rules are written down.
struct RefConnection {
    int from, to;  // block id in adding order, or -666 / -665 for the built-in blocks
    bool isPort;
};
struct RefResult {
    std::vector<int> order;  // block ids in final block order
    int stateless = 0, diff = 0, discrete = 0;
    std::string error;  // the loop message up to the loop itself
    List onSchemeInput, onSchemeOutput, onDiffInput, inDiff;
    std::vector<List> onInput, onOutput;
};

// kinds[id]: 0 stateless, 1 continuous, 2 discrete.
RefResult reference(const std::vector<int>& kinds, const std::vector<RefConnection>& conns) {
    RefResult r;
    const int count = static_cast<int>(kinds.size());
    for (int i = 0; i < count; ++i) r.order.push_back(i);
    std::stable_sort(r.order.begin(), r.order.end(), [&](int a, int b) { return kinds[a] < kinds[b]; });
    for (int k : kinds) ++(k == 0 ? r.stateless : k == 1 ? r.diff : r.discrete);
    // An edge from a stateless source, or a wire into a stateless target.
    auto isStateless = [&](int id) { return id == -665 || (id >= 0 && kinds[id] == 0); };
    auto graph = [&](int n) {
        std::vector<int> position(kinds.size());
        for (int p = 0; p < count; ++p) position[r.order[p]] = p;
        std::vector<std::vector<char>> g(n, std::vector<char>(n, 0));
        for (const RefConnection& c : conns) {
            const int s = c.from < 0 ? count : position[c.from], t = c.to < 0 ? count : position[c.to];
            if ((isStateless(c.from) || (!c.isPort && isStateless(c.to))) && s < n && t < n) g[s][t] = 1;
        }
        return g;
    };
    // Stateless blocks in reverse post-order of a depth-first search, successors ascending.
    if (r.stateless > 0) {
        const int n = r.stateless;
        auto g = graph(n);
        std::vector<char> visited(n, 0);
        std::vector<int> post;
        std::function<void(int)> visit = [&](int v) {
            visited[v] = 1;
            for (int j = 0; j < n; ++j)
                if (g[v][j] && !visited[j]) visit(j);
            post.push_back(v);
        };
        for (int i = 0; i < n; ++i)
            if (!visited[i]) visit(i);
        std::vector<int> head;
        for (auto p = post.rbegin(); p != post.rend(); ++p) head.push_back(r.order[*p]);
        std::copy(head.begin(), head.end(), r.order.begin());
    }
    const int io = count, n = count + 1;
    auto g = graph(n);
    for (int k = 0; k < r.stateless; ++k)  // closure through stateless blocks only
        for (int i = 0; i < n; ++i)
            for (int j = 0; j < n; ++j)
                if (g[i][k] && g[k][j]) g[i][j] = 1;
    for (int i = 0; i < r.stateless; ++i)
        if (g[i][i]) {
            r.error = "Stateless block " + std::to_string(i) + " (b" + std::to_string(r.order[i]) +
                      ") is reachable from itself: ";
            return r;
        }
    for (int d = r.stateless + r.diff; d < count; ++d) {
        List in, out;
        for (int s = 0; s < r.stateless; ++s) {
            if (g[s][d]) in.push_back(s);
            if (g[d][s]) out.push_back(s);
        }
        r.onInput.push_back(in);
        r.onOutput.push_back(out);
    }
    std::vector<char> taken(r.stateless, 0);
    for (int s = 0; s < r.stateless; ++s) {
        if (g[io][s]) r.onSchemeInput.push_back(s);
        if (g[s][io]) r.onSchemeOutput.push_back(s);
    }
    for (int c = r.stateless; c < r.stateless + r.diff; ++c)
        for (int s = 0; s < r.stateless; ++s) {
            if (g[c][s] && !taken[s]) {
                taken[s] = 1;
                r.inDiff.push_back(s);
            }
            if (g[s][c]) r.onDiffInput.push_back(s);
        }
    return r;
}

TEST(SchemeAnalysis, GraphSearchesMatchTheMatrixReference) {
    std::mt19937 random(20240611);
    auto below = [&](int n) { return static_cast<int>(random() % static_cast<unsigned>(n)); };
    int loops = 0, clean = 0;
    for (int round = 0; round < 600; ++round) {
        SCOPED_TRACE("round " + std::to_string(round));
        const int count = below(40);
        // Half of the schemes feed stateless blocks only forward, so that their loops run
        // through stateful blocks only.
        const bool forwardOnly = round % 2 == 0;
        std::vector<int> kinds;
        Builder b;
        std::vector<wSimulationBlockDescriptor*> blocks;
        for (int id = 0; id < count; ++id) {
            const int roll = below(10), kind = roll < 5 ? 0 : roll < 7 ? 1 : 2;
            const std::string name = "b" + std::to_string(id);
            kinds.push_back(kind);
            wSimulationBlockDescriptor* d = nullptr;
            if (kind == 0 && roll == 0) d = b.add<TriggerDescriptor>(name);
            else if (kind == 0) d = b.add<GainDescriptor>(name);
            else if (kind == 1) d = b.add<IntegratorDescriptor>(name);
            else if (roll == 9) d = b.add<CounterDescriptor>(name);
            else d = b.add<SamplerDescriptor>(name);
            blocks.push_back(d);
        }
        std::vector<RefConnection> conns;
        const int connectionCount = below(2 * count + 4);
        for (int k = 0; k < connectionCount; ++k) {
            auto end = [&] {
                const int roll = below(20);
                return count == 0 || roll == 0 ? -666 : roll == 1 ? -665 : below(count);
            };
            const RefConnection c{end(), end(), below(2) == 0};
            if (forwardOnly && c.from >= c.to && c.to >= 0 && kinds[c.from] == 0 && kinds[c.to] == 0) continue;
            conns.push_back(c);
            auto at = [&](int id) { return id == -666 ? b.io() : id == -665 ? b.special() : blocks[id]; };
            b.scheme.addConnection({at(c.from), at(c.to), "o", "i", c.isPort});
        }

        const RefResult want = reference(kinds, conns);
        std::string error;
        try {
            b.scheme.analyse(true);
        } catch (const wSimulationException& e) {
            error = e.what();
        }
        std::vector<int> order;
        for (const auto& d : b.scheme.getBlocks()) order.push_back(std::stoi(d->getName().substr(1)));
        EXPECT_EQ(order, want.order);
        if (!want.error.empty()) {
            ++loops;
            EXPECT_EQ(error.substr(0, want.error.size()), want.error);
            continue;
        }
        ++clean;
        ASSERT_EQ(error, "");
        const wSimulationSystemScheme& s = b.scheme;
        EXPECT_EQ(s.getStatelessBlocksCount(), want.stateless);
        EXPECT_EQ(s.getDiffBlocksCount(), want.diff);
        EXPECT_EQ(s.getDiscreteBlocksCount(), want.discrete);
        EXPECT_EQ(s.getStatelessBlocksOnSchemeInput(), want.onSchemeInput);
        EXPECT_EQ(s.getStatelessBlocksOnSchemeOutput(), want.onSchemeOutput);
        EXPECT_EQ(s.getStatelessBlocksOnDiffInput(), want.onDiffInput);
        EXPECT_EQ(s.getStatelessBlocksInDiff(), want.inDiff);
        for (int d = 0; d < want.discrete; ++d) {
            EXPECT_EQ(s.getStatelessBlocksOnInput(d), want.onInput[d]) << "discrete " << d;
            EXPECT_EQ(s.getStatelessBlocksOnOutput(d), want.onOutput[d]) << "discrete " << d;
        }
    }
    EXPECT_GT(loops, 100);  // the generator must produce both outcomes in numbers
    EXPECT_GT(clean, 200);
}

TEST(SchemeAnalysis, LoopMessagesShowTheLoopShortenedWhenLong) {
    // A ring of n gains; rings longer than 16 blocks show their first 15 and the way back.
    for (int n : {1, 2, 16, 17}) {
        Builder b;
        std::vector<GainDescriptor*> ring;
        for (int i = 0; i < n; ++i) ring.push_back(b.add<GainDescriptor>("g" + std::to_string(i)));
        for (int i = 0; i < n; ++i) b.wire(ring[i], "out", ring[(i + 1) % n], "in");
        const std::string message = analysisError(b.scheme);
        const std::string first = b.scheme.getBlockByIndex(0)->getName();
        std::string expected = "Stateless block 0 (" + first + ") is reachable from itself: ";
        const int start = std::stoi(first.substr(1));
        for (int k = 0; k < n; ++k) {
            if (n > 16 && k == 15) {
                expected += "... -> ";
                break;
            }
            expected += "g" + std::to_string((start + k) % n) + " -> ";
        }
        EXPECT_EQ(message, expected + first + "; put a discrete or continuous block into the loop") << n;
    }
    // Ports count too; the first looping block in sorted order is the one named.
    Builder b;
    auto* c = b.add<CounterDescriptor>("C");
    auto* x = b.add<TriggerDescriptor>("X");
    auto* p = b.add<TriggerDescriptor>("P");
    auto* q = b.add<TriggerDescriptor>("Q");
    auto* r = b.add<TriggerDescriptor>("R");
    b.port(c, "o", x, "in");
    b.port(p, "out", q, "in");
    b.port(q, "out", r, "in");
    b.port(r, "out", q, "in");
    b.port(x, "out", p, "in");
    EXPECT_EQ(analysisError(b.scheme, true), "Stateless block 2 (Q) is reachable from itself: Q -> R -> Q; put a discrete or continuous block into the loop");
}

TEST(SchemeAnalysis, LongChainsNeedNoDeepRecursion) {
    constexpr int n = 100000;
    Builder b;
    b.inputWire("u");
    b.outputWire("y");
    std::vector<wSimulationBlockDescriptor*> chain;
    for (int i = 0; i < n; ++i) chain.push_back(b.scheme.addBlock(std::make_unique<GainDescriptor>()));
    b.wire(nullptr, "u", chain.front(), "in");
    for (int i = 0; i + 1 < n; ++i) b.wire(chain[i], "out", chain[i + 1], "in");
    b.wire(chain.back(), "out", nullptr, "y");
    b.scheme.analyse();
    for (int i = 0; i < n; i += 9999) EXPECT_EQ(b.scheme.getBlockByIndex(i), chain[i]);
    EXPECT_EQ(b.scheme.getStatelessBlocksOnSchemeOutput().size(), static_cast<std::size_t>(n));
    EXPECT_EQ(chain.back()->getOutputWireOffset(0), 8 * n);
    EXPECT_EQ(b.scheme.getMemorySize(), 8 + 8 * n);
    b.wire(chain.back(), "out", chain.front(), "in");
    const std::string message = analysisError(b.scheme, true);
    EXPECT_EQ(message.rfind("Stateless block 0 () is reachable from itself: TestGain -> ", 0), 0u) << message;
    EXPECT_LT(message.size(), 400u);
}

// u -> G1 -> I1 -> G2 -> A1.a,  G1 -> I2 -> A1.b,  A1 -> S1 -> G3 -> y, plus a counter C1
// and a vector source V1 feeding outputs, x0 feeding both initial values, and a flag.
TEST(SchemeLayout, ListsAndOffsetsOfAMixedScheme) {
    Builder b;
    b.inputWire("flag", LEAD_BOOL);
    b.inputWire("u");
    b.inputWire("x0");
    b.outputWire("y");
    b.outputWire("cnt", LEAD_INT);
    b.outputWire("vec", LEAD_VECTOR);
    auto* s1 = b.add<SamplerDescriptor>("S1");
    auto* g1 = b.add<GainDescriptor>("G1");
    auto* i1 = b.add<IntegratorDescriptor>("I1");
    auto* c1 = b.add<CounterDescriptor>("C1");
    auto* g2 = b.add<GainDescriptor>("G2");
    auto* a1 = b.add<AddDescriptor>("A1");
    auto* i2 = b.add<IntegratorDescriptor>("I2");
    auto* v1 = b.add<VecSourceDescriptor>("V1");
    auto* g3 = b.add<GainDescriptor>("G3");
    b.wire(nullptr, "u", g1, "in");
    b.wire(g1, "out", i1, "in");
    b.wire(g1, "out", i2, "in");
    b.wire(nullptr, "x0", i1, "x.initial");
    b.wire(nullptr, "x0", i2, "x.initial");
    b.wire(i1, "x", g2, "in");
    b.wire(g2, "out", a1, "a");
    b.wire(i2, "x", a1, "b");
    b.wire(a1, "out", s1, "in");
    b.wire(s1, "out", g3, "in");
    b.wire(g3, "out", nullptr, "y");
    b.wire(c1, "count", nullptr, "cnt");
    b.wire(v1, "v", nullptr, "vec");
    wSimulationSystemScheme& s = b.scheme;
    s.analyse();

    // Kinds in order, file order kept inside each kind; the stateless blocks in evaluation order.
    std::string names;
    for (const auto& d : s.getBlocks()) names += d->getName() + " ";
    EXPECT_EQ(names, "G3 G2 A1 G1 I1 I2 S1 C1 V1 ");
    EXPECT_EQ(s.getDiffBlockIndex(1), 5);
    EXPECT_EQ(s.getDiscreteBlockIndex(2), 8);
    EXPECT_EQ(s.getStatelessBlocksOnSchemeInput(), List{3});
    EXPECT_EQ(s.getStatelessBlocksOnSchemeOutput(), List{0});
    EXPECT_EQ(s.getStatelessBlocksOnInput(0), (List{1, 2}));  // G2 and A1 feed S1
    EXPECT_EQ(s.getStatelessBlocksOnOutput(0), List{0});
    EXPECT_EQ(s.getStatelessBlocksOnOutput(2), List{});
    EXPECT_EQ(s.getStatelessBlocksInDiff(), (List{1, 2}));
    EXPECT_EQ(s.getStatelessBlocksOnDiffInput(), (List{3, 3}));  // G1 feeds both integrators

    // Scheme inputs packed from 0 without alignment; continuous states from the next
    // multiple of 8; then every other block's outputs in block order, unaligned.
    auto out = [&](wSimulationBlockDescriptor* d) { return d->getOutputWireOffset(0); };
    const auto& io = s.getIOBlock();
    EXPECT_EQ(std::vector<int>({io.getOutputWireOffset(0), io.getOutputWireOffset(1), io.getOutputWireOffset(2)}),
              std::vector<int>({0, 1, 9}));
    EXPECT_EQ(s.getDiffMemoryOffset(), 24);
    EXPECT_EQ(s.getDiffMemorySize(), 16);
    EXPECT_EQ(std::vector<int>({out(i1), out(i2), out(g3), out(g2), out(a1), out(g1), out(s1), out(c1), out(v1)}),
              std::vector<int>({24, 32, 40, 48, 56, 64, 72, 80, 84}));
    EXPECT_EQ(s.getMemorySize(), 108);
    // Inputs read their source's slot.
    EXPECT_EQ(std::vector<int>({g1->getInputWireOffset(0), i1->getInputWireOffset(0), i1->getInputWireOffset(1),
                                i2->getInputWireOffset(1), g2->getInputWireOffset(0), a1->getInputWireOffset(0),
                                a1->getInputWireOffset(1), s1->getInputWireOffset(0), g3->getInputWireOffset(0)}),
              std::vector<int>({1, 64, 9, 9, 24, 48, 32, 56, 72}));
    EXPECT_EQ(std::vector<int>({io.getInputWireOffset(0), io.getInputWireOffset(1), io.getInputWireOffset(2)}),
              std::vector<int>({40, 80, 84}));

    // A copy carries the analysis, except the continuous-state size.
    std::unique_ptr<wSimulationSystemScheme> copy(s.clone());
    EXPECT_EQ(copy->getBlockByName("A1")->getInputWireOffset(1), 32);
    EXPECT_EQ(copy->getIOBlock().getInputWireOffset(2), 84);
    EXPECT_EQ(copy->getDiscreteBlocksCount(), 3);
    EXPECT_EQ(copy->getFirstDiscreteIndex(), 6);
    EXPECT_EQ(copy->getMemorySize(), 108);
    EXPECT_EQ(copy->getDiffMemorySize(), 0);

    testutil::LogCapture log(LOG_TRACE);
    s.debug_dump();
    EXPECT_NE(log.text().find("I/O block:\n    Dumping block \"\" (I/O block)\n        Inputs:\n            y @ 40\n"),
              std::string::npos) << log.text();
}

TEST(SchemeLayout, NestedLevelsShareOneCounter) {
    // Inside: a -> NI (continuous, also its initial value) -> K -> b.
    Builder b;
    b.inputWire("u");
    b.outputWire("y");
    auto* g = b.add<GainDescriptor>("G");
    auto* sub = b.add<NestingDescriptor>("Sub");
    auto* samp = b.add<SamplerDescriptor>("Samp");
    wSimulationSystemScheme& inner = *sub->getNestedScheme();
    inner.addIOLead(false, false, "a", LEAD_DOUBLE);
    inner.addIOLead(true, false, "b", LEAD_DOUBLE);
    Builder in(&inner);
    auto* ni = in.add<IntegratorDescriptor>("NI");
    auto* k = in.add<GainDescriptor>("K");
    in.wire(nullptr, "a", ni, "in");
    in.wire(nullptr, "a", ni, "x.initial");
    in.wire(ni, "x", k, "in");
    in.wire(k, "out", nullptr, "b");
    inner.analyse(true);
    EXPECT_FALSE(k->hasWireOffsets());  // a nested scheme is laid out from the top
    b.wire(nullptr, "u", g, "in");
    b.wire(g, "out", sub, "a");
    b.wire(sub, "b", samp, "in");
    b.wire(samp, "out", nullptr, "y");
    b.scheme.analyse();
    EXPECT_EQ(b.scheme.getBlockByName("Sub.K"), k);

    // Top: u @0; no continuous state (offset 8, size 0); G @8, Samp @16; then the nested
    // level: its continuous run from 24, K @32.
    EXPECT_EQ(std::vector<int>({b.scheme.getDiffMemoryOffset(), b.scheme.getDiffMemorySize(), g->getOutputWireOffset(0),
                                samp->getOutputWireOffset(0), inner.getDiffMemoryOffset(), inner.getDiffMemorySize(),
                                ni->getOutputWireOffset(0), k->getOutputWireOffset(0), b.scheme.getMemorySize()}),
              std::vector<int>({8, 0, 8, 16, 24, 8, 24, 32, 40}));
    // The nested inputs read what feeds the subsystem; its output is the nested one.
    EXPECT_EQ(std::vector<int>({ni->getInputWireOffset(0), ni->getInputWireOffset(1), k->getInputWireOffset(0),
                                samp->getInputWireOffset(0), b.scheme.getIOBlock().getInputWireOffset(0)}),
              std::vector<int>({8, 8, 24, 32, 16}));
    EXPECT_FALSE(sub->hasWireOffsets() || inner.getIOBlock().hasWireOffsets());
    EXPECT_EQ(inner.getMemorySize(), 0);

    // Checks reach into the nested level (named after the nested input at that index).
    inner.removeConnection(inner.getConnections().back());
    EXPECT_EQ(analysisError(b.scheme), "Inconsistency in scheme: unassigned output a: nothing feeds the scheme output b; add a"
                                            " connection with input_block = -666, input_lead = \"b\"");
}

TEST(SchemeLayout, UnassignedAndDirectLeadsAreRefused) {
    Builder b;
    auto* g = b.add<GainDescriptor>("g");
    EXPECT_EQ(analysisError(b.scheme), "Inconsistency in scheme: block \"g\" (TestGain) has unassigned input in. Connect a wire to it.");
    b.scheme.analyse(true);  // nested: no layout, no check
    b.scheme.removeBlock(g);
    b.outputWire("y");
    EXPECT_EQ(analysisError(b.scheme), "Inconsistency in scheme: unassigned output y: nothing feeds the scheme output y; add a"
                                            " connection with input_block = -666, input_lead = \"y\"");
    b.inputWire("u");
    b.wire(nullptr, "u", nullptr, "y");
    EXPECT_EQ(analysisError(b.scheme), "Direct connections from input to output are not implemented: scheme input u feeds scheme"
                                            " output y directly; pass it through a block (a gain of 1, for instance)");

    // Ports take no room; a wire into a lead the block lacks is named.
    Builder p;
    p.inputPort("p");
    auto* t = p.add<TriggerDescriptor>("t");
    p.port(nullptr, "p", t, "in");
    p.port(t, "out", p.special(), "reset_diff_state");
    p.scheme.analyse();
    EXPECT_EQ(p.scheme.getMemorySize(), 0);
    p.wire(nullptr, "p", t, "nosuch");
    EXPECT_EQ(analysisError(p.scheme), "Block t has no input wire nosuch");
}

}  // namespace
