#pragma once
// What the solver kinds share about their parameters: checks that refuse unusable values
// with their place in the scheme file, and the base of the kinds with error control
// (a largest step "H" and the tolerances "rtol" and "atol").
#include <string_view>

#include "vandrel/runtime/OdeSolver.h"

// Throws wSimulationException naming the parameter's place in the file (the loader is on
// the solver table) unless `value` is finite and greater than 0 (or at least 0).
void requirePositiveFiniteParameter(const Lua::Loader& loader, std::string_view name, double value);
void requireNonNegativeFiniteParameter(const Lua::Loader& loader, std::string_view name, double value);

// Largest step and tolerances of the kinds with error control. The local error of each
// state y[i] is kept below atol + rtol * |y[i]|. "H" is required; the tolerances default
// to rtol = 1e-6 and atol = 1e-9.
class wTolerantSolverDescriptor : public wOdeSolverDescriptor {
public:
    static constexpr double kDefaultRtol = 1e-6;
    static constexpr double kDefaultAtol = 1e-9;

    wTolerantSolverDescriptor();
    // Reads the parameters, then refuses a non-positive or non-finite step or tolerance.
    void load(Lua::Loader* loader) override;
    wParameterList getParametersList() override;  // "H", "rtol", "atol"

    double getH() const { return H_.get(); }
    void setH(double h) { H_.set(h); }
    double getRtol() const { return rtol_.get(); }
    void setRtol(double r) { rtol_.set(r); }
    double getAtol() const { return atol_.get(); }
    void setAtol(double a) { atol_.set(a); }

private:
    wBlockParameterProxy<double> H_{0.0};  // largest step (s)
    wBlockParameterProxy<double> rtol_{kDefaultRtol};
    wBlockParameterProxy<double> atol_{kDefaultAtol};
};
