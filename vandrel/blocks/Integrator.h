#pragma once
// Blocks that shape a signal over time.
//
//   wBlockIntegrator<T>  continuous: d(output)/dt = input, for T = double and Vec3d. The
//                        state is the output wire itself; the ODE solver advances it, and
//                        a reset loads it from the "output.initial" wire that every
//                        continuous block gets.
//   wBlockRamp           discrete slew-rate limiter: every "dt" seconds the output moves
//                        towards the "target" wire by at most "dt" * "slope", landing on
//                        the target exactly when it is within one step.
#include <memory>
#include <string_view>

#include "vandrel/core/BlockParameter.h"
#include "vandrel/core/SimulationBlock.h"
#include "vandrel/core/SimulationBlockDescriptor.h"

template <class T>
class wBlockIntegrator;

template <class T>
class wBlockIntegratorDescriptor
    : public wDescriptorImpl<wBlockIntegratorDescriptor<T>, wDiffDescriptorBase<wBlockIntegratorDescriptor<T>>> {
public:
    static const zo::string& getBlockClassNameS();  // "wBlockIntegratorDescriptor<double>" / "<Vec3d>"
    static const zo::string& getBlockTypeNameS();   // "I (dbl)" / "I (vec)"

    wSimulationBlockDiff* create(Lua::Loader* loader) const override;

protected:
    const wLeadList& getInputWires_() const override;   // "input" (T)
    const wLeadList& getOutputWires_() const override;  // "output" (T)
};

template <class T>
class wBlockIntegrator : public wSimulationBlockDiff {
public:
    explicit wBlockIntegrator(const wBlockIntegratorDescriptor<T>* descriptor)
        : wSimulationBlockDiff(descriptor),
          inputOffset_(descriptor->getInputWireOffset(0)),
          outputOffset_(descriptor->getOutputWireOffset(0)) {}
    // Copies the input wire into the derivative slot of the output; t is not used.
    void calculate_dy(double t, unsigned char* data, unsigned char* dy) override;

private:
    int inputOffset_;   // byte offset of "input"
    int outputOffset_;  // byte offset of "output", the state
};

template <>
const zo::string& wBlockIntegratorDescriptor<double>::getBlockClassNameS();
template <>
const zo::string& wBlockIntegratorDescriptor<double>::getBlockTypeNameS();
template <>
const zo::string& wBlockIntegratorDescriptor<Vec3d>::getBlockClassNameS();
template <>
const zo::string& wBlockIntegratorDescriptor<Vec3d>::getBlockTypeNameS();

extern template class wBlockIntegratorDescriptor<double>;
extern template class wBlockIntegratorDescriptor<Vec3d>;
extern template class wBlockIntegrator<double>;
extern template class wBlockIntegrator<Vec3d>;

class wBlockRampDescriptor : public wDescriptorImpl<wBlockRampDescriptor, wSimulationBlockDiscDescriptor> {
public:
    static const zo::string& getBlockClassNameS();  // "wBlockRampDescriptor"
    static const zo::string& getBlockTypeNameS();   // "Ramp block"

    // Writes 0.0 to the output wire at once: the ramp starts from zero.
    wSimulationBlockDisc* create(Lua::Loader* loader, wSimulationSystem* system) const override;
    wParameterList getParametersList() override;  // "dt", "slope"

    wBlockParameterProxy<double> dt{0.0};     // update period (s), returned by every step
    wBlockParameterProxy<double> slope{0.0};  // largest change of the output per second

protected:
    const wLeadList& getInputWires_() const override;   // "target" (double)
    const wLeadList& getOutputWires_() const override;  // "output" (double)
};

class wBlockRamp : public wSimulationBlockDisc {
public:
    wBlockRamp(const wBlockRampDescriptor* descriptor, wSimulationSystem* system);
    double step(double t) override;
    // No registered state, yet the size is 0 rather than -1: a scheme holding a ramp can
    // still save its state (the ramp's output is simply not part of it).
    int getBlockStateDataSize() const override { return 0; }

private:
    const wBlockRampDescriptor* d_;  // not owned
};
