#pragma once
// Vector and rotation types carried by the "vector" and "quaternion" leads.
//
// Both are trivially copyable and packed (24 and 32 bytes), because wire slots hold
// their raw bytes. Rotation3 stores x, y, z, w with the scalar part w last.
//
// Angle convention (right-handed, angles in radians, active rotations):
//   yaw about Z, pitch about Y, roll about X, composed as R = Rz(yaw) * Ry(pitch) * Rx(roll),
//   so a vector is first rolled, then pitched, then yawed (the aerospace Z-Y-X sequence).
//   getYawPitchRoll returns (yaw, pitch, roll) with pitch in [-pi/2, pi/2].
//   setEulerAngles(0, (ax, ay, az)) turns about X by ax, then Y by ay, then Z by az, which is
//   the same rotation as setYawPitchRoll(az, ay, ax). Order 0 is the only order defined.
#include <cmath>
#include <type_traits>

namespace Math {

template <int N, class T>
struct Vector;

template <class T>
struct Vector<3, T> {
    T x = 0, y = 0, z = 0;

    constexpr Vector() = default;
    constexpr Vector(T x_, T y_, T z_) : x(x_), y(y_), z(z_) {}

    constexpr T& operator[](int i) { return i == 0 ? x : (i == 1 ? y : z); }
    constexpr const T& operator[](int i) const { return i == 0 ? x : (i == 1 ? y : z); }

    constexpr Vector operator+(const Vector& o) const { return {x + o.x, y + o.y, z + o.z}; }
    constexpr Vector operator-(const Vector& o) const { return {x - o.x, y - o.y, z - o.z}; }
    constexpr Vector operator-() const { return {-x, -y, -z}; }
    constexpr Vector operator*(T s) const { return {x * s, y * s, z * s}; }
    constexpr Vector operator/(T s) const { return {x / s, y / s, z / s}; }
    constexpr Vector& operator+=(const Vector& o) { x += o.x; y += o.y; z += o.z; return *this; }
    constexpr Vector& operator-=(const Vector& o) { x -= o.x; y -= o.y; z -= o.z; return *this; }
    constexpr Vector& operator*=(T s) { x *= s; y *= s; z *= s; return *this; }
    constexpr bool operator==(const Vector& o) const { return x == o.x && y == o.y && z == o.z; }
    constexpr bool operator!=(const Vector& o) const { return !(*this == o); }

    constexpr T dot(const Vector& o) const { return x * o.x + y * o.y + z * o.z; }
    constexpr Vector cross(const Vector& o) const {
        return {y * o.z - z * o.y, z * o.x - x * o.z, x * o.y - y * o.x};
    }
    T norm() const { return std::sqrt(dot(*this)); }
};

template <class T>
constexpr Vector<3, T> operator*(T s, const Vector<3, T>& v) { return v * s; }

template <class T>
struct Rotation3 {
    T x = 0, y = 0, z = 0, w = 1;  // identity by default

    constexpr Rotation3() = default;
    constexpr Rotation3(T x_, T y_, T z_, T w_) : x(x_), y(y_), z(z_), w(w_) {}

    static constexpr Rotation3 identity() { return {}; }

    // Rotation by `angle` radians about a unit axis.
    static Rotation3 fromAxisAngle(const Vector<3, T>& axis, T angle) {
        const T s = std::sin(angle / 2);
        return {axis.x * s, axis.y * s, axis.z * s, std::cos(angle / 2)};
    }

    constexpr bool operator==(const Rotation3& o) const {
        return x == o.x && y == o.y && z == o.z && w == o.w;
    }

    // Hamilton product: (a * b) applies b first, then a.
    constexpr Rotation3 operator*(const Rotation3& b) const {
        return {w * b.x + x * b.w + y * b.z - z * b.y,
                w * b.y - x * b.z + y * b.w + z * b.x,
                w * b.z + x * b.y - y * b.x + z * b.w,
                w * b.w - x * b.x - y * b.y - z * b.z};
    }
    constexpr Rotation3 conjugate() const { return {-x, -y, -z, w}; }
    T norm() const { return std::sqrt(x * x + y * y + z * z + w * w); }
    Rotation3 normalized() const {
        const T n = norm();
        return {x / n, y / n, z / n, w / n};
    }

    // Applies the rotation to v (v' = q v q*), for a unit quaternion.
    constexpr Vector<3, T> rotate(const Vector<3, T>& v) const {
        const Vector<3, T> q{x, y, z};
        const Vector<3, T> c = q.cross(v);
        return v + c * (2 * w) + q.cross(c) * T(2);
    }

    // Sets the rotation Rz(yaw) * Ry(pitch) * Rx(roll).
    void setYawPitchRoll(T yaw, T pitch, T roll) {
        const T cy = std::cos(yaw / 2), sy = std::sin(yaw / 2);
        const T cp = std::cos(pitch / 2), sp = std::sin(pitch / 2);
        const T cr = std::cos(roll / 2), sr = std::sin(roll / 2);
        w = cr * cp * cy + sr * sp * sy;
        x = sr * cp * cy - cr * sp * sy;
        y = cr * sp * cy + sr * cp * sy;
        z = cr * cp * sy - sr * sp * cy;
    }
    void setYawPitchRoll(const Vector<3, T>& ypr) { setYawPitchRoll(ypr.x, ypr.y, ypr.z); }

    // (yaw, pitch, roll) of a unit quaternion, yaw and roll in (-pi, pi], pitch in
    // [-pi/2, pi/2]; at pitch = +-pi/2 the roll is reported as 0.
    //
    // With c, s the cosine and sine of half the pitch, (w + y, z - x) is (c + s) times the
    // unit vector at half of yaw - roll, and (w - y, z + x) is (c - s) times the one at half
    // of yaw + roll. Both lengths are accurate at every pitch, so the angles stay accurate
    // right up to gimbal lock, where only one of the two combinations is defined.
    Vector<3, T> getYawPitchRoll() const {
        const T plus = std::hypot(z - x, w + y);   // c + s
        const T minus = std::hypot(z + x, w - y);  // c - s
        const T pitch = 2 * std::atan2(plus - minus, plus + minus);
        const T difference = 2 * std::atan2(z - x, w + y);  // yaw - roll
        const T sum = 2 * std::atan2(z + x, w - y);         // yaw + roll
        const T lock = T(1e-14) * (plus + minus);
        if (minus <= lock) return {wrapAngle(difference), pitch, T(0)};  // pitch = +pi/2
        if (plus <= lock) return {wrapAngle(sum), pitch, T(0)};          // pitch = -pi/2
        return {wrapAngle((sum + difference) / 2), pitch, wrapAngle((sum - difference) / 2)};
    }

    // Euler angles (about X, then Y, then Z) in rotation order 0, the only order defined.
    void setEulerAngles(int order, const Vector<3, T>& angles) {
        (void)order;
        setYawPitchRoll(angles.z, angles.y, angles.x);
    }

private:
    // An angle in (-2pi, 2pi] brought into (-pi, pi].
    static T wrapAngle(T angle) {
        const T pi = T(3.14159265358979323846);
        if (angle > pi) return angle - 2 * pi;
        if (angle <= -pi) return angle + 2 * pi;
        return angle;
    }
};

}  // namespace Math

using Vec3d = Math::Vector<3, double>;
using Rot3d = Math::Rotation3<double>;

static_assert(sizeof(Vec3d) == 24 && std::is_trivially_copyable_v<Vec3d>);
static_assert(sizeof(Rot3d) == 32 && std::is_trivially_copyable_v<Rot3d>);
