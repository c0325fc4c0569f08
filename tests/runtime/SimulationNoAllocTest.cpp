// simulate() must not touch the heap, whichever solver runs. This file replaces the
// global operator new and delete for the whole test program with versions that count
// while counting is switched on; they allocate through malloc/free, which the address
// sanitizer also watches. Outside the sanitizer build it also puts counting versions of
// malloc and its kin in front of the C library's, for the C libraries underneath (CVODE).
#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <new>
#include <string>

#include "runtime/RuntimeTestUtil.h"
#include "vandrel/scheme/SimulationSystemScheme.h"
#include "runtime/SolverTestUtil.h"

namespace {

std::atomic<bool> counting{false};
std::atomic<long> allocations{0};
std::atomic<long> mallocs{0};  // C allocations, operator new's included

// Kept out of line so that the compiler does not pair an inlined new with free().
[[gnu::noinline]] void* countedAlloc(std::size_t n) {
    if (counting.load(std::memory_order_relaxed)) allocations.fetch_add(1, std::memory_order_relaxed);
    return std::malloc(n == 0 ? 1 : n);
}

[[gnu::noinline]] void countedFree(void* p) { std::free(p); }

}  // namespace

void* operator new(std::size_t n) {
    if (void* p = countedAlloc(n)) return p;
    throw std::bad_alloc();
}
void* operator new[](std::size_t n) {
    if (void* p = countedAlloc(n)) return p;
    throw std::bad_alloc();
}
void* operator new(std::size_t n, const std::nothrow_t&) noexcept { return countedAlloc(n); }
void* operator new[](std::size_t n, const std::nothrow_t&) noexcept { return countedAlloc(n); }
void operator delete(void* p) noexcept { countedFree(p); }
void operator delete[](void* p) noexcept { countedFree(p); }
void operator delete(void* p, std::size_t) noexcept { countedFree(p); }
void operator delete[](void* p, std::size_t) noexcept { countedFree(p); }
void operator delete(void* p, const std::nothrow_t&) noexcept { countedFree(p); }
void operator delete[](void* p, const std::nothrow_t&) noexcept { countedFree(p); }

#if !defined(__SANITIZE_ADDRESS__)
// glibc's own entry points, which its malloc family forwards to.
extern "C" {
void* __libc_malloc(std::size_t n);
void* __libc_calloc(std::size_t n, std::size_t size);
void* __libc_realloc(void* p, std::size_t n);
void __libc_free(void* p);

void* malloc(std::size_t n) noexcept {
    if (counting.load(std::memory_order_relaxed)) mallocs.fetch_add(1, std::memory_order_relaxed);
    return __libc_malloc(n);
}
void* calloc(std::size_t n, std::size_t size) noexcept {
    if (counting.load(std::memory_order_relaxed)) mallocs.fetch_add(1, std::memory_order_relaxed);
    return __libc_calloc(n, size);
}
void* realloc(void* p, std::size_t n) noexcept {
    if (counting.load(std::memory_order_relaxed)) mallocs.fetch_add(1, std::memory_order_relaxed);
    return __libc_realloc(p, n);
}
void free(void* p) noexcept { __libc_free(p); }
}
constexpr bool kCountsMalloc = true;
#else
constexpr bool kCountsMalloc = false;
#endif

