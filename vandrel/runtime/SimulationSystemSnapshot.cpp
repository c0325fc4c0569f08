// Whole-state snapshots of a simulation system (see saveSnapshot in the header).
//
// Layout: magic "VNDRSNAP", version (uint32), then the body:
//   fingerprint (uint64), time (double), right-hand side evaluations (int64),
//   data area, dirty flags, schedule, sleeping blocks, the watch over the derivatives'
//   inputs, the solver, the blocks' input port values, and one section per block.
// Every part after the fingerprint is a section (byte count, bytes), which its reader
// must consume exactly.
#include <algorithm>
#include <cmath>
#include <cstring>
#include <string>

#include "vandrel/core/LeadTypes.h"
#include "vandrel/runtime/SimulationException.h"
#include "vandrel/runtime/SimulationSystem.h"
#include "vandrel/runtime/Snapshot.h"
#include "vandrel/scheme/SimulationSystemScheme.h"

namespace {

constexpr char kMagic[8] = {'V', 'N', 'D', 'R', 'S', 'N', 'A', 'P'};

// FNV-1a, 64 bits: stable across builds and platforms of the same byte order.
class Fingerprint {
public:
    void bytes(const void* p, std::size_t n) {
        const auto* b = static_cast<const unsigned char*>(p);
        for (std::size_t i = 0; i < n; ++i) {
            h_ ^= b[i];
            h_ *= 1099511628211ULL;
        }
    }
    void number(std::int64_t v) { bytes(&v, sizeof v); }
    void text(std::string_view s) {
        number(static_cast<std::int64_t>(s.size()));
        bytes(s.data(), s.size());
    }
    void leads(const wLeadList& list) {
        number(static_cast<std::int64_t>(list.size()));
        for (const wLeadDescription& l : list) {
            text(l.name);
            number(l.type);
        }
    }
    std::uint64_t value() const { return h_; }

private:
    std::uint64_t h_ = 14695981039346656037ULL;
};

// Bytes of an input port's value; 0 for object pointers, which refer to objects outside
// the system and are not saved.
int portValueSize(eLeadType type) { return type == LEAD_OBJECT_PTR ? 0 : leadTypeSize(type); }

}  // namespace

std::uint64_t wSimulationSystem::getSchemeFingerprint() const {
    const wSimulationSystemScheme& s = *scheme_;
    Fingerprint f;
    f.number(kSnapshotVersion);
    f.number(s.getMemorySize());
    f.number(s.getDiffMemoryOffset());
    f.number(s.getDiffMemorySize());
    f.number(s.getStatelessBlocksCount());
    f.number(s.getDiffBlocksCount());
    f.number(s.getDiscreteBlocksCount());
    f.text(s.getOdeSolverDescriptor() != nullptr && solver_ ? s.getOdeSolverDescriptor()->getTypeName() : "");
    for (const auto& d : s.getBlocks()) {
        f.text(d->getClassName());
        f.text(d->getName());
        f.leads(d->getInputWires());
        f.leads(d->getOutputWires());
        f.leads(d->getInputPorts());
        f.leads(d->getOutputPorts());
        if (d->hasWireOffsets()) {
            for (std::size_t i = 0; i < d->getInputWires().size(); ++i)
                f.number(d->getInputWireOffset(static_cast<int>(i)));
            for (std::size_t i = 0; i < d->getOutputWires().size(); ++i)
                f.number(d->getOutputWireOffset(static_cast<int>(i)));
        }
    }
    return f.value();
}

// ---- Saving

void wSimulationSystem::saveSnapshot(zo::vector<unsigned char>* out) const {
    zo::vector<unsigned char> bytes;
    wSnapshotWriter w(bytes);
    w.putBytes(kMagic, sizeof kMagic);
    w.put(kSnapshotVersion);
    saveSnapshotBody(w);
    *out = std::move(bytes);
}

