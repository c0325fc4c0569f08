// Math::Vector and Math::Rotation3: the angle convention and its round trips.
#include <gtest/gtest.h>

#include <cmath>
#include <cstddef>
#include <random>
#include <type_traits>

#include "vandrel/platform/Math.h"

namespace {

const Vec3d kX(1, 0, 0), kY(0, 1, 0), kZ(0, 0, 1);

void expectNear(const Vec3d& a, const Vec3d& b, double tolerance = 1e-12) {
    EXPECT_NEAR(a.x, b.x, tolerance);
    EXPECT_NEAR(a.y, b.y, tolerance);
    EXPECT_NEAR(a.z, b.z, tolerance);
}

// Two unit quaternions are the same rotation when they move the basis alike.
void expectSameRotation(const Rot3d& a, const Rot3d& b, double tolerance) {
    for (const Vec3d& v : {kX, kY, kZ}) expectNear(a.rotate(v), b.rotate(v), tolerance);
}

Rot3d yawPitchRoll(double yaw, double pitch, double roll) {
    Rot3d q;
    q.setYawPitchRoll(yaw, pitch, roll);
    return q;
}

TEST(PlatformMath, LayoutOfWireValues) {
    static_assert(sizeof(Vec3d) == 24 && std::is_trivially_copyable_v<Vec3d>);
    static_assert(sizeof(Rot3d) == 32 && std::is_trivially_copyable_v<Rot3d>);
    static_assert(offsetof(Rot3d, w) == 24);  // scalar part last
    EXPECT_EQ(Rot3d::identity(), Rot3d(0, 0, 0, 1));
    EXPECT_EQ(Vec3d(1, 2, 3).cross(Vec3d(4, 5, 6)), Vec3d(-3, 6, -3));
    EXPECT_EQ(Vec3d(1, 2, 3)[2], 3.0);
}

TEST(PlatformMath, QuarterTurnsAboutEachAxis) {
    const double q = M_PI / 2;
    // Yaw turns about Z: x to y. Pitch about Y: z to x. Roll about X: y to z.
    expectNear(yawPitchRoll(q, 0, 0).rotate(kX), kY);
    expectNear(yawPitchRoll(0, q, 0).rotate(kZ), kX);
    expectNear(yawPitchRoll(0, q, 0).rotate(kX), -kZ);
    expectNear(yawPitchRoll(0, 0, q).rotate(kY), kZ);
    // Roll happens first, then pitch, then yaw: y -roll-> z -pitch-> x -yaw-> y, and
    // x -roll-> x -pitch-> -z -yaw-> -z.
    expectNear(yawPitchRoll(q, q, q).rotate(kY), kY);
    expectNear(yawPitchRoll(q, q, q).rotate(kX), -kZ);
    expectNear(Rot3d::fromAxisAngle(kZ, q).rotate(kX), kY);
}

TEST(PlatformMath, CompositionAndRotateAgreeWithTheHamiltonProduct) {
    const double angles[] = {-2.9, -1.2, -0.3, 0.0, 0.7, 1.5, 3.1};
    const Vec3d v(0.3, -1.7, 2.2);
    for (double yaw : angles)
        for (double pitch : {-1.4, -0.5, 0.0, 0.9, 1.5})
            for (double roll : angles) {
                const Rot3d q = yawPitchRoll(yaw, pitch, roll);
                EXPECT_NEAR(q.norm(), 1.0, 1e-15);
                const Rot3d composed = Rot3d::fromAxisAngle(kZ, yaw) * Rot3d::fromAxisAngle(kY, pitch) *
                                       Rot3d::fromAxisAngle(kX, roll);
                expectSameRotation(q, composed, 1e-12);
                // v' = q (v, 0) q*
                const Rot3d sandwich = q * Rot3d(v.x, v.y, v.z, 0) * q.conjugate();
                expectNear(q.rotate(v), Vec3d(sandwich.x, sandwich.y, sandwich.z));
                // Euler order 0: about X by ax, then Y by ay, then Z by az.
                Rot3d euler;
                euler.setEulerAngles(0, Vec3d(roll, pitch, yaw));
                EXPECT_EQ(euler, q);
                const Vec3d stepwise = Rot3d::fromAxisAngle(kZ, yaw).rotate(
                    Rot3d::fromAxisAngle(kY, pitch).rotate(Rot3d::fromAxisAngle(kX, roll).rotate(v)));
                expectNear(euler.rotate(v), stepwise);
            }
}

TEST(PlatformMath, YawPitchRollRoundTrips) {
    for (double yaw = -3.1; yaw <= 3.1; yaw += 0.31)
        for (double pitch = -1.55; pitch <= 1.55; pitch += 0.155)
            for (double roll = -3.1; roll <= 3.1; roll += 0.31) {
                const Vec3d ypr = yawPitchRoll(yaw, pitch, roll).getYawPitchRoll();
                EXPECT_NEAR(ypr.x, yaw, 1e-9);
                EXPECT_NEAR(ypr.y, pitch, 1e-9);
                EXPECT_NEAR(ypr.z, roll, 1e-9);
            }
    // Near and at gimbal lock the angles are not unique, but the rotation must survive.
    const double nearLock[] = {M_PI / 2, M_PI / 2 - 1e-12, M_PI / 2 - 1e-9, M_PI / 2 - 1e-7,
                               M_PI / 2 - 1e-5, M_PI / 2 - 1e-3};
    for (double pitch : nearLock)
        for (double sign : {1.0, -1.0})
            for (double yaw : {-2.5, -0.4, 0.0, 1.0, 3.0})
                for (double roll : {-3.0, -1.0, 0.0, 0.6, 2.0}) {
                    const Rot3d q = yawPitchRoll(yaw, sign * pitch, roll);
                    const Vec3d ypr = q.getYawPitchRoll();
                    EXPECT_LE(std::abs(ypr.y), M_PI / 2);
                    expectSameRotation(yawPitchRoll(ypr.x, ypr.y, ypr.z), q, 1e-12);
                }
    // Exactly at the lock the roll is reported as 0.
    EXPECT_EQ(yawPitchRoll(0.5, M_PI / 2, 0.25).getYawPitchRoll().z, 0.0);
    EXPECT_NEAR(yawPitchRoll(0.5, M_PI / 2, 0.25).getYawPitchRoll().x, 0.25, 1e-12);
    EXPECT_NEAR(yawPitchRoll(0.5, -M_PI / 2, 0.25).getYawPitchRoll().x, 0.75, 1e-12);
}

TEST(PlatformMath, AnglesOfArbitraryQuaternions) {
    // Any unit quaternion, either sign, gives angles in range that rebuild its rotation.
    std::mt19937 random(12345);
    std::uniform_real_distribution<double> component(-1.0, 1.0);
    for (int i = 0; i < 20000; ++i) {
        Rot3d q(component(random), component(random), component(random), component(random));
        if (i % 7 == 0) q.y = 0, q.w = 0;  // pitch at the lock
        if (q.norm() < 1e-3) continue;
        q = q.normalized();
        const Vec3d ypr = q.getYawPitchRoll();
        EXPECT_TRUE(ypr.x > -M_PI && ypr.x <= M_PI) << ypr.x;
        EXPECT_TRUE(ypr.y >= -M_PI / 2 && ypr.y <= M_PI / 2) << ypr.y;
        EXPECT_TRUE(ypr.z > -M_PI && ypr.z <= M_PI) << ypr.z;
        expectSameRotation(yawPitchRoll(ypr.x, ypr.y, ypr.z), q, 1e-12);
    }
}

}  // namespace
