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
#include <cstdlib>
#include <map>
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
#include "vandrel/platform/Suggest.h"
#include "vandrel/runtime/ResourceLimits.h"
#include "vandrel/runtime/SimulationException.h"
#include "vandrel/runtime/SimulationLogger.h"
#include "vandrel/scheme/BlockFactory.h"
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

// Input wires already fed by a wire connection of this load, with the 1-based position
// of that connection: an input wire reads exactly one slot, so a second wire is refused.
using WireTargets = std::map<std::pair<const wSimulationBlockDescriptor*, zo::string>, int>;

// The I/O array of (isInput, isPort), as its key in "io".
const char* ioListKey(bool isInput, bool isPort) {
    for (const IOList& io : kIOLists)
        if (io.isInput == isInput && io.isPort == isPort) return io.key;
    return "";
}

const char* leadKind(bool isInput, bool isPort) {
    if (isInput) return isPort ? "input ports" : "input wires";
    return isPort ? "output ports" : "output wires";
}

// One end of a connection as messages name it: a block with its place in the file, the
// scheme's own inputs or outputs, or the special-commands block.
struct ConnectionEnd {
    const wSimulationBlockDescriptor* block;
    int index;  // as written in the file
};

zo::string blockLabel(const wSimulationBlockDescriptor& block, int index) {
    return "block " + block.getName() + " (" + block.getBlockTypeName() + ") at simulation_scheme.blocks[" +
           std::to_string(index + 1) + "]";
}

// "lead of block g (TestGain) at ...", "scheme input v", "scheme output y".
zo::string leadLabel(const ConnectionEnd& end, bool isInput, const zo::string& lead) {
    if (end.index == wSimulationSystemScheme::kIOBlockIndex) return (isInput ? "scheme output " : "scheme input ") + lead;
    if (end.index == wSimulationSystemScheme::kSpecialCommandsIndex) return lead + " of the special commands block";
    return lead + " of " + blockLabel(*end.block, end.index);
}

// What follows "Block N has no input/output L": which leads of that kind there are, the
// one probably meant, or that L is of the other kind.
zo::string missingLeadHelp(const ConnectionEnd& end, bool isInput, bool isPort, const zo::string& lead) {
    const bool io = end.index == wSimulationSystemScheme::kIOBlockIndex;
    // The I/O block's inputs are the scheme's outputs, and the other way round.
    const char* schemeKind = leadKind(!isInput, isPort);
    const zo::string listPath = zo::string("simulation_scheme.io.") + ioListKey(isInput, isPort);
    if (end.block->hasLead(isInput, !isPort, lead)) {
        const zo::string other = leadKind(isInput, !isPort);
        return ": " + (io ? zo::string("the scheme's ") + leadKind(!isInput, !isPort) + " hold " + lead
                          : lead + " is one of the " + other + " of " +
                                (end.index >= 0 ? blockLabel(*end.block, end.index) : "the special commands block")) +
               ", so write port = " + (isPort ? "false" : "true");
    }
    const wLeadList& leads = end.block->getLeads(isInput, isPort);
    zo::string owner;
    if (io) owner = zo::string("scheme's ") + schemeKind + " (" + listPath + ")";
    else if (end.index >= 0) owner = leadKind(isInput, isPort) + zo::string(" of ") + blockLabel(*end.block, end.index);
    else owner = leadKind(isInput, isPort) + zo::string(" of the special commands block");
    if (leads.empty()) {
        if (io) return zo::string(": the scheme has no ") + schemeKind + "; declare " + lead + " in " + listPath;
        return ": there are no " + owner;
    }
    zo::vector<zo::string> names, described;
    for (const wLeadDescription& l : leads) {
        names.push_back(l.name);
        described.push_back(l.name + " (" + leadTypeNames[l.type] + ")");
    }
    return ": the " + owner + " are " + Text::listNames(described) + Text::didYouMean(lead, names);
}

