// A host written only against the documented interface: owning raw pointers out of the
// creating calls, raw pointers into the scheme, and nothing from the library's internals.
// The sanitizer build runs it under the leak checker, so every hand-over below must be
// matched by exactly one delete, including the ones where the library throws.
#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <type_traits>
#include <utility>

#include "vandrel/vandrel.h"

namespace {

// The signatures themselves, so that a change of return or argument type fails the build.
static_assert(std::is_same_v<decltype(&wSimulationBlockFactory::generate),
                             wSimulationBlockDescriptor* (wSimulationBlockFactory::*)(const zo::string&) const>);
static_assert(std::is_same_v<decltype(&wSimulationBlockDescriptor::clone),
                             wSimulationBlockDescriptor* (wSimulationBlockDescriptor::*)() const>);
static_assert(std::is_same_v<decltype(&wLeadCreator::createInputPort), wInputPortBase* (wLeadCreator::*)() const>);
static_assert(std::is_same_v<decltype(&wLeadCreator::createOutputPort), wOutputPortBase* (wLeadCreator::*)() const>);
static_assert(std::is_same_v<decltype(&wInputPortBase::createProxyPort), wProxyPortBase* (wInputPortBase::*)() const>);
static_assert(std::is_same_v<decltype(&wBlockParameterProxyBase::makeReference),
                             wBlockParameterProxyBase* (wBlockParameterProxyBase::*)() const>);
static_assert(std::is_same_v<decltype(&wOdeSolverDescriptor::clone), wOdeSolverDescriptor* (wOdeSolverDescriptor::*)() const>);
static_assert(std::is_same_v<wSimulationBlockFactory::Creator,
                             CoreMeta::Functor<wSimulationBlockDescriptor*, CoreMeta::TypeList<CoreMeta::NullType, CoreMeta::NullType>>>);
static_assert(std::is_same_v<wOdeSolversFactory::Creator, CoreMeta::Functor<wOdeSolverDescriptor*>>);
static_assert(std::is_same_v<decltype(std::declval<wSimulationSystemScheme&>().instantiate()), wSimulationSystem*>);
static_assert(std::is_same_v<decltype(std::declval<wSimulationSystemScheme&>().addBlock(
                                 static_cast<wSimulationBlockDescriptor*>(nullptr))),
                             wSimulationBlockDescriptor*>);

std::string messageOf(const std::function<void()>& f) {
    try {
        f();
    } catch (const std::exception& e) {
        return e.what();
    }
    return "no exception";
}

// u -> integrator "i" -> y, with y0 as the initial value, built from factory products.
wSimulationBlockDescriptor* buildIntegratorScheme(wSimulationSystemScheme& scheme) {
    wSimulationBlockDescriptor* integ = wSimulationBlockFactory::instance()->generate("wBlockIntegratorDescriptor<double>");
    integ->setName("i");
    EXPECT_EQ(scheme.addBlock(integ), integ);
    scheme.addIOLead(false, false, "u", LEAD_DOUBLE);
    scheme.addIOLead(false, false, "y0", LEAD_DOUBLE);
    scheme.addIOLead(true, false, "y", LEAD_DOUBLE);
    wSimulationBlockDescriptor* io = &scheme.getIOBlock();
    scheme.addConnection({io, integ, "u", "input", false});
    scheme.addConnection({io, integ, "y0", "output.initial", false});
    scheme.addConnection({integ, io, "output", "y", false});
    wOdeSolverDescriptor* euler = wOdeSolversFactory::instance()->generate("wSolverExplEulerDescriptor");
    euler->getParametersList().at(0).getProxy()->fromString("0.1");  // H
    scheme.setOdeSolverDescriptor(euler);
    return integ;
}

TEST(HostInterface, BuildsRunsAndHandsOwnershipAsDocumented) {
    auto* scheme = new wSimulationSystemScheme;
    wSimulationBlockDescriptor* integ = buildIntegratorScheme(*scheme);

    // A refused block belongs to the scheme all the same: the host must not delete it.
    wSimulationBlockDescriptor* twin = wSimulationBlockFactory::instance()->generate("wBlockNOTDescriptor");
    twin->setName("i");
    EXPECT_EQ(messageOf([&] { scheme->addBlock(twin); }), "Trying to add block with duplicate name: i");
    EXPECT_EQ(scheme->getBlocksCount(), 1);

    // Copies are the caller's, and independent of their source.
    wSimulationSystemScheme* copy = scheme->clone();
    // Replacing the solver destroys the one held before; null leaves none.
    scheme->setOdeSolverDescriptor(wOdeSolversFactory::instance()->generate("wSolverExplEulerDescriptor"));
    scheme->setOdeSolverDescriptor(nullptr);
    EXPECT_EQ(scheme->getOdeSolverDescriptor(), nullptr);
    ASSERT_NE(copy->getOdeSolverDescriptor(), nullptr);
    wOdeSolverDescriptor* solverCopy = copy->getOdeSolverDescriptor()->clone();
    EXPECT_EQ(solverCopy->getTypeName(), "wSolverExplEulerDescriptor");
    delete solverCopy;
    wSimulationBlockDescriptor* blockCopy = integ->clone();
    EXPECT_EQ(blockCopy->getName(), "i");
    delete blockCopy;
    delete scheme;

    // The copy runs: dy/dt = u from y0.
    copy->analyse();
    wSimulationSystem* system = copy->instantiate();
    system->setInput<double>("u", 2.0);
    system->setInput<double>("y0", 0.5);
    system->applyInitialValues();
    double t = 0;
    for (int steps = 0; steps < 100 && t < 1.0 - 1e-9; ++steps) t += system->simulate(t);
    EXPECT_NEAR(t, 1.0, 1e-9);
    EXPECT_NEAR(system->getOutput<double>("y"), 0.5 + 2.0 * t, 1e-9);
    delete system;
    delete copy;
}

TEST(HostInterface, PortsAndParametersComeOutAsOwningPointers) {
    // A host-side creator of its own, and the library's for every lead type but "object ptr".
    static_assert(std::is_same_v<wConcreteLeadCreator<int, 0>, wConcreteLeadCreator<int, LEAD_INT>>);
    const wConcreteLeadCreator<double, 2> mine;
    wOutputPortBase* out = mine.createOutputPort();
    wInputPortBase* a = mine.createInputPort();
    wInputPortBase* b = leadCreator(LEAD_DOUBLE).createInputPort();
    wProxyPortBase* fan = a->createProxyPort();
    out->connect(fan->getInputPort());
    fan->getOutputPort()->connect(a);
    fan->getOutputPort()->connect(b);
    const double v = 4.25;
    out->sendFromPtr(&v);
    for (wInputPortBase* in : {a, b}) {
        double got = 0;
        ASSERT_TRUE(in->getValueToPtr(&got));
        EXPECT_EQ(got, v);
    }
    delete fan;
    delete b;
    delete a;
    delete out;
    EXPECT_EQ(messageOf([] { delete leadCreator(LEAD_OBJECT_PTR).createOutputPort(); }),
              "Cannot create output port of type wWireObjectPtrBase");

    // A reference edits the original record; a forced clone is a copy of its own.
    wBlockParameterContainer h = paramGenerators[PARAM_DOUBLE]->create("H");
    wBlockParameterProxyBase* ref = h.getProxy()->makeReference();
    wBlockParameterProxyBase* own = h.getProxy()->clone(true);
    ref->fromString("0.5");
    EXPECT_EQ(h.getProxy()->toString(), "0.5");
    EXPECT_EQ(own->toString(), "0");
    delete own;
    delete ref;

    // A runtime block made by hand is the caller's too.
    std::unique_ptr<wSimulationBlockDescriptor> gate(wSimulationBlockFactory::instance()->generate("wBlockNOTDescriptor"));
    auto* stateless = dynamic_cast<wSimulationBlockStatelessDescriptor*>(gate.get());
    ASSERT_NE(stateless, nullptr);
    delete stateless->create(nullptr);
}

TEST(HostInterface, CreatorsAreNullaryFunctorsReturningRawPointers) {
    wSimulationBlockFactory own;  // a private factory: the library's list stays as it is
    own.register_descriptor("not", wSimulationBlockFactory::Creator([] { return wBlockNOTDescriptor::__create_instance(); }),
                            "negation");
    wSimulationBlockDescriptor* made = own.generate("not");
    EXPECT_EQ(made->getClassName(), "wBlockNOTDescriptor");
    delete made;
    EXPECT_EQ(messageOf([&] { own.generate("wBlockNOTDescriptor"); }), "Block wBlockNOTDescriptor not found");
    // A second class under a known key changes nothing; the list keeps registration order.
    own.register_descriptor("and", wSimulationBlockFactory::Creator(&wBlockANDDescriptor::__create_instance), "conjunction");
    EXPECT_EQ(messageOf([&] { own.register_descriptor("not", &wBlockANDDescriptor::__create_instance, "x"); }),
              "Duplicate simulation block: not");
    using Pair = std::pair<zo::string, zo::string>;
    EXPECT_EQ(own.getKeysDescriptions(), (zo::vector<Pair>{{"not", "negation"}, {"and", "conjunction"}}));
    made = own.generate("not");
    EXPECT_NE(dynamic_cast<wBlockNOTDescriptor*>(made), nullptr);
    delete made;

    const CoreMeta::Functor<wOdeSolverDescriptor*> euler([] {
        return wOdeSolversFactory::instance()->generate("wSolverExplEulerDescriptor");
    });
    EXPECT_EQ(messageOf([&] { wOdeSolversFactory::instance()->register_descriptor("wSolverExplEulerDescriptor", euler, "x"); }),
              "Duplicated ODE solver type: wSolverExplEulerDescriptor");
    delete euler();
}

}  // namespace
