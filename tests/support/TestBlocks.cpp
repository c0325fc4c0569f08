#include "support/TestBlocks.h"

#include <sstream>

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

class Gain : public wSimulationBlockStateless {
public:
    explicit Gain(const GainDescriptor* d) : wSimulationBlockStateless(d), d_(d) {}
    void update(double t, unsigned char* data) override {
        note(d_, t);
        writeWire<double>(data, d_->getOutputWireOffset(0), d_->k.get() * in(d_, data, 0));
    }

private:
    const GainDescriptor* d_;
};

class Add : public wSimulationBlockStateless {
public:
    using wSimulationBlockStateless::wSimulationBlockStateless;
    void update(double t, unsigned char* data) override {
        note(descriptor_, t);
        writeWire<double>(data, descriptor_->getOutputWireOffset(0), in(descriptor_, data, 0) + in(descriptor_, data, 1));
    }
};

class Integrator : public wSimulationBlockDiff {
public:
    using wSimulationBlockDiff::wSimulationBlockDiff;
    void calculate_dy(double, unsigned char* data, unsigned char* dy) override {
        writeWire<double>(dy, descriptor_->getOutputWireOffset(0), in(descriptor_, data, 0));
    }
};

class Counter : public wSimulationBlockDisc {
public:
    Counter(const CounterDescriptor* d, wSimulationSystem* s) : wSimulationBlockDisc(d, s), d_(d) {}
    double step(double t) override {
        note(d_, t);
        writeWire<int>(system_->getDataPtr(), d_->getOutputWireOffset(0), ++count_);
        return d_->dt.get();
    }
    void reset() override { count_ = 0; }
    void registerStateData() override { regVar(count_); }

private:
    const CounterDescriptor* d_;
    int count_ = 0;  // steps taken since reset
};

class Sampler : public wSimulationBlockDisc {
public:
    Sampler(const SamplerDescriptor* d, wSimulationSystem* s) : wSimulationBlockDisc(d, s), d_(d) {}
    double step(double t) override {
        note(d_, t);
        last_ = in(d_, system_->getDataPtr(), 0);
        writeWire<double>(system_->getDataPtr(), d_->getOutputWireOffset(0), last_);
        return d_->dt.get();
    }
    void registerStateData() override { regVar(last_); }

private:
    const SamplerDescriptor* d_;
    double last_ = 0;  // last sampled value
};

class VecSource : public wSimulationBlockDisc {
public:
    VecSource(const VecSourceDescriptor* d, wSimulationSystem* s) : wSimulationBlockDisc(d, s), d_(d) {}
    double step(double t) override {
        note(d_, t);
        writeWire<Vec3d>(system_->getDataPtr(), d_->getOutputWireOffset(0), d_->v.get());
        return -1.0;
    }
    int getBlockStateDataSize() const override { return 0; }

private:
    const VecSourceDescriptor* d_;
};

const wLeadList& doubleIn() { static const wLeadList l{{"in", LEAD_DOUBLE}}; return l; }
const wLeadList& doubleOut() { static const wLeadList l{{"out", LEAD_DOUBLE}}; return l; }

}  // namespace

std::unique_ptr<wSimulationBlockStateless> GainDescriptor::create(Lua::Loader*) const { return std::make_unique<Gain>(this); }
const wLeadList& GainDescriptor::getInputWires_() const { return doubleIn(); }
const wLeadList& GainDescriptor::getOutputWires_() const { return doubleOut(); }

std::unique_ptr<wSimulationBlockStateless> AddDescriptor::create(Lua::Loader*) const { return std::make_unique<Add>(this); }
const wLeadList& AddDescriptor::getInputWires_() const { static const wLeadList l{{"a", LEAD_DOUBLE}, {"b", LEAD_DOUBLE}}; return l; }
const wLeadList& AddDescriptor::getOutputWires_() const { return doubleOut(); }

std::unique_ptr<wSimulationBlockDiff> IntegratorDescriptor::create(Lua::Loader*) const { return std::make_unique<Integrator>(this); }
const wLeadList& IntegratorDescriptor::getInputWires_() const { return doubleIn(); }
const wLeadList& IntegratorDescriptor::getOutputWires_() const { static const wLeadList l{{"x", LEAD_DOUBLE}}; return l; }

std::unique_ptr<wSimulationBlockDisc> CounterDescriptor::create(Lua::Loader*, wSimulationSystem* s) const { return std::make_unique<Counter>(this, s); }
const wLeadList& CounterDescriptor::getOutputWires_() const { static const wLeadList l{{"count", LEAD_INT}}; return l; }

std::unique_ptr<wSimulationBlockDisc> SamplerDescriptor::create(Lua::Loader*, wSimulationSystem* s) const { return std::make_unique<Sampler>(this, s); }
const wLeadList& SamplerDescriptor::getInputWires_() const { return doubleIn(); }
const wLeadList& SamplerDescriptor::getOutputWires_() const { return doubleOut(); }

std::unique_ptr<wSimulationBlockStateless> TriggerDescriptor::create(Lua::Loader*) const { return std::make_unique<Trigger>(this); }
const wLeadList& TriggerDescriptor::getInputPorts_() const { static const wLeadList l{{"in", LEAD_BOOL}}; return l; }
const wLeadList& TriggerDescriptor::getOutputPorts_() const { static const wLeadList l{{"out", LEAD_BOOL}}; return l; }

std::unique_ptr<wSimulationBlockDisc> VecSourceDescriptor::create(Lua::Loader*, wSimulationSystem* s) const { return std::make_unique<VecSource>(this, s); }
const wLeadList& VecSourceDescriptor::getOutputWires_() const { static const wLeadList l{{"v", LEAD_VECTOR}}; return l; }

Trigger::Trigger(const TriggerDescriptor* d) : wSimulationBlockStateless(d), in_(this, &Trigger::onIn_) {}
void Trigger::onIn_(const bool& v) {
    ++arrivals;
    out_.setValue(!v);
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
