#pragma once
// The subsystem block: a whole scheme, read from its own ".sch" file, used as one block
// of another scheme.
//
// Its leads are the nested scheme's own leads turned inside out: what enters the nested
// scheme (its I/O block's outputs) are the block's inputs, what leaves it the block's
// outputs. Its parameters are the nested file's name ("filename") and any number of
// additional parameters whose dotted names address nested blocks ("gain.k" is parameter k
// of nested block gain, "inner.gain.k" one level deeper); at run time they fill the
// parameters that the nested file leaves open, exactly as a host's overrides would.
//
// The nested scheme has no data area of its own: the top-level layout gives its wires
// slots in the top-level area, and the runtime block runs a nested system in that area.
// Each step of the block runs the nested system up to the step's time and asks to run
// again when the nested system next needs a call. A nested scheme that is idle (nothing
// scheduled, nothing continuous) makes the block idle too; it then runs again whenever
// something that feeds its inputs may have changed (see wSimulationSystem::addWakeup).
//
// File rules: the nested file is <directory of the containing file> + template_scheme +
// ".sch". A file that includes itself, directly or through other files, is refused with
// the chain of files, and so is nesting deeper than kMaxNestingDepth levels.
#include <memory>
#include <string_view>

#include "vandrel/core/BlockParameter.h"
#include "vandrel/core/SimulationBlock.h"
#include "vandrel/core/SimulationBlockDescriptor.h"
#include "vandrel/runtime/SimulationSystem.h"
#include "vandrel/scheme/SimulationSystemScheme.h"

class wBlockSubsystem;

class wBlockSubsystemDescriptor
    : public wDescriptorImpl<wBlockSubsystemDescriptor, wSimulationBlockDiscDescriptor> {
public:
    // Levels of subsystems below a top-level scheme that a load accepts.
    static constexpr int kMaxNestingDepth = 16;

    static const zo::string& getBlockClassNameS();  // "wBlockSubsystemDescriptor"
    static const zo::string& getBlockTypeNameS();   // "Subsystem"

    wBlockSubsystemDescriptor();
    wBlockSubsystemDescriptor(const wBlockSubsystemDescriptor& other);
    wBlockSubsystemDescriptor& operator=(const wBlockSubsystemDescriptor& other);
    ~wBlockSubsystemDescriptor() override;

    // Discrete (2) and subsystem (3).
    bool isOfType(weBlockType type) const override { return type == BLOCK_DISCRETE || type == BLOCK_SUBSYSTEM; }

    // Entry keys, in order: "additional_params" = { { name =, type = }, ... }, the common
    // keys, "template_scheme". Reading then loads the nested scheme: for running with the
    // additional parameters as overrides, for editing as it is. An editing load that fails
    // is logged ("Cannot load subsystem block: ") and leaves the block without a scheme; a
    // running load that fails throws, since the block could not run.
    void serialize(wBlockSerializer& s) override;
    // A system running the nested scheme in `system`'s data area. Throws when the block
    // has no nested scheme.
    wSimulationBlockDisc* create(Lua::Loader* loader, wSimulationSystem* system) const override;

    // "filename" (the nested file's name, a string) first, then the additional parameters:
    // references, so editing them edits the block.
    wParameterList getParametersList() override;
    // A "filename" entry sets the nested file's name; every other entry becomes an
    // additional parameter (an owning copy). Call update() to load the named file.
    void setParameters(const wParameterList& list);
    // Loads the nested scheme again for editing, from the file that the block names now.
    // A failure is logged ("Cannot load subsystem block: ") and leaves the block without
    // a scheme, its leads empty.
    void update();
    // Logs "Subsystem block", the file and the nested scheme, at level 3 and above.
    void debug_dump() const override;

    // The nested scheme (empty when none is loaded).
    const wSimulationSystemScheme& getScheme() const { return nested_; }
    wSimulationSystemScheme& getScheme() { return nested_; }
    wSimulationSystemScheme* getNestedScheme() const override;
    // Whether a nested scheme is loaded, and why the last attempt failed (empty if it did not).
    bool hasNestedScheme() const { return loaded_; }
    const zo::string& getLoadError() const { return loadError_; }

    // The nested file's name, relative to the containing file's directory, without ".sch".
    const zo::string& getTemplateScheme() const { return templateScheme_.get(); }
    void setTemplateScheme(const zo::string& name);
    // The nested file: the containing file's directory + template scheme + ".sch".
    zo::string getNestedFileName() const;
    const zo::vector<wBlockParameterContainer>& getAdditionalParameters() const { return additional_; }

    // Writes `parameter`'s value into `loader` under the dotted path `name`, relative to the
    // loader's current table: every segment but the last names a table (entered when it
    // exists, created otherwise), the last is the key. The loader is left where it was.
    // An empty segment throws "Subsystem: invalid parameter name - " + name.
    static void addParameter_(Lua::Loader* loader, const zo::string& name, const wBlockParameterContainer& parameter);

protected:
    const wLeadList& getInputWires_() const override { return nested_.getIOLeads(false, false); }
    const wLeadList& getOutputWires_() const override { return nested_.getIOLeads(true, false); }
    const wLeadList& getInputPorts_() const override { return nested_.getIOLeads(false, true); }
    const wLeadList& getOutputPorts_() const override { return nested_.getIOLeads(true, true); }

private:
    // Loads the nested scheme from getNestedFileName(); `s` is the serializer of a load in
    // progress, or null for update().
    void loadNested_(wBlockSerializer* s);
    // The containing file's directory: the one the block was read from, else its scheme's.
    zo::string containingDirectory_() const;

    wBlockParameterProxy<zo::string> templateScheme_;  // "filename"
    zo::vector<wBlockParameterContainer> additional_;  // owning
    wSimulationSystemScheme nested_;
    bool loaded_ = false;
    zo::string readDirectory_;  // directory of the file the block was read from
    zo::string loadError_;
};

