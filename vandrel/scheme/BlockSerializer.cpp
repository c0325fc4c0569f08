#include "vandrel/scheme/BlockSerializer.h"

#include "vandrel/core/SimulationBlockDescriptor.h"
#include "vandrel/platform/LuaLoader.h"
#include "vandrel/platform/Suggest.h"
#include "vandrel/runtime/SimulationException.h"
#include "vandrel/scheme/BlockFactory.h"

const zo::string& wBlockSerializer::getDirectory() { return getLoader()->getDirectory(); }

// ---- Editor: faithful reading and writing

wSimulationBlockDescriptor* wEditorBlockSerializer::createBlock() {
    const zo::string type = loader_->getString("__type");
    std::unique_ptr<wSimulationBlockDescriptor> descriptor(wSimulationBlockFactory::instance()->generate(type));
    // A half-read descriptor goes with the unique_ptr if this throws.
    descriptor->serialize(*this);
    return descriptor.release();
}

void wEditorBlockSerializer::beginParameters() {
    if (reading_) loader_->beginSubtable("__parameters");
    else loader_->createSubtable("__parameters");
}

void wEditorBlockSerializer::serializeParameter(wBlockParameterContainer& p) {
    wBlockParameterProxyBase* proxy = p.getProxy();
    if (!proxy) return;
    if (reading_) {
        // No subtable: the parameter keeps its default and is undefined.
        if (!loader_->tryBeginSubtable(p.getName())) {
            proxy->setUndefined(true);
            return;
        }
        proxy->setUndefined(!loader_->hasEntry("value"));
        if (!proxy->isUndefined()) p.load(loader_, "value");
        loader_->endSubtable();
    } else {
        // An undefined parameter is written as an empty subtable.
        loader_->createSubtable(p.getName());
        if (!proxy->isUndefined()) p.save(loader_, "value");
        loader_->endSubtable();
    }
}

void wEditorBlockSerializer::endParameters() { loader_->endSubtable(); }

// ---- Runtime: reading for a simulation, with overrides

wSimulationBlockDescriptor* wRuntimeBlockSerializer::createBlock() {
    const zo::string type = loader_->getString("__type");
    std::unique_ptr<wSimulationBlockDescriptor> descriptor(wSimulationBlockFactory::instance()->generate(type));
    const zo::string name = loader_->getString("__name");

    // Overrides apply through the block's own table of the overrides, if it has one.
    Lua::Loader* const saved = overrides_;
    bool entered = false;
    if (overrides_ && overrides_->hasEntry(name)) {
        overrides_->beginSubtable(name);
        entered = true;
    } else {
        overrides_ = nullptr;
    }
    // The overrides loader belongs to the host and may serve further loads: leave it
    // where it was, whatever happens.
    auto restore = [this, saved, entered] {
        if (entered) overrides_->endSubtable();
        overrides_ = saved;
    };

    blockName_ = name;
    overridesPath_ = saved != nullptr ? saved->formatPath(name) : zo::string();
    try {
        descriptor->serialize(*this);
    } catch (...) {
        restore();
        throw;
    }
    restore();
    return descriptor.release();
}

void wRuntimeBlockSerializer::beginParameters() { loader_->beginSubtable("__parameters"); }

void wRuntimeBlockSerializer::serializeParameter(wBlockParameterContainer& p) {
    wBlockParameterProxyBase* proxy = p.getProxy();
    if (!proxy) return;
    const zo::string& name = p.getName();
    if (!loader_->tryBeginSubtable(name)) {
        if (!proxy->isRequired()) return;  // optional and absent: default stays
        // Say what to write, and which entry of the table was probably meant.
        throw Lua::LoaderException(loader_->formatPath(name) + (loader_->hasEntry(name) ? " must be a table" : " is missing") +
                                   ": block " + blockName_ + " needs its parameter " + name + ", as " + name +
                                   " = { value = ... }" +
                                   Text::meantToBe(name, loader_->getKeys()));
    }

    // The file's value wins; an override fills only a parameter left without a value.
    if (loader_->hasEntry("value")) {
        p.load(loader_, "value");
    } else if (overrides_ && overrides_->hasEntry(name)) {
        p.load(overrides_, name);
        used_.emplace(blockName_, name);
    } else if (proxy->isRequired()) {
        const zo::string where = loader_->formatPath("value");
        loader_->endSubtable();
        throw wSimulationException("Parameter not defined: " + blockName_ + "." + name + ": " + where +
                                   " is missing; write a value there" +
                                   (overridesPath_.empty() ? zo::string()
                                                           : ", or give one in the overrides table as " +
                                                                 overridesPath_ + "." + name));
    }
    loader_->endSubtable();
}

void wRuntimeBlockSerializer::endParameters() { loader_->endSubtable(); }
