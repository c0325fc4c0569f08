#pragma once
// Helpers for tests that go through scheme files: write a scheme as Lua text into a fresh
// temporary directory, load it for running or editing, save and reload it, talk to a
// running system through its ports, and catch the message of an exception.
//
//     testutil::SchemeText s;
//     int sum = s.block("sum", "wBlockSummatorDescriptor<double>", "", "inputs = {...}");
//     s.inputWire("a", LEAD_DOUBLE);
//     s.wire(testutil::kIO, "a", sum, "input1");
//     testutil::Running r(s.text());
//     r.system->setInput<double>("a", 2.5);
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

#include "vandrel/core/LeadTypes.h"
#include "vandrel/core/Ports.h"
#include "vandrel/runtime/SimulationLogger.h"
#include "vandrel/runtime/SimulationSystem.h"
#include "vandrel/scheme/SimulationSystemScheme.h"

namespace testutil {

inline constexpr int kIO = wSimulationSystemScheme::kIOBlockIndex;
inline constexpr int kCmds = wSimulationSystemScheme::kSpecialCommandsIndex;

// A new empty directory under the test temp directory, unique within the process run and
// removed when the test program ends.
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
    const auto* info = testing::UnitTest::GetInstance()->current_test_info();
    std::string stem = "vandrel";
    if (info) stem += std::string("_") + info->test_suite_name() + "_" + info->name();
    const auto dir = std::filesystem::path(testing::TempDir()) /
                     (stem + "_" + std::to_string(::getpid()) + "_" + std::to_string(counter++));
    std::filesystem::remove_all(dir);
    std::filesystem::create_directories(dir);
    dirs.all.push_back(dir);
    return dir;
}

inline std::string writeFile(const std::filesystem::path& path, std::string_view text) {
    std::ofstream out(path, std::ios::binary);
    out.write(text.data(), static_cast<std::streamsize>(text.size()));
    out.close();
    EXPECT_TRUE(out.good()) << "cannot write " << path;
    return path.string();
}

inline std::string readFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream s;
    s << in.rdbuf();
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

// Collects what the logger writes at `level` for the lifetime of the object, then puts
// the logger back as it was.
class LogCapture {
public:
    explicit LogCapture(int level) {
        auto& log = wSimulationLogger::instance();
        level_ = log.getLevel();
        stream_ = log.getStream();
        indent_ = log.getIndent();
        log.setStream(&text_);
        log.setLevel(level);
        log.setIndent(0);
    }
    ~LogCapture() {
        auto& log = wSimulationLogger::instance();
        log.setLevel(level_);
        log.setStream(stream_);
        log.setIndent(indent_);
    }
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;
    std::string text() const { return text_.str(); }

private:
    std::ostringstream text_;
    weSimulationLogLevel level_;
    std::ostream* stream_;
    int indent_;
};

// Lua text of a "simulation_scheme" table. Blocks get 0-based indices in adding order.
class SchemeText {
public:
    // `params`: the body of its "__parameters" table, e.g. "k = { value = 2 }"; `rest`:
    // further keys of the block entry, e.g. "inputs = {...}".
    int block(const std::string& name, const std::string& type, const std::string& params = "",
              const std::string& rest = "") {
        std::string b = "{ __name = \"" + name + "\", __type = \"" + type + "\", __parameters = { " + params + " }";
        if (!rest.empty()) b += ", " + rest;
        blocks_.push_back(b + " }");
        return static_cast<int>(blocks_.size()) - 1;
    }
    // Scheme inputs are the I/O block's output leads ("outputWires", "outputPorts" in the
    // file), scheme outputs its input leads.
    void inputWire(const std::string& n, eLeadType t) { outWires_.push_back(lead(n, t)); }
    void inputPort(const std::string& n, eLeadType t) { outPorts_.push_back(lead(n, t)); }
    void outputWire(const std::string& n, eLeadType t) { inWires_.push_back(lead(n, t)); }
    void outputPort(const std::string& n, eLeadType t) { inPorts_.push_back(lead(n, t)); }
    void wire(int from, const std::string& out, int to, const std::string& in) { connect(from, out, to, in, false); }
    void port(int from, const std::string& out, int to, const std::string& in) { connect(from, out, to, in, true); }
    // The body of a "solver" table, for schemes with continuous blocks.
    void solver(const std::string& body) { solver_ = body; }

