#pragma once
// Output files beside the CSV table: plots drawn by gnuplot and oscilloscope recordings.
#include <string>
#include <string_view>

class wSimulationSystem;

namespace host {

// Draws every column of a CSV table (first column: time) against time into `plotFile`
// (.svg gives SVG, anything else PNG). False when gnuplot is missing or fails.
bool drawPlot(const std::string& csvFile, int columns, const std::string& plotFile, const std::string& title);

// Writes each oscilloscope block's recording to dir/<file name>.csv (nothing when `dir` is
// empty), the file name made from the block name by scopeFileName. Creates the directory
// when needed; refuses to write through a symbolic link.
void writeScopeRecordings(const wSimulationSystem& system, const std::string& dir);

// A file name stem for a block name that cannot leave the directory or surprise a shell:
// letters, digits, '_', '-', and (not first) '.' and ' ' stay; every other byte, path
// separators and control characters included, becomes %XX; an empty name is "%unnamed".
// At most 200 bytes.
std::string scopeFileName(std::string_view blockName);

}  // namespace host
