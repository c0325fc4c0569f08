// The Lua script block through real scheme and script files, and its mechanics:
// substitution, per-block environments, value orders, limits, lifetimes.
#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include <lua.hpp>

#include "support/SchemeFiles.h"
#include "vandrel/blocks/LuaBlock.h"
#include "vandrel/platform/LuaLoader.h"
#include "vandrel/platform/LuaScript.h"

using testutil::kIO;
using testutil::messageOf;
using testutil::PortRecorder;
using testutil::SchemeText;
using testutil::sendToInput;

namespace {

using Leads = std::vector<std::pair<std::string, eLeadType>>;

// A lead list as Lua source.
std::string leads(const Leads& list) {
    std::string s = "{";
    for (const auto& [name, type] : list)
        s += " { name = \"" + name + "\", type = " + std::to_string(static_cast<int>(type)) + " },";
    return s + " }";
}

// The entry of a Lua block running `file`; `extra`: further "__parameters" entries,
// `additional`: the body of "additional_params".
struct LuaBlockEntry {
    std::string file;
    Leads inputs, outputs, inPorts, outPorts;
    std::string extra, additional;
};

int addLuaBlock(SchemeText& s, const std::string& name, const LuaBlockEntry& e) {
    return s.block(name, "wBlockLuaDescriptor", "[\"File name\"] = { value = \"" + e.file + "\" }, " + e.extra,
                   "inputs = " + leads(e.inputs) + ", outputs = " + leads(e.outputs) + ", inPorts = " +
                       leads(e.inPorts) + ", outPorts = " + leads(e.outPorts) + ", additional_params = { " +
                       e.additional + " }");
}

// Scripts and a scheme written into a fresh directory, loaded for running; `system` is
// made only when asked (instantiate()).
struct ScriptScheme {
    ScriptScheme(const std::string& schemeText, const std::map<std::string, std::string>& scripts)
        : dir(testutil::freshDir()) {
        for (const auto& [name, text] : scripts) testutil::writeFile(dir / name, text);
        file = testutil::writeFile(dir / "scheme.lua", schemeText);
    }
    void load() {
        scheme = std::make_unique<wSimulationSystemScheme>();
        scheme->loadForRuntime(file);
    }
    wSimulationSystem& instantiate() {
        if (!scheme) load();
        system.reset(scheme->instantiate());
        return *system;
    }
    std::string path(const std::string& name) const { return (dir / name).string(); }

    std::filesystem::path dir;
    std::string file;
    std::unique_ptr<wSimulationSystemScheme> scheme;
    std::unique_ptr<wSimulationSystem> system;
};

// One Lua block "b" running `script` as "s.lua", its wires and ports on the scheme.
std::string oneBlockScheme(LuaBlockEntry e) {
    e.file = "s.lua";
    SchemeText s;
    const int b = addLuaBlock(s, "b", e);
    for (const auto& [n, t] : e.inputs) s.inputWire(n, t, b, n);
    for (const auto& [n, t] : e.outputs) s.outputWire(b, n, n, t);
    for (const auto& [n, t] : e.inPorts) s.inputPort(n, t, b, n);
    for (const auto& [n, t] : e.outPorts) s.outputPort(b, n, n, t);
    return s.text();
}

// The message of whatever loading, instantiating and `steps` updates throw.
std::string failureOf(const std::string& schemeText, const std::string& script, int steps = 1) {
    ScriptScheme r(schemeText, {{"s.lua", script}});
    return messageOf([&] {
        wSimulationSystem& sys = r.instantiate();
        double T = 0.0;
        for (int i = 0; i < steps; ++i) T += sys.simulate(T);
    });
}

bool contains(const std::string& text, const std::string& part) { return text.find(part) != std::string::npos; }

// ---- End to end

TEST(LuaBlock, ControllerReadsWritesAndSchedulesThroughSchemeFiles) {
    LuaBlockEntry e;
    e.inputs = {{"level", LEAD_DOUBLE}, {"enable", LEAD_BOOL}};
    e.outputs = {{"valve", LEAD_DOUBLE}, {"calls", LEAD_INT}, {"open", LEAD_BOOL}};
    e.extra = "gain = { value = 2.5 }, period = { value = 0.25 }";
    e.additional = "{ name = \"gain\", type = 1 }, { name = \"period\", type = 1 }";
    const std::string script = R"(
function init() n = 0 end
function run(t)
  n = n + 1
  local u = 0
  if inputs.enable() then u = ${gain} * (1 - inputs.level()) end
  outputs.valve(u)
  outputs.calls(n)
  outputs.open(u > 0)
  return ${period}
end
)";
    ScriptScheme r(oneBlockScheme(e), {{"s.lua", script}});
    wSimulationSystem& sys = r.instantiate();
    sys.setInput<double>("level", 0.2);
    sys.setInput<bool>("enable", true);
    EXPECT_EQ(sys.simulate(0.0), 0.25);
    EXPECT_DOUBLE_EQ(sys.getOutput<double>("valve"), 2.5 * 0.8);
    EXPECT_EQ(sys.getOutput<int>("calls"), 1);
    EXPECT_TRUE(sys.getOutput<bool>("open"));
    sys.setInput<bool>("enable", false);
    // Not due yet: nothing changes before 0.25.
    EXPECT_NEAR(sys.simulate(0.2), 0.05, 1e-12);
    EXPECT_EQ(sys.getOutput<int>("calls"), 1);
    sys.simulate(0.25);
    EXPECT_EQ(sys.getOutput<double>("valve"), 0.0);
    EXPECT_EQ(sys.getOutput<int>("calls"), 2);
    EXPECT_FALSE(sys.getOutput<bool>("open"));
    // Each update is traced at level 3.
    testutil::LogCapture log(3);
    sys.simulate(0.5);
    EXPECT_TRUE(contains(log.text(), "wBlockLua(0.5)\n")) << log.text();
}

