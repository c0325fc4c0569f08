// The scheme model: its two built-in blocks, the block list, connections, the scheme's
// own leads, copying, and the debug dump. Loading and saving live in SchemeFile.cpp,
// the analysis and memory layout in SchemeAnalysis.cpp.
#include "vandrel/scheme/SimulationSystemScheme.h"

#include <algorithm>
#include <ostream>
#include <unordered_map>
#include <utility>

#include "vandrel/runtime/SimulationException.h"
#include "vandrel/runtime/SimulationLogger.h"
#include "vandrel/runtime/SimulationSystem.h"

// ---- The I/O block

const zo::string& wSimulationSystemScheme::InputOutputBlock::getClassName() const {
    static const zo::string name = "wSimulationSystemScheme::InputOutputBlock";
    return name;
}

const zo::string& wSimulationSystemScheme::InputOutputBlock::getBlockTypeName() const {
    static const zo::string name = "I/O block";
    return name;
}

wSimulationBlockDescriptor* wSimulationSystemScheme::InputOutputBlock::clone() const {
    return new InputOutputBlock(*this);
}

wSimulationBlockDisc* wSimulationSystemScheme::InputOutputBlock::create(Lua::Loader*, wSimulationSystem*) const {
    // The scheme's leads are served by the system itself, never by a block of their own.
    throw wSimulationException("The I/O block has no runtime block");
}

wLeadList& wSimulationSystemScheme::InputOutputBlock::list_(bool isInput, bool isPort) {
    if (isInput) return isPort ? inputPorts_ : inputWires_;
    return isPort ? outputPorts_ : outputWires_;
}

void wSimulationSystemScheme::InputOutputBlock::addLead(bool isInput, bool isPort, const zo::string& name,
                                                        eLeadType type) {
    if (hasLead(isInput, isPort, name)) throw wSimulationException("Duplicate IO lead: " + name);
    list_(isInput, isPort).push_back(wLeadDescription{name, type});
}

void wSimulationSystemScheme::InputOutputBlock::removeLead(bool isInput, bool isPort, std::string_view name) {
    wLeadList& leads = list_(isInput, isPort);
    auto it = std::find_if(leads.begin(), leads.end(), [&](const wLeadDescription& l) { return l.name == name; });
    if (it != leads.end()) leads.erase(it);
}

void wSimulationSystemScheme::InputOutputBlock::renameLead(bool isInput, bool isPort, std::string_view oldName,
                                                           const zo::string& newName) {
    // Checked before looking for the old name, so renaming a lead to itself is refused too.
    if (hasLead(isInput, isPort, newName))
        throw wSimulationException("Cannot rename lead: lead \"" + newName + "\" already exists");
    wLeadList& leads = list_(isInput, isPort);
    auto it = std::find_if(leads.begin(), leads.end(), [&](const wLeadDescription& l) { return l.name == oldName; });
    if (it != leads.end()) it->name = newName;
}

// ---- The special-commands block

namespace {

// The special-commands block's runtime side: the system answers its command port itself,
// so the block has nothing to compute.
class wSpecialCommandsRuntime final : public wSimulationBlockStateless {
public:
    using wSimulationBlockStateless::wSimulationBlockStateless;
    void update(double, unsigned char*) override {}
};

}  // namespace

const zo::string& wSimulationSystemScheme::SpecialCommandsBlock::getClassName() const {
    static const zo::string name = "wSimulationSystemScheme::SpecialCommandsBlock";
    return name;
}

const zo::string& wSimulationSystemScheme::SpecialCommandsBlock::getBlockTypeName() const {
    static const zo::string name = "Special commands";
    return name;
}

wSimulationBlockDescriptor* wSimulationSystemScheme::SpecialCommandsBlock::clone() const {
    return new SpecialCommandsBlock(*this);
}

wSimulationBlockStateless* wSimulationSystemScheme::SpecialCommandsBlock::create(Lua::Loader*) const {
    return new wSpecialCommandsRuntime(this);
}

const wLeadList& wSimulationSystemScheme::SpecialCommandsBlock::getInputPorts_() const {
    static const wLeadList ports{wLeadDescription{"reset_diff_state", LEAD_BOOL}};
    return ports;
}

