#pragma once
// The scheme: the design-time graph of a simulation. An ordered list of block
// descriptors (owned), the connections between their leads, a built-in I/O block holding
// the scheme's own inputs and outputs, a built-in special-commands block, the ODE solver
// descriptor, and the directory the scheme was loaded from.
//
// A load for running analyses the scheme (block order, loop check, index lists, memory
// layout); after that the scheme is the read-only model of any number of simulation
// systems made by instantiate().
#include <cstddef>
#include <memory>
#include <string_view>

#include "vandrel/core/LeadTypes.h"
#include "vandrel/core/SimulationBlock.h"
#include "vandrel/core/SimulationBlockDescriptor.h"
#include "vandrel/platform/String.h"
#include "vandrel/runtime/OdeSolver.h"

namespace Lua {
class Loader;
}
class wSimulationSystem;

class wSimulationSystemScheme {
public:
    // Block indices that stand for the built-in blocks in connections and files.
    static constexpr int kIOBlockIndex = -666;
    static constexpr int kSpecialCommandsIndex = -665;

    struct Connection {
        wSimulationBlockDescriptor* from = nullptr;  // source block (the I/O block for a scheme input)
        wSimulationBlockDescriptor* to = nullptr;    // target block (the I/O block for a scheme output)
        zo::string fromLead;                         // output lead of `from`
        zo::string toLead;                           // input lead of `to`
        bool isPort = false;                         // port connection (true) or wire (false)
        bool operator==(const Connection&) const = default;
    };

    // The scheme's own leads. Its output wires/ports are the scheme's inputs (values enter
    // the scheme through them); its input wires/ports are the scheme's outputs.
    class InputOutputBlock : public wSimulationBlockDiscDescriptor {
    public:
        InputOutputBlock() = default;
        InputOutputBlock(const InputOutputBlock&) = default;
        InputOutputBlock& operator=(const InputOutputBlock&) = default;

        const zo::string& getClassName() const override;
        const zo::string& getBlockTypeName() const override;
        wSimulationBlockDescriptor* clone() const override;
        // The I/O block has no runtime block of its own; always throws.
        wSimulationBlockDisc* create(Lua::Loader*, wSimulationSystem*) const override;

        // Throws "Duplicate IO lead: " + name.
        void addLead(bool isInput, bool isPort, const zo::string& name, eLeadType type);
        void removeLead(bool isInput, bool isPort, std::string_view name);
        // Throws "Cannot rename lead: lead \"" + newName + "\" already exists".
        void renameLead(bool isInput, bool isPort, std::string_view oldName, const zo::string& newName);

        // "io" table: arrays "inputWires", "inputPorts", "outputWires", "outputPorts".
        void load(Lua::Loader* loader);
        void save(Lua::Loader* loader) const;

    protected:
        const wLeadList& getInputWires_() const override { return inputWires_; }
        const wLeadList& getOutputWires_() const override { return outputWires_; }
        const wLeadList& getInputPorts_() const override { return inputPorts_; }
        const wLeadList& getOutputPorts_() const override { return outputPorts_; }

    private:
        wLeadList& list_(bool isInput, bool isPort);
        wLeadList inputWires_, outputWires_, inputPorts_, outputPorts_;
    };

    // One input port, "reset_diff_state" (bool): any value written resets continuous state.
    class SpecialCommandsBlock : public wSimulationBlockStatelessDescriptor {
    public:
        const zo::string& getClassName() const override;
        const zo::string& getBlockTypeName() const override;
        wSimulationBlockDescriptor* clone() const override;
        wSimulationBlockStateless* create(Lua::Loader* loader) const override;

    protected:
        const wLeadList& getInputPorts_() const override;
    };

    using BlockList = zo::vector<std::unique_ptr<wSimulationBlockDescriptor>>;

    wSimulationSystemScheme();
    ~wSimulationSystemScheme();
    // Copies clone every block and redirect the connections to the clones.
    wSimulationSystemScheme(const wSimulationSystemScheme& other);
    wSimulationSystemScheme& operator=(const wSimulationSystemScheme& other);
    // A new copy, owned by the caller.
    wSimulationSystemScheme* clone() const;

