#include "vandrel/runtime/SimulationSystem.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <new>
#include <string>
#include <unordered_map>
#include <utility>

#include "vandrel/runtime/SimulationException.h"
#include "vandrel/runtime/SimulationLogger.h"
#include "vandrel/scheme/SimulationSystemScheme.h"

namespace {

// Events due up to this long after the requested time still run in that call (s).
constexpr double kDueWindow = 1e-8;
// Due times closer than this are one instant: ties go by discrete index (s).
constexpr double kSameInstant = 1e-9;

// A block's name for messages: its own name, or its type name when it has none.
const zo::string& nameOf(const wSimulationBlockDescriptor* d) {
    return d->getName().empty() ? d->getBlockTypeName() : d->getName();
}

[[noreturn]] void throwNoPort(const wSimulationBlockDescriptor* d, bool isInput, const zo::string& lead) {
    throw wSimulationException("Block " + nameOf(d) + " has no " + (isInput ? "input" : "output") + " port " + lead);
}

// Shared stand-ins for scheme ports that nothing inside the scheme uses: one per lead type
// and direction for the whole process, made on first need and never deleted.
template <eLeadType T>
wInputPortBase* placeholderInputOf() {
    static wInputPortBase* const port = leadCreator(T).createInputPort();
    return port;
}
template <eLeadType T>
wOutputPortBase* placeholderOutputOf() {
    // For an object pointer the creator throws: such a port cannot be made generically.
    static wOutputPortBase* const port = leadCreator(T).createOutputPort();
    return port;
}

wInputPortBase* placeholderInput(eLeadType t) {
    switch (t) {
    case LEAD_INT: return placeholderInputOf<LEAD_INT>();
    case LEAD_BOOL: return placeholderInputOf<LEAD_BOOL>();
    case LEAD_DOUBLE: return placeholderInputOf<LEAD_DOUBLE>();
    case LEAD_VECTOR: return placeholderInputOf<LEAD_VECTOR>();
    case LEAD_QUATERNION: return placeholderInputOf<LEAD_QUATERNION>();
    case LEAD_OBJECT_PTR: return placeholderInputOf<LEAD_OBJECT_PTR>();
    case LEAD_OBJECT_ID: return placeholderInputOf<LEAD_OBJECT_ID>();
    }
    std::abort();
}

wOutputPortBase* placeholderOutput(eLeadType t) {
    switch (t) {
    case LEAD_INT: return placeholderOutputOf<LEAD_INT>();
    case LEAD_BOOL: return placeholderOutputOf<LEAD_BOOL>();
    case LEAD_DOUBLE: return placeholderOutputOf<LEAD_DOUBLE>();
    case LEAD_VECTOR: return placeholderOutputOf<LEAD_VECTOR>();
    case LEAD_QUATERNION: return placeholderOutputOf<LEAD_QUATERNION>();
    case LEAD_OBJECT_PTR: return placeholderOutputOf<LEAD_OBJECT_PTR>();
    case LEAD_OBJECT_ID: return placeholderOutputOf<LEAD_OBJECT_ID>();
    }
    std::abort();
}

}  // namespace

// ---- Construction and destruction

unsigned char* wSimulationSystem::allocateData(int size) {
    const std::size_t bytes = size > 0 ? static_cast<std::size_t>(size) : 1;
    void* p = std::calloc(bytes, 1);
    if (p == nullptr) throw std::bad_alloc();
    return static_cast<unsigned char*>(p);
}

wSimulationSystem::wSimulationSystem(const wSimulationSystemScheme* scheme, Lua::Loader* loader, unsigned char* data)
    : scheme_(scheme), commandPort_(this, &wSimulationSystem::resetDiff_) {
    // A nested system works in its parent's area (memory size 0) and leaves it alone;
    // any other area, the caller's included, is ours to free.
    ownsData_ = data == nullptr || scheme_->getMemorySize() != 0;
    data_ = data != nullptr ? data : allocateData(scheme_->getMemorySize());
    try {
        init_(loader);
    } catch (const wSimulationException& e) {
        // The destructor will not run for a half-built system.
        release_();
        // Name the scheme's file: a block refusing its settings says only its own name.
        if (scheme_->getFileName().empty()) throw;
        throw wSimulationException(zo::string(e.what()) + " (while instantiating " + scheme_->getFileName() + ")");
    } catch (...) {
        release_();
        throw;
    }
}

wSimulationSystem::~wSimulationSystem() { release_(); }