void wSimulationSystem::saveSnapshotBody(wSnapshotWriter& w) const {
    w.put(getSchemeFingerprint());
    w.put(now_);
    w.put(static_cast<std::int64_t>(rhsEvaluations_));

    std::size_t mark = w.beginSection();
    // A nested system works in its parent's area, which the parent saves.
    w.putBytes(data_, static_cast<std::size_t>(ownsData_ ? scheme_->getMemorySize() : 0));
    w.endSection(mark);

    mark = w.beginSection();
    for (unsigned char f : dirty_) w.putFlag(f != 0);
    w.endSection(mark);

    mark = w.beginSection();
    for (const QueueEntry& e : queue_) {
        w.put(static_cast<std::int32_t>(e.discreteIndex));
        w.put(e.time);
    }
    w.endSection(mark);

    mark = w.beginSection();
    for (const Sleep& s : sleep_) {
        w.putFlag(s.asleep);
        w.put(s.since);
    }
    w.endSection(mark);

    mark = w.beginSection();
    w.putBytes(diffInputs_.copy(), static_cast<std::size_t>(diffInputs_.size()));
    w.putFlag(diffInputs_.primed());
    w.endSection(mark);

    mark = w.beginSection();
    if (solver_) {
        w.putString(scheme_->getOdeSolverDescriptor()->getTypeName());
        solver_->saveSnapshot(w);
    }
    w.endSection(mark);

    // Input ports keep the last value they received, which some blocks read at their step.
    mark = w.beginSection();
    unsigned char value[32];
    for (const auto& b : blocks_) {
        for (const wLeadDescription& lead : b->getDescriptor()->getInputPorts()) {
            const int size = portValueSize(lead.type);
            if (size == 0) continue;
            const wInputPortBase* port = b->getInputPort(lead.name);
            std::memset(value, 0, sizeof value);
            if (port != nullptr) port->getValueToPtr(value);
            w.putBytes(value, static_cast<std::size_t>(size));
        }
    }
    w.endSection(mark);

    for (const auto& b : blocks_) {
        mark = w.beginSection();
        b->saveSnapshot(w);
        w.endSection(mark);
    }
}

// ---- Restoring

void wSimulationSystem::restoreSnapshot(const unsigned char* data, std::size_t size) {
    wSnapshotReader r(data, size, "Snapshot");
    if (size < sizeof kMagic || std::memcmp(data, kMagic, sizeof kMagic) != 0)
        r.fail("not a vandrel snapshot (it does not start with VNDRSNAP)");
    r.getBytes(sizeof kMagic, "magic");
    const auto version = r.get<std::uint32_t>("version");
    if (version != kSnapshotVersion)
        r.fail("format version " + std::to_string(version) + " is not the one this library reads (" +
               std::to_string(kSnapshotVersion) + ")");
    {
        // Another scheme is refused before anything changes.
        wSnapshotReader peek = r;
        const auto fingerprint = peek.get<std::uint64_t>("scheme fingerprint");
        if (fingerprint != getSchemeFingerprint())
            r.fail("it was saved from another scheme (or another version of this one): its blocks, wires or "
                   "solver differ");
    }
    // Whatever goes wrong further in, the system is put back as it was.
    zo::vector<unsigned char> backup;
    try {
        saveSnapshot(&backup);
    } catch (const std::exception& e) {
        throw wSimulationException(zo::string("Snapshot cannot be restored: the system's current state cannot be "
                                              "saved to go back to on failure: ") +
                                   e.what());
    }
    try {
        restoreSnapshotBody(r);
        r.expectEnd("the snapshot");
    } catch (...) {
        wSnapshotReader undo(backup.data(), backup.size(), "Snapshot backup");
        undo.getBytes(sizeof kMagic + sizeof(std::uint32_t), "header");
        restoreSnapshotBody(undo);
        throw;
    }
}

