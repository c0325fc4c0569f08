#pragma once
// Oscilloscope: a discrete probe that records its input wires every "dt" seconds, so a
// host can read back how signals evolved during a run.
//
// Design:
// - The inputs are a user-defined lead list kept by the descriptor and saved under the
//   block's key "inputs" as an array of { name = ..., type = ... } after its parameters
//   (default: one double input "input1"). Wires of type int, bool, double, vector,
//   quaternion and object id can be recorded; object pointers cannot.
// - Parameters: "dt" (double, sampling period in s, default 0.01; must be positive when
//   the block is made) and "capacity" (int, number of samples kept, default 10000, >= 1;
//   the samples may take at most 256 MiB).
// - A sample is one row of doubles: the scheme time, then every input flattened in lead
//   order (a vector as x, y, z; a quaternion as x, y, z, w; a bool as 0 or 1; integers
//   converted exactly). The rows live in a ring buffer allocated when the block is made,
//   so recording allocates nothing. When the buffer is full the oldest row is overwritten
//   and counted as dropped: the block keeps the most recent `capacity` samples.
// - Hosts find the runtime block through the system (by descriptor name) and read it with
//   columnNames(), sampleCount(), sample(i) / forEach (oldest first), dropped(), clear().
// - A system reset clears the recording. Nothing is registered as state, but the size
//   answers 0 so that schemes holding an oscilloscope stay saveable; the recording is
//   not part of a saved state.
#include <cstdint>
#include <memory>
#include <string_view>

#include "vandrel/core/BlockParameter.h"
#include "vandrel/core/LeadTypes.h"
#include "vandrel/core/SimulationBlock.h"
#include "vandrel/core/SimulationBlockDescriptor.h"

class wBlockOscilloscopeDescriptor
    : public wDescriptorImpl<wBlockOscilloscopeDescriptor, wSimulationBlockDiscDescriptor> {
public:
    static const zo::string& getBlockClassNameS();  // "wBlockOscilloscopeDescriptor"
    static const zo::string& getBlockTypeNameS();   // "Oscilloscope"

    wBlockOscilloscopeDescriptor();

    // Throws "Oscilloscope <name>: \"dt\" must be positive", for a capacity below 1
    // "Oscilloscope <name>: \"capacity\" must be at least 1", and for more samples than fit
    // in 256 MiB "Oscilloscope <name>: \"capacity\" of <n> samples of <columns> columns
    // needs more than 256 MiB".
    wSimulationBlockDisc* create(Lua::Loader* loader, wSimulationSystem* system) const override;
    wParameterList getParametersList() override;  // "dt", "capacity"
    // The base entry, then "inputs"; reading refuses inputs that cannot be recorded, and
    // a load for running refuses a "dt" or "capacity" that create would refuse.
    void serialize(wBlockSerializer& s) override;
    // The ring buffer: capacity x (1 + recorded columns) doubles.
    std::uint64_t getRuntimeAllocationSize() const override;

    const wLeadList& getInputs() const { return inputs_; }
    // Replaces the inputs; throws for an unrecordable type or a repeated name.
    void setInputs(const wLeadList& inputs);

    wBlockParameterProxy<double> dt{0.01};     // sampling period (s)
    wBlockParameterProxy<int> capacity{10000};  // samples kept

protected:
    const wLeadList& getInputWires_() const override { return inputs_; }

private:
    void checkInputs_(const wLeadList& inputs) const;
    void checkParameters_() const;

    wLeadList inputs_;  // the recorded wires
};

class wBlockOscilloscope : public wSimulationBlockDisc {
public:
    wBlockOscilloscope(const wBlockOscilloscopeDescriptor* descriptor, wSimulationSystem* system);

    // Records one sample at t; returns "dt".
    double step(double t) override;
    // Clears the recording.
    void reset() override { clear(); }
    int getBlockStateDataSize() const override { return 0; }
    // The samples held, oldest first, and the dropped count.
    void saveSnapshot(wSnapshotWriter& out) const override;
    void restoreSnapshot(wSnapshotReader& in) override;

    // Column names: "time", then per input its name, or name + ".x", ".y", ".z" (and ".w"
    // for a quaternion).
    const zo::vector<zo::string>& columnNames() const { return columns_; }
    // Doubles per sample: the number of columns.
    int width() const { return width_; }
    // Samples held (at most the capacity).
    int sampleCount() const { return count_; }
    // Sample i, 0 being the oldest held: width() doubles, time first. i < sampleCount().
    const double* sample(int i) const;
    // Calls f(const double* row) for every sample held, oldest first.
    template <class F>
    void forEach(F&& f) const {
        for (int i = 0; i < count_; ++i) f(sample(i));
    }
    // Samples overwritten because the buffer was full, since the last clear.
    std::int64_t dropped() const { return dropped_; }
    // Forgets every sample and the dropped count.
    void clear();

private:
    const wBlockOscilloscopeDescriptor* d_;  // not owned
    zo::vector<zo::string> columns_;         // column names
    int width_ = 0;                          // doubles per sample
    int capacity_ = 0;                       // samples the buffer holds
    zo::vector<double> rows_;                // capacity_ * width_ doubles, a ring of samples
    int first_ = 0;                          // row of the oldest sample
    int count_ = 0;                          // samples held
    std::int64_t dropped_ = 0;               // samples overwritten since the last clear
};
