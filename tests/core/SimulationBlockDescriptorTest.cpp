#include <gtest/gtest.h>

#include <sstream>

#include "core/CoreTestBlocks.h"
#include "vandrel/runtime/SimulationException.h"
#include "vandrel/runtime/SimulationLogger.h"

namespace {

using coretest::AndDescriptor;
using coretest::DiffADescriptor;
using coretest::DiffBDescriptor;
using coretest::DiscDescriptor;

zo::string leadIndexError(const wSimulationBlockDescriptor& d, bool isInput, bool isPort, const char* name) {
    try {
        d.getLeadIndex(isInput, isPort, name, true);
    } catch (const wSimulationException& e) {
        return e.what();
    }
    return "no error";
}

TEST(BlockDescriptor, KindsAndLeadQueries) {
    AndDescriptor gate;
    DiscDescriptor disc;
    DiffBDescriptor diff;
    EXPECT_TRUE(disc.isOfType(BLOCK_DISCRETE) && !disc.isOfType(BLOCK_STATELESS));
    EXPECT_TRUE(diff.isOfType(BLOCK_DIFF) && !diff.isOfType(BLOCK_DISCRETE));

    // The flags are (isInput, isPort).
    EXPECT_EQ(gate.getLeads(false, true)[1].name, "dv");
    EXPECT_EQ(gate.getLeads(true, true)[0].name, "trig");
    EXPECT_EQ(gate.getLeads(true, false).size(), 2u);
    EXPECT_EQ(gate.getLeads(false, false)[0].name, "out");
    EXPECT_EQ(gate.getLeadIndex(true, false, "b", true), 1);
    EXPECT_EQ(gate.getLeadIndex(true, false, "B", false), -1);
    EXPECT_EQ(gate.getLeadIndex(true, false, "out", false), -1);

    // Messages name the block, or its type while it has no name.
    EXPECT_EQ(leadIndexError(gate, true, false, "nosuch"), "Block AND has no input wire nosuch");
    gate.setName("and1");
    EXPECT_EQ(leadIndexError(gate, false, true, "x"), "Block and1 has no output port x");
}

TEST(BlockDescriptor, ContinuousInputsGetInitialValueWires) {
    DiffADescriptor a1, a2;
    const wLeadList& inputs = a1.getInputWires();
    const wLeadList expected{{"u", LEAD_DOUBLE}, {"X.initial", LEAD_DOUBLE}, {"Y.initial", LEAD_VECTOR}};
    EXPECT_EQ(inputs, expected);
    EXPECT_EQ(&a2.getInputWires(), &inputs);  // built once per class
    EXPECT_EQ(a1.getInputType("Y.initial"), LEAD_VECTOR);

    // Another class has its own list.
    DiffBDescriptor b;
    EXPECT_EQ(b.getInputWires(), (wLeadList{{"z.initial", LEAD_INT}}));
}

TEST(BlockDescriptor, OffsetsAndClone) {
    DiffADescriptor d;
    d.setName("integ");
    const int in[] = {5, 13, 21, 999};  // only the first three are taken
    const int out[] = {0, 45};
    d.setInputWireOffsets(in);
    d.setOutputWireOffsets(out);

    std::unique_ptr<wSimulationBlockDescriptor> copy = d.clone();
    const int moved[] = {100, 101, 102};
    d.setInputWireOffsets(moved);
    d.setName("renamed");

    EXPECT_NE(dynamic_cast<DiffADescriptor*>(copy.get()), nullptr);
    EXPECT_EQ(copy->getName(), "integ");
    EXPECT_EQ(copy->getInputWireOffset(0), 5);
    EXPECT_EQ(copy->getInputWireOffset(2), 21);
    EXPECT_EQ(copy->getOutputWireOffset(1), 45);
    EXPECT_EQ(d.getInputWireOffset(2), 102);
}

class BlockDescriptorDump : public testing::Test {
protected:
    void SetUp() override {
        log_.setStream(&out_);
        log_.setIndent(2);
    }
    void TearDown() override {
        log_.setLevel(LOG_NONE);
        log_.setStream(nullptr);
        log_.setIndent(0);
    }
    wSimulationLogger& log_ = wSimulationLogger::instance();
    std::ostringstream out_;
};

TEST_F(BlockDescriptorDump, WritesWiresWithOffsetsAtTraceLevel) {
    AndDescriptor gate;
    gate.setName("and1");
    const int in[] = {3, 17};
    const int out[] = {40};
    gate.setInputWireOffsets(in);
    gate.setOutputWireOffsets(out);

    log_.setLevel(LOG_WARNINGS);
    gate.debug_dump();
    EXPECT_EQ(out_.str(), "");

    log_.setLevel(LOG_TRACE);
    gate.debug_dump();
    EXPECT_EQ(out_.str(),
              "  Dumping block \"and1\" (AND)\n"
              "      Inputs:\n"
              "          a @ 3\n"
              "          b @ 17\n"
              "      Outputs:\n"
              "          out @ 40\n"
              "  -- end of block and1\n");
    EXPECT_EQ(log_.getIndent(), 2);
}

}  // namespace