void wSimulationSystem::release_() noexcept {
    // Blocks first: a subsystem's inner system still works in this data area.
    solver_.reset();
    blocks_.clear();
    stateless_.clear();
    diff_.clear();
    discrete_.clear();
    inputPorts_.clear();
    outputPorts_.clear();
    inputFanOut_.clear();
    outputMerge_.clear();
    proxies_.clear();
    children_.clear();
    if (ownsData_) std::free(data_);
    data_ = nullptr;
    ownsData_ = false;
}

void wSimulationSystem::init_(Lua::Loader* loader) {
    const wSimulationSystemScheme& s = *scheme_;
    const int counted = s.getStatelessBlocksCount() + s.getDiffBlocksCount() + s.getDiscreteBlocksCount();
    if (counted != s.getBlocksCount())
        throw wSimulationException("Scheme is not analysed for running: " + std::to_string(s.getBlocksCount()) +
                                   " blocks, " + std::to_string(counted) + " analysed");
    // Every block except a subsystem (whose values live in its nested level) needs offsets.
    for (const auto& d : s.getBlocks()) {
        const bool hasWires = !d->getInputWires().empty() || !d->getOutputWires().empty();
        if (hasWires && !d->hasWireOffsets() && !d->isOfType(BLOCK_SUBSYSTEM))
            throw wSimulationException("Scheme is not laid out: block " + nameOf(d.get()) + " has no wire offsets");
    }

    createBlocks_(loader);
    buildPorts_();

    dirty_.assign(static_cast<std::size_t>(s.getStatelessBlocksCount()), 1);
    queue_.reserve(static_cast<std::size_t>(s.getDiscreteBlocksCount()));
    reset();

    if (s.getDiffBlocksCount() > 0) {
        const wOdeSolverDescriptor* sd = s.getOdeSolverDescriptor();
        if (sd == nullptr) throw wSimulationException("Scheme with continuous blocks has no ODE solver");
        solver_.reset(sd->createSolver(this));
        diffInputs_.build(s);
    }
}

void wSimulationSystem::createBlocks_(Lua::Loader* loader) {
    const wSimulationSystemScheme& s = *scheme_;
    const int n = s.getBlocksCount();
    const int firstDiff = s.getFirstDiffIndex();
    const int firstDiscrete = s.getFirstDiscreteIndex();
    blocks_.reserve(static_cast<std::size_t>(n));
    stateless_.reserve(static_cast<std::size_t>(s.getStatelessBlocksCount()));
    diff_.reserve(static_cast<std::size_t>(s.getDiffBlocksCount()));
    discrete_.reserve(static_cast<std::size_t>(s.getDiscreteBlocksCount()));

    for (int i = 0; i < n; ++i) {
        const wSimulationBlockDescriptor* d = s.getBlocks()[static_cast<std::size_t>(i)].get();
        const char* kind = i < firstDiff ? "stateless" : (i < firstDiscrete ? "continuous" : "discrete");
        auto wrongKind = [&] {
            return wSimulationException("Block " + nameOf(d) + " cannot run as a " + kind + " block");
        };
        if (i < firstDiff) {
            const auto* sd = dynamic_cast<const wSimulationBlockStatelessDescriptor*>(d);
            if (sd == nullptr) throw wrongKind();
            std::unique_ptr<wSimulationBlockStateless> b(sd->create(loader));
            if (!b) throw wrongKind();
            stateless_.push_back(b.get());
            blocks_.push_back(std::move(b));
        } else if (i < firstDiscrete) {
            const auto* dd = dynamic_cast<const wSimulationBlockDiffDescriptor*>(d);
            if (dd == nullptr) throw wrongKind();
            std::unique_ptr<wSimulationBlockDiff> b(dd->create(loader));
            if (!b) throw wrongKind();
            diff_.push_back(b.get());
            blocks_.push_back(std::move(b));
        } else {
            const auto* qd = dynamic_cast<const wSimulationBlockDiscDescriptor*>(d);
            if (qd == nullptr) throw wrongKind();
            std::unique_ptr<wSimulationBlockDisc> b(qd->create(loader, this));
            if (!b) throw wrongKind();
            wSimulationBlockDisc* raw = b.get();
            discrete_.push_back(raw);
            blocks_.push_back(std::move(b));
            raw->registerStateData();
        }
    }
}

