#include "vandrel/scheme/SubsystemBlock.h"

#include <filesystem>
#include <new>
#include <ostream>
#include <string>
#include <system_error>
#include <unordered_set>
#include <utility>
#include <vector>

#include "vandrel/core/LeadTypes.h"
#include "vandrel/core/Ports.h"
#include "vandrel/platform/LuaLoader.h"
#include "vandrel/runtime/SimulationException.h"
#include "vandrel/runtime/SimulationLogger.h"
#include "vandrel/scheme/BlockSerializer.h"

namespace {

const char* const kFileNameParameter = "filename";
const char* const kInvalidName = "Subsystem: invalid parameter name - ";

// ---- The chain of subsystem files being loaded on this thread, outermost first.
//
// A file that includes itself would recurse without end, so every nested load checks its
// file against the files whose loads it is inside of. Files are compared by their
// canonical path, so "dir/./a.sch" and "dir/a.sch" are one file; messages show them as
// written.
struct ChainEntry {
    zo::string shown;
    std::string canonical;
    bool nested;  // a subsystem file (not the top-level scheme that started the chain)
};
thread_local std::vector<ChainEntry> loadChain;

std::string canonicalOf(const zo::string& file) {
    std::error_code ec;
    const std::filesystem::path p = std::filesystem::weakly_canonical(std::filesystem::path(file), ec);
    return ec ? std::filesystem::path(file).lexically_normal().string() : p.string();
}

zo::string chainText(const zo::string& next) {
    zo::string text;
    for (const ChainEntry& e : loadChain) text += e.shown + " -> ";
    return text + next;
}

// Enters subsystem file `file` into the chain for the lifetime of the object, after
// checking it. `root` is the file whose load asks for it; it starts the chain when the
// chain is empty (a top-level load).
class ChainGuard {
public:
    ChainGuard(const zo::string& root, const zo::string& file) {
        if (loadChain.empty() && !root.empty()) {
            loadChain.push_back(ChainEntry{root, canonicalOf(root), false});
            ownsRoot_ = true;
        }
        try {
            const std::string canonical = canonicalOf(file);
            int depth = 1;
            for (const ChainEntry& e : loadChain) {
                if (e.canonical == canonical)
                    throw wSimulationException("Subsystem file includes itself: " + chainText(file));
                if (e.nested) ++depth;
            }
            if (depth > wBlockSubsystemDescriptor::kMaxNestingDepth)
                throw wSimulationException("Subsystems nested deeper than " +
                                           std::to_string(wBlockSubsystemDescriptor::kMaxNestingDepth) +
                                           " levels: " + chainText(file));
            loadChain.push_back(ChainEntry{file, canonical, true});
        } catch (...) {
            if (ownsRoot_) loadChain.pop_back();
            throw;
        }
    }
    ~ChainGuard() {
        loadChain.pop_back();
        if (ownsRoot_) loadChain.pop_back();
    }
    ChainGuard(const ChainGuard&) = delete;
    ChainGuard& operator=(const ChainGuard&) = delete;

private:
    bool ownsRoot_ = false;
};

// The segments of a dotted parameter name; throws for an empty one.
std::vector<std::string_view> pathSegments(const zo::string& name) {
    std::vector<std::string_view> segments;
    std::string_view rest(name);
    for (;;) {
        const std::size_t dot = rest.find('.');
        const std::string_view head = rest.substr(0, dot);
        if (head.empty()) throw wSimulationException(kInvalidName + name);
        segments.push_back(head);
        if (dot == std::string_view::npos) break;
        rest.remove_prefix(dot + 1);
    }
    return segments;
}

void logLoadFailure(const zo::string& message) {
    wSimulationLogger& log = wSimulationLogger::instance();
    if (log.enabled(LOG_ERRORS))
        log << wSimulationLogger::Indenter() << "Cannot load subsystem block: " << message << std::endl;
}

const zo::string& nameOf(const wSimulationBlockDescriptor& d) {
    return d.getName().empty() ? d.getBlockTypeName() : d.getName();
}

}  // namespace

