#include "vandrel/runtime/OdeSolver.h"

#include <cmath>

#include "vandrel/platform/LuaLoader.h"
#include "vandrel/runtime/SimulationException.h"
#include "vandrel/runtime/Snapshot.h"

// ---- Descriptor base: parameters are plain values under their names

void wOdeSolverDescriptor::save(Lua::Loader* loader) {
    for (const wBlockParameterContainer& p : getParametersList()) p.save(loader, p.getName());
}

void wOdeSolverDescriptor::load(Lua::Loader* loader) {
    for (wBlockParameterContainer& p : getParametersList()) p.load(loader, p.getName());
}

wParameterList wOdeSolverDescriptor::getParametersList() { return {}; }

void wOdeSolverDescriptor::validate(const zo::string&) const {}

void requirePositiveFiniteStep(double value, const zo::string& where) {
    // Written so that NaN fails too.
    if (value > 0 && std::isfinite(value)) return;
    throw wSimulationException(where + " must be a positive finite number of seconds, got " + doubleToString(value));
}

// ---- Registry

wOdeSolversFactory* wOdeSolversFactory::instance() {
    static wOdeSolversFactory factory;
    return &factory;
}

void wOdeSolversFactory::register_descriptor(const zo::string& name, const Creator& creator,
                                             const zo::string& description) {
    if (creators_.find(name) != creators_.end()) throw wSimulationException("Duplicated ODE solver type: " + name);
    // Reserve the list slot first so that a failure leaves both containers unchanged.
    keysDescriptions_.reserve(keysDescriptions_.size() + 1);
    creators_.emplace(name, creator);
    keysDescriptions_.emplace_back(name, description);
}

wOdeSolverDescriptor* wOdeSolversFactory::generate(const zo::string& name) const {
    auto it = creators_.find(name);
    if (it == creators_.end() || !it->second) throw wSimulationException("Unknown ODE solver type: " + name);
    wOdeSolverDescriptor* d = it->second();
    if (!d) throw wSimulationException("Unknown ODE solver type: " + name);
    return d;
}

wOdeSolverDescriptor* wOdeSolversFactory::load(Lua::Loader* loader) const {
    std::unique_ptr<wOdeSolverDescriptor> d(generate(loader->getString("__type")));
    d->load(loader);
    return d.release();
}

void wOdeSolversFactory::save(Lua::Loader* loader, wOdeSolverDescriptor& descriptor) {
    loader->setString("__type", descriptor.getTypeName());
    descriptor.save(loader);
}

void wOdeSolver::saveSnapshot(wSnapshotWriter& out) const { out.put(static_cast<std::int64_t>(steps_)); }

void wOdeSolver::restoreSnapshot(wSnapshotReader& in) { steps_ = in.get<std::int64_t>("solver step count"); }
