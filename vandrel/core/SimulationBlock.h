#pragma once
// Runtime blocks: what a simulation system runs. One per descriptor and system; they
// read their settings from the descriptor and their values from the data area.
//
//   wSimulationBlockStateless  outputs from inputs, run when its inputs may have changed
//   wSimulationBlockDiff       continuous states, integrated by the ODE solver
//   wSimulationBlockDisc       discrete state, stepped on its own schedule; its state
//                              variables can be saved to and restored from a byte blob
#include <cstdint>
#include <deque>
#include <string_view>
#include <type_traits>

#include <boost/container/small_vector.hpp>

#include "vandrel/core/SimulationBlockDescriptor.h"
#include "vandrel/platform/Math.h"
#include "vandrel/platform/String.h"

class wInputPortBase;
class wOutputPortBase;
class wSnapshotWriter;
class wSnapshotReader;

class wSimulationBlock {
public:
    explicit wSimulationBlock(const wSimulationBlockDescriptor* descriptor) : descriptor_(descriptor) {}
    virtual ~wSimulationBlock() = default;

    // Ports by lead name; null for a name the block does not know.
    virtual wInputPortBase* getInputPort(std::string_view name);
    virtual wOutputPortBase* getOutputPort(std::string_view name);

    bool isOfType(weBlockType type) const { return descriptor_->isOfType(type); }
    const wSimulationBlockDescriptor* getDescriptor() const { return descriptor_; }

    // Whole-state snapshots: what the block holds besides its wires and the last values
    // of its input ports, which the system saves itself. Restoring reads exactly what
    // saving wrote, checks it and throws wSimulationException (through the reader) for
    // bytes it cannot take. Blocks whose state lives only in wires save nothing.
    virtual void saveSnapshot(wSnapshotWriter& out) const;
    virtual void restoreSnapshot(wSnapshotReader& in);

protected:
    wSimulationBlock(const wSimulationBlock&) = default;
    wSimulationBlock& operator=(const wSimulationBlock&) = default;

    const wSimulationBlockDescriptor* descriptor_;  // not owned; the scheme outlives the run
};

class wSimulationBlockStateless : public wSimulationBlock {
public:
    using wSimulationBlock::wSimulationBlock;
    virtual void reg1() {}
    // Reads the input wires from `data`, writes the output wires. t: scheme time (s).
    virtual void update(double t, unsigned char* data) = 0;
};

class wSimulationBlockDiff : public wSimulationBlock {
public:
    using wSimulationBlock::wSimulationBlock;
    // Writes d(state)/dt into `dy` at each state's output-wire offset; `dy` has the
    // layout of the data area (only the continuous run is addressed).
    virtual void calculate_dy(double t, unsigned char* data, unsigned char* dy) = 0;
    // Loads every state (output wire i) from its initial-value input wire.
    void resetState(unsigned char* data) const;
};

// Container kinds for state registration (the registry stores minus the kind).
enum eStateContainerKind : std::int32_t {
    STATE_VEC_BYTE = 1,
    STATE_VEC_INT = 2,
    STATE_VEC_DOUBLE = 3,
    STATE_VEC_VEC3D = 4,
    STATE_VEC_ROT3D = 5,
    STATE_DEQUE_BYTE = 6,
    STATE_DEQUE_BYTE2 = 7,  // handled exactly as STATE_DEQUE_BYTE
    STATE_DEQUE_INT = 8,
    STATE_DEQUE_DOUBLE = 9,
    STATE_DEQUE_VEC3D = 10,
    STATE_DEQUE_ROT3D = 11,
    STATE_STRING = 12,
};

// A yes/no member of a block's registered state. It is one plain byte rather than a bool:
// restoring copies bytes from a blob, and a bool holding anything but 0 or 1 is undefined
// behaviour to read. Any non-zero byte reads as true; restoring normalises it to 1.
class wStateFlag {
public:
    wStateFlag(bool value = false) : byte_(value ? 1 : 0) {}  // NOLINT: converts like a bool
    wStateFlag& operator=(bool value) {
        byte_ = value ? 1 : 0;
        return *this;
    }
    operator bool() const { return byte_ != 0; }  // NOLINT: reads like a bool

private:
    friend class wSimulationBlockDisc;
    std::uint8_t byte_;
};
static_assert(sizeof(wStateFlag) == 1 && std::is_trivially_copyable_v<wStateFlag>);

