#include "vandrel/runtime/SolverDopri5.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <limits>
#include <utility>

#include "vandrel/runtime/SimulationException.h"
#include "vandrel/runtime/SimulationSystem.h"
#include "vandrel/runtime/Snapshot.h"

namespace odeint = boost::numeric::odeint;

// ---- Descriptor

const zo::string& wSolverDopri5Descriptor::getTypeNameS() {
    static const zo::string name = "wSolverDopri5Descriptor";
    return name;
}

wSolverDopri5Descriptor::wSolverDopri5Descriptor() { H0_.setRequired(false); }

void wSolverDopri5Descriptor::load(Lua::Loader* loader) {
    wTolerantSolverDescriptor::load(loader);
    requireNonNegativeFiniteParameter(*loader, "H0", getH0());
}

wOdeSolverDescriptor* wSolverDopri5Descriptor::clone() const {
    return new wSolverDopri5Descriptor(*this);
}

wOdeSolver* wSolverDopri5Descriptor::createSolver(wSimulationSystem* system) const {
    return new wSolverDopri5(this, system);
}

wParameterList wSolverDopri5Descriptor::getParametersList() {
    wParameterList list = wTolerantSolverDescriptor::getParametersList();
    list.push_back(parameterRef("H0", H0_));
    return list;
}

// ---- Solver

namespace {

// The error of each state is measured against atol + rtol * |y|: the derivative term of
// odeint's checker is left out, as in the usual formulation of the method.
wSolverDopri5::Controlled makeControlled(const wSolverDopri5Descriptor& d) {
    using Checker = wSolverDopri5::Controlled::error_checker_type;
    using Adjuster = wSolverDopri5::Controlled::step_adjuster_type;
    // The controller's limit leaves room for a last step that lands on an event a rounding
    // error beyond H; the solver keeps its own steps within H.
    return {Checker(d.getAtol(), d.getRtol(), 1.0, 0.0), Adjuster(d.getH() * (1 + 1e-7))};
}

}  // namespace

wSolverDopri5::wSolverDopri5(const wSolverDopri5Descriptor* descriptor, wSimulationSystem* system)
    : wOdeSolver(descriptor, system), controlled_(makeControlled(*descriptor)) {
    const auto n = static_cast<std::size_t>(std::max(0, system->getDiffStateSize()));
    x_.assign(n, 0.0);
    dxdt_.assign(n, 0.0);
    xNew_.assign(n, 0.0);
    dxdtNew_.assign(n, 0.0);
    // The stepper's stage buffers are sized here, so that advance allocates nothing.
    controlled_.adjust_size(x_);
}

void wSolverDopri5::restart() {
    dt_ = 0;
    fsal_ = false;
}

double wSolverDopri5::estimateFirstStep_(double T) {
    const wSolverDopri5Descriptor& d = *desc_();
    const double H = d.getH();
    if (d.getH0() > 0) return std::min(d.getH0(), H);
    const double rtol = d.getRtol(), atol = d.getAtol();
    const std::size_t n = x_.size();
    // Sizes of the state and of its derivative, each component against its tolerance.
    double d0 = 0, d1 = 0;
    for (std::size_t i = 0; i < n; ++i) {
        const double sc = atol + rtol * std::fabs(x_[i]);
        d0 = std::max(d0, std::fabs(x_[i]) / sc);
        d1 = std::max(d1, std::fabs(dxdt_[i]) / sc);
    }
    double h0 = (d0 < 1e-5 || d1 < 1e-5) ? 1e-6 : 0.01 * d0 / d1;
    h0 = std::min(h0, H);
    // One explicit Euler step tells how fast the derivative changes.
    for (std::size_t i = 0; i < n; ++i) xNew_[i] = x_[i] + h0 * dxdt_[i];
    system_->calcDiffRhs(T + h0, xNew_.data(), dxdtNew_.data());
    double d2 = 0;
    for (std::size_t i = 0; i < n; ++i) {
        const double sc = atol + rtol * std::fabs(x_[i]);
        d2 = std::max(d2, std::fabs(dxdtNew_[i] - dxdt_[i]) / sc);
    }
    d2 /= h0;
    const double dmax = std::max(d1, d2);
    const double h1 = dmax <= 1e-15 ? std::max(1e-6, h0 * 1e-3) : std::pow(0.01 / dmax, 1.0 / 5.0);
    const double h = std::min({100 * h0, h1, H});
    return std::isfinite(h) && h > 0 ? h : h0;
}

double wSolverDopri5::advance(double T, double h) {
    if (!(h >= 0)) return h;
    const double t = advance_(T, h, h > 0 ? T + h : std::numeric_limits<double>::infinity());
    return h > 0 ? h : t - T;
}

double wSolverDopri5::advanceWithin(double T, double hmax) {
    if (!(hmax > 0)) return advance(T, hmax);
    const double t = advance_(T, 0.0, T + hmax);
    return t >= T + hmax ? hmax : t - T;
}

