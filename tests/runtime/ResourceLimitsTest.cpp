// What a scheme file may make the host allocate: refused at load, with the file and the
// block, before anything is allocated; hosts can move the limits.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

#include "support/SchemeFiles.h"
#include "vandrel/runtime/ResourceLimits.h"
#include "vandrel/runtime/SimulationException.h"

using ::testing::AllOf;
using ::testing::HasSubstr;
using ::testing::StartsWith;

namespace {

// Puts the process-wide limits back when a test ends.
struct LimitsGuard {
    wResourceLimits saved = getResourceLimits();
    ~LimitsGuard() { setResourceLimits(saved); }
};

// A scheme with one Oscilloscope recording one double every 0.1 s into `capacity` samples.
std::string scopeScheme(const std::string& capacity) {
    testutil::SchemeText s;
    s.block("other", "wBlockDelayTriggerWireDescriptor", "dt = { value = 1 }, delay_par = { value = 0 }");
    const int scope = s.block("scope", "wBlockOscilloscopeDescriptor",
                              "dt = { value = 0.1 }, capacity = { value = " + capacity + " }");
    s.inputWire("u", LEAD_DOUBLE);
    s.wire(testutil::kIO, "u", scope, "input1");
    return testutil::writeFile(testutil::freshDir() / "scope.lua", s.text());
}

std::string loadError(const std::string& file) {
    wSimulationSystemScheme scheme;
    return testutil::messageOf<wSimulationException>([&] { scheme.loadForRuntime(file); });
}

}  // namespace

TEST(ResourceLimits, ABlockAskingForTooMuchIsRefusedAtLoadWithFileAndPlace) {
    LimitsGuard guard;
    // 2e9 samples of two doubles: about 30 GiB, which once ended in std::bad_alloc.
    const std::string file = scopeScheme("2000000000");
    EXPECT_EQ(loadError(file), "Error while loading " + file +
                                   ": simulation_scheme.blocks[2]: block scope (Oscilloscope) would allocate 29.8 GiB"
                                   " at run time, more than the 256 MiB a block may (a host can raise the limit:"
                                   " setResourceLimits, or vandrel run --max-block-mib / --max-scheme-mib)");

    // Just within the default: 16 Mi samples of 16 bytes are 256 MiB exactly.
    EXPECT_NO_THROW({
        wSimulationSystemScheme scheme;
        scheme.loadForRuntime(scopeScheme("16777216"));
    });
    EXPECT_THAT(loadError(scopeScheme("16777217")), HasSubstr("more than the 256 MiB a block may"));
}

TEST(ResourceLimits, HostsSetTheLimitsForBlocksAndForTheWholeScheme) {
    LimitsGuard guard;
    const std::string file = scopeScheme("1000");  // 16000 bytes of samples
    setResourceLimits({15999, 1u << 30});
    EXPECT_THAT(loadError(file), HasSubstr("would allocate 15.62 KiB at run time, more than the 15.62 KiB a block may"));

    // Per block it fits; the data area (8 bytes for u, one flag) and the samples do not.
    setResourceLimits({1u << 20, 16000});
    EXPECT_THAT(loadError(file), AllOf(StartsWith("Error while loading " + file + ": the scheme would allocate "),
                                       HasSubstr("(data area 9 B, blocks 15.62 KiB), more than the 15.62 KiB a "
                                                 "scheme may")));

    setResourceLimits({1u << 20, 1u << 20});
    wSimulationSystemScheme scheme;
    scheme.loadForRuntime(file);
    EXPECT_NE(std::unique_ptr<wSimulationSystem>(scheme.instantiate()), nullptr);
    EXPECT_EQ(getResourceLimits().maxBlockBytes, 1u << 20);
}

TEST(ResourceLimits, BadOscilloscopeSettingsNameTheFile) {
    // Checked while the file is read rather than when the system is built.
    for (const char* capacity : {"0", "-5"})
        EXPECT_EQ(loadError(scopeScheme(capacity)).find("Error while loading "), 0u) << capacity;
    EXPECT_THAT(loadError(scopeScheme("0")), HasSubstr(": Oscilloscope scope: \"capacity\" must be at least 1"));
}

TEST(ResourceLimits, ByteCountsReadForPeople) {
    EXPECT_EQ(describeBytes(0), "0 B");
    EXPECT_EQ(describeBytes(1023), "1023 B");
    EXPECT_EQ(describeBytes(1536), "1.5 KiB");
    EXPECT_EQ(describeBytes(std::uint64_t{256} << 20), "256 MiB");
    EXPECT_EQ(describeBytes(UINT64_MAX), "16 EiB");
}
