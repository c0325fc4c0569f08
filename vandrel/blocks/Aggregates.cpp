#include "vandrel/blocks/Aggregates.h"

#include <cstdint>
#include <ostream>

#include "vandrel/core/Ports.h"
#include "vandrel/core/Wire.h"
#include "vandrel/platform/LuaLoader.h"
#include "vandrel/runtime/SimulationLogger.h"
#include "vandrel/scheme/BlockSerializer.h"

namespace {

// One byte tested per evaluation; the line itself is written out of line.
inline void logStep(const char* what, double t) {
    if (wSimulationLogger::tracingSteps()) [[unlikely]] wSimulationLogger::traceStep(what, t);
}

// Blocks that take their offsets when built need the scheme laid out first.
const wSimulationBlockDescriptor& requireLayout(const wSimulationBlockDescriptor* d) {
    if (!d->hasWireOffsets())
        throw wSimulationException("Block " + d->getName() + " has no wire offsets: analyse its scheme before running it");
    return *d;
}

template <class T>
const wLeadList& outputWireOf() {
    static const wLeadList l{{"output", wLeadTypeOf<T>::value}};
    return l;
}

zo::string numbered(const char* prefix, std::size_t i) { return zo::string(prefix) + std::to_string(i); }

// in * c accumulated into acc. Integers wrap around on overflow, as the machine's
// two's-complement arithmetic does, rather than being undefined.
void addScaled(int& acc, int in, int c) {
    const auto product = static_cast<std::uint32_t>(in) * static_cast<std::uint32_t>(c);
    acc = static_cast<int>(static_cast<std::uint32_t>(acc) + product);
}
void addScaled(double& acc, double in, double c) { acc += in * c; }
void addScaled(Vec3d& acc, const Vec3d& in, double c) { acc += in * c; }

// Weighted sums of AvgVal: int values are summed as doubles.
template <class T>
struct AvgAccumulator {
    using Type = double;
};
template <>
struct AvgAccumulator<Vec3d> {
    using Type = Vec3d;
};

double scaled(int v, int w) { return static_cast<double>(v) * w; }
double scaled(double v, int w) { return v * w; }
Vec3d scaled(const Vec3d& v, int w) { return v * static_cast<double>(w); }

// The mean of the int variant, truncated toward zero. A mean of int values lies within
// the int range; the clamp only guards against rounding at its very ends.
int meanToValue(double sum, double weights, int*) {
    const double mean = sum / weights;
    if (mean >= 2147483647.0) return 2147483647;
    if (mean <= -2147483648.0) return -2147483647 - 1;
    return static_cast<int>(mean);
}
double meanToValue(double sum, double weights, double*) { return sum / weights; }
Vec3d meanToValue(const Vec3d& sum, double weights, Vec3d*) { return sum / weights; }

// The greater (Larger) or smaller value; vectors component by component.
template <bool Larger, class T>
T pick(const T& a, const T& b) {
    if constexpr (Larger) return b > a ? b : a;
    else return b < a ? b : a;
}
template <bool Larger>
Vec3d pick(const Vec3d& a, const Vec3d& b) {
    return {pick<Larger>(a.x, b.x), pick<Larger>(a.y, b.y), pick<Larger>(a.z, b.z)};
}

// MaxVal (Larger) and MinVal: the extreme over the enabled pairs, zero when none is.
template <bool Larger, class T>
void updateExtreme(const wSimulationBlockDescriptor* d, unsigned char* data) {
    const int pairs = static_cast<int>(d->getInputWires().size() / 2);
    bool found = false;
    T result{};
    for (int k = 0; k < pairs; ++k) {
        if (!readWire<bool>(data, d->getInputWireOffset(2 * k + 1))) continue;
        const T v = readWire<T>(data, d->getInputWireOffset(2 * k));
        if (found) {
            result = pick<Larger>(result, v);
        } else {
            result = v;
            found = true;
        }
    }
    writeWire<T>(data, d->getOutputWireOffset(0), result);
}

}  // namespace

// ---- Sum

template <class T>
const zo::string& wBlockSummatorDescriptor<T>::getBlockClassNameS() {
    static const zo::string s = zo::string("wBlockSummatorDescriptor<") + wAggregateTraits<T>::className + ">";
    return s;
}
template <class T>
const zo::string& wBlockSummatorDescriptor<T>::getBlockTypeNameS() {
    static const zo::string s = zo::string("Sum (") + wAggregateTraits<T>::shortName + ")";
    return s;
}

