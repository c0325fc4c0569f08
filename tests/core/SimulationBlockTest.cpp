#include <gtest/gtest.h>

#include <cstring>
#include <deque>

#include "core/CoreTestBlocks.h"

namespace {

// A discrete block with one member of each kind the tests register.
class StateBlock : public wSimulationBlockDisc {
public:
    explicit StateBlock(const wSimulationBlockDiscDescriptor* desc) : wSimulationBlockDisc(desc, nullptr) {}
    double step(double) override { return -1.0; }

    double d = 0;
    bool b = false;
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