class wSimulationBlockDisc : public wSimulationBlock {
public:
    wSimulationBlockDisc(const wSimulationBlockDiscDescriptor* descriptor, wSimulationSystem* system)
        : wSimulationBlock(descriptor), system_(system) {}
    wSimulationBlockDisc(const wSimulationBlockDisc&) = default;
    wSimulationBlockDisc& operator=(const wSimulationBlockDisc&) = default;

    // The discrete update at scheme time t. Returns the delay (s) until the block wants
    // to run again; exactly -1.0 means never again (until the system is reset).
    virtual double step(double t) = 0;
    // Returns the block's own state to its initial values.
    virtual void reset() {}

    // State blob: for each registered variable in order, a plain variable's bytes, or a
    // container's int32 element count followed by its elements. Size -1: nothing registered.
    virtual int getBlockStateDataSize() const;
    virtual void getBlockStateData(unsigned char* out) const;
    // Reads a blob written by the same kind of block; returns the bytes consumed. Flags are
    // normalised to 0 or 1. The blob must hold what the registry needs: check it first
    // with measureStateData when it comes from outside.
    virtual int setBlockStateDataByPtr(const unsigned char* in);
    // The bytes that setBlockStateDataByPtr would consume from `in`, reading no further
    // than `available` bytes; -1 when the blob is too short for the registered state or
    // holds a negative element count. Size 0 when nothing is registered.
    virtual int measureStateData(const unsigned char* in, std::size_t available) const;
    // Registers the state variables, once, right after construction.
    virtual void registerStateData() {}
    // The registered state blob (nothing when none is registered).
    void saveSnapshot(wSnapshotWriter& out) const override;
    void restoreSnapshot(wSnapshotReader& in) override;

    bool blockHasStateData() const { return !stateDataPtrs_.empty(); }
    wSimulationSystem* getSystem() const { return system_; }

protected:
    // Plain variable of `size` bytes.
    void regVar(void* ptr, int size);
    template <class T>
    void regVar(T& v) {
        static_assert(std::is_trivially_copyable_v<T>);
        static_assert(!std::is_same_v<T, bool>, "register yes/no state as wStateFlag, never as bool");
        regVar(&v, static_cast<int>(sizeof(T)));
    }
    // A flag: one byte in the blob, normalised to 0 or 1 when restored.
    void regVar(wStateFlag& flag);
    void regStr(zo::string* s) { regContainer(s, STATE_STRING); }
    void regContainer(void* container, int kind);
    void regVec(zo::vector<unsigned char>& v) { regContainer(&v, STATE_VEC_BYTE); }
    void regVec(zo::vector<std::int32_t>& v) { regContainer(&v, STATE_VEC_INT); }
    void regVec(zo::vector<double>& v) { regContainer(&v, STATE_VEC_DOUBLE); }
    void regVec(zo::vector<Vec3d>& v) { regContainer(&v, STATE_VEC_VEC3D); }
    void regVec(zo::vector<Rot3d>& v) { regContainer(&v, STATE_VEC_ROT3D); }
    void regDeque(std::deque<unsigned char>& q) { regContainer(&q, STATE_DEQUE_BYTE); }
    void regDeque(std::deque<std::int32_t>& q) { regContainer(&q, STATE_DEQUE_INT); }
    void regDeque(std::deque<double>& q) { regContainer(&q, STATE_DEQUE_DOUBLE); }
    void regDeque(std::deque<Vec3d>& q) { regContainer(&q, STATE_DEQUE_VEC3D); }
    void regDeque(std::deque<Rot3d>& q) { regContainer(&q, STATE_DEQUE_ROT3D); }

    // Container helpers by kind code (1..12); -1 / null for other codes.
    static void masResize(void* container, int kind, int count);
    static void masClear(void* container, int kind);
    static unsigned char* masElemPtrByType(void* container, int kind, int index);
    static int masSizeByType(int kind);
    static int getMasElemCount(const void* container, int kind);

    wSimulationSystem* system_;  // not owned: the system that owns this block
    boost::container::small_vector<void*, 8> stateDataPtrs_;
    boost::container::small_vector<std::int32_t, 8> stateDataKinds_;  // size >= 0, or -kind
    boost::container::small_vector<wStateFlag*, 4> stateFlags_;      // registered flags, normalised on restore
};
