#include "vandrel/core/SimulationBlock.h"

#include <cstdint>
#include <cstring>
#include <string>
#include <type_traits>

#include "vandrel/runtime/Snapshot.h"

wInputPortBase* wSimulationBlock::getInputPort(std::string_view) { return nullptr; }
wOutputPortBase* wSimulationBlock::getOutputPort(std::string_view) { return nullptr; }

// ---- Continuous blocks

void wSimulationBlockDiff::resetState(unsigned char* data) const {
    // The initial-value inputs are the last n input wires, one per output (state) wire.
    const wLeadList& outputs = descriptor_->getOutputWires();
    const std::size_t n = outputs.size();
    const std::size_t m = descriptor_->getInputWires().size();
    if (m < n) return;
    for (std::size_t i = 0; i < n; ++i) {
        const int from = descriptor_->getInputWireOffset(static_cast<int>(m - n + i));
        const int to = descriptor_->getOutputWireOffset(static_cast<int>(i));
        std::memmove(data + to, data + from, static_cast<std::size_t>(leadTypeSize(outputs[i].type)));
    }
}

// ---- Discrete blocks: registered state variables and the state blob

namespace {

// Calls f with the container behind `container` as its real type; false for an unknown kind.
template <class F>
bool visitContainer(void* container, int kind, F&& f) {
    switch (kind) {
        case STATE_VEC_BYTE: f(*static_cast<zo::vector<unsigned char>*>(container)); return true;
        case STATE_VEC_INT: f(*static_cast<zo::vector<std::int32_t>*>(container)); return true;
        case STATE_VEC_DOUBLE: f(*static_cast<zo::vector<double>*>(container)); return true;
        case STATE_VEC_VEC3D: f(*static_cast<zo::vector<Vec3d>*>(container)); return true;
        case STATE_VEC_ROT3D: f(*static_cast<zo::vector<Rot3d>*>(container)); return true;
        case STATE_DEQUE_BYTE:
        case STATE_DEQUE_BYTE2: f(*static_cast<std::deque<unsigned char>*>(container)); return true;
        case STATE_DEQUE_INT: f(*static_cast<std::deque<std::int32_t>*>(container)); return true;
        case STATE_DEQUE_DOUBLE: f(*static_cast<std::deque<double>*>(container)); return true;
        case STATE_DEQUE_VEC3D: f(*static_cast<std::deque<Vec3d>*>(container)); return true;
        case STATE_DEQUE_ROT3D: f(*static_cast<std::deque<Rot3d>*>(container)); return true;
        case STATE_STRING: f(*static_cast<zo::string*>(container)); return true;
        default: return false;
    }
}

// Size in bytes of the blob header that precedes a container's elements: its count.
constexpr int kCountBytes = static_cast<int>(sizeof(std::int32_t));

}  // namespace

void wSimulationBlockDisc::regVar(void* ptr, int size) {
    stateDataPtrs_.push_back(ptr);
    stateDataKinds_.push_back(size);
}

void wSimulationBlockDisc::regVar(wStateFlag& flag) {
    regVar(&flag.byte_, 1);
    stateFlags_.push_back(&flag);
}

void wSimulationBlockDisc::regContainer(void* container, int kind) {
    stateDataPtrs_.push_back(container);
    stateDataKinds_.push_back(-kind);
}

void wSimulationBlockDisc::masResize(void* container, int kind, int count) {
    if (count < 0) count = 0;
    visitContainer(container, kind, [count](auto& c) { c.resize(static_cast<std::size_t>(count)); });
}

void wSimulationBlockDisc::masClear(void* container, int kind) {
    visitContainer(container, kind, [](auto& c) { c.clear(); });
}

unsigned char* wSimulationBlockDisc::masElemPtrByType(void* container, int kind, int index) {
    // Strings are not addressed element by element.
    if (kind == STATE_STRING) return nullptr;
    unsigned char* result = nullptr;
    visitContainer(container, kind, [&result, index](auto& c) {
        result = reinterpret_cast<unsigned char*>(&c[static_cast<std::size_t>(index)]);
    });
    return result;
}

int wSimulationBlockDisc::masSizeByType(int kind) {
    switch (kind) {
        case STATE_VEC_BYTE: case STATE_DEQUE_BYTE: case STATE_DEQUE_BYTE2: case STATE_STRING: return 1;
        case STATE_VEC_INT: case STATE_DEQUE_INT: return 4;
        case STATE_VEC_DOUBLE: case STATE_DEQUE_DOUBLE: return 8;
        case STATE_VEC_VEC3D: case STATE_DEQUE_VEC3D: return 24;
        case STATE_VEC_ROT3D: case STATE_DEQUE_ROT3D: return 32;
        default: return -1;
    }
}

int wSimulationBlockDisc::getMasElemCount(const void* container, int kind) {
    int count = 0;
    visitContainer(const_cast<void*>(container), kind, [&count](auto& c) { count = static_cast<int>(c.size()); });
    return count;
}

