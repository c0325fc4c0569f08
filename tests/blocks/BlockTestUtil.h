#pragma once
// Helpers for end-to-end block tests: build a scheme file as Lua text, write it to a fresh
// temporary directory, load it for running and instantiate a system from it.
//
//     blocktest::SchemeText s;
//     int sum = s.block("sum", "wBlockSummatorDescriptor<double>", "inputs = {...}");
//     s.inputWire("a", LEAD_DOUBLE);
//     s.wire(blocktest::kIO, "a", sum, "input1");
//     blocktest::Running r(s.text());
//     r.system->setInput<double>("a", 2.5);
#include <gtest/gtest.h>

#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <fstream>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "vandrel/core/LeadTypes.h"
#include "vandrel/runtime/SimulationSystem.h"
#include "vandrel/scheme/SimulationSystemScheme.h"

namespace blocktest {

inline constexpr int kIO = wSimulationSystemScheme::kIOBlockIndex;

// Directories made by freshDir, removed when the test program ends.
struct TempDirs {
    std::vector<std::filesystem::path> dirs;
    ~TempDirs() {
        for (const auto& d : dirs) {
            std::error_code ec;
            std::filesystem::remove_all(d, ec);
        }
    }
};
inline TempDirs& tempDirs() {
    static TempDirs t;
    return t;
}

// A new empty directory under the test temp directory, unique within the process run.
inline std::filesystem::path freshDir() {
    static std::atomic<int> counter{0};
    const auto* info = testing::UnitTest::GetInstance()->current_test_info();
    std::string stem = "vandrel_blocks";
    if (info) stem += std::string("_") + info->test_suite_name() + "_" + info->name();
    std::filesystem::path dir = std::filesystem::path(testing::TempDir()) /
                                (stem + "_" + std::to_string(::getpid()) + "_" + std::to_string(counter++));
    std::filesystem::remove_all(dir);
    std::filesystem::create_directories(dir);
    tempDirs().dirs.push_back(dir);
    return dir;
}

inline std::string writeFile(const std::filesystem::path& path, const std::string& text) {
    std::ofstream out(path, std::ios::binary);
    out << text;
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

// Lua text of a "simulation_scheme" table. Blocks get 0-based indices in adding order.
class SchemeText {
public:
    // `rest`: further keys of the block entry, e.g. "inputs = {...}"; `params`: the body of
    // its "__parameters" table, e.g. "k = { value = 2 }".
    int block(const std::string& name, const std::string& type, const std::string& params = "",
              const std::string& rest = "") {
        std::string b = "{ __name = \"" + name + "\", __type = \"" + type + "\", __parameters = { " + params + " }";
        if (!rest.empty()) b += ", " + rest;
        b += " }";
        blocks_.push_back(b);
        return static_cast<int>(blocks_.size()) - 1;
    }
    // Scheme inputs (values enter through them) and outputs. The inputs are the I/O
    // block's output leads ("outputWires", "outputPorts" in the file), the outputs its
    // input leads.
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
        s += "  },\n}\n";
        return s;
    }

private:
    static std::string lead(const std::string& n, eLeadType t) {
        return "{ name = \"" + n + "\", type = " + std::to_string(static_cast<int>(t)) + " }";
    }
    static std::string join(const std::vector<std::string>& v) {
        std::string s;
        for (const auto& e : v) s += (s.empty() ? " " : ", ") + e;
        return v.empty() ? s : s + " ";
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

// Loads `text` for editing and saves it twice (save, load the saved file, save again):
// returns both saved texts, which must be equal for a block that keeps all its settings.
inline std::pair<std::string, std::string> saveTwice(const std::string& text) {
    const auto dir = freshDir();
    const std::string src = writeFile(dir / "src.lua", text);
    const std::string first = (dir / "first.lua").string();
    const std::string second = (dir / "second.lua").string();
    {
        wSimulationSystemScheme s;
        zo::vector<int> discarded;
        s.loadForEdit(src, discarded);
        EXPECT_TRUE(discarded.empty());
        s.save(first);
    }
    {
        wSimulationSystemScheme s;
        zo::vector<int> discarded;
        s.loadForEdit(first, discarded);
        EXPECT_TRUE(discarded.empty());
        s.save(second);
    }
    return {readFile(first), readFile(second)};
}

}  // namespace blocktest
