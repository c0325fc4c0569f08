#pragma once
// Wire serialization blocks: move a chosen list of wire values on demand.
//
//   Serializer    when a Mail::Stream arrives at its port "stream", writes its input
//                 wires (the "wires" list) into the stream, in list order
//   Deserializer  when a Mail::Stream arrives at "stream", reads its output wires (the
//                 "wires" list) from the stream, in list order; its bool port "signal"
//                 is declared for compatibility and never sends
//   Wire to port  when any value arrives at its bool port "latch", sends the value of
//                 each input wire out of the output port of the same name ("leads")
//
// Stream format: the bare concatenation of one field per wire, in list order: int and
// object id 32 bits, bool 1 bit, double 64 bits, vector three of 64 (x, y, z),
// quaternion four of 64 (its stored components in order); an object pointer takes none.
// No header, names, type tags, count or padding: the two ends agree only when their lists
// have the same lead types in the same order. Bit order and packing are the stream's own.
//
// All three are discrete blocks whose step does nothing and ends their scheduling: the
// work happens in port callbacks, when the value arrives, possibly between two simulate
// calls. So, as simulate does around a step, a block has the stateless blocks feeding its
// input wires brought up to date before it reads them, and the Deserializer has those fed
// by its output wires marked for re-evaluation after it writes them.
//
// None of them has state: their state size is 0 (not -1), so that schemes holding them
// can still save their discrete state.
#include <memory>
#include <string_view>

#include "vandrel/core/LeadTypes.h"
#include "vandrel/core/Ports.h"
#include "vandrel/core/SimulationBlock.h"
#include "vandrel/core/SimulationBlockDescriptor.h"
#include "vandrel/platform/MailStream.h"

// Bits that one field of lead type t takes in a stream (0 for an object pointer).
unsigned wireStreamBits(eLeadType t);
// Bits that a whole "wires" list takes in a stream: (bool, int, double) takes 97.
unsigned wireStreamBits(const wLeadList& wires);

// ---- Serializer and Deserializer: what their descriptors share

// The "wires" list, its file key and its checks. Saved under "wires" as a lead list
// ({ { name = ..., type = n }, ... }) before the base entry; a new block has no wires.
class wBlockWireListDescriptor : public wSimulationBlockDiscDescriptor {
public:
    const wLeadList& getWires() const { return wires_; }
    // Replaces the list; a repeated name throws and keeps the old list.
    void setWires(const wLeadList& wires);
    // Reads or writes "wires", then the base entry. A block entry must hold "wires".
    void serialize(wBlockSerializer& s) override;

protected:
    wBlockWireListDescriptor() = default;
    wBlockWireListDescriptor(const wBlockWireListDescriptor&) = default;

    // Throws "<type name> <name>: duplicate wire <wire> ..." for a repeated name.
    void checkWires_(const wLeadList& wires, const zo::string& where) const;

    wLeadList wires_;
};

class wBlockWireSerializerDescriptor
    : public wDescriptorImpl<wBlockWireSerializerDescriptor, wBlockWireListDescriptor> {
public:
    static const zo::string& getBlockClassNameS();  // "wBlockWireSerializerDescriptor"
    static const zo::string& getBlockTypeNameS();   // "Serializer"
    wSimulationBlockDisc* create(Lua::Loader* loader, wSimulationSystem* system) const override;

protected:
    const wLeadList& getInputWires_() const override { return wires_; }
    const wLeadList& getInputPorts_() const override;  // "stream" (object ptr)
};

class wBlockWireDeserializerDescriptor
    : public wDescriptorImpl<wBlockWireDeserializerDescriptor, wBlockWireListDescriptor> {
public:
    static const zo::string& getBlockClassNameS();  // "wBlockWireDeserializerDescriptor"
    static const zo::string& getBlockTypeNameS();   // "Deserializer"
    wSimulationBlockDisc* create(Lua::Loader* loader, wSimulationSystem* system) const override;

protected:
    const wLeadList& getOutputWires_() const override { return wires_; }
    const wLeadList& getInputPorts_() const override;   // "stream" (object ptr)
    const wLeadList& getOutputPorts_() const override;  // "signal" (bool)
};

