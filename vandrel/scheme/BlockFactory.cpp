#include "vandrel/scheme/BlockFactory.h"

#include "vandrel/runtime/SimulationException.h"

wSimulationBlockFactory* wSimulationBlockFactory::instance() {
    static wSimulationBlockFactory factory;
    return &factory;
}

void wSimulationBlockFactory::register_descriptor(const zo::string& className, const Creator& creator,
                                                  const zo::string& description) {
    if (creators_.count(className) != 0) throw wSimulationException("Duplicate simulation block: " + className);
    creators_.emplace(className, creator);
    keysDescriptions_.emplace_back(className, description);
}

wSimulationBlockDescriptor* wSimulationBlockFactory::generate(const zo::string& className) const {
    const auto it = creators_.find(className);
    if (it == creators_.end()) throw wSimulationException("Block " + className + " not found");
    return it->second();
}
