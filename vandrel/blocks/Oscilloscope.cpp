#include "vandrel/blocks/Oscilloscope.h"

#include <algorithm>
#include <cstring>
#include <string>

#include "vandrel/core/Wire.h"
#include "vandrel/platform/LuaLoader.h"
#include "vandrel/runtime/SimulationException.h"
#include "vandrel/runtime/SimulationSystem.h"
#include "vandrel/runtime/Snapshot.h"
#include "vandrel/scheme/BlockSerializer.h"

namespace {

// Doubles that one wire of type t takes in a sample; 0 for a type that cannot be recorded.
int columnsOf(eLeadType t) {
    switch (t) {
    case LEAD_INT:
    case LEAD_BOOL:
    case LEAD_DOUBLE:
    case LEAD_OBJECT_ID:
        return 1;
    case LEAD_VECTOR:
        return 3;
    case LEAD_QUATERNION:
        return 4;
    case LEAD_OBJECT_PTR:
        return 0;
    }
    return 0;
}

}  // namespace

// ---- Descriptor

const zo::string& wBlockOscilloscopeDescriptor::getBlockClassNameS() {
    static const zo::string s = "wBlockOscilloscopeDescriptor";
    return s;
}

const zo::string& wBlockOscilloscopeDescriptor::getBlockTypeNameS() {
    static const zo::string s = "Oscilloscope";
    return s;
}

wBlockOscilloscopeDescriptor::wBlockOscilloscopeDescriptor() : inputs_{{"input1", LEAD_DOUBLE}} {}

wSimulationBlockDisc* wBlockOscilloscopeDescriptor::create(Lua::Loader*, wSimulationSystem* system) const {
    checkParameters_();
    checkInputs_(inputs_);
    return new wBlockOscilloscope(this, system);
}

wParameterList wBlockOscilloscopeDescriptor::getParametersList() {
    wParameterList list = wSimulationBlockDiscDescriptor::getParametersList();
    list.push_back(parameterRef("dt", dt));
    list.push_back(parameterRef("capacity", capacity));
    return list;
}

void wBlockOscilloscopeDescriptor::serialize(wBlockSerializer& s) {
    wSimulationBlockDiscDescriptor::serialize(s);
    Lua::Loader* loader = s.getLoader();
    if (!s.isReading()) {
        saveLeadList(*loader, "inputs", inputs_);
        return;
    }
    // A block entry without "inputs" keeps the default input.
    if (loader->hasEntry("inputs")) {
        wLeadList inputs = loadLeadList(*loader, "inputs");
        checkInputs_(inputs);
        inputs_ = std::move(inputs);
    }
    // For running, bad settings are refused while the file is at hand to name.
    if (s.isRuntime()) checkParameters_();
}

void wBlockOscilloscopeDescriptor::checkParameters_() const {
    // Written so that NaN fails too.
    if (!(dt.get() > 0)) throw wSimulationException("Oscilloscope " + getName() + ": \"dt\" must be positive");
    if (capacity.get() < 1)
        throw wSimulationException("Oscilloscope " + getName() + ": \"capacity\" must be at least 1");
}

std::uint64_t wBlockOscilloscopeDescriptor::getRuntimeAllocationSize() const {
    std::uint64_t columns = 1;
    for (const wLeadDescription& lead : inputs_) columns += static_cast<std::uint64_t>(columnsOf(lead.type));
    const auto samples = static_cast<std::uint64_t>(std::max(capacity.get(), 0));
    // Both factors are below 2^32, so the product cannot wrap.
    return samples * columns * sizeof(double);
}

void wBlockOscilloscopeDescriptor::setInputs(const wLeadList& inputs) {
    checkInputs_(inputs);
    inputs_ = inputs;
}

void wBlockOscilloscopeDescriptor::checkInputs_(const wLeadList& inputs) const {
    for (std::size_t i = 0; i < inputs.size(); ++i) {
        const wLeadDescription& lead = inputs[i];
        if (columnsOf(lead.type) == 0)
            throw wSimulationException("Oscilloscope " + getName() + ": input " + lead.name +
                                       " has type " + std::to_string(static_cast<int>(lead.type)) +
                                       ", which cannot be recorded");
        for (std::size_t j = 0; j < i; ++j)
            if (inputs[j].name == lead.name)
                throw wSimulationException("Oscilloscope " + getName() + ": duplicate input " + lead.name);
    }
}

