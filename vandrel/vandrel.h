#pragma once
// vandrel: every public header of the library.

// Platform: strings and containers, exceptions, math, Lua tables and states, bit streams.
#include "vandrel/platform/CoreMeta.h"
#include "vandrel/platform/Exception.h"
#include "vandrel/platform/LuaCompare.h"
#include "vandrel/platform/LuaLoader.h"
#include "vandrel/platform/LuaScript.h"
#include "vandrel/platform/LuaSerializer.h"
#include "vandrel/platform/LuaSnapshot.h"
#include "vandrel/platform/LuaState.h"
#include "vandrel/platform/MailStream.h"
#include "vandrel/platform/Math.h"
#include "vandrel/platform/String.h"
#include "vandrel/platform/Suggest.h"

// Block model: leads, wires, ports, parameters, descriptors and runtime blocks.
#include "vandrel/core/BlockParameter.h"
#include "vandrel/core/LeadTypes.h"
#include "vandrel/core/Ports.h"
#include "vandrel/core/SimulationBlock.h"
#include "vandrel/core/SimulationBlockDescriptor.h"
#include "vandrel/core/Wire.h"

// Schemes: model, analysis and files, block factory and serializers.
#include "vandrel/scheme/BlockFactory.h"
#include "vandrel/scheme/BlockSerializer.h"
#include "vandrel/scheme/SimulationSystemScheme.h"
#include "vandrel/scheme/SubsystemBlock.h"

// Runtime: simulation system, ODE solvers, logger and exceptions.
#include "vandrel/runtime/OdeSolver.h"
#include "vandrel/runtime/ResourceLimits.h"
#include "vandrel/runtime/SimulationException.h"
#include "vandrel/runtime/SimulationLogger.h"
#include "vandrel/runtime/SimulationSystem.h"
#include "vandrel/runtime/Snapshot.h"
#include "vandrel/runtime/DiffInputWatch.h"
#include "vandrel/runtime/SolverCvode.h"
#include "vandrel/runtime/SolverDopri5.h"
#include "vandrel/runtime/SolverExplEuler.h"
#include "vandrel/runtime/SolverParameters.h"
#include "vandrel/runtime/SolverRK4.h"

// Block library.
#include "vandrel/blocks/Aggregates.h"
#include "vandrel/blocks/Conversions.h"
#include "vandrel/blocks/Integrator.h"
#include "vandrel/blocks/Logic.h"
#include "vandrel/blocks/LuaBlock.h"
#include "vandrel/blocks/Multiplexer.h"
#include "vandrel/blocks/Oscilloscope.h"
#include "vandrel/blocks/Timers.h"
#include "vandrel/blocks/VectorBlocks.h"
#include "vandrel/blocks/WireSerialization.h"