TEST(LuaBlock, PortsCallOnPortAndSendToEveryConnectedInput) {
    LuaBlockEntry e;
    e.inPorts = {{"cmd", LEAD_INT}, {"go", LEAD_BOOL}, {"id", LEAD_OBJECT_ID}};
    e.outPorts = {{"echo", LEAD_DOUBLE}};
    const std::string script = R"(
function init() end
function run(t) return -1 end
function on_cmd(v) outports.echo(v * 10) end
function on_go(b) if b then outports.echo(1) else outports.echo(0) end end
function on_id(v) outports.echo(v) end
)";
    ScriptScheme r(oneBlockScheme(e), {{"s.lua", script}});
    wSimulationSystem& sys = r.instantiate();
    PortRecorder<double> rec;
    rec.listen(sys, "echo");
    sys.simulate(0.0);
    sendToInput<int>(sys, "cmd", -7);
    sendToInput<bool>(sys, "go", true);
    sendToInput<bool>(sys, "go", false);
    sendToInput<unsigned int>(sys, "id", 4000000000u);
    EXPECT_EQ(rec.take(), (std::vector<double>{-70, 1, 0, 4000000000.0}));
}

TEST(LuaBlock, VectorAndQuaternionComponentOrders) {
    LuaBlockEntry e;
    e.inputs = {{"v", LEAD_VECTOR}, {"q", LEAD_QUATERNION}};
    e.outputs = {{"v2", LEAD_VECTOR}, {"q2", LEAD_QUATERNION}};
    e.inPorts = {{"qp", LEAD_QUATERNION}, {"vp", LEAD_VECTOR}};
    e.outPorts = {{"qo", LEAD_QUATERNION}, {"vo", LEAD_VECTOR}};
    // Getter results go straight to the setters: a quaternion turns by one place.
    const std::string script = R"(
function init() end
function run(t) outputs.v2(inputs.v()) outputs.q2(inputs.q()) return 1 end
function on_qp(a, b, c, d) outports.qo(a, b, c, d) end
function on_vp(a, b, c) outports.vo(a, b, c) end
)";
    ScriptScheme r(oneBlockScheme(e), {{"s.lua", script}});
    wSimulationSystem& sys = r.instantiate();
    PortRecorder<Rot3d> quats;
    PortRecorder<Vec3d> vecs;
    quats.listen(sys, "qo");
    vecs.listen(sys, "vo");
    sys.setInput<Vec3d>("v", Vec3d{1, 2, 3});
    sys.setInput<Rot3d>("q", Rot3d{1, 2, 3, 4});  // stored x, y, z, w
    sys.simulate(0.0);
    EXPECT_EQ(sys.getOutput<Vec3d>("v2"), (Vec3d{1, 2, 3}));
    // Read as w, x, y, z = 4, 1, 2, 3; stored in order as x, y, z, w.
    EXPECT_EQ(sys.getOutput<Rot3d>("q2"), (Rot3d{4, 1, 2, 3}));
    sendToInput<Rot3d>(sys, "qp", Rot3d{5, 6, 7, 8});
    sendToInput<Vec3d>(sys, "vp", Vec3d{9, 10, 11});
    EXPECT_EQ(quats.take(), (std::vector<Rot3d>{Rot3d{8, 5, 6, 7}}));
    EXPECT_EQ(vecs.take(), (std::vector<Vec3d>{Vec3d{9, 10, 11}}));
}

