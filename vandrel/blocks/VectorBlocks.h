#pragma once
// Blocks on the vector and quaternion lead types:
//
//   "Double to Vector"  x, y, z (double)   -> vec = (x*mult_x, y*mult_y, z*mult_z)
//   "Vector to double"  vec                 -> x, y, z = vec.x*mult_x, vec.y*mult_y, vec.z*mult_z
//   "Demux"             input (vec)         -> output = component "index" (0 x, 1 y, 2 z;
//                                              any other index picks x)
//   "Vector modify"     vec                 -> mvec = (rotated vec) scaled per component; the
//                                              rotation is made from the Euler angles
//                                              rotate_x, rotate_y, rotate_z (radians)
//   "Rotate Rot3d"      rot (quat), angle   -> out = rot with `angle` added to its roll
//
// The multipliers default to 0, not 1: a block whose multipliers were never set outputs
// zeros. Schemes always store the three values, so the default must stay as it is.
// The three bool flags of "Rotate Rot3d" are stored and read but have no effect; older
// scheme files carry them.
#include "vandrel/core/BlockParameter.h"
#include "vandrel/core/SimulationBlock.h"
#include "vandrel/core/SimulationBlockDescriptor.h"

// The per-component multipliers shared by "Double to Vector" and "Vector to double".
class wVec3dMultipliersDescriptor : public wSimulationBlockStatelessDescriptor {
public:
    // "mult_x", "mult_y", "mult_z".
    wParameterList getParametersList() override;
    Vec3d multipliers() const { return {mult_x.get(), mult_y.get(), mult_z.get()}; }

    wBlockParameterProxy<double> mult_x{0.0};
    wBlockParameterProxy<double> mult_y{0.0};
    wBlockParameterProxy<double> mult_z{0.0};

protected:
    wVec3dMultipliersDescriptor() = default;
    wVec3dMultipliersDescriptor(const wVec3dMultipliersDescriptor&) = default;
};

class wDoubleToVec3dDescriptor : public wDescriptorImpl<wDoubleToVec3dDescriptor, wVec3dMultipliersDescriptor> {
public:
    static const zo::string& getBlockClassNameS();
    static const zo::string& getBlockTypeNameS();
    wSimulationBlockStateless* create(Lua::Loader* loader) const override;

protected:
    const wLeadList& getInputWires_() const override;
    const wLeadList& getOutputWires_() const override;
};

class wVec3dToDoubleDescriptor : public wDescriptorImpl<wVec3dToDoubleDescriptor, wVec3dMultipliersDescriptor> {
public:
    static const zo::string& getBlockClassNameS();
    static const zo::string& getBlockTypeNameS();
    wSimulationBlockStateless* create(Lua::Loader* loader) const override;

protected:
    const wLeadList& getInputWires_() const override;
    const wLeadList& getOutputWires_() const override;
};

class wBlockVectorPickerDescriptor
    : public wDescriptorImpl<wBlockVectorPickerDescriptor, wSimulationBlockStatelessDescriptor> {
public:
    static const zo::string& getBlockClassNameS();
    static const zo::string& getBlockTypeNameS();
    // The component picker is chosen now, from "index"; later changes need a new block.
    wSimulationBlockStateless* create(Lua::Loader* loader) const override;
    wParameterList getParametersList() override;
    int component() const { return index.get(); }

    wBlockParameterProxy<int> index{0};

protected:
    const wLeadList& getInputWires_() const override;
    const wLeadList& getOutputWires_() const override;
};

class wVec3dModDescriptor : public wDescriptorImpl<wVec3dModDescriptor, wSimulationBlockStatelessDescriptor> {
public:
    static const zo::string& getBlockClassNameS();
    static const zo::string& getBlockTypeNameS();
    // Multipliers and rotation are copied into the runtime block now.
    wSimulationBlockStateless* create(Lua::Loader* loader) const override;
    wParameterList getParametersList() override;

    wBlockParameterProxy<double> mult_x{0.0};
    wBlockParameterProxy<double> mult_y{0.0};
    wBlockParameterProxy<double> mult_z{0.0};
    wBlockParameterProxy<double> rotate_x{0.0};  // radians
    wBlockParameterProxy<double> rotate_y{0.0};  // radians
    wBlockParameterProxy<double> rotate_z{0.0};  // radians

protected:
    const wLeadList& getInputWires_() const override;
    const wLeadList& getOutputWires_() const override;
};

class wRotatorBlockDescriptor : public wDescriptorImpl<wRotatorBlockDescriptor, wSimulationBlockStatelessDescriptor> {
public:
    static const zo::string& getBlockClassNameS();
    static const zo::string& getBlockTypeNameS();
    wSimulationBlockStateless* create(Lua::Loader* loader) const override;
    wParameterList getParametersList() override;

    // Stored for compatibility; the computation does not read them.
    wBlockParameterProxy<bool> rotate_x{false};
    wBlockParameterProxy<bool> rotate_y{false};
    wBlockParameterProxy<bool> rotate_z{false};

protected:
    const wLeadList& getInputWires_() const override;
    const wLeadList& getOutputWires_() const override;
};

// ---- Runtime blocks

class wDoubleToVec3d : public wSimulationBlockStateless {
public:
    explicit wDoubleToVec3d(const wDoubleToVec3dDescriptor* d) : wSimulationBlockStateless(d), d_(d) {}
    void update(double t, unsigned char* data) override;

private:
    const wDoubleToVec3dDescriptor* d_;
};

class wVec3dToDouble : public wSimulationBlockStateless {
public:
    explicit wVec3dToDouble(const wVec3dToDoubleDescriptor* d) : wSimulationBlockStateless(d), d_(d) {}
    void update(double t, unsigned char* data) override;

private:
    const wVec3dToDoubleDescriptor* d_;
};

class wBlockVectorPicker : public wSimulationBlockStateless {
public:
    using wSimulationBlockStateless::wSimulationBlockStateless;
};

// Picks component N (0 x, 1 y, 2 z) of the input vector.
template <int N>
class wVectorPickerImpl : public wBlockVectorPicker {
    static_assert(N >= 0 && N < 3);

public:
    using wBlockVectorPicker::wBlockVectorPicker;
    void update(double t, unsigned char* data) override;
};

extern template class wVectorPickerImpl<0>;
extern template class wVectorPickerImpl<1>;
extern template class wVectorPickerImpl<2>;

class wVec3dMod : public wSimulationBlockStateless {
public:
    wVec3dMod(const wVec3dModDescriptor* d, const Vec3d& multipliers, const Rot3d& rotation)
        : wSimulationBlockStateless(d), multipliers_(multipliers), rotation_(rotation) {}
    void update(double t, unsigned char* data) override;

private:
    Vec3d multipliers_;  // per-component factors applied after the rotation
    Rot3d rotation_;     // unit quaternion from the Euler angles at creation
};

class wRotatorBlock : public wSimulationBlockStateless {
public:
    explicit wRotatorBlock(const wRotatorBlockDescriptor* d) : wSimulationBlockStateless(d) {}
    void update(double t, unsigned char* data) override;

private:
    // The last (yaw, pitch, roll) written, radians.
    double yaw_ = 0;
    double pitch_ = 0;
    double roll_ = 0;
};
