#include "support/TestBlocks.h"

#include <sstream>
#include <type_traits>

#include "vandrel/core/Wire.h"
#include "vandrel/runtime/SimulationSystem.h"
#include "vandrel/scheme/BlockFactory.h"

namespace testblocks {

std::vector<std::string>& trace() {
    static std::vector<std::string> t;
    return t;
}

namespace {

void note(const wSimulationBlockDescriptor* d, double t) {
    std::ostringstream s;
    s << d->getName() << "@" << t;
    trace().push_back(s.str());
}

double in(const wSimulationBlockDescriptor* d, const unsigned char* data, int i) {
    return readWire<double>(data, d->getInputWireOffset(i));
}

// Stateless: out = f(descriptor, inputs).
template <class D, double (*f)(const D*, const unsigned char*)>
class Function : public wSimulationBlockStateless {
public:
    explicit Function(const D* d) : wSimulationBlockStateless(d), d_(d) {}
    void update(double t, unsigned char* data) override {
        note(d_, t);
        writeWire<double>(data, d_->getOutputWireOffset(0), f(d_, data));
    }

private:
    const D* d_;
};
double gain(const GainDescriptor* d, const unsigned char* data) { return d->k.get() * in(d, data, 0); }
double sum(const AddDescriptor* d, const unsigned char* data) { return in(d, data, 0) + in(d, data, 1); }

class Integrator : public wSimulationBlockDiff {
public:
    using wSimulationBlockDiff::wSimulationBlockDiff;
    void calculate_dy(double, unsigned char* data, unsigned char* dy) override {
        writeWire<double>(dy, descriptor_->getOutputWireOffset(0), in(descriptor_, data, 0));
    }
};

// Discrete: steps every dt, keeping `value` as its state.
template <class D, class T>
class Stepper : public wSimulationBlockDisc {
public:
    Stepper(const D* d, wSimulationSystem* s) : wSimulationBlockDisc(d, s), d_(d) {}
    double step(double t) override {
        note(d_, t);
        unsigned char* data = system_->getDataPtr();
        if constexpr (std::is_same_v<D, CounterDescriptor>) value_ += 1;
        else if constexpr (std::is_same_v<D, SamplerDescriptor>) value_ = in(d_, data, 0);
        else value_ = d_->v.get();
        writeWire<T>(data, d_->getOutputWireOffset(0), value_);
        if constexpr (std::is_same_v<D, VecSourceDescriptor>) return -1.0;
        else return d_->dt.get();
    }
    void reset() override { value_ = T{}; }
    void registerStateData() override {
        if constexpr (!std::is_same_v<D, VecSourceDescriptor>) regVar(value_);
    }
    int getBlockStateDataSize() const override {
        return std::is_same_v<D, VecSourceDescriptor> ? 0 : wSimulationBlockDisc::getBlockStateDataSize();
    }

private:
    const D* d_;
    T value_{};
};

}  // namespace

wSimulationBlockStateless* GainDescriptor::create(Lua::Loader*) const {
    return new Function<GainDescriptor, gain>(this);
}
wSimulationBlockStateless* AddDescriptor::create(Lua::Loader*) const {
    return new Function<AddDescriptor, sum>(this);
}
wSimulationBlockStateless* TriggerDescriptor::create(Lua::Loader*) const {
    return new Trigger(this);
}
wSimulationBlockDiff* IntegratorDescriptor::create(Lua::Loader*) const {
    return new Integrator(this);
}
wSimulationBlockDisc* CounterDescriptor::create(Lua::Loader*, wSimulationSystem* s) const {
    return new Stepper<CounterDescriptor, int>(this, s);
}
wSimulationBlockDisc* SamplerDescriptor::create(Lua::Loader*, wSimulationSystem* s) const {
    return new Stepper<SamplerDescriptor, double>(this, s);
}
wSimulationBlockDisc* VecSourceDescriptor::create(Lua::Loader*, wSimulationSystem* s) const {
    return new Stepper<VecSourceDescriptor, Vec3d>(this, s);
}

void registerAll() {
    static const bool once = [] {
        auto* f = wSimulationBlockFactory::instance();
        f->registerClass<GainDescriptor>("TestGain");
        f->registerClass<AddDescriptor>("TestAdd");
        f->registerClass<IntegratorDescriptor>("TestIntegrator");
        f->registerClass<CounterDescriptor>("TestCounter");
        f->registerClass<SamplerDescriptor>("TestSampler");
        f->registerClass<TriggerDescriptor>("TestTrigger");
        f->registerClass<VecSourceDescriptor>("TestVecSource");
        return true;
    }();
    (void)once;
}

}  // namespace testblocks