void wSimulationSystem::buildPorts_() {
    const wSimulationSystemScheme& s = *scheme_;
    const auto& io = s.getIOBlock();
    const auto& special = s.getSpecialCmdsBlock();
    const wLeadList& schemeIns = io.getOutputPorts();   // values enter the scheme here
    const wLeadList& schemeOuts = io.getInputPorts();   // and leave it here
    inputPorts_.assign(schemeIns.size(), nullptr);
    inputFanOut_.assign(schemeIns.size(), nullptr);
    outputPorts_.assign(schemeOuts.size(), nullptr);
    outputMerge_.assign(schemeOuts.size(), nullptr);

    std::unordered_map<const wSimulationBlockDescriptor*, std::size_t> indexOf;
    for (std::size_t i = 0; i < s.getBlocks().size(); ++i) indexOf.emplace(s.getBlocks()[i].get(), i);
    auto runtimeBlock = [&](const wSimulationBlockDescriptor* d) {
        auto it = indexOf.find(d);
        if (it == indexOf.end()) throw wSimulationException("Port connection refers to a block that is not in the scheme");
        return blocks_[it->second].get();
    };

    for (const wSimulationSystemScheme::Connection& c : s.getConnections()) {
        if (!c.isPort) continue;

        // The receiving end: a block's input port, the command port, or a scheme output.
        wInputPortBase* in = nullptr;
        int schemeOut = -1;
        if (c.to == &io) {
            schemeOut = io.getLeadIndex(true, true, c.toLead, true);
        } else if (c.to == &special) {
            special.getLeadIndex(true, true, c.toLead, true);
            in = &commandPort_;
        } else {
            in = runtimeBlock(c.to)->getInputPort(c.toLead);
            if (in == nullptr) throwNoPort(c.to, true, c.toLead);
        }

        if (c.from == &io) {
            const int schemeIn = io.getLeadIndex(false, true, c.fromLead, true);
            if (schemeOut < 0) {
                addInputConsumer_(static_cast<std::size_t>(schemeIn), in);
                continue;
            }
            // Scheme input straight to scheme output: a proxy of the lead's type bridges them.
            const eLeadType type = schemeIns[static_cast<std::size_t>(schemeIn)].type;
            if (type != schemeOuts[static_cast<std::size_t>(schemeOut)].type)
                throw wSimulationException("Attempt to connect ports of different types");
            // An object pointer cannot leave the scheme through a generic port: this throws.
            if (type == LEAD_OBJECT_PTR) delete leadCreator(type).createOutputPort();
            const std::unique_ptr<wInputPortBase> model(leadCreator(type).createInputPort());
            proxies_.emplace_back(model->createProxyPort());
            wProxyPortBase* bridge = proxies_.back().get();
            addInputConsumer_(static_cast<std::size_t>(schemeIn), bridge->getInputPort());
            addOutputFeeder_(static_cast<std::size_t>(schemeOut), bridge->getOutputPort());
            continue;
        }

        if (c.from == &special) special.getLeadIndex(false, true, c.fromLead, true);  // has no outputs: throws
        wOutputPortBase* out = runtimeBlock(c.from)->getOutputPort(c.fromLead);
        if (out == nullptr) throwNoPort(c.from, false, c.fromLead);
        if (schemeOut >= 0) addOutputFeeder_(static_cast<std::size_t>(schemeOut), out);
        else out->connect(in);
    }

    // Scheme ports that nothing inside uses get the shared stand-ins.
    for (std::size_t i = 0; i < inputPorts_.size(); ++i)
        if (inputPorts_[i] == nullptr) inputPorts_[i] = placeholderInput(schemeIns[i].type);
    for (std::size_t j = 0; j < outputPorts_.size(); ++j)
        if (outputPorts_[j] == nullptr) outputPorts_[j] = placeholderOutput(schemeOuts[j].type);
}

void wSimulationSystem::addInputConsumer_(std::size_t i, wInputPortBase* in) {
    const wLeadDescription& lead = scheme_->getIOBlock().getOutputPorts()[i];
    if (in->getType() != lead.type) throw wSimulationException("Attempt to connect ports of different types");
    wInputPortBase*& entry = inputPorts_[i];
    if (entry == nullptr) {
        entry = in;
        return;
    }
    if (inputFanOut_[i] == nullptr) {
        // Second consumer: a proxy takes the entry's place and feeds the first one.
        std::unique_ptr<wProxyPortBase> x(entry->createProxyPort());
        if (!x) throw wSimulationException("Scheme input port " + lead.name + " cannot feed more than one port");
        wProxyPortBase* proxy = x.get();
        proxies_.push_back(std::move(x));
        proxy->getOutputPort()->connect(entry);
        entry = proxy->getInputPort();
        inputFanOut_[i] = proxy;
    }
    inputFanOut_[i]->getOutputPort()->connect(in);
}

