// In-memory bit stream, packed LSB first.
#include "vandrel/platform/MailStream.h"

#include <algorithm>
#include <cstring>
#include <utility>

namespace Mail {

BitStream::BitStream(zo::vector<std::uint8_t> bytes)
    : bytes_(std::move(bytes)), bitCount_(bytes_.size() * 8), writing_(false) {}

void BitStream::rewind() {
    writing_ = false;
    position_ = 0;
    overrun_ = false;
}

void BitStream::transferBits(void* data, unsigned bits) {
    if (bits == 0) return;
    auto* memory = static_cast<std::uint8_t*>(data);
    if (writing_) {
        bytes_.resize((bitCount_ + bits + 7) / 8, 0);
        // Whole bytes go straight across while the stream is at a byte boundary.
        unsigned done = 0;
        if (bitCount_ % 8 == 0 && bits >= 8) {
            const unsigned whole = bits / 8;
            if (whole > 0) std::memcpy(bytes_.data() + bitCount_ / 8, memory, whole);
            done = whole * 8;
        }
        for (unsigned i = done; i < bits; ++i) {
            const std::size_t at = bitCount_ + i;
            const unsigned bit = (memory[i / 8] >> (i % 8)) & 1u;
            bytes_[at / 8] = static_cast<std::uint8_t>(bytes_[at / 8] | (bit << (at % 8)));
        }
        bitCount_ += bits;
        return;
    }
    // Reading: bits past the end read as zero and mark the overrun.
    unsigned done = 0;
    if (position_ % 8 == 0 && bits >= 8) {
        const std::size_t available = bitCount_ > position_ ? (bitCount_ - position_) / 8 : 0;
        const std::size_t whole = std::min<std::size_t>(bits / 8, available);
        if (whole > 0) std::memcpy(memory, bytes_.data() + position_ / 8, whole);
        done = static_cast<unsigned>(whole * 8);
    }
    for (unsigned i = done; i < bits; ++i) {
        const std::size_t at = position_ + i;
        unsigned bit = 0;
        if (at < bitCount_)
            bit = (bytes_[at / 8] >> (at % 8)) & 1u;
        else
            overrun_ = true;
        const auto mask = static_cast<std::uint8_t>(1u << (i % 8));
        memory[i / 8] = static_cast<std::uint8_t>(bit ? (memory[i / 8] | mask) : (memory[i / 8] & ~mask));
    }
    position_ += bits;
}

}  // namespace Mail
