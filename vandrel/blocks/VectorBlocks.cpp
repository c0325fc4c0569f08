#include "vandrel/blocks/VectorBlocks.h"

#include <numbers>

#include "vandrel/core/Wire.h"

#define VECTOR_NAMES(Cls, className, typeName)                                                         \
    const zo::string& Cls::getBlockClassNameS() { static const zo::string s = className; return s; } \
    const zo::string& Cls::getBlockTypeNameS() { static const zo::string s = typeName; return s; }

VECTOR_NAMES(wDoubleToVec3dDescriptor, "wDoubleToVec3dDescriptor", "Double to Vector")
VECTOR_NAMES(wVec3dToDoubleDescriptor, "wVec3dToDoubleDescriptor", "Vector to double")
VECTOR_NAMES(wBlockVectorPickerDescriptor, "wBlockVectorPickerDescriptor", "Demux")
VECTOR_NAMES(wVec3dModDescriptor, "wVec3dModDescriptor", "Vector modify")
VECTOR_NAMES(wRotatorBlockDescriptor, "wRotatorBlockDescriptor", "Rotate Rot3d")

#undef VECTOR_NAMES

namespace {

const wLeadList& xyzWires() {
    static const wLeadList l{{"x", LEAD_DOUBLE}, {"y", LEAD_DOUBLE}, {"z", LEAD_DOUBLE}};
    return l;
}

const wLeadList& vecWire() {
    static const wLeadList l{{"vec", LEAD_VECTOR}};
    return l;
}

}  // namespace

// ---- Descriptors

wParameterList wVec3dMultipliersDescriptor::getParametersList() {
    wParameterList l;
    l.push_back(parameterRef("mult_x", mult_x));
    l.push_back(parameterRef("mult_y", mult_y));
    l.push_back(parameterRef("mult_z", mult_z));
    return l;
}

wSimulationBlockStateless* wDoubleToVec3dDescriptor::create(Lua::Loader*) const {
    return new wDoubleToVec3d(this);
}
const wLeadList& wDoubleToVec3dDescriptor::getInputWires_() const { return xyzWires(); }
const wLeadList& wDoubleToVec3dDescriptor::getOutputWires_() const { return vecWire(); }

wSimulationBlockStateless* wVec3dToDoubleDescriptor::create(Lua::Loader*) const {
    return new wVec3dToDouble(this);
}
const wLeadList& wVec3dToDoubleDescriptor::getInputWires_() const { return vecWire(); }
const wLeadList& wVec3dToDoubleDescriptor::getOutputWires_() const { return xyzWires(); }

wSimulationBlockStateless* wBlockVectorPickerDescriptor::create(Lua::Loader*) const {
    // Indices other than 1 and 2 (0, negative, 3 and up) pick x.
    switch (component()) {
        case 1: return new wVectorPickerImpl<1>(this);
        case 2: return new wVectorPickerImpl<2>(this);
        default: return new wVectorPickerImpl<0>(this);
    }
}
wParameterList wBlockVectorPickerDescriptor::getParametersList() {
    wParameterList l;
    l.push_back(parameterRef("index", index));
    return l;
}
const wLeadList& wBlockVectorPickerDescriptor::getInputWires_() const {
    static const wLeadList l{{"input", LEAD_VECTOR}};
    return l;
}
const wLeadList& wBlockVectorPickerDescriptor::getOutputWires_() const {
    static const wLeadList l{{"output", LEAD_DOUBLE}};
    return l;
}

wSimulationBlockStateless* wVec3dModDescriptor::create(Lua::Loader*) const {
    Rot3d rotation;
    rotation.setEulerAngles(0, Vec3d{rotate_x.get(), rotate_y.get(), rotate_z.get()});
    return new wVec3dMod(this, Vec3d{mult_x.get(), mult_y.get(), mult_z.get()}, rotation);
}
wParameterList wVec3dModDescriptor::getParametersList() {
    wParameterList l;
    l.push_back(parameterRef("mult_x", mult_x));
    l.push_back(parameterRef("mult_y", mult_y));
    l.push_back(parameterRef("mult_z", mult_z));
    l.push_back(parameterRef("rotate_x", rotate_x));
    l.push_back(parameterRef("rotate_y", rotate_y));
    l.push_back(parameterRef("rotate_z", rotate_z));
    return l;
}
const wLeadList& wVec3dModDescriptor::getInputWires_() const { return vecWire(); }
const wLeadList& wVec3dModDescriptor::getOutputWires_() const {
    static const wLeadList l{{"mvec", LEAD_VECTOR}};
    return l;
}