namespace {

// Blocks that do their work without the tracing of the shared test blocks, which formats
// a string per call.
const wLeadList& quietIn() {
    static const wLeadList l{{"in", LEAD_DOUBLE}};
    return l;
}
const wLeadList& quietOut() {
    static const wLeadList l{{"out", LEAD_DOUBLE}};
    return l;
}

class QuietGainDescriptor : public wDescriptorImpl<QuietGainDescriptor, wSimulationBlockStatelessDescriptor> {
public:
    static const zo::string& getBlockClassNameS() {
        static const zo::string s = "RtQuietGain";
        return s;
    }
    static const zo::string& getBlockTypeNameS() { return getBlockClassNameS(); }
    wSimulationBlockStateless* create(Lua::Loader*) const override;
    double k = 1.0;

protected:
    const wLeadList& getInputWires_() const override { return quietIn(); }
    const wLeadList& getOutputWires_() const override { return quietOut(); }
};

class QuietGain : public wSimulationBlockStateless {
public:
    explicit QuietGain(const QuietGainDescriptor* d) : wSimulationBlockStateless(d), d_(d) {}
    void update(double, unsigned char* data) override {
        ++updates;
        writeWire<double>(data, d_->getOutputWireOffset(0), d_->k * readWire<double>(data, d_->getInputWireOffset(0)));
    }
    static inline long updates = 0;

private:
    const QuietGainDescriptor* d_;
};

wSimulationBlockStateless* QuietGainDescriptor::create(Lua::Loader*) const {
    return new QuietGain(this);
}

// Samples its input every dt seconds; registers its sample as state.
class QuietSamplerDescriptor : public wDescriptorImpl<QuietSamplerDescriptor, wSimulationBlockDiscDescriptor> {
public:
    static const zo::string& getBlockClassNameS() {
        static const zo::string s = "RtQuietSampler";
        return s;
    }
    static const zo::string& getBlockTypeNameS() { return getBlockClassNameS(); }
    wSimulationBlockDisc* create(Lua::Loader*, wSimulationSystem* s) const override;
    double dt = 0.1;

protected:
    const wLeadList& getInputWires_() const override { return quietIn(); }
    const wLeadList& getOutputWires_() const override { return quietOut(); }
};

class QuietSampler : public wSimulationBlockDisc {
public:
    QuietSampler(const QuietSamplerDescriptor* d, wSimulationSystem* s) : wSimulationBlockDisc(d, s), d_(d) {}
    double step(double) override {
        unsigned char* data = system_->getDataPtr();
        last_ = readWire<double>(data, d_->getInputWireOffset(0));
        writeWire<double>(data, d_->getOutputWireOffset(0), last_);
        return d_->dt;
    }
    void registerStateData() override { regVar(last_); }

private:
    const QuietSamplerDescriptor* d_;
    double last_ = 0;  // last sample
};

wSimulationBlockDisc* QuietSamplerDescriptor::create(Lua::Loader*, wSimulationSystem* s) const {
    return new QuietSampler(this, s);
}

}  // namespace

namespace {
class RuntimeNoAlloc : public ::testing::TestWithParam<solvers::Kind> {};
}  // namespace

INSTANTIATE_TEST_SUITE_P(AllSolverKinds, RuntimeNoAlloc, ::testing::ValuesIn(solvers::kinds()), solvers::kindName);

