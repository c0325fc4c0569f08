#include "vandrel/blocks/WireSerialization.h"

#include <cstdlib>
#include <cstring>
#include <string>

#include "vandrel/core/Wire.h"
#include "vandrel/platform/LuaLoader.h"
#include "vandrel/runtime/SimulationException.h"
#include "vandrel/runtime/SimulationSystem.h"
#include "vandrel/scheme/BlockSerializer.h"

namespace {

// A block's name for messages: "<type name> <name>", or the type name alone.
zo::string blockLabel(const wSimulationBlockDescriptor& d) {
    return d.getName().empty() ? d.getBlockTypeName() : d.getBlockTypeName() + " " + d.getName();
}

// Throws "<where>: duplicate <what> <name>" for the first name that appears twice.
void checkUniqueNames(const wLeadList& leads, const zo::string& where, const char* what) {
    for (std::size_t i = 0; i < leads.size(); ++i)
        for (std::size_t j = 0; j < i; ++j)
            if (leads[j].name == leads[i].name)
                throw wSimulationException(where + ": duplicate " + what + " " + leads[i].name +
                                           " (each name must be unique: connections find leads by name)");
}

// One field of a wire: `bytes` bytes of the slot at `slot`, moved as `bits` bits. The
// stream sees an aligned local copy (a slot may start at any byte); when reading, the
// copy goes back into the slot.
void transferField(Mail::Stream& stream, unsigned char* slot, std::size_t bytes, unsigned bits, bool intoWires) {
    alignas(8) unsigned char field[8];
    std::memcpy(field, slot, bytes);
    stream.transferBits(field, bits);
    if (intoWires) std::memcpy(slot, field, bytes);
}

// A bool is one bit: the value as 0 or 1 in the lowest bit. A slot holding any non-zero
// byte reads as true, so it is normalised before it goes out and after it comes in.
void transferBool(Mail::Stream& stream, unsigned char* slot, bool intoWires) {
    unsigned char field = readWire<bool>(slot, 0) ? 1 : 0;
    stream.transferBits(&field, 1);
    if (intoWires) writeWire<bool>(slot, 0, (field & 1u) != 0);
}

// Moves the wires of `wires` between the data area and the stream, in list order: out of
// the input wire slots (serializer), or into the output wire slots (deserializer).
void transferWires(Mail::Stream& stream, unsigned char* data, const wSimulationBlockDescriptor& d,
                   const wLeadList& wires, bool intoWires) {
    for (std::size_t i = 0; i < wires.size(); ++i) {
        const int index = static_cast<int>(i);
        unsigned char* slot = data + (intoWires ? d.getOutputWireOffset(index) : d.getInputWireOffset(index));
        switch (wires[i].type) {
        case LEAD_INT:
        case LEAD_OBJECT_ID:
            transferField(stream, slot, 4, 32, intoWires);
            break;
        case LEAD_BOOL:
            transferBool(stream, slot, intoWires);
            break;
        case LEAD_DOUBLE:
            transferField(stream, slot, 8, 64, intoWires);
            break;
        case LEAD_VECTOR:
            for (int c = 0; c < 3; ++c) transferField(stream, slot + 8 * c, 8, 64, intoWires);
            break;
        case LEAD_QUATERNION:
            for (int c = 0; c < 4; ++c) transferField(stream, slot + 8 * c, 8, 64, intoWires);
            break;
        case LEAD_OBJECT_PTR:
            break;
        default:
            // Lists are checked when read: only a programming error gets here.
            std::abort();
        }
    }
}

[[noreturn]] void throwNullStream(const wSimulationBlockDescriptor& d) {
    throw wSimulationException("Stream cannot be null while serializing (" + blockLabel(d) +
                               ": send a Mail::Stream object to its \"stream\" port)");
}

}  // namespace

unsigned wireStreamBits(eLeadType t) {
    switch (t) {
    case LEAD_INT:
    case LEAD_OBJECT_ID: return 32;
    case LEAD_BOOL: return 1;
    case LEAD_DOUBLE: return 64;
    case LEAD_VECTOR: return 3 * 64;
    case LEAD_QUATERNION: return 4 * 64;
    case LEAD_OBJECT_PTR: return 0;
    }
    std::abort();
}