void wSimulationSystem::restoreSnapshotBody(wSnapshotReader& r) {
    if (r.get<std::uint64_t>("scheme fingerprint") != getSchemeFingerprint())
        r.fail("a nested scheme differs from the one it was saved from");
    const double now = r.getFinite("time");
    const auto evaluations = r.get<std::int64_t>("evaluation count");

    // Everything is read and checked before the system's own fields change.
    wSnapshotReader area = r.section("data area");
    const std::size_t areaSize = static_cast<std::size_t>(ownsData_ ? scheme_->getMemorySize() : 0);
    if (area.remaining() != areaSize)
        area.fail("the data area holds " + std::to_string(area.remaining()) + " bytes, this scheme's " +
                  std::to_string(areaSize));
    const unsigned char* areaBytes = area.getBytes(areaSize, "data area");

    wSnapshotReader flags = r.section("dirty flags");
    if (flags.remaining() != dirty_.size())
        flags.fail("it holds " + std::to_string(flags.remaining()) + " dirty flags, this scheme has " +
                   std::to_string(dirty_.size()) + " stateless blocks");

    wSnapshotReader schedule = r.section("schedule");
    constexpr std::size_t kEntry = sizeof(std::int32_t) + sizeof(double);
    if (schedule.remaining() % kEntry != 0 || schedule.remaining() / kEntry > discrete_.size())
        schedule.fail("the schedule does not fit the " + std::to_string(discrete_.size()) + " discrete blocks");
    zo::vector<QueueEntry> queue;
    queue.reserve(queue_.capacity());
    zo::vector<unsigned char> scheduled(discrete_.size(), 0);
    while (schedule.remaining() > 0) {
        const auto index = schedule.get<std::int32_t>("schedule entry");
        const double time = schedule.getFinite("schedule time");
        if (index < 0 || static_cast<std::size_t>(index) >= discrete_.size() ||
            scheduled[static_cast<std::size_t>(index)] != 0)
            schedule.fail("schedule entry for discrete block " + std::to_string(index) + " is out of range or repeated");
        scheduled[static_cast<std::size_t>(index)] = 1;
        queue.push_back({index, time});
    }

    wSnapshotReader sleeping = r.section("sleeping blocks");
    zo::vector<Sleep> sleep;
    while (sleeping.remaining() > 0) {
        Sleep s;
        s.asleep = sleeping.getFlag("sleeping flag");
        s.since = sleeping.getFinite("sleeping since");
        sleep.push_back(s);
    }
    if (sleep.size() != sleep_.size())
        sleeping.fail("it holds " + std::to_string(sleep.size()) + " sleeping entries, this system " +
                      std::to_string(sleep_.size()));
    for (std::size_t d = 0; d < sleep.size(); ++d)
        if (sleep[d].asleep && scheduled[d] != 0) sleeping.fail("a block is both asleep and scheduled");

    wSnapshotReader watch = r.section("derivative inputs");
    const unsigned char* watched = watch.getBytes(static_cast<std::size_t>(diffInputs_.size()), "derivative inputs");
    const bool primed = watch.getFlag("derivative inputs flag");
    watch.expectEnd("the derivative inputs");

    wSnapshotReader solver = r.section("solver");
    if (solver_) {
        const zo::string kind = solver.getString("solver kind");
        if (kind != scheme_->getOdeSolverDescriptor()->getTypeName())
            solver.fail("it was saved with solver " + kind + ", this scheme runs " +
                        scheme_->getOdeSolverDescriptor()->getTypeName());
    }
    wSnapshotReader ports = r.section("input ports");
    zo::vector<wSnapshotReader> blocks;
    blocks.reserve(blocks_.size());
    for (std::size_t i = 0; i < blocks_.size(); ++i) blocks.push_back(r.section("block"));

    // Apply. The sections of the solver, the ports and the blocks are checked as they are
    // read; a failure there is undone by the caller.
    if (areaSize > 0) std::memcpy(data_, areaBytes, areaSize);
    for (unsigned char& f : dirty_) f = flags.getFlag("dirty flag") ? 1 : 0;
    queue_.assign(queue.begin(), queue.end());
    std::copy(sleep.begin(), sleep.end(), sleep_.begin());
    diffInputs_.restore(watched, primed);
    now_ = now;
    rhsEvaluations_ = evaluations;
    if (solver_) {
        solver_->restoreSnapshot(solver);
        solver.expectEnd("the solver's state");
    } else {
        solver.expectEnd("the solver's state (this scheme has no continuous block)");
    }

    unsigned char value[32];
    for (const auto& b : blocks_) {
        for (const wLeadDescription& lead : b->getDescriptor()->getInputPorts()) {
            const int size = portValueSize(lead.type);
            if (size == 0) continue;
            std::memcpy(value, ports.getBytes(static_cast<std::size_t>(size), "input port value"),
                        static_cast<std::size_t>(size));
            // The untyped write stores the value without calling the block: bools become 0 or 1.
            if (wInputPortBase* port = b->getInputPort(lead.name)) port->setValueFromPtr(value);
        }
    }
    ports.expectEnd("the input port values");

    for (std::size_t i = 0; i < blocks_.size(); ++i) {
        blocks_[i]->restoreSnapshot(blocks[i]);
        blocks[i].expectEnd(("the state of block " + blocks_[i]->getDescriptor()->getName()).c_str());
    }
}