    // ---- Blocks
    // Appends a block and returns it. The scheme owns the block from the call on, also
    // when the call throws "Trying to add block with duplicate name: " + name: the refused
    // block is then destroyed, so the caller never deletes what it passed in.
    wSimulationBlockDescriptor* addBlock(wSimulationBlockDescriptor* block);
    wSimulationBlockDescriptor* addBlock(std::unique_ptr<wSimulationBlockDescriptor> block);
    // Destroys the block; connections that name it are the caller's to remove first.
    void removeBlock(wSimulationBlockDescriptor* block);
    // Throws "Cannot rename block " + old + " to " + new + ": name is used".
    void renameBlock(wSimulationBlockDescriptor* block, const zo::string& newName);
    // Moves a block to 1-based place `order` among the discrete blocks (end when beyond).
    void reorderBlock(wSimulationBlockDescriptor* block, int order);
    // Number of discrete blocks up to and including `block`; -1 when not in the scheme.
    int getBlockOrder(const wSimulationBlockDescriptor* block) const;
    // By name; "sub.inner" looks inside subsystem blocks. Null when absent or empty.
    wSimulationBlockDescriptor* getBlockByName(std::string_view name);
    const wSimulationBlockDescriptor* getBlockByName(std::string_view name) const;
    // By index; kIOBlockIndex and kSpecialCommandsIndex give the built-in blocks.
    wSimulationBlockDescriptor* getBlockByIndex(int index);
    const wSimulationBlockDescriptor* getBlockByIndex(int index) const;
    // Index in the block list; the block count when absent.
    int indexOfBlock(const wSimulationBlockDescriptor* block) const;
    const BlockList& getBlocks() const { return blocks_; }
    int getBlocksCount() const { return static_cast<int>(blocks_.size()); }
    InputOutputBlock& getIOBlock() { return ioBlock_; }
    const InputOutputBlock& getIOBlock() const { return ioBlock_; }
    SpecialCommandsBlock& getSpecialCmdsBlock() { return specialCmdsBlock_; }
    const SpecialCommandsBlock& getSpecialCmdsBlock() const { return specialCmdsBlock_; }

    // ---- Connections (checked when loading and analysing, not here)
    void addConnection(const Connection& c) { connections_.push_back(c); }
    int indexOfConnection(const Connection& c) const;
    void removeConnection(const Connection& c);
    const zo::vector<Connection>& getConnections() const { return connections_; }

    // ---- The scheme's own leads (the I/O block's lists)
    void addIOLead(bool isInput, bool isPort, const zo::string& name, eLeadType type);
    void removeIOLead(bool isInput, bool isPort, std::string_view name);
    void renameIOLead(bool isInput, bool isPort, std::string_view oldName, const zo::string& newName);
    const wLeadList& getIOLeads(bool isInput, bool isPort) const { return ioBlock_.getLeads(isInput, isPort); }

    // ---- Solver
    // Destroys the current descriptor and owns the new one (null for none) from the call on.
    void setOdeSolverDescriptor(wOdeSolverDescriptor* descriptor);
    void setOdeSolverDescriptor(std::unique_ptr<wOdeSolverDescriptor> descriptor);
    void setOdeSolverDescriptor(std::nullptr_t) { setOdeSolverDescriptor(static_cast<wOdeSolverDescriptor*>(nullptr)); }
    wOdeSolverDescriptor* getOdeSolverDescriptor() const { return solver_.get(); }

    // ---- Files
    // Throws "While serializing " + file + ": " + message on failure.
    void save(const zo::string& fileName);
    // Editing load: bad connections are skipped, their 0-based positions appended to
    // `discarded` (and logged at level 2). No analysis: blocks stay in file order.
    void loadForEdit(const zo::string& fileName, zo::vector<int>& discarded, bool unused = false);
    // Running load: parameters missing from the file come from `overrides` (a loader over
    // a table { block = { parameter = value } }, never null); any failure ends the load;
    // then the scheme is analysed (and laid out unless nested).
    void loadForRuntime(const zo::string& fileName, Lua::Loader* overrides, bool isNested = false);
    // The same, with no overrides.
    void loadForRuntime(const zo::string& fileName);
    const zo::string& getRootDir() const { return rootDir_; }
    // The file of the last load, for messages; empty for a scheme built in memory.
    const zo::string& getFileName() const { return fileName_; }
    // Things a running load accepted but a user would want to know about, each with its
    // path and reason: entries of the overrides table that gave no parameter its value,
    // then entries of the file (and of nested files) that the load did not read.
    const zo::vector<zo::string>& getLoadWarnings() const { return loadWarnings_; }
    // A block's 0-based place in the file of the last running load (connections count
    // blocks so), or -1: the analysis reorders blocks, messages name them by the file.
    int getFileIndex(const wSimulationBlockDescriptor* block) const;

