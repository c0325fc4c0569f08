// The bit stream that carries wire values through the serializer blocks.
#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>

#include "vandrel/platform/MailStream.h"

namespace {

TEST(MailBitStream, PacksLeastSignificantBitFirstAlignedOrNot) {
    Mail::BitStream s;
    EXPECT_TRUE(s.isWriting());
    std::uint16_t twelve = 0xFFED;  // only the low 12 bits travel
    std::uint8_t one = 1, byte = 0xAB;
    s.transferBits(&twelve, 12);  // at a byte boundary
    s.transferBits(&one, 1);
    s.transferBits(&byte, 8);  // across one
    EXPECT_EQ(s.bitCount(), 21u);
    EXPECT_EQ(s.bytes(), (zo::vector<std::uint8_t>{0xED, 0x7F, 0x15}));  // 0xFED | 1 << 12 | 0xAB << 13

    // Mixed fields round trip: 1 + 32 + 64 bits, twice, then 64 more, reading what was written.
    Mail::BitStream m;
    bool flag = true;
    std::int32_t number = -123456789;
    double value = -2.5e-7;
    std::uint64_t pattern = 0x8123456789ABCDEFull;
    for (int round = 0; round < 2; ++round) {
        m.transferBits(&flag, 1);
        m.transferBits(&number, 32);
        m.transferBits(&value, 64);
    }
    m.transferBits(&pattern, 64);
    EXPECT_EQ(m.bytes().size(), (97u * 2 + 64 + 7) / 8);
    m.rewind();
    EXPECT_FALSE(m.isWriting());
    for (int round = 0; round < 2; ++round) {
        bool f = false;
        std::int32_t n = 0;
        double v = 0;
        m.transferBits(&f, 1);
        m.transferBits(&n, 32);
        m.transferBits(&v, 64);
        EXPECT_TRUE(f);
        EXPECT_EQ(n, number);
        EXPECT_EQ(std::memcmp(&v, &value, sizeof v), 0);
    }
    std::uint64_t back = 0;
    m.transferBits(&back, 64);
    EXPECT_EQ(back, pattern);
    EXPECT_EQ(m.position(), m.bitCount());
    EXPECT_FALSE(m.overrun());
}

TEST(MailBitStream, ReadingGivenBytesAndOverrun) {
    Mail::BitStream s(zo::vector<std::uint8_t>{0x34, 0x12});
    EXPECT_FALSE(s.isWriting());
    EXPECT_EQ(s.bitCount(), 16u);
    std::uint8_t nibble = 0xA0;
    s.transferBits(&nibble, 4);
    EXPECT_EQ(nibble, 0xA4);  // only the requested bits change
    std::uint32_t word = 0xFFFFFFFF;
    s.transferBits(&word, 32);  // 12 bits are there, 20 are not: zeros
    EXPECT_EQ(word, 0x123u);
    EXPECT_TRUE(s.overrun());
    s.rewind();
    EXPECT_FALSE(s.overrun());
    std::uint16_t all = 0;
    s.transferBits(&all, 16);
    EXPECT_EQ(all, 0x1234);
    EXPECT_FALSE(s.overrun());

    // Whole-byte reads from a byte boundary take only the bytes that are there; the rest
    // reads as zero and marks the overrun.
    struct Case {
        unsigned skip, bits;  // bits read first (to move the position), bits then read
        std::uint32_t expected;
        bool overrun;
    };
    const Case cases[] = {{0, 16, 0x1234, false}, {0, 32, 0x1234, true}, {8, 24, 0x12, true}, {16, 8, 0, true},
                          {4, 8, 0x23, false}, {4, 16, 0x123, true}};
    for (const Case& c : cases) {
        s.rewind();
        std::uint32_t skipped = 0, got = 0xFFFFFFFF;
        s.transferBits(&skipped, c.skip);
        s.transferBits(&got, c.bits);
        if (c.bits < 32) got &= (1u << c.bits) - 1;  // bits beyond the read are not the stream's
        EXPECT_EQ(got, c.expected) << c.skip << "+" << c.bits;
        EXPECT_EQ(s.overrun(), c.overrun) << c.skip << "+" << c.bits;
        EXPECT_EQ(s.position(), c.skip + c.bits);
    }
}

}  // namespace
