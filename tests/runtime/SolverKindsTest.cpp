// The solver kinds beside explicit Euler: their registration, their tables in scheme
// files, the values they refuse, and how they fail.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <string>
#include <vector>

#include "runtime/RuntimeTestUtil.h"
#include "runtime/SolverTestUtil.h"
#include "support/SchemeFiles.h"
#include "vandrel/platform/LuaLoader.h"

using ::testing::HasSubstr;
using testutil::kIO;

namespace {

// x' = u from a scheme input wire, x read back as output "x"; its initial value from "x0".
std::string integratorScheme(const std::string& solverBody) {
    testutil::SchemeText s;
    const int i = s.block("i", "wBlockIntegratorDescriptor<double>");
    s.inputWire("u", LEAD_DOUBLE, i, "input");
    s.inputWire("x0", LEAD_DOUBLE, i, "output.initial");
    s.outputWire(i, "output", "x", LEAD_DOUBLE);
    s.solver(solverBody);
    return s.text();
}

}  // namespace

TEST(SolverKinds, AreRegisteredAfterExplicitEulerInThisOrder) {
    using Pair = std::pair<zo::string, zo::string>;
    const std::vector<Pair> expected = {
        {"wSolverExplEulerDescriptor", "Explicit Euler"},
        {"wSolverRK4Descriptor", "Runge-Kutta 4"},
        {"wSolverDopri5Descriptor", "Dormand-Prince 4(5), adaptive"},
        {"wSolverCvodeDescriptor", "CVODE BDF, stiff"},
    };
    const auto listed = wOdeSolversFactory::instance()->getKeysDescriptions();
    ASSERT_GE(listed.size(), expected.size());
    for (std::size_t i = 0; i < expected.size(); ++i) EXPECT_EQ(listed[i], expected[i]) << i;
    for (const auto& k : solvers::kinds())
        EXPECT_EQ(std::unique_ptr<wOdeSolverDescriptor>(wOdeSolversFactory::instance()->generate(k.typeName))->getTypeName(), k.typeName);
}

TEST(SolverKinds, TablesRoundTripThroughSchemeFilesWithDefaultsFilledIn) {
    struct Case {
        std::string table;       // as written by hand
        std::string parameters;  // after a save and a reload
    };
    const std::vector<Case> cases = {
        {"__type = \"wSolverRK4Descriptor\", H = 0.02", "H=0.02"},
        {"__type = \"wSolverDopri5Descriptor\", H = 0.5", "H=0.5 rtol=1e-06 atol=1e-09 H0=0"},
        {"__type = \"wSolverDopri5Descriptor\", H = 0.5, rtol = 1e-4, atol = 1e-7, H0 = 0.001",
         "H=0.5 rtol=1e-04 atol=1e-07 H0=0.001"},
        {"__type = \"wSolverCvodeDescriptor\", H = 10", "H=10 rtol=1e-06 atol=1e-09"},
        {"__type = \"wSolverCvodeDescriptor\", H = 1, atol = 1e-3", "H=1 rtol=1e-06 atol=0.001"},
    };
    auto listOf = [](wOdeSolverDescriptor& d) {
        std::string text;
        for (const auto& p : d.getParametersList())
            text += (text.empty() ? "" : " ") + std::string(p.getName()) + "=" + std::string(p.getProxy()->toString());
        return text;
    };
    for (const Case& c : cases) {
        std::string saved;
        auto scheme = testutil::saveAndReload(integratorScheme(c.table), &saved);
        wOdeSolverDescriptor* d = scheme->getOdeSolverDescriptor();
        ASSERT_NE(d, nullptr);
        EXPECT_EQ(listOf(*d), c.parameters) << c.table;
        // Every value is written out, defaults included, so the file says what runs.
        for (const auto& p : d->getParametersList()) EXPECT_THAT(saved, HasSubstr(std::string(p.getName()) + " = "));
        // The copy of a scheme keeps the kind and the values.
        std::unique_ptr<wOdeSolverDescriptor> copy(d->clone());
        EXPECT_EQ(copy->getTypeName(), d->getTypeName());
        EXPECT_EQ(listOf(*copy), c.parameters);
    }
}

