#include "vandrel/runtime/SolverExplEuler.h"

#include <algorithm>
#include <cmath>

#include "vandrel/runtime/SimulationException.h"
#include "vandrel/runtime/SimulationSystem.h"

// ---- Descriptor

const zo::string& wSolverExplEulerDescriptor::getTypeNameS() {
    static const zo::string name = "wSolverExplEulerDescriptor";
    return name;
}

wOdeSolverDescriptor* wSolverExplEulerDescriptor::clone() const {
    return new wSolverExplEulerDescriptor(*this);
}

wOdeSolver* wSolverExplEulerDescriptor::createSolver(wSimulationSystem* system) const {
    return new wSolverExplEuler(this, system);
}

wParameterList wSolverExplEulerDescriptor::getParametersList() {
    wParameterList list = wOdeSolverDescriptor::getParametersList();
    list.push_back(parameterRef("H", H_));
    return list;
}

void wSolverExplEulerDescriptor::validate(const zo::string& where) const { requirePositiveFiniteStep(getH(), where + ".H"); }

// ---- Solver

wSolverExplEuler::wSolverExplEuler(const wSolverExplEulerDescriptor* descriptor, wSimulationSystem* system)
    : wOdeSolver(descriptor, system), rhs_(static_cast<std::size_t>(std::max(0, system->getDiffStateSize())), 0.0) {}

double wSolverExplEuler::advance(double T, double h) {
    const double H = static_cast<const wSolverExplEulerDescriptor*>(descriptor_)->getH();
    // H = 0 with h = 0 covers nothing and says so. Any other interval must be finite and
    // positive, and covering it takes a finite positive step: a bad value is refused
    // here, never handed back as if it had been covered.
    if (h == 0.0 && H == 0.0) return 0.0;
    if (h != 0.0 && !(h > 0 && std::isfinite(h)))
        throw wSimulationException("Explicit Euler cannot integrate over h = " + doubleToString(h) +
                                   ": the interval must be positive and finite");
    // h = 0 asks for one step of the solver's own size.
    const double L = h == 0.0 ? H : h;
    if (!(H > 0 && std::isfinite(H)))
        throw wSimulationException("Explicit Euler step H must be positive to integrate over h = " + doubleToString(L) +
                                   " (H = " + doubleToString(H) + ")");

    // A step far below the resolution of the interval would never use it up.
    if (L > H && L - H == L)
        throw wSimulationException("Explicit Euler step H = " + doubleToString(H) +
                                   " is too small to integrate over h = " + doubleToString(L));

    const std::size_t n = rhs_.size();
    double* rhs = rhs_.data();
    double remaining = L;
    while (remaining > 0) {
        double s;
        if (remaining <= H) {
            s = remaining;
            remaining = 0;
        } else {
            s = H;
            remaining -= H;
        }
        // Derivatives at the call's start time T for every step, by design.
        system_->calcDiffRhs(T, rhs);
        double* y = system_->getDiffState();
        for (std::size_t i = 0; i < n; ++i) y[i] += s * rhs[i];
        ++steps_;
    }
    return L;
}

double wSolverExplEuler::advanceWithin(double T, double hmax) {
    const double H = static_cast<const wSolverExplEulerDescriptor*>(descriptor_)->getH();
    return hmax < H ? advance(T, hmax) : advance(T, 0.0);
}
