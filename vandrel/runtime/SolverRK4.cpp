#include "vandrel/runtime/SolverRK4.h"

#include <algorithm>
#include <cmath>

#include "vandrel/runtime/SimulationException.h"
#include "vandrel/runtime/SimulationSystem.h"
#include "vandrel/runtime/SolverParameters.h"

// ---- Descriptor

const zo::string& wSolverRK4Descriptor::getTypeNameS() {
    static const zo::string name = "wSolverRK4Descriptor";
    return name;
}

void wSolverRK4Descriptor::load(Lua::Loader* loader) {
    wOdeSolverDescriptor::load(loader);
    requirePositiveFiniteParameter(*loader, "H", getH());
}

wOdeSolverDescriptor* wSolverRK4Descriptor::clone() const {
    return new wSolverRK4Descriptor(*this);
}

wOdeSolver* wSolverRK4Descriptor::createSolver(wSimulationSystem* system) const {
    return new wSolverRK4(this, system);
}

wParameterList wSolverRK4Descriptor::getParametersList() {
    wParameterList list = wOdeSolverDescriptor::getParametersList();
    list.push_back(parameterRef("H", H_));
    return list;
}

// ---- Solver

wSolverRK4::wSolverRK4(const wSolverRK4Descriptor* descriptor, wSimulationSystem* system)
    : wOdeSolver(descriptor, system), x_(static_cast<std::size_t>(std::max(0, system->getDiffStateSize())), 0.0) {
    // The stepper's stage buffers are sized here, so that advance allocates nothing.
    stepper_.adjust_size(x_);
}

double wSolverRK4::advance(double T, double h) {
    const double H = static_cast<const wSolverRK4Descriptor*>(descriptor_)->getH();
    const double L = h == 0.0 ? H : h;
    if (!(L > 0)) return L;
    if (!(H > 0 && std::isfinite(H)))
        throw wSimulationException("Runge-Kutta 4 step H must be positive to integrate over h = " + doubleToString(L) +
                                   " (H = " + doubleToString(H) + ")");

    // Equal steps of at most H cover the interval exactly, without a sliver of a last step.
    const double count = std::ceil(L / H * (1 - 1e-12));
    if (!(count < 1e12))
        throw wSimulationException("Runge-Kutta 4 step H = " + doubleToString(H) +
                                   " is too small to integrate over h = " + doubleToString(L));
    const long long n = std::max(1LL, static_cast<long long>(count));
    const double s = L / static_cast<double>(n);

    double* y = system_->getDiffState();
    std::copy(y, y + x_.size(), x_.begin());
    wSimulationSystem* sys = system_;
    auto rhs = [sys](const State& x, State& dxdt, double t) { sys->calcDiffRhs(t, x.data(), dxdt.data()); };
    try {
        for (long long k = 0; k < n; ++k) {
            // Times from the start, not accumulated, so that rounding does not drift.
            stepper_.do_step(rhs, x_, T + static_cast<double>(k) * s, s);
            ++steps_;
        }
    } catch (...) {
        // The stages wrote trial states into the system: leave it at the last step's.
        std::copy(x_.begin(), x_.end(), y);
        throw;
    }
    std::copy(x_.begin(), x_.end(), y);
    return L;
}

double wSolverRK4::advanceWithin(double T, double hmax) {
    const double H = static_cast<const wSolverRK4Descriptor*>(descriptor_)->getH();
    return hmax < H ? advance(T, hmax) : advance(T, 0.0);
}