// Reads the connection entry the loader is on and checks it against the blocks read so far.
wSimulationSystemScheme::Connection readConnection(wSimulationSystemScheme& scheme, const Lua::Loader& loader,
                                                   WireTargets& fedWires, int position) {
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
    const ConnectionEnd source{from, outIndex};
    zo::string outLead = loader.getString("output_lead");
    if (!from->hasLead(false, isPort, outLead))
        throw wSimulationException("Block " + std::to_string(outIndex) + " has no output " + outLead +
                                   missingLeadHelp(source, false, isPort, outLead));

    wSimulationBlockDescriptor* to = scheme.getBlockByIndex(inIndex);
    const ConnectionEnd target{to, inIndex};
    zo::string inLead = loader.getString("input_lead");
    if (!to->hasLead(true, isPort, inLead))
        throw wSimulationException("Block " + std::to_string(inIndex) + " has no input " + inLead +
                                   missingLeadHelp(target, true, isPort, inLead));

    const zo::string what = std::to_string(outIndex) + "." + outLead + " -> " + std::to_string(inIndex) + "." + inLead;
    const eLeadType outType = from->getLeadType(false, isPort, outLead), inType = to->getLeadType(true, isPort, inLead);
    if (outType != inType)
        throw wSimulationException("Cannot connect " + what + ": different types: " +
                                   leadLabel(source, false, outLead) + " is " + leadTypeNames[outType] + ", " +
                                   leadLabel(target, true, inLead) + " is " + leadTypeNames[inType]);
    if (!isPort) {
        const auto [fed, isNew] = fedWires.emplace(std::make_pair(to, inLead), position);
        if (!isNew)
            throw wSimulationException("Cannot connect " + what + ": too many input connections: " +
                                       leadLabel(target, true, inLead) + " is fed by simulation_scheme.connections[" +
                                       std::to_string(fed->second) + "] already, and an input wire reads one wire");
    }

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

// The fixed texts of failed parameter reads, with what the entry has to hold.
zo::string explained(std::string_view message) {
    constexpr std::string_view vector = " failed to Lua::Loader::getVector";
    if (message.ends_with(vector)) return zo::string(message) + ": expected three numbers, { x, y, z }";
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
        // Entries under a subsystem address its nested blocks: its own load checked them,
        // and its warnings join this scheme's.
        if (block->getNestedScheme() != nullptr) continue;
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
            if (hasLead(io.isInput, io.isPort, name))
                throw wSimulationException("Duplicate IO lead: " + name + " (at " + loader->formatPath("name") +
                                           "; each name appears once in " + io.key + ")");
            const int type = loader->getInt("type");
            if (!isValidLeadType(type)) {
                zo::string types;
                for (int t = 0; t < kLeadTypeCount; ++t)
                    types += (t == 0 ? "" : ", ") + std::to_string(t) + " " + leadTypeNames[t];
                throw wSimulationException("Invalid lead type (" + name + "): " + std::to_string(type) + "; use " +
                                           types + " (at " + loader->formatPath("type") + ")");
            }
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
    none.createGlobalTable("overrides");
    load_(fileName, &none, nullptr, isNested);
}

void wSimulationSystemScheme::loadForRuntime(const zo::string& fileName) { loadForRuntime(fileName, nullptr, false); }

namespace {

// More help after the message of a failed block entry: where it is, and for an unknown
// class the registered class probably meant (also when the display name was written).
wSimulationException blockFailure(const wSimulationException& e, const Lua::Loader& loader, int position) {
    zo::string message = e.what();
    zo::string type;
    if (loader.tryGetString("__type", &type) && message == "Block " + type + " not found") {
        zo::vector<zo::string> classes;
        for (const auto& [key, description] : wSimulationBlockFactory::instance()->getKeysDescriptions())
            classes.push_back(key);
        zo::string hint = Text::didYouMean(type, classes);
        if (hint.empty()) {
            for (const zo::string& key : classes) {
                const std::unique_ptr<wSimulationBlockDescriptor> block(wSimulationBlockFactory::instance()->generate(key));
                if (Text::closestName(type, {block->getBlockTypeName()}).empty() && block->getBlockTypeName() != type)
                    continue;
                hint = "; " + type + " is the display name of " + key + ": write __type = \"" + key + "\"";
                break;
            }
        }
        message += hint;
    }
    // Messages of the serializer name the entry already (those of a nested file name
    // entries of that file).
    const zo::string where = "simulation_scheme.blocks[" + std::to_string(position) + "]";
    if (message.find(where + ".") != zo::string::npos && message.find("Error while loading ") == zo::string::npos)
        return wSimulationException(message);
    return wSimulationException(message + " (at " + where + ")");
}

// "NAME (TYPE)" of the continuous blocks, for the message of a missing solver.
zo::string continuousBlocks(const wSimulationSystemScheme::BlockList& blocks) {
    zo::vector<zo::string> names;
    for (const auto& b : blocks)
        if (b->isOfType(BLOCK_DIFF)) names.push_back(b->getName() + " (" + b->getBlockTypeName() + ")");
    return Text::listNames(names, 4);
}

zo::vector<zo::string> solverKinds() {
    zo::vector<zo::string> kinds;
    for (const auto& [key, description] : wOdeSolversFactory::instance()->getKeysDescriptions()) kinds.push_back(key);
    return kinds;
}

// What a running load did not read, as warnings naming the file and the entry, each with
// what the entry would have to be to be read.
zo::vector<zo::string> unreadWarnings(const Lua::Loader& loader, const wSimulationSystemScheme::BlockList& blocks,
                                      const zo::string& fileName, bool hasSolver) {
    const zo::string top = loader.getGlobalName();
    zo::vector<zo::string> warnings;
    for (const Lua::Loader::UnreadEntry& e : loader.getUnreadEntries()) {
        const zo::string& parent = e.parent;
        zo::string why;
        // Whose entry is it: a block, the parameters of a block, a connection, the top level.
        const wSimulationBlockDescriptor* block = nullptr;
        bool parameters = false;
        const zo::string blocksPrefix = top + ".blocks[";
        if (parent.starts_with(blocksPrefix)) {
            const std::size_t close = parent.find(']', blocksPrefix.size());
            const zo::string rest = close == zo::string::npos ? zo::string() : parent.substr(close + 1);
            const int position = std::atoi(parent.c_str() + blocksPrefix.size());
            if (position >= 1 && position <= static_cast<int>(blocks.size()) && (rest.empty() || rest == ".__parameters")) {
                block = blocks[static_cast<std::size_t>(position - 1)].get();
                parameters = !rest.empty();
            }
        }
        if (e.key.starts_with("[")) {
            why = "the list is read up to its first gap, and this entry comes after it";
        } else if (block != nullptr && parameters) {
            zo::vector<zo::string> names;
            for (const wBlockParameterContainer& p : const_cast<wSimulationBlockDescriptor*>(block)->getParametersList())
                names.push_back(p.getName());
            why = "block " + block->getName() + " (" + block->getBlockTypeName() + ") has no parameter " + e.key +
                  Text::didYouMean(e.key, names);
        } else if (block != nullptr) {
            why = "block " + block->getName() + " (" + block->getBlockTypeName() + ") does not use the key " + e.key +
                  Text::didYouMean(e.key, e.asked);
        } else if (parent == top && e.key == "solver" && !hasSolver) {
            why = "the scheme has no continuous blocks, so it runs without a solver";
        } else if (parent == top) {
            why = "a scheme file holds blocks, solver, io and connections" +
                  Text::didYouMean(e.key, {"blocks", "solver", "io", "connections"});
        } else if (e.asked.empty()) {
            why = "nothing is read from the table it is in";
        } else {
            why = "only " + Text::listNames(e.asked) + " " + (e.asked.size() == 1 ? "is" : "are") + " read here" +
                  Text::didYouMean(e.key, e.asked);
        }
        warnings.push_back(fileName + ": " + e.path + " was not read: " + why);
    }
    return warnings;
}

}  // namespace

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
        // A running load reports every entry it did not read: a misspelt key is otherwise
        // silently ignored.
        loader.trackReads(running);

        bool hasContinuous = false;
        const zo::string blocksPath = loader.formatPath("blocks");
        loader.beginSubtable("blocks");
        loader.beginArray();
        wEditorBlockSerializer editorReader(&loader, true);
        wRuntimeBlockSerializer runtimeReader(&loader, overrides);
        wBlockSerializer& reader = running ? static_cast<wBlockSerializer&>(runtimeReader) : editorReader;
        // Plain names seen so far, with their place: addBlock's lookup is linear, which
        // would make loading quadratic in the number of blocks. Dotted names ("sub.inner")
        // still go through addBlock, which looks into subsystems.
        std::unordered_map<std::string_view, int> plainNames;
        for (int position = 1; loader.nextArray(); ++position) {
            std::unique_ptr<wSimulationBlockDescriptor> block;
            try {
                block.reset(reader.createBlock());
            } catch (const wSimulationException& e) {
                throw blockFailure(e, loader, position);
            }
            hasContinuous = hasContinuous || block->isOfType(BLOCK_DIFF);
            // What a block will allocate is refused while its place in the file is known.
            if (running) checkBlockAllocation(*block, blocksPath + "[" + std::to_string(position) + "]");
            const zo::string& name = block->getName();
            if (name.empty() || name.find('.') != zo::string::npos) {
                addBlock(std::move(block));
                continue;
            }
            if (const auto [seen, isNew] = plainNames.emplace(name, position); !isNew)
                throw wSimulationException("Trying to add block with duplicate name: " + name + " (at " + blocksPath +
                                           "[" + std::to_string(position) + "]; " + blocksPath + "[" +
                                           std::to_string(seen->second) + "] has that name already)");
            adoptBlock_(std::move(block));
        }
        loader.endSubtable();
        if (running) loadWarnings_ = unusedOverrides(*this, *overrides, runtimeReader.getUsedOverrides());

        // A running scheme needs a solver exactly when it has continuous state; an edited
        // one keeps whatever the file holds.
        if (running ? hasContinuous : loader.hasEntry("solver")) {
            const zo::string where = loader.formatPath("solver");
            if (!loader.hasEntry("solver"))
                throw Lua::LoaderException(where + " is missing: the continuous blocks " + continuousBlocks(blocks_) +
                                           " need a solver, e.g. solver = { __type = \"wSolverExplEulerDescriptor\","
                                           " H = 0.001 }");
            loader.beginSubtable("solver");
            try {
                setOdeSolverDescriptor(wOdeSolversFactory::instance()->load(&loader));
            } catch (const wSimulationException& e) {
                zo::string type;
                if (!loader.tryGetString("__type", &type) || zo::string(e.what()) != "Unknown ODE solver type: " + type)
                    throw;
                const zo::vector<zo::string> kinds = solverKinds();
                throw wSimulationException(zo::string(e.what()) + Text::didYouMean(type, kinds) + " (at " +
                                           where + ".__type; the kinds are " + Text::listNames(kinds) + ")");
            }
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
                    connections_.push_back(readConnection(*this, loader, fedWires, position + 1));
                } catch (const wSimulationException& e) {
                    throw located(e);
                }
                continue;
            }
            // An editor keeps going without the connections it cannot make.
            zo::string failure;
            try {
                connections_.push_back(readConnection(*this, loader, fedWires, position + 1));
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
            // What this file holds that the load did not read, then what nested files hold.
            const zo::vector<zo::string> unread = unreadWarnings(loader, blocks_, fileName, hasContinuous);
            if (log.enabled(LOG_WARNINGS))
                for (const zo::string& w : unread) log << wSimulationLogger::Indenter() << "Warning: " << w << std::endl;
            loadWarnings_.insert(loadWarnings_.end(), unread.begin(), unread.end());
            // A file used by several subsystem blocks says what it lacks once.
            std::unordered_set<std::string_view> seen(loadWarnings_.begin(), loadWarnings_.end());
            zo::vector<zo::string> nestedWarnings;
            for (const auto& b : blocks_)
                if (const wSimulationSystemScheme* nested = b->getNestedScheme())
                    for (const zo::string& w : nested->getLoadWarnings())
                        if (seen.insert(w).second) nestedWarnings.push_back(w);
            loadWarnings_.insert(loadWarnings_.end(), nestedWarnings.begin(), nestedWarnings.end());
            // Analysis messages name blocks by their place in the file.
            fileOrder_.clear();
            for (const auto& b : blocks_) fileOrder_.push_back(b.get());
            postLoad_(isNested);
            // A nested scheme is counted with the scheme that holds it.
            if (!isNested) checkSchemeAllocation(*this);
        }
    } catch (const Lua::LoaderException& e) {
        throw wSimulationException(prefix + withoutFileName(explained(e.what()), fileName));
    } catch (const wSimulationException& e) {
        if (std::string_view(e.what()).starts_with(prefix)) throw;
        throw wSimulationException(prefix + withoutFileName(e.what(), fileName));
    } catch (const std::bad_alloc&) {
        throw;
    } catch (const std::exception& e) {
        throw wSimulationException(prefix + e.what());
    }
}

int wSimulationSystemScheme::getFileIndex(const wSimulationBlockDescriptor* block) const {
    const auto it = std::find(fileOrder_.begin(), fileOrder_.end(), block);
    return it == fileOrder_.end() ? -1 : static_cast<int>(it - fileOrder_.begin());
}