double wSolverDopri5::advance_(double T, double h, double tEnd) {
    const double H = desc_()->getH();
    if (!(H > 0 && std::isfinite(H)))
        throw wSimulationException("Dormand-Prince largest step H must be positive (H = " + doubleToString(H) + ")");

    double* y = system_->getDiffState();
    const std::size_t n = x_.size();
    const std::size_t bytes = n * sizeof(double);
    // The derivative from the end of the last step still holds when neither the time, the
    // state nor the inputs (restart) changed since.
    // (The host's next time is the sum of its last time and the returned interval, which
    // may differ from the end of the step in the last bit.)
    const bool sameTime = std::fabs(T - tEnd_) <= 1e-12 * std::max(1.0, std::fabs(T));
    const bool reuse = fsal_ && sameTime && std::memcmp(y, x_.data(), bytes) == 0;
    fsal_ = false;
    std::memcpy(x_.data(), y, bytes);
    const bool toEnd = h > 0;
    double t = T;
    try {
        if (!reuse) system_->calcDiffRhs(T, x_.data(), dxdt_.data());
        if (!(dt_ > 0)) dt_ = estimateFirstStep_(T);
        dt_ = std::min(dt_, H);
        t = step_(T, !toEnd, tEnd);
    } catch (...) {
        // The stages wrote trial states into the system: leave it at the last step's.
        std::memcpy(y, x_.data(), bytes);
        dt_ = 0;  // the step size that failed is no guide for the next call
        throw;
    }
    std::memcpy(y, x_.data(), bytes);
    fsal_ = true;
    tEnd_ = t;
    return t;
}

double wSolverDopri5::step_(double T, bool oneStep, double tEnd) {
    double t = T;
    int refused = 0;  // in a row
    for (;;) {
        double dt = dt_;
        // The last step of an interval lands on its end exactly.
        const bool last = dt * (1 + 1e-8) >= tEnd - t;
        if (last) dt = tEnd - t;
        double tt = t;
        const double tried = dt;
        bool accepted =
            controlled_.try_step(
                [this](const State& x, State& dxdt, double at) { system_->calcDiffRhs(at, x.data(), dxdt.data()); },
                x_, dxdt_, tt, xNew_, dxdtNew_, dt) == odeint::success;
        // A step to a state that is not finite has no error estimate worth the name.
        if (accepted && !std::all_of(xNew_.begin(), xNew_.end(), [](double v) { return std::isfinite(v); })) {
            accepted = false;
            dt = tried / 4;
        }
        if (accepted) {
            refused = 0;
            std::swap(x_, xNew_);
            std::swap(dxdt_, dxdtNew_);
            ++steps_;
            // A step cut short for the interval's end says little about the size to use next.
            if (!last || dt > dt_) dt_ = dt;
            if (last) {
                t = tEnd;
                break;
            }
            t = tt;
            if (oneStep) break;
            continue;
        }
        ++rejected_;
        dt_ = dt;
        if (!(dt_ > 16 * std::numeric_limits<double>::epsilon() * std::max(1.0, std::fabs(t))) || ++refused > 1000)
            throw wSimulationException("Dormand-Prince step size fell to " + doubleToString(dt_) + " at t = " +
                                       doubleToString(t) +
                                       ": the derivatives may not be finite there, or the tolerances are too tight");
    }
    return t;
}

void wSolverDopri5::saveSnapshot(wSnapshotWriter& out) const {
    wOdeSolver::saveSnapshot(out);
    out.put(static_cast<std::uint32_t>(x_.size()));
    out.putBytes(x_.data(), x_.size() * sizeof(double));
    out.putBytes(dxdt_.data(), dxdt_.size() * sizeof(double));
    out.put(dt_);
    out.putFlag(fsal_);
    out.put(tEnd_);
    out.put(static_cast<std::int64_t>(rejected_));
}

void wSolverDopri5::restoreSnapshot(wSnapshotReader& in) {
    wOdeSolver::restoreSnapshot(in);
    const std::size_t n = in.getCount(2 * sizeof(double), "Dormand-Prince state size");
    if (n != x_.size())
        in.fail("the Dormand-Prince state holds " + std::to_string(n) + " values, this scheme has " +
                std::to_string(x_.size()));
    const unsigned char* x = in.getBytes(n * sizeof(double), "Dormand-Prince state");
    const unsigned char* dxdt = in.getBytes(n * sizeof(double), "Dormand-Prince derivative");
    const double dt = in.getFinite("Dormand-Prince step size");
    if (dt < 0) in.fail("the Dormand-Prince step size is negative (" + doubleToString(dt) + ")");
    const bool fsal = in.getFlag("Dormand-Prince derivative flag");
    const double tEnd = in.getFinite("Dormand-Prince end time");
    const auto rejected = in.get<std::int64_t>("Dormand-Prince rejected steps");
    std::memcpy(x_.data(), x, n * sizeof(double));
    std::memcpy(dxdt_.data(), dxdt, n * sizeof(double));
    dt_ = dt;
    fsal_ = fsal;
    tEnd_ = tEnd;
    rejected_ = rejected;
}
