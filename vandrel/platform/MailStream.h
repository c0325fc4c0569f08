#pragma once
// Objects that travel through "object ptr" ports derive from wWireObjectPtrBase.
// Mail::Stream is the bit stream that the wire serializer blocks write into and read from.
#include <cstddef>
#include <cstdint>

#include "vandrel/platform/String.h"

class wWireObjectPtrBase {
public:
    virtual ~wWireObjectPtrBase() = default;
};

namespace Mail {

// A bit stream with one operation: move `bits` bits between the stream and memory at
// `data`. The same call writes when the stream is being written and reads when it is
// being read, so a serializer and a deserializer run identical code.
class Stream : public wWireObjectPtrBase {
public:
    ~Stream() override = default;
    virtual void transferBits(void* data, unsigned bits) = 0;
};

// In-memory bit stream. Bits are packed LSB first: bit i of the memory (bit i % 8 of
// byte i / 8) goes to the next free bit of the stream, and streams fill byte by byte from
// bit 0. Reading past the end yields zero bits and sets overrun().
class BitStream : public Stream {
public:
    // A stream in writing mode, empty.
    BitStream() = default;
    // A stream in reading mode over the given bytes.
    explicit BitStream(zo::vector<std::uint8_t> bytes);

    void transferBits(void* data, unsigned bits) override;

    bool isWriting() const { return writing_; }
    // Switches to reading from the first bit of what was written.
    void rewind();
    std::size_t bitCount() const { return bitCount_; }     // bits written (or available)
    std::size_t position() const { return position_; }     // bits read so far
    bool overrun() const { return overrun_; }
    const zo::vector<std::uint8_t>& bytes() const { return bytes_; }

private:
    zo::vector<std::uint8_t> bytes_;
    std::size_t bitCount_ = 0;
    std::size_t position_ = 0;
    bool writing_ = true;
    bool overrun_ = false;
};

}  // namespace Mail
