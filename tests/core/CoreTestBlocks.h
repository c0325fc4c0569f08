#pragma once
// Tiny descriptor classes for tests of the block model, the factory and the serializers.
//   coretest::AndDescriptor     stateless; wires a, b -> out (bool); ports trig -> done, dv
//   coretest::DiffADescriptor   continuous; wire u (double) -> X (double), Y (Vec3d)
//   coretest::DiffBDescriptor   continuous; no inputs -> z (int)
//   coretest::DiscDescriptor    discrete, no leads
//   coretest::ParamsDescriptor  stateless, parameters gain (double), label (string),
//                               offset (Vec3d, optional), count (int); counts live instances
#include <memory>

#include "vandrel/core/SimulationBlock.h"
#include "vandrel/core/SimulationBlockDescriptor.h"
#include "vandrel/scheme/BlockFactory.h"

namespace coretest {

#define CORETEST_NAMES(className, typeName)                                 \
    static const zo::string& getBlockClassNameS() {                         \
        static const zo::string s = className;                              \
        return s;                                                           \
    }                                                                       \
    static const zo::string& getBlockTypeNameS() {                          \
        static const zo::string s = typeName;                               \
        return s;                                                           \
    }

class AndDescriptor : public wDescriptorImpl<AndDescriptor, wSimulationBlockStatelessDescriptor> {
public:
    CORETEST_NAMES("wCoreTestAndDescriptor", "AND")
    std::unique_ptr<wSimulationBlockStateless> create(Lua::Loader*) const override { return nullptr; }

protected:
    const wLeadList& getInputWires_() const override {
        static const wLeadList l{{"a", LEAD_BOOL}, {"b", LEAD_BOOL}};
        return l;
    }
    const wLeadList& getOutputWires_() const override {
        static const wLeadList l{{"out", LEAD_BOOL}};
        return l;
    }
    const wLeadList& getInputPorts_() const override {
        static const wLeadList l{{"trig", LEAD_BOOL}};
        return l;
    }
    const wLeadList& getOutputPorts_() const override {
        static const wLeadList l{{"done", LEAD_BOOL}, {"dv", LEAD_DOUBLE}};
        return l;
    }
};

class DiffADescriptor : public wDescriptorImpl<DiffADescriptor, wDiffDescriptorBase<DiffADescriptor>> {
public:
    CORETEST_NAMES("wCoreTestDiffADescriptor", "DiffA")
    std::unique_ptr<wSimulationBlockDiff> create(Lua::Loader*) const override { return nullptr; }

protected:
    const wLeadList& getInputWires_() const override {
        static const wLeadList l{{"u", LEAD_DOUBLE}};
        return l;
    }
    const wLeadList& getOutputWires_() const override {
        static const wLeadList l{{"X", LEAD_DOUBLE}, {"Y", LEAD_VECTOR}};
        return l;
    }
};

class DiffBDescriptor : public wDescriptorImpl<DiffBDescriptor, wDiffDescriptorBase<DiffBDescriptor>> {
public:
    CORETEST_NAMES("wCoreTestDiffBDescriptor", "DiffB")
    std::unique_ptr<wSimulationBlockDiff> create(Lua::Loader*) const override { return nullptr; }

protected:
    const wLeadList& getOutputWires_() const override {
        static const wLeadList l{{"z", LEAD_INT}};
        return l;
    }
};

class DiscDescriptor : public wDescriptorImpl<DiscDescriptor, wSimulationBlockDiscDescriptor> {
public:
    CORETEST_NAMES("wCoreTestDiscDescriptor", "Disc")
    std::unique_ptr<wSimulationBlockDisc> create(Lua::Loader*, wSimulationSystem*) const override { return nullptr; }
};

class ParamsDescriptor : public wDescriptorImpl<ParamsDescriptor, wSimulationBlockStatelessDescriptor> {
public:
    CORETEST_NAMES("wCoreTestParamsDescriptor", "Params")
    ParamsDescriptor() {
        ++live();
        offset.set(Vec3d{1, 1, 1});
        offset.setRequired(false);
    }
    ParamsDescriptor(const ParamsDescriptor& o)
        : wDescriptorImpl(o), gain(o.gain), label(o.label), offset(o.offset), count(o.count) {
        ++live();
    }
    ~ParamsDescriptor() override { --live(); }
    std::unique_ptr<wSimulationBlockStateless> create(Lua::Loader*) const override { return nullptr; }
    wParameterList getParametersList() override {
        wParameterList l;
        l.push_back(parameterRef("gain", gain));
        l.push_back(parameterRef("label", label));
        l.push_back(parameterRef("offset", offset));
        l.push_back(parameterRef("count", count));
        return l;
    }
    // Instances alive in the process.
    static int& live() {
        static int n = 0;
        return n;
    }

    wBlockParameterProxy<double> gain{0.5};
    wBlockParameterProxy<zo::string> label{"none"};
    wBlockParameterProxy<Vec3d> offset;
    wBlockParameterProxy<int> count{7};
};

#undef CORETEST_NAMES

// Puts the classes that the serializers create in the process-wide factory (once).
inline void registerClasses() {
    auto* f = wSimulationBlockFactory::instance();
    if (!f->hasClass(ParamsDescriptor::getBlockClassNameS())) f->registerClass<ParamsDescriptor>("Params");
    if (!f->hasClass(AndDescriptor::getBlockClassNameS())) f->registerClass<AndDescriptor>("AND");
}

}  // namespace coretest
