#pragma once
// Output files beside the CSV table: plots drawn by gnuplot and oscilloscope recordings.
#include <string>
#include <vector>
#include <string_view>

class wSimulationSystem;
class wSimulationSystemScheme;

namespace host {

// One plotted column of the table: its header, whether it is drawn as steps, and whether
// it is a boolean (drawn in a strip of its own when other values share the plot).
struct PlotColumn {
    std::string name;
    bool steps = false;
    bool logic = false;
};

// The gnuplot terminal for a plot file, chosen by its extension (.png, .svg, .pdf);
// throws UsageError for any other, so that no file holds a format its name denies.
std::string plotTerminal(const std::string& plotFile);
// Refuses, before a run, a plot file whose format is unknown (UsageError) or that cannot be
// written (std::runtime_error). Leaves no file behind that was not there.
void checkPlotFile(const std::string& plotFile);

// Whether each scheme output wire (in lead order) holds its value between events: booleans,
// integers and ids always; other wires when no continuous block drives them, through
// stateless blocks, so that only discrete blocks, constants and scheme inputs do.
std::vector<bool> heldOutputs(const wSimulationSystemScheme& scheme);

// Draws `columns` of a CSV table (first column: time in seconds, then one per entry of
// `columns`) against time into `plotFile`, held signals as steps. Throws with gnuplot's
// message when it is missing or fails; its warnings are not shown.
void drawPlot(const std::string& csvFile, const std::vector<PlotColumn>& columns, const std::string& plotFile,
              const std::string& title);

// Writes each oscilloscope block's recording to dir/<file name>.csv (nothing when `dir` is
// empty), the file name made from the block name by scopeFileName. Creates the directory
// when needed; refuses to write through a symbolic link. Numbers as formatNumber writes them.
void writeScopeRecordings(const wSimulationSystem& system, const std::string& dir, int precision = 0);

// A file name stem for a block name that cannot leave the directory or surprise a shell:
// letters, digits, '_', '-', and (not first) '.' and ' ' stay; every other byte, path
// separators and control characters included, becomes %XX; an empty name is "%unnamed".
// At most 200 bytes.
std::string scopeFileName(std::string_view blockName);

}  // namespace host
