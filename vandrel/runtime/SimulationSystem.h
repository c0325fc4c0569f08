#pragma once
// A running instance of an analysed scheme: the data area holding every wire, one
// runtime block per descriptor, dirty flags of the stateless blocks, the schedule of the
// discrete blocks, and the ODE solver of the continuous ones.
//
// Sized and allocated once when built; simulate() allocates nothing. The host writes
// scheme inputs, calls simulate(T) with non-decreasing T, reads outputs, and calls again
// no later than T + the returned delay (-1.0: nothing pending until inputs change).
#include <cstdint>
#include <limits>
#include <memory>
#include <string_view>

#include "vandrel/core/Ports.h"
#include "vandrel/core/SimulationBlock.h"
#include "vandrel/core/Wire.h"
#include "vandrel/platform/String.h"
#include "vandrel/runtime/DiffInputWatch.h"
#include "vandrel/runtime/OdeSolver.h"

namespace Lua {
class Loader;
}
class wSimulationSystemScheme;
class wSnapshotWriter;
class wSnapshotReader;

class wSimulationSystem {
public:
    // Builds the system. `data`: a data area of the scheme's memory size, obtained from
    // allocateData (ownership passes to the system), or null for a new zeroed one. A
    // nested system (subsystem block) passes its parent's area; a nested scheme has
    // memory size 0 and so never frees it.
    wSimulationSystem(const wSimulationSystemScheme* scheme, Lua::Loader* loader, unsigned char* data);
    virtual ~wSimulationSystem();
    wSimulationSystem(const wSimulationSystem&) = delete;
    wSimulationSystem& operator=(const wSimulationSystem&) = delete;

    // A zeroed data area of `size` bytes from the allocator that the system frees with.
    static unsigned char* allocateData(int size);

    // Advances to scheme time T; returns the delay until the next call is needed, or -1.0.
    // Throws for a T that is not finite.
    double simulate(double T);
    // The same, for a host that wants control back no later than Tmax (>= T, possibly
    // infinite): the continuous part is integrated up to the next event or one solver step
    // as above, but never past Tmax, a step being shortened to land on it. The result is
    // the delay until the next call, at most Tmax - T; when the integration reached Tmax,
    // getCurrentTime() is Tmax exactly. A host reading outputs at its own output times
    // passes each of them as Tmax and never integrates twice.
    double simulate(double T, double Tmax);
    // Starts the continuous state at its initial values: brings every stateless block up to
    // date from what the data area holds now (scheme inputs, constants), then loads each
    // continuous state from its initial-value input, as a write to "reset_diff_state"
    // would, nested systems included. Call it after writing the inputs, before the first
    // simulate; reset() does not do it.
    void applyInitialValues();
    // Brings the blocks that drive the scheme outputs up to date with what the data area
    // holds now (inputs, continuous state), at the current time, running no event and
    // integrating nothing: for a host that reads outputs before its first simulate call.
    void updateOutputs();
    // Empties the schedule, marks every stateless block dirty, zeroes continuous state,
    // resets every discrete block and makes each due at time 0.
    virtual void reset();

    // The port that feeds the inside of the scheme from scheme input `name` / the port that
    // a scheme output `name` is sent from. Unknown: throws "No input port in scheme: " +
    // name (or "No output port in scheme: ") when mustExist, else null.
    wInputPortBase* getInputPort(std::string_view name, bool mustExist = true);
    wOutputPortBase* getOutputPort(std::string_view name, bool mustExist = true);

    unsigned char* getDataPtr() const { return data_; }
    // Byte offsets of scheme input / output wires in the data area; throw for unknown names.
    int getInputWireOffset(std::string_view name) const;
    int getOutputWireOffset(std::string_view name) const;
    // Typed access by name; throws when T is not the wire's lead type, rather than
    // reinterpreting its bytes.
    template <class T>
    void setInput(std::string_view name, const T& v) {
        writeWire<T>(data_, typedWireOffset_(false, name, wLeadTypeOf<T>::value), v);
    }
    template <class T>
    T getOutput(std::string_view name) const {
        return readWire<T>(data_, typedWireOffset_(true, name, wLeadTypeOf<T>::value));
    }

    // The continuous state: getDiffStateSize() doubles starting at getDiffState().
    double* getDiffState();
    int getDiffStateSize() const;
    // Continuous right-hand side: every continuous block's derivatives into dy.
    void calcDiffRhs(double t, double* dy);
    // The same at the state y (getDiffStateSize() doubles), which is first copied into the
    // continuous state: for solvers that evaluate at trial states of their own.
    void calcDiffRhs(double t, const double* y, double* dy);
    // Right-hand side evaluations since the system was built (for measurements).
    long long getRhsEvaluationCount() const { return rhsEvaluations_; }
    // The ODE solver; null without continuous blocks.
    wOdeSolver* getSolver() const { return solver_.get(); }

