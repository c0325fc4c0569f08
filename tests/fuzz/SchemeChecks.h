#pragma once
// What the scheme fuzz targets do with a scheme file, whatever made it:
//  - load it for editing, save it, load the saved file and save again: the reload must
//    discard nothing and the two saves must be the same bytes (saved schemes diff cleanly);
//  - load it for running, with the file's own global table "overrides" (if it defines one)
//    as the parameter overrides; when that load succeeds, the saved form must load for
//    running too, to the same layout: saving loses nothing;
//  - instantiate it and simulate a few steps with ordinary and extreme values written to
//    its inputs, save its discrete state, reset, restore and save again: the two blobs
//    must be equal.
// An exception of the library is the expected answer to bad input. A crash, a sanitizer
// report, a leak, a hang or a broken round trip is a bug; the last aborts with a message.
#include <stdlib.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <limits>
#include <memory>
#include <streambuf>
#include <string>
#include <string_view>

#include "vandrel/vandrel.h"

namespace fuzz {

// A scratch directory for this process, removed when it ends normally.
class ScratchDir {
public:
    ScratchDir() {
        const char* base = std::getenv("TMPDIR");
        std::string pattern = std::string(base != nullptr && *base != '\0' ? base : "/tmp") + "/vandrel-fuzz-XXXXXX";
        if (::mkdtemp(pattern.data()) == nullptr) {
            std::perror("mkdtemp");
            std::abort();
        }
        dir_ = pattern;
    }
    ~ScratchDir() {
        std::error_code ignored;
        std::filesystem::remove_all(dir_, ignored);
    }
    ScratchDir(const ScratchDir&) = delete;
    ScratchDir& operator=(const ScratchDir&) = delete;
    std::string file(const char* name) const { return (dir_ / name).string(); }

private:
    std::filesystem::path dir_;
};

// Log lines are formatted (that code runs too) and dropped.
class DiscardBuf : public std::streambuf {
protected:
    int overflow(int c) override { return c; }
    std::streamsize xsputn(const char*, std::streamsize n) override { return n; }
};

// A scratch file that cannot be written is a broken machine, not a finding.
inline void writeFile(const std::string& path, std::string_view bytes) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
    if (!out) {
        std::fprintf(stderr, "cannot write %s\n", path.c_str());
        std::abort();
    }
}

inline std::string readFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

// A broken promise of the library: report it and abort, which libFuzzer records as a crash.
[[noreturn]] inline void fail(const char* what, const std::string& detail = {}) {
    std::fprintf(stderr, "\n*** %s\n%s\n", what, detail.c_str());
    std::abort();
}

// Editing path. Returns true when the file loaded and saved; `saved` is then the saved file.
inline bool editRoundTrip(const std::string& source, const std::string& saved, const std::string& resaved) {
    {
        wSimulationSystemScheme scheme;
        zo::vector<int> discarded;
        try {
            scheme.loadForEdit(source, discarded);
            scheme.save(saved);
        } catch (const Exception&) {
            return false;
        }
    }
    // Our own output: it must load without losses and save to the same bytes.
    wSimulationSystemScheme again;
    zo::vector<int> discarded;
    try {
        again.loadForEdit(saved, discarded);
        again.save(resaved);
    } catch (const Exception& e) {
        fail("a saved scheme does not load for editing again", e.what());
    }
    if (!discarded.empty()) fail("reloading a saved scheme discards connections", readFile(saved));
    const std::string first = readFile(saved);
    const std::string second = readFile(resaved);
    if (first != second) fail("saving a reloaded scheme changes the file", first + "\n--- became ---\n" + second);
    return true;
}

// Values a host may write, ordinary ones and the extremes: scheme inputs take the k-th.
inline constexpr int kIntValues[] = {0, 1, -1, 7, 2147483647, -2147483647 - 1, 3, -100};
inline constexpr double kDoubleValues[] = {0.0,  0.5, -1.0, 1e300, -2.5, std::numeric_limits<double>::infinity(),
                                           3.0, std::numeric_limits<double>::quiet_NaN(), -1e-310, 2147483648.0};
template <class T, std::size_t N>
T pickValue(const T (&values)[N], std::size_t k) {
    return values[k % N];
}

