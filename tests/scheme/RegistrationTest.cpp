// The library registers its solver kinds and block classes when it is loaded, in the
// order editors list them; the keys are the "__type" strings of scheme files.
#include <gtest/gtest.h>

#include <utility>
#include <vector>

#include "vandrel/runtime/OdeSolver.h"
#include "vandrel/scheme/BlockFactory.h"

namespace {

using Pair = std::pair<zo::string, zo::string>;

TEST(Registration, BlockClassesAreListedInRegistrationOrder) {
    const std::vector<Pair> expected = {
        {"wBlockANDDescriptor", "AND"},
        {"wBlockANDtriggerDescriptor", "AND (trig)"},
        {"wBlockNOTDescriptor", "NOT"},
        {"wBlockNOTtriggerDescriptor", "NOT (trig)"},
        {"wBlockORDescriptor", "OR"},
        {"wBlockORtriggerDescriptor", "OR (trig)"},
        {"wBlockAvgerageValDescriptor<double>", "AvgVal (dbl)"},
        {"wBlockAvgerageValDescriptor<Vec3d>", "AvgVal (vec)"},
        {"wBlockAvgerageValDescriptor<int>", "AvgVal (int)"},
        {"wBlockConstantsDescriptor", "Constants block"},
        {"wBlockDelayTriggerDescriptor", "Delay trigger"},
        {"wBlockDelayTriggerMultipleDescriptor", "Delay trigger multiple"},
        {"wBlockDelayTriggerWireDescriptor", "Delay trigger wire"},
        {"wDoubleToVec3dDescriptor", "Double to Vector"},
        {"wBlockGo2doubleOntimerDescriptor", "IncTimer to Double"},
        {"wBlockI2ODescriptor<bool CMA double>", "conv_b2d"},
        {"wBlockI2ODescriptor<bool CMA int>", "conv_b2i"},
        {"wBlockI2ODescriptor<double CMA bool>", "conv_d2b"},
        {"wBlockI2ODescriptor<int CMA double>", "conv_i2d"},
        {"wBlockI2ODescriptor<int CMA bool>", "conv_i2b"},
        {"wBlockIntegratorDescriptor<double>", "I (dbl)"},
        {"wBlockIntegratorDescriptor<Vec3d>", "I (vec)"},
        {"wBlockLuaDescriptor", "Lua script"},
        {"wBlockMaxValDescriptor<double>", "MaxVal (dbl)"},
        {"wBlockMaxValDescriptor<Vec3d>", "MaxVal (vec)"},
        {"wBlockMaxValDescriptor<int>", "MaxVal (int)"},
        {"wBlockMinValDescriptor<double>", "MinVal (dbl)"},
        {"wBlockMinValDescriptor<Vec3d>", "MinVal (vec)"},
        {"wBlockMinValDescriptor<int>", "MinVal (int)"},
        {"wBlockMultiplexDescriptor", "Multiplexor"},
        {"wBlockOscilloscopeDescriptor", "Oscilloscope"},
        {"wBlockRampDescriptor", "Ramp block"},
        {"wRotatorBlockDescriptor", "Rotate Rot3d"},
        {"wBlockSubsystemDescriptor", "Subsystem"},
        {"wBlockSummatorDescriptor<double>", "Sum (dbl)"},
        {"wBlockSummatorDescriptor<Vec3d>", "Sum (vec)"},
        {"wBlockSummatorDescriptor<int>", "Sum (int)"},
        {"wBlockFlagOnSignalTimerDescriptor", "Flag cont. signal by timer"},
        {"wVec3dToDoubleDescriptor", "Vector to double"},
        {"wVec3dModDescriptor", "Vector modify"},
        {"wBlockVectorPickerDescriptor", "Demux"},
        {"wBlockWireDeserializerDescriptor", "Deserializer"},
        {"wBlockWireSerializerDescriptor", "Serializer"},
        {"wBlockWireToPortDescriptor", "Wire to port"},
    };
    // Tests register classes of their own later; the library's come first.
    const auto listed = wSimulationBlockFactory::instance()->getKeysDescriptions();
    ASSERT_GE(listed.size(), expected.size());
    for (std::size_t i = 0; i < expected.size(); ++i) {
        EXPECT_EQ(listed[i], expected[i]) << "at position " << i;
        // Each key makes a descriptor that reports the same key.
        std::unique_ptr<wSimulationBlockDescriptor> d(wSimulationBlockFactory::instance()->generate(expected[i].first));
        EXPECT_EQ(d->getClassName(), expected[i].first);
    }
    for (std::size_t i = expected.size(); i < listed.size(); ++i)
        EXPECT_TRUE(listed[i].first.rfind("Test", 0) == 0 || listed[i].first.rfind("wCoreTest", 0) == 0)
            << "unexpected class " << listed[i].first << " at position " << i;
}

TEST(Registration, KeysSpellTemplateArgumentsAsInFiles) {
    auto* f = wSimulationBlockFactory::instance();
    EXPECT_EQ(std::unique_ptr<wSimulationBlockDescriptor>(f->generate("wBlockSummatorDescriptor<double>"))->getBlockTypeName(), "Sum (dbl)");
    for (const char* wrong : {"wBlockSummatorDescriptor<Math::Vector<3,double>>", "wBlockI2ODescriptor<int, double>"}) {
        try {
            f->generate(wrong);
            ADD_FAILURE() << wrong << " should not be found";
        } catch (const std::exception& e) {
            EXPECT_EQ(std::string(e.what()), std::string("Block ") + wrong + " not found");
        }
    }
}

}  // namespace
