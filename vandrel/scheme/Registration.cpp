// Registers every solver kind and block class when the library is loaded.
//
// This is the one place that lists them: static initialisation order across translation
// units is unspecified, and the factory's list must come out in exactly this order (it
// is what editors show). Solver kinds first, then the blocks.
#include "vandrel/runtime/OdeSolver.h"
#include "vandrel/runtime/SolverCvode.h"
#include "vandrel/runtime/SolverDopri5.h"
#include "vandrel/runtime/SolverExplEuler.h"
#include "vandrel/runtime/SolverRK4.h"
#include "vandrel/scheme/BlockFactory.h"
#include "vandrel/scheme/SubsystemBlock.h"
// Block families (uncomment as each family lands):
#include "vandrel/blocks/Logic.h"
#include "vandrel/blocks/Aggregates.h"
#include "vandrel/blocks/Conversions.h"
#include "vandrel/blocks/VectorBlocks.h"
#include "vandrel/blocks/Integrator.h"
#include "vandrel/blocks/LuaBlock.h"
#include "vandrel/blocks/Timers.h"
#include "vandrel/blocks/Multiplexer.h"
#include "vandrel/blocks/Oscilloscope.h"
#include "vandrel/blocks/WireSerialization.h"

namespace {

void registerSolverKinds(wOdeSolversFactory& f) {
    f.register_descriptor(wSolverExplEulerDescriptor::getTypeNameS(),
                          []() -> wOdeSolverDescriptor* { return new wSolverExplEulerDescriptor; },
                          "Explicit Euler");
    f.register_descriptor(wSolverRK4Descriptor::getTypeNameS(),
                          []() -> wOdeSolverDescriptor* { return new wSolverRK4Descriptor; },
                          "Runge-Kutta 4");
    f.register_descriptor(wSolverDopri5Descriptor::getTypeNameS(),
                          []() -> wOdeSolverDescriptor* { return new wSolverDopri5Descriptor; },
                          "Dormand-Prince 4(5), adaptive");
    f.register_descriptor(wSolverCvodeDescriptor::getTypeNameS(),
                          []() -> wOdeSolverDescriptor* { return new wSolverCvodeDescriptor; },
                          "CVODE BDF, stiff");
}

// In the order editors list them. Classes that come with later families are marked.
void registerBlockClasses(wSimulationBlockFactory& f) {
    (void)f;
    f.registerClass<wBlockANDDescriptor>("AND");
    f.registerClass<wBlockANDtriggerDescriptor>("AND (trig)");
    f.registerClass<wBlockNOTDescriptor>("NOT");
    f.registerClass<wBlockNOTtriggerDescriptor>("NOT (trig)");
    f.registerClass<wBlockORDescriptor>("OR");
    f.registerClass<wBlockORtriggerDescriptor>("OR (trig)");
    f.registerClass<wBlockAvgerageValDescriptor<double>>("AvgVal (dbl)");
    f.registerClass<wBlockAvgerageValDescriptor<Vec3d>>("AvgVal (vec)");
    f.registerClass<wBlockAvgerageValDescriptor<int>>("AvgVal (int)");
    f.registerClass<wBlockConstantsDescriptor>("Constants block");
    f.registerClass<wBlockDelayTriggerDescriptor>("Delay trigger");
    f.registerClass<wBlockDelayTriggerMultipleDescriptor>("Delay trigger multiple");
    f.registerClass<wBlockDelayTriggerWireDescriptor>("Delay trigger wire");
    f.registerClass<wDoubleToVec3dDescriptor>("Double to Vector");
    f.registerClass<wBlockGo2doubleOntimerDescriptor>("IncTimer to Double");
    f.registerClass<wBlockI2ODescriptor<bool, double>>("conv_b2d");
    f.registerClass<wBlockI2ODescriptor<bool, int>>("conv_b2i");
    f.registerClass<wBlockI2ODescriptor<double, bool>>("conv_d2b");
    f.registerClass<wBlockI2ODescriptor<int, double>>("conv_i2d");
    f.registerClass<wBlockI2ODescriptor<int, bool>>("conv_i2b");
    f.registerClass<wBlockIntegratorDescriptor<double>>("I (dbl)");
    f.registerClass<wBlockIntegratorDescriptor<Vec3d>>("I (vec)");
    f.registerClass<wBlockLuaDescriptor>("Lua script");
    f.registerClass<wBlockMaxValDescriptor<double>>("MaxVal (dbl)");
    f.registerClass<wBlockMaxValDescriptor<Vec3d>>("MaxVal (vec)");
    f.registerClass<wBlockMaxValDescriptor<int>>("MaxVal (int)");
    f.registerClass<wBlockMinValDescriptor<double>>("MinVal (dbl)");
    f.registerClass<wBlockMinValDescriptor<Vec3d>>("MinVal (vec)");
    f.registerClass<wBlockMinValDescriptor<int>>("MinVal (int)");
    f.registerClass<wBlockMultiplexDescriptor>("Multiplexor");
    f.registerClass<wBlockOscilloscopeDescriptor>("Oscilloscope");
    f.registerClass<wBlockRampDescriptor>("Ramp block");
    f.registerClass<wRotatorBlockDescriptor>("Rotate Rot3d");
    f.registerClass<wBlockSubsystemDescriptor>("Subsystem");
    f.registerClass<wBlockSummatorDescriptor<double>>("Sum (dbl)");
    f.registerClass<wBlockSummatorDescriptor<Vec3d>>("Sum (vec)");
    f.registerClass<wBlockSummatorDescriptor<int>>("Sum (int)");
    f.registerClass<wBlockFlagOnSignalTimerDescriptor>("Flag cont. signal by timer");
    f.registerClass<wVec3dToDoubleDescriptor>("Vector to double");
    f.registerClass<wVec3dModDescriptor>("Vector modify");
    f.registerClass<wBlockVectorPickerDescriptor>("Demux");
    f.registerClass<wBlockWireDeserializerDescriptor>("Deserializer");
    f.registerClass<wBlockWireSerializerDescriptor>("Serializer");
    f.registerClass<wBlockWireToPortDescriptor>("Wire to port");
}

// Runs when libvandrel is loaded, before any host code can reach the factories.
const bool registered = [] {
    registerSolverKinds(*wOdeSolversFactory::instance());
    registerBlockClasses(*wSimulationBlockFactory::instance());
    return true;
}();

}  // namespace
