#pragma once
// Stiff solver: variable-order (1 to 5) backward differentiation formulas from SUNDIALS
// CVODE, with Newton iterations on a dense linear system whose Jacobian is built here by
// difference quotients of the scheme's derivatives. The right choice when time constants
// of very different sizes meet (heat paths, chemistry, fast actuators in a slow plant),
// where explicit methods need steps as small as the fastest one.
//
// Everything CVODE needs is allocated when the solver is made; advancing allocates
// nothing. CVODE keeps a history of past steps; it is started afresh whenever the state,
// the time or the inputs of the derivatives jump between calls.
#include <memory>

#include "vandrel/runtime/SolverParameters.h"

class wSolverCvodeDescriptor : public wTolerantSolverDescriptor {
public:
    static const zo::string& getTypeNameS();  // "wSolverCvodeDescriptor"

    wOdeSolverDescriptor* clone() const override;
    wOdeSolver* createSolver(wSimulationSystem* system) const override;
    const zo::string& getTypeName() const override { return getTypeNameS(); }
};

class wSolverCvode : public wOdeSolver {
public:
    // Throws wSimulationException when CVODE cannot be set up.
    wSolverCvode(const wSolverCvodeDescriptor* descriptor, wSimulationSystem* system);
    ~wSolverCvode() override;
    // Integrates exactly h, or one internal step when h is 0; returns the interval covered.
    // A failure of CVODE (or an exception from a block) is thrown as wSimulationException
    // (or passed on), and the next call starts afresh.
    double advance(double T, double h) override;
    // One internal step, stopped at T + hmax when it would go past.
    double advanceWithin(double T, double hmax) override;
    void restart() override;
    // CVODE keeps its history (order, step size, past values) inside, out of reach, so a
    // snapshot holds the time reached and the counters, and a restored solver starts
    // afresh there: its run is bit for bit the one of the saved solver restarted at that
    // time (restart()), and within the tolerances of the saved one left to go on.
    void saveSnapshot(wSnapshotWriter& out) const override;
    void restoreSnapshot(wSnapshotReader& in) override;

    // Times CVODE was started afresh, and its Jacobian evaluations, since the solver was made.
    long long getRestartCount() const;
    long long getJacobianCount() const;

private:
    // advance, with one step (h = 0) ending no later than T + hmax.
    double advance_(double T, double h, double hmax);

    struct Impl;  // CVODE's objects and the callbacks' state
    std::unique_ptr<Impl> impl_;
};
