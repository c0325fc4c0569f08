// Mail::BitStream: LSB-first packing, round trips of mixed fields and overrun.
#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>

#include "vandrel/platform/MailStream.h"

namespace {

TEST(MailBitStream, PacksLeastSignificantBitFirst) {
    Mail::BitStream stream;
    EXPECT_TRUE(stream.isWriting());
    std::uint8_t one = 1;
    std::uint8_t byte = 0xAB;
    std::uint16_t twelve = 0x0FED;  // only the low 12 bits travel
    stream.transferBits(&one, 1);
    stream.transferBits(&byte, 8);
    stream.transferBits(&twelve, 12);
    EXPECT_EQ(stream.bitCount(), 21u);
    ASSERT_EQ(stream.bytes().size(), 3u);
    // bit 0: 1; bits 1..8: 0xAB; bits 9..20: 0xFED.
    const std::uint32_t expected = 1u | (0xABu << 1) | (0xFEDu << 9);
    EXPECT_EQ(stream.bytes()[0], expected & 0xFF);
    EXPECT_EQ(stream.bytes()[1], (expected >> 8) & 0xFF);
    EXPECT_EQ(stream.bytes()[2], (expected >> 16) & 0xFF);
}

TEST(MailBitStream, MixedFieldsRoundTrip) {
    Mail::BitStream stream;
    // A bool, an int and a double: 1 + 32 + 64 = 97 bits, then the same again unaligned.
    bool flag = true;
    std::int32_t number = -123456789;
    double value = -2.5e-7;
    std::uint64_t pattern = 0x8123456789ABCDEFull;
    for (int round = 0; round < 2; ++round) {
        stream.transferBits(&flag, 1);
        stream.transferBits(&number, 32);
        stream.transferBits(&value, 64);
    }
    stream.transferBits(&pattern, 64);
    EXPECT_EQ(stream.bitCount(), 97u * 2 + 64);
    EXPECT_EQ(stream.bytes().size(), (97u * 2 + 64 + 7) / 8);

    stream.rewind();
    EXPECT_FALSE(stream.isWriting());
    for (int round = 0; round < 2; ++round) {
        bool flagBack = false;
        std::int32_t numberBack = 0;
        double valueBack = 0;
        stream.transferBits(&flagBack, 1);
        stream.transferBits(&numberBack, 32);
        stream.transferBits(&valueBack, 64);
        EXPECT_TRUE(flagBack);
        EXPECT_EQ(numberBack, number);
        EXPECT_EQ(std::memcmp(&valueBack, &value, sizeof value), 0);
    }
    std::uint64_t patternBack = 0;
    stream.transferBits(&patternBack, 64);
    EXPECT_EQ(patternBack, pattern);
    EXPECT_EQ(stream.position(), stream.bitCount());
    EXPECT_FALSE(stream.overrun());

    // Reading on past the end gives zero bits and flags the overrun.
    std::uint8_t extra = 0xFF;
    stream.transferBits(&extra, 3);
    EXPECT_EQ(extra, 0xF8);  // only the three requested bits change
    EXPECT_TRUE(stream.overrun());
}

TEST(MailBitStream, ReadingGivenBytesAndPartialOverrun) {
    Mail::BitStream stream(zo::vector<std::uint8_t>{0x34, 0x12});
    EXPECT_FALSE(stream.isWriting());
    EXPECT_EQ(stream.bitCount(), 16u);
    std::uint8_t nibble = 0xA0;
    stream.transferBits(&nibble, 4);
    EXPECT_EQ(nibble, 0xA4);
    std::uint32_t word = 0xFFFFFFFF;
    stream.transferBits(&word, 32);  // 12 bits are there, 20 are not
    EXPECT_EQ(word, 0x123u);
    EXPECT_TRUE(stream.overrun());
    stream.rewind();
    EXPECT_FALSE(stream.overrun());
    std::uint16_t all = 0;
    stream.transferBits(&all, 16);
    EXPECT_EQ(all, 0x1234);
    EXPECT_FALSE(stream.overrun());
}

}  // namespace