void wSimulationSystem::addOutputFeeder_(std::size_t j, wOutputPortBase* out) {
    const wLeadDescription& lead = scheme_->getIOBlock().getInputPorts()[j];
    if (out->getType() != lead.type) throw wSimulationException("Attempt to connect ports of different types");
    wOutputPortBase*& entry = outputPorts_[j];
    if (entry == nullptr) {
        entry = out;
        return;
    }
    if (outputMerge_[j] == nullptr) {
        // Second source: both send into a proxy whose output becomes the scheme's port.
        std::unique_ptr<wProxyPortBase> z(entry->createProxyPort());
        if (!z) throw wSimulationException("Scheme output port " + lead.name + " cannot take more than one source");
        wProxyPortBase* proxy = z.get();
        proxies_.push_back(std::move(z));
        entry->connect(proxy->getInputPort());
        entry = proxy->getOutputPort();
        outputMerge_[j] = proxy;
    }
    out->connect(outputMerge_[j]->getInputPort());
}

// ---- Ports and wires by name

wInputPortBase* wSimulationSystem::getInputPort(std::string_view name, bool mustExist) {
    const int i = scheme_->getIOBlock().getLeadIndex(false, true, name, false);
    if (i < 0) {
        if (mustExist) throw wSimulationException("No input port in scheme: " + zo::string(name));
        return nullptr;
    }
    return inputPorts_[static_cast<std::size_t>(i)];
}

wOutputPortBase* wSimulationSystem::getOutputPort(std::string_view name, bool mustExist) {
    const int j = scheme_->getIOBlock().getLeadIndex(true, true, name, false);
    if (j < 0) {
        if (mustExist) throw wSimulationException("No output port in scheme: " + zo::string(name));
        return nullptr;
    }
    return outputPorts_[static_cast<std::size_t>(j)];
}

int wSimulationSystem::getInputWireOffset(std::string_view name) const {
    const auto& io = scheme_->getIOBlock();
    const int i = io.getLeadIndex(false, false, name, false);
    if (i < 0) throw wSimulationException("No input wire in scheme: " + zo::string(name));
    // Only a top-level layout places the scheme's own wires.
    if (scheme_->getMemorySize() == 0) throw wSimulationException("Scheme is not laid out: input wire " + zo::string(name));
    return io.getOutputWireOffset(i);
}

int wSimulationSystem::getOutputWireOffset(std::string_view name) const {
    const auto& io = scheme_->getIOBlock();
    const int j = io.getLeadIndex(true, false, name, false);
    if (j < 0) throw wSimulationException("No output wire in scheme: " + zo::string(name));
    if (scheme_->getMemorySize() == 0) throw wSimulationException("Scheme is not laid out: output wire " + zo::string(name));
    return io.getInputWireOffset(j);
}

int wSimulationSystem::typedWireOffset_(bool output, std::string_view name, eLeadType type) const {
    const int offset = output ? getOutputWireOffset(name) : getInputWireOffset(name);
    const int index = scheme_->getIOBlock().getLeadIndex(output, false, name, false);
    const eLeadType actual = scheme_->getIOLeads(output, false)[static_cast<std::size_t>(index)].type;
    if (actual != type)
        throw wSimulationException(zo::string(output ? "Scheme output wire " : "Scheme input wire ") + zo::string(name) +
                                   " holds " + leadTypeNames[actual] + ", not " + leadTypeNames[type] +
                                   ": access it with the C++ type of its lead");
    return offset;
}

int wSimulationSystem::getBlockCount() const { return static_cast<int>(blocks_.size()); }

const wSimulationBlockDescriptor* wSimulationSystem::schemeGetIOBlock() const { return &scheme_->getIOBlock(); }

// ---- Schedule: a binary min-heap over queue_, earliest due first, ties by index

namespace {
bool before(int ia, double ta, int ib, double tb) {
    if (std::fabs(ta - tb) > kSameInstant) return ta < tb;
    return ia < ib;
}
}  // namespace

void wSimulationSystem::queuePush_(QueueEntry e) {
    queue_.push_back(e);
    std::size_t i = queue_.size() - 1;
    while (i > 0) {
        const std::size_t parent = (i - 1) / 2;
        if (!before(queue_[i].discreteIndex, queue_[i].time, queue_[parent].discreteIndex, queue_[parent].time)) break;
        std::swap(queue_[i], queue_[parent]);
        i = parent;
    }
}