// ---- Construction and copying

wSimulationSystemScheme::wSimulationSystemScheme() {
    ioBlock_.setScheme(this);
    specialCmdsBlock_.setScheme(this);
}

wSimulationSystemScheme::~wSimulationSystemScheme() = default;

wSimulationSystemScheme::wSimulationSystemScheme(const wSimulationSystemScheme& other) : wSimulationSystemScheme() {
    assignFrom_(other);
}

wSimulationSystemScheme& wSimulationSystemScheme::operator=(const wSimulationSystemScheme& other) {
    if (this != &other) assignFrom_(other);
    return *this;
}

wSimulationSystemScheme* wSimulationSystemScheme::clone() const {
    return new wSimulationSystemScheme(*this);
}

void wSimulationSystemScheme::assignFrom_(const wSimulationSystemScheme& other) {
    // Everything that can throw is built aside first, so a failed copy leaves this intact.
    BlockList blocks;
    blocks.reserve(other.blocks_.size());
    std::unordered_map<const wSimulationBlockDescriptor*, std::size_t> indexOf;
    indexOf.reserve(other.blocks_.size());
    for (std::size_t i = 0; i < other.blocks_.size(); ++i) {
        std::unique_ptr<wSimulationBlockDescriptor> copy(other.blocks_[i]->clone());
        copy->setScheme(this);
        blocks.push_back(std::move(copy));
        indexOf.emplace(other.blocks_[i].get(), i);
    }

    // A connection keeps its ends by position: the built-in blocks map to this scheme's
    // own, every other block to the clone at the same index (null if it was not listed).
    auto redirect = [&](const wSimulationBlockDescriptor* p) -> wSimulationBlockDescriptor* {
        if (p == nullptr) return nullptr;
        if (p == &other.ioBlock_) return &ioBlock_;
        if (p == &other.specialCmdsBlock_) return &specialCmdsBlock_;
        auto it = indexOf.find(p);
        return it == indexOf.end() ? nullptr : blocks[it->second].get();
    };
    zo::vector<Connection> connections;
    connections.reserve(other.connections_.size());
    for (const Connection& c : other.connections_) {
        Connection copy = c;
        copy.from = redirect(c.from);
        copy.to = redirect(c.to);
        connections.push_back(std::move(copy));
    }

    InputOutputBlock io(other.ioBlock_);
    io.setScheme(this);
    std::unique_ptr<wOdeSolverDescriptor> solver(other.solver_ ? other.solver_->clone() : nullptr);
    zo::vector<int> onSchemeInput = other.onSchemeInput_, onSchemeOutput = other.onSchemeOutput_;
    zo::vector<int> onDiffInput = other.onDiffInput_, inDiff = other.inDiff_;
    zo::vector<zo::vector<int>> onInput = other.onInput_, onOutput = other.onOutput_;
    zo::string rootDir = other.rootDir_;
    zo::string fileName = other.fileName_;
    zo::vector<zo::string> loadWarnings = other.loadWarnings_;

    // Commit.
    connections_ = std::move(connections);
    blocks_ = std::move(blocks);
    ioBlock_ = std::move(io);
    solver_ = std::move(solver);
    statelessCount_ = other.statelessCount_;
    diffCount_ = other.diffCount_;
    discreteCount_ = other.discreteCount_;
    firstDiffIndex_ = other.firstDiffIndex_;
    firstDiscreteIndex_ = other.firstDiscreteIndex_;
    onSchemeInput_ = std::move(onSchemeInput);
    onSchemeOutput_ = std::move(onSchemeOutput);
    onDiffInput_ = std::move(onDiffInput);
    inDiff_ = std::move(inDiff);
    onInput_ = std::move(onInput);
    onOutput_ = std::move(onOutput);
    memorySize_ = other.memorySize_;
    // A copy starts without a continuous-state size: it is re-established by analysing
    // the copy (a copied scheme is meant for editing, or to be loaded again).
    diffMemorySize_ = 0;
    diffMemoryOffset_ = other.diffMemoryOffset_;
    rootDir_ = std::move(rootDir);
    fileName_ = std::move(fileName);
    loadWarnings_ = std::move(loadWarnings);
}

