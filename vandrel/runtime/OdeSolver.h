#pragma once
// ODE solvers. A scheme holds one solver descriptor (its kind and parameters, saved with
// the scheme); each simulation system with continuous blocks gets a solver made from it.
// The continuous state is one contiguous run of doubles in the system's data area.
#include <map>
#include <memory>
#include <utility>

#include "vandrel/core/BlockParameter.h"
#include "vandrel/platform/CoreMeta.h"
#include "vandrel/platform/String.h"

namespace Lua {
class Loader;
}
class wSimulationSystem;
class wOdeSolver;
class wSnapshotWriter;
class wSnapshotReader;

class wOdeSolverDescriptor {
public:
    virtual ~wOdeSolverDescriptor() = default;
    // Writes each parameter as a plain value under its name in the loader's current table.
    virtual void save(Lua::Loader* loader);
    // Reads each parameter from the loader's current table (all are required).
    virtual void load(Lua::Loader* loader);
    // A new descriptor of the same kind and parameter values, owned by the caller.
    virtual wOdeSolverDescriptor* clone() const = 0;
    // A new solver for `system`; the system takes ownership.
    virtual wOdeSolver* createSolver(wSimulationSystem* system) const = 0;
    virtual wParameterList getParametersList();
    // The registered kind name, written as "__type".
    virtual const zo::string& getTypeName() const = 0;
    // Refuses parameter values the solver cannot run with; called when a scheme is loaded
    // for running. `where` is the solver table's path in the file ("simulation_scheme.solver"),
    // so messages can point at the offending entry. The base accepts everything.
    virtual void validate(const zo::string& where) const;
};

// Throws wSimulationException unless `value` is a positive finite number of seconds:
// "<where> must be a positive finite number of seconds, got <value>".
void requirePositiveFiniteStep(double value, const zo::string& where);

class wOdeSolver {
public:
    wOdeSolver(const wOdeSolverDescriptor* descriptor, wSimulationSystem* system)
        : descriptor_(descriptor), system_(system) {}
    virtual ~wOdeSolver() = default;
    wOdeSolver(const wOdeSolver&) = delete;
    wOdeSolver& operator=(const wOdeSolver&) = delete;

    // Integrates the continuous state from scheme time T over the interval h (s), or over
    // one step of the solver's own size when h is 0; returns the interval covered.
    virtual double advance(double T, double h) = 0;
    // One step of the solver's own size from T, shortened when it would end after
    // T + hmax (hmax > 0) so that it lands there; returns the interval covered, exactly
    // hmax when the step was shortened. The default covers hmax as advance does, which is
    // right for any kind, if in more steps than needed.
    virtual double advanceWithin(double T, double hmax) { return advance(T, hmax); }
    // The state jumped or the inputs of the derivatives changed since the last advance
    // (a reset, a discrete event, a host write): solvers that carry history from step to
    // step (step size, past values) start afresh at the next advance.
    virtual void restart() {}

    // Steps taken since the solver was made (accepted steps, for adaptive kinds).
    long long getStepCount() const { return steps_; }

    // Whole-state snapshots: what the solver carries from one advance to the next (step
    // size, derivatives, history) and its counters. The base saves the step count.
    virtual void saveSnapshot(wSnapshotWriter& out) const;
    virtual void restoreSnapshot(wSnapshotReader& in);

protected:
    const wOdeSolverDescriptor* descriptor_;  // not owned
    wSimulationSystem* system_;               // not owned
    long long steps_ = 0;                     // accepted steps, counted by each kind
};

class wOdeSolversFactory {
public:
    // Returns a new descriptor, owned by whoever called the creator.
    using Creator = CoreMeta::Functor<wOdeSolverDescriptor*>;

    static wOdeSolversFactory* instance();

    // Throws "Duplicated ODE solver type: " + name (and adds nothing) for a known name.
    void register_descriptor(const zo::string& name, const Creator& creator, const zo::string& description);
    // A new descriptor of that kind, owned by the caller; throws "Unknown ODE solver type: " + name.
    wOdeSolverDescriptor* generate(const zo::string& name) const;
    // Reads a solver table (the loader is on it): "__type", then the kind's parameters.
    // The result is the caller's.
    wOdeSolverDescriptor* load(Lua::Loader* loader) const;
    // Writes "__type" and the parameters into the loader's current table.
    static void save(Lua::Loader* loader, wOdeSolverDescriptor& descriptor);
    zo::vector<std::pair<zo::string, zo::string>> getKeysDescriptions() const { return keysDescriptions_; }

private:
    std::map<zo::string, Creator, std::less<>> creators_;
    zo::vector<std::pair<zo::string, zo::string>> keysDescriptions_;
};