// ---- Runtime block

wBlockOscilloscope::wBlockOscilloscope(const wBlockOscilloscopeDescriptor* descriptor, wSimulationSystem* system)
    : wSimulationBlockDisc(descriptor, system), d_(descriptor), capacity_(descriptor->capacity.get()) {
    columns_.push_back("time");
    for (const wLeadDescription& lead : descriptor->getInputs()) {
        switch (lead.type) {
        case LEAD_VECTOR:
            for (const char* c : {".x", ".y", ".z"}) columns_.push_back(lead.name + c);
            break;
        case LEAD_QUATERNION:
            for (const char* c : {".x", ".y", ".z", ".w"}) columns_.push_back(lead.name + c);
            break;
        default:
            columns_.push_back(lead.name);
            break;
        }
    }
    width_ = static_cast<int>(columns_.size());
    rows_.assign(static_cast<std::size_t>(capacity_) * static_cast<std::size_t>(width_), 0.0);
}

const double* wBlockOscilloscope::sample(int i) const {
    const std::size_t row = static_cast<std::size_t>((first_ + i) % capacity_);
    return rows_.data() + row * static_cast<std::size_t>(width_);
}

void wBlockOscilloscope::clear() {
    first_ = 0;
    count_ = 0;
    dropped_ = 0;
}

double wBlockOscilloscope::step(double t) {
    // The row to fill: the next free one, or the oldest when the buffer is full.
    int row;
    if (count_ < capacity_) {
        row = (first_ + count_) % capacity_;
        ++count_;
    } else {
        row = first_;
        first_ = (first_ + 1) % capacity_;
        ++dropped_;
    }
    double* out = rows_.data() + static_cast<std::size_t>(row) * static_cast<std::size_t>(width_);

    const unsigned char* data = system_->getDataPtr();
    *out++ = t;
    const wLeadList& inputs = d_->getInputs();
    for (std::size_t i = 0; i < inputs.size(); ++i) {
        const int offset = d_->getInputWireOffset(static_cast<int>(i));
        switch (inputs[i].type) {
        case LEAD_INT:
            *out++ = readWire<std::int32_t>(data, offset);
            break;
        case LEAD_BOOL:
            *out++ = readWire<bool>(data, offset) ? 1.0 : 0.0;
            break;
        case LEAD_DOUBLE:
            *out++ = readWire<double>(data, offset);
            break;
        case LEAD_VECTOR: {
            const Vec3d v = readWire<Vec3d>(data, offset);
            *out++ = v.x;
            *out++ = v.y;
            *out++ = v.z;
            break;
        }
        case LEAD_QUATERNION: {
            const Rot3d q = readWire<Rot3d>(data, offset);
            *out++ = q.x;
            *out++ = q.y;
            *out++ = q.z;
            *out++ = q.w;
            break;
        }
        case LEAD_OBJECT_ID:
            *out++ = readWire<std::uint32_t>(data, offset);
            break;
        case LEAD_OBJECT_PTR:
            // Refused by the descriptor before a block is made.
            break;
        }
    }
    return d_->dt.get();
}

void wBlockOscilloscope::saveSnapshot(wSnapshotWriter& out) const {
    out.put(static_cast<std::int32_t>(count_));
    for (int i = 0; i < count_; ++i) out.putBytes(sample(i), static_cast<std::size_t>(width_) * sizeof(double));
    out.put(dropped_);
}

void wBlockOscilloscope::restoreSnapshot(wSnapshotReader& in) {
    const auto count = in.get<std::int32_t>("oscilloscope sample count");
    if (count < 0 || count > capacity_)
        in.fail("oscilloscope " + d_->getName() + ": " + std::to_string(count) + " samples for a buffer of " +
                std::to_string(capacity_));
    const std::size_t bytes = static_cast<std::size_t>(count) * static_cast<std::size_t>(width_) * sizeof(double);
    const unsigned char* rows = in.getBytes(bytes, "oscilloscope samples");
    const auto dropped = in.get<std::int64_t>("oscilloscope dropped count");
    if (dropped < 0) in.fail("oscilloscope " + d_->getName() + ": negative dropped count");
    // Oldest first from the start of the ring: the next sample goes where it would have.
    if (bytes > 0) std::memcpy(rows_.data(), rows, bytes);
    first_ = 0;
    count_ = count;
    dropped_ = dropped;
}
