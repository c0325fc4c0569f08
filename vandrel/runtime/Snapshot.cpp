#include "vandrel/runtime/Snapshot.h"

#include <cmath>
#include <limits>
#include <string>
#include <utility>

#include "vandrel/core/BlockParameter.h"
#include "vandrel/runtime/SimulationException.h"

// ---- Writer

void wSnapshotWriter::putBytes(const void* p, std::size_t n) {
    const auto* bytes = static_cast<const unsigned char*>(p);
    out_.insert(out_.end(), bytes, bytes + n);
}

void wSnapshotWriter::putString(std::string_view s) {
    put(static_cast<std::uint32_t>(s.size()));
    putBytes(s.data(), s.size());
}

std::size_t wSnapshotWriter::beginSection() {
    const std::size_t mark = out_.size();
    put(std::uint32_t{0});
    return mark;
}

void wSnapshotWriter::endSection(std::size_t mark) {
    const std::size_t length = out_.size() - mark - sizeof(std::uint32_t);
    if (length > std::numeric_limits<std::uint32_t>::max())
        throw wSimulationException("Snapshot part too large: " + std::to_string(length) + " bytes");
    const auto n = static_cast<std::uint32_t>(length);
    std::memcpy(out_.data() + mark, &n, sizeof n);
}

// ---- Reader

wSnapshotReader::wSnapshotReader(const unsigned char* data, std::size_t size, zo::string what)
    : data_(data), size_(size), what_(std::move(what)) {}

void wSnapshotReader::fail(const zo::string& message) const { throw wSimulationException(what_ + ": " + message); }

const unsigned char* wSnapshotReader::take_(std::size_t n, const char* field) {
    if (n > size_ - pos_)
        fail("truncated while reading " + zo::string(field) + " (" + std::to_string(n) + " bytes needed, " +
             std::to_string(size_ - pos_) + " left)");
    const unsigned char* p = data_ + pos_;
    pos_ += n;
    return p;
}

double wSnapshotReader::getFinite(const char* field) {
    const double v = get<double>(field);
    if (!std::isfinite(v)) fail(zo::string(field) + " is not a finite number (" + doubleToString(v) + ")");
    return v;
}

std::size_t wSnapshotReader::getCount(std::size_t elementSize, const char* field) {
    const auto n = static_cast<std::size_t>(get<std::uint32_t>(field));
    if (elementSize > 0 && n > remaining() / elementSize)
        fail("truncated: " + zo::string(field) + " announces " + std::to_string(n) + " elements of " + std::to_string(elementSize) +
             " bytes, but only " + std::to_string(remaining()) + " bytes are left");
    return n;
}

zo::string wSnapshotReader::getString(const char* field) {
    const std::size_t n = getCount(1, field);
    const unsigned char* p = take_(n, field);
    return zo::string(reinterpret_cast<const char*>(p), n);
}

wSnapshotReader wSnapshotReader::section(const char* field) {
    const std::size_t n = getCount(1, field);
    const unsigned char* p = take_(n, field);
    return wSnapshotReader(p, n, what_ + " (" + field + ")");
}

void wSnapshotReader::expectEnd(const char* part) const {
    if (pos_ != size_)
        fail(zo::string(part) + " does not fit this scheme: " + std::to_string(size_ - pos_) + " of its " +
             std::to_string(size_) + " bytes left unread");
}