wSimulationBlockStateless* wRotatorBlockDescriptor::create(Lua::Loader*) const {
    return new wRotatorBlock(this);
}
wParameterList wRotatorBlockDescriptor::getParametersList() {
    wParameterList l;
    l.push_back(parameterRef("rotate_x", rotate_x));
    l.push_back(parameterRef("rotate_y", rotate_y));
    l.push_back(parameterRef("rotate_z", rotate_z));
    return l;
}
const wLeadList& wRotatorBlockDescriptor::getInputWires_() const {
    static const wLeadList l{{"rot", LEAD_QUATERNION}, {"angle", LEAD_DOUBLE}};
    return l;
}
const wLeadList& wRotatorBlockDescriptor::getOutputWires_() const {
    static const wLeadList l{{"out", LEAD_QUATERNION}};
    return l;
}

// ---- Runtime blocks

void wDoubleToVec3d::update(double, unsigned char* data) {
    const Vec3d m = d_->multipliers();
    const Vec3d v{readWire<double>(data, d_->getInputWireOffset(0)) * m.x,
                  readWire<double>(data, d_->getInputWireOffset(1)) * m.y,
                  readWire<double>(data, d_->getInputWireOffset(2)) * m.z};
    writeWire<Vec3d>(data, d_->getOutputWireOffset(0), v);
}

void wVec3dToDouble::update(double, unsigned char* data) {
    const Vec3d m = d_->multipliers();
    const Vec3d v = readWire<Vec3d>(data, d_->getInputWireOffset(0));
    writeWire<double>(data, d_->getOutputWireOffset(0), v.x * m.x);
    writeWire<double>(data, d_->getOutputWireOffset(1), v.y * m.y);
    writeWire<double>(data, d_->getOutputWireOffset(2), v.z * m.z);
}

template <int N>
void wVectorPickerImpl<N>::update(double, unsigned char* data) {
    const Vec3d v = readWire<Vec3d>(data, descriptor_->getInputWireOffset(0));
    writeWire<double>(data, descriptor_->getOutputWireOffset(0), v[N]);
}

template class wVectorPickerImpl<0>;
template class wVectorPickerImpl<1>;
template class wVectorPickerImpl<2>;

void wVec3dMod::update(double, unsigned char* data) {
    const Vec3d v = readWire<Vec3d>(data, descriptor_->getInputWireOffset(0));
    // Rotation of v by the unit quaternion (q, qw): r = v + 2 qw (q x v) + 2 q x (q x v).
    const Vec3d q{rotation_.x, rotation_.y, rotation_.z};
    const Vec3d c = q.cross(v);
    const Vec3d d = q.cross(c);
    const Vec3d r = v + c * (2 * rotation_.w) + d * 2.0;
    writeWire<Vec3d>(data, descriptor_->getOutputWireOffset(0),
                     Vec3d{r.x * multipliers_.x, r.y * multipliers_.y, r.z * multipliers_.z});
}

void wRotatorBlock::update(double, unsigned char* data) {
    const Rot3d in = readWire<Rot3d>(data, descriptor_->getInputWireOffset(0));
    const double angle = readWire<double>(data, descriptor_->getInputWireOffset(1));
    const Vec3d ypr = in.getYawPitchRoll();
    yaw_ = ypr.x;
    pitch_ = ypr.y;
    // One correction each way, not a modulo: a sum below -3 pi stays below -pi.
    double roll = ypr.z + angle;
    if (roll < -std::numbers::pi) roll += 2 * std::numbers::pi;
    if (roll > std::numbers::pi) roll -= 2 * std::numbers::pi;
    roll_ = roll;
    Rot3d out;
    out.setYawPitchRoll(yaw_, pitch_, roll_);
    writeWire<Rot3d>(data, descriptor_->getOutputWireOffset(0), out);
}