TEST(LuaBlock, SettersTruncateIntegersAndCheckBooleans) {
    LuaBlockEntry e;
    e.outputs = {{"i", LEAD_INT}, {"b", LEAD_BOOL}};
    // What "i" holds after one step, as "i=<value>", or the message.
    const std::vector<std::pair<std::string, std::vector<std::string>>> cases = {
        {"outputs.i(4294967297)", {"i=1"}},  // 2^32 + 1
        {"outputs.i(-2)", {"i=-2"}},
        {"outputs.b(1)", {"bad argument #1", "boolean expected, got number"}},
        {"outputs.i('x')", {"number expected, got string"}},
    };
    for (const auto& [statement, parts] : cases) {
        ScriptScheme r(oneBlockScheme(e), {{"s.lua", "function init() end\nfunction run(t) " + statement + " return 1 end\n"}});
        const std::string result = messageOf([&] {
            r.instantiate().simulate(0.0);
            throw std::runtime_error("i=" + std::to_string(r.system->getOutput<int>("i")));
        });
        for (const std::string& part : parts) EXPECT_TRUE(contains(result, part)) << statement << " -> " << result;
    }
}

// ---- Substitution

// A descriptor with additional parameters gain = 2.5, a = <a>, b = "x", on = true, made
// in code, that loads `line` as the script's first line and returns the global `text`.
std::string substituted(const std::string& line, const std::string& a, std::string* error) {
    const auto dir = testutil::freshDir();
    testutil::writeFile(dir / "sub.lua", line + "\nfunction init() end\nfunction run(t) return 1 end\n");
    wBlockLuaDescriptor d;
    d.setName("subst");
    d.fileName.set("sub.lua");
    zo::vector<wBlockParameterContainer> params;
    params.push_back(wBlockParameterContainer());  // "File name": skipped
    params.push_back(createParameter(PARAM_DOUBLE, "gain"));
    params.push_back(createParameter(PARAM_STRING, "a"));
    params.push_back(createParameter(PARAM_STRING, "b"));
    params.push_back(createParameter(PARAM_BOOL, "on"));
    params[1].getProxy()->fromString("2.5");
    static_cast<wBlockParameterProxy<zo::string>*>(params[2].getProxy())->set(a);
    static_cast<wBlockParameterProxy<zo::string>*>(params[3].getProxy())->set("x");
    params[4].getProxy()->fromString("1");
    d.setParameters(params);
    *error = messageOf([&] {
        d.loadScript_(dir.string() + "/");
        throw std::runtime_error("");
    });
    if (!error->empty()) return {};
    lua_State* L = d.getLuaState_();
    lua_getglobal(L, "text");
    std::string text = lua_isstring(L, -1) ? lua_tostring(L, -1) : "<none>";
    lua_pop(L, 1);
    return text;
}

TEST(LuaBlock, SubstitutionReplacesReferencesAndRescansInsertedText) {
    struct Case {
        std::string line, a, text, error;
    };
    const std::vector<Case> cases = {
        {"text = '${gain} ${gain}'", "", "2.5 2.5", ""},
        {"text = '${gain}${gain}'", "", "2.52.5", ""},
        {"text = '${File name}'", "", "sub.lua", ""},
        {"text = '${on}'", "", "1", ""},
        // A reference beginning later inside a value is substituted too...
        {"text = '${a}'", "<${b}>", "<x>", ""},
        // ...one that begins where the replaced one began is not looked at again.
        {"text = '${a}'", "${b}", "${b}", ""},
        {"text = '$${gain}'", "", "$2.5", ""},
        {"text = '$ {gain} {gain} $'", "", "$ {gain} {gain} $", ""},
        {"text = '${gain'\n}", "", "", "Unmatched ${ on line 1"},
        {"text = '${Gain}'", "", "", "Parameter Gain, referenced on line 1 not found."},
        {"text = '${}'", "", "", "Parameter , referenced on line 1 not found."},
        // A value that keeps bringing references of itself would never end.
        {"text = '${a}'", "y${a}", "", "Substitution on line 1 does not end"},
    };
    for (const Case& c : cases) {
        std::string error;
        const std::string text = substituted(c.line, c.a, &error);
        if (c.error.empty()) {
            EXPECT_EQ(error, "") << c.line;
            EXPECT_EQ(text, c.text) << c.line;
        } else {
            EXPECT_EQ(error.substr(0, c.error.size()), c.error) << c.line;
        }
    }
}

TEST(LuaBlock, ParametersListEditsTheDescriptorAndValuesComeFromOverrides) {
    wBlockLuaDescriptor d;
    d.fileName.set("a.lua");
    zo::vector<wBlockParameterContainer> params = d.getParametersList();
    ASSERT_EQ(params.size(), 1u);
    EXPECT_EQ(params[0].getName(), "File name");
    params.push_back(createParameter(PARAM_INT, "n"));
    params[1].getProxy()->fromString("7");
    d.setParameters(params);
    // Setting the list that references the block's own parameters keeps the values.
    d.setParameters(d.getParametersList());
    zo::string value;
    ASSERT_TRUE(d.getParamValue_("n", value));
    EXPECT_EQ(value, "7");
    EXPECT_FALSE(d.getParamValue_("N", value));
    d.getParametersList()[0].getProxy()->fromString("b.lua");
    ASSERT_TRUE(d.getParamValue_("File name", value));
    EXPECT_EQ(value, "b.lua");

    // A parameter left undefined in the file takes its value from the overrides.
    LuaBlockEntry e;
    e.outputs = {{"y", LEAD_DOUBLE}};
    e.extra = "k = {}";
    e.additional = "{ name = \"k\", type = 1 }";
    ScriptScheme r(oneBlockScheme(e), {{"s.lua", "function init() end function run(t) outputs.y(${k}) return 1 end"}});
    Lua::Loader overrides;
    overrides.loadString("overrides = { b = { k = 4.5 } }", "overrides", "overrides");
    r.scheme = std::make_unique<wSimulationSystemScheme>();
    r.scheme->loadForRuntime(r.file, &overrides);
    r.instantiate().simulate(0.0);
    EXPECT_EQ(r.system->getOutput<double>("y"), 4.5);
}