    std::string text() const {
        std::string s = "simulation_scheme = {\n  blocks = {\n";
        for (const auto& b : blocks_) s += "    " + b + ",\n";
        s += "  },\n";
        if (!solver_.empty()) s += "  solver = { " + solver_ + " },\n";
        s += "  io = { inputWires = {" + join(inWires_) + "}, inputPorts = {" + join(inPorts_) +
             "}, outputWires = {" + join(outWires_) + "}, outputPorts = {" + join(outPorts_) + "} },\n";
        s += "  connections = {\n";
        for (const auto& c : connections_) s += "    " + c + ",\n";
        return s + "  },\n}\n";
    }

private:
    static std::string lead(const std::string& n, eLeadType t) {
        return "{ name = \"" + n + "\", type = " + std::to_string(static_cast<int>(t)) + " }";
    }
    static std::string join(const std::vector<std::string>& v) {
        std::string s;
        for (const auto& e : v) s += " " + e + ",";
        return s;
    }
    void connect(int from, const std::string& out, int to, const std::string& in, bool isPort) {
        connections_.push_back("{ output_block = " + std::to_string(from) + ", output_lead = \"" + out +
                               "\", input_block = " + std::to_string(to) + ", input_lead = \"" + in +
                               "\", port = " + (isPort ? "true" : "false") + " }");
    }
    std::vector<std::string> blocks_, inWires_, inPorts_, outWires_, outPorts_, connections_;
    std::string solver_;
};

// A scheme loaded for running from a file written from `text`, and one system made from it.
// `overrides`: optional loader over a table { block = { parameter = value } }.
struct Running {
    explicit Running(const std::string& text, Lua::Loader* overrides = nullptr) : dir(freshDir()) {
        file = writeFile(dir / "scheme.lua", text);
        scheme = std::make_unique<wSimulationSystemScheme>();
        if (overrides) scheme->loadForRuntime(file, overrides);
        else scheme->loadForRuntime(file);
        system = scheme->instantiate();
    }
    // The runtime block made from the descriptor named `name`, or null.
    wSimulationBlock* block(const std::string& name) const {
        for (int i = 0; i < system->getBlockCount(); ++i)
            if (system->getBlock(i)->getDescriptor()->getName() == name) return system->getBlock(i);
        return nullptr;
    }

    std::filesystem::path dir;
    std::string file;
    std::unique_ptr<wSimulationSystemScheme> scheme;
    std::unique_ptr<wSimulationSystem> system;
};

// `text` loaded for editing (no connection may be discarded).
inline std::unique_ptr<wSimulationSystemScheme> loadForEdit(const std::string& text) {
    const std::string file = writeFile(freshDir() / "edit.lua", text);
    auto s = std::make_unique<wSimulationSystemScheme>();
    zo::vector<int> discarded;
    s->loadForEdit(file, discarded);
    EXPECT_TRUE(discarded.empty());
    return s;
}

// A scheme saved from an editing load of `text` and loaded again for editing. Checks that
// saving the reloaded scheme gives the same bytes as the first save, which it returns.
inline std::unique_ptr<wSimulationSystemScheme> saveAndReload(const std::string& text, std::string* saved = nullptr) {
    const auto dir = freshDir();
    const std::string first = (dir / "first.lua").string(), second = (dir / "second.lua").string();
    loadForEdit(text)->save(first);
    auto reloaded = std::make_unique<wSimulationSystemScheme>();
    zo::vector<int> discarded;
    reloaded->loadForEdit(first, discarded);
    EXPECT_TRUE(discarded.empty());
    reloaded->save(second);
    EXPECT_EQ(readFile(first), readFile(second));
    if (saved) *saved = readFile(first);
    return reloaded;
}

// "name=value" of every parameter of block `name` of `s`, in list order, ", " between.
inline std::string parametersOf(wSimulationSystemScheme& s, const std::string& name) {
    std::string text;
    auto* block = s.getBlockByName(name);
    EXPECT_NE(block, nullptr) << name;
    if (!block) return text;
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

    // Connects to scheme output port `name` of `system`.
    void listen(wSimulationSystem& system, std::string_view name) { system.getOutputPort(name)->connect(&port_); }
    // Values received since the last take(), which forgets them.
    std::vector<T> take() {
        std::vector<T> v;
        v.swap(values_);
        return v;
    }

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
