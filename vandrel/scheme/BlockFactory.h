#pragma once
// The process-wide registry of block classes: class name ("__type" in files) to creator,
// plus (class name, description) pairs in registration order for editors.
// Every class is registered when the library is loaded, from one place that lists them
// in order; afterwards the factory is only read.
#include <map>
#include <memory>
#include <utility>

#include "vandrel/core/SimulationBlockDescriptor.h"
#include "vandrel/platform/CoreMeta.h"
#include "vandrel/platform/String.h"

class wSimulationBlockFactory {
public:
    // A nullary creator returning a new descriptor, owned by whoever called it.
    using Creator = CoreMeta::Functor<wSimulationBlockDescriptor*,
                                      CoreMeta::TypeList<CoreMeta::NullType, CoreMeta::NullType>>;

    static wSimulationBlockFactory* instance();

    // Throws "Duplicate simulation block: " + name (and changes nothing) for a known name.
    void register_descriptor(const zo::string& className, const Creator& creator,
                             const zo::string& description);
    // Registers D under D::getBlockClassNameS() with D::__create_instance.
    template <class D>
    void registerClass(const zo::string& description) {
        register_descriptor(D::getBlockClassNameS(), Creator([]() -> wSimulationBlockDescriptor* { return D::__create_instance(); }),
                            description);
    }

    // A new descriptor of that class, owned by the caller; throws "Block " + name + " not found".
    wSimulationBlockDescriptor* generate(const zo::string& className) const;
    bool hasClass(const zo::string& className) const { return creators_.count(className) != 0; }
    zo::vector<std::pair<zo::string, zo::string>> getKeysDescriptions() const { return keysDescriptions_; }

private:
    std::map<zo::string, Creator, std::less<>> creators_;
    zo::vector<std::pair<zo::string, zo::string>> keysDescriptions_;
};
