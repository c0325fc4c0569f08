// The plain-array loop the lags benchmark is compared with. Its own unit so that the
// build can hold it at -O2 (bench/CMakeLists.txt) whatever the build type asks for.
#include "LagsReference.h"

namespace bench {

void lagsReferenceStep(double* x, double* e, std::size_t n, double u, double H) {
    for (std::size_t i = 0; i < n; ++i) e[i] = u - x[i];
    for (std::size_t i = 0; i < n; ++i) x[i] += H * e[i];
}

}  // namespace bench