TEST(LuaBlock, SavedEntryKeepsLeadsAndAdditionalParameters) {
    LuaBlockEntry e;
    e.file = "s.lua";
    e.inputs = {{"a", LEAD_DOUBLE}};
    e.outputs = {{"q", LEAD_QUATERNION}};
    e.inPorts = {{"p", LEAD_BOOL}};
    e.outPorts = {{"o", LEAD_INT}};
    e.extra = "gain = { value = 2 }, label = { value = \"x\" }";
    e.additional = "{ name = \"gain\", type = 1 }, { name = \"label\", type = 2 }";
    SchemeText s;
    addLuaBlock(s, "b", e);
    std::string saved;
    auto reloaded = testutil::saveAndReload(s.text(), &saved);
    EXPECT_EQ(testutil::parametersOf(*reloaded, "b"), "File name=s.lua, gain=2, label=x");
    const auto* d = dynamic_cast<const wBlockLuaDescriptor*>(reloaded->getBlockByName("b"));
    ASSERT_NE(d, nullptr);
    EXPECT_EQ(d->getInputWires()[0], (wLeadDescription{"a", LEAD_DOUBLE}));
    EXPECT_EQ(d->getOutputWires()[0], (wLeadDescription{"q", LEAD_QUATERNION}));
    EXPECT_EQ(d->getInputPorts()[0], (wLeadDescription{"p", LEAD_BOOL}));
    EXPECT_EQ(d->getOutputPorts()[0], (wLeadDescription{"o", LEAD_INT}));
    // The lists come before the base entry, in this order.
    const auto at = [&](const char* key) { return saved.find(key); };
    EXPECT_LT(at("inputs ="), at("outputs ="));
    EXPECT_LT(at("outputs ="), at("outPorts ="));
    EXPECT_LT(at("outPorts ="), at("inPorts ="));
    EXPECT_LT(at("inPorts ="), at("additional_params ="));
    EXPECT_LT(at("additional_params ="), at("__name ="));
    // An editing load does not read the script: it need not exist.
    EXPECT_EQ(d->getLuaState_(), nullptr);

    SchemeText bad;
    e.additional = "{ name = \"gain\", type = 6 }";
    addLuaBlock(bad, "b", e);
    EXPECT_TRUE(contains(messageOf([&] { testutil::loadForEdit(bad.text()); }), "Invalid parameter type"));
    SchemeText nameless;
    e.additional = "{ type = 1 }";
    addLuaBlock(nameless, "b", e);
    EXPECT_TRUE(contains(messageOf([&] { testutil::loadForEdit(nameless.text()); }),
                         "additional_params[1].name failed to Lua::Loader::getString"));
}

// ---- Environments and shared state

TEST(LuaBlock, EachRuntimeBlockHasItsOwnGlobalsAndSharesUnderscoreG) {
    LuaBlockEntry e;
    e.inputs = {{"seed", LEAD_INT}};
    e.outputs = {{"mine", LEAD_INT}, {"shared", LEAD_INT}};
    const std::string script = R"(
_G.instances = 0
function init() count = 0; _G.instances = _G.instances + 1 end
function run(t)
  count = count + 1
  outputs.mine(inputs.seed() * 100 + count)
  outputs.shared(_G.instances)
  return 1
end
)";
    ScriptScheme r(oneBlockScheme(e), {{"s.lua", script}});
    r.load();
    // Two systems of one scheme: two blocks of one descriptor, one Lua state.
    std::unique_ptr<wSimulationSystem> first(r.scheme->instantiate());
    std::unique_ptr<wSimulationSystem> second(r.scheme->instantiate());
    first->setInput<int>("seed", 1);
    second->setInput<int>("seed", 2);
    double T = 0.0;
    for (int i = 0; i < 3; ++i) T += first->simulate(T);
    second->simulate(0.0);
    EXPECT_EQ(first->getOutput<int>("mine"), 103);
    EXPECT_EQ(second->getOutput<int>("mine"), 201);
    EXPECT_EQ(first->getOutput<int>("shared"), 2);
    EXPECT_EQ(second->getOutput<int>("shared"), 2);
}

