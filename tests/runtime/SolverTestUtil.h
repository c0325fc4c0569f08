#pragma once
// The solver kinds, for tests that run the same checks against each of them.
#include <gtest/gtest.h>

#include <cstdio>
#include <memory>
#include <ostream>
#include <string>
#include <vector>

#include "vandrel/runtime/SolverCvode.h"
#include "vandrel/runtime/SolverDopri5.h"
#include "vandrel/runtime/SolverExplEuler.h"
#include "vandrel/runtime/SolverRK4.h"

namespace solvers {

struct Kind {
    std::string name;      // for test names
    std::string typeName;  // the "__type" of the solver table
    int order;             // global order of a fixed-step kind; 0 for those with error control
};

inline const std::vector<Kind>& kinds() {
    static const std::vector<Kind> all = {
        {"Euler", "wSolverExplEulerDescriptor", 1},
        {"RK4", "wSolverRK4Descriptor", 4},
        {"Dopri5", "wSolverDopri5Descriptor", 0},
        {"Cvode", "wSolverCvodeDescriptor", 0},
    };
    return all;
}

inline void PrintTo(const Kind& k, std::ostream* os) { *os << k.name; }

inline std::string kindName(const testing::TestParamInfo<Kind>& info) { return info.param.name; }

// A descriptor of kind k: fixed-step kinds step H; the others take H as their largest
// step and the tolerances given.
inline std::unique_ptr<wOdeSolverDescriptor> make(const Kind& k, double H, double rtol = 1e-9, double atol = 1e-12) {
    if (k.typeName == "wSolverExplEulerDescriptor") {
        auto d = std::make_unique<wSolverExplEulerDescriptor>();
        d->setH(H);
        return d;
    }
    if (k.typeName == "wSolverRK4Descriptor") {
        auto d = std::make_unique<wSolverRK4Descriptor>();
        d->setH(H);
        return d;
    }
    std::unique_ptr<wTolerantSolverDescriptor> d;
    if (k.typeName == "wSolverDopri5Descriptor") d = std::make_unique<wSolverDopri5Descriptor>();
    else d = std::make_unique<wSolverCvodeDescriptor>();
    d->setH(H);
    d->setRtol(rtol);
    d->setAtol(atol);
    return d;
}

// The body of a scheme file's "solver" table for the same settings.
inline std::string table(const Kind& k, double H, double rtol = 1e-9, double atol = 1e-12) {
    auto num = [](double v) {
        char buf[40];
        std::snprintf(buf, sizeof buf, "%.17g", v);
        return std::string(buf);
    };
    std::string s = "__type = \"" + k.typeName + "\", H = " + num(H);
    if (k.order == 0) s += ", rtol = " + num(rtol) + ", atol = " + num(atol);
    return s;
}

}  // namespace solvers