TEST(SolverKinds, UnusableStepsAndTolerancesAreRefusedWithTheirPlace) {
    struct Case {
        std::string table;
        std::string message;  // after "Error while loading <file>: "
    };
    const std::string rk4 = "__type = \"wSolverRK4Descriptor\", ";
    const std::string dopri = "__type = \"wSolverDopri5Descriptor\", ";
    const std::string cvode = "__type = \"wSolverCvodeDescriptor\", ";
    const std::vector<Case> cases = {
        {rk4 + "H = 0", "Solver parameter simulation_scheme.solver.H must be a finite number greater than 0, got 0"},
        {rk4 + "H = -0.1", "Solver parameter simulation_scheme.solver.H must be a finite number greater than 0, got -0.1"},
        {rk4 + "H = 1/0", "Solver parameter simulation_scheme.solver.H must be a finite number greater than 0, got inf"},
        {dopri + "H = 0/0", "Solver parameter simulation_scheme.solver.H must be a finite number greater than 0, got "},
        {dopri + "H = 1, rtol = 0", "Solver parameter simulation_scheme.solver.rtol must be a finite number greater than 0, got 0"},
        {dopri + "H = 1, atol = -1e-9",
         "Solver parameter simulation_scheme.solver.atol must be a finite number greater than 0, got -1e-09"},
        {dopri + "H = 1, H0 = -1", "Solver parameter simulation_scheme.solver.H0 must be a finite number of at least 0, got -1"},
        {cvode + "H = -1/0", "Solver parameter simulation_scheme.solver.H must be a finite number greater than 0, got -inf"},
        {cvode + "H = 1, rtol = 1/0",
         "Solver parameter simulation_scheme.solver.rtol must be a finite number greater than 0, got inf"},
    };
    for (const Case& c : cases) {
        const std::string message =
            testutil::messageOf<wSimulationException>([&] { testutil::Running r(integratorScheme(c.table)); });
        EXPECT_THAT(message, HasSubstr("Error while loading ")) << c.table;
        EXPECT_THAT(message, HasSubstr(c.message)) << c.table;
    }
    // The largest step has no default: a table without it names the missing entry.
    EXPECT_THAT(testutil::messageOf(
                    [&] { testutil::Running r(integratorScheme("__type = \"wSolverCvodeDescriptor\", rtol = 1e-6")); }),
                HasSubstr("simulation_scheme.solver.H is missing: a number is expected here"));
}

namespace {

// Once armed, throws from its derivative when its state passes 1: a block failing in the
// middle of a step.
bool failNow = false;

class FailingIntegratorDescriptor
    : public wDescriptorImpl<FailingIntegratorDescriptor, wDiffDescriptorBase<FailingIntegratorDescriptor>> {
public:
    static const zo::string& getBlockClassNameS() {
        static const zo::string s = "SkFailingIntegrator";
        return s;
    }
    static const zo::string& getBlockTypeNameS() { return getBlockClassNameS(); }
    wSimulationBlockDiff* create(Lua::Loader*) const override;

protected:
    const wLeadList& getInputWires_() const override {
        static const wLeadList l{{"in", LEAD_DOUBLE}};
        return l;
    }
    const wLeadList& getOutputWires_() const override {
        static const wLeadList l{{"x", LEAD_DOUBLE}};
        return l;
    }
};

class FailingIntegrator : public wSimulationBlockDiff {
public:
    explicit FailingIntegrator(const FailingIntegratorDescriptor* d) : wSimulationBlockDiff(d), d_(d) {}
    void calculate_dy(double t, unsigned char* data, unsigned char* dy) override {
        if (failNow && readWire<double>(data, d_->getOutputWireOffset(0)) > 1.0)
            throw wSimulationException("derivative failed at x > 1 (t = " + doubleToString(t) + ")");
        writeWire<double>(dy, d_->getOutputWireOffset(0), readWire<double>(data, d_->getInputWireOffset(0)));
    }

private:
    const FailingIntegratorDescriptor* d_;
};

wSimulationBlockDiff* FailingIntegratorDescriptor::create(Lua::Loader*) const {
    return new FailingIntegrator(this);
}

class SolverFailures : public ::testing::TestWithParam<solvers::Kind> {};

}  // namespace

INSTANTIATE_TEST_SUITE_P(AllKinds, SolverFailures, ::testing::ValuesIn(solvers::kinds()), solvers::kindName);