TEST(LuaBlock, ClonesShareTheStateUntilReloadedAndKeepItAlive) {
    LuaBlockEntry e;
    e.outputs = {{"y", LEAD_INT}};
    ScriptScheme r(oneBlockScheme(e), {{"s.lua", "function init() end function run(t) outputs.y(7) return 1 end"}});
    r.load();
    std::unique_ptr<wSimulationSystemScheme> copy(r.scheme->clone());
    auto* original = dynamic_cast<wBlockLuaDescriptor*>(r.scheme->getBlockByName("b"));
    auto* cloned = dynamic_cast<wBlockLuaDescriptor*>(copy->getBlockByName("b"));
    ASSERT_TRUE(original && cloned);
    EXPECT_EQ(original->getLuaState_(), cloned->getLuaState_());
    EXPECT_EQ(original->getScriptState().use_count(), 2);

    // The clone's state outlives the scheme it came from.
    r.scheme.reset();
    std::unique_ptr<wSimulationSystem> sys(copy->instantiate());
    sys->simulate(0.0);
    EXPECT_EQ(sys->getOutput<int>("y"), 7);

    // Loading again replaces the clone's state only; the running block keeps its own.
    lua_State* before = cloned->getLuaState_();
    testutil::writeFile(r.dir / "s.lua", "function init() end function run(t) outputs.y(8) return 1 end");
    cloned->loadScript_(r.dir.string() + "/");
    EXPECT_NE(cloned->getLuaState_(), before);
    sys->simulate(1.0);
    EXPECT_EQ(sys->getOutput<int>("y"), 7);
    std::unique_ptr<wSimulationSystem> fresh(copy->instantiate());
    fresh->simulate(0.0);
    EXPECT_EQ(fresh->getOutput<int>("y"), 8);
}

TEST(LuaBlock, AccessorsKeptByAScriptFailCleanlyOnceTheirBlockIsGone) {
    LuaBlockEntry e;
    e.inputs = {{"x", LEAD_DOUBLE}};
    e.outputs = {{"y", LEAD_DOUBLE}};
    e.outPorts = {{"o", LEAD_DOUBLE}};
    // The first block leaves its accessors in _G; later blocks call them.
    const std::string script = R"(
function init()
  if not _G.kept then _G.kept = { inputs.x, outputs.y, outports.o }; _G.errors = {} end
end
function run(t)
  _G.i = (_G.i or 0) + 1
  local ok, err
  if _G.i == 1 then ok, err = pcall(_G.kept[1]) else ok, err = pcall(_G.kept[_G.i], 1) end
  outputs.y(ok and 1 or -1)
  _G.errors[_G.i] = err
  return 1
end
)";
    ScriptScheme r(oneBlockScheme(e), {{"s.lua", script}});
    r.load();
    std::unique_ptr<wSimulationSystem> first(r.scheme->instantiate());
    std::unique_ptr<wSimulationSystem> second(r.scheme->instantiate());
    first.reset();  // the kept closures' block is gone
    lua_State* L = dynamic_cast<wBlockLuaDescriptor*>(r.scheme->getBlockByName("b"))->getLuaState_();
    for (int i = 1; i <= 3; ++i) {
        second->simulate(i - 1.0);
        EXPECT_EQ(second->getOutput<double>("y"), -1.0) << i;
        lua_getglobal(L, "errors");
        lua_rawgeti(L, -1, i);
        const char* error = lua_tostring(L, -1);
        EXPECT_TRUE(error && contains(error, "belongs to a Lua block that no longer exists")) << i;
        lua_pop(L, 2);
    }
    // Systems and the scheme go in any order.
    r.scheme.reset();
    second.reset();
}

// ---- Malformed scripts and limits

