#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <deque>
#include <vector>

#include "core/CoreTestBlocks.h"

namespace {

// A discrete block with one member of each kind the tests register.
class StateBlock : public wSimulationBlockDisc {
public:
    explicit StateBlock(const wSimulationBlockDiscDescriptor* desc) : wSimulationBlockDisc(desc, nullptr) {}
    double step(double) override { return -1.0; }

    double d = 0;
    wStateFlag b = false;
    std::deque<double> queue;
    zo::string text;
    zo::string empty;
    zo::vector<std::int32_t> ints;
    std::deque<Vec3d> vectors;

    void registerPlain() {
        regVar(d);
        regVar(b);
    }
    void registerContainers() {
        regDeque(queue);
        regStr(&text);
        regStr(&empty);
        regVec(ints);
        regDeque(vectors);
    }
    using wSimulationBlockDisc::masElemPtrByType;
    using wSimulationBlockDisc::masSizeByType;
};

// Appends the bytes of `v` to a blob under construction.
template <class T>
void put(std::vector<unsigned char>& blob, const T& v) {
    const auto* p = reinterpret_cast<const unsigned char*>(&v);
    blob.insert(blob.end(), p, p + sizeof(T));
}

std::vector<unsigned char> blobOf(const wSimulationBlockDisc& block) {
    std::vector<unsigned char> blob(static_cast<std::size_t>(block.getBlockStateDataSize()));
    block.getBlockStateData(blob.data());
    return blob;
}

TEST(BlockState, NothingRegistered) {
    coretest::DiscDescriptor desc;
    StateBlock block(&desc);
    EXPECT_FALSE(block.blockHasStateData());
    EXPECT_EQ(block.getBlockStateDataSize(), -1);
    unsigned char sentinel[4] = {7, 7, 7, 7};
    block.getBlockStateData(sentinel);
    EXPECT_EQ(sentinel[0], 7);
    EXPECT_EQ(block.setBlockStateDataByPtr(sentinel), 0);
}

TEST(BlockState, PlainVariablesArePacked) {
    coretest::DiscDescriptor desc;
    StateBlock source(&desc), target(&desc);
    source.registerPlain();
    target.registerPlain();
    source.d = -1.25;
    source.b = true;

    const std::vector<unsigned char> blob = blobOf(source);
    std::vector<unsigned char> expected;
    put(expected, -1.25);
    expected.push_back(1);
    EXPECT_EQ(blob, expected);

    EXPECT_EQ(target.setBlockStateDataByPtr(blob.data()), 9);
    EXPECT_EQ(target.d, -1.25);
    EXPECT_TRUE(target.b);
}

TEST(BlockState, ContainersRoundTrip) {
    coretest::DiscDescriptor desc;
    StateBlock source(&desc);
    source.registerContainers();
    // A queue whose front has moved far along its storage: 598, 599, 600 remain.
    for (int i = 0; i < 600; ++i) source.queue.push_back(i);
    while (source.queue.size() > 2) source.queue.pop_front();
    source.queue.push_back(600);
    source.text = "abc";
    source.ints = {5, -6};
    source.vectors = {Vec3d{1, 2, 3}};

    std::vector<unsigned char> expected;
    put(expected, std::int32_t{3});
    for (double v : {598.0, 599.0, 600.0}) put(expected, v);
    put(expected, std::int32_t{3});
    expected.insert(expected.end(), {'a', 'b', 'c'});
    put(expected, std::int32_t{0});
    put(expected, std::int32_t{2});
    put(expected, std::int32_t{5});
    put(expected, std::int32_t{-6});
    put(expected, std::int32_t{1});
    put(expected, Vec3d{1, 2, 3});
    EXPECT_EQ(blobOf(source), expected);

    // Restoring into bigger containers leaves exactly what the blob holds.
    StateBlock target(&desc);
    target.registerContainers();
    target.queue.assign(10, 1.0);
    target.text = "a much longer text";
    target.empty = "not empty";
    target.ints.assign(7, 9);
    target.vectors.assign(4, Vec3d{});
    EXPECT_EQ(target.setBlockStateDataByPtr(expected.data()), static_cast<int>(expected.size()));
    EXPECT_EQ(target.queue, source.queue);
    EXPECT_EQ(target.text, "abc");
    EXPECT_EQ(target.empty, "");
    EXPECT_EQ(target.ints, source.ints);
    EXPECT_EQ(target.vectors, source.vectors);

    EXPECT_EQ(StateBlock::masSizeByType(STATE_DEQUE_ROT3D), 32);
    EXPECT_EQ(StateBlock::masSizeByType(13), -1);
    EXPECT_EQ(StateBlock::masElemPtrByType(&source.text, STATE_STRING, 0), nullptr);
    EXPECT_EQ(StateBlock::masElemPtrByType(&source.ints, STATE_VEC_INT, 1),
              reinterpret_cast<unsigned char*>(&source.ints[1]));
}

TEST(BlockState, RestoredFlagsAreNormalisedAndPlainBytesStay) {
    // Any byte may arrive in a blob; a flag must come out as a valid yes/no.
    coretest::DiscDescriptor desc;
    for (const unsigned char byte : {0x00, 0x01, 0x02, 0x80, 0xFF}) {
        StateBlock target(&desc);
        target.registerPlain();
        std::vector<unsigned char> blob;
        put(blob, 2.5);
        blob.push_back(byte);
        EXPECT_EQ(target.setBlockStateDataByPtr(blob.data()), 9);
        EXPECT_EQ(static_cast<bool>(target.b), byte != 0) << int(byte);
        // Saved again, the flag is 0 or 1, whatever byte came in.
        EXPECT_EQ(blobOf(target).back(), byte != 0 ? 1 : 0) << int(byte);
    }
}

TEST(BlockState, MeasuringABlobNeverReadsPastItsEnd) {
    coretest::DiscDescriptor desc;
    StateBlock block(&desc);
    block.registerContainers();
    // queue: 2 doubles; text: "ab"; empty: ""; ints: 1; vectors: none.
    std::vector<unsigned char> blob;
    put(blob, std::int32_t{2});
    put(blob, 1.0);
    put(blob, 2.0);
    put(blob, std::int32_t{2});
    blob.insert(blob.end(), {'a', 'b'});
    put(blob, std::int32_t{0});
    put(blob, std::int32_t{1});
    put(blob, std::int32_t{7});
    put(blob, std::int32_t{0});
    const int full = static_cast<int>(blob.size());

    struct Case {
        const char* what;
        std::size_t available;
        int expected;
    };
    const Case cases[] = {
        {"the whole blob", blob.size(), full},
        {"with bytes to spare", blob.size() + 5, full},
        {"one byte short", blob.size() - 1, -1},
        {"cut inside a count", 2, -1},
        {"cut inside the queue's elements", 12, -1},
        {"nothing", 0, -1},
    };
    for (const Case& c : cases) {
        // Copy exactly the available bytes so that the sanitizers see any overread.
        std::vector<unsigned char> cut(blob.begin(), blob.begin() + static_cast<long>(std::min(c.available, blob.size())));
        cut.resize(c.available);
        EXPECT_EQ(block.measureStateData(cut.data(), cut.size()), c.expected) << c.what;
    }

    // A negative or huge count is refused without allocating anything for it.
    for (const std::int32_t count : {-1, 0x7FFFFFFF}) {
        std::vector<unsigned char> bad;
        put(bad, count);
        put(bad, 1.0);
        EXPECT_EQ(block.measureStateData(bad.data(), bad.size()), -1) << count;
    }
    StateBlock empty(&desc);
    EXPECT_EQ(empty.measureStateData(nullptr, 0), 0);
}

class TestDiffBlock : public wSimulationBlockDiff {
public:
    using wSimulationBlockDiff::wSimulationBlockDiff;
    void calculate_dy(double, unsigned char*, unsigned char*) override {}
};

TEST(BlockState, ResetStateLoadsInitialValues) {
    // Wires u, X.initial, Y.initial -> X (double), Y (Vec3d), at unaligned offsets.
    coretest::DiffADescriptor desc;
    const int in[] = {0, 9, 17};
    const int out[] = {43, 52};
    desc.setInputWireOffsets(in);
    desc.setOutputWireOffsets(out);
    unsigned char data[80];
    for (int i = 0; i < 80; ++i) data[i] = static_cast<unsigned char>(i);
    unsigned char before[80];
    std::memcpy(before, data, sizeof data);

    TestDiffBlock block(&desc);
    block.resetState(data);
    for (int i = 0; i < 80; ++i) {
        int expected = before[i];
        if (i >= 43 && i < 51) expected = before[i - 43 + 9];   // X <- X.initial, 8 bytes
        if (i >= 52 && i < 76) expected = before[i - 52 + 17];  // Y <- Y.initial, 24 bytes
        EXPECT_EQ(data[i], expected) << i;
    }
}

}  // namespace
