#pragma once
// The one place tests build schemes: in memory (Builder) or as Lua text written to a fresh
// file (SchemeText, Running), plus what every test needs around them: files, exception
// messages, the log, and recorders for the ports of a running system.
#include <gtest/gtest.h>

#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <fstream>
#include <memory>
#include <sstream>
#include <string>
#include <string_view>
#include <vector>

#include "support/TestBlocks.h"
#include "vandrel/platform/LuaLoader.h"
#include "vandrel/runtime/SimulationLogger.h"
#include "vandrel/runtime/SimulationSystem.h"
#include "vandrel/runtime/SolverExplEuler.h"
#include "vandrel/scheme/SimulationSystemScheme.h"

namespace testutil {

inline constexpr int kIO = wSimulationSystemScheme::kIOBlockIndex;
inline constexpr int kCmds = wSimulationSystemScheme::kSpecialCommandsIndex;

// A new empty directory under the test temp directory, removed when the program ends.
inline std::filesystem::path freshDir() {
    struct Dirs {
        std::vector<std::filesystem::path> all;
        ~Dirs() {
            std::error_code ignored;
            for (const auto& d : all) std::filesystem::remove_all(d, ignored);
        }
    };
    static Dirs dirs;
    static std::atomic<int> counter{0};
    const auto dir = std::filesystem::path(testing::TempDir()) /
                     ("vandrel_" + std::to_string(::getpid()) + "_" + std::to_string(counter++));
    std::filesystem::remove_all(dir);
    std::filesystem::create_directories(dir);
    dirs.all.push_back(dir);
    return dir;
}

inline std::string writeFile(const std::filesystem::path& path, std::string_view text) {
    std::ofstream(path, std::ios::binary).write(text.data(), static_cast<std::streamsize>(text.size()));
    return path.string();
}

inline std::string readFile(const std::string& path) {
    std::ostringstream s;
    s << std::ifstream(path, std::ios::binary).rdbuf();
    return s.str();
}

// The message of the exception that `f` throws as E; fails the test when none is thrown.
template <class E = std::exception, class F>
std::string messageOf(F&& f) {
    try {
        f();
    } catch (const E& e) {
        return e.what();
    }
    ADD_FAILURE() << "no exception thrown";
    return {};
}

// A loader over the Lua source `text` entered at its global table `global`.
inline std::unique_ptr<Lua::Loader> loaderFor(const std::string& text, const std::string& global = "t") {
    auto loader = std::make_unique<Lua::Loader>();
    loader->loadString(text, "test.lua", global);
    return loader;
}

// Collects what the logger writes at `level` while it lives, then restores the logger.
class LogCapture {
public:
    explicit LogCapture(int level) : level_(log().getLevel()), stream_(log().getStream()), indent_(log().getIndent()) {
        log().setStream(&text_);
        log().setLevel(level);
        log().setIndent(0);
    }
    ~LogCapture() {
        log().setLevel(level_);
        log().setStream(stream_);
        log().setIndent(indent_);
    }
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;
    std::string text() const { return text_.str(); }

private:
    static wSimulationLogger& log() { return wSimulationLogger::instance(); }
    std::ostringstream text_;
    weSimulationLogLevel level_;
    std::ostream* stream_;
    int indent_;
};

// A scheme built in memory from descriptors: its own `scheme`, or one it is given (a
// nested scheme). Scheme inputs are the I/O block's outputs; null stands for the I/O block.
class Builder {
public:
    explicit Builder(wSimulationSystemScheme* into = nullptr) : s_(into ? *into : scheme) {
        testblocks::registerAll();  // so that what it saves loads again
        testblocks::clearTrace();
    }
    Builder(const Builder&) = delete;
    Builder& operator=(const Builder&) = delete;
    template <class D>
    D* add(const std::string& name) {
        auto d = std::make_unique<D>();
        d->setName(name);
        return static_cast<D*>(s_.addBlock(std::move(d)));
    }
    wSimulationBlockDescriptor* io() { return &s_.getIOBlock(); }
    wSimulationBlockDescriptor* special() { return &s_.getSpecialCmdsBlock(); }
    void inputWire(const std::string& n, eLeadType t = LEAD_DOUBLE) { s_.addIOLead(false, false, n, t); }
    void outputWire(const std::string& n, eLeadType t = LEAD_DOUBLE) { s_.addIOLead(true, false, n, t); }
    void inputPort(const std::string& n, eLeadType t = LEAD_BOOL) { s_.addIOLead(false, true, n, t); }
    void outputPort(const std::string& n, eLeadType t = LEAD_BOOL) { s_.addIOLead(true, true, n, t); }
    void wire(wSimulationBlockDescriptor* from, const std::string& out, wSimulationBlockDescriptor* to,
              const std::string& in) {
        s_.addConnection({from ? from : io(), to ? to : io(), out, in, false});
    }
    // A scheme wire and the connection that carries it into `to` or out of `from`.
    void inputWire(const std::string& n, wSimulationBlockDescriptor* to, const std::string& in, eLeadType t = LEAD_DOUBLE) {
        inputWire(n, t);
        wire(io(), n, to, in);
    }
    void outputWire(wSimulationBlockDescriptor* from, const std::string& out, const std::string& n,
                    eLeadType t = LEAD_DOUBLE) {
        outputWire(n, t);
        wire(from, out, io(), n);
    }
    void port(wSimulationBlockDescriptor* from, const std::string& out, wSimulationBlockDescriptor* to,
              const std::string& in) {
        s_.addConnection({from ? from : io(), to ? to : io(), out, in, true});
    }
    wSolverExplEulerDescriptor* euler(double H) {
        auto solver = std::make_unique<wSolverExplEulerDescriptor>();
        solver->setH(H);
        auto* raw = solver.get();
        s_.setOdeSolverDescriptor(std::move(solver));
        return raw;
    }
    // Analyses the scheme and builds a system from it.
    std::unique_ptr<wSimulationSystem> run() {
        s_.analyse();
        return std::unique_ptr<wSimulationSystem>(s_.instantiate());
    }
    wSimulationSystemScheme scheme;

private:
    wSimulationSystemScheme& s_;
};

// The runtime block made from the descriptor named `name`, or null.
inline wSimulationBlock* blockNamed(const wSimulationSystem& sys, const std::string& name) {
    for (int i = 0; i < sys.getBlockCount(); ++i)
        if (sys.getBlock(i)->getDescriptor()->getName() == name) return sys.getBlock(i);
    return nullptr;
}

// Lua text of a "simulation_scheme" table; blocks get 0-based indices in adding order.
class SchemeText {
public:
    // `params`: the body of "__parameters"; `rest`: further keys of the entry.
    int block(const std::string& name, const std::string& type, const std::string& params = "",
              const std::string& rest = "") {
        blocks_.push_back("{ __name = \"" + name + "\", __type = \"" + type + "\", __parameters = { " + params + " }" +
                          (rest.empty() ? "" : ", " + rest) + " }");
        return static_cast<int>(blocks_.size()) - 1;
    }
    void inputWire(const std::string& n, eLeadType t) { outWires_ += lead(n, t); }
    void inputPort(const std::string& n, eLeadType t) { outPorts_ += lead(n, t); }
    void outputWire(const std::string& n, eLeadType t) { inWires_ += lead(n, t); }
    void outputPort(const std::string& n, eLeadType t) { inPorts_ += lead(n, t); }
    void wire(int from, const std::string& out, int to, const std::string& in) { connect(from, out, to, in, false); }
    void port(int from, const std::string& out, int to, const std::string& in) { connect(from, out, to, in, true); }
    // A lead of the scheme and the connection that carries it: from the scheme into lead
    // `in` of block `to`, or out of lead `out` of block `from`.
    void inputWire(const std::string& n, eLeadType t, int to, const std::string& in) {
        inputWire(n, t);
        wire(kIO, n, to, in);
    }
    void outputWire(int from, const std::string& out, const std::string& n, eLeadType t) {
        outputWire(n, t);
        wire(from, out, kIO, n);
    }
    void inputPort(const std::string& n, eLeadType t, int to, const std::string& in) {
        inputPort(n, t);
        port(kIO, n, to, in);
    }
    void outputPort(int from, const std::string& out, const std::string& n, eLeadType t) {
        outputPort(n, t);
        port(from, out, kIO, n);
    }
    void solver(const std::string& body) { solver_ = body; }
    void connection(const std::string& entry) { connections_ += "    " + entry + ",\n"; }