TEST(LuaBlock, MalformedScriptsFailWithClearMessages) {
    LuaBlockEntry plain;
    plain.outputs = {{"y", LEAD_DOUBLE}};
    LuaBlockEntry withPort = plain, withInput = plain;
    withPort.inPorts = {{"p", LEAD_DOUBLE}};
    withInput.inputs = {{"a", LEAD_DOUBLE}};
    struct Case {
        const LuaBlockEntry* entry;
        std::string script;
        std::vector<std::string> parts;  // all expected in the message, the first at its start
    };
    const std::string ok = "function init() end\nfunction run(t) return 1 end\n";
    const std::vector<Case> cases = {
        {&plain, "function init() end\nfunction run(t) return 1 emd\n", {"Cannot load ", "s.lua: [string \"?\"]:2:"}},
        {&plain, "function run(t) return 1 end", {"No init function in ", "s.lua"}},
        {&plain, "function init() end", {"No run function in ", "s.lua"}},
        {&plain, "error('boom')", {"Cannot load ", "boom"}},
        {&withPort, ok + "on_p = 5", {"Lua block b has no function on_p"}},
        {&plain, "function init() error('bad init') end function run(t) return 1 end",
         {"Error: [string \"?\"]:1: bad init", "(in init of Lua block b)"}},
        {&plain, "function init() end function run(t) end", {"Function \"run\" in lua script hasn't returned a number, "
                                                             "block \"b\""}},
        {&plain, "function init() end function run(t) return 'soon' end",
         {"Function \"run\" in lua script hasn't returned a number, block \"b\""}},
        {&plain, "function init() end function run(t) return 0 end",
         {"Function \"run\" in lua script hasn't returned a valid number (0), block \"b\""}},
        {&plain, "function init() end function run(t) return -2 end",
         {"Function \"run\" in lua script hasn't returned a valid number (-2), block \"b\""}},
        {&plain, "function init() end function run(t) return 0/0 end",
         {"Function \"run\" in lua script hasn't returned a valid number (", "nan), block \"b\""}},
        {&plain, "function init() end function run(t) return nil + 1 end",
         {"Error: [string \"?\"]:1: attempt to perform arithmetic on a nil value", "(in run of Lua block b)"}},
        {&plain, "function init() end function run(t) error({}) end", {"Error: (error object is a table value)"}},
        {&plain, "function init() end function run(t) error(42, 0) end", {"Error: 42"}},
        {&withInput, "function init() end function run(t) inputs.a(1) end", {"To many arguments for input callback"}},
    };
    for (const Case& c : cases) {
        const std::string message = failureOf(oneBlockScheme(*c.entry), c.script);
        EXPECT_TRUE(contains(message, c.parts[0])) << c.script << "\n-> " << message;
        for (const std::string& part : c.parts) EXPECT_TRUE(contains(message, part)) << part << "\n-> " << message;
    }
    // Accepted: an init that is not nil (not called as a function until a block runs
    // it), run returning -1 once.
    ScriptScheme once(oneBlockScheme(plain), {{"s.lua", "function init() end function run(t) return -1 end"}});
    EXPECT_EQ(once.instantiate().simulate(0.0), -1.0);
    ScriptScheme numeric(oneBlockScheme(plain), {{"s.lua", "init = 5 function run(t) return 1 end"}});
    EXPECT_NO_THROW(numeric.load());
    EXPECT_TRUE(contains(messageOf([&] { numeric.instantiate(); }), "attempt to call a number value"));
    // No file at all.
    ScriptScheme none(oneBlockScheme(plain), {});
    EXPECT_TRUE(contains(messageOf([&] { none.load(); }), "Cannot open file: " + none.path("s.lua")));
}

TEST(LuaBlock, RunawayScriptsHitTheInstructionAndMemoryLimits) {
    Lua::ScriptSettings tight;
    tight.instructionBudget = 200'000;
    tight.memoryLimit = std::size_t{4} << 20;
    Lua::ScriptSettingsScope scope(tight);
    LuaBlockEntry e;
    e.outputs = {{"y", LEAD_DOUBLE}};
    e.outPorts = {{"o", LEAD_DOUBLE}};
    struct Case {
        std::string script;
        std::vector<std::string> parts;
    };
    const std::string init = "function init() end\n";
    const std::vector<Case> cases = {
        {init + "function run(t) while true do end end",
         {"Error: [string \"?\"]:2: instruction limit exceeded: more than 200000 Lua instructions in one call",
          "(in run of Lua block b)"}},
        // Catching the limit's error does not buy more instructions.
        {init + "function run(t) while true do pcall(function() while true do end end) end end",
         {"Error: ", "instruction limit exceeded"}},
        {init + "function run(t) local c = coroutine.wrap(function() while true do end end) c() end",
         {"Error: ", "instruction limit exceeded"}},
        // Work inside C functions counts no instructions: these must end by themselves.
        {init + "function run(t) while true do local s = string.rep('', 2147483647) .. ('x'):rep(3) end end",
         {"Error: ", "instruction limit exceeded"}},
        {init + "function run(t) local s = ('x'):rep(1e9) end", {"Error: not enough memory"}},
        {"while true do end", {"Cannot load ", "instruction limit exceeded", "Lua block b"}},
        {init + "function run(t) local s = 'x' while true do s = s .. s end end",
         {"Error: not enough memory (the memory limit of 4194304 bytes per script state was reached)",
          "Lua block b"}},
        {init + "function run(t) local t = {} for i = 1, 1e9 do t[i] = string.rep('x', 1000) .. i end end",
         {"Error: not enough memory"}},
        {"local t = {} for i = 1, 1e9 do t[i] = {} end", {"Cannot load ", "not enough memory", "Lua block b"}},
    };
    for (const Case& c : cases) {
        const std::string message = failureOf(oneBlockScheme(e), c.script, 2);
        for (const std::string& part : c.parts) EXPECT_TRUE(contains(message, part)) << part << "\n-> " << message;
    }
    // The budget is per call: many short calls run for ever.
    ScriptScheme r(oneBlockScheme(e), {{"s.lua", init + "function run(t) for i = 1, 1000 do end return 1 end"}});
    wSimulationSystem& sys = r.instantiate();
    double T = 0.0;
    for (int i = 0; i < 1000; ++i) T += sys.simulate(T);
    EXPECT_EQ(T, 1000.0);
}

