// libFuzzer target: schemes built from the bytes instead of read from them.
//
// Mutated Lua text mostly stops at the parser or at the first bad key, so the runtime sees
// few of those inputs. Here the bytes choose block classes from the factory, their
// parameters (ordinary, extreme, ill-typed or left open for the overrides), the class's
// own lists (sum inputs, constants, multiplexor outputs) and the solver; the scheme is
// loaded for editing, wired up through the editing interface (mostly type-correct and
// loop-free, sometimes not), edited a little, saved, and the saved file is taken down
// every path a host takes (SchemeChecks.h).
#include <fuzzer/FuzzedDataProvider.h>

#include <cstdint>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "SchemeChecks.h"

namespace {

// Per block name, the entries of its overrides table ("p = 1, q = 2, ").
using Overrides = std::map<std::string, std::string>;
using Connection = wSimulationSystemScheme::Connection;

const char* const kNumbers[] = {"0",     "1",      "-1",         "0.1",   "0.02",  "2.5",  "1e-3", "-0.5",
                                "1e9",   "3",      "0/0",        "math.huge", "-math.huge", "1e-300", "1e300",
                                "10",    "0.25",   "-1/math.huge"};
const char* const kInts[] = {"0", "1", "2", "3", "-1", "5", "100", "2147483647", "-2147483648", "6", "7", "1.5"};

class Generator {
public:
    explicit Generator(FuzzedDataProvider& in) : in_(in) {}

    // A scheme file with blocks and a solver but no connections; `overrides` gets a
    // value for every parameter left open.
    std::string blocks(Overrides& overrides) {
        const auto classes = wSimulationBlockFactory::instance()->getKeysDescriptions();
        const int count = in_.ConsumeIntegralInRange(1, 12);
        std::string text = "simulation_scheme = {\n  blocks = {\n";
        for (int i = 0; i < count; ++i) {
            const zo::string& cls = classes[in_.ConsumeIntegralInRange<std::size_t>(0, classes.size() - 1)].first;
            text += "    " + block(cls, "b" + std::to_string(i), overrides) + ",\n";
        }
        text += "  },\n";
        if (in_.ConsumeIntegralInRange(0, 7) != 0)
            text += "  solver = { __type = \"wSolverExplEulerDescriptor\", H = " +
                    pick(in_.ConsumeBool() ? std::vector<const char*>{"0.01", "0.1", "0.001"} : numbers()) + " },\n";
        text += "  io = { inputWires = {}, inputPorts = {}, outputWires = {}, outputPorts = {} },\n";
        text += "  connections = {},\n}\n";
        return text;
    }

    // Wires the loaded scheme up and edits it a little.
    void connect(wSimulationSystemScheme& scheme) {
        for (const auto& block : scheme.getBlocks()) {
            feed(scheme, *block, false);
            feed(scheme, *block, true);
            expose(scheme, *block, false);
            expose(scheme, *block, true);
        }
        if (in_.ConsumeIntegralInRange(0, 7) == 0) {
            scheme.addIOLead(false, true, "reset", LEAD_BOOL);
            scheme.addConnection(Connection{&scheme.getIOBlock(), &scheme.getSpecialCmdsBlock(), "reset",
                                            "reset_diff_state", true});
        }
        edit(scheme);
    }

private:
    FuzzedDataProvider& in_;
    int leads_ = 0;

    static std::vector<const char*> numbers() { return {std::begin(kNumbers), std::end(kNumbers)}; }
    static std::vector<const char*> ints() { return {std::begin(kInts), std::end(kInts)}; }
    std::string pick(const std::vector<const char*>& from) {
        return from[in_.ConsumeIntegralInRange<std::size_t>(0, from.size() - 1)];
    }
    bool oneIn(int n) { return in_.ConsumeIntegralInRange(1, n) == 1; }

