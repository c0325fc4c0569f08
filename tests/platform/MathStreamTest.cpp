// The value types behind wires: the bit stream of the serializer blocks and the
// quaternion angle convention.
#include <gtest/gtest.h>

#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <random>
#include <type_traits>

#include "vandrel/platform/MailStream.h"
#include "vandrel/platform/Math.h"

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
}

const Vec3d kX(1, 0, 0), kY(0, 1, 0), kZ(0, 0, 1);

void expectNear(const Vec3d& a, const Vec3d& b, double tolerance = 1e-12) {
    EXPECT_NEAR(a.x, b.x, tolerance);
    EXPECT_NEAR(a.y, b.y, tolerance);
    EXPECT_NEAR(a.z, b.z, tolerance);
}

// Two unit quaternions are the same rotation when they move the basis alike.
void expectSameRotation(const Rot3d& a, const Rot3d& b) {
    for (const Vec3d& v : {kX, kY, kZ}) expectNear(a.rotate(v), b.rotate(v));
}

Rot3d ypr(double yaw, double pitch, double roll) {
    Rot3d q;
    q.setYawPitchRoll(yaw, pitch, roll);
    return q;
}

TEST(PlatformMath, AngleConventionAndLayout) {
    static_assert(sizeof(Vec3d) == 24 && sizeof(Rot3d) == 32 && std::is_trivially_copyable_v<Rot3d>);
    static_assert(offsetof(Rot3d, w) == 24);  // scalar part last
    EXPECT_EQ(Rot3d::identity(), Rot3d(0, 0, 0, 1));
    EXPECT_EQ(Vec3d(1, 2, 3).cross(Vec3d(4, 5, 6)), Vec3d(-3, 6, -3));
    const double q = M_PI / 2;
    // Yaw turns about Z, pitch about Y, roll about X; roll first, then pitch, then yaw.
    expectNear(ypr(q, 0, 0).rotate(kX), kY);
    expectNear(ypr(0, q, 0).rotate(kZ), kX);
    expectNear(ypr(0, 0, q).rotate(kY), kZ);
    expectNear(ypr(q, q, q).rotate(kX), -kZ);
    for (double yaw : {-2.9, -0.3, 0.0, 1.5, 3.1})
        for (double pitch : {-1.4, 0.0, 0.9})
            for (double roll : {-1.2, 0.0, 0.7, 3.1}) {
                const Rot3d r = ypr(yaw, pitch, roll);
                expectSameRotation(r, Rot3d::fromAxisAngle(kZ, yaw) * Rot3d::fromAxisAngle(kY, pitch) *
                                          Rot3d::fromAxisAngle(kX, roll));
                // v' = q (v, 0) q*
                const Vec3d v(0.3, -1.7, 2.2);
                const Rot3d sandwich = r * Rot3d(v.x, v.y, v.z, 0) * r.conjugate();
                expectNear(r.rotate(v), Vec3d(sandwich.x, sandwich.y, sandwich.z));
                Rot3d euler;  // order 0: about X by ax, then Y by ay, then Z by az
                euler.setEulerAngles(0, Vec3d(roll, pitch, yaw));
                EXPECT_EQ(euler, r);
                const Vec3d back = r.getYawPitchRoll();
                EXPECT_NEAR(back.x, yaw, 1e-9);
                EXPECT_NEAR(back.y, pitch, 1e-9);
                EXPECT_NEAR(back.z, roll, 1e-9);
            }
}

TEST(PlatformMath, AnglesOfAnyQuaternionRebuildIt) {
    // Either sign, near and at gimbal lock: angles in range that give the same rotation.
    std::mt19937 random(12345);
    std::uniform_real_distribution<double> component(-1.0, 1.0);
    for (int i = 0; i < 5000; ++i) {
        Rot3d q(component(random), component(random), component(random), component(random));
        if (i % 7 == 0) q.y = 0, q.w = 0;  // pitch at the lock
        if (i % 7 == 1) q = ypr(q.x * 3, M_PI / 2 - std::pow(10.0, -(i % 13)), q.z * 3);
        if (q.norm() < 1e-3) continue;
        q = q.normalized();
        const Vec3d a = q.getYawPitchRoll();
        EXPECT_TRUE(a.x > -M_PI && a.x <= M_PI && a.y >= -M_PI / 2 && a.y <= M_PI / 2 && a.z > -M_PI && a.z <= M_PI);
        expectSameRotation(ypr(a.x, a.y, a.z), q);
    }
    // Exactly at the lock the roll is reported as 0.
    EXPECT_EQ(ypr(0.5, M_PI / 2, 0.25).getYawPitchRoll().z, 0.0);
    EXPECT_NEAR(ypr(0.5, M_PI / 2, 0.25).getYawPitchRoll().x, 0.25, 1e-12);
    EXPECT_NEAR(ypr(0.5, -M_PI / 2, 0.25).getYawPitchRoll().x, 0.75, 1e-12);
}

}  // namespace