class wBlockWireSerializer : public wSimulationBlockDisc {
public:
    wBlockWireSerializer(const wBlockWireSerializerDescriptor* descriptor, wSimulationSystem* system);
    wBlockWireSerializer(const wBlockWireSerializer&) = delete;
    wBlockWireSerializer& operator=(const wBlockWireSerializer&) = delete;

    wInputPortBase* getInputPort(std::string_view name) override;
    double step(double) override { return -1.0; }
    int getBlockStateDataSize() const override { return 0; }

    // The handler of "stream": writes the input wires, fresh, into `stream`. Throws for a
    // null stream, and for a Mail::BitStream that is being read, before writing anything.
    void write(Mail::Stream* stream);

private:
    const wBlockWireSerializerDescriptor* d_;  // not owned
    wInputPortObjPtrCallback<Mail::Stream, wBlockWireSerializer> streamPort_;
};

class wBlockWireDeserializer : public wSimulationBlockDisc {
public:
    wBlockWireDeserializer(const wBlockWireDeserializerDescriptor* descriptor, wSimulationSystem* system);
    wBlockWireDeserializer(const wBlockWireDeserializer&) = delete;
    wBlockWireDeserializer& operator=(const wBlockWireDeserializer&) = delete;

    wInputPortBase* getInputPort(std::string_view name) override;
    wOutputPortBase* getOutputPort(std::string_view name) override;
    double step(double) override { return -1.0; }
    int getBlockStateDataSize() const override { return 0; }

    // The handler of "stream": reads the output wires from `stream`. Throws for a null
    // stream, and for a Mail::BitStream that is being written or holds fewer bits than the
    // list takes, before reading anything: the wires then keep their values.
    void read(Mail::Stream* stream);

private:
    const wBlockWireDeserializerDescriptor* d_;  // not owned
    wInputPortObjPtrCallback<Mail::Stream, wBlockWireDeserializer> streamPort_;
    wOutputPort<bool> signalPort_;  // declared by the block type; never sends
};

// ---- Wire to port

// The "leads" list serves as the input wires and as the output ports: every lead is an
// input wire and an output port of the same name and type. Saved under "leads" before
// the base entry. An object-pointer lead cannot be run (no generic output port exists).
class wBlockWireToPortDescriptor : public wDescriptorImpl<wBlockWireToPortDescriptor, wSimulationBlockDiscDescriptor> {
public:
    static const zo::string& getBlockClassNameS();  // "wBlockWireToPortDescriptor"
    static const zo::string& getBlockTypeNameS();   // "Wire to port"
    // Throws "Cannot create output port of type wWireObjectPtrBase ..." for an
    // object-pointer lead.
    wSimulationBlockDisc* create(Lua::Loader* loader, wSimulationSystem* system) const override;
    // Reads or writes "leads", then the base entry. A block entry must hold "leads".
    void serialize(wBlockSerializer& s) override;

    const wLeadList& getLeadsList() const { return leads_; }
    // Replaces the list; a repeated name throws and keeps the old list.
    void set(const wLeadList& leads);

protected:
    const wLeadList& getInputWires_() const override { return leads_; }
    const wLeadList& getOutputPorts_() const override { return leads_; }
    const wLeadList& getInputPorts_() const override;  // "latch" (bool)

private:
    void checkLeads_(const wLeadList& leads, const zo::string& where) const;

    wLeadList leads_;
};

class wBlockWireToPort : public wSimulationBlockDisc {
public:
    wBlockWireToPort(const wBlockWireToPortDescriptor* descriptor, wSimulationSystem* system);
    wBlockWireToPort(const wBlockWireToPort&) = delete;
    wBlockWireToPort& operator=(const wBlockWireToPort&) = delete;

    wInputPortBase* getInputPort(std::string_view name) override;
    wOutputPortBase* getOutputPort(std::string_view name) override;
    double step(double) override { return -1.0; }
    int getBlockStateDataSize() const override { return 0; }

private:
    // Any value, true or false: send every lead's current wire value out of its port.
    void onLatch_(const bool& value);

    const wBlockWireToPortDescriptor* d_;  // not owned
    wInputPortImpl<bool, wBlockWireToPort> latchPort_;
    wOutputPortArray outputs_;  // one per lead, in list order
};
