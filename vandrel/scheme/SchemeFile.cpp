// The scheme file: a Lua source file defining the global table "simulation_scheme":
//
//   simulation_scheme = {
//     blocks      = { {block entry}, ... },     -- array position - 1 = block index
//     solver      = { __type = ..., ... },      -- only when the scheme has a solver
//     io          = { inputWires = {...}, inputPorts = {...},
//                     outputWires = {...}, outputPorts = {...} },  -- { name =, type = }
//     connections = { { output_block =, output_lead =, input_block =, input_lead =,
//                       port = }, ... },        -- block -666: I/O, -665: special commands
//   }
//
// Keys are written in that order. Block entries belong to the block serializers and the
// descriptors, the solver table to the solver registry.
#include <algorithm>
#include <new>
#include <ostream>
#include <set>
#include <string>
#include <string_view>
#include <unordered_map>
#include <unordered_set>
#include <utility>

#include "vandrel/platform/LuaLoader.h"
#include "vandrel/platform/LuaSerializer.h"
#include "vandrel/runtime/ResourceLimits.h"
#include "vandrel/runtime/SimulationException.h"
#include "vandrel/runtime/SimulationLogger.h"
#include "vandrel/scheme/BlockSerializer.h"
#include "vandrel/scheme/SimulationSystemScheme.h"