TEST(LuaBlock, ScriptSettingsComeFromTheScopeOrTheProcessDefaults) {
    const Lua::ScriptSettings saved = Lua::getDefaultScriptSettings();
    EXPECT_FALSE(saved.safeScripts);
    EXPECT_EQ(saved.instructionBudget, 100'000'000u);
    EXPECT_EQ(saved.memoryLimit, std::size_t{256} << 20);
    Lua::ScriptSettings changed;
    changed.instructionBudget = 5;
    Lua::setDefaultScriptSettings(changed);
    EXPECT_EQ(Lua::currentScriptSettings().instructionBudget, 5u);
    {
        Lua::ScriptSettings inner;
        inner.safeScripts = true;
        Lua::ScriptSettingsScope outer(inner);
        inner.safeScripts = false;
        inner.memoryLimit = 1;
        {
            Lua::ScriptSettingsScope nested(inner);
            EXPECT_EQ(Lua::currentScriptSettings().memoryLimit, 1u);
        }
        EXPECT_TRUE(Lua::currentScriptSettings().safeScripts);
        EXPECT_EQ(Lua::currentScriptSettings().instructionBudget, 100'000'000u);
    }
    EXPECT_EQ(Lua::currentScriptSettings().instructionBudget, 5u);
    Lua::setDefaultScriptSettings(saved);
}

TEST(LuaBlock, SafeScriptsReachNeitherFilesNorTheProcess) {
    LuaBlockEntry e;
    e.outputs = {{"y", LEAD_DOUBLE}};
    // Each probe must come out true (1) for the setting it is listed under.
    struct Probe {
        std::string expression;
        bool safe, full;
    };
    const std::vector<Probe> probes = {
        {"io == nil", true, false},
        {"require == nil and package == nil", true, false},
        {"dofile == nil and loadfile == nil", true, false},
        {"debug == nil", true, false},
        {"os.execute == nil and os.getenv == nil and os.remove == nil", true, false},
        {"type(os.time()) == 'number' and type(os.clock()) == 'number' and type(os.date()) == 'string'", true, true},
        {"loadstring(string.dump(function() end)) == nil", true, false},
        {"load((function() local s = string.dump(function() end) "
         "return function() local p = s; s = nil; return p end end)()) == nil",
         true, false},
        {"loadstring('return 2')() == 2 and math.sqrt(4) == 2 and table.concat({'a'}) == 'a'", true, true},
    };
    for (const bool safe : {true, false}) {
        Lua::ScriptSettings settings;
        settings.safeScripts = safe;
        Lua::ScriptSettingsScope scope(settings);
        for (const Probe& p : probes) {
            const std::string script =
                "function init() end function run(t) outputs.y((" + p.expression + ") and 1 or 0) return 1 end";
            ScriptScheme r(oneBlockScheme(e), {{"s.lua", script}});
            r.instantiate().simulate(0.0);
            EXPECT_EQ(r.system->getOutput<double>("y"), (safe ? p.safe : p.full) ? 1.0 : 0.0)
                << (safe ? "safe: " : "full: ") << p.expression;
        }
        // A precompiled script file is refused under safe scripts.
        if (safe) {
            lua_State* L = luaL_newstate();
            luaL_loadstring(L, "function init() end function run(t) return 1 end");
            std::string bytes;
            lua_dump(
                L,
                [](lua_State*, const void* p, size_t n, void* out) {
                    static_cast<std::string*>(out)->append(static_cast<const char*>(p), n);
                    return 0;
                },
                &bytes);
            lua_close(L);
            ScriptScheme r(oneBlockScheme(e), {{"s.lua", bytes}});
            EXPECT_TRUE(contains(messageOf([&] { r.load(); }), "precompiled chunks are not allowed"));
        }
    }
}

// ---- Blocks talking to blocks

// Block "a" sends `value` on its port "o" at each update into block "b"'s on_p.
std::string pairScheme() {
    SchemeText s;
    LuaBlockEntry a;
    a.file = "a.lua";
    a.outPorts = {{"o", LEAD_DOUBLE}};
    LuaBlockEntry b;
    b.file = "b.lua";
    b.inPorts = {{"p", LEAD_DOUBLE}};
    b.outputs = {{"got", LEAD_DOUBLE}};
    const int ia = addLuaBlock(s, "a", a);
    const int ib = addLuaBlock(s, "b", b);
    s.port(ia, "o", ib, "p");
    s.outputWire(ib, "got", "got", LEAD_DOUBLE);
    return s.text();
}