    // ---- Analysis results (valid after a running load or analyse())
    // Sorts, orders, checks and lays out the scheme as a running load does.
    void analyse(bool isNested = false) { postLoad_(isNested); }
    int getStatelessBlocksCount() const { return statelessCount_; }
    int getDiffBlocksCount() const { return diffCount_; }
    int getDiscreteBlocksCount() const { return discreteCount_; }
    int getStatelessBlockIndex(int i) const { return i; }
    int getDiffBlockIndex(int i) const { return firstDiffIndex_ + i; }
    int getDiscreteBlockIndex(int i) const { return firstDiscreteIndex_ + i; }
    int getFirstDiffIndex() const { return firstDiffIndex_; }
    int getFirstDiscreteIndex() const { return firstDiscreteIndex_; }
    const zo::vector<int>& getStatelessBlocksOnSchemeInput() const { return onSchemeInput_; }
    const zo::vector<int>& getStatelessBlocksOnSchemeOutput() const { return onSchemeOutput_; }
    const zo::vector<int>& getStatelessBlocksOnInput(int d) const { return onInput_[static_cast<std::size_t>(d)]; }
    const zo::vector<int>& getStatelessBlocksOnOutput(int d) const { return onOutput_[static_cast<std::size_t>(d)]; }
    const zo::vector<int>& getStatelessBlocksOnDiffInput() const { return onDiffInput_; }
    const zo::vector<int>& getStatelessBlocksInDiff() const { return inDiff_; }
    int getMemorySize() const { return memorySize_; }          // bytes of the data area
    int getDiffMemorySize() const { return diffMemorySize_; }  // bytes of continuous state
    int getDiffMemoryOffset() const { return diffMemoryOffset_; }

    // A new running system of this analysed scheme, owned by the caller; the scheme must
    // outlive it. `data`: the host's data area of getMemorySize() bytes from
    // wSimulationSystem::allocateData (ownership passes to the system, also when this
    // throws), or null for a zeroed one.
    wSimulationSystem* instantiate(Lua::Loader* loader = nullptr, unsigned char* data = nullptr) const;

    void debug_dump() const;

protected:
    void load_(const zo::string& fileName, Lua::Loader* overrides, zo::vector<int>* discarded, bool isNested);
    void postLoad_(bool isNested);
    void sortStateless_();
    // True when a wire connection already ends at (to, toLead).
    bool findInputConnection_(const wSimulationBlockDescriptor* to, std::string_view toLead) const;

private:
    friend class wSchemeLayout;
    friend class wSchemeAnalysis;

    // Makes this scheme a copy of `other`: clones first, then commits without throwing.
    void assignFrom_(const wSimulationSystemScheme& other);
    // Empties the scheme before a load: blocks, connections, leads, solver, results.
    void clear_();
    // Appends a block already checked for a unique name.
    wSimulationBlockDescriptor* adoptBlock_(std::unique_ptr<wSimulationBlockDescriptor> block);
    void clearAnalysis_();

    BlockList blocks_;
    zo::vector<Connection> connections_;
    InputOutputBlock ioBlock_;
    SpecialCommandsBlock specialCmdsBlock_;
    // Analysis results.
    int statelessCount_ = 0, diffCount_ = 0, discreteCount_ = 0;
    int firstDiffIndex_ = 0, firstDiscreteIndex_ = 0;
    zo::vector<int> onSchemeInput_, onSchemeOutput_, onDiffInput_, inDiff_;
    zo::vector<zo::vector<int>> onInput_, onOutput_;  // one list per discrete block
    int memorySize_ = 0, diffMemorySize_ = 0, diffMemoryOffset_ = 0;
    std::unique_ptr<wOdeSolverDescriptor> solver_;
    zo::string rootDir_;
    zo::string fileName_;
    zo::vector<zo::string> loadWarnings_;
    zo::vector<const wSimulationBlockDescriptor*> fileOrder_;  // blocks in file order (running loads)
};