void wSimulationSystemScheme::clearAnalysis_() {
    statelessCount_ = diffCount_ = discreteCount_ = 0;
    firstDiffIndex_ = firstDiscreteIndex_ = 0;
    onSchemeInput_.clear();
    onSchemeOutput_.clear();
    onDiffInput_.clear();
    inDiff_.clear();
    onInput_.clear();
    onOutput_.clear();
    memorySize_ = diffMemorySize_ = diffMemoryOffset_ = 0;
}

void wSimulationSystemScheme::clear_() {
    connections_.clear();
    blocks_.clear();
    ioBlock_ = InputOutputBlock();
    ioBlock_.setScheme(this);
    solver_.reset();
    rootDir_.clear();
    fileName_.clear();
    loadWarnings_.clear();
    fileOrder_.clear();
    clearAnalysis_();
}

// ---- Blocks

wSimulationBlockDescriptor* wSimulationSystemScheme::addBlock(std::unique_ptr<wSimulationBlockDescriptor> block) {
    if (!block) throw wSimulationException("Trying to add a null block");
    // The same lookup as getBlockByName, so "sub.inner" collides with a nested block too.
    if (!block->getName().empty() && getBlockByName(block->getName()) != nullptr)
        throw wSimulationException("Trying to add block with duplicate name: " + block->getName());
    return adoptBlock_(std::move(block));
}

wSimulationBlockDescriptor* wSimulationSystemScheme::addBlock(wSimulationBlockDescriptor* block) {
    // Owned from here on: if the name is refused, the block goes with the exception.
    return addBlock(std::unique_ptr<wSimulationBlockDescriptor>(block));
}

wSimulationBlockDescriptor* wSimulationSystemScheme::adoptBlock_(std::unique_ptr<wSimulationBlockDescriptor> block) {
    block->setScheme(this);
    blocks_.push_back(std::move(block));
    return blocks_.back().get();
}

void wSimulationSystemScheme::removeBlock(wSimulationBlockDescriptor* block) {
    auto it = std::find_if(blocks_.begin(), blocks_.end(), [&](const auto& b) { return b.get() == block; });
    if (it != blocks_.end()) blocks_.erase(it);
}

void wSimulationSystemScheme::renameBlock(wSimulationBlockDescriptor* block, const zo::string& newName) {
    if (block->getName() == newName) return;
    if (!newName.empty() && getBlockByName(newName) != nullptr)
        throw wSimulationException("Cannot rename block " + block->getName() + " to " + newName + ": name is used");
    block->setName(newName);
}

void wSimulationSystemScheme::reorderBlock(wSimulationBlockDescriptor* block, int order) {
    auto it = std::find_if(blocks_.begin(), blocks_.end(), [&](const auto& b) { return b.get() == block; });
    if (it == blocks_.end()) return;
    std::unique_ptr<wSimulationBlockDescriptor> moved = std::move(*it);
    blocks_.erase(it);

    // Insert before the discrete block that is order-th among the discrete blocks left.
    int count = 0;
    auto pos = blocks_.end();
    for (auto b = blocks_.begin(); b != blocks_.end(); ++b) {
        if ((*b)->isOfType(BLOCK_DISCRETE) && ++count == order) {
            pos = b;
            break;
        }
    }
    blocks_.insert(pos, std::move(moved));
}

int wSimulationSystemScheme::getBlockOrder(const wSimulationBlockDescriptor* block) const {
    int count = 0;
    for (const auto& b : blocks_) {
        if (b->isOfType(BLOCK_DISCRETE)) ++count;
        if (b.get() == block) return count;
    }
    return -1;
}

const wSimulationBlockDescriptor* wSimulationSystemScheme::getBlockByName(std::string_view name) const {
    // A dotted name walks into subsystem blocks, one segment per level.
    const wSimulationSystemScheme* scheme = this;
    while (!name.empty()) {
        const std::size_t dot = name.find('.');
        const std::string_view head = name.substr(0, dot);
        const wSimulationBlockDescriptor* found = nullptr;
        if (!head.empty()) {
            for (const auto& b : scheme->blocks_) {
                if (b->getName() == head) {
                    found = b.get();
                    break;
                }
            }
        }
        if (dot == std::string_view::npos || found == nullptr) return found;
        if (!found->isOfType(BLOCK_SUBSYSTEM)) return nullptr;
        scheme = found->getNestedScheme();
        if (scheme == nullptr) return nullptr;
        name = name.substr(dot + 1);
    }
    return nullptr;
}

