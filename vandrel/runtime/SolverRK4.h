#pragma once
// Classic fixed-step Runge-Kutta of order 4: four derivative evaluations per step, at the
// stage times. An interval is covered in equal steps of at most H.
#include <memory>
#include <vector>

#include <boost/numeric/odeint/stepper/runge_kutta4.hpp>

#include "vandrel/runtime/OdeSolver.h"

class wSolverRK4Descriptor : public wOdeSolverDescriptor {
public:
    static const zo::string& getTypeNameS();  // "wSolverRK4Descriptor"

    // Reads "H" and refuses a step that is not a finite number greater than 0.
    void load(Lua::Loader* loader) override;
    wOdeSolverDescriptor* clone() const override;
    wOdeSolver* createSolver(wSimulationSystem* system) const override;
    wParameterList getParametersList() override;  // "H"
    const zo::string& getTypeName() const override { return getTypeNameS(); }

    double getH() const { return H_.get(); }
    void setH(double h) { H_.set(h); }

private:
    wBlockParameterProxy<double> H_{0.0};  // largest integration step (s)
};

class wSolverRK4 : public wOdeSolver {
public:
    wSolverRK4(const wSolverRK4Descriptor* descriptor, wSimulationSystem* system);
    // Throws wSimulationException when h > 0 and the step H is not positive.
    double advance(double T, double h) override;
    // One step of H, or one of hmax when that is shorter.
    double advanceWithin(double T, double hmax) override;

private:
    using State = std::vector<double>;
    State x_;  // the state being advanced; sized once
    boost::numeric::odeint::runge_kutta4<State> stepper_;
};
