// `vandrel run`: drives a simulation system as a well-behaved host does.
//
// The host calls simulate(T) and calls again exactly at T + the returned delay (the
// library integrates continuous state ahead to that time, so calling earlier would
// integrate twice). After a call returns, the outputs describe the system at the time it
// has been advanced to (T + delay, or T when nothing is pending): that is the time of each
// row. With --every, the host passes each sample time as the latest time it wants control
// back, so the system integrates exactly up to it, and a row is written at every sample
// time from the start. Inputs from --inputs take effect at
// their row's time (with --every; otherwise at the first call at or after it). When
// simulate returns -1.0 and no input changes are left, the outputs cannot change any
// more and the host stops calling. --state-out and --state-in save and restore the
// system's whole state (continuous state, wires, blocks, schedule and solver).
#include <unistd.h>

#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <limits>
#include <memory>
#include <optional>
#include <utility>

#include "Commands.h"
#include "Csv.h"
#include "Files.h"
#include "HostIO.h"
#include "Plot.h"
#include "vandrel/vandrel.h"

namespace host {

namespace {

constexpr double kTimeEps = 1e-9;  // s; times closer than this are the same instant
constexpr char kStateMagic[8] = {'V', 'N', 'D', 'R', 'S', 'T', 'A', '2'};
constexpr char kOldStateMagic[8] = {'V', 'N', 'D', 'R', 'S', 'T', 'A', '1'};

// State file: magic, the time the run ended at (s), then the system's whole-state
// snapshot, which checks itself when restored.
void writeState(const std::string& file, double time, const zo::vector<unsigned char>& snapshot) {
    std::ofstream out(file, std::ios::binary);
    out.write(kStateMagic, sizeof kStateMagic);
    out.write(reinterpret_cast<const char*>(&time), sizeof time);
    out.write(reinterpret_cast<const char*>(snapshot.data()), static_cast<std::streamsize>(snapshot.size()));
    if (!out) throw std::runtime_error("Cannot write state file: " + file);
}

// Restores a state file into the system; returns the time to go on from. The snapshot
// takes the rest of the file, whose real length bounds every allocation.
double readState(const std::string& file, wSimulationSystem& system) {
    std::ifstream in(file, std::ios::binary | std::ios::ate);
    if (!in) throw std::runtime_error("Cannot open state file: " + file);
    const std::streamoff length = in.tellg();
    in.seekg(0);
    char magic[sizeof kStateMagic] = {};
    double time = 0;
    in.read(magic, sizeof magic);
    if (in && std::memcmp(magic, kOldStateMagic, sizeof magic) == 0)
        throw std::runtime_error("State file " + file + " was written by an older vandrel, which saved only the "
                                 "discrete blocks' state; run the scheme again to write a new one");
    in.read(reinterpret_cast<char*>(&time), sizeof time);
    if (!in || std::memcmp(magic, kStateMagic, sizeof magic) != 0)
        throw std::runtime_error("Not a vandrel state file: " + file);
    if (!std::isfinite(time))
        throw std::runtime_error("Corrupt state file: " + file + " (time " + doubleToString(time) +
                                 " s; it must be finite)");
    zo::vector<unsigned char> snapshot(static_cast<std::size_t>(length - in.tellg()));
    in.read(reinterpret_cast<char*>(snapshot.data()), static_cast<std::streamsize>(snapshot.size()));
    if (!in) throw std::runtime_error("Truncated state file: " + file);
    try {
        system.restoreSnapshot(snapshot);
    } catch (const std::exception& e) {
        throw std::runtime_error("State file " + file + " cannot be restored: " + e.what());
    }
    return time;
}

// A temporary file removed however the run ends (an unlinked file may still be open).
struct ScratchFile {
    explicit ScratchFile(std::filesystem::path f) : file(std::move(f)) {}
    ScratchFile(const ScratchFile&) = delete;
    ScratchFile& operator=(const ScratchFile&) = delete;
    ~ScratchFile() {
        std::error_code ignored;
        if (!file.empty()) std::filesystem::remove(file, ignored);
    }
    std::filesystem::path file;
};

// Rows of the output table, to one or two streams (the plot needs a file).
class TableWriter {
public:
    TableWriter(std::ostream& main, std::ostream* copy) : main_(main), copy_(copy) {}
    void line(const std::string& text) {
        main_ << text << '\n';
        if (copy_) *copy_ << text << '\n';
    }

private:
    std::ostream& main_;
    std::ostream* copy_;
};

// A progress bar on stderr, redrawn at most ten times a second.
class Progress {
public:
    Progress(bool enabled, double start, double until) : enabled_(enabled), start_(start), until_(until) {}
    void update(double t) {
        if (!enabled_) return;
        const auto now = std::chrono::steady_clock::now();
        if (now - last_ < std::chrono::milliseconds(100)) return;
        last_ = now;
        const double span = until_ - start_;
        const double f = span > 0 ? std::clamp((t - start_) / span, 0.0, 1.0) : 1.0;
        const int filled = static_cast<int>(f * 30);
        std::fprintf(stderr, "\r[%-30.*s] %3d%%  t = %g s", filled, "##############################",
                     static_cast<int>(f * 100), t);
        std::fflush(stderr);
        drawn_ = true;
    }
    ~Progress() {
        if (drawn_) std::fprintf(stderr, "\r%60s\r", "");
    }

private:
    bool enabled_;
    double start_, until_;
    std::chrono::steady_clock::time_point last_{};
    bool drawn_ = false;
};

// The delay simulate returned, checked: -1 (settled), or finite and not negative.
double checkedDelay(double r, double t) {
    // Due never (a block period of math.huge): as settled as -1.
    if (r == std::numeric_limits<double>::infinity()) r = -1.0;
    // Anything else would be taken for progress (NaN) or for settling (other negatives).
    if (r != -1.0 && !(r >= 0 && std::isfinite(r)))
        throw std::runtime_error("The simulation returned an invalid delay (" + doubleToString(r) + " s) at t = " +
                                 doubleToString(t) + " s");
    return r;
}

std::string rowValues(const unsigned char* data, const std::vector<WireSlot>& outputs, int precision) {
    std::string values;
    for (const auto& w : outputs) appendValues(values, data, w, precision);
    return values;
}

// One row per call, at the time the system reached; returns the time the run ended at.
double runPerCall(wSimulationSystem& system, const RunOptions& o, std::optional<InputSeries>& series,
                  const std::vector<WireSlot>& outputs, double t, TableWriter& table, Progress& progress) {
    unsigned char* data = system.getDataPtr();
    for (;;) {
        const double r = checkedDelay(system.simulate(t), t);
        const double reached = r >= 0 ? t + r : t;
        if (reached <= o.until + kTimeEps) table.line(formatNumber(reached, o.precision) + rowValues(data, outputs, o.precision));
        progress.update(reached);
        if (reached >= o.until - kTimeEps) return reached;
        if (r < 0) {
            // Settled: only a change of the inputs can move it.
            const double next = series ? series->nextChangeAfter(t) : -1.0;
            if (next < 0 || next > o.until + kTimeEps) return reached;
            t = next;
        } else if (r <= 0) {
            throw std::runtime_error("The simulation does not advance at t = " + doubleToString(t) +
                                     " s (simulate returned 0; is the solver step H positive?)");
        } else {
            t = reached;
        }
        if (series) series->apply(t, data);
    }
}

// A row at the start, then at each multiple k * every after it up to --until, the time
// column computed as such rather than accumulated. The system is asked to hand control back at each
// sample time (and at each change of the inputs), so it integrates exactly up to it.
// A row shows the system as it reached its time, before the events due then, as the
// rows of a run without --every do; the first shows it as it starts. Returns the time
// of the last row.
double runSampled(wSimulationSystem& system, const RunOptions& o, std::optional<InputSeries>& series,
                  const std::vector<WireSlot>& outputs, double start, TableWriter& table, Progress& progress) {
    unsigned char* data = system.getDataPtr();
    // The grid is anchored at 0, not at the start: a run restored from a state file then
    // asks for the same times, and so integrates the same steps, as one never interrupted.
    auto sampleTime = [&](long long k) { return static_cast<double>(k) * o.every; };
    // Sample times print as the multiples they are (3 x 0.1 as 0.3, not 0.30000000000000004).
    const int timeDigits = o.precision > 0 ? o.precision : 15;
    auto row = [&](double time) {
        table.line(formatNumber(time, timeDigits) + rowValues(data, outputs, o.precision));
        progress.update(time);
    };
    system.updateOutputs();
    row(start);
    double t = start;
    auto k = static_cast<long long>(std::ceil(start / o.every - 1e-9));
    if (sampleTime(k) <= start + kTimeEps) ++k;
    int stalled = 0;  // calls in a row that did not move time
    for (double target = sampleTime(k); target <= o.until + kTimeEps;) {
        // Control back at the sample time, or earlier where the inputs change.
        double horizon = target;
        const double change = series ? series->nextChangeAfter(t) : -1.0;
        if (change >= 0 && change < horizon) horizon = change;
        const double r = checkedDelay(system.simulate(t, horizon), t);
        // Settled: nothing moves until the horizon. Otherwise the time reached, or the
        // horizon itself when it was reached.
        const double reached = r < 0 ? horizon : t + r;
        const double next = reached >= horizon - kTimeEps ? horizon : reached;
        if (next > t) {
            stalled = 0;
        } else if (++stalled > 1000) {
            throw std::runtime_error("The simulation does not advance at t = " + doubleToString(t) +
                                     " s (simulate returned 0; is the solver step H positive?)");
        }
        t = next;
        if (t == target) {
            row(target);
            target = sampleTime(++k);
        }
        if (series) series->apply(t, data);
    }
    return t;
}

}  // namespace

int runCommand(const RunOptions& o) {
    // NaN passes a test for "not negative"; test for what is wanted instead.
    for (const auto& [name, value] : {std::pair{"--until", o.until}, std::pair{"--every", o.every}})
        if (!(value >= 0 && std::isfinite(value)))
            throw UsageError{std::string(name) + " must be a finite number of seconds, not negative (got " +
                             doubleToString(value) + ")"};
    if (!o.plot.empty()) checkPlotFile(o.plot);  // refuse a plot that cannot be drawn before running
    auto scheme = loadSchemeForRun(o.scheme, o.overrides);
    std::unique_ptr<wSimulationSystem> system(scheme->instantiate());
    unsigned char* data = system->getDataPtr();
    const auto inputs = schemeInputs(*scheme);
    const auto outputs = schemeOutputs(*scheme);

    // Restored state: the run continues from the saved time. First, so that the inputs
    // given for this run replace the saved ones.
    double t = 0.0;
    if (!o.stateIn.empty()) {
        t = readState(o.stateIn, *system);
        // The run cannot go back in time: an end before the saved time would print nothing.
        if (o.until < t - kTimeEps)
            throw UsageError{"--until " + doubleToString(o.until) + " is before the time " + o.stateIn +
                             " was saved at (" + doubleToString(t) + " s); give a later end time"};
    }
    // Constant inputs.
    for (const std::string& s : o.sets) {
        const auto eq = s.find('=');
        if (eq == std::string::npos) throw UsageError{"--set expects NAME=VALUE, got \"" + s + "\""};
        const std::string name = s.substr(0, eq);
        const WireSlot* slot = nullptr;
        for (const auto& w : inputs)
            if (w.name == name) slot = &w;
        if (!slot) throw UsageError{"--set: the scheme has no input wire \"" + name + "\""};
        const std::string error = writeValue(data, *slot, s.substr(eq + 1));
        if (!error.empty()) throw UsageError{"--set: " + error};
    }
    std::optional<InputSeries> series;
    if (!o.inputs.empty()) {
        try {
            series.emplace(o.inputs, inputs);
        } catch (const std::runtime_error& e) {
            throw UsageError{e.what()};
        }
    }

    if (series) series->apply(t, data);
    // A fresh run starts its integrators at their initial values; a restored one goes on.
    if (o.initialValues && o.stateIn.empty()) system->applyInitialValues();
    // A sampling grid finer than anyone can read would write rows for ever.
    constexpr double kMaxSamples = 1e8;
    if (o.every > 0 && (o.until - t) / o.every > kMaxSamples)
        throw UsageError{"--every " + doubleToString(o.every) + " would write more than 100 million rows up to --until " +
                         doubleToString(o.until)};
    // Sample times are counted in multiples of --every from 0, which must stay exact.
    if (o.every > 0 && o.until / o.every > 1e15)
        throw UsageError{"--every " + doubleToString(o.every) + " is too fine for times up to --until " +
                         doubleToString(o.until) + " (more than 1e15 multiples)"};

    // Output table.
    std::ofstream outFile;
    if (!o.out.empty()) {
        outFile.open(o.out);
        if (!outFile) throw std::runtime_error("Cannot write " + o.out);
    }
    std::ostream& out = o.out.empty() ? std::cout : outFile;
    std::filesystem::path plotData;
    std::ofstream plotCopy;
    if (!o.plot.empty() && o.out.empty()) {
        plotData = makeScratchFile(scratchDirectory(), "vandrel-plot-", ".csv");
        plotCopy.open(plotData);
    }
    const ScratchFile scratch{plotData};
    TableWriter table(out, plotCopy.is_open() ? &plotCopy : nullptr);
    std::string header = "time";
    for (const auto& w : outputs)
        for (const auto& c : columnNames(w)) header += "," + csvField(c);
    table.line(header);

    // The run: with --every, a row at the start and at each multiple of it after; otherwise
    // one row per call, at the time the system reached.
    Progress progress(!o.quiet && ::isatty(STDERR_FILENO), t, o.until);
    const double reached = o.every > 0 ? runSampled(*system, o, series, outputs, t, table, progress)
                                       : runPerCall(*system, o, series, outputs, t, table, progress);
    out.flush();

    if (!o.stateOut.empty()) {
        zo::vector<unsigned char> snapshot;
        system->saveSnapshot(&snapshot);
        writeState(o.stateOut, reached, snapshot);
    }
    writeScopeRecordings(*system, o.scopeDir, o.precision);
    if (!o.plot.empty()) {
        plotCopy.close();
        std::vector<PlotColumn> plotted;
        const auto held = heldOutputs(*scheme);
        for (std::size_t i = 0; i < outputs.size(); ++i)
            for (const auto& c : columnNames(outputs[i])) plotted.push_back({c, held[i], outputs[i].type == LEAD_BOOL});
        drawPlot(o.out.empty() ? plotData.string() : o.out, plotted, o.plot,
                 std::filesystem::path(o.scheme).stem().string());
    }
    return kExitOk;
}

}  // namespace host
