#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstring>

#include "core/LuaTestUtil.h"
#include "vandrel/core/LeadTypes.h"
#include "vandrel/core/Ports.h"
#include "vandrel/runtime/SimulationException.h"

namespace {

using testing::EndsWith;
using testing::HasSubstr;

TEST(LeadTypes, SlotSizesAndCreatedPorts) {
    // The slot sizes are part of the saved data-area layout.
    const int sizes[kLeadTypeCount] = {4, 1, 8, 24, 32, 1, 4};
    for (int t = 0; t < kLeadTypeCount; ++t) {
        const auto type = static_cast<eLeadType>(t);
        EXPECT_EQ(leadTypeSize(type), sizes[t]) << leadTypeNames[t];
        auto in = leadCreator(type).createInputPort();
        EXPECT_EQ(in->getType(), type);
        if (type != LEAD_OBJECT_PTR) {
            EXPECT_EQ(leadCreator(type).createOutputPort()->getType(), type);
        }
    }
    EXPECT_STREQ(leadTypeNames[LEAD_OBJECT_PTR], "object ptr");

    // A new quaternion port is all zeros, the fourth component included.
    auto quat = leadCreator(LEAD_QUATERNION).createInputPort();
    unsigned char bytes[32];
    std::memset(bytes, 0xAB, sizeof bytes);
    ASSERT_TRUE(quat->getValueToPtr(bytes));
    for (unsigned char b : bytes) EXPECT_EQ(b, 0);

    // Object pointers: an input of unknown object type that cannot be fanned out.
    auto obj = leadCreator(LEAD_OBJECT_PTR).createInputPort();
    EXPECT_NE(dynamic_cast<wInputPortObjPtrUnknown*>(obj.get()), nullptr);
    EXPECT_EQ(obj->createProxyPort(), nullptr);
}

TEST(LeadTypes, OutputPortArrays) {
    EXPECT_TRUE(wOutputPortArray(wLeadList{}).empty());

    // More leads than fit inline, every type but object pointers, in list order.
    wLeadList leads;
    const eLeadType types[] = {LEAD_INT, LEAD_BOOL, LEAD_DOUBLE, LEAD_VECTOR, LEAD_QUATERNION, LEAD_OBJECT_ID};
    for (int i = 0; i < 17; ++i) leads.push_back({"o" + std::to_string(i), types[i % 6]});
    wOutputPortArray ports(leads);
    ASSERT_EQ(ports.size(), 17u);
    for (std::size_t i = 0; i < 17; ++i) EXPECT_EQ(ports[i]->getType(), leads[i].type) << i;

    leads.push_back({"stream", LEAD_OBJECT_PTR});
    try {
        wOutputPortArray refused(leads);
        FAIL() << "object ptr output created";
    } catch (const wSimulationException& e) {
        EXPECT_STREQ(e.what(), "Cannot create output port of type wWireObjectPtrBase");
    }
}

TEST(LeadTypes, LeadListsInFiles) {
    wLeadList leads;
    for (int i = 0; i < 17; ++i) leads.push_back({"lead " + std::to_string(i), static_cast<eLeadType>(i % 7)});
    Lua::Loader out;
    out.createGlobalTable("t");
    saveLeadList(out, "leads", leads);
    saveLeadList(out, "none", {});
    auto in = coretest::reread(out, "t");
    EXPECT_EQ(loadLeadList(*in, "leads"), leads);
    EXPECT_TRUE(loadLeadList(*in, "none").empty());
    EXPECT_EQ(in->depth(), 0);

    // The type is checked against 0..6 and reported with the lead's name.
    for (const char* bad : {"t = { l = { { name = 'a', type = 2 }, { name = 'x', type = 7 } } }",
                            "t = { l = { { name = 'x', type = -1 } } }"}) {
        auto loader = coretest::loaderFor(bad, "t");
        try {
            loadLeadList(*loader, "l");
            FAIL() << bad;
        } catch (const wSimulationException& e) {
            EXPECT_THAT(e.what(), testing::MatchesRegex("Invalid lead type \\(x\\): -?[17]"));
        }
    }
    auto noName = coretest::loaderFor("t = { l = { { name = 'a', type = 2 }, { type = 2 } } }", "t");
    try {
        loadLeadList(*noName, "l");
        FAIL();
    } catch (const Lua::LoaderException& e) {
        EXPECT_THAT(e.what(), HasSubstr("l[2]"));
        EXPECT_THAT(e.what(), EndsWith("name failed to Lua::Loader::getString"));
    }
}

}  // namespace
