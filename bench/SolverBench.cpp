// Solver benchmarks: the cost of one step of each solver kind on the lags scheme, and the
// derivative evaluations each kind needs for a given accuracy on a smooth problem whose
// pace changes a lot along the way (an eccentric Kepler orbit).
#include <benchmark/benchmark.h>

#include <cmath>
#include <memory>
#include <numbers>
#include <string>

#include "SchemeGen.h"
#include "vandrel/vandrel.h"

namespace {

// ---- Per step on the lags scheme

// The lags scheme of N lags with the given solver table in place of explicit Euler's.
std::string lagsWith(int n, const std::string& solverTable) {
    std::string text = bench::lagsScheme(n, 1e-3);
    const std::size_t from = text.find("  solver = {");
    const std::size_t to = text.find('\n', from);
    return text.replace(from, to - from, "  solver = { " + solverTable + " },");
}

// One simulate call per iteration; each is one step of the solver (H = 1e-3, no events).
void BM_SolverLags(benchmark::State& state, const char* solverTable) {
    const int n = static_cast<int>(state.range(0));
    const std::string file = bench::writeTemp("vandrel-bench-solver-lags.lua", lagsWith(n, solverTable));
    wSimulationSystemScheme scheme;
    scheme.loadForRuntime(file);
    std::unique_ptr<wSimulationSystem> system(scheme.instantiate());
    double t = 0;
    t += system->simulate(t);
    const long long steps0 = system->getSolver()->getStepCount();
    const long long rhs0 = system->getRhsEvaluationCount();
    for (auto _ : state) t += system->simulate(t);
    benchmark::DoNotOptimize(system->getOutput<double>("x0"));
    const double steps = static_cast<double>(system->getSolver()->getStepCount() - steps0);
    state.counters["ns_per_step"] = benchmark::Counter(steps, benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
    state.counters["rhs_per_step"] = static_cast<double>(system->getRhsEvaluationCount() - rhs0) / steps;
}
BENCHMARK_CAPTURE(BM_SolverLags, euler, "__type = \"wSolverExplEulerDescriptor\", H = 0.001")->Arg(100)->Arg(1000);
BENCHMARK_CAPTURE(BM_SolverLags, rk4, "__type = \"wSolverRK4Descriptor\", H = 0.001")->Arg(100)->Arg(1000);
BENCHMARK_CAPTURE(BM_SolverLags, dopri5, "__type = \"wSolverDopri5Descriptor\", H = 0.001")->Arg(100)->Arg(1000);
BENCHMARK_CAPTURE(BM_SolverLags, cvode, "__type = \"wSolverCvodeDescriptor\", H = 0.001")->Arg(100);

// ---- Evaluations for an accuracy on a Kepler orbit

// a = -r / |r|^3: the pull of a unit mass at the origin.
class GravityDescriptor : public wDescriptorImpl<GravityDescriptor, wSimulationBlockStatelessDescriptor> {
public:
    static const zo::string& getBlockClassNameS() {
        static const zo::string s = "BenchGravity";
        return s;
    }
    static const zo::string& getBlockTypeNameS() { return getBlockClassNameS(); }
    wSimulationBlockStateless* create(Lua::Loader*) const override;

protected:
    const wLeadList& getInputWires_() const override {
        static const wLeadList l{{"r", LEAD_VECTOR}};
        return l;
    }
    const wLeadList& getOutputWires_() const override {
        static const wLeadList l{{"a", LEAD_VECTOR}};
        return l;
    }
};

class Gravity : public wSimulationBlockStateless {
public:
    explicit Gravity(const GravityDescriptor* d)
        : wSimulationBlockStateless(d), in_(d->getInputWireOffset(0)), out_(d->getOutputWireOffset(0)) {}
    void update(double, unsigned char* data) override {
        const Vec3d r = readWire<Vec3d>(data, in_);
        const double d = r.norm();
        writeWire<Vec3d>(data, out_, r * (-1.0 / (d * d * d)));
    }

private:
    int in_, out_;
};

wSimulationBlockStateless* GravityDescriptor::create(Lua::Loader*) const {
    return new Gravity(this);
}

// Due every `period` seconds: makes each simulate call integrate exactly one orbit.
class OrbitMarkDescriptor : public wDescriptorImpl<OrbitMarkDescriptor, wSimulationBlockDiscDescriptor> {
public:
    static const zo::string& getBlockClassNameS() {
        static const zo::string s = "BenchOrbitMark";
        return s;
    }
    static const zo::string& getBlockTypeNameS() { return getBlockClassNameS(); }
    wSimulationBlockDisc* create(Lua::Loader*, wSimulationSystem* s) const override;
    double period = 2 * std::numbers::pi;
};

class OrbitMark : public wSimulationBlockDisc {
public:
    OrbitMark(const OrbitMarkDescriptor* d, wSimulationSystem* s) : wSimulationBlockDisc(d, s), period_(d->period) {}
    double step(double) override { return period_; }

private:
    double period_;
};

wSimulationBlockDisc* OrbitMarkDescriptor::create(Lua::Loader*, wSimulationSystem* s) const {
    return new OrbitMark(this, s);
}

constexpr double kEccentricity = 0.8;

struct OrbitResult {
    double error;          // |y(P) - y(0)| / |y(0)| over position and velocity
    long long rhs, steps;  // derivative evaluations and steps for the orbit
};

// One orbit of eccentricity 0.8 (period 2 pi) from perihelion, with the given solver.
OrbitResult orbit(std::unique_ptr<wOdeSolverDescriptor> solver) {
    wSimulationSystemScheme scheme;
    auto named = [&scheme](auto block, const char* name) {
        block->setName(name);
        return scheme.addBlock(std::move(block));
    };
    auto* g = named(std::make_unique<GravityDescriptor>(), "g");
    auto* vel = named(std::make_unique<wBlockIntegratorDescriptor<Vec3d>>(), "v");
    auto* pos = named(std::make_unique<wBlockIntegratorDescriptor<Vec3d>>(), "x");
    named(std::make_unique<OrbitMarkDescriptor>(), "mark");
    scheme.addIOLead(false, false, "zero", LEAD_VECTOR);
    scheme.addConnection({pos, g, "output", "r", false});
    scheme.addConnection({g, vel, "a", "input", false});
    scheme.addConnection({vel, pos, "output", "input", false});
    scheme.addConnection({&scheme.getIOBlock(), vel, "zero", "output.initial", false});
    scheme.addConnection({&scheme.getIOBlock(), pos, "zero", "output.initial", false});
    scheme.setOdeSolverDescriptor(std::move(solver));
    scheme.analyse();
    std::unique_ptr<wSimulationSystem> system(scheme.instantiate());

    const double e = kEccentricity;
    const Vec3d r0{1 - e, 0, 0}, v0{0, std::sqrt((1 + e) / (1 - e)), 0};
    writeWire<Vec3d>(system->getDataPtr(), pos->getOutputWireOffset(0), r0);
    writeWire<Vec3d>(system->getDataPtr(), vel->getOutputWireOffset(0), v0);
    system->simulate(0.0);
    const Vec3d r = readWire<Vec3d>(system->getDataPtr(), pos->getOutputWireOffset(0));
    const Vec3d w = readWire<Vec3d>(system->getDataPtr(), vel->getOutputWireOffset(0));
    const Vec3d dr = r - r0, dv = w - v0;
    const double error = std::sqrt((dr.dot(dr) + dv.dot(dv)) / (r0.dot(r0) + v0.dot(v0)));
    return {error, system->getRhsEvaluationCount(), system->getSolver()->getStepCount()};
}

constexpr double kTarget = 1e-8;

// The cheapest setting reaching the target error: a geometric search over the step (or
// the tolerance) between a setting that misses it and one that reaches it.
template <class Make>
OrbitResult cheapest(Make make, double loose, double* setting) {
    double fail = loose, pass = loose;
    OrbitResult best = orbit(make(pass));
    while (best.error > kTarget) {
        fail = pass;
        pass /= 4;
        best = orbit(make(pass));
    }
    *setting = pass;
    if (fail == pass) return best;
    for (int i = 0; i < 12; ++i) {
        const double mid = std::sqrt(fail * pass);
        const OrbitResult r = orbit(make(mid));
        if (r.error <= kTarget) {
            pass = mid;
            best = r;
        } else {
            fail = mid;
        }
    }
    *setting = pass;
    return best;
}

void report(benchmark::State& state, const OrbitResult& r, double setting) {
    state.counters["rhs_evals"] = static_cast<double>(r.rhs);
    state.counters["steps"] = static_cast<double>(r.steps);
    state.counters["error"] = r.error;
    state.counters["setting"] = setting;
}

void BM_OrbitRK4(benchmark::State& state) {
    for (auto _ : state) {
        double H = 0;
        const OrbitResult r = cheapest(
            [](double h) {
                auto d = std::make_unique<wSolverRK4Descriptor>();
                d->setH(h);
                return d;
            },
            0.05, &H);
        report(state, r, H);
    }
}
BENCHMARK(BM_OrbitRK4)->Iterations(1)->Unit(benchmark::kMillisecond);

template <class D>
void orbitAdaptive(benchmark::State& state) {
    for (auto _ : state) {
        double tol = 0;
        const OrbitResult r = cheapest(
            [](double t) {
                auto d = std::make_unique<D>();
                d->setH(1.0);
                d->setRtol(t);
                d->setAtol(t);
                return d;
            },
            1e-6, &tol);
        report(state, r, tol);
    }
}
void BM_OrbitDopri5(benchmark::State& state) { orbitAdaptive<wSolverDopri5Descriptor>(state); }
void BM_OrbitCvode(benchmark::State& state) { orbitAdaptive<wSolverCvodeDescriptor>(state); }
BENCHMARK(BM_OrbitDopri5)->Iterations(1)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_OrbitCvode)->Iterations(1)->Unit(benchmark::kMillisecond);

}  // namespace