TEST_P(SolverFailures, ABlockThrowingMidStepLeavesAnAcceptedStateAndTheSolverUsable) {
    rt::Builder b;
    auto* i = b.add<FailingIntegratorDescriptor>("i");
    auto* s = b.add<testblocks::SamplerDescriptor>("s");
    s->dt.set(1.0);
    b.scheme.setOdeSolverDescriptor(solvers::make(GetParam(), 0.1));
    b.inputWire("u");
    b.wire(b.io(), "u", i, "in");
    b.wire(b.io(), "u", i, "x.initial");
    b.wire(i, "x", s, "in");
    auto sys = b.run();
    sys->setInput<double>("u", 2.0);

    failNow = true;
    EXPECT_THAT(testutil::messageOf<wSimulationException>([&] { sys->simulate(0.0); }),
                HasSubstr("derivative failed at x > 1"));
    failNow = false;
    // The state left is one the solver accepted, not a trial state of a stage: for the
    // fixed-step kinds a whole number of steps of 0.1 s, x = 0.2 k.
    const double x = sys->getDiffState()[0];
    EXPECT_GE(x, 0.0);
    EXPECT_LE(x, 1.2 + 1e-9);
    if (GetParam().order > 0) {
        EXPECT_NEAR(x / 0.2, std::round(x / 0.2), 1e-9) << x;
    }

    // Started over, the same system runs normally.
    sys->reset();
    double T = 0;
    while (T < 2.0 - 1e-12) T += sys->simulate(T);
    EXPECT_NEAR(sys->getDiffState()[0], 4.0, 1e-9);
}

TEST(SolverKinds, AdaptiveKindsReportDerivativesThatAreNotFinite) {
    for (const char* type : {"wSolverDopri5Descriptor", "wSolverCvodeDescriptor"}) {
        testutil::Running r(integratorScheme(std::string("__type = \"") + type + "\", H = 0.1"));
        r.system->setInput<double>("u", std::numeric_limits<double>::quiet_NaN());
        const std::string message = testutil::messageOf<wSimulationException>([&] { r.system->simulate(0.0); });
        EXPECT_THAT(message, HasSubstr("at t = 0")) << type;
        EXPECT_EQ(r.system->getDiffState()[0], 0.0) << type;
        // With a finite input again it goes on from where it was.
        r.system->setInput<double>("u", 1.0);
        double T = 0;
        while (T < 1.0 - 1e-12) T += r.system->simulate(T);
        EXPECT_NEAR(r.system->getOutput<double>("x"), T, 1e-9) << type;
    }
}

TEST(SolverKinds, CvodeRestartsOnlyWhenWhatTheDerivativesReadChanges) {
    testutil::Running r(integratorScheme("__type = \"wSolverCvodeDescriptor\", H = 0.1, rtol = 1e-8, atol = 1e-10"));
    auto* cvode = dynamic_cast<wSolverCvode*>(r.system->getSolver());
    ASSERT_NE(cvode, nullptr);
    r.system->setInput<double>("u", 1.0);
    double T = 0;
    for (int k = 0; k < 20; ++k) T += r.system->simulate(T);
    EXPECT_EQ(cvode->getRestartCount(), 1);
    // The host writing the same value changes nothing; a new value is a jump.
    r.system->setInput<double>("u", 1.0);
    T += r.system->simulate(T);
    EXPECT_EQ(cvode->getRestartCount(), 1);
    r.system->setInput<double>("u", -1.0);
    const double before = r.system->getOutput<double>("x");
    const double step = r.system->simulate(T);
    EXPECT_EQ(cvode->getRestartCount(), 2);
    EXPECT_NEAR(r.system->getOutput<double>("x"), before - step, 1e-9);
    T += step;
    // So is a host writing the state itself.
    r.system->getDiffState()[0] = 100.0;
    const double step2 = r.system->simulate(T);
    EXPECT_EQ(cvode->getRestartCount(), 3);
    EXPECT_NEAR(r.system->getOutput<double>("x"), 100.0 - step2, 1e-9);
    EXPECT_GT(cvode->getJacobianCount(), 0);
}

TEST(SolverKinds, Dopri5LandsOnEventsThatEndARoundingErrorBeyondItsLargestStep) {
    // A constant derivative lets the steps grow to H = 0.1; events every 0.3 s then end
    // intervals like 0.30000000000000004, whose last step is a hair longer than H.
    rt::Builder b;
    auto* i = b.add<testblocks::IntegratorDescriptor>("i");
    auto* s = b.add<testblocks::SamplerDescriptor>("s");
    s->dt.set(0.3);
    b.scheme.setOdeSolverDescriptor(solvers::make(solvers::kinds()[2], 0.1, 1e-6, 1e-9));
    b.inputWire("c");
    b.wire(b.io(), "c", i, "in");
    b.wire(b.io(), "c", i, "x.initial");
    b.wire(i, "x", s, "in");
    auto sys = b.run();
    sys->setInput<double>("c", 1.0);
    double T = 0;
    for (int k = 0; k < 100; ++k) T += sys->simulate(T);
    EXPECT_NEAR(T, 30.0, 1e-9);
    EXPECT_NEAR(sys->getDiffState()[0], T, 1e-9);
    // Three steps per interval once the step has grown to H.
    EXPECT_LT(sys->getSolver()->getStepCount(), 3 * 100 + 20);
}