int wSimulationBlockDisc::getBlockStateDataSize() const {
    // -1, not 0: a block without state data differs from one whose state is empty.
    if (stateDataPtrs_.empty()) return -1;
    int size = 0;
    for (std::size_t i = 0; i < stateDataPtrs_.size(); ++i) {
        const int kind = stateDataKinds_[i];
        if (kind >= 0) {
            size += kind;
        } else if (masSizeByType(-kind) > 0) {
            size += kCountBytes + getMasElemCount(stateDataPtrs_[i], -kind) * masSizeByType(-kind);
        }
    }
    return size;
}

void wSimulationBlockDisc::getBlockStateData(unsigned char* out) const {
    for (std::size_t i = 0; i < stateDataPtrs_.size(); ++i) {
        const int kind = stateDataKinds_[i];
        void* ptr = stateDataPtrs_[i];
        if (kind >= 0) {
            std::memcpy(out, ptr, static_cast<std::size_t>(kind));
            out += kind;
            continue;
        }
        visitContainer(ptr, -kind, [&out](auto& c) {
            using Elem = typename std::remove_reference_t<decltype(c)>::value_type;
            const std::int32_t count = static_cast<std::int32_t>(c.size());
            std::memcpy(out, &count, sizeof count);
            out += sizeof count;
            if constexpr (requires { c.data(); }) {
                // Vectors and strings: one copy of the contiguous storage.
                if (count > 0) std::memcpy(out, c.data(), c.size() * sizeof(Elem));
                out += c.size() * sizeof(Elem);
            } else {
                // Deques: element by element from the front.
                for (const Elem& e : c) {
                    std::memcpy(out, &e, sizeof(Elem));
                    out += sizeof(Elem);
                }
            }
        });
    }
}

int wSimulationBlockDisc::setBlockStateDataByPtr(const unsigned char* in) {
    const unsigned char* const start = in;
    for (std::size_t i = 0; i < stateDataPtrs_.size(); ++i) {
        const int kind = stateDataKinds_[i];
        void* ptr = stateDataPtrs_[i];
        if (kind >= 0) {
            std::memcpy(ptr, in, static_cast<std::size_t>(kind));
            in += kind;
            continue;
        }
        visitContainer(ptr, -kind, [&in](auto& c) {
            using Elem = typename std::remove_reference_t<decltype(c)>::value_type;
            std::int32_t count = 0;
            std::memcpy(&count, in, sizeof count);
            in += sizeof count;
            if (count < 0) count = 0;
            c.clear();
            c.resize(static_cast<std::size_t>(count));
            if constexpr (requires { c.data(); }) {
                if (count > 0) std::memcpy(c.data(), in, c.size() * sizeof(Elem));
                in += c.size() * sizeof(Elem);
            } else {
                for (Elem& e : c) {
                    std::memcpy(&e, in, sizeof(Elem));
                    in += sizeof(Elem);
                }
            }
        });
    }
    for (wStateFlag* flag : stateFlags_) flag->byte_ = flag->byte_ != 0 ? 1 : 0;
    return static_cast<int>(in - start);
}

int wSimulationBlockDisc::measureStateData(const unsigned char* in, std::size_t available) const {
    std::size_t used = 0;
    for (std::size_t i = 0; i < stateDataPtrs_.size(); ++i) {
        const int kind = stateDataKinds_[i];
        std::size_t need = 0;
        if (kind >= 0) {
            need = static_cast<std::size_t>(kind);
        } else if (masSizeByType(-kind) > 0) {
            if (available - used < static_cast<std::size_t>(kCountBytes)) return -1;
            std::int32_t count = 0;
            std::memcpy(&count, in + used, sizeof count);
            if (count < 0) return -1;
            used += kCountBytes;
            need = static_cast<std::size_t>(count) * static_cast<std::size_t>(masSizeByType(-kind));
        }
        if (available - used < need) return -1;
        used += need;
    }
    // The blob of a single block is addressed with int sizes.
    if (used > static_cast<std::size_t>(INT32_MAX)) return -1;
    return static_cast<int>(used);
}

// ---- Whole-state snapshots

void wSimulationBlock::saveSnapshot(wSnapshotWriter&) const {}

void wSimulationBlock::restoreSnapshot(wSnapshotReader&) {}

void wSimulationBlockDisc::saveSnapshot(wSnapshotWriter& out) const {
    if (!blockHasStateData()) return;
    const int size = getBlockStateDataSize();
    const std::size_t mark = out.beginSection();
    if (size > 0) {
        zo::vector<unsigned char> blob(static_cast<std::size_t>(size));
        getBlockStateData(blob.data());
        out.putBytes(blob.data(), blob.size());
    }
    out.endSection(mark);
}

void wSimulationBlockDisc::restoreSnapshot(wSnapshotReader& in) {
    if (!blockHasStateData()) return;
    wSnapshotReader blob = in.section("registered state");
    const std::size_t size = blob.remaining();
    const unsigned char* bytes = blob.getBytes(size, "registered state");
    // Measured first: the blob's counts must fit its bytes, and it must be all of them.
    if (measureStateData(bytes, size) != static_cast<int>(size))
        blob.fail("the registered state of block " + getDescriptor()->getName() + " does not fit its " +
                  std::to_string(size) + " bytes");
    setBlockStateDataByPtr(bytes);
}