// ---- Descriptor

const zo::string& wBlockSubsystemDescriptor::getBlockClassNameS() {
    static const zo::string s = "wBlockSubsystemDescriptor";
    return s;
}

const zo::string& wBlockSubsystemDescriptor::getBlockTypeNameS() {
    static const zo::string s = "Subsystem";
    return s;
}

wBlockSubsystemDescriptor::wBlockSubsystemDescriptor() {
    // Files written before the block offered its file name as a parameter lack it.
    templateScheme_.setRequired(false);
}

wBlockSubsystemDescriptor::wBlockSubsystemDescriptor(const wBlockSubsystemDescriptor& other) = default;
wBlockSubsystemDescriptor& wBlockSubsystemDescriptor::operator=(const wBlockSubsystemDescriptor& other) = default;
wBlockSubsystemDescriptor::~wBlockSubsystemDescriptor() = default;

wSimulationSystemScheme* wBlockSubsystemDescriptor::getNestedScheme() const {
    // The descriptor is never a const object; the const accessor serves lookups by path.
    return loaded_ ? const_cast<wSimulationSystemScheme*>(&nested_) : nullptr;
}

void wBlockSubsystemDescriptor::setTemplateScheme(const zo::string& name) {
    templateScheme_.set(name);
    templateScheme_.setUndefined(false);
}

zo::string wBlockSubsystemDescriptor::containingDirectory_() const {
    if (!readDirectory_.empty()) return readDirectory_;
    const wSimulationSystemScheme* parent = wSimulationBlockDescriptor::getScheme();
    return parent != nullptr ? parent->getRootDir() : zo::string();
}

zo::string wBlockSubsystemDescriptor::getNestedFileName() const {
    // A plain concatenation: the loader's directories end with a separator.
    return containingDirectory_() + getTemplateScheme() + ".sch";
}

wParameterList wBlockSubsystemDescriptor::getParametersList() {
    wParameterList list;
    list.reserve(additional_.size() + 1);
    list.push_back(parameterRef(kFileNameParameter, templateScheme_));
    for (const wBlockParameterContainer& p : additional_) {
        const wBlockParameterProxyBase* proxy = p.getProxy();
        list.emplace_back(p.getName(), proxy ? proxy->makeReference() : nullptr);
    }
    return list;
}

void wBlockSubsystemDescriptor::setParameters(const wParameterList& list) {
    // Built aside, so a refused list leaves the block as it was.
    zo::vector<wBlockParameterContainer> copies;
    copies.reserve(list.size());
    const wBlockParameterProxyBase* fileName = nullptr;
    for (const wBlockParameterContainer& p : list) {
        const wBlockParameterProxyBase* proxy = p.getProxy();
        if (p.getName() == kFileNameParameter) {
            if (proxy == nullptr || proxy->getType() != PARAM_STRING)
                throw wSimulationException("Subsystem: parameter filename must be a string");
            fileName = proxy;
            continue;
        }
        copies.emplace_back(p.getName(), proxy ? proxy->clone(true) : nullptr);
    }
    if (fileName != nullptr) {
        templateScheme_.assign(*fileName);
        templateScheme_.setUndefined(fileName->isUndefined());
    }
    additional_ = std::move(copies);
}