void wSimulationSystem::queueSiftDown_(std::size_t i) {
    const std::size_t n = queue_.size();
    for (;;) {
        const std::size_t l = 2 * i + 1;
        const std::size_t r = l + 1;
        std::size_t best = i;
        if (l < n && before(queue_[l].discreteIndex, queue_[l].time, queue_[best].discreteIndex, queue_[best].time))
            best = l;
        if (r < n && before(queue_[r].discreteIndex, queue_[r].time, queue_[best].discreteIndex, queue_[best].time))
            best = r;
        if (best == i) return;
        std::swap(queue_[i], queue_[best]);
        i = best;
    }
}

void wSimulationSystem::queuePop_() {
    std::swap(queue_.front(), queue_.back());
    queue_.pop_back();
    if (!queue_.empty()) queueSiftDown_(0);
}

double wSimulationSystem::getSchemeQueueTime() const { return queue_.empty() ? 0.0 : queue_.front().time; }

void wSimulationSystem::setSchemeQueueTime(double t) {
    if (!std::isfinite(t))
        throw wSimulationException("setSchemeQueueTime: the time must be a finite number of seconds, got " +
                                   doubleToString(t));
    // All equal now: the order by index that the heap already has stays valid.
    for (QueueEntry& e : queue_) e.time = t;
    for (wSimulationSystem* child : children_) child->setSchemeQueueTime(t);
}

// ---- Nested systems and wake-ups

void wSimulationSystem::addChildSystem(wSimulationSystem* child) { children_.push_back(child); }

void wSimulationSystem::addWakeup(int source, int target) {
    const int count = scheme_->getDiscreteBlocksCount();
    if (target < 0 || target >= count || source < kWakeOnContinuous || source >= count)
        throw wSimulationException("Invalid wake-up: source " + std::to_string(source) + ", target " +
                                   std::to_string(target));
    sleep_.resize(static_cast<std::size_t>(count));
    zo::vector<int>* list = &wakeOnInput_;
    if (source == kWakeOnContinuous) {
        list = &wakeOnContinuous_;
    } else if (source >= 0) {
        wakeAfter_.resize(static_cast<std::size_t>(count));
        list = &wakeAfter_[static_cast<std::size_t>(source)];
    }
    if (std::find(list->begin(), list->end(), target) == list->end()) list->push_back(target);
}

void wSimulationSystem::wake_(const zo::vector<int>& targets, double t, int source) {
    for (int e : targets) {
        Sleep& s = sleep_[static_cast<std::size_t>(e)];
        if (!s.asleep) continue;
        // A block that already stepped at this instant runs again only for a change made
        // after it in the instant's order (by a block of higher index, or from outside):
        // two sleeping blocks feeding each other then settle instead of waking each other
        // for ever.
        if (source >= 0 && source < e && s.since >= t - kSameInstant) continue;
        s.asleep = false;
        // Out of the schedule while asleep, so the queue's reserved room holds it.
        queuePush_({e, t});
    }
}

// ---- Running

void wSimulationSystem::reset() {
    queue_.clear();
    for (Sleep& s : sleep_) s.asleep = false;
    std::fill(dirty_.begin(), dirty_.end(), static_cast<unsigned char>(1));
    if (scheme_->getDiffMemorySize() > 0)
        std::memset(data_ + scheme_->getDiffMemoryOffset(), 0, static_cast<std::size_t>(scheme_->getDiffMemorySize()));
    for (std::size_t i = 0; i < discrete_.size(); ++i) {
        discrete_[i]->reset();
        queuePush_({static_cast<int>(i), 0.0});
    }
    if (solver_) solver_->restart();
}

void wSimulationSystem::applyInitialValues() {
    // Stateless blocks are numbered in evaluation order, each before what it feeds.
    for (std::size_t k = 0; k < stateless_.size(); ++k) {
        stateless_[k]->update(now_, data_);
        dirty_[k] = 0;
    }
    // Nested schemes read the values just computed in the shared area.
    for (wSimulationSystem* child : children_) child->applyInitialValues();
    for (wSimulationBlockDiff* b : diff_) b->resetState(data_);
    // The states jumped: everything computed from them is stale.
    setDirty_(scheme_->getStatelessBlocksInDiff());
    if (solver_) solver_->restart();
}