namespace {

const zo::string& globalName() {
    static const zo::string name = "simulation_scheme";
    return name;
}

// The four lead arrays of "io", in file order, with the (isInput, isPort) list they hold.
struct IOList {
    const char* key;
    bool isInput;
    bool isPort;
};
constexpr IOList kIOLists[] = {
    {"inputWires", true, false},
    {"inputPorts", true, true},
    {"outputWires", false, false},
    {"outputPorts", false, true},
};

// Input wires already fed by a wire connection of this load: an input wire reads exactly
// one slot, so a second wire into it is refused.
using WireTargets = std::set<std::pair<const wSimulationBlockDescriptor*, zo::string>>;

// Reads the connection entry the loader is on and checks it against the blocks read so far.
wSimulationSystemScheme::Connection readConnection(wSimulationSystemScheme& scheme, const Lua::Loader& loader,
                                                   WireTargets& fedWires) {
    const int count = scheme.getBlocksCount();
    auto isValidIndex = [count](int i) {
        return i == wSimulationSystemScheme::kIOBlockIndex || i == wSimulationSystemScheme::kSpecialCommandsIndex ||
               (i >= 0 && i < count);
    };

    const int outIndex = loader.getInt("output_block");
    const int inIndex = loader.getInt("input_block");
    auto invalid = [count](const char* which, int index) {
        const zo::string range = count > 0 ? "0 to " + std::to_string(count - 1) + ", " : zo::string();
        return wSimulationException(zo::string("invalid ") + which + " block: " + std::to_string(index) +
                                    " is not a block index; use " + range + "-666 for the scheme's I/O or -665"
                                    " for its special commands");
    };
    if (!isValidIndex(inIndex)) throw invalid("input", inIndex);
    if (!isValidIndex(outIndex)) throw invalid("output", outIndex);
    const bool isPort = loader.getBoolean("port");

    wSimulationBlockDescriptor* from = scheme.getBlockByIndex(outIndex);
    zo::string outLead = loader.getString("output_lead");
    if (!from->hasLead(false, isPort, outLead))
        throw wSimulationException("Block " + std::to_string(outIndex) + " has no output " + outLead);

    wSimulationBlockDescriptor* to = scheme.getBlockByIndex(inIndex);
    zo::string inLead = loader.getString("input_lead");
    if (!to->hasLead(true, isPort, inLead))
        throw wSimulationException("Block " + std::to_string(inIndex) + " has no input " + inLead);

    const zo::string what = std::to_string(outIndex) + "." + outLead + " -> " + std::to_string(inIndex) + "." + inLead;
    if (from->getLeadType(false, isPort, outLead) != to->getLeadType(true, isPort, inLead))
        throw wSimulationException("Cannot connect " + what + ": different types");
    if (!isPort && !fedWires.emplace(to, inLead).second)
        throw wSimulationException("Cannot connect " + what + ": too many input connections");

    return wSimulationSystemScheme::Connection{from, to, std::move(outLead), std::move(inLead), isPort};
}

// The Lua loader names the file in some of its messages ("f.lua:3: ...", "f.lua: ...",
// "Cannot open file: f.lua"); the load's own prefix names it already, so say it once.
zo::string withoutFileName(std::string_view message, const zo::string& file) {
    if (message.starts_with(file) && message.size() > file.size() && message[file.size()] == ':') {
        std::string_view rest = message.substr(file.size() + 1);
        std::size_t digits = 0;
        while (digits < rest.size() && rest[digits] >= '0' && rest[digits] <= '9') ++digits;
        if (digits > 0 && digits < rest.size() && rest[digits] == ':')
            return "line " + zo::string(rest.substr(0, digits)) + zo::string(rest.substr(digits));
        if (rest.starts_with(" ")) rest.remove_prefix(1);
        return zo::string(rest);
    }
    const zo::string tail = ": " + file;
    if (message.ends_with(tail)) return zo::string(message.substr(0, message.size() - tail.size()));
    return zo::string(message);
}

// Overrides entries that no parameter took, each with the reason, in key order.
zo::vector<zo::string> unusedOverrides(wSimulationSystemScheme& scheme, Lua::Loader& overrides,
                                       const std::set<std::pair<zo::string, zo::string>>& used) {
    zo::vector<zo::string> warnings;
    for (const zo::string& blockName : overrides.getKeys()) {
        const zo::string where = overrides.formatPath(blockName);
        wSimulationBlockDescriptor* block = scheme.getBlockByName(blockName);
        if (block == nullptr || blockName.find('.') != zo::string::npos) {
            warnings.push_back(where + " was not used: the scheme has no block named " + blockName);
            continue;
        }
        // Entries under a subsystem address its nested blocks: its own load checked them.
        if (const wSimulationSystemScheme* nested = block->getNestedScheme()) {
            for (const zo::string& w : nested->getLoadWarnings()) warnings.push_back(w);
            continue;
        }
        // (An entry for a block that is no table has failed the load already.)
        if (!overrides.tryBeginSubtable(blockName)) continue;
        zo::vector<zo::string> names;
        for (const wBlockParameterContainer& p : block->getParametersList()) names.push_back(p.getName());
        for (const zo::string& parameter : overrides.getKeys()) {
            if (used.count({blockName, parameter}) != 0) continue;
            const zo::string path = where + "." + parameter;
            if (std::find(names.begin(), names.end(), parameter) == names.end())
                warnings.push_back(path + " was not used: block " + blockName + " has no parameter " + parameter);
            else
                warnings.push_back(path + " was not used: an override only fills a parameter whose entry in the"
                                          " scheme file has no value");
        }
        overrides.endSubtable();
    }
    return warnings;
}

}  // namespace

// ---- The I/O block's "io" table

void wSimulationSystemScheme::InputOutputBlock::load(Lua::Loader* loader) {
    for (const IOList& io : kIOLists) {
        wLeadList& leads = list_(io.isInput, io.isPort);
        leads.clear();
        loader->beginSubtable(io.key);
        loader->beginArray();
        while (loader->nextArray()) {
            zo::string name = loader->getString("name");
            if (hasLead(io.isInput, io.isPort, name)) throw wSimulationException("Duplicate IO lead: " + name);
            const int type = loader->getInt("type");
            if (!isValidLeadType(type))
                throw wSimulationException("Invalid lead type (" + name + "): " + std::to_string(type));
            leads.push_back(wLeadDescription{std::move(name), static_cast<eLeadType>(type)});
        }
        loader->endSubtable();
    }
}

