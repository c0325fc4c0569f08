#include "vandrel/runtime/SolverCvode.h"

#include <cvode/cvode.h>
#include <nvector/nvector_serial.h>
#include <sundials/sundials_context.h>
#include <sunlinsol/sunlinsol_dense.h>
#include <sunmatrix/sunmatrix_dense.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <exception>
#include <limits>

#include "vandrel/runtime/SimulationException.h"
#include "vandrel/runtime/SimulationSystem.h"
#include "vandrel/runtime/Snapshot.h"

// ---- Descriptor

const zo::string& wSolverCvodeDescriptor::getTypeNameS() {
    static const zo::string name = "wSolverCvodeDescriptor";
    return name;
}

wOdeSolverDescriptor* wSolverCvodeDescriptor::clone() const {
    return new wSolverCvodeDescriptor(*this);
}

wOdeSolver* wSolverCvodeDescriptor::createSolver(wSimulationSystem* system) const {
    return new wSolverCvode(this, system);
}

// ---- CVODE's objects

struct wSolverCvode::Impl {
    wSimulationSystem* system = nullptr;
    sunindextype n = 0;      // states; CVODE gets at least one
    bool empty = false;      // the scheme's continuous blocks hold no state at all
    SUNContext context = nullptr;
    N_Vector y = nullptr;    // CVODE's state
    N_Vector ewt = nullptr;  // error weights, for the Jacobian's increments
    SUNMatrix jacobian = nullptr;
    SUNLinearSolver linear = nullptr;
    void* cvode = nullptr;

    bool fresh = true;       // CVODE must be started afresh at the next advance
    double tn = 0;           // the time CVODE has reached
    long long restarts = 0;
    long long jacobians = 0;
    std::exception_ptr pending;         // thrown inside a callback, passed on after CVode returns
    std::array<char, 512> message{};    // CVODE's last error message

    ~Impl() {
        if (cvode != nullptr) CVodeFree(&cvode);
        if (linear != nullptr) SUNLinSolFree(linear);
        if (jacobian != nullptr) SUNMatDestroy(jacobian);
        if (ewt != nullptr) N_VDestroy(ewt);
        if (y != nullptr) N_VDestroy(y);
        if (context != nullptr) SUNContext_Free(&context);
    }

    double* state() const { return N_VGetArrayPointer(y); }

    // The scheme's derivatives. CVODE is C: nothing may be thrown through it, so a block's
    // exception is kept and CVODE told that the failure cannot be recovered from.
    static int rhs(sunrealtype t, N_Vector y, N_Vector ydot, void* self) {
        Impl& impl = *static_cast<Impl*>(self);
        try {
            impl.system->calcDiffRhs(t, N_VGetArrayPointer(y), N_VGetArrayPointer(ydot));
        } catch (...) {
            impl.pending = std::current_exception();
            return -1;
        }
        for (sunindextype i = 0; i < impl.n; ++i)
            if (!std::isfinite(N_VGetArrayPointer(ydot)[i])) return 1;  // recoverable: CVODE retries smaller
        return 0;
    }

    // Dense Jacobian by forward differences, one column per state: the increment is the
    // square root of the unit roundoff relative to the component, but never below what
    // the error weights and the current step make significant (CVODE's own rule).
    static int jac(sunrealtype t, N_Vector y, N_Vector fy, SUNMatrix J, void* self, N_Vector tmp1, N_Vector, N_Vector) {
        Impl& impl = *static_cast<Impl*>(self);
        ++impl.jacobians;
        if (CVodeGetErrWeights(impl.cvode, impl.ewt) != CV_SUCCESS) return -1;
        sunrealtype h = 0;
        CVodeGetCurrentStep(impl.cvode, &h);
        const double uround = std::numeric_limits<double>::epsilon();
        const double srur = std::sqrt(uround);
        const double fnorm = N_VWrmsNorm(fy, impl.ewt);
        const double minInc =
            fnorm != 0 ? 1000 * std::fabs(h) * uround * static_cast<double>(impl.n) * fnorm : 1.0;
        double* yd = N_VGetArrayPointer(y);
        const double* fyd = N_VGetArrayPointer(fy);
        const double* ftd = N_VGetArrayPointer(tmp1);
        const double* ewtd = N_VGetArrayPointer(impl.ewt);
        for (sunindextype j = 0; j < impl.n; ++j) {
            const double yj = yd[j];
            const double inc = std::max(srur * std::fabs(yj), minInc / ewtd[j]);
            yd[j] += inc;
            const int flag = rhs(t, y, tmp1, self);
            yd[j] = yj;
            if (flag != 0) return flag;
            double* column = SUNDenseMatrix_Column(J, j);
            const double scale = 1.0 / inc;
            for (sunindextype i = 0; i < impl.n; ++i) column[i] = (ftd[i] - fyd[i]) * scale;
        }
        return 0;
    }