void wSimulationSystem::updateOutputs() {
    // The host may have written inputs, and the state may have been loaded, since the
    // blocks last ran.
    setDirty_(scheme_->getStatelessBlocksOnSchemeInput());
    updateDirty_(scheme_->getStatelessBlocksOnSchemeOutput(), now_);
}

double wSimulationSystem::simulate(double T) { return simulate_(T, std::numeric_limits<double>::infinity()); }

double wSimulationSystem::simulate(double T, double Tmax) {
    if (!(Tmax >= T))
        throw wSimulationException("simulate: the latest time to return at (" + doubleToString(Tmax) +
                                   " s) must not be before the time simulated to (" + doubleToString(T) + " s)");
    // Nested systems stepped during the call read it (see getHorizon); whatever happens,
    // it holds only for this call.
    struct Scope {
        double& horizon;
        ~Scope() { horizon = std::numeric_limits<double>::infinity(); }
    } scope{horizon_};
    horizon_ = Tmax;
    return simulate_(T, Tmax);
}

double wSimulationSystem::simulate_(double T, double Tmax) {
    // A time that is not finite would never let an event become due (NaN) or would run
    // every event there will ever be (infinity).
    if (!std::isfinite(T))
        throw wSimulationException("simulate: the time must be a finite number of seconds, got " + doubleToString(T));
    auto& log = wSimulationLogger::instance();
    if (log.enabled(3)) log << wSimulationLogger::Indenter() << "simulate (" << T << ")" << std::endl;

    const wSimulationSystemScheme& s = *scheme_;
    setDirty_(s.getStatelessBlocksOnSchemeInput());
    if (!wakeOnInput_.empty()) wake_(wakeOnInput_, T, kWakeOnSchemeInput);

    // Discrete events due by T (and up to kDueWindow after it), earliest first. A block
    // that keeps rescheduling itself without moving time forward would loop here for
    // ever: count the events since time last advanced and give up past a generous limit.
    const int stallLimit = 1000 + 100 * static_cast<int>(discrete_.size());
    double frontier = -std::numeric_limits<double>::infinity();
    int stalled = 0;
    now_ = T;
    while (!queue_.empty() && queue_.front().time < T + kDueWindow) {
        const int d = queue_.front().discreteIndex;
        const double t = queue_.front().time;
        now_ = t;
        updateDirty_(s.getStatelessBlocksOnInput(d), t);
        const double r = discrete_[static_cast<std::size_t>(d)]->step(t);
        setDirty_(s.getStatelessBlocksOnOutput(d));
        if (std::isnan(r)) throwStalled_(d, t, r);
        if (r == -1.0) {
            queuePop_();
            if (!sleep_.empty()) sleep_[static_cast<std::size_t>(d)] = Sleep{true, t};
        } else {
            queue_.front().time = t + r;
            queueSiftDown_(0);
        }
        if (!wakeAfter_.empty() && !wakeAfter_[static_cast<std::size_t>(d)].empty())
            wake_(wakeAfter_[static_cast<std::size_t>(d)], t, d);
        if (t > frontier + kSameInstant) {
            frontier = t;
            stalled = 0;
        } else if (++stalled > stallLimit) {
            throwStalled_(d, t, r);
        }
    }

    // Nothing scheduled and nothing continuous: no call is needed until inputs change.
    const bool idle = queue_.empty() && !solver_;
    double N = queue_.empty() ? T : queue_.front().time;
    if (solver_ && Tmax > T) {
        const double hmax = Tmax - T;  // infinite without a horizon
        if (queue_.empty()) {
            const double r = advanceContinuous_(T, 0.0, hmax);
            // Landed on the horizon: the host's own time, not one rounded on the way.
            N = r >= hmax ? Tmax : T + r;
        } else if (N > Tmax) {
            advanceContinuous_(T, hmax, hmax);
            N = Tmax;
        } else {
            advanceContinuous_(T, N - T, hmax);
        }
        if (!wakeOnContinuous_.empty()) wake_(wakeOnContinuous_, N, kWakeOnContinuous);
    } else if (solver_ || N > Tmax) {
        // Control back at the horizon, which is now: nothing to integrate.
        N = std::min(N, Tmax);
    }
    now_ = solver_ ? N : T;
    updateDirty_(s.getStatelessBlocksOnSchemeOutput(), N);

    if (log.enabled(3)) log << wSimulationLogger::Indenter() << "done simulate (" << T << ")" << std::endl;
    return idle ? -1.0 : N - T;
}

