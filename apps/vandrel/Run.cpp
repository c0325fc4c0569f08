// `vandrel run`: drives a simulation system as a well-behaved host does.
//
// The host calls simulate(T) and calls again exactly at T + the returned delay (the
// library integrates continuous state ahead to that time, so calling earlier would
// integrate twice). After a call returns, the outputs describe the system at the time it
// has been advanced to (T + delay, or T when nothing is pending): that is the time of each
// row. With --every, rows are sampled on a fixed grid from the latest state at or before
// each sample time (zero-order hold). Inputs from --inputs take effect at the first call
// at or after their row's time. When simulate returns -1.0 and no input changes are
// left, the outputs cannot change any more and the host stops calling.
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
constexpr char kStateMagic[8] = {'V', 'N', 'D', 'R', 'S', 'T', 'A', '1'};

// Discrete state file: magic, time (s), queue time (s), blob size (uint32), blob.
struct StateFile {
    double time = 0;
    double queueTime = 0;
    zo::vector<unsigned char> blob;
};

void writeState(const std::string& file, const StateFile& s) {
    std::ofstream out(file, std::ios::binary);
    const auto size = static_cast<std::uint32_t>(s.blob.size());
    out.write(kStateMagic, sizeof kStateMagic);
    out.write(reinterpret_cast<const char*>(&s.time), sizeof s.time);
    out.write(reinterpret_cast<const char*>(&s.queueTime), sizeof s.queueTime);
    out.write(reinterpret_cast<const char*>(&size), sizeof size);
    out.write(reinterpret_cast<const char*>(s.blob.data()), static_cast<std::streamsize>(size));
    if (!out) throw std::runtime_error("Cannot write state file: " + file);
}

