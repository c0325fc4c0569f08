#pragma once
// Scalar type conversions and the Constants block.
//
//   conv_i2d  int -> double, exact          conv_b2i  bool -> int, 1 / 0
//   conv_i2b  int -> bool, input > 0        conv_b2d  bool -> double, 1.0 / 0.0
//   conv_d2b  double -> bool, input > 0.0 (so -0.0 and NaN give false)
// Each has one input wire "input" and one output wire "output". There is deliberately no
// double -> int conversion. The class names spell the comma of the template arguments as
// " CMA " ("wBlockI2ODescriptor<int CMA double>") so that the file key holds no comma.
//
// Constants block: a user-defined list of named, typed values (int, double, Vec3d, bool,
// unsigned object id), each presented on an output wire of the same name. The values are
// written into the data area when the runtime block is created; it never runs again and
// has no state to save (its state blob is empty, not absent).
#include "vandrel/core/SimulationBlock.h"
#include "vandrel/core/SimulationBlockDescriptor.h"

// ---- Conversions

// Spelling of a scalar type in class names and the letter in display names.
template <class T>
struct wConversionTraits;
template <>
struct wConversionTraits<int> {
    static constexpr const char* className = "int";
    static constexpr char letter = 'i';
};
template <>
struct wConversionTraits<bool> {
    static constexpr const char* className = "bool";
    static constexpr char letter = 'b';
};
template <>
struct wConversionTraits<double> {
    static constexpr const char* className = "double";
    static constexpr char letter = 'd';
};

template <class In, class Out>
class wBlockI2O;

template <class In, class Out>
class wBlockI2ODescriptor
    : public wDescriptorImpl<wBlockI2ODescriptor<In, Out>, wSimulationBlockStatelessDescriptor> {
public:
    static const zo::string& getBlockClassNameS();
    static const zo::string& getBlockTypeNameS();
    wSimulationBlockStateless* create(Lua::Loader* loader) const override;

protected:
    const wLeadList& getInputWires_() const override;
    const wLeadList& getOutputWires_() const override;
};

template <class In, class Out>
class wBlockI2O : public wSimulationBlockStateless {
public:
    explicit wBlockI2O(const wBlockI2ODescriptor<In, Out>* descriptor) : wSimulationBlockStateless(descriptor) {}
    void update(double t, unsigned char* data) override;
};

extern template class wBlockI2ODescriptor<int, double>;
extern template class wBlockI2ODescriptor<int, bool>;
extern template class wBlockI2ODescriptor<double, bool>;
extern template class wBlockI2ODescriptor<bool, int>;
extern template class wBlockI2ODescriptor<bool, double>;
extern template class wBlockI2O<int, double>;
extern template class wBlockI2O<int, bool>;
extern template class wBlockI2O<double, bool>;
extern template class wBlockI2O<bool, int>;
extern template class wBlockI2O<bool, double>;

// ---- Constants

class wBlockConstants;

// File entry: "values" = { [1] = { name = ..., type = <parameter type code> }, ... }
// first, then the common keys, each value stored as a parameter of that name.
class wBlockConstantsDescriptor
    : public wDescriptorImpl<wBlockConstantsDescriptor, wSimulationBlockDiscDescriptor> {
public:
    static const zo::string& getBlockClassNameS();
    static const zo::string& getBlockTypeNameS();

    // Writes every value to its output wire in the system's data area, then makes the block.
    wSimulationBlockDisc* create(Lua::Loader* loader, wSimulationSystem* system) const override;
    void serialize(wBlockSerializer& s) override;
    // References to the stored values.
    wParameterList getParametersList() override;
    // Replaces the values by copies of the list's elements and rebuilds the output wires.
    // A value of a type without a wire type throws, leaving the block unchanged.
    void setParameters(const wParameterList& list);

    // Lead type of a value of parameter type t; throws "Cannot convert parameter type to
    // constant type" for strings and unknown codes.
    static eLeadType convertToWireType_(eParameterType t);

protected:
    const wLeadList& getOutputWires_() const override { return outputs_; }
    // One output wire per value, in order, named as the value.
    void updateWiresList_();
    // Copies the value's bytes to a wire slot by its type; other types write nothing.
    static void setValueToLeadData_(const wBlockParameterContainer& value, unsigned char* place);

private:
    zo::vector<wBlockParameterContainer> values_;  // owning, one per output wire
    wLeadList outputs_;
};

class wBlockConstants : public wSimulationBlockDisc {
public:
    wBlockConstants(const wBlockConstantsDescriptor* descriptor, wSimulationSystem* system)
        : wSimulationBlockDisc(descriptor, system) {}
    // The values were written at creation: nothing to do, never again.
    double step(double) override { return -1.0; }
    // No state, but a saveable one: an empty blob.
    int getBlockStateDataSize() const override { return 0; }
};