unsigned wireStreamBits(const wLeadList& wires) {
    unsigned bits = 0;
    for (const wLeadDescription& w : wires) bits += wireStreamBits(w.type);
    return bits;
}

// ---- Shared descriptor part

void wBlockWireListDescriptor::setWires(const wLeadList& wires) {
    checkWires_(wires, blockLabel(*this));
    wires_ = wires;
}

void wBlockWireListDescriptor::checkWires_(const wLeadList& wires, const zo::string& where) const {
    checkUniqueNames(wires, where, "wire");
}

void wBlockWireListDescriptor::serialize(wBlockSerializer& s) {
    Lua::Loader* loader = s.getLoader();
    if (s.isReading()) {
        wLeadList wires = loadLeadList(*loader, "wires");
        checkWires_(wires, loader->formatPath("wires"));
        wires_ = std::move(wires);
    } else {
        saveLeadList(*loader, "wires", wires_);
    }
    wSimulationBlockDiscDescriptor::serialize(s);
}

// ---- Serializer

const zo::string& wBlockWireSerializerDescriptor::getBlockClassNameS() {
    static const zo::string s = "wBlockWireSerializerDescriptor";
    return s;
}

const zo::string& wBlockWireSerializerDescriptor::getBlockTypeNameS() {
    static const zo::string s = "Serializer";
    return s;
}

wSimulationBlockDisc* wBlockWireSerializerDescriptor::create(Lua::Loader*, wSimulationSystem* system) const {
    return new wBlockWireSerializer(this, system);
}

const wLeadList& wBlockWireSerializerDescriptor::getInputPorts_() const {
    static const wLeadList leads{{"stream", LEAD_OBJECT_PTR}};
    return leads;
}

wBlockWireSerializer::wBlockWireSerializer(const wBlockWireSerializerDescriptor* descriptor, wSimulationSystem* system)
    : wSimulationBlockDisc(descriptor, system), d_(descriptor), streamPort_(this, &wBlockWireSerializer::write) {}

wInputPortBase* wBlockWireSerializer::getInputPort(std::string_view name) {
    return name == "stream" ? &streamPort_ : wSimulationBlockDisc::getInputPort(name);
}

void wBlockWireSerializer::write(Mail::Stream* stream) {
    if (stream == nullptr) throwNullStream(*d_);
    // Reading our library's stream here would swallow its bits without a trace.
    if (const auto* bits = dynamic_cast<const Mail::BitStream*>(stream); bits && !bits->isWriting())
        throw wSimulationException(blockLabel(*d_) +
                                   ": the stream is being read; a Serializer needs a stream in writing mode");
    system_->updateInputsOf(this);
    transferWires(*stream, system_->getDataPtr(), *d_, d_->getWires(), false);
}

// ---- Deserializer

const zo::string& wBlockWireDeserializerDescriptor::getBlockClassNameS() {
    static const zo::string s = "wBlockWireDeserializerDescriptor";
    return s;
}

const zo::string& wBlockWireDeserializerDescriptor::getBlockTypeNameS() {
    static const zo::string s = "Deserializer";
    return s;
}

wSimulationBlockDisc* wBlockWireDeserializerDescriptor::create(Lua::Loader*, wSimulationSystem* system) const {
    return new wBlockWireDeserializer(this, system);
}

const wLeadList& wBlockWireDeserializerDescriptor::getInputPorts_() const {
    static const wLeadList leads{{"stream", LEAD_OBJECT_PTR}};
    return leads;
}

const wLeadList& wBlockWireDeserializerDescriptor::getOutputPorts_() const {
    static const wLeadList leads{{"signal", LEAD_BOOL}};
    return leads;
}

wBlockWireDeserializer::wBlockWireDeserializer(const wBlockWireDeserializerDescriptor* descriptor,
                                               wSimulationSystem* system)
    : wSimulationBlockDisc(descriptor, system), d_(descriptor), streamPort_(this, &wBlockWireDeserializer::read) {}

wInputPortBase* wBlockWireDeserializer::getInputPort(std::string_view name) {
    return name == "stream" ? &streamPort_ : wSimulationBlockDisc::getInputPort(name);
}

wOutputPortBase* wBlockWireDeserializer::getOutputPort(std::string_view name) {
    return name == "signal" ? &signalPort_ : wSimulationBlockDisc::getOutputPort(name);
}