    // CVODE's messages go to the exception of the failing call instead of stderr.
    static void error(int code, const char* module, const char* function, char* msg, void* self) {
        if (code == CV_WARNING) return;
        Impl& impl = *static_cast<Impl*>(self);
        std::snprintf(impl.message.data(), impl.message.size(), "%s (%s, %s)", msg, function, module);
    }

    void check(int flag, const char* call) const {
        if (flag >= 0) return;
        throw wSimulationException(zo::string("CVODE could not be set up: ") + call + " failed" +
                                   (message[0] != '\0' ? zo::string(": ") + message.data() : zo::string()));
    }
};

// ---- Solver

wSolverCvode::wSolverCvode(const wSolverCvodeDescriptor* descriptor, wSimulationSystem* system)
    : wOdeSolver(descriptor, system), impl_(std::make_unique<Impl>()) {
    Impl& m = *impl_;
    m.system = system;
    m.empty = system->getDiffStateSize() <= 0;
    m.n = std::max(1, system->getDiffStateSize());
    if (SUNContext_Create(nullptr, &m.context) != 0 || m.context == nullptr)
        throw wSimulationException("CVODE could not be set up: SUNContext_Create failed");
    m.y = N_VNew_Serial(m.n, m.context);
    m.ewt = N_VNew_Serial(m.n, m.context);
    if (m.y == nullptr || m.ewt == nullptr) throw wSimulationException("CVODE could not be set up: N_VNew_Serial failed");
    N_VConst(0.0, m.y);
    N_VConst(1.0, m.ewt);
    m.cvode = CVodeCreate(CV_BDF, m.context);
    if (m.cvode == nullptr) throw wSimulationException("CVODE could not be set up: CVodeCreate failed");
    m.check(CVodeSetErrHandlerFn(m.cvode, &Impl::error, &m), "CVodeSetErrHandlerFn");
    m.check(CVodeInit(m.cvode, &Impl::rhs, 0.0, m.y), "CVodeInit");
    m.check(CVodeSetUserData(m.cvode, &m), "CVodeSetUserData");
    m.check(CVodeSStolerances(m.cvode, descriptor->getRtol(), descriptor->getAtol()), "CVodeSStolerances");
    if (descriptor->getH() > 0) m.check(CVodeSetMaxStep(m.cvode, descriptor->getH()), "CVodeSetMaxStep");
    m.jacobian = SUNDenseMatrix(m.n, m.n, m.context);
    if (m.jacobian == nullptr) throw wSimulationException("CVODE could not be set up: SUNDenseMatrix failed");
    m.linear = SUNLinSol_Dense(m.y, m.jacobian, m.context);
    if (m.linear == nullptr) throw wSimulationException("CVODE could not be set up: SUNLinSol_Dense failed");
    m.check(CVodeSetLinearSolver(m.cvode, m.linear, m.jacobian), "CVodeSetLinearSolver");
    m.check(CVodeSetJacFn(m.cvode, &Impl::jac), "CVodeSetJacFn");
}

wSolverCvode::~wSolverCvode() = default;

void wSolverCvode::restart() { impl_->fresh = true; }

long long wSolverCvode::getRestartCount() const { return impl_->restarts; }
long long wSolverCvode::getJacobianCount() const { return impl_->jacobians; }

double wSolverCvode::advance(double T, double h) { return advance_(T, h, std::numeric_limits<double>::infinity()); }

