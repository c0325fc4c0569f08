#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "scheme/SchemeTestUtil.h"
#include "support/SchemeFiles.h"
#include "vandrel/runtime/SolverExplEuler.h"
#include "vandrel/scheme/SimulationSystemScheme.h"

namespace {

using schemetest::add;
using schemetest::NestingBlock;
using schemetest::port;
using schemetest::wire;
using testblocks::CounterDescriptor;
using testblocks::GainDescriptor;
using testblocks::IntegratorDescriptor;
using testblocks::SamplerDescriptor;
using testblocks::TriggerDescriptor;
using Connection = wSimulationSystemScheme::Connection;

template <class F>
std::string messageOf(F&& f) {
    return testutil::messageOf<wSimulationException>(f);
}

std::vector<std::string> namesOf(const wSimulationSystemScheme& s) {
    std::vector<std::string> names;
    for (const auto& b : s.getBlocks()) names.push_back(b->getName());
    return names;
}

TEST(SchemeModel, NamesAreUniqueButEmptyNamesAreFree) {
    wSimulationSystemScheme s;
    auto* a = add<GainDescriptor>(s, "a");
    EXPECT_EQ(a->getScheme(), &s);
    add<GainDescriptor>(s, "");
    add<GainDescriptor>(s, "");
    EXPECT_EQ(messageOf([&] { add<GainDescriptor>(s, "a"); }), "Trying to add block with duplicate name: a");
    EXPECT_EQ(s.getBlocksCount(), 3);

    auto* b = add<GainDescriptor>(s, "b");
    EXPECT_EQ(messageOf([&] { s.renameBlock(b, "a"); }), "Cannot rename block b to a: name is used");
    EXPECT_EQ(b->getName(), "b");
    s.renameBlock(a, "a");  // to its own name: nothing happens
    s.renameBlock(b, "");
    s.renameBlock(a, "");   // several unnamed blocks are fine
    s.renameBlock(b, "c");
    EXPECT_EQ(s.getBlockByName("c"), b);
    EXPECT_EQ(s.getBlockByName(""), nullptr);
    EXPECT_EQ(s.getBlockByName("a"), nullptr);

    EXPECT_EQ(s.getBlockByIndex(-665), &s.getSpecialCmdsBlock());
    EXPECT_EQ(s.indexOfBlock(b), 3);
    GainDescriptor stranger;
    EXPECT_EQ(s.indexOfBlock(&stranger), s.getBlocksCount());

    s.removeBlock(a);
    EXPECT_EQ(s.getBlocksCount(), 3);
    EXPECT_EQ(s.indexOfBlock(b), 2);
    s.removeBlock(&stranger);  // not ours: nothing happens
    EXPECT_EQ(s.getBlocksCount(), 3);
}

TEST(SchemeModel, DottedNamesLookInsideNestingBlocks) {
    wSimulationSystemScheme s;
    auto* sub = add<NestingBlock>(s, "s");
    auto* inner = add<GainDescriptor>(*sub->getNestedScheme(), "k");
    auto* deeper = add<NestingBlock>(*sub->getNestedScheme(), "t");
    auto* deepest = add<CounterDescriptor>(*deeper->getNestedScheme(), "c");
    add<GainDescriptor>(s, "plain");

    EXPECT_EQ(s.getBlockByName("s.k"), inner);
    EXPECT_EQ(s.getBlockByName("s.t.c"), deepest);
    EXPECT_EQ(std::as_const(s).getBlockByName("s.t.c"), deepest);
    EXPECT_EQ(s.getBlockByName("s.k.x"), nullptr);  // k nests nothing
    EXPECT_EQ(s.getBlockByName("plain.k"), nullptr);
    EXPECT_EQ(s.getBlockByName("s."), nullptr);
    EXPECT_EQ(s.getBlockByName(".k"), nullptr);
    EXPECT_EQ(s.getBlockByName("s..k"), nullptr);
    EXPECT_EQ(s.getBlockByName("nosuch.k"), nullptr);

    // The duplicate test uses the same lookup.
    EXPECT_EQ(messageOf([&] { add<GainDescriptor>(s, "s.k"); }), "Trying to add block with duplicate name: s.k");
    add<GainDescriptor>(s, "s.x");
}

TEST(SchemeModel, ReorderMovesAmongDiscreteBlocks) {
    wSimulationSystemScheme s;
    auto* d1 = add<CounterDescriptor>(s, "D1");
    auto* g = add<GainDescriptor>(s, "G");
    auto* d2 = add<SamplerDescriptor>(s, "D2");
    auto* d3 = add<CounterDescriptor>(s, "D3");
    auto* i = add<IntegratorDescriptor>(s, "I");

    EXPECT_EQ(s.getBlockOrder(d1), 1);
    EXPECT_EQ(s.getBlockOrder(g), 1);  // non-discrete: the discrete blocks before it
    EXPECT_EQ(s.getBlockOrder(d3), 3);
    EXPECT_EQ(s.getBlockOrder(i), 3);
    GainDescriptor stranger;
    EXPECT_EQ(s.getBlockOrder(&stranger), -1);

    s.reorderBlock(d3, 1);
    EXPECT_EQ(namesOf(s), (std::vector<std::string>{"D3", "D1", "G", "D2", "I"}));
    EXPECT_EQ(s.getBlockOrder(d3), 1);
    EXPECT_EQ(s.getBlockOrder(d2), 3);

    s.reorderBlock(d3, 3);  // before the third discrete block of the rest: none, so at the end
    EXPECT_EQ(namesOf(s), (std::vector<std::string>{"D1", "G", "D2", "I", "D3"}));
    s.reorderBlock(d3, 2);
    EXPECT_EQ(namesOf(s), (std::vector<std::string>{"D1", "G", "D3", "D2", "I"}));
    s.reorderBlock(d1, 5);
    EXPECT_EQ(namesOf(s), (std::vector<std::string>{"G", "D3", "D2", "I", "D1"}));
    s.reorderBlock(g, 0);
    EXPECT_EQ(namesOf(s), (std::vector<std::string>{"D3", "D2", "I", "D1", "G"}));
    s.reorderBlock(g, 1);
    EXPECT_EQ(namesOf(s), (std::vector<std::string>{"G", "D3", "D2", "I", "D1"}));
    s.reorderBlock(&stranger, 1);
    EXPECT_EQ(s.getBlocksCount(), 5);
}

TEST(SchemeModel, ConnectionsCompareAllFields) {
    wSimulationSystemScheme s;
    auto* a = add<TriggerDescriptor>(s, "a");
    auto* b = add<TriggerDescriptor>(s, "b");
    const Connection asPort{a, b, "out", "in", true};
    const Connection asWire{a, b, "out", "in", false};
    s.addConnection(asWire);
    s.addConnection(asPort);
    s.addConnection(asPort);
    EXPECT_EQ(s.indexOfConnection(asWire), 0);
    EXPECT_EQ(s.indexOfConnection(asPort), 1);
    EXPECT_EQ(s.indexOfConnection(Connection{b, a, "out", "in", true}), -1);
    EXPECT_EQ(s.indexOfConnection(Connection{a, b, "out", "In", true}), -1);
    s.removeConnection(asWire);
    ASSERT_EQ(s.getConnections().size(), 2u);
    EXPECT_EQ(s.getConnections()[0], asPort);
    s.removeConnection(asPort);
    s.removeConnection(asPort);
    EXPECT_TRUE(s.getConnections().empty());
}

TEST(SchemeModel, SchemeLeadsLiveInTheIOBlock) {
    wSimulationSystemScheme s;
    s.addIOLead(false, false, "u", LEAD_DOUBLE);  // a scheme input wire
    s.addIOLead(false, true, "u", LEAD_BOOL);     // same name, other list: fine
    s.addIOLead(true, false, "y", LEAD_INT);
    s.addIOLead(true, false, "z", LEAD_VECTOR);
    s.addIOLead(true, true, "p", LEAD_OBJECT_PTR);
    EXPECT_EQ(messageOf([&] { s.addIOLead(false, false, "u", LEAD_INT); }), "Duplicate IO lead: u");

    EXPECT_EQ(s.getIOBlock().getOutputWires().size(), 1u);
    EXPECT_EQ(s.getIOBlock().getOutputPorts()[0].type, LEAD_BOOL);
    EXPECT_EQ(s.getIOLeads(true, false).size(), 2u);
    EXPECT_EQ(s.getIOLeads(true, true)[0].name, "p");

    EXPECT_EQ(messageOf([&] { s.renameIOLead(true, false, "y", "z"); }),
              "Cannot rename lead: lead \"z\" already exists");
    EXPECT_EQ(messageOf([&] { s.renameIOLead(true, false, "y", "y"); }),
              "Cannot rename lead: lead \"y\" already exists");
    s.renameIOLead(true, false, "y", "w");
    s.renameIOLead(true, false, "nosuch", "v");  // nothing to rename
    EXPECT_EQ(s.getIOLeads(true, false)[0], (wLeadDescription{"w", LEAD_INT}));
    EXPECT_EQ(s.getIOLeads(true, false).size(), 2u);

    s.removeIOLead(true, false, "w");
    s.removeIOLead(true, false, "nosuch");
    ASSERT_EQ(s.getIOLeads(true, false).size(), 1u);
    EXPECT_EQ(s.getIOLeads(true, false)[0].name, "z");
}

TEST(SchemeModel, BuiltInBlocks) {
    wSimulationSystemScheme s;
    EXPECT_EQ(messageOf([&] { (void)s.getIOBlock().create(nullptr, nullptr); }), "The I/O block has no runtime block");
    const auto& cmds = s.getSpecialCmdsBlock();
    EXPECT_EQ(cmds.getInputPorts(), (wLeadList{{"reset_diff_state", LEAD_BOOL}}));
    cmds.create(nullptr)->update(0.0, nullptr);  // nothing to compute
}

TEST(SchemeModel, CopiesCloneBlocksAndRedirectConnections) {
    wSimulationSystemScheme s;
    s.addIOLead(false, false, "u", LEAD_DOUBLE);
    s.addIOLead(false, true, "reset", LEAD_BOOL);
    s.addIOLead(true, false, "y", LEAD_DOUBLE);
    auto* g = add<GainDescriptor>(s, "g");
    g->k.set(3.0);
    auto* i = add<IntegratorDescriptor>(s, "i");
    auto* t = add<TriggerDescriptor>(s, "t");
    wire(s, nullptr, "u", g, "in");
    wire(s, g, "out", i, "in");
    wire(s, nullptr, "u", i, "x.initial");
    wire(s, i, "x", nullptr, "y");
    port(s, nullptr, "reset", t, "in");
    port(s, t, "out", &s.getSpecialCmdsBlock(), "reset_diff_state");
    auto solver = std::make_unique<wSolverExplEulerDescriptor>();
    solver->setH(0.25);
    s.setOdeSolverDescriptor(std::move(solver));
    s.analyse();
    ASSERT_GT(s.getDiffMemorySize(), 0);

    auto copy = s.clone();
    ASSERT_EQ(copy->getBlocksCount(), 3);
    for (int k = 0; k < 3; ++k) {
        const auto* mine = s.getBlockByIndex(k);
        const auto* theirs = copy->getBlockByIndex(k);
        EXPECT_NE(mine, theirs);
        EXPECT_EQ(mine->getName(), theirs->getName());
        EXPECT_EQ(mine->getClassName(), theirs->getClassName());
        EXPECT_EQ(theirs->getScheme(), copy.get());
        for (int w = 0; w < static_cast<int>(mine->getOutputWires().size()); ++w)
            EXPECT_EQ(mine->getOutputWireOffset(w), theirs->getOutputWireOffset(w));
        for (int w = 0; w < static_cast<int>(mine->getInputWires().size()); ++w)
            EXPECT_EQ(mine->getInputWireOffset(w), theirs->getInputWireOffset(w));
    }
    EXPECT_EQ(dynamic_cast<const GainDescriptor&>(*copy->getBlockByName("g")).k.get(), 3.0);
    EXPECT_EQ(copy->getIOBlock().getOutputWireOffset(0), s.getIOBlock().getOutputWireOffset(0));
    EXPECT_EQ(copy->getIOLeads(false, true).size(), 1u);

    // Every connection is the same one, between the copy's own blocks.
    ASSERT_EQ(copy->getConnections().size(), s.getConnections().size());
    for (std::size_t k = 0; k < s.getConnections().size(); ++k) {
        const Connection& a = s.getConnections()[k];
        const Connection& b = copy->getConnections()[k];
        auto same = [&](const wSimulationBlockDescriptor* x, const wSimulationBlockDescriptor* y) {
            if (x == &s.getIOBlock()) return y == &copy->getIOBlock();
            if (x == &s.getSpecialCmdsBlock()) return y == &copy->getSpecialCmdsBlock();
            return y == copy->getBlockByIndex(s.indexOfBlock(x));
        };
        EXPECT_TRUE(same(a.from, b.from)) << "connection " << k;
        EXPECT_TRUE(same(a.to, b.to)) << "connection " << k;
        EXPECT_EQ(a.fromLead, b.fromLead);
        EXPECT_EQ(a.toLead, b.toLead);
        EXPECT_EQ(a.isPort, b.isPort);
    }

    // Analysis results come along, except the continuous-state size.
    EXPECT_EQ(copy->getStatelessBlocksCount(), s.getStatelessBlocksCount());
    EXPECT_EQ(copy->getDiffBlocksCount(), 1);
    EXPECT_EQ(copy->getFirstDiscreteIndex(), s.getFirstDiscreteIndex());
    EXPECT_EQ(copy->getMemorySize(), s.getMemorySize());
    EXPECT_EQ(copy->getDiffMemorySize(), 0);
    ASSERT_NE(copy->getOdeSolverDescriptor(), nullptr);
    EXPECT_NE(copy->getOdeSolverDescriptor(), s.getOdeSolverDescriptor());
    EXPECT_EQ(dynamic_cast<wSolverExplEulerDescriptor&>(*copy->getOdeSolverDescriptor()).getH(), 0.25);

    // Assignment replaces what was there.
    wSimulationSystemScheme other;
    add<CounterDescriptor>(other, "old");
    other.addIOLead(true, true, "old", LEAD_INT);
    other = *copy;
    EXPECT_EQ(namesOf(other), namesOf(s));
    EXPECT_EQ(other.getIOLeads(true, true).size(), 0u);
    EXPECT_EQ(other.getConnections()[5].to, &other.getSpecialCmdsBlock());
    EXPECT_EQ(other.getConnections()[1].from, other.getBlockByName("g"));
    other = other;  // self-assignment keeps everything
    EXPECT_EQ(other.getBlocksCount(), 3);
}

TEST(SchemeModel, DebugDumpShowsBlocksAndLaidOutIO) {
    wSimulationSystemScheme s;
    s.addIOLead(false, false, "u", LEAD_DOUBLE);
    s.addIOLead(true, false, "y", LEAD_DOUBLE);
    auto* g = add<GainDescriptor>(s, "g");
    wire(s, nullptr, "u", g, "in");
    wire(s, g, "out", nullptr, "y");
    {
        testutil::LogCapture log(LOG_WARNINGS);
        s.debug_dump();
        EXPECT_EQ(log.text(), "");
    }
    {
        // Never laid out: no I/O block section.
        testutil::LogCapture log(LOG_TRACE);
        wSimulationSystemScheme empty;
        empty.debug_dump();
        EXPECT_EQ(log.text(), "Debug dump of system:\nBlocks:\n-- End of dump\n");
    }
    s.analyse();
    testutil::LogCapture log(LOG_TRACE);
    s.debug_dump();
    EXPECT_EQ(log.text(),
              "Debug dump of system:\n"
              "Blocks:\n"
              "        Dumping block \"g\" (TestGain)\n"
              "            Inputs:\n"
              "                in @ 0\n"
              "            Outputs:\n"
              "                out @ 8\n"
              "        -- end of block g\n"
              "I/O block:\n"
              "    Dumping block \"\" (I/O block)\n"
              "        Inputs:\n"
              "            y @ 8\n"
              "        Outputs:\n"
              "            u @ 0\n"
              "    -- end of block \n"
              "-- End of dump\n");
    EXPECT_EQ(wSimulationLogger::instance().getIndent(), 0);
}

}  // namespace
