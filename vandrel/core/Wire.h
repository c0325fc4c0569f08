#pragma once
// Reading and writing wire slots. Slots are packed back to back without alignment, so a
// double may start at any byte: every access goes through memcpy, never a pointer cast.
#include <cstring>
#include <type_traits>

template <class T>
inline T readWire(const unsigned char* data, int offset) {
    static_assert(std::is_trivially_copyable_v<T>);
    T value;
    std::memcpy(&value, data + offset, sizeof(T));
    return value;
}

template <class T>
inline void writeWire(unsigned char* data, int offset, const T& value) {
    static_assert(std::is_trivially_copyable_v<T>);
    std::memcpy(data + offset, &value, sizeof(T));
}

// bool slots are one byte; any non-zero byte reads as true (the zeroed area is false).
template <>
inline bool readWire<bool>(const unsigned char* data, int offset) {
    return data[offset] != 0;
}
template <>
inline void writeWire<bool>(unsigned char* data, int offset, const bool& value) {
    data[offset] = value ? 1 : 0;
}