    // A value of parameter type `type`, now and then one of another type.
    std::string value(eParameterType type) {
        if (oneIn(24)) type = static_cast<eParameterType>(in_.ConsumeIntegralInRange(0, kParameterTypeCount - 1));
        switch (type) {
            case PARAM_INT: return pick(ints());
            case PARAM_UINT: return pick({"0", "1", "3", "4294967295", "-1"});
            case PARAM_BOOL: return in_.ConsumeBool() ? "true" : "false";
            case PARAM_STRING: return "\"s\"";
            case PARAM_VEC3D: return "{ " + pick(numbers()) + ", " + pick(numbers()) + ", " + pick(numbers()) + " }";
            default:  // doubles, and lists of doubles
                if (oneIn(6)) return "{ " + pick(numbers()) + ", " + pick(numbers()) + " }";
                return pick(numbers());
        }
    }

    // One parameter entry of __parameters: mostly a value, sometimes open or missing.
    std::string parameter(const zo::string& block, const zo::string& name, eParameterType type,
                          Overrides& overrides) {
        const int how = in_.ConsumeIntegralInRange(0, 15);
        if (how == 0) return {};
        if (how == 1) {
            overrides[block] += name + " = " + value(type) + ", ";
            return name + " = {}, ";
        }
        return name + " = { value = " + value(type) + " }, ";
    }

    // Named entries "<prefix>1", "<prefix>2", ... with `extra` after each name.
    template <class Extra>
    std::string list(const char* key, const char* prefix, int max, Extra extra) {
        std::string text = std::string(key) + " = { ";
        const int n = in_.ConsumeIntegralInRange(0, max);
        for (int i = 1; i <= n; ++i) text += "{ name = \"" + std::string(prefix) + std::to_string(i) + "\"" + extra() + " }, ";
        return text + "}";
    }

    std::string block(const zo::string& cls, const zo::string& name, Overrides& overrides) {
        std::string params;
        std::unique_ptr<wSimulationBlockDescriptor> prototype(wSimulationBlockFactory::instance()->generate(cls));
        for (const wBlockParameterContainer& p : prototype->getParametersList())
            params += parameter(name, p.getName(), p.getProxy()->getType(), overrides);

        // The class's own lists, which decide its leads.
        std::string extra;
        const std::string_view c = cls;
        if (c.starts_with("wBlockSummatorDescriptor")) {
            const bool isInt = c.ends_with("<int>");
            extra = list("inputs", "in", 4, [&] { return ", coeff = " + (isInt ? pick(ints()) : pick(numbers())); });
        } else if (c.starts_with("wBlockAvgerageValDescriptor") || c.starts_with("wBlockMaxValDescriptor") ||
                   c.starts_with("wBlockMinValDescriptor")) {
            extra = list("inputs", "in", 5, [] { return std::string(); });
        } else if (c == "wBlockConstantsDescriptor") {
            std::vector<eParameterType> types;
            extra = list("values", "c", 4, [&] {
                types.push_back(static_cast<eParameterType>(in_.ConsumeIntegralInRange(0, kParameterTypeCount)));
                return ", type = " + std::to_string(types.back());
            });
            for (std::size_t i = 0; i < types.size(); ++i)
                params += parameter(name, "c" + std::to_string(i + 1), types[i], overrides);
        } else if (c == "wBlockMultiplexDescriptor") {
            const std::string type = std::to_string(in_.ConsumeIntegralInRange(0, 6));
            params += "type = { value = " + type + " }, ";
            extra = list("outputs", "out", 3, [&] { return ", type = " + (oneIn(8) ? std::string("1") : type); });
        }
        std::string text = "{ __name = \"" + name + "\", __type = \"" + cls + "\", __parameters = { " + params + "}";
        if (!extra.empty()) text += ", " + extra;
        return text + " }";
    }

    // An output of the right kind and type to feed one input of `to`.
    struct Source {
        wSimulationBlockDescriptor* block;
        zo::string lead;
    };

