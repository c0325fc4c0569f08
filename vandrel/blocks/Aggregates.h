#pragma once
// Blocks that combine a variable number of inputs of one value type T (int, double or
// Vec3d) into one output wire "output" of type T:
//
//   Sum     out = sum of in[i] * coeff[i]; coefficients are int for Sum (int), double
//           otherwise (a vector is scaled by its double coefficient).
//   AvgVal  inputs in pairs (value T, weight int): the weighted mean over the pairs whose
//           weight is positive; 0 when there is none. The int variant accumulates in
//           double and truncates the mean toward zero.
//   MaxVal  inputs in pairs (value T, enable bool): the largest enabled value, per
//   MinVal  component for vectors (so x, y and z may come from different inputs); 0 when
//           no pair is enabled.
//
// Every block keeps its inputs in its own list and stores it in its file entry after the
// common keys, as "inputs" = { [1] = { name = ..., coeff = ... }, ... } for Sum and
// { [1] = { name = value wire }, [2] = { name = its weight/enable wire }, ... } for the
// paired blocks. They have no parameters.
#include "vandrel/core/SimulationBlock.h"
#include "vandrel/core/SimulationBlockDescriptor.h"

// Spelling of T in class names ("int", "double", "Vec3d") and display names ("int",
// "dbl", "vec"), and the type of Sum's coefficients.
template <class T>
struct wAggregateTraits;
template <>
struct wAggregateTraits<int> {
    using Coefficient = int;
    static constexpr const char* className = "int";
    static constexpr const char* shortName = "int";
};
template <>
struct wAggregateTraits<double> {
    using Coefficient = double;
    static constexpr const char* className = "double";
    static constexpr const char* shortName = "dbl";
};
template <>
struct wAggregateTraits<Vec3d> {
    using Coefficient = double;
    static constexpr const char* className = "Vec3d";
    static constexpr const char* shortName = "vec";
};

// ---- Sum

template <class T>
class wBlockSummator;

template <class T>
class wBlockSummatorDescriptor
    : public wDescriptorImpl<wBlockSummatorDescriptor<T>, wSimulationBlockStatelessDescriptor> {
public:
    using Coefficient = typename wAggregateTraits<T>::Coefficient;

    // "input1" and "input2", both with coefficient 1.
    wBlockSummatorDescriptor();

    static const zo::string& getBlockClassNameS();
    static const zo::string& getBlockTypeNameS();
    wSimulationBlockStateless* create(Lua::Loader* loader) const override;
    void serialize(wBlockSerializer& s) override;

    // Replaces the inputs by one input per name, in order, each with coefficient 1.
    void set(const zo::vector<zo::string>& names);
    const zo::vector<Coefficient>& getCoefficients() const { return coefficients_; }
    void setCoefficient(int i, Coefficient c) { coefficients_[static_cast<std::size_t>(i)] = c; }

protected:
    const wLeadList& getInputWires_() const override { return inputs_; }
    const wLeadList& getOutputWires_() const override;

private:
    wLeadList inputs_;
    zo::vector<Coefficient> coefficients_;  // one per input, same order
};

template <class T>
class wBlockSummator : public wSimulationBlockStateless {
public:
    using Coefficient = typename wBlockSummatorDescriptor<T>::Coefficient;
    // Takes the wire offsets and coefficients once: the scheme does not change while it runs.
    explicit wBlockSummator(const wBlockSummatorDescriptor<T>* d);
    void update(double t, unsigned char* data) override;

private:
    struct Term {
        int offset;               // byte offset of the input wire
        Coefficient coefficient;  // its weight
    };
    zo::vector<Term> terms_;
    int outputOffset_;  // byte offset of "output"
};

// ---- Paired inputs: (value T, second wire) per pair

