#pragma once
// Text forms of lead values for the command-line host: CSV columns of scheme outputs,
// "NAME=VALUE" settings of scheme inputs, and CSV time series of inputs.
#include <cstdio>
#include <string>
#include <string_view>
#include <vector>

#include "vandrel/core/LeadTypes.h"

class wSimulationSystem;
class wSimulationSystemScheme;

namespace host {

// One wire of the scheme's I/O block with its place in the data area.
struct WireSlot {
    std::string name;
    eLeadType type;
    int offset;  // byte offset in the data area
};

// Scheme outputs (input wires of the I/O block) and inputs (its output wires), in lead order.
std::vector<WireSlot> schemeOutputs(const wSimulationSystemScheme& scheme);
std::vector<WireSlot> schemeInputs(const wSimulationSystemScheme& scheme);

// Column names of a wire: "u"; vectors "v.x", "v.y", "v.z"; quaternions add ".w".
// Object-pointer wires have no columns.
std::vector<std::string> columnNames(const WireSlot& w);
// A double as table text: with `precision` significant digits (1 to 17), or in the
// shortest form that reads back to the same value when `precision` is 0.
std::string formatNumber(double v, int precision);
// Appends ",value" per column (bools 0/1, integers exact, doubles by formatNumber).
void appendValues(std::string& line, const unsigned char* data, const WireSlot& w, int precision = 0);

// The extension of a file name in lower case, with its dot (".svg"); empty when none.
std::string lowerExtension(const std::string& file);

// Parses a value for a wire of type `type` ("3", "2.5", "true", "1,2,3", "(1, 2, 3)",
// "x,y,z,w") and writes it into the data area. Returns an error text, empty on success.
std::string writeValue(unsigned char* data, const WireSlot& w, std::string_view text);

// A CSV time series of scheme inputs: a header "time,<column>..." whose columns name
// input wires or their components ("v.x"), then rows of numbers with increasing, finite
// times; integer, object-id and boolean columns take whole numbers in their range.
// Values hold from their row's time until the next row (zero-order hold).
class InputSeries {
public:
    // Throws std::runtime_error with "<file>:<line>: <reason>" on malformed input.
    InputSeries(const std::string& fileName, const std::vector<WireSlot>& inputs);

    // Writes the latest row at or before t into the data area; true if a new row applied.
    bool apply(double t, unsigned char* data);
    // Time of the first row after the last applied one, or a negative value when none.
    double nextChangeAfter(double t) const;

private:
    struct Column {
        WireSlot wire;
        int component;  // -1 for the whole value, else the double index within the slot
    };
    // Why `v` cannot go into the column, or empty.
    static std::string checkCell(const Column& col, double v);

    std::vector<Column> columns_;
    std::vector<double> times_;
    std::vector<std::vector<double>> rows_;
    std::size_t next_ = 0;  // first row not yet applied
};

}  // namespace host