    // Time of the earliest scheduled discrete block (0.0 when none); setting it moves every
    // scheduled block to t (ties then go by discrete index); t must be finite.
    double getSchemeQueueTime() const;
    void setSchemeQueueTime(double t);

    // Discrete state blob: the concatenated state blobs of the discrete blocks. Size -1
    // (and no blob) as soon as one discrete block has no saveable state. Restoring throws,
    // changing nothing, when the blob is shorter than the blocks' state needs.
    int getSchemeStateDataSize() const;
    bool getSchemeStateData(zo::vector<unsigned char>* out) const;
    void setSchemeStateData(const zo::vector<unsigned char>* in);
    // The same blob through raw memory, for an enclosing system: writes exactly
    // getSchemeStateDataSize() bytes (nothing when that is -1) / reads one and returns the
    // bytes it consumed.
    void getSchemeStateDataToPtr(unsigned char* out) const;
    int setSchemeStateDataByPtr(const unsigned char* in);
    // The bytes a blob at `in` of `available` bytes holds for this system's blocks, or -1
    // when it is too short for what they would read.
    int measureSchemeStateData(const unsigned char* in, std::size_t available) const;
    // Kept for interface compatibility; does nothing.
    void getInputData(zo::vector<unsigned char>* out) const;

    // ---- Whole-state snapshots: everything the running system holds, so that a system
    // built from the same scheme, restored from it, goes on exactly as this one would:
    // the data area (continuous state and every wire), the last values of the blocks'
    // input ports, each block's own state (registered or not; nested systems and Lua
    // blocks included), the schedule, the dirty flags, the solver's state and the time.
    // The bytes start with a magic, a format version and a fingerprint of the scheme's
    // structure. Saving throws when a block holds state it cannot save (see the Lua
    // block). Restoring throws wSimulationException for a snapshot of another scheme or
    // version, truncated or corrupt, and then leaves the system as it was; it also
    // refuses when the system's own state cannot be saved, since it could not be put back.
    static constexpr std::uint32_t kSnapshotVersion = 1;
    void saveSnapshot(zo::vector<unsigned char>* out) const;
    void restoreSnapshot(const unsigned char* data, std::size_t size);
    void restoreSnapshot(const zo::vector<unsigned char>& in) { restoreSnapshot(in.data(), in.size()); }
    // The snapshot without its header, for a block that holds a nested system.
    void saveSnapshotBody(wSnapshotWriter& out) const;
    void restoreSnapshotBody(wSnapshotReader& in);
    // A hash of what a snapshot depends on: blocks (kind, type, name, leads, offsets),
    // memory layout and solver kind, nested schemes included.
    std::uint64_t getSchemeFingerprint() const;

    // For discrete blocks that read or write wires when a port value arrives, outside
    // their step (the wire serialization blocks): before reading its input wires a block
    // has the stateless blocks that feed it brought up to date, and after writing its
    // output wires it has the stateless blocks it feeds marked for re-evaluation, just as
    // simulate does around a step. The block must be one of this system's.
    void updateInputsOf(const wSimulationBlockDisc* block);
    void markOutputsOf(const wSimulationBlockDisc* block);
    // The scheme time the system last ran at: the event being stepped inside simulate,
    // otherwise the time of the last simulate (the end of its integration when the scheme
    // is continuous). 0 before the first call.
    double getCurrentTime() const { return now_; }
    // The latest time the simulate call running now may integrate to: its Tmax, infinite
    // without one (and outside a call). Nested systems keep to their parent's.
    double getHorizon() const { return horizon_; }

    const wSimulationSystemScheme* getScheme() const { return scheme_; }
    int getBlockCount() const;
    wSimulationBlock* getBlock(int index) const { return blocks_[static_cast<std::size_t>(index)].get(); }

    // ---- Nested systems (a subsystem block's). Not owned; each lives in a block of this
    // system. "reset_diff_state" and setSchemeQueueTime reach them too.
    void addChildSystem(wSimulationSystem* child);