void wBlockSubsystemDescriptor::serialize(wBlockSerializer& s) {
    Lua::Loader* loader = s.getLoader();

    // The additional parameters' names and types; their values follow with the others.
    if (s.isReading()) {
        zo::vector<wBlockParameterContainer> params;
        if (loader->tryBeginSubtable("additional_params")) {
            loader->beginArray();
            while (loader->nextArray()) {
                const int type = loader->getInt("type");
                if (type < 0 || type >= kParameterTypeCount) throw wSimulationException("Invalid parameter type");
                zo::string name = loader->getString("name");
                if (name == kFileNameParameter)
                    throw wSimulationException(kInvalidName + name + " (the name of the block's own file parameter)");
                params.push_back(createParameter(type, name));
            }
            loader->endSubtable();
        }
        additional_ = std::move(params);
    } else {
        loader->createSubtable("additional_params");
        for (std::size_t i = 0; i < additional_.size(); ++i) {
            const wBlockParameterProxyBase* p = additional_[i].getProxy();
            loader->createSubtable(static_cast<int>(i) + 1);
            loader->setString("name", additional_[i].getName());
            loader->setInt("type", p ? static_cast<int>(p->getType()) : 0);
            loader->endSubtable();
        }
        loader->endSubtable();
    }

    wSimulationBlockDescriptor::serialize(s);

    if (!s.isReading()) {
        loader->setString("template_scheme", getTemplateScheme());
        return;
    }
    // An empty template_scheme names no file, as an unset filename parameter does: it must
    // not turn that parameter into a set empty string, or a saved file would not reload alike.
    zo::string name;
    if (loader->tryGetString("template_scheme", &name) && !name.empty()) setTemplateScheme(name);
    readDirectory_ = s.getDirectory();
    loadNested_(&s);
}

void wBlockSubsystemDescriptor::update() { loadNested_(nullptr); }

void wBlockSubsystemDescriptor::loadNested_(wBlockSerializer* s) {
    const bool running = s != nullptr && s->isRuntime();
    loaded_ = false;
    loadError_.clear();
    nested_ = wSimulationSystemScheme();
    // An editor may hold a block that names no file yet: nothing to load.
    if (!running && getTemplateScheme().empty()) return;

    const zo::string file = getNestedFileName();
    try {
        if (getTemplateScheme().empty())
            throw wSimulationException("Subsystem block " + nameOf(*this) +
                                       " names no scheme file: set its template_scheme");
        const ChainGuard chain(s != nullptr ? s->getLoader()->getFileName() : zo::string(), file);
        if (running) {
            // The additional parameters reach the nested blocks as overrides: through the
            // host's overrides for this block when there are any, else through a table of
            // their own.
            Lua::Loader* overrides = s->getOverrides();
            std::unique_ptr<Lua::Loader> own;
            if (overrides == nullptr) {
                own = std::make_unique<Lua::Loader>();
                own->createGlobalTable("a");
                overrides = own.get();
            }
            for (const wBlockParameterContainer& p : additional_) {
                const wBlockParameterProxyBase* proxy = p.getProxy();
                if (proxy != nullptr && !proxy->isUndefined()) addParameter_(overrides, p.getName(), p);
            }
            nested_.loadForRuntime(file, overrides, true);
        } else {
            zo::vector<int> discarded;
            nested_.loadForEdit(file, discarded, true);
        }
        loaded_ = true;
    } catch (const std::bad_alloc&) {
        throw;
    } catch (const std::exception& e) {
        nested_ = wSimulationSystemScheme();
        loadError_ = e.what();
        logLoadFailure(loadError_);
        // A scheme cannot run with a block that has no scheme: a running load stops here.
        if (running) throw wSimulationException("Cannot load subsystem block " + nameOf(*this) + ": " + loadError_);
    }
}

void wBlockSubsystemDescriptor::addParameter_(Lua::Loader* loader, const zo::string& name,
                                              const wBlockParameterContainer& parameter) {
    const std::vector<std::string_view> segments = pathSegments(name);
    int entered = 0;
    try {
        for (std::size_t i = 0; i + 1 < segments.size(); ++i) {
            if (!loader->tryBeginSubtable(segments[i])) loader->createSubtable(segments[i]);
            ++entered;
        }
        parameter.save(loader, segments.back());
    } catch (...) {
        for (; entered > 0; --entered) loader->endSubtable();
        throw;
    }
    for (; entered > 0; --entered) loader->endSubtable();
}

wSimulationBlockDisc* wBlockSubsystemDescriptor::create(Lua::Loader* loader, wSimulationSystem* system) const {
    if (!loaded_) {
        zo::string message = "Subsystem block " + nameOf(*this) + " has no scheme";
        if (!loadError_.empty()) message += ": " + loadError_;
        throw wSimulationException(std::move(message));
    }
    return new wBlockSubsystem(this, system, loader);
}