    std::string text() const {
        std::string s = "simulation_scheme = {\n  blocks = {\n";
        for (const auto& b : blocks_) s += "    " + b + ",\n";
        s += "  },\n";
        if (!solver_.empty()) s += "  solver = { " + solver_ + " },\n";
        s += "  io = { inputWires = {" + inWires_ + "}, inputPorts = {" + inPorts_ + "}, outputWires = {" + outWires_ +
             "}, outputPorts = {" + outPorts_ + "} },\n";
        return s + "  connections = {\n" + connections_ + "  },\n}\n";
    }

private:
    static std::string lead(const std::string& n, eLeadType t) {
        return " { name = \"" + n + "\", type = " + std::to_string(static_cast<int>(t)) + " },";
    }
    void connect(int from, const std::string& out, int to, const std::string& in, bool isPort) {
        connection("{ output_block = " + std::to_string(from) + ", output_lead = \"" + out + "\", input_block = " +
                   std::to_string(to) + ", input_lead = \"" + in + "\", port = " + (isPort ? "true" : "false") + " }");
    }
    std::vector<std::string> blocks_;
    std::string inWires_, inPorts_, outWires_, outPorts_, connections_, solver_;
};

// A scheme loaded for running from a file holding `text`, and one system made from it.
struct Running {
    explicit Running(const std::string& text, Lua::Loader* overrides = nullptr) {
        testblocks::registerAll();
        file = writeFile(freshDir() / "scheme.lua", text);
        scheme = std::make_unique<wSimulationSystemScheme>();
        scheme->loadForRuntime(file, overrides);
        system.reset(scheme->instantiate());
    }
    wSimulationBlock* block(const std::string& name) const { return blockNamed(*system, name); }
    std::string file;
    std::unique_ptr<wSimulationSystemScheme> scheme;
    std::unique_ptr<wSimulationSystem> system;
};

// The message of loading `text` for running, which must name the file: without its
// "Error while loading <file>: ", and with any other mention of the file as "<file>".
inline std::string loadError(const std::string& text, Lua::Loader* overrides = nullptr) {
    testblocks::registerAll();
    const std::string file = writeFile(freshDir() / "scheme.lua", text);
    wSimulationSystemScheme s;
    std::string m = messageOf([&] { s.loadForRuntime(file, overrides); });
    const std::string prefix = "Error while loading " + file + ": ";
    if (m.rfind(prefix, 0) != 0) return "not prefixed: " + m;
    m.erase(0, prefix.size());
    for (auto at = m.find(file); at != std::string::npos; at = m.find(file)) m.replace(at, file.size(), "<file>");
    return m;
}

// The message of making a system from `text`, which loads for running without error.
inline std::string createError(const std::string& text) {
    testblocks::registerAll();
    wSimulationSystemScheme s;
    s.loadForRuntime(writeFile(freshDir() / "scheme.lua", text));
    return messageOf([&] { s.instantiate(); });
}

// `text` loaded for editing; no connection may be discarded.
inline std::unique_ptr<wSimulationSystemScheme> loadForEdit(const std::string& text) {
    testblocks::registerAll();
    auto s = std::make_unique<wSimulationSystemScheme>();
    zo::vector<int> discarded;
    s->loadForEdit(writeFile(freshDir() / "edit.lua", text), discarded);
    EXPECT_TRUE(discarded.empty());
    return s;
}

// `text` loaded for editing, saved, loaded and saved again: both saves must be the same
// bytes. Returns the reloaded scheme and, in `saved`, the file text.
inline std::unique_ptr<wSimulationSystemScheme> saveAndReload(const std::string& text, std::string* saved = nullptr) {
    const auto dir = freshDir();
    const std::string first = (dir / "first.lua").string(), second = (dir / "second.lua").string();
    loadForEdit(text)->save(first);
    auto reloaded = loadForEdit(readFile(first));
    reloaded->save(second);
    EXPECT_EQ(readFile(first), readFile(second));
    if (saved) *saved = readFile(first);
    return reloaded;
}

// "name=value" of every parameter of block `name`, in list order, ", " between.
inline std::string parametersOf(wSimulationSystemScheme& s, const std::string& name) {
    std::string text;
    auto* block = s.getBlockByName(name);
    if (!block) return "no block " + name;
    for (const auto& p : block->getParametersList())
        text += (text.empty() ? "" : ", ") + std::string(p.getName()) + "=" + std::string(p.getProxy()->toString());
    return text;
}

// An input port that keeps every value it receives, in order.
template <class T>
class PortRecorder {
public:
    PortRecorder() : port_(this, &PortRecorder::onValue_) {}
    PortRecorder(const PortRecorder&) = delete;
    PortRecorder& operator=(const PortRecorder&) = delete;
    void listen(wSimulationSystem& system, std::string_view name) { system.getOutputPort(name)->connect(&port_); }
    wInputPortBase* port() { return &port_; }
    // Values received since the last take(), which forgets them.
    std::vector<T> take() { return std::exchange(values_, {}); }

private:
    void onValue_(const T& v) { values_.push_back(v); }
    std::vector<T> values_;
    wInputPortImpl<T, PortRecorder> port_;
};

// Writes v into scheme input port `name` through the typed path, so callbacks run.
template <class T>
void sendToInput(wSimulationSystem& system, std::string_view name, const T& v) {
    auto* in = dynamic_cast<wInputPort<T>*>(system.getInputPort(name));
    ASSERT_NE(in, nullptr) << "scheme input port " << name << " carries another type";
    in->setValue(v);
}

}  // namespace testutil
