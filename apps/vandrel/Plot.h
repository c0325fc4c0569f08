#pragma once
// Output files beside the CSV table: plots drawn by gnuplot and oscilloscope recordings.
#include <string>

class wSimulationSystem;

namespace host {

// Draws every column of a CSV table (first column: time) against time into `plotFile`
// (.svg gives SVG, anything else PNG). False when gnuplot is missing or fails.
bool drawPlot(const std::string& csvFile, int columns, const std::string& plotFile, const std::string& title);

// Writes each oscilloscope block's recording to dir/<block name>.csv (nothing when
// `dir` is empty). Creates the directory when needed.
void writeScopeRecordings(const wSimulationSystem& system, const std::string& dir);

}  // namespace host