TEST(LuaBlock, ErrorsOfReceivingBlocksPassThroughTheSender) {
    const std::string plain = "function init() end function run(t) outports.o(t + 1) return 1 end";
    const std::string receiver = "function init() end function run(t) return -1 end\nfunction on_p(v) ";
    struct Case {
        std::string a, onP, result;  // result: "got" as text, or the start of the message
    };
    const std::vector<Case> cases = {
        {plain, "outputs.got(v) end", "1"},
        // b's own message, not wrapped in a's.
        {plain, "error('refused ' .. v) end", "Error: [string \"?\"]:2: refused 1 (in on_p of Lua block b)"},
        // A sender that catches the receiver's error carries on.
        {"function init() end function run(t) if not pcall(outports.o, 1) then outports.o(2) end return 1 end",
         "if v == 1 then error('no') end outputs.got(v) end", "2"},
    };
    for (const Case& c : cases) {
        ScriptScheme r(pairScheme(), {{"a.lua", c.a}, {"b.lua", receiver + c.onP}});
        const std::string result = messageOf([&] {
            r.instantiate().simulate(0.0);
            throw std::runtime_error(std::to_string(static_cast<int>(r.system->getOutput<double>("got"))));
        });
        EXPECT_EQ(result.rfind(c.result, 0), 0u) << result;
    }
}

TEST(LuaBlock, CallsThroughPortsShareTheBudgetAndCannotRecurseForEver) {
    Lua::ScriptSettings tight;
    tight.instructionBudget = 100'000;
    Lua::ScriptSettingsScope scope(tight);
    // a loops for ever, each turn a short call of b: the loop still runs out.
    ScriptScheme loop(pairScheme(), {{"a.lua", "function init() end function run(t) while true do outports.o(1) end end"},
                                     {"b.lua", "function init() end function run(t) return -1 end\n"
                                               "function on_p(v) outputs.got(v) end"}});
    EXPECT_TRUE(contains(messageOf([&] { loop.instantiate().simulate(0.0); }), "instruction limit exceeded"));

    // A block whose output port feeds its own input port.
    LuaBlockEntry e;
    e.file = "s.lua";
    e.inPorts = {{"p", LEAD_DOUBLE}};
    e.outPorts = {{"o", LEAD_DOUBLE}};
    SchemeText s;
    const int b = addLuaBlock(s, "b", e);
    s.port(b, "o", b, "p");
    const std::string message =
        failureOf(s.text(), "function init() end function run(t) outports.o(1) return 1 end\n"
                            "function on_p(v) outports.o(v + 1) end");
    // The port-loop guard stops it before Lua's stack or the budget would.
    EXPECT_TRUE(contains(message, "Endless port loop")) << message;
}

// ---- Leads a script cannot serve

TEST(LuaBlock, UnservableLeadsAreRefusedWhenLoadingForRunning) {
    struct Case {
        Leads LuaBlockEntry::*list;
        eLeadType type;
        std::string message;
    };
    const std::string script = "function init() end function run(t) return 1 end function on_x() end";
    const std::vector<Case> cases = {
        {&LuaBlockEntry::inputs, LEAD_OBJECT_ID, "Lua block b: input wire x has lead type 6 (object id)"},
        {&LuaBlockEntry::outputs, LEAD_OBJECT_ID, "Lua block b: output wire x has lead type 6 (object id)"},
        {&LuaBlockEntry::outPorts, LEAD_OBJECT_ID, "Lua block b: output port x has lead type 6 (object id)"},
        {&LuaBlockEntry::inPorts, LEAD_OBJECT_PTR,
         "Lua blocks cannot have input ports of type ObjectPtr (Lua block b, input port x)"},
        {&LuaBlockEntry::outPorts, LEAD_OBJECT_PTR,
         "Cannot create output port of type wWireObjectPtrBase (Lua block b, output port x)"},
    };
    for (const Case& c : cases) {
        LuaBlockEntry e;
        e.file = "s.lua";
        (e.*c.list).push_back({"x", c.type});
        SchemeText s;
        addLuaBlock(s, "b", e);
        ScriptScheme r(s.text(), {{"s.lua", script}});
        EXPECT_TRUE(contains(messageOf([&] { r.load(); }), c.message)) << c.message;
        // An editing load keeps them: the scheme can still be opened and fixed.
        EXPECT_NO_THROW(testutil::loadForEdit(s.text()));
    }

    // A descriptor built in code gets as far as create, which throws a pointer there.
    ScriptScheme r(oneBlockScheme(LuaBlockEntry{}), {{"s.lua", script}});
    r.load();
    auto* d = dynamic_cast<wBlockLuaDescriptor*>(r.scheme->getBlockByName("b"));
    d->setInputPorts(wLeadList{{"x", LEAD_OBJECT_PTR}});
    try {
        d->create(nullptr, nullptr);
        ADD_FAILURE() << "no exception";
    } catch (wSimulationException* e) {
        EXPECT_STREQ(e->what(), "Lua blocks cannot have input ports of type ObjectPtr");
        delete e;
    }
}

}  // namespace