// Reads a state file for a scheme whose blob has `expected` bytes. Every field is checked
// before it is used: the blob size against the file's real length and the scheme's size
// (so a corrupt or hostile size never decides an allocation), both times for finiteness.
StateFile readState(const std::string& file, std::size_t expected) {
    std::ifstream in(file, std::ios::binary | std::ios::ate);
    if (!in) throw std::runtime_error("Cannot open state file: " + file);
    const std::streamoff length = in.tellg();
    in.seekg(0);
    char magic[sizeof kStateMagic] = {};
    StateFile s;
    std::uint32_t size = 0;
    in.read(magic, sizeof magic);
    in.read(reinterpret_cast<char*>(&s.time), sizeof s.time);
    in.read(reinterpret_cast<char*>(&s.queueTime), sizeof s.queueTime);
    in.read(reinterpret_cast<char*>(&size), sizeof size);
    if (!in || std::memcmp(magic, kStateMagic, sizeof magic) != 0)
        throw std::runtime_error("Not a vandrel state file: " + file);
    const std::streamoff header = sizeof magic + sizeof s.time + sizeof s.queueTime + sizeof size;
    if (static_cast<std::streamoff>(size) > length - header)
        throw std::runtime_error("Truncated state file: " + file + " (its header announces " + std::to_string(size) +
                                 " bytes of state, the file holds " + std::to_string(length - header) + ")");
    if (size != expected)
        throw std::runtime_error("State file " + file + " holds " + std::to_string(size) +
                                 " bytes of state, the scheme's state takes " + std::to_string(expected) +
                                 " (was it saved from another scheme?)");
    if (!std::isfinite(s.time) || !std::isfinite(s.queueTime))
        throw std::runtime_error("Corrupt state file: " + file + " (time " + doubleToString(s.time) +
                                 " s, queue time " + doubleToString(s.queueTime) +
                                 " s; both must be finite)");
    s.blob.resize(size);
    in.read(reinterpret_cast<char*>(s.blob.data()), static_cast<std::streamsize>(size));
    if (!in) throw std::runtime_error("Truncated state file: " + file);
    return s;
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

    // Restored state: the run continues from the saved time.
    double t = 0.0;
    if (!o.stateIn.empty()) {
        const int expected = system->getSchemeStateDataSize();
        if (expected < 0)
            throw std::runtime_error("Scheme " + o.scheme + " has a discrete block without saveable state: " +
                                     "it cannot restore " + o.stateIn);
        const StateFile s = readState(o.stateIn, static_cast<std::size_t>(expected));
        system->setSchemeStateData(&s.blob);
        system->setSchemeQueueTime(s.queueTime);
        t = s.time;
        // The run cannot go back in time: an end before the saved time would print nothing.
        if (o.until < t - kTimeEps)
            throw UsageError{"--until " + doubleToString(o.until) + " is before the time " + o.stateIn +
                             " was saved at (" + doubleToString(t) + " s); give a later end time"};
    }
    if (series) series->apply(t, data);
    // A fresh run starts its integrators at their initial values; a restored one goes on.
    if (o.initialValues && o.stateIn.empty()) system->applyInitialValues();
    // A sampling grid finer than anyone can read would write rows for ever.
    constexpr double kMaxSamples = 1e8;
    if (o.every > 0 && (o.until - t) / o.every > kMaxSamples)
        throw UsageError{"--every " + doubleToString(o.every) + " would write more than 100 million rows up to --until " +
                         doubleToString(o.until)};

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

    // The run: snapshots at the times the system reaches, rows per snapshot or per sample.
    std::string last;            // values of the latest snapshot (",v1,v2...")
    double lastTime = -1;        // its time (s); < 0: none yet
    long long sample = 0;        // index of the next sample time
    const double start = t;
    auto sampleTime = [&](long long k) { return start + static_cast<double>(k) * o.every; };
    auto emitSamplesBefore = [&](double limit) {
        for (; sampleTime(sample) < limit - kTimeEps && sampleTime(sample) <= o.until + kTimeEps; ++sample)
            if (lastTime >= 0) table.line(formatNumber(sampleTime(sample), o.precision) + last);
    };

    Progress progress(!o.quiet && ::isatty(STDERR_FILENO), start, o.until);
    bool settled = false;  // nothing pending and no input changes left
    double reached = t;
    for (;;) {
        double r = system->simulate(t);
        // Due never (a block period of math.huge): as settled as -1.
        if (r == std::numeric_limits<double>::infinity()) r = -1.0;
        // A delay is -1 (settled), or finite and not negative: anything else would be
        // taken for progress (NaN) or for settling (other negatives).
        if (r != -1.0 && !(r >= 0 && std::isfinite(r)))
            throw std::runtime_error("The simulation returned an invalid delay (" + doubleToString(r) +
                                     " s) at t = " + doubleToString(t) + " s");
        reached = r >= 0 ? t + r : t;
        std::string values;
        for (const auto& w : outputs) appendValues(values, data, w, o.precision);
        if (o.every > 0) {
            emitSamplesBefore(reached);
        } else if (reached <= o.until + kTimeEps) {
            table.line(formatNumber(reached, o.precision) + values);
        }
        last = std::move(values);
        lastTime = reached;
        progress.update(reached);
        if (reached >= o.until - kTimeEps) break;
        if (r < 0) {
            const double next = series ? series->nextChangeAfter(t) : -1.0;
            if (next < 0 || next > o.until + kTimeEps) {
                settled = true;
                break;
            }
            t = next;
        } else if (r <= 0) {
            throw std::runtime_error("The simulation does not advance at t = " + doubleToString(t) +
                                     " s (simulate returned 0; is the solver step H positive?)");
        } else {
            t = reached;
        }
        if (series) series->apply(t, data);
    }
    // Samples after the last snapshot: its values hold when the system has settled, or up
    // to the time it reached.
    if (o.every > 0) {
        if (lastTime >= 0 && sampleTime(sample) <= lastTime + kTimeEps) emitSamplesBefore(lastTime + 2 * kTimeEps);
        if (settled) emitSamplesBefore(std::numeric_limits<double>::infinity());
    }
    out.flush();

    if (!o.stateOut.empty()) {
        StateFile s;
        s.time = reached;
        s.queueTime = system->getSchemeQueueTime();
        if (!system->getSchemeStateData(&s.blob))
            throw std::runtime_error("Scheme " + o.scheme + " has a discrete block without saveable state");
        writeState(o.stateOut, s);
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
