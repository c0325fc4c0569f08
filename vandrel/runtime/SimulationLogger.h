#pragma once
// Process-wide logger: indented trace lines written to a stream that the host supplies.
// The library writes only at level 3 and above (and reports discarded connections of an
// editing load at level 2). Callers test the level before writing:
//
//     auto& log = wSimulationLogger::instance();
//     if (log.getLevel() >= 3) log << wSimulationLogger::Indenter() << "simulate (" << t << ")" << std::endl;
#include <ostream>

#include "vandrel/platform/String.h"

enum weSimulationLogLevel : int {
    LOG_NONE = 0,
    LOG_ERRORS = 1,
    LOG_WARNINGS = 2,
    LOG_TRACE = 3,
    LOG_DEBUG = 4,
};

class wSimulationLogger {
public:
    struct Indenter {};

    static wSimulationLogger& instance() {
        static wSimulationLogger logger;
        return logger;
    }

    void setLevel(weSimulationLogLevel level) {
        level_ = level;
        traceSteps_ = enabled(LOG_TRACE);
    }
    void setLevel(int level) { setLevel(static_cast<weSimulationLogLevel>(level)); }
    weSimulationLogLevel getLevel() const { return level_; }
    void setStream(std::ostream* stream) {
        stream_ = stream;
        traceSteps_ = enabled(LOG_TRACE);
    }
    std::ostream* getStream() const { return stream_; }

    // Indentation in spaces. A negative width is refused like an over-long string
    // (std::length_error) and leaves the indentation unchanged.
    void setIndent(int n);
    int getIndent() const { return static_cast<int>(indent_.size()); }
    void addIndent(int d) { setIndent(getIndent() + d); }

    // True when a line at `level` would be written (level reached and a stream set).
    bool enabled(int level) const { return level_ >= level && stream_ != nullptr; }

    // Block bodies run millions of times a second: they test this one constant-initialised
    // byte (no guard of instance()'s static, no call) and leave the writing to traceStep.
    // The setters keep it equal to enabled(LOG_TRACE).
    static bool tracingSteps() { return traceSteps_; }
    // Writes a body's trace line "<indent><what>(<t>)"; kept out of line and cold.
    static void traceStep(const char* what, double t);

    wSimulationLogger& operator<<(const Indenter&) {
        *stream_ << indent_;
        return *this;
    }
    wSimulationLogger& operator<<(std::ostream& (*manip)(std::ostream&)) {
        manip(*stream_);
        return *this;
    }
    template <class T>
    wSimulationLogger& operator<<(const T& value) {
        *stream_ << value;
        return *this;
    }

private:
    wSimulationLogger() = default;
    weSimulationLogLevel level_ = LOG_NONE;
    std::ostream* stream_ = nullptr;
    zo::string indent_;
    static inline constinit bool traceSteps_ = false;
};

// Raises the logger's indentation by 4 for a scope (the nesting of dumps).
class wLogIndentScope {
public:
    explicit wLogIndentScope(int by = 4) : by_(by) { wSimulationLogger::instance().addIndent(by_); }
    ~wLogIndentScope() { wSimulationLogger::instance().addIndent(-by_); }
    wLogIndentScope(const wLogIndentScope&) = delete;
    wLogIndentScope& operator=(const wLogIndentScope&) = delete;

private:
    int by_;
};
