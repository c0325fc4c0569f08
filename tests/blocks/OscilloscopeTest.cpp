// End-to-end tests of the oscilloscope (recording probe) through scheme files.
#include <gtest/gtest.h>

#include <cstdint>

#include "support/SchemeFiles.h"
#include "vandrel/blocks/Oscilloscope.h"

using testutil::kIO;
using testutil::Running;

namespace {

struct Input {
    const char* name;
    eLeadType type;
};
const Input kInputs[] = {{"u", LEAD_DOUBLE}, {"v", LEAD_VECTOR}, {"q", LEAD_QUATERNION},
                         {"b", LEAD_BOOL},   {"n", LEAD_INT},    {"id", LEAD_OBJECT_ID}};

// An oscilloscope "osc" recording one scheme input wire of every recordable type.
std::string scopeScheme(const std::string& dt, const std::string& capacity) {
    testutil::SchemeText s;
    std::string inputs = "inputs = { ";
    for (const Input& in : kInputs)
        inputs += "{ name = \"" + std::string(in.name) + "\", type = " + std::to_string(int(in.type)) + " }, ";
    inputs += "}";
    const int osc = s.block("osc", "wBlockOscilloscopeDescriptor",
                            "dt = { value = " + dt + " }, capacity = { value = " + capacity + " }", inputs);
    for (const Input& in : kInputs) {
        s.inputWire(in.name, in.type);
        s.wire(kIO, in.name, osc, in.name);
    }
    return s.text();
}

// Inputs for update k, all exact in a double.
void setInputs(wSimulationSystem& sys, int k) {
    sys.setInput<double>("u", 0.5 * k);
    sys.setInput<Vec3d>("v", Vec3d{double(k), -double(k), 100.0 + k});
    sys.setInput<Rot3d>("q", Rot3d{0.25 * k, 1, 2, -0.5 * k});
    sys.setInput<bool>("b", k % 2 == 1);
    sys.setInput<int>("n", -7 * k);
    sys.setInput<unsigned int>("id", 4000000000u + static_cast<unsigned>(k));
}

std::vector<double> expectedRow(int k, double t) {
    return {t, 0.5 * k, double(k), -double(k), 100.0 + k, 0.25 * k, 1, 2, -0.5 * k,
            k % 2 == 1 ? 1.0 : 0.0, -7.0 * k, 4000000000.0 + k};
}

std::vector<double> row(const wBlockOscilloscope& osc, int i) {
    const double* p = osc.sample(i);
    return std::vector<double>(p, p + osc.width());
}

TEST(Oscilloscope, RecordsEveryInputFlattenedAndKeepsTheLatestSamples) {
    Running r(scopeScheme("0.5", "4"));
    wSimulationSystem& sys = *r.system;
    auto* osc = dynamic_cast<wBlockOscilloscope*>(r.block("osc"));
    ASSERT_NE(osc, nullptr);
    EXPECT_EQ(osc->columnNames(), (zo::vector<zo::string>{"time", "u", "v.x", "v.y", "v.z", "q.x", "q.y", "q.z",
                                                            "q.w", "b", "n", "id"}));
    ASSERT_EQ(osc->width(), 12);
    EXPECT_EQ(osc->sampleCount(), 0);

    // Six samples at t = 0, 0.5, ... 2.5 into room for four.
    double T = 0.0;
    for (int k = 0; k < 6; ++k) {
        setInputs(sys, k);
        EXPECT_EQ(sys.simulate(T), 0.5);
        EXPECT_EQ(osc->sampleCount(), std::min(k + 1, 4));
        EXPECT_EQ(row(*osc, osc->sampleCount() - 1), expectedRow(k, T)) << "sample " << k;
        T += 0.5;
    }
    EXPECT_EQ(osc->dropped(), 2);
    for (int i = 0; i < 4; ++i) EXPECT_EQ(row(*osc, i), expectedRow(i + 2, 0.5 * (i + 2))) << "held " << i;
    std::vector<double> times;
    osc->forEach([&](const double* sample) { times.push_back(sample[0]); });
    EXPECT_EQ(times, (std::vector<double>{1.0, 1.5, 2.0, 2.5}));

    // Nothing saved, but the scheme stays saveable.
    EXPECT_EQ(sys.getSchemeStateDataSize(), 0);

    osc->clear();
    EXPECT_EQ(osc->sampleCount(), 0);
    EXPECT_EQ(osc->dropped(), 0);
    setInputs(sys, 9);
    sys.simulate(T);
    ASSERT_EQ(osc->sampleCount(), 1);
    EXPECT_EQ(row(*osc, 0), expectedRow(9, T));

    // A system reset starts a fresh recording.
    sys.reset();
    EXPECT_EQ(osc->sampleCount(), 0);
    sys.simulate(0.0);
    EXPECT_EQ(osc->sampleCount(), 1);
}

std::string createError(const std::string& text) {
    try {
        Running r(text);
    } catch (const Exception& e) {
        return e.what();
    }
    return "(no error)";
}

TEST(Oscilloscope, RefusesBadSettings) {
    EXPECT_EQ(createError(scopeScheme("0", "10")), "Oscilloscope osc: \"dt\" must be positive");
    EXPECT_EQ(createError(scopeScheme("-0.5", "10")), "Oscilloscope osc: \"dt\" must be positive");
    EXPECT_EQ(createError(scopeScheme("0/0", "10")), "Oscilloscope osc: \"dt\" must be positive");
    EXPECT_EQ(createError(scopeScheme("0.1", "0")), "Oscilloscope osc: \"capacity\" must be at least 1");
    // A sample of the six inputs is 12 doubles: 256 MiB hold 2796202 of them, not one more.
    EXPECT_EQ(createError(scopeScheme("0.1", "2796203")),
              "Oscilloscope osc: \"capacity\" of 2796203 samples of 12 columns needs more than 256 MiB");
    EXPECT_EQ(createError(scopeScheme("0.1", "2147483647")),
              "Oscilloscope osc: \"capacity\" of 2147483647 samples of 12 columns needs more than 256 MiB");

    // Object pointers cannot be recorded; names must differ.
    testutil::SchemeText s;
    s.block("osc", "wBlockOscilloscopeDescriptor", "dt = { value = 1 }, capacity = { value = 1 }",
            "inputs = { { name = \"p\", type = 5 } }");
    const std::string e = createError(s.text());
    EXPECT_NE(e.find("Oscilloscope osc: input p has type 5"), std::string::npos) << e;
    wBlockOscilloscopeDescriptor d;
    EXPECT_THROW(d.setInputs(wLeadList{{"a", LEAD_INT}, {"a", LEAD_BOOL}}), wSimulationException);
    EXPECT_EQ(d.getInputs(), (wLeadList{{"input1", LEAD_DOUBLE}}));
}

TEST(Oscilloscope, SaveReload) {
    auto scheme = testutil::saveAndReload(scopeScheme("0.25", "50"));
    EXPECT_EQ(testutil::parametersOf(*scheme, "osc"), "dt=0.25, capacity=50");
    auto* d = dynamic_cast<wBlockOscilloscopeDescriptor*>(scheme->getBlockByName("osc"));
    ASSERT_NE(d, nullptr);
    ASSERT_EQ(d->getInputs().size(), std::size(kInputs));
    for (std::size_t i = 0; i < std::size(kInputs); ++i)
        EXPECT_EQ(d->getInputs()[i], (wLeadDescription{kInputs[i].name, kInputs[i].type}));
    EXPECT_EQ(scheme->getConnections().size(), std::size(kInputs));
}

}  // namespace