template <class T>
wBlockSummatorDescriptor<T>::wBlockSummatorDescriptor() {
    set({"input1", "input2"});
}

template <class T>
const wLeadList& wBlockSummatorDescriptor<T>::getOutputWires_() const {
    return outputWireOf<T>();
}

template <class T>
void wBlockSummatorDescriptor<T>::set(const zo::vector<zo::string>& names) {
    inputs_.clear();
    coefficients_.clear();
    for (const zo::string& n : names) {
        inputs_.push_back({n, wLeadTypeOf<T>::value});
        coefficients_.push_back(Coefficient(1));
    }
}

template <class T>
wSimulationBlockStateless* wBlockSummatorDescriptor<T>::create(Lua::Loader*) const {
    return new wBlockSummator<T>(this);
}

// After the common keys: "inputs" = { [1] = { name = "input1", coeff = 1 }, ... }.
template <class T>
void wBlockSummatorDescriptor<T>::serialize(wBlockSerializer& s) {
    wSimulationBlockDescriptor::serialize(s);
    Lua::Loader* loader = s.getLoader();
    if (!s.isReading()) {
        loader->createSubtable("inputs");
        for (std::size_t i = 0; i < inputs_.size(); ++i) {
            loader->createSubtable(static_cast<int>(i) + 1);
            loader->setString("name", inputs_[i].name);
            if constexpr (std::is_same_v<Coefficient, int>) loader->setInt("coeff", coefficients_[i]);
            else loader->setDouble("coeff", coefficients_[i]);
            loader->endSubtable();
        }
        loader->endSubtable();
        return;
    }

    inputs_.clear();
    coefficients_.clear();
    loader->beginSubtable("inputs");
    loader->beginArray();
    while (loader->nextArray()) {
        zo::string name = loader->getString("name");
        Coefficient c;
        if constexpr (std::is_same_v<Coefficient, int>) c = loader->getInt("coeff");
        else c = loader->getDouble("coeff");
        inputs_.push_back({std::move(name), wLeadTypeOf<T>::value});
        coefficients_.push_back(c);
    }
    loader->endSubtable();
}

template <class T>
wBlockSummator<T>::wBlockSummator(const wBlockSummatorDescriptor<T>* d)
    : wSimulationBlockStateless(d), outputOffset_(requireLayout(d).getOutputWireOffset(0)) {
    const auto& coefficients = d->getCoefficients();
    terms_.reserve(coefficients.size());
    for (std::size_t i = 0; i < coefficients.size(); ++i)
        terms_.push_back({d->getInputWireOffset(static_cast<int>(i)), coefficients[i]});
}

template <class T>
void wBlockSummator<T>::update(double t, unsigned char* data) {
    logStep("wBlockSummator<0>", t);
    T out{};
    for (const Term& term : terms_) addScaled(out, readWire<T>(data, term.offset), term.coefficient);
    writeWire<T>(data, outputOffset_, out);
}

// ---- Paired inputs

template <class T, eLeadType Second>
wBlockPairedInputsDescriptor<T, Second>::wBlockPairedInputsDescriptor() {
    const char* secondPrefix = Second == LEAD_INT ? "weight" : "active";
    for (std::size_t i = 1; i <= 2; ++i) {
        inputs_.push_back({numbered("input", i), wLeadTypeOf<T>::value});
        inputs_.push_back({numbered(secondPrefix, i), Second});
    }
}

template <class T, eLeadType Second>
const wLeadList& wBlockPairedInputsDescriptor<T, Second>::getOutputWires_() const {
    return outputWireOf<T>();
}

// After the common keys: "inputs" = { [1] = { name = value wire }, [2] = { name = its
// weight or enable }, [3] = ... }. Read two elements at a time: an unpaired last element
// fails on the missing second one.
template <class T, eLeadType Second>
void wBlockPairedInputsDescriptor<T, Second>::serialize(wBlockSerializer& s) {
    wSimulationBlockDescriptor::serialize(s);
    Lua::Loader* loader = s.getLoader();
    if (!s.isReading()) {
        saveLeadNames(*loader, "inputs", inputs_);
        return;
    }

    inputs_.clear();
    loader->beginSubtable("inputs");
    loader->beginArray();
    while (loader->nextArray()) {
        inputs_.push_back({loader->getString("name"), wLeadTypeOf<T>::value});
        const int first = loader->arrayIndex();
        if (!loader->nextArray()) {
            // The loader is back on the array: name the missing partner element itself.
            throw Lua::LoaderException(loader->formatPath(first + 1) + ".name failed to Lua::Loader::getString: " +
                                       "the inputs come in pairs, and element " + std::to_string(first) +
                                       " has no " + (Second == LEAD_INT ? "weight" : "enable") + " after it");
        }
        inputs_.push_back({loader->getString("name"), Second});
    }
    loader->endSubtable();
}