void wSimulationSystem::throwStalled_(int discreteIndex, double t, double r) const {
    const wSimulationBlockDescriptor* d = discrete_[static_cast<std::size_t>(discreteIndex)]->getDescriptor();
    if (std::isnan(r))
        throw wSimulationException("Discrete block " + nameOf(d) + " returned an invalid delay (" + doubleToString(r) +
                                   ") at t = " + doubleToString(t));
    // Name the block as the file does, with what makes a schedule advance.
    zo::string where = ": " + nameOf(d) + " is a " + d->getBlockTypeName();
    if (const int index = scheme_->getFileIndex(d); index >= 0)
        where += " at simulation_scheme.blocks[" + std::to_string(index + 1) + "]";
    throw wSimulationException("Discrete block " + nameOf(d) + " keeps scheduling itself at t = " + doubleToString(t) +
                               " without advancing (returned delay " + doubleToString(r) + ")" + where +
                               "; a discrete block must ask for a positive delay: check its period (dt), or what its"
                               " script's run returns");
}

int wSimulationSystem::discreteIndexOf_(const wSimulationBlockDisc* block) const {
    for (std::size_t d = 0; d < discrete_.size(); ++d)
        if (discrete_[d] == block) return static_cast<int>(d);
    throw wSimulationException("Block " + nameOf(block->getDescriptor()) + " is not a discrete block of this system");
}

void wSimulationSystem::updateInputsOf(const wSimulationBlockDisc* block) {
    const int d = discreteIndexOf_(block);
    // The host may have written scheme inputs since the last simulate, which is where
    // they are normally taken as changed.
    setDirty_(scheme_->getStatelessBlocksOnSchemeInput());
    updateDirty_(scheme_->getStatelessBlocksOnInput(d), now_);
}

void wSimulationSystem::markOutputsOf(const wSimulationBlockDisc* block) {
    setDirty_(scheme_->getStatelessBlocksOnOutput(discreteIndexOf_(block)));
}

double wSimulationSystem::advanceDifferential_(double T, double h) {
    return advanceContinuous_(T, h, std::numeric_limits<double>::infinity());
}

double wSimulationSystem::advanceContinuous_(double T, double h, double hmax) {
    const wSimulationSystemScheme& s = *scheme_;
    // Everything downstream of the state is brought up to date exactly once before the
    // first derivative, whoever last touched the state (solver, reset or host).
    setDirty_(s.getStatelessBlocksInDiff());
    updateDirty_(s.getStatelessBlocksOnDiffInput(), T);
    // New values on the derivatives' inputs make a jump that solvers with history must
    // not step across.
    if (diffInputs_.changed(data_)) solver_->restart();
    rhsFresh_ = true;
    rhsFreshTime_ = T;
    const double r = h == 0.0 && hmax < std::numeric_limits<double>::infinity() ? solver_->advanceWithin(T, hmax)
                                                                                : solver_->advance(T, h);
    rhsFresh_ = false;
    setDirty_(s.getStatelessBlocksInDiff());
    return r;
}

void wSimulationSystem::setDirty_(const zo::vector<int>& list) {
    for (int i : list) dirty_[static_cast<std::size_t>(i)] = 1;
}

void wSimulationSystem::updateDirty_(const zo::vector<int>& list, double t) {
    for (int i : list) {
        const auto k = static_cast<std::size_t>(i);
        if (dirty_[k] == 0) continue;
        stateless_[k]->update(t, data_);
        dirty_[k] = 0;
    }
}

// ---- Continuous part

double* wSimulationSystem::getDiffState() {
    // The run starts at a multiple of 8 in an area from calloc, so doubles are aligned.
    return static_cast<double*>(static_cast<void*>(data_ + scheme_->getDiffMemoryOffset()));
}

int wSimulationSystem::getDiffStateSize() const { return scheme_->getDiffMemorySize() / 8; }

void wSimulationSystem::calcDiffRhs(double t, double* dy) {
    // The blocks downstream of continuous state follow the state, which the solver changes
    // between calls. On the first call of an advance the state has not moved since
    // advanceDifferential_ brought the dirty ones up to date at the same time, so only
    // those still dirty need to run: the values are the same, without a second pass.
    ++rhsEvaluations_;
    if (rhsFresh_ && t == rhsFreshTime_) {
        updateDirty_(scheme_->getStatelessBlocksInDiff(), t);
    } else {
        for (int i : scheme_->getStatelessBlocksInDiff()) stateless_[static_cast<std::size_t>(i)]->update(t, data_);
    }
    rhsFresh_ = false;
    // Blocks address derivatives by their state's offset in the data area: shift dy back
    // so that the start of the continuous run lines up with dy[0].
    unsigned char* base = static_cast<unsigned char*>(static_cast<void*>(dy)) - scheme_->getDiffMemoryOffset();
    for (wSimulationBlockDiff* b : diff_) b->calculate_dy(t, data_, base);
}