TEST_P(RuntimeNoAlloc, SimulateAllocatesNothing) {
    // Stateless blocks on the input and output sides and inside a continuous loop,
    // discrete blocks with different periods, and a block working on ports.
    rt::Builder b;
    auto* gIn = b.add<QuietGainDescriptor>("gIn");
    auto* gLoop = b.add<QuietGainDescriptor>("gLoop");
    auto* gOut = b.add<QuietGainDescriptor>("gOut");
    auto* trig = b.add<testblocks::TriggerDescriptor>("trig");
    auto* integ = b.add<testblocks::IntegratorDescriptor>("i");
    auto* integ2 = b.add<testblocks::IntegratorDescriptor>("i2");
    auto* s1 = b.add<QuietSamplerDescriptor>("s1");
    auto* s2 = b.add<QuietSamplerDescriptor>("s2");
    auto* s3 = b.add<QuietSamplerDescriptor>("s3");
    gLoop->k = -0.5;
    s1->dt = 0.01;
    s2->dt = 0.037;
    s3->dt = 0.02;
    b.scheme.setOdeSolverDescriptor(solvers::make(GetParam(), 0.004, 1e-6, 1e-9));
    b.inputWire("u");
    b.inputPort("kick");
    b.outputWire(gOut, "out", "y");
    b.outputWire(s3, "out", "z");
    b.outputPort("flag");
    b.wire(b.io(), "u", gIn, "in");
    b.wire(gIn, "out", integ2, "in");
    b.wire(b.io(), "u", integ2, "x.initial");
    b.wire(integ2, "x", s1, "in");
    b.wire(gLoop, "out", integ, "in");
    b.wire(b.io(), "u", integ, "x.initial");
    b.wire(integ, "x", gLoop, "in");
    b.wire(integ, "x", s2, "in");
    b.wire(s1, "out", gOut, "in");
    b.wire(b.io(), "u", s3, "in");
    b.port(b.io(), "kick", trig, "in");
    b.port(trig, "out", b.io(), "flag");
    auto sys = b.run();
    auto* kick = dynamic_cast<wInputPort<bool>*>(sys->getInputPort("kick"));
    ASSERT_NE(kick, nullptr);

    sys->setInput<double>("u", 1.0);
    double T = sys->simulate(0.0);
    const long updatesBefore = QuietGain::updates;

    // The counter does see allocations made through new.
    counting = true;
    auto probe = std::make_unique<double>(1.0);
    void* raw = std::malloc(16);
    counting = false;
    std::free(raw);
    ASSERT_EQ(allocations.exchange(0), 1);
    if (kCountsMalloc) {
        ASSERT_EQ(mallocs.exchange(0), 2);
    }
    mallocs = 0;

    counting = true;
    for (int k = 0; k < 10000; ++k) {
        sys->setInput<double>("u", 1.0 + 0.001 * k);
        if (k % 100 == 0) kick->setValue(k % 200 == 0);
        T += sys->simulate(T);
    }
    // A host that takes control back at output times of its own, between the events.
    for (int k = 0; k < 2000; ++k) {
        sys->simulate(T, T + 0.0007);
        T = sys->getCurrentTime();
    }
    counting = false;
    EXPECT_EQ(allocations.load(), 0);
    EXPECT_EQ(mallocs.load(), 0);
    // The run did real work.
    EXPECT_GT(T, 10.0);
    EXPECT_GT(QuietGain::updates - updatesBefore, 10000);
    EXPECT_NE(sys->getOutput<double>("y"), 0.0);
    auto* t = dynamic_cast<testblocks::Trigger*>(rt::blockNamed(*sys, "trig"));
    ASSERT_NE(t, nullptr);
    EXPECT_EQ(t->arrivals, 100);
}

TEST(RuntimeNoAlloc, SimulateThroughSubsystemsAllocatesNothing) {
    // A nested continuous scheme on its own solver, reset through the command port, and
    // idle subsystems that are woken by the host's inputs.
    const std::string dir = std::string(VANDREL_TEST_DATA_DIR) + "/subsystem/";
    wSimulationSystemScheme lagScheme, twiceScheme;
    lagScheme.loadForRuntime(dir + "lag_outer.lua");
    twiceScheme.loadForRuntime(dir + "twice.lua");
    std::unique_ptr<wSimulationSystem> lag(lagScheme.instantiate());
    std::unique_ptr<wSimulationSystem> twice(twiceScheme.instantiate());
    auto* reset = dynamic_cast<wInputPort<bool>*>(lag->getInputPort("reset"));
    ASSERT_NE(reset, nullptr);
    double T = lag->simulate(0.0);
    twice->simulate(0.0);

    counting = true;
    for (int k = 1; k <= 1000; ++k) {
        lag->setInput<double>("u", 1.0 + 0.001 * k);
        if (k % 100 == 0) reset->setValue(true);
        T += lag->simulate(T);
        twice->setInput<double>("u", 0.5 * k);
        twice->simulate(0.01 * k);
    }
    counting = false;
    EXPECT_EQ(allocations.exchange(0), 0);
    EXPECT_GT(T, 99.0);
    EXPECT_EQ(twice->getOutput<double>("ya"), 501.5);
}