// Writes every scheme input: input i at step s gets value i + s of its type's list.
inline void writeInputs(wSimulationSystem& system, const wSimulationSystemScheme& scheme, int step) {
    std::size_t k = static_cast<std::size_t>(step);
    for (const wLeadDescription& lead : scheme.getIOLeads(false, false)) {
        const int n = pickValue(kIntValues, k);
        const double x = pickValue(kDoubleValues, k);
        const double y = pickValue(kDoubleValues, k + 3);
        switch (lead.type) {
            case LEAD_INT: system.setInput<int>(lead.name, n); break;
            case LEAD_BOOL: system.setInput<bool>(lead.name, k % 3 != 1); break;
            case LEAD_DOUBLE: system.setInput<double>(lead.name, x); break;
            case LEAD_VECTOR: system.setInput<Vec3d>(lead.name, Vec3d(x, y, 1.0)); break;
            case LEAD_QUATERNION: system.setInput<Rot3d>(lead.name, Rot3d(0.0, y, x, 1.0)); break;
            case LEAD_OBJECT_ID: system.setInput<unsigned>(lead.name, static_cast<unsigned>(n)); break;
            default: break;  // object-pointer wires carry nothing
        }
        ++k;
    }
    for (const wLeadDescription& lead : scheme.getIOLeads(false, true)) {
        wInputPortBase* port = system.getInputPort(lead.name);
        const int n = pickValue(kIntValues, k);
        const double x = pickValue(kDoubleValues, k);
        if (auto* p = dynamic_cast<wInputPort<int>*>(port)) p->setValue(n);
        else if (auto* b = dynamic_cast<wInputPort<bool>*>(port)) b->setValue(k % 2 == 0);
        else if (auto* d = dynamic_cast<wInputPort<double>*>(port)) d->setValue(x);
        else if (auto* v = dynamic_cast<wInputPort<Vec3d>*>(port)) v->setValue(Vec3d(1.0, x, 0.0));
        else if (auto* q = dynamic_cast<wInputPort<Rot3d>*>(port)) q->setValue(Rot3d(x, 0.0, 0.0, 1.0));
        else if (auto* u = dynamic_cast<wInputPort<unsigned>*>(port)) u->setValue(static_cast<unsigned>(n));
        ++k;
    }
}

// Reads every scheme output wire, as a host would after each step.
inline void readOutputs(const wSimulationSystem& system, const wSimulationSystemScheme& scheme) {
    volatile double sink = 0;
    for (const wLeadDescription& lead : scheme.getIOLeads(true, false)) {
        switch (lead.type) {
            case LEAD_INT: sink = sink + system.getOutput<int>(lead.name); break;
            case LEAD_BOOL: sink = sink + (system.getOutput<bool>(lead.name) ? 1.0 : 0.0); break;
            case LEAD_DOUBLE: sink = sink + system.getOutput<double>(lead.name); break;
            case LEAD_VECTOR: sink = sink + system.getOutput<Vec3d>(lead.name)[0]; break;
            case LEAD_QUATERNION: sink = sink + system.getOutput<Rot3d>(lead.name).w; break;
            case LEAD_OBJECT_ID: sink = sink + system.getOutput<unsigned>(lead.name); break;
            default: break;
        }
    }
}

// Runs `steps` calls of simulate from time `t`, each at the time the system asked for
// (at most 1 s ahead, so a scheme that asks for nothing still advances). Returns the time.
inline double run(wSimulationSystem& system, const wSimulationSystemScheme& scheme, double t, int steps, int firstStep) {
    for (int step = 0; step < steps; ++step) {
        writeInputs(system, scheme, firstStep + step);
        const double next = system.simulate(t);
        readOutputs(system, scheme);
        t += next > 0.0 ? std::min(next, 1.0) : 0.05;
    }
    return t;
}

// Solver steps between two discrete events, at most.
inline constexpr double kMaxStepsPerEvent = 1e5;

