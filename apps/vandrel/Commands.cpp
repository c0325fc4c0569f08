// The editor-side commands: blocks, fmt, dump (check has its own file).
#include "Commands.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <string_view>
#include <vector>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <sstream>

#include <unistd.h>

#include "Csv.h"
#include "Files.h"
#include "vandrel/platform/LuaCompare.h"
#include "vandrel/platform/Suggest.h"
#include "vandrel/vandrel.h"

namespace host {

namespace {

const char* parameterTypeName(eParameterType t) {
    static const char* const names[] = {"int", "double", "string", "vector", "bool", "unsigned"};
    return t >= 0 && t < kParameterTypeCount ? names[t] : "?";
}

void printLeads(const char* title, const wLeadList& leads) {
    if (leads.empty()) return;
    std::cout << "    " << title << ":";
    for (const auto& l : leads) std::cout << " " << l.name << " (" << leadTypeNames[l.type] << ")";
    std::cout << "\n";
}

std::string readFile(const std::string& name) {
    std::ifstream in(name, std::ios::binary);
    std::ostringstream s;
    s << in.rdbuf();
    return s.str();
}

}  // namespace

// Loads `file` for running, with the overrides table from `overrides` when given.
std::unique_ptr<wSimulationSystemScheme> loadSchemeForRun(const std::string& file, const std::string& overrides) {
    auto scheme = std::make_unique<wSimulationSystemScheme>();
    Lua::Loader table;
    if (overrides.empty()) table.createGlobalTable("overrides");
    else table.load(overrides, "overrides");
    scheme->loadForRuntime(file, &table);
    // An override that changes nothing, or an entry of the file that nothing reads, is
    // almost always a misspelt name. Warnings about the file name the file themselves.
    for (const zo::string& w : scheme->getLoadWarnings()) {
        std::cerr << "vandrel: warning: ";
        if (w.starts_with("overrides")) std::cerr << (overrides.empty() ? file : overrides) << ": ";
        std::cerr << printable(w) << "\n";
    }
    return scheme;
}

void applyResourceLimits(double maxBlockMib, double maxSchemeMib) {
    wResourceLimits limits = getResourceLimits();
    auto bytes = [](const char* option, double mib) {
        // Above 2^43 MiB the byte count no longer fits 64 bits.
        if (!(mib > 0 && mib < 8796093022208.0))
            throw UsageError{std::string(option) + " must be a positive number of MiB, got " + doubleToString(mib)};
        return static_cast<std::uint64_t>(mib * 1048576.0);
    };
    if (maxBlockMib != 0) limits.maxBlockBytes = bytes("--max-block-mib", maxBlockMib);
    if (maxSchemeMib != 0) limits.maxSchemeBytes = bytes("--max-scheme-mib", maxSchemeMib);
    setResourceLimits(limits);
}

int blocksCommand(bool verbose) {
    for (const auto& [key, description] : wSimulationBlockFactory::instance()->getKeysDescriptions()) {
        std::cout << key << "  —  " << description << "\n";
        if (!verbose) continue;
        std::unique_ptr<wSimulationBlockDescriptor> d(wSimulationBlockFactory::instance()->generate(key));
        printLeads("input wires", d->getInputWires());
        printLeads("output wires", d->getOutputWires());
        printLeads("input ports", d->getInputPorts());
        printLeads("output ports", d->getOutputPorts());
        const auto params = d->getParametersList();
        if (!params.empty()) {
            std::cout << "    parameters:";
            for (const auto& p : params) {
                const auto* proxy = p.getProxy();
                if (!proxy) continue;
                std::cout << " " << p.getName() << " (" << parameterTypeName(proxy->getType())
                          << ", default " << proxy->toString() << ")";
            }
            std::cout << "\n";
        }
    }
    return kExitOk;
}

namespace {

// Line of the first Lua comment in `source`, or 0 when it has none. Strings (quoted and
// long brackets) are skipped, so "--" inside them does not count.
int firstCommentLine(std::string_view source) {
    int line = 1;
    // The length of a long bracket "[==[" opening at i (its level + 2), or 0.
    auto longOpen = [&](std::size_t i) -> std::size_t {
        if (i >= source.size() || source[i] != '[') return 0;
        std::size_t k = i + 1;
        while (k < source.size() && source[k] == '=') ++k;
        return k < source.size() && source[k] == '[' ? k - i + 1 : 0;
    };
    // Skips to just after the long bracket closing one of `open` characters.
    auto skipLong = [&](std::size_t i, std::size_t open) {
        const std::string close = "]" + std::string(open - 2, '=') + "]";
        const std::size_t end = source.find(close, i);
        const std::size_t stop = end == std::string_view::npos ? source.size() : end + close.size();
        for (std::size_t k = i; k < stop; ++k) line += source[k] == '\n';
        return stop;
    };
    for (std::size_t i = 0; i < source.size();) {
        const char c = source[i];
        if (c == '\n') {
            ++line;
            ++i;
        } else if (c == '-' && i + 1 < source.size() && source[i + 1] == '-') {
            return line;
        } else if (c == '"' || c == '\'') {
            for (++i; i < source.size() && source[i] != c && source[i] != '\n'; ++i)
                if (source[i] == '\\' && i + 1 < source.size()) line += source[++i] == '\n';
            ++i;
        } else if (const std::size_t open = longOpen(i)) {
            i = skipLong(i + open, open);
        } else {
            ++i;
        }
    }
    return 0;
}

// Collects the library's level-2 messages (discarded connections) while it lives.
class WarningCapture {
public:
    WarningCapture() : log_(wSimulationLogger::instance()), level_(log_.getLevel()), stream_(log_.getStream()) {
        log_.setStream(&text_);
        log_.setLevel(LOG_WARNINGS);
    }
    ~WarningCapture() {
        log_.setLevel(level_);
        log_.setStream(stream_);
    }
    WarningCapture(const WarningCapture&) = delete;
    WarningCapture& operator=(const WarningCapture&) = delete;
    // The text after `prefix` of each captured line that starts with it.
    std::vector<std::string> lines(std::string_view prefix) const {
        std::vector<std::string> out;
        std::istringstream in(text_.str());
        for (std::string l; std::getline(in, l);) {
            const std::size_t at = l.find(prefix);
            if (at != std::string::npos) out.push_back(l.substr(at + prefix.size()));
        }
        return out;
    }

private:
    wSimulationLogger& log_;
    weSimulationLogLevel level_;
    std::ostream* stream_;
    std::ostringstream text_;
};

// Removes a scratch file when it is not handed on.
struct ScratchFile {
    std::string path;
    ~ScratchFile() {
        if (path.empty()) return;
        std::error_code ignored;
        std::filesystem::remove(path, ignored);
    }
};

}  // namespace

namespace {

// For a dropped parameter table: that the block has no such parameter, and the one
// probably meant. An editing load keeps the blocks in file order.
std::string parameterHint(wSimulationSystemScheme& scheme, std::string_view path) {
    constexpr std::string_view prefix = "simulation_scheme.blocks[";
    constexpr std::string_view parameters = "].__parameters.";
    const std::size_t close = path.find(parameters);
    if (!path.starts_with(prefix) || close == std::string_view::npos) return {};
    const std::string name(path.substr(close + parameters.size()));
    const int position = std::atoi(std::string(path.substr(prefix.size(), close - prefix.size())).c_str());
    if (position < 1 || position > scheme.getBlocksCount() || name.find_first_of(".[") != std::string::npos) return {};
    wSimulationBlockDescriptor& block = *scheme.getBlocks()[static_cast<std::size_t>(position - 1)];
    zo::vector<zo::string> names;
    for (const wBlockParameterContainer& p : block.getParametersList()) names.push_back(p.getName());
    if (std::find(names.begin(), names.end(), name) != names.end()) return {};
    return ": block " + block.getName() + " (" + block.getBlockTypeName() + ") has no parameter " + name +
           Text::didYouMean(name, names);
}

}  // namespace

int fmtCommand(const std::string& file, const std::string& out, bool check, bool force) {
    wSimulationSystemScheme scheme;
    zo::vector<int> discarded;
    std::vector<std::string> reasons;
    {
        WarningCapture capture;
        scheme.loadForEdit(file, discarded);
        reasons = capture.lines("Discarding connection: ");
    }

    // The canonical form goes to a scratch file beside its destination first: the user's
    // file is replaced only by a complete rewrite that keeps everything it held.
    namespace fs = std::filesystem;
    const fs::path target = fs::weakly_canonical(out.empty() ? file : out);
    ScratchFile scratch{makeScratchFile(check ? scratchDirectory() : target.parent_path().string(),
                                        "." + target.filename().string() + ".", ".tmp")};
    scheme.save(scratch.path);
    const std::string original = readFile(file), canonical = readFile(scratch.path);

    // What the rewrite would lose: connections that cannot be made, entries the scheme
    // model does not know (misspelt parameters and keys), and comments.
    std::vector<std::string> losses;
    for (std::size_t i = 0; i < discarded.size(); ++i)
        losses.push_back("connection " + std::to_string(discarded[i] + 1) + " cannot be made" +
                         (i < reasons.size() ? ": " + reasons[i] : std::string()));
    Lua::Loader before, after;
    before.load(file, "simulation_scheme");
    after.load(scratch.path, "simulation_scheme");
    for (const Lua::LostEntry& e : Lua::findLostEntries(before, after, "simulation_scheme")) {
        // Dropped connections shift the ones after them; they are reported above.
        if (!discarded.empty() && e.path.starts_with("simulation_scheme.connections")) continue;
        losses.push_back(std::string(e.path) + (e.after.empty() ? " = " + std::string(e.before) + " would be dropped"
                                                                : " would change from " + std::string(e.before) +
                                                                      " to " + std::string(e.after)) +
                         parameterHint(scheme, e.path));
    }
    if (const int line = firstCommentLine(original))
        losses.push_back("its comments would be dropped (the first is on line " + std::to_string(line) + ")");

    for (const std::string& l : losses) std::cerr << "vandrel: " << file << ": " << printable(l) << "\n";
    // --check says what a rewrite would change and lose, and writes nothing.
    if (check) {
        if (canonical != original) std::cerr << "vandrel: " << file << " is not in canonical form\n";
        return canonical == original && losses.empty() ? kExitOk : kExitError;
    }
    if (!losses.empty() && !force) {
        std::cerr << "vandrel: " << file << ": not rewritten; fix it, or pass --force to write the canonical form"
                  << " without what it cannot keep\n";
        return kExitError;
    }

    // Keep the permissions of the file being replaced; a new file gets the usual ones.
    std::error_code ec;
    const auto perms = fs::status(target, ec).permissions();
    if (!ec && fs::exists(target)) fs::permissions(scratch.path, perms, ec);
    else fs::permissions(scratch.path, fs::perms::owner_read | fs::perms::owner_write | fs::perms::group_read |
                                           fs::perms::others_read, ec);
    fs::rename(scratch.path, target);
    scratch.path.clear();
    return kExitOk;
}

int dumpCommand(const std::string& file, const std::string& overrides) {
    auto scheme = loadSchemeForRun(file, overrides);
    auto& log = wSimulationLogger::instance();
    log.setStream(&std::cout);
    log.setLevel(LOG_TRACE);
    scheme->debug_dump();
    log.setLevel(LOG_NONE);
    log.setStream(nullptr);
    return kExitOk;
}

}  // namespace host
