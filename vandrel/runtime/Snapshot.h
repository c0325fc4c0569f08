#pragma once
// Byte streams of whole-state snapshots (wSimulationSystem::saveSnapshot).
//
// Values are written as their bytes in native order (little-endian on the supported
// targets), without alignment. A section is a byte count followed by that many bytes, so
// that a reader can check that each part of the system consumed exactly its own share.
// The reader checks every read against the bytes it holds and throws a
// wSimulationException naming what it was reading; counts are checked against the
// bytes left before anything is allocated for them.
#include <cstdint>
#include <cstring>
#include <string_view>
#include <type_traits>

#include "vandrel/platform/String.h"

class wSnapshotWriter {
public:
    explicit wSnapshotWriter(zo::vector<unsigned char>& out) : out_(out) {}

    template <class T>
    void put(const T& v) {
        static_assert(std::is_trivially_copyable_v<T> && !std::is_same_v<T, bool>, "write flags with putFlag");
        putBytes(&v, sizeof(T));
    }
    void putFlag(bool v) { out_.push_back(v ? 1 : 0); }
    void putBytes(const void* p, std::size_t n);
    // A 32-bit length, then the characters.
    void putString(std::string_view s);

    // Starts a section: returns a mark to pass to endSection once its bytes are written.
    std::size_t beginSection();
    void endSection(std::size_t mark);

private:
    zo::vector<unsigned char>& out_;
};

class wSnapshotReader {
public:
    // Reads `size` bytes at `data`; `what` names the snapshot in messages.
    wSnapshotReader(const unsigned char* data, std::size_t size, zo::string what);

    template <class T>
    T get(const char* field) {
        static_assert(std::is_trivially_copyable_v<T> && !std::is_same_v<T, bool>, "read flags with getFlag");
        T v;
        std::memcpy(&v, take_(sizeof(T), field), sizeof(T));
        return v;
    }
    // A double that must be finite.
    double getFinite(const char* field);
    // One byte; any value other than 0 reads as true.
    bool getFlag(const char* field) { return *take_(1, field) != 0; }
    // `n` bytes, returned in place.
    const unsigned char* getBytes(std::size_t n, const char* field) { return take_(n, field); }
    // A 32-bit element count whose elements take `elementSize` bytes each: refused when
    // the bytes left cannot hold them, so that no count decides an allocation.
    std::size_t getCount(std::size_t elementSize, const char* field);
    zo::string getString(const char* field);
    // A section written by beginSection/endSection, as a reader of its own.
    wSnapshotReader section(const char* field);

    std::size_t remaining() const { return size_ - pos_; }
    // Throws unless everything was read: a part that leaves bytes over read the wrong thing.
    void expectEnd(const char* part) const;
    [[noreturn]] void fail(const zo::string& message) const;

private:
    const unsigned char* take_(std::size_t n, const char* field);

    const unsigned char* data_;
    std::size_t size_;
    std::size_t pos_ = 0;
    zo::string what_;
};
