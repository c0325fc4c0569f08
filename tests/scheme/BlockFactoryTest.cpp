#include <gtest/gtest.h>

#include <functional>

#include "core/CoreTestBlocks.h"
#include "vandrel/runtime/SimulationException.h"
#include "vandrel/scheme/BlockFactory.h"

namespace {

zo::string errorOf(const std::function<void()>& f) {
    try {
        f();
    } catch (const wSimulationException& e) {
        return e.what();
    }
    return "no error";
}

TEST(BlockFactory, RegisterGenerateAndList) {
    EXPECT_EQ(wSimulationBlockFactory::instance(), wSimulationBlockFactory::instance());

    // A private factory, so that the library's own registrations stay untouched.
    wSimulationBlockFactory f;
    f.registerClass<coretest::ParamsDescriptor>("Params block");
    f.register_descriptor("wBlockI2ODescriptor<int CMA double>", &coretest::AndDescriptor::__create_instance, "conv");

    std::unique_ptr<wSimulationBlockDescriptor> d = f.generate("wCoreTestParamsDescriptor");
    EXPECT_NE(dynamic_cast<coretest::ParamsDescriptor*>(d.get()), nullptr);
    EXPECT_EQ(d->getClassName(), "wCoreTestParamsDescriptor");
    EXPECT_EQ(d->getBlockTypeName(), "Params");
    EXPECT_EQ(f.generate("wBlockI2ODescriptor<int CMA double>")->getBlockTypeName(), "AND");

    // Keys match exactly.
    EXPECT_EQ(errorOf([&] { f.generate("wBlockI2ODescriptor<int, double>"); }),
              "Block wBlockI2ODescriptor<int, double> not found");
    EXPECT_EQ(errorOf([&] { f.generate("wcoretestparamsdescriptor"); }),
              "Block wcoretestparamsdescriptor not found");

    // A second registration changes nothing.
    EXPECT_EQ(errorOf([&] { f.registerClass<coretest::ParamsDescriptor>("again"); }),
              "Duplicate simulation block: wCoreTestParamsDescriptor");
    EXPECT_EQ(errorOf([&] {
                  f.register_descriptor("wCoreTestParamsDescriptor", &coretest::AndDescriptor::__create_instance, "x");
              }),
              "Duplicate simulation block: wCoreTestParamsDescriptor");
    EXPECT_NE(dynamic_cast<coretest::ParamsDescriptor*>(f.generate("wCoreTestParamsDescriptor").get()), nullptr);

    // Registration order, not key order.
    using Pair = std::pair<zo::string, zo::string>;
    EXPECT_EQ(f.getKeysDescriptions(), (zo::vector<Pair>{{"wCoreTestParamsDescriptor", "Params block"},
                                                         {"wBlockI2ODescriptor<int CMA double>", "conv"}}));
}

}  // namespace