    // ---- Input-driven discrete blocks. A block whose step returned -1.0 stays out of the
    // schedule until something feeding it may have changed: it is then due once more, at
    // the time of the change. Sources are discrete indices or one of these two.
    static constexpr int kWakeOnSchemeInput = -1;  // the host: at every simulate call
    static constexpr int kWakeOnContinuous = -2;   // continuous state: after every integration
    // Discrete block `target` wakes when `source` may have changed its inputs.
    void addWakeup(int source, int target);

protected:
    void init_(Lua::Loader* loader);
    double advanceDifferential_(double T, double h);
    void resetDiff_(const bool& value);
    void setDirty_(const zo::vector<int>& list);
    void updateDirty_(const zo::vector<int>& list, double t);
    const wSimulationBlockDescriptor* schemeGetIOBlock() const;

private:
    double simulate_(double T, double Tmax);
    // advanceDifferential_, with one step of the solver's own size (h = 0) kept within hmax.
    double advanceContinuous_(double T, double h, double hmax);
    // The offset of a scheme input (output = false) or output wire, checked against type.
    int typedWireOffset_(bool output, std::string_view name, eLeadType type) const;
    struct QueueEntry {
        int discreteIndex;  // discrete block index, in discrete order
        double time;        // absolute scheme time (s) at which it is due
    };
    void queuePush_(QueueEntry e);
    void queueSiftDown_(std::size_t i);
    void queuePop_();
    // Puts the sleeping blocks of `targets` back into the schedule at t (see addWakeup).
    void wake_(const zo::vector<int>& targets, double t, int source);

    // Building: runtime blocks, then the port connections and the scheme's ports.
    void createBlocks_(Lua::Loader* loader);
    void buildPorts_();
    // One more input port fed by scheme input port i (fan-out through a proxy).
    void addInputConsumer_(std::size_t i, wInputPortBase* in);
    // One more output port feeding scheme output port j (merged through a proxy).
    void addOutputFeeder_(std::size_t j, wOutputPortBase* out);
    // Destroys blocks, ports and solver, then frees the data area when it is ours.
    void release_() noexcept;
    // Throws when the same instant keeps being stepped (see simulate).
    [[noreturn]] void throwStalled_(int discreteIndex, double t, double r) const;
    // Discrete index of one of our blocks; throws for a block of another system.
    int discreteIndexOf_(const wSimulationBlockDisc* block) const;

    const wSimulationSystemScheme* scheme_;                 // not owned
    unsigned char* data_ = nullptr;                         // data area, getMemorySize() bytes
    zo::vector<std::unique_ptr<wSimulationBlock>> blocks_;  // by scheme block index
    zo::vector<unsigned char> dirty_;                       // one flag per stateless block
    std::unique_ptr<wOdeSolver> solver_;                    // null without continuous blocks
    zo::vector<wInputPortBase*> inputPorts_;                // per scheme input port (not owned)
    zo::vector<wOutputPortBase*> outputPorts_;              // per scheme output port (not owned)
    zo::vector<std::unique_ptr<wProxyPortBase>> proxies_;   // fan-out nodes
    wInputPortImpl<bool, wSimulationSystem> commandPort_;   // "reset_diff_state"
    zo::vector<QueueEntry> queue_;                          // binary min-heap, capacity = discrete count
    bool ownsData_ = false;                                 // free data_ on destruction
    bool rhsFresh_ = false;  // the next calcDiffRhs is the first of an advance (see there)
    double now_ = 0.0;       // see getCurrentTime
    double horizon_ = std::numeric_limits<double>::infinity();  // see getHorizon
    double rhsFreshTime_ = 0;             // the time that advance started at
    long long rhsEvaluations_ = 0;        // calcDiffRhs calls
    wDiffInputWatch diffInputs_;          // what the derivatives read from outside the state
    // Typed views of blocks_ by kind, indexed by stateless / diff / discrete index.
    zo::vector<wSimulationBlockStateless*> stateless_;
    zo::vector<wSimulationBlockDiff*> diff_;
    zo::vector<wSimulationBlockDisc*> discrete_;
    // The fan-out proxy behind inputPorts_[i] / the merging proxy behind outputPorts_[j],
    // or null while the port is a block's own (owned by proxies_).
    zo::vector<wProxyPortBase*> inputFanOut_;
    zo::vector<wProxyPortBase*> outputMerge_;
    // Nested systems and wake-ups (see addChildSystem, addWakeup); empty when unused.
    struct Sleep {
        bool asleep = false;  // out of the schedule after returning -1.0
        double since = 0.0;   // the time it stepped last
    };
    zo::vector<wSimulationSystem*> children_;
    zo::vector<zo::vector<int>> wakeAfter_;  // per discrete source: blocks it wakes
    zo::vector<int> wakeOnInput_, wakeOnContinuous_;
    zo::vector<Sleep> sleep_;                // per discrete block
};