    // Connects the inputs (wires or ports) of `to`: mostly from a type-matching output of
    // an earlier block or of a stateful one (so mostly without loops), else from a new
    // scheme input; now and then from anything, or not at all.
    void feed(wSimulationSystemScheme& scheme, wSimulationBlockDescriptor& to, bool ports) {
        const int self = scheme.indexOfBlock(&to);
        for (const wLeadDescription& in : to.getLeads(true, ports)) {
            if (oneIn(ports ? 3 : 24)) continue;
            const bool anything = oneIn(24);
            std::vector<Source> candidates;
            for (int b = 0; b < scheme.getBlocksCount(); ++b) {
                wSimulationBlockDescriptor* from = scheme.getBlocks()[static_cast<std::size_t>(b)].get();
                if (!anything && b >= self && from->isOfType(BLOCK_STATELESS)) continue;
                for (const wLeadDescription& out : from->getLeads(false, ports))
                    if (anything || out.type == in.type) candidates.push_back(Source{from, out.name});
            }
            if (candidates.empty() || oneIn(4)) {
                const zo::string name = "in" + std::to_string(++leads_);
                try {
                    scheme.addIOLead(false, ports, name, in.type);
                } catch (const Exception&) {
                    continue;
                }
                scheme.addConnection(Connection{&scheme.getIOBlock(), &to, name, in.name, ports});
                continue;
            }
            const Source& s = candidates[in_.ConsumeIntegralInRange<std::size_t>(0, candidates.size() - 1)];
            scheme.addConnection(Connection{s.block, &to, s.lead, in.name, ports});
        }
    }

    // Makes some outputs of `from` scheme outputs.
    void expose(wSimulationSystemScheme& scheme, wSimulationBlockDescriptor& from, bool ports) {
        for (const wLeadDescription& out : from.getLeads(false, ports)) {
            if (!oneIn(3)) continue;
            const zo::string name = "out" + std::to_string(++leads_);
            try {
                scheme.addIOLead(true, ports, name, out.type);
            } catch (const Exception&) {
                continue;
            }
            scheme.addConnection(Connection{&from, &scheme.getIOBlock(), out.name, name, ports});
        }
    }

    // A few editing operations; refusals are answers, not failures.
    void edit(wSimulationSystemScheme& scheme) {
        const int count = in_.ConsumeIntegralInRange(0, 3);
        for (int i = 0; i < count && scheme.getBlocksCount() > 0; ++i) {
            wSimulationBlockDescriptor* block =
                scheme.getBlockByIndex(in_.ConsumeIntegralInRange(0, scheme.getBlocksCount() - 1));
            try {
                switch (in_.ConsumeIntegralInRange(0, 4)) {
                    case 0: scheme.renameBlock(block, "b" + std::to_string(in_.ConsumeIntegralInRange(0, 12))); break;
                    case 1: scheme.reorderBlock(block, in_.ConsumeIntegralInRange(-1, 6)); break;
                    case 2:
                        if (!scheme.getConnections().empty())
                            scheme.removeConnection(scheme.getConnections()[in_.ConsumeIntegralInRange<std::size_t>(
                                0, scheme.getConnections().size() - 1)]);
                        break;
                    case 3: {
                        // The connections that name a block go first, as the interface asks.
                        std::vector<Connection> named;
                        for (const Connection& c : scheme.getConnections())
                            if (c.from == block || c.to == block) named.push_back(c);
                        for (const Connection& c : named) scheme.removeConnection(c);
                        scheme.removeBlock(block);
                        break;
                    }
                    default:
                        if (!scheme.getIOLeads(false, false).empty())
                            scheme.renameIOLead(false, false, scheme.getIOLeads(false, false)[0].name,
                                                "in" + std::to_string(in_.ConsumeIntegralInRange(0, 3)));
                        break;
                }
            } catch (const Exception&) {
            }
        }
    }
};

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    fuzz::logEverything();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const fuzz::ScratchDir dir;
    static const std::string blocksFile = dir.file("blocks.lua");
    static const std::string schemeFile = dir.file("scheme.lua");

    FuzzedDataProvider in(data, size);
    Generator generate(in);
    Overrides overrides;
    fuzz::writeFile(blocksFile, generate.blocks(overrides));

    wSimulationSystemScheme scheme;
    try {
        zo::vector<int> discarded;
        scheme.loadForEdit(blocksFile, discarded);
        generate.connect(scheme);
        scheme.save(schemeFile);
    } catch (const Exception&) {
        return 0;  // parameters or lists this class refuses
    }
    std::string text = fuzz::readFile(schemeFile) + "overrides = {\n";
    for (const auto& [block, entries] : overrides) text += "  " + block + " = { " + entries + "},\n";
    fuzz::writeFile(schemeFile, text + "}\n");
    fuzz::checkSchemeFile(dir, schemeFile);
    return 0;
}