// The common part of AvgVal, MaxVal and MinVal: a list of pairs of a value wire of type T
// and a second wire of type Second, an int weight or a bool enable. A new block has
// "input1", "weight1"/"active1", "input2", "weight2"/"active2".
template <class T, eLeadType Second>
class wBlockPairedInputsDescriptor : public wSimulationBlockStatelessDescriptor {
public:
    void serialize(wBlockSerializer& s) override;
    // Number of (value, second) pairs.
    int pairCount() const { return static_cast<int>(inputs_.size() / 2); }

protected:
    wBlockPairedInputsDescriptor();
    wBlockPairedInputsDescriptor(const wBlockPairedInputsDescriptor&) = default;

    const wLeadList& getInputWires_() const override { return inputs_; }
    const wLeadList& getOutputWires_() const override;

private:
    wLeadList inputs_;  // value, second, value, second, ...
};

template <class T>
class wBlockAvgVal;
template <class T>
class wBlockMaxVal;
template <class T>
class wBlockMinVal;

// Weights are int wires.
template <class T>
class wBlockAvgerageValDescriptor
    : public wDescriptorImpl<wBlockAvgerageValDescriptor<T>, wBlockPairedInputsDescriptor<T, LEAD_INT>> {
public:
    static const zo::string& getBlockClassNameS();
    static const zo::string& getBlockTypeNameS();
    wSimulationBlockStateless* create(Lua::Loader* loader) const override;
};

// Enables are bool wires.
template <class T>
class wBlockMaxValDescriptor
    : public wDescriptorImpl<wBlockMaxValDescriptor<T>, wBlockPairedInputsDescriptor<T, LEAD_BOOL>> {
public:
    static const zo::string& getBlockClassNameS();
    static const zo::string& getBlockTypeNameS();
    wSimulationBlockStateless* create(Lua::Loader* loader) const override;
};

template <class T>
class wBlockMinValDescriptor
    : public wDescriptorImpl<wBlockMinValDescriptor<T>, wBlockPairedInputsDescriptor<T, LEAD_BOOL>> {
public:
    static const zo::string& getBlockClassNameS();
    static const zo::string& getBlockTypeNameS();
    wSimulationBlockStateless* create(Lua::Loader* loader) const override;
};

template <class T>
class wBlockAvgVal : public wSimulationBlockStateless {
public:
    using wSimulationBlockStateless::wSimulationBlockStateless;
    void update(double t, unsigned char* data) override;
};

template <class T>
class wBlockMaxVal : public wSimulationBlockStateless {
public:
    using wSimulationBlockStateless::wSimulationBlockStateless;
    void update(double t, unsigned char* data) override;
};

template <class T>
class wBlockMinVal : public wSimulationBlockStateless {
public:
    using wSimulationBlockStateless::wSimulationBlockStateless;
    void update(double t, unsigned char* data) override;
};

#define VANDREL_AGGREGATE_EXTERN(T)                              \
    extern template class wBlockSummatorDescriptor<T>;           \
    extern template class wBlockSummator<T>;                     \
    extern template class wBlockAvgerageValDescriptor<T>;        \
    extern template class wBlockAvgVal<T>;                       \
    extern template class wBlockMaxValDescriptor<T>;             \
    extern template class wBlockMaxVal<T>;                       \
    extern template class wBlockMinValDescriptor<T>;             \
    extern template class wBlockMinVal<T>;
VANDREL_AGGREGATE_EXTERN(int)
VANDREL_AGGREGATE_EXTERN(double)
VANDREL_AGGREGATE_EXTERN(Vec3d)
#undef VANDREL_AGGREGATE_EXTERN

extern template class wBlockPairedInputsDescriptor<int, LEAD_INT>;
extern template class wBlockPairedInputsDescriptor<double, LEAD_INT>;
extern template class wBlockPairedInputsDescriptor<Vec3d, LEAD_INT>;
extern template class wBlockPairedInputsDescriptor<int, LEAD_BOOL>;
extern template class wBlockPairedInputsDescriptor<double, LEAD_BOOL>;
extern template class wBlockPairedInputsDescriptor<Vec3d, LEAD_BOOL>;