// True when a call of simulate would integrate over more solver steps than a fuzz input
// may take. simulate integrates up to the next discrete event in steps of H, as designed,
// so "dt" = 1e9 beside H = 0.001 asks for 1e12 steps: slow by request, not a hang.
inline bool integratesTooLong(const wSimulationSystemScheme& scheme) {
    if (scheme.getDiffBlocksCount() == 0) return false;  // discrete events come one per call
    const auto* euler = dynamic_cast<const wSolverExplEulerDescriptor*>(scheme.getOdeSolverDescriptor());
    if (euler == nullptr) return true;  // a solver kind this check does not know
    double longest = 0;
    for (const auto& block : scheme.getBlocks()) {
        if (!block->isOfType(BLOCK_DISCRETE)) continue;
        for (const wBlockParameterContainer& p : block->getParametersList())
            if (const auto* dt = dynamic_cast<const wBlockParameterProxy<double>*>(p.getProxy());
                dt != nullptr && p.getName() == "dt")
                longest = std::max(longest, dt->get());
    }
    return longest / euler->getH() > kMaxStepsPerEvent;
}

// Running path, from instantiation to a state round trip.
inline void exercise(const wSimulationSystemScheme& scheme) {
    std::unique_ptr<wSimulationSystem> system(scheme.instantiate());
    double t = run(*system, scheme, 0.0, 6, 0);

    if (system->getSchemeStateDataSize() < 0) return;
    zo::vector<unsigned char> blob;
    if (!system->getSchemeStateData(&blob)) fail("state size is known but the state cannot be saved");
    const double queueTime = system->getSchemeQueueTime();

    // Restoring into a reset system must reproduce the same blob.
    system->reset();
    system->setSchemeStateData(&blob);
    system->setSchemeQueueTime(queueTime);
    zo::vector<unsigned char> restored;
    if (!system->getSchemeStateData(&restored) || restored != blob)
        fail("restoring a saved discrete state does not give the same state back");
    run(*system, scheme, std::max(t, queueTime), 3, 6);
}

// The parameter overrides: the file's own global "overrides" table, or an empty one.
inline void loadOverrides(Lua::Loader& overrides, const std::string& file) {
    try {
        overrides.load(file, "overrides");
    } catch (const Lua::LoaderException&) {
        overrides.createGlobalTable("overrides");
    }
}

// Loads for running with the file's overrides; false when the load is refused.
inline bool loadForRunning(wSimulationSystemScheme& scheme, const std::string& file) {
    Lua::Loader overrides;
    loadOverrides(overrides, file);
    try {
        scheme.loadForRuntime(file, &overrides);
        return true;
    } catch (const Exception&) {
        return false;
    }
}


// Sends every log line the library can write through formatting, then drops it.
inline void logEverything() {
    static DiscardBuf discard;
    static std::ostream sink(&discard);
    wSimulationLogger::instance().setStream(&sink);
    wSimulationLogger::instance().setLevel(LOG_DEBUG);
}

// The checks above on the scheme file `source`, with scratch files in `dir`.
inline void checkSchemeFile(const ScratchDir& dir, const std::string& source) {
    static const std::string saved = dir.file("saved.lua");
    static const std::string resaved = dir.file("resaved.lua");
    const bool edited = editRoundTrip(source, saved, resaved);

    wSimulationSystemScheme scheme;
    if (!loadForRunning(scheme, source)) return;
    scheme.debug_dump();

    // What ran from the original must run from its saved form, laid out alike.
    // The overrides stay in the original file; the saved one holds only the scheme.
    if (edited) {
        wSimulationSystemScheme fromSaved;
        Lua::Loader overrides;
        loadOverrides(overrides, source);
        try {
            fromSaved.loadForRuntime(saved, &overrides);
        } catch (const Exception& e) {
            fail("a scheme loads for running but its saved form does not", e.what() + ("\n" + readFile(saved)));
        }
        if (fromSaved.getMemorySize() != scheme.getMemorySize() || fromSaved.getBlocksCount() != scheme.getBlocksCount())
            fail("the saved form of a scheme lays out differently", readFile(saved));
    }

    if (integratesTooLong(scheme)) return;
    try {
        exercise(scheme);
    } catch (const Exception&) {
        // A block may refuse its parameters only when it is built or run.
    }
}

}  // namespace fuzz
