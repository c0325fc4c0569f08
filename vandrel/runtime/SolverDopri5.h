#pragma once
// Adaptive Dormand-Prince 4(5) with error control: each step is accepted when its local
// error estimate stays within the tolerances, and the next step size follows from the
// error. Steps are never longer than H, and an interval that ends at a discrete event is
// covered exactly, the last step cut to land on it. The derivative at the end of a step
// starts the next one, also across calls, unless something changed in between.
#include <memory>
#include <vector>

#include <boost/numeric/odeint/stepper/controlled_runge_kutta.hpp>
#include <boost/numeric/odeint/stepper/runge_kutta_dopri5.hpp>

#include "vandrel/runtime/SolverParameters.h"

class wSolverDopri5Descriptor : public wTolerantSolverDescriptor {
public:
    static const zo::string& getTypeNameS();  // "wSolverDopri5Descriptor"

    wSolverDopri5Descriptor();
    // Reads "H", "rtol", "atol" and the optional "H0"; refuses unusable values.
    void load(Lua::Loader* loader) override;
    wOdeSolverDescriptor* clone() const override;
    wOdeSolver* createSolver(wSimulationSystem* system) const override;
    wParameterList getParametersList() override;  // "H", "rtol", "atol", "H0"
    const zo::string& getTypeName() const override { return getTypeNameS(); }

    // The first step after a start or restart; 0 (the default) estimates it.
    double getH0() const { return H0_.get(); }
    void setH0(double h) { H0_.set(h); }

private:
    wBlockParameterProxy<double> H0_{0.0};
};

class wSolverDopri5 : public wOdeSolver {
public:
    wSolverDopri5(const wSolverDopri5Descriptor* descriptor, wSimulationSystem* system);
    // Integrates exactly h, or one accepted step when h is 0; returns the interval covered.
    // Throws wSimulationException when the step size underflows.
    double advance(double T, double h) override;
    // One accepted step, cut to land on T + hmax when it would go past.
    double advanceWithin(double T, double hmax) override;
    void restart() override;
    // The step size to try next, the state and derivative of the last step's end (reused
    // as the next step's first stage) and the counters: a restored solver goes on exactly
    // as the saved one would have.
    void saveSnapshot(wSnapshotWriter& out) const override;
    void restoreSnapshot(wSnapshotReader& in) override;

    // Steps refused by the error control since the solver was made.
    long long getRejectedStepCount() const { return rejected_; }
    // The step size the next step will try (0 until the first step, and after a restart).
    double getNextStep() const { return dt_; }

    using State = std::vector<double>;
    using Stepper = boost::numeric::odeint::runge_kutta_dopri5<State>;
    using Controlled = boost::numeric::odeint::controlled_runge_kutta<Stepper>;

private:
    const wSolverDopri5Descriptor* desc_() const { return static_cast<const wSolverDopri5Descriptor*>(descriptor_); }
    // A first step from the size of the state and of its derivatives (Hairer, Norsett and
    // Wanner); uses the trial buffers.
    double estimateFirstStep_(double T);
    // From T to tEnd (infinite: no end), h = 0 asking for one step (see advanceWithin).
    double advance_(double T, double h, double tEnd);
    // Accepted steps from T: one when oneStep, else up to tEnd; a step that would pass
    // tEnd is cut to land on it. Returns the time reached.
    double step_(double T, bool oneStep, double tEnd);

    State x_, dxdt_;        // state and its derivative at the current time
    State xNew_, dxdtNew_;  // the same after a trial step
    Controlled controlled_;
    double dt_ = 0;         // next step to try; 0: to be chosen
    bool fsal_ = false;     // dxdt_ holds the derivative at (tEnd_, x_)
    double tEnd_ = 0;       // where the last advance ended
    long long rejected_ = 0;
};
