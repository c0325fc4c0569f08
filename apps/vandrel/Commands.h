#pragma once
// The commands of the `vandrel` host. Each returns the process exit status; library
// errors propagate as exceptions (main reports them and exits with 1).
#include <memory>
#include <string>
#include <vector>

class wSimulationSystemScheme;

namespace host {

struct RunOptions {
    std::string scheme;
    std::string overrides;           // Lua file defining the global table `overrides`
    double until = 10.0;             // end time (s)
    double every = 0.0;              // output sampling period (s); 0: one row per call
    std::vector<std::string> sets;   // NAME=VALUE constants for scheme inputs
    std::string inputs;              // CSV time series of scheme inputs
    std::string out;                 // CSV output file; empty: stdout
    std::string stateIn, stateOut;   // discrete state files
    std::string plot;                // plot drawn with gnuplot (.png, .svg, .pdf)
    std::string scopeDir;            // directory for oscilloscope recordings
    bool quiet = false;              // no progress bar
    int precision = 0;               // significant digits of numbers; 0: shortest exact form
    bool initialValues = true;       // start continuous states at their initial values
};

int runCommand(const RunOptions& options);
// Loads a scheme for running with the `overrides` table of the given Lua file (if any).
std::unique_ptr<wSimulationSystemScheme> loadSchemeForRun(const std::string& file, const std::string& overrides);
int checkCommand(const std::string& scheme, const std::string& overrides);
// Sets the library's limits on run-time allocations from --max-block-mib and
// --max-scheme-mib (0 keeps a default). Throws UsageError for a value that is not a
// finite positive number of MiB.
void applyResourceLimits(double maxBlockMib, double maxSchemeMib);
int blocksCommand(bool verbose);
// Rewrites a scheme in canonical form. Refuses (exit 1, nothing written) when the rewrite
// would lose content: a connection it cannot make, an entry the scheme model does not
// know, comments; `force` writes anyway. The file is replaced only once fully written.
int fmtCommand(const std::string& scheme, const std::string& out, bool check, bool force);
int dumpCommand(const std::string& scheme, const std::string& overrides);
// Writes the scheme as Graphviz dot text to standard output, or to `out`: the text for
// .dot and .gv, drawn by Graphviz for .svg, .png and .pdf.
int graphCommand(const std::string& scheme, const std::string& out);

// Exit statuses.
inline constexpr int kExitOk = 0;
inline constexpr int kExitError = 1;  // load or simulation error
inline constexpr int kExitUsage = 2;  // bad command line

// A command-line mistake found after parsing (bad --set value, unknown input name...).
struct UsageError {
    std::string message;
};

}  // namespace host
