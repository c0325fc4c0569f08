#include "vandrel/blocks/Integrator.h"

#include <cmath>

#include "vandrel/core/Wire.h"
#include "vandrel/runtime/SimulationSystem.h"

// ---- Integrator

template <>
const zo::string& wBlockIntegratorDescriptor<double>::getBlockClassNameS() {
    static const zo::string s = "wBlockIntegratorDescriptor<double>";
    return s;
}
template <>
const zo::string& wBlockIntegratorDescriptor<double>::getBlockTypeNameS() {
    static const zo::string s = "I (dbl)";
    return s;
}
template <>
const zo::string& wBlockIntegratorDescriptor<Vec3d>::getBlockClassNameS() {
    static const zo::string s = "wBlockIntegratorDescriptor<Vec3d>";
    return s;
}
template <>
const zo::string& wBlockIntegratorDescriptor<Vec3d>::getBlockTypeNameS() {
    static const zo::string s = "I (vec)";
    return s;
}

template <class T>
wSimulationBlockDiff* wBlockIntegratorDescriptor<T>::create(Lua::Loader*) const {
    return new wBlockIntegrator<T>(this);
}

template <class T>
const wLeadList& wBlockIntegratorDescriptor<T>::getInputWires_() const {
    static const wLeadList leads{{"input", wLeadTypeOf<T>::value}};
    return leads;
}

template <class T>
const wLeadList& wBlockIntegratorDescriptor<T>::getOutputWires_() const {
    static const wLeadList leads{{"output", wLeadTypeOf<T>::value}};
    return leads;
}

template <class T>
void wBlockIntegrator<T>::calculate_dy(double, unsigned char* data, unsigned char* dy) {
    writeWire<T>(dy, outputOffset_, readWire<T>(data, inputOffset_));
}

template class wBlockIntegratorDescriptor<double>;
template class wBlockIntegratorDescriptor<Vec3d>;
template class wBlockIntegrator<double>;
template class wBlockIntegrator<Vec3d>;

// ---- Ramp

const zo::string& wBlockRampDescriptor::getBlockClassNameS() {
    static const zo::string s = "wBlockRampDescriptor";
    return s;
}

const zo::string& wBlockRampDescriptor::getBlockTypeNameS() {
    static const zo::string s = "Ramp block";
    return s;
}

wSimulationBlockDisc* wBlockRampDescriptor::create(Lua::Loader*, wSimulationSystem* system) const {
    auto block = std::make_unique<wBlockRamp>(this, system);
    writeWire<double>(system->getDataPtr(), getOutputWireOffset(0), 0.0);
    return block.release();
}

wParameterList wBlockRampDescriptor::getParametersList() {
    wParameterList list = wSimulationBlockDiscDescriptor::getParametersList();
    list.push_back(parameterRef("dt", dt));
    list.push_back(parameterRef("slope", slope));
    return list;
}

const wLeadList& wBlockRampDescriptor::getInputWires_() const {
    static const wLeadList leads{{"target", LEAD_DOUBLE}};
    return leads;
}

const wLeadList& wBlockRampDescriptor::getOutputWires_() const {
    static const wLeadList leads{{"output", LEAD_DOUBLE}};
    return leads;
}

wBlockRamp::wBlockRamp(const wBlockRampDescriptor* descriptor, wSimulationSystem* system)
    : wSimulationBlockDisc(descriptor, system), d_(descriptor) {}

double wBlockRamp::step(double) {
    unsigned char* data = system_->getDataPtr();
    const double dt = d_->dt.get();
    const double slope = d_->slope.get();
    const double target = readWire<double>(data, d_->getInputWireOffset(0));
    double out = readWire<double>(data, d_->getOutputWireOffset(0));

    // A full step whenever the target is farther than one step; otherwise (and when a
    // NaN makes the comparison fail) land on the target. A negative slope is used as is.
    const double diff = target - out;
    if (std::abs(diff) > dt * slope) {
        out += diff > 0 ? dt * slope : dt * -slope;
    } else {
        out = target;
    }
    writeWire<double>(data, d_->getOutputWireOffset(0), out);
    return dt;
}
