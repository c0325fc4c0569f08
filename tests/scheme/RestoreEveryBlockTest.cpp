// Restoring hostile state blobs into every registered block type. Under the sanitizers
// this proves that no byte pattern in a blob creates an invalid object (a bool holding
// 255, a container read past its blob) in any block, including types added later: the
// list comes from the factory, not from this file.
#include <gtest/gtest.h>

#include <cstdio>
#include <set>
#include <string>
#include <vector>

#include "vandrel/runtime/SimulationException.h"
#include "vandrel/runtime/SimulationSystem.h"
#include "vandrel/runtime/SolverExplEuler.h"
#include "vandrel/scheme/BlockFactory.h"
#include "vandrel/scheme/SimulationSystemScheme.h"

namespace {

// A scheme holding one block of class `key` with every input wire fed by a scheme input,
// its "dt" (if any) at 0.1 s so that it steps, and a solver when it is continuous.
std::unique_ptr<wSimulationSystemScheme> schemeWith(const zo::string& key) {
    auto scheme = std::make_unique<wSimulationSystemScheme>();
    std::unique_ptr<wSimulationBlockDescriptor> d(wSimulationBlockFactory::instance()->generate(key));
    d->setName("b");
    for (auto& p : d->getParametersList())
        if (p.getName() == "dt" && p.getProxy()) p.getProxy()->fromString("0.1");
    wSimulationBlockDescriptor* block = scheme->addBlock(std::move(d));
    const wLeadList& inputs = block->getInputWires();
    for (std::size_t i = 0; i < inputs.size(); ++i) {
        const zo::string name = "in" + std::to_string(i);
        scheme->addIOLead(false, false, name, inputs[i].type);
        scheme->addConnection({&scheme->getIOBlock(), block, name, inputs[i].name, false});
    }
    if (block->isOfType(BLOCK_DIFF)) {
        auto euler = std::make_unique<wSolverExplEulerDescriptor>();
        euler->setH(0.1);
        scheme->setOdeSolverDescriptor(std::move(euler));
    }
    scheme->analyse();
    return scheme;
}

TEST(RestoreEveryBlock, BlobsOfFFBytesLeaveEveryBlockValid) {
    std::set<std::string> restored;
    for (const auto& [key, description] : wSimulationBlockFactory::instance()->getKeysDescriptions()) {
        SCOPED_TRACE(key);
        std::unique_ptr<wSimulationSystemScheme> scheme;
        std::unique_ptr<wSimulationSystem> system;
        try {
            scheme = schemeWith(key);
            system.reset(scheme->instantiate());
        } catch (const std::exception& e) {
            // A type that cannot run with its defaults alone has no blob to restore here.
            std::printf("    [ skipped  ] %s: %s\n", key.c_str(), e.what());
            continue;
        }
        const int size = system->getSchemeStateDataSize();
        if (size <= 0) continue;

        // Twice over: every byte 0xFF, then the blob as saved with each byte flipped.
        zo::vector<unsigned char> saved;
        ASSERT_TRUE(system->getSchemeStateData(&saved));
        zo::vector<unsigned char> flipped = saved;
        for (unsigned char& b : flipped) b = static_cast<unsigned char>(~b);
        for (const zo::vector<unsigned char>& blob : {zo::vector<unsigned char>(saved.size(), 0xFF), flipped}) {
            try {
                system->setSchemeStateData(&blob);
                restored.insert(key);
                // Running and saving again read every restored member.
                for (int k = 0; k < 5; ++k) system->simulate(0.1 * k);
                zo::vector<unsigned char> again;
                system->getSchemeStateData(&again);
            } catch (const wSimulationException&) {
                // Refusing the blob, or a state that cannot run, is fine; undefined behaviour is not.
            }
        }
    }
    // The timers keep yes/no flags in their state: they must have been exercised.
    EXPECT_EQ(restored.count("wBlockGo2doubleOntimerDescriptor"), 1u);
    EXPECT_EQ(restored.count("wBlockFlagOnSignalTimerDescriptor"), 1u);
}

}  // namespace
