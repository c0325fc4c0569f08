#pragma once
#include <cstddef>

namespace bench {

// One explicit Euler step of n lags on plain arrays: e = u - x; x += H * e.
void lagsReferenceStep(double* x, double* e, std::size_t n, double u, double H);

}  // namespace bench