// ---- AvgVal, MaxVal, MinVal

#define AGGREGATE_NAMES(Cls, classPrefix, typePrefix)                                               \
    template <class T>                                                                              \
    const zo::string& Cls<T>::getBlockClassNameS() {                                                \
        static const zo::string s = zo::string(classPrefix "<") + wAggregateTraits<T>::className + ">"; \
        return s;                                                                                   \
    }                                                                                               \
    template <class T>                                                                              \
    const zo::string& Cls<T>::getBlockTypeNameS() {                                                 \
        static const zo::string s = zo::string(typePrefix " (") + wAggregateTraits<T>::shortName + ")"; \
        return s;                                                                                   \
    }

AGGREGATE_NAMES(wBlockAvgerageValDescriptor, "wBlockAvgerageValDescriptor", "AvgVal")
AGGREGATE_NAMES(wBlockMaxValDescriptor, "wBlockMaxValDescriptor", "MaxVal")
AGGREGATE_NAMES(wBlockMinValDescriptor, "wBlockMinValDescriptor", "MinVal")
#undef AGGREGATE_NAMES

template <class T>
wSimulationBlockStateless* wBlockAvgerageValDescriptor<T>::create(Lua::Loader*) const {
    return new wBlockAvgVal<T>(this);
}
template <class T>
wSimulationBlockStateless* wBlockMaxValDescriptor<T>::create(Lua::Loader*) const {
    return new wBlockMaxVal<T>(this);
}
template <class T>
wSimulationBlockStateless* wBlockMinValDescriptor<T>::create(Lua::Loader*) const {
    return new wBlockMinVal<T>(this);
}

template <class T>
void wBlockAvgVal<T>::update(double t, unsigned char* data) {
    logStep("wBlockAvgVal<0>", t);
    const int pairs = static_cast<int>(descriptor_->getInputWires().size() / 2);
    typename AvgAccumulator<T>::Type sum{};
    double weights = 0;
    for (int k = 0; k < pairs; ++k) {
        const int w = readWire<int>(data, descriptor_->getInputWireOffset(2 * k + 1));
        // Pairs without a positive weight take no part at all.
        if (w <= 0) continue;
        sum += scaled(readWire<T>(data, descriptor_->getInputWireOffset(2 * k)), w);
        weights += w;
    }
    const T out = weights > 0 ? meanToValue(sum, weights, static_cast<T*>(nullptr)) : T{};
    writeWire<T>(data, descriptor_->getOutputWireOffset(0), out);
}

template <class T>
void wBlockMaxVal<T>::update(double t, unsigned char* data) {
    logStep("wBlockMaxVal<0>", t);
    updateExtreme<true, T>(descriptor_, data);
}

template <class T>
void wBlockMinVal<T>::update(double t, unsigned char* data) {
    logStep("wBlockMinVal<0>", t);
    updateExtreme<false, T>(descriptor_, data);
}

#define VANDREL_AGGREGATE_INSTANTIATE(T)                  \
    template class wBlockSummatorDescriptor<T>;           \
    template class wBlockSummator<T>;                     \
    template class wBlockPairedInputsDescriptor<T, LEAD_INT>;  \
    template class wBlockPairedInputsDescriptor<T, LEAD_BOOL>; \
    template class wBlockAvgerageValDescriptor<T>;        \
    template class wBlockAvgVal<T>;                       \
    template class wBlockMaxValDescriptor<T>;             \
    template class wBlockMaxVal<T>;                       \
    template class wBlockMinValDescriptor<T>;             \
    template class wBlockMinVal<T>;
VANDREL_AGGREGATE_INSTANTIATE(int)
VANDREL_AGGREGATE_INSTANTIATE(double)
VANDREL_AGGREGATE_INSTANTIATE(Vec3d)
#undef VANDREL_AGGREGATE_INSTANTIATE