wSimulationBlockDescriptor* wSimulationSystemScheme::getBlockByName(std::string_view name) {
    return const_cast<wSimulationBlockDescriptor*>(std::as_const(*this).getBlockByName(name));
}

const wSimulationBlockDescriptor* wSimulationSystemScheme::getBlockByIndex(int index) const {
    if (index == kIOBlockIndex) return &ioBlock_;
    if (index == kSpecialCommandsIndex) return &specialCmdsBlock_;
    return blocks_[static_cast<std::size_t>(index)].get();
}

wSimulationBlockDescriptor* wSimulationSystemScheme::getBlockByIndex(int index) {
    return const_cast<wSimulationBlockDescriptor*>(std::as_const(*this).getBlockByIndex(index));
}

int wSimulationSystemScheme::indexOfBlock(const wSimulationBlockDescriptor* block) const {
    for (std::size_t i = 0; i < blocks_.size(); ++i)
        if (blocks_[i].get() == block) return static_cast<int>(i);
    return getBlocksCount();
}

// ---- Connections

int wSimulationSystemScheme::indexOfConnection(const Connection& c) const {
    for (std::size_t i = 0; i < connections_.size(); ++i)
        if (connections_[i] == c) return static_cast<int>(i);
    return -1;
}

void wSimulationSystemScheme::removeConnection(const Connection& c) {
    const int i = indexOfConnection(c);
    if (i >= 0) connections_.erase(connections_.begin() + i);
}

bool wSimulationSystemScheme::findInputConnection_(const wSimulationBlockDescriptor* to, std::string_view toLead) const {
    return std::any_of(connections_.begin(), connections_.end(),
                       [&](const Connection& c) { return !c.isPort && c.to == to && c.toLead == toLead; });
}

// ---- The scheme's own leads

void wSimulationSystemScheme::addIOLead(bool isInput, bool isPort, const zo::string& name, eLeadType type) {
    ioBlock_.addLead(isInput, isPort, name, type);
}

void wSimulationSystemScheme::removeIOLead(bool isInput, bool isPort, std::string_view name) {
    ioBlock_.removeLead(isInput, isPort, name);
}

void wSimulationSystemScheme::renameIOLead(bool isInput, bool isPort, std::string_view oldName,
                                           const zo::string& newName) {
    ioBlock_.renameLead(isInput, isPort, oldName, newName);
}

// ---- Solver, systems, dump

void wSimulationSystemScheme::setOdeSolverDescriptor(std::unique_ptr<wOdeSolverDescriptor> descriptor) {
    solver_ = std::move(descriptor);
}

void wSimulationSystemScheme::setOdeSolverDescriptor(wOdeSolverDescriptor* descriptor) {
    solver_.reset(descriptor);
}

wSimulationSystem* wSimulationSystemScheme::instantiate(Lua::Loader* loader, unsigned char* data) const {
    return new wSimulationSystem(this, loader, data);
}

void wSimulationSystemScheme::debug_dump() const {
    wSimulationLogger& log = wSimulationLogger::instance();
    if (!log.enabled(LOG_TRACE)) return;
    using Indenter = wSimulationLogger::Indenter;

    log << Indenter() << "Debug dump of system:" << std::endl;
    log << Indenter() << "Blocks:" << std::endl;
    {
        wLogIndentScope list;
        for (const auto& b : blocks_) {
            wLogIndentScope block;
            b->debug_dump();
        }
    }
    // A scheme that was never laid out has no offsets to show for its I/O block.
    if (memorySize_ != 0) {
        log << Indenter() << "I/O block:" << std::endl;
        wLogIndentScope io;
        ioBlock_.debug_dump();
    }
    log << Indenter() << "-- End of dump" << std::endl;
}