void wBlockWireDeserializer::read(Mail::Stream* stream) {
    if (stream == nullptr) throwNullStream(*d_);
    // Our library's stream can tell what it holds: a short or wrong-mode stream is refused
    // before any wire changes, rather than read as zeros. Other streams judge themselves.
    if (const auto* bits = dynamic_cast<const Mail::BitStream*>(stream)) {
        if (bits->isWriting())
            throw wSimulationException(blockLabel(*d_) +
                                       ": the stream is being written; rewind it (or make it from bytes) to read it");
        const unsigned needed = wireStreamBits(d_->getWires());
        const std::size_t left = bits->bitCount() > bits->position() ? bits->bitCount() - bits->position() : 0;
        if (left < needed)
            throw wSimulationException(blockLabel(*d_) + ": stream too short: the wires take " +
                                       std::to_string(needed) + " bits, " + std::to_string(left) +
                                       " are left (do both ends list the same lead types in the same order?)");
    }
    transferWires(*stream, system_->getDataPtr(), *d_, d_->getWires(), true);
    system_->markOutputsOf(this);
}

// ---- Wire to port

const zo::string& wBlockWireToPortDescriptor::getBlockClassNameS() {
    static const zo::string s = "wBlockWireToPortDescriptor";
    return s;
}

const zo::string& wBlockWireToPortDescriptor::getBlockTypeNameS() {
    static const zo::string s = "Wire to port";
    return s;
}

wSimulationBlockDisc* wBlockWireToPortDescriptor::create(Lua::Loader*, wSimulationSystem* system) const {
    for (const wLeadDescription& lead : leads_)
        if (lead.type == LEAD_OBJECT_PTR)
            throw wSimulationException("Cannot create output port of type wWireObjectPtrBase (" + blockLabel(*this) +
                                       ": lead " + lead.name + " is an object ptr; remove it from \"leads\")");
    return new wBlockWireToPort(this, system);
}

void wBlockWireToPortDescriptor::serialize(wBlockSerializer& s) {
    Lua::Loader* loader = s.getLoader();
    if (s.isReading()) {
        wLeadList leads = loadLeadList(*loader, "leads");
        checkLeads_(leads, loader->formatPath("leads"));
        leads_ = std::move(leads);
    } else {
        saveLeadList(*loader, "leads", leads_);
    }
    wSimulationBlockDiscDescriptor::serialize(s);
}

void wBlockWireToPortDescriptor::set(const wLeadList& leads) {
    checkLeads_(leads, blockLabel(*this));
    leads_ = leads;
}

void wBlockWireToPortDescriptor::checkLeads_(const wLeadList& leads, const zo::string& where) const {
    checkUniqueNames(leads, where, "lead");
}

const wLeadList& wBlockWireToPortDescriptor::getInputPorts_() const {
    static const wLeadList leads{{"latch", LEAD_BOOL}};
    return leads;
}

wBlockWireToPort::wBlockWireToPort(const wBlockWireToPortDescriptor* descriptor, wSimulationSystem* system)
    : wSimulationBlockDisc(descriptor, system),
      d_(descriptor),
      latchPort_(this, &wBlockWireToPort::onLatch_),
      outputs_(descriptor->getLeadsList()) {}

wInputPortBase* wBlockWireToPort::getInputPort(std::string_view name) {
    return name == "latch" ? &latchPort_ : wSimulationBlockDisc::getInputPort(name);
}

wOutputPortBase* wBlockWireToPort::getOutputPort(std::string_view name) {
    const int index = d_->getLeadIndex(false, true, name, false);
    return index < 0 ? wSimulationBlockDisc::getOutputPort(name) : outputs_[static_cast<std::size_t>(index)];
}

void wBlockWireToPort::onLatch_(const bool& /*any value latches*/) {
    system_->updateInputsOf(this);
    const unsigned char* data = system_->getDataPtr();
    const wLeadList& leads = d_->getLeadsList();
    for (std::size_t i = 0; i < leads.size(); ++i) {
        // An object pointer has no value in its wire slot (and was refused at creation).
        if (leads[i].type == LEAD_OBJECT_PTR) continue;
        outputs_[i]->sendFromPtr(data + d_->getInputWireOffset(static_cast<int>(i)));
    }
}
