#pragma once
// Helpers for the scheme tests: a subsystem-like block nesting a scheme, block adders,
// and a capture of the logger's output.
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "support/TestBlocks.h"
#include "vandrel/runtime/SimulationException.h"
#include "vandrel/runtime/SimulationLogger.h"
#include "vandrel/scheme/SimulationSystemScheme.h"

namespace schemetest {

// A discrete block that owns a scheme and shows that scheme's leads turned inside out:
// its input wires are the nested I/O block's output wires (the nested scheme's inputs),
// its output wires the nested I/O block's input wires. Enough for the layout, not runnable.
class NestingBlock : public wDescriptorImpl<NestingBlock, wSimulationBlockDiscDescriptor> {
public:
    NestingBlock() : nested_(std::make_unique<wSimulationSystemScheme>()) {}
    NestingBlock(const NestingBlock& other)
        : wDescriptorImpl<NestingBlock, wSimulationBlockDiscDescriptor>(other),
          nested_(std::make_unique<wSimulationSystemScheme>(*other.nested_)) {}

    static const zo::string& getBlockClassNameS() {
        static const zo::string s = "TestNesting";
        return s;
    }
    static const zo::string& getBlockTypeNameS() { return getBlockClassNameS(); }

    bool isOfType(weBlockType t) const override { return t == BLOCK_DISCRETE || t == BLOCK_SUBSYSTEM; }
    wSimulationSystemScheme* getNestedScheme() const override { return nested_.get(); }
    std::unique_ptr<wSimulationBlockDisc> create(Lua::Loader*, wSimulationSystem*) const override {
        throw wSimulationException("TestNesting is not runnable");
    }

protected:
    const wLeadList& getInputWires_() const override { return nested_->getIOLeads(false, false); }
    const wLeadList& getOutputWires_() const override { return nested_->getIOLeads(true, false); }
    const wLeadList& getInputPorts_() const override { return nested_->getIOLeads(false, true); }
    const wLeadList& getOutputPorts_() const override { return nested_->getIOLeads(true, true); }

private:
    std::unique_ptr<wSimulationSystemScheme> nested_;
};

// Adds a new block of class D named `name` to `s`.
template <class D>
D* add(wSimulationSystemScheme& s, const std::string& name) {
    auto block = std::make_unique<D>();
    block->setName(name);
    return static_cast<D*>(s.addBlock(std::move(block)));
}

// Wire and port connections; null stands for the scheme's I/O block.
inline void wire(wSimulationSystemScheme& s, wSimulationBlockDescriptor* from, const std::string& out,
                 wSimulationBlockDescriptor* to, const std::string& in) {
    s.addConnection({from ? from : &s.getIOBlock(), to ? to : &s.getIOBlock(), out, in, false});
}
inline void port(wSimulationSystemScheme& s, wSimulationBlockDescriptor* from, const std::string& out,
                 wSimulationBlockDescriptor* to, const std::string& in) {
    s.addConnection({from ? from : &s.getIOBlock(), to ? to : &s.getIOBlock(), out, in, true});
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

// Lua text of a "simulation_scheme" table; blocks get 0-based indices in adding order.
// Scheme inputs are the I/O block's output leads ("outputWires", "outputPorts" in the
// file), scheme outputs its input leads.
class SchemeText {
public:
    static constexpr int kIO = wSimulationSystemScheme::kIOBlockIndex;
    static constexpr int kCmds = wSimulationSystemScheme::kSpecialCommandsIndex;

    // `params`: the body of the block's "__parameters" table, e.g. "k = { value = 2 }".
    int block(const std::string& name, const std::string& type, const std::string& params = "") {
        blocks_.push_back("{ __name = \"" + name + "\", __type = \"" + type + "\", __parameters = { " + params + " } }");
        return static_cast<int>(blocks_.size()) - 1;
    }
    void schemeInputWire(const std::string& n, eLeadType t) { outWires_.push_back(lead(n, t)); }
    void schemeInputPort(const std::string& n, eLeadType t) { outPorts_.push_back(lead(n, t)); }
    void schemeOutputWire(const std::string& n, eLeadType t) { inWires_.push_back(lead(n, t)); }
    void schemeOutputPort(const std::string& n, eLeadType t) { inPorts_.push_back(lead(n, t)); }
    void wire(int from, const std::string& out, int to, const std::string& in) { connect(from, out, to, in, false); }
    void port(int from, const std::string& out, int to, const std::string& in) { connect(from, out, to, in, true); }
    // The body of the "solver" table.
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

}  // namespace schemetest
