#include "vandrel/runtime/SolverParameters.h"

#include <cmath>

#include "vandrel/platform/LuaLoader.h"
#include "vandrel/runtime/SimulationException.h"

namespace {

[[noreturn]] void refuse(const Lua::Loader& loader, std::string_view name, double value, const char* what) {
    throw wSimulationException("Solver parameter " + loader.formatPath(name) + " must be " + what + ", got " +
                               doubleToString(value));
}

}  // namespace

void requirePositiveFiniteParameter(const Lua::Loader& loader, std::string_view name, double value) {
    if (!(std::isfinite(value) && value > 0)) refuse(loader, name, value, "a finite number greater than 0");
}

void requireNonNegativeFiniteParameter(const Lua::Loader& loader, std::string_view name, double value) {
    if (!(std::isfinite(value) && value >= 0)) refuse(loader, name, value, "a finite number of at least 0");
}

wTolerantSolverDescriptor::wTolerantSolverDescriptor() {
    rtol_.setRequired(false);
    atol_.setRequired(false);
}

void wTolerantSolverDescriptor::load(Lua::Loader* loader) {
    wOdeSolverDescriptor::load(loader);
    requirePositiveFiniteParameter(*loader, "H", getH());
    requirePositiveFiniteParameter(*loader, "rtol", getRtol());
    requirePositiveFiniteParameter(*loader, "atol", getAtol());
}

wParameterList wTolerantSolverDescriptor::getParametersList() {
    wParameterList list = wOdeSolverDescriptor::getParametersList();
    list.push_back(parameterRef("H", H_));
    list.push_back(parameterRef("rtol", rtol_));
    list.push_back(parameterRef("atol", atol_));
    return list;
}