void wSimulationSystemScheme::InputOutputBlock::save(Lua::Loader* loader) const {
    for (const IOList& io : kIOLists) saveLeadList(*loader, io.key, getLeads(io.isInput, io.isPort));
}

// ---- Saving

void wSimulationSystemScheme::save(const zo::string& fileName) {
    try {
        // Connection ends by index; a block this scheme does not list is written as 0.
        std::unordered_map<const wSimulationBlockDescriptor*, int> indexOf;
        indexOf.reserve(blocks_.size() + 2);
        indexOf.emplace(&ioBlock_, kIOBlockIndex);
        indexOf.emplace(&specialCmdsBlock_, kSpecialCommandsIndex);
        for (std::size_t i = 0; i < blocks_.size(); ++i) indexOf.emplace(blocks_[i].get(), static_cast<int>(i));
        auto index = [&indexOf](const wSimulationBlockDescriptor* b) {
            auto it = indexOf.find(b);
            return it == indexOf.end() ? 0 : it->second;
        };

        Lua::Loader loader;
        loader.createGlobalTable(globalName());

        loader.createSubtable("blocks");
        wEditorBlockSerializer writer(&loader, false);
        for (std::size_t i = 0; i < blocks_.size(); ++i) {
            loader.createSubtable(static_cast<int>(i) + 1);
            blocks_[i]->serialize(writer);
            loader.endSubtable();
        }
        loader.endSubtable();

        if (solver_) {
            loader.createSubtable("solver");
            wOdeSolversFactory::save(&loader, *solver_);
            loader.endSubtable();
        }

        loader.createSubtable("io");
        ioBlock_.save(&loader);
        loader.endSubtable();

        loader.createSubtable("connections");
        for (std::size_t i = 0; i < connections_.size(); ++i) {
            const Connection& c = connections_[i];
            loader.createSubtable(static_cast<int>(i) + 1);
            loader.setInt("output_block", index(c.from));
            loader.setString("output_lead", c.fromLead);
            loader.setInt("input_block", index(c.to));
            loader.setString("input_lead", c.toLead);
            loader.setBoolean("port", c.isPort);
            loader.endSubtable();
        }
        loader.endSubtable();

        Lua::Serializer(fileName).serialize(loader.getState(), globalName());
    } catch (const Exception& e) {
        throw wSimulationException("While serializing " + fileName + ": " + e.what());
    }
}

// ---- Loading

void wSimulationSystemScheme::loadForEdit(const zo::string& fileName, zo::vector<int>& discarded, bool) {
    load_(fileName, nullptr, &discarded, false);
}

void wSimulationSystemScheme::loadForRuntime(const zo::string& fileName, Lua::Loader* overrides, bool isNested) {
    if (overrides != nullptr) {
        load_(fileName, overrides, nullptr, isNested);
        return;
    }
    // A running load is told apart by its overrides loader: give it an empty table.
    Lua::Loader none;
    none.createGlobalTable("a");
    load_(fileName, &none, nullptr, isNested);
}

void wSimulationSystemScheme::loadForRuntime(const zo::string& fileName) { loadForRuntime(fileName, nullptr, false); }