void wBlockSubsystemDescriptor::debug_dump() const {
    wSimulationLogger& log = wSimulationLogger::instance();
    if (!log.enabled(LOG_TRACE)) return;
    log << wSimulationLogger::Indenter() << "Subsystem block \"" << getName() << "\" (" << getNestedFileName() << ")"
        << std::endl;
    if (loaded_) {
        wLogIndentScope nested;
        nested_.debug_dump();
    } else {
        wLogIndentScope nested;
        log << wSimulationLogger::Indenter() << "no scheme"
            << (loadError_.empty() ? zo::string() : ": " + loadError_) << std::endl;
    }
    log << wSimulationLogger::Indenter() << "-- end of block " << getName() << std::endl;
}

// ---- Runtime block

wBlockSubsystem::wBlockSubsystem(const wBlockSubsystemDescriptor* descriptor, wSimulationSystem* parent,
                                 Lua::Loader* loader)
    : wSimulationBlockDisc(descriptor, parent),
      d_(descriptor),
      // The nested scheme has no area of its own: its wires have slots in the parent's.
      nested_(&descriptor->getScheme(), loader, parent->getDataPtr()) {
    parent->addChildSystem(&nested_);
    registerWakeups_(*parent);
}

wBlockSubsystem::~wBlockSubsystem() = default;

void wBlockSubsystem::registerStateData() {
    // The blob is the nested system's (see the overrides), but the parent restores only
    // blocks that registered something: a variable of no bytes says there is state.
    regVar(&stateMarker_, 0);
}

wInputPortBase* wBlockSubsystem::getInputPort(std::string_view name) { return nested_.getInputPort(name, false); }

wOutputPortBase* wBlockSubsystem::getOutputPort(std::string_view name) {
    const wSimulationSystemScheme& scheme = d_->getScheme();
    const wLeadList& outputs = scheme.getIOLeads(true, true);
    const int j = scheme.getIOBlock().getLeadIndex(true, true, name, false);
    if (j < 0) return nullptr;
    // Something inside sends to this output: the nested system's port is the real one.
    for (const wSimulationSystemScheme::Connection& c : scheme.getConnections())
        if (c.isPort && c.to == &scheme.getIOBlock() && c.toLead == name) return nested_.getOutputPort(name, false);
    // Nothing does. The nested system answers with a placeholder shared by the whole
    // process; connections to it would pile up there, so this block keeps a silent port.
    unfedOutputs_.emplace_back(leadCreator(outputs[static_cast<std::size_t>(j)].type).createOutputPort());
    return unfedOutputs_.back().get();
}

void wBlockSubsystem::registerWakeups_(wSimulationSystem& parent) const {
    // Walk back from this block along every connection into it, through stateless blocks
    // (which pass changes straight on), to what can change: scheme inputs, discrete
    // blocks and continuous state.
    const wSimulationSystemScheme& s = *parent.getScheme();
    const int firstDiff = s.getFirstDiffIndex();
    const int firstDiscrete = s.getFirstDiscreteIndex();
    const int self = s.indexOfBlock(d_) - firstDiscrete;
    std::vector<const wSimulationBlockDescriptor*> pending{d_};
    std::unordered_set<const wSimulationBlockDescriptor*> seen{d_};
    while (!pending.empty()) {
        const wSimulationBlockDescriptor* b = pending.back();
        pending.pop_back();
        for (const wSimulationSystemScheme::Connection& c : s.getConnections()) {
            if (c.to != b || !seen.insert(c.from).second) continue;
            if (c.from == &s.getIOBlock()) {
                parent.addWakeup(wSimulationSystem::kWakeOnSchemeInput, self);
                continue;
            }
            const int index = s.indexOfBlock(c.from);
            if (index >= s.getBlocksCount()) continue;  // the special commands: no outputs
            if (index < firstDiff) pending.push_back(c.from);
            else if (index < firstDiscrete) parent.addWakeup(wSimulationSystem::kWakeOnContinuous, self);
            else parent.addWakeup(index - firstDiscrete, self);
        }
    }
}
