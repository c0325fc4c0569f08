#pragma once
// Explicit Euler: y += s * f(T, y) in steps s of at most H over the requested interval.
#include <memory>

#include "vandrel/runtime/OdeSolver.h"

class wSolverExplEulerDescriptor : public wOdeSolverDescriptor {
public:
    static const zo::string& getTypeNameS();  // "wSolverExplEulerDescriptor"

    wOdeSolverDescriptor* clone() const override;
    wOdeSolver* createSolver(wSimulationSystem* system) const override;
    wParameterList getParametersList() override;
    const zo::string& getTypeName() const override { return getTypeNameS(); }
    // "H" must be a positive finite step.
    void validate(const zo::string& where) const override;

    double getH() const { return H_.get(); }
    void setH(double h) { H_.set(h); }

private:
    wBlockParameterProxy<double> H_{0.0};  // largest integration step (s)
};

class wSolverExplEuler : public wOdeSolver {
public:
    wSolverExplEuler(const wSolverExplEulerDescriptor* descriptor, wSimulationSystem* system);
    // Throws wSimulationException when there is an interval to cover and the step H is
    // not a positive finite number, or when h itself is negative or not finite.
    double advance(double T, double h) override;
    // One step of H, or one of hmax when that is shorter.
    double advanceWithin(double T, double hmax) override;

private:
    zo::vector<double> rhs_;  // derivatives, one per continuous state; sized once
};