class wBlockSubsystem : public wSimulationBlockDisc {
public:
    wBlockSubsystem(const wBlockSubsystemDescriptor* descriptor, wSimulationSystem* parent, Lua::Loader* loader);
    ~wBlockSubsystem() override;
    wBlockSubsystem(const wBlockSubsystem&) = delete;
    wBlockSubsystem& operator=(const wBlockSubsystem&) = delete;

    // The nested system's scheme ports. An output that nothing inside feeds gets a port of
    // this block's own, which never sends.
    wInputPortBase* getInputPort(std::string_view name) override;
    wOutputPortBase* getOutputPort(std::string_view name) override;

    // Runs the nested system to t; its answer is the block's: the delay until the next
    // call, or -1.0 when the nested scheme is idle. A nested continuous part integrates no
    // further than the parent's host asked the parent to (see simulate(T, Tmax)).
    double step(double t) override {
        const double horizon = system_->getHorizon();
        return horizon > t ? nested_.simulate(t, horizon) : nested_.simulate(t);
    }
    void reset() override { nested_.reset(); }
    // The nested system's state blob.
    int getBlockStateDataSize() const override { return nested_.getSchemeStateDataSize(); }
    void getBlockStateData(unsigned char* out) const override { nested_.getSchemeStateDataToPtr(out); }
    int setBlockStateDataByPtr(const unsigned char* in) override { return nested_.setSchemeStateDataByPtr(in); }
    int measureStateData(const unsigned char* in, std::size_t available) const override {
        return nested_.measureSchemeStateData(in, available);
    }
    void registerStateData() override;
    // The nested system's whole state.
    void saveSnapshot(wSnapshotWriter& out) const override { nested_.saveSnapshotBody(out); }
    void restoreSnapshot(wSnapshotReader& in) override { nested_.restoreSnapshotBody(in); }

    wSimulationSystem& getNestedSystem() { return nested_; }

private:
    // Asks the parent to wake this block when what feeds its inputs may have changed.
    void registerWakeups_(wSimulationSystem& parent) const;

    const wBlockSubsystemDescriptor* d_;  // not owned
    wSimulationSystem nested_;
    zo::vector<std::unique_ptr<wOutputPortBase>> unfedOutputs_;
    char stateMarker_ = 0;  // see registerStateData
};