void wSimulationSystemScheme::load_(const zo::string& fileName, Lua::Loader* overrides, zo::vector<int>* discarded,
                                    bool isNested) {
    const bool running = overrides != nullptr;
    // Every failure names the file, whichever layer it comes from.
    const zo::string prefix = "Error while loading " + fileName + ": ";
    try {
        clear_();
        fileName_ = fileName;
        Lua::Loader loader;
        loader.load(fileName, globalName());
        rootDir_ = loader.getDirectory();

        bool hasContinuous = false;
        const zo::string blocksPath = loader.formatPath("blocks");
        loader.beginSubtable("blocks");
        loader.beginArray();
        wEditorBlockSerializer editorReader(&loader, true);
        wRuntimeBlockSerializer runtimeReader(&loader, overrides);
        wBlockSerializer& reader = running ? static_cast<wBlockSerializer&>(runtimeReader) : editorReader;
        // Plain names seen so far: addBlock's lookup is linear, which would make loading
        // quadratic in the number of blocks. Dotted names ("sub.inner") still go through
        // addBlock, which looks into subsystems.
        std::unordered_set<std::string_view> plainNames;
        for (int position = 1; loader.nextArray(); ++position) {
            std::unique_ptr<wSimulationBlockDescriptor> block(reader.createBlock());
            hasContinuous = hasContinuous || block->isOfType(BLOCK_DIFF);
            // What a block will allocate is refused while its place in the file is known.
            if (running) checkBlockAllocation(*block, blocksPath + "[" + std::to_string(position) + "]");
            const zo::string& name = block->getName();
            if (name.empty() || name.find('.') != zo::string::npos) {
                addBlock(std::move(block));
                continue;
            }
            if (!plainNames.insert(name).second)
                throw wSimulationException("Trying to add block with duplicate name: " + name);
            adoptBlock_(std::move(block));
        }
        loader.endSubtable();
        if (running) loadWarnings_ = unusedOverrides(*this, *overrides, runtimeReader.getUsedOverrides());

        // A running scheme needs a solver exactly when it has continuous state; an edited
        // one keeps whatever the file holds.
        if (running ? hasContinuous : loader.hasEntry("solver")) {
            const zo::string where = loader.formatPath("solver");
            loader.beginSubtable("solver");
            setOdeSolverDescriptor(wOdeSolversFactory::instance()->load(&loader));
            loader.endSubtable();
            // A step that cannot integrate is refused here, with its place in the file,
            // rather than when the first simulate call hangs or goes backwards.
            if (running) solver_->validate(where);
        }

        loader.beginSubtable("io");
        ioBlock_.load(&loader);
        loader.endSubtable();

        const zo::string connectionsPath = loader.formatPath("connections");
        loader.beginSubtable("connections");
        loader.beginArray();
        WireTargets fedWires;
        wSimulationLogger& log = wSimulationLogger::instance();
        for (int position = 0; loader.nextArray(); ++position) {
            // Say which entry a check refused (the loader's own messages give their path).
            auto located = [&](const wSimulationException& e) {
                return wSimulationException(zo::string(e.what()) + " (at " + connectionsPath + "[" +
                                            std::to_string(position + 1) + "])");
            };
            if (running) {
                try {
                    connections_.push_back(readConnection(*this, loader, fedWires));
                } catch (const wSimulationException& e) {
                    throw located(e);
                }
                continue;
            }
            // An editor keeps going without the connections it cannot make.
            zo::string failure;
            try {
                connections_.push_back(readConnection(*this, loader, fedWires));
                continue;
            } catch (const Lua::LoaderException& e) {
                failure = e.what();
            } catch (const wSimulationException& e) {
                failure = located(e).what();
            }
            if (log.enabled(LOG_WARNINGS))
                log << wSimulationLogger::Indenter() << "Discarding connection: " << failure << std::endl;
            if (discarded != nullptr) discarded->push_back(position);
        }
        loader.endSubtable();

        if (running) {
            postLoad_(isNested);
            // A nested scheme is counted with the scheme that holds it.
            if (!isNested) checkSchemeAllocation(*this);
        }
    } catch (const Lua::LoaderException& e) {
        throw wSimulationException(prefix + withoutFileName(e.what(), fileName));
    } catch (const wSimulationException& e) {
        if (std::string_view(e.what()).starts_with(prefix)) throw;
        throw wSimulationException(prefix + withoutFileName(e.what(), fileName));
    } catch (const std::bad_alloc&) {
        throw;
    } catch (const std::exception& e) {
        throw wSimulationException(prefix + e.what());
    }
}