void wSimulationSystem::calcDiffRhs(double t, const double* y, double* dy) {
    double* state = getDiffState();
    if (y != state) {
        const auto bytes = static_cast<std::size_t>(getDiffStateSize()) * sizeof(double);
        // A trial state away from the one the advance started at: nothing is up to date.
        if (rhsFresh_ && std::memcmp(state, y, bytes) != 0) rhsFresh_ = false;
        std::memcpy(state, y, bytes);
    }
    calcDiffRhs(t, dy);
}

void wSimulationSystem::resetDiff_(const bool& value) {
    // Any value resets.
    for (wSimulationBlockDiff* b : diff_) b->resetState(data_);
    // The states jumped: everything computed from them is stale.
    setDirty_(scheme_->getStatelessBlocksInDiff());
    if (solver_) solver_->restart();
    for (wSimulationSystem* child : children_) child->resetDiff_(value);
}

// ---- State blobs

int wSimulationSystem::getSchemeStateDataSize() const {
    int total = 0;
    for (const wSimulationBlockDisc* b : discrete_) {
        const int n = b->getBlockStateDataSize();
        if (n == -1) return -1;
        total += n;
    }
    return total;
}

bool wSimulationSystem::getSchemeStateData(zo::vector<unsigned char>* out) const {
    const int size = getSchemeStateDataSize();
    if (size == -1) return false;
    out->resize(static_cast<std::size_t>(size));
    getSchemeStateDataToPtr(out->data());
    return true;
}

void wSimulationSystem::getSchemeStateDataToPtr(unsigned char* out) const {
    if (getSchemeStateDataSize() == -1) return;
    std::size_t pos = 0;
    for (const wSimulationBlockDisc* b : discrete_) {
        const int n = b->getBlockStateDataSize();
        if (n <= 0) continue;
        b->getBlockStateData(out + pos);
        pos += static_cast<std::size_t>(n);
    }
}

int wSimulationSystem::measureSchemeStateData(const unsigned char* in, std::size_t available) const {
    std::size_t pos = 0;
    for (const wSimulationBlockDisc* b : discrete_) {
        if (!b->blockHasStateData()) continue;
        const int n = b->measureStateData(in + pos, available - pos);
        if (n < 0) return -1;
        pos += static_cast<std::size_t>(n);
    }
    return static_cast<int>(pos);
}

void wSimulationSystem::setSchemeStateData(const zo::vector<unsigned char>* in) {
    if (getSchemeStateDataSize() == -1) return;
    // A longer blob is accepted as it always was; one too short for what the blocks read
    // (their element counts included) is refused before any block changes.
    const std::size_t size = in != nullptr ? in->size() : 0;
    const unsigned char* bytes = in != nullptr ? in->data() : nullptr;
    std::size_t pos = 0;
    for (const wSimulationBlockDisc* b : discrete_) {
        if (!b->blockHasStateData()) continue;
        const int n = b->measureStateData(bytes + pos, size - pos);
        if (n < 0)
            throw wSimulationException("State data does not fit the scheme: block " + nameOf(b->getDescriptor()) +
                                       " needs more than the " + std::to_string(size - pos) + " bytes left of " +
                                       std::to_string(size));
        pos += static_cast<std::size_t>(n);
    }
    setSchemeStateDataByPtr(bytes);
}

int wSimulationSystem::setSchemeStateDataByPtr(const unsigned char* in) {
    if (getSchemeStateDataSize() == -1) return 0;
    std::size_t pos = 0;
    for (wSimulationBlockDisc* b : discrete_) {
        if (!b->blockHasStateData()) continue;
        pos += static_cast<std::size_t>(b->setBlockStateDataByPtr(in + pos));
    }
    return static_cast<int>(pos);
}

void wSimulationSystem::getInputData(zo::vector<unsigned char>* out) const {
    // Kept for hosts that call it; it takes the scheme's input port list and ignores it.
    const wLeadList leads = scheme_->getIOLeads(true, true);
    (void)leads;
    (void)out;
}
