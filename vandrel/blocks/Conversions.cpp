#include "vandrel/blocks/Conversions.h"

#include "vandrel/core/Ports.h"
#include "vandrel/core/Wire.h"
#include "vandrel/platform/LuaLoader.h"
#include "vandrel/runtime/SimulationException.h"
#include "vandrel/runtime/SimulationSystem.h"
#include "vandrel/scheme/BlockSerializer.h"

// ---- Conversions

template <class In, class Out>
const zo::string& wBlockI2ODescriptor<In, Out>::getBlockClassNameS() {
    static const zo::string s = zo::string("wBlockI2ODescriptor<") + wConversionTraits<In>::className + " CMA " +
                                wConversionTraits<Out>::className + ">";
    return s;
}

template <class In, class Out>
const zo::string& wBlockI2ODescriptor<In, Out>::getBlockTypeNameS() {
    static const zo::string s =
        zo::string("conv_") + wConversionTraits<In>::letter + "2" + wConversionTraits<Out>::letter;
    return s;
}

template <class In, class Out>
wSimulationBlockStateless* wBlockI2ODescriptor<In, Out>::create(Lua::Loader*) const {
    return new wBlockI2O<In, Out>(this);
}

template <class In, class Out>
const wLeadList& wBlockI2ODescriptor<In, Out>::getInputWires_() const {
    static const wLeadList l{{"input", wLeadTypeOf<In>::value}};
    return l;
}

template <class In, class Out>
const wLeadList& wBlockI2ODescriptor<In, Out>::getOutputWires_() const {
    static const wLeadList l{{"output", wLeadTypeOf<Out>::value}};
    return l;
}

template <class In, class Out>
void wBlockI2O<In, Out>::update(double, unsigned char* data) {
    const In in = readWire<In>(data, descriptor_->getInputWireOffset(0));
    Out out;
    // To bool: only positive values are true (zero, negatives and NaN are false).
    if constexpr (std::is_same_v<Out, bool>) out = in > In(0);
    else out = static_cast<Out>(in);
    writeWire<Out>(data, descriptor_->getOutputWireOffset(0), out);
}

template class wBlockI2ODescriptor<int, double>;
template class wBlockI2ODescriptor<int, bool>;
template class wBlockI2ODescriptor<double, bool>;
template class wBlockI2ODescriptor<bool, int>;
template class wBlockI2ODescriptor<bool, double>;
template class wBlockI2O<int, double>;
template class wBlockI2O<int, bool>;
template class wBlockI2O<double, bool>;
template class wBlockI2O<bool, int>;
template class wBlockI2O<bool, double>;

// ---- Constants

const zo::string& wBlockConstantsDescriptor::getBlockClassNameS() {
    static const zo::string s = "wBlockConstantsDescriptor";
    return s;
}

const zo::string& wBlockConstantsDescriptor::getBlockTypeNameS() {
    static const zo::string s = "Constants block";
    return s;
}

eLeadType wBlockConstantsDescriptor::convertToWireType_(eParameterType t) {
    switch (t) {
        case PARAM_INT: return LEAD_INT;
        case PARAM_DOUBLE: return LEAD_DOUBLE;
        case PARAM_VEC3D: return LEAD_VECTOR;
        case PARAM_BOOL: return LEAD_BOOL;
        case PARAM_UINT: return LEAD_OBJECT_ID;
        default: break;
    }
    throw wSimulationException("Cannot convert parameter type to constant type");
}

void wBlockConstantsDescriptor::updateWiresList_() {
    // Built aside first, so that a refused type leaves the old list in place.
    wLeadList wires;
    for (const wBlockParameterContainer& v : values_) {
        const wBlockParameterProxyBase* p = v.getProxy();
        if (!p) throw wSimulationException("Cannot convert parameter type to constant type");
        wires.push_back({v.getName(), convertToWireType_(p->getType())});
    }
    outputs_ = std::move(wires);
}

namespace {

template <class T>
bool writeValue(const wBlockParameterProxyBase* p, unsigned char* place) {
    const auto* typed = dynamic_cast<const wBlockParameterProxy<T>*>(p);
    if (!typed) return false;
    writeWire<T>(place, 0, typed->get());
    return true;
}

}  // namespace

void wBlockConstantsDescriptor::setValueToLeadData_(const wBlockParameterContainer& value, unsigned char* place) {
    const wBlockParameterProxyBase* p = value.getProxy();
    if (!p) return;
    switch (p->getType()) {
        case PARAM_INT: writeValue<int>(p, place); break;                // 4 bytes
        case PARAM_DOUBLE: writeValue<double>(p, place); break;          // 8 bytes
        case PARAM_VEC3D: writeValue<Vec3d>(p, place); break;            // 24 bytes, x y z
        case PARAM_BOOL: writeValue<bool>(p, place); break;              // 1 byte
        case PARAM_UINT: writeValue<unsigned int>(p, place); break;      // 4 bytes
        default: break;
    }
}

wSimulationBlockDisc* wBlockConstantsDescriptor::create(Lua::Loader*, wSimulationSystem* system) const {
    unsigned char* data = system ? system->getDataPtr() : nullptr;
    if (data) {
        for (std::size_t i = 0; i < values_.size(); ++i)
            setValueToLeadData_(values_[i], data + getOutputWireOffset(static_cast<int>(i)));
    }
    return new wBlockConstants(this, system);
}

wParameterList wBlockConstantsDescriptor::getParametersList() {
    wParameterList list;
    list.reserve(values_.size());
    for (const wBlockParameterContainer& v : values_) {
        const wBlockParameterProxyBase* p = v.getProxy();
        list.emplace_back(v.getName(), p ? p->makeReference() : nullptr);
    }
    return list;
}

void wBlockConstantsDescriptor::setParameters(const wParameterList& list) {
    // The block keeps its own storage: owning copies, even of references.
    zo::vector<wBlockParameterContainer> copies;
    copies.reserve(list.size());
    for (const wBlockParameterContainer& v : list) {
        const wBlockParameterProxyBase* p = v.getProxy();
        copies.emplace_back(v.getName(), p ? p->clone(true) : nullptr);
    }
    std::swap(values_, copies);
    try {
        updateWiresList_();
    } catch (...) {
        std::swap(values_, copies);
        throw;
    }
}

// "values" = { [1] = { name = "a", type = 0 }, ... } before the common keys; the values
// themselves are the block's parameters.
void wBlockConstantsDescriptor::serialize(wBlockSerializer& s) {
    Lua::Loader* loader = s.getLoader();
    if (s.isReading()) {
        values_.clear();
        loader->beginSubtable("values");
        loader->beginArray();
        while (loader->nextArray()) {
            const int type = loader->getInt("type");
            const eLeadType leadType = convertToWireType_(static_cast<eParameterType>(type));
            // No lead type 7 exists, so the conversion above never lets this through.
            if (static_cast<int>(leadType) == 7) throw wSimulationException("Invalid value type");
            values_.push_back(createParameter(type, loader->getString("name")));
        }
        loader->endSubtable();
    } else {
        loader->createSubtable("values");
        for (std::size_t i = 0; i < values_.size(); ++i) {
            const wBlockParameterProxyBase* p = values_[i].getProxy();
            loader->createSubtable(static_cast<int>(i) + 1);
            loader->setString("name", values_[i].getName());
            loader->setInt("type", p ? static_cast<int>(p->getType()) : 0);
            loader->endSubtable();
        }
        loader->endSubtable();
    }

    wSimulationBlockDescriptor::serialize(s);
    if (s.isReading()) updateWiresList_();
}