double wSolverCvode::advanceWithin(double T, double hmax) {
    if (!(hmax > 0)) return advance(T, hmax);
    return advance_(T, 0.0, hmax);
}

double wSolverCvode::advance_(double T, double h, double hmax) {
    Impl& m = *impl_;
    const double H = static_cast<const wSolverCvodeDescriptor*>(descriptor_)->getH();
    if (!(h >= 0)) return h;
    if (!(H > 0 && std::isfinite(H)))
        throw wSimulationException("CVODE largest step H must be positive (H = " + doubleToString(H) + ")");
    // An interval below the resolution of time is covered as it is.
    const double eps = std::numeric_limits<double>::epsilon();
    if (h > 0 && h <= 8 * eps * std::max(1.0, std::fabs(T))) return h;
    if (m.empty) return h > 0 ? h : std::min(H, hmax);

    double* y = system_->getDiffState();
    const auto bytes = static_cast<std::size_t>(m.n) * sizeof(double);
    // CVODE continues its history only from where it stopped, with nothing changed since.
    // (The host's next time is its last time plus the returned interval, which may differ
    // from CVODE's time in the last bit.)
    const bool sameTime = std::fabs(T - m.tn) <= 1e-12 * std::max(1.0, std::fabs(T));
    if (m.fresh || !sameTime || std::memcmp(y, m.state(), bytes) != 0) {
        std::memcpy(m.state(), y, bytes);
        m.message[0] = '\0';
        if (CVodeReInit(m.cvode, T, m.y) < 0)
            throw wSimulationException("CVODE could not restart at t = " + doubleToString(T) + ": " + m.message.data());
        m.fresh = false;
        m.tn = T;
        ++m.restarts;
    }

    const bool toEnd = h > 0;
    // One step stops at the horizon when that comes before a step of H.
    const bool toHorizon = !toEnd && hmax <= H;
    const double tStop = T + (toEnd ? h : (toHorizon ? hmax : H));
    long before = 0;
    CVodeGetNumSteps(m.cvode, &before);
    m.message[0] = '\0';
    int flag = CVodeSetStopTime(m.cvode, tStop);
    sunrealtype reached = m.tn;
    while (flag >= 0) {
        flag = CVode(m.cvode, tStop, m.y, &reached, toEnd ? CV_NORMAL : CV_ONE_STEP);
        // Many small steps to a far event: go on, CVODE is making progress.
        if (flag == CV_TOO_MUCH_WORK && reached > m.tn) {
            m.tn = reached;
            flag = CV_SUCCESS;
            continue;
        }
        break;
    }
    long after = 0;
    CVodeGetNumSteps(m.cvode, &after);
    steps_ += after - before;

    if (flag < 0) {
        // CVODE hands back its last accepted state; the system holds a trial one.
        std::memcpy(y, m.state(), bytes);
        m.fresh = true;
        if (m.pending) {
            std::exception_ptr e = m.pending;
            m.pending = nullptr;
            std::rethrow_exception(e);
        }
        throw wSimulationException("CVODE failed at t = " + doubleToString(reached) + " (flag " +
                                   std::to_string(flag) + ")" + (m.message[0] != '\0' ? ": " : "") + m.message.data());
    }
    std::memcpy(y, m.state(), bytes);
    m.tn = toEnd ? tStop : reached;
    if (toHorizon && reached >= tStop) return hmax;
    return toEnd ? h : reached - T;
}

void wSolverCvode::saveSnapshot(wSnapshotWriter& out) const {
    wOdeSolver::saveSnapshot(out);
    out.put(impl_->tn);
    out.put(static_cast<std::int64_t>(impl_->restarts));
    out.put(static_cast<std::int64_t>(impl_->jacobians));
}

void wSolverCvode::restoreSnapshot(wSnapshotReader& in) {
    wOdeSolver::restoreSnapshot(in);
    const double tn = in.getFinite("CVODE time");
    const auto restarts = in.get<std::int64_t>("CVODE restarts");
    const auto jacobians = in.get<std::int64_t>("CVODE Jacobian evaluations");
    impl_->tn = tn;
    impl_->restarts = restarts;
    impl_->jacobians = jacobians;
    impl_->fresh = true;
}
