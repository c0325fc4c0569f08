// Hostile and careless input through the real `vandrel` process: each case is an input,
// the exit status it must end with and a fragment of what it must say. Every case runs
// under a time limit, so a hang fails it instead of stalling the suite; the checks that
// need more than the message (files untouched, nothing written outside a directory)
// follow in the same table.
#include <gtest/gtest.h>

#include <unistd.h>

#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <limits>
#include <sstream>
#include <string>
#include <vector>

#include "support/CliProcess.h"

namespace {

namespace fs = std::filesystem;

using testutil::kCli;
using testutil::slurp;
using Result = testutil::CliResult;

void put(const fs::path& p, const std::string& bytes) {
    fs::create_directories(p.parent_path());
    std::ofstream(p, std::ios::binary) << bytes;
}

// y' = u with y(0) = 0, integrated by explicit Euler with step `H` (a Lua expression).
std::string lag(const std::string& H) {
    return R"(simulation_scheme = {
  blocks = {
    { __name = "y", __type = "wBlockIntegratorDescriptor<double>", __parameters = {} },
    { __name = "c", __type = "wBlockConstantsDescriptor", values = { { name = "y0", type = 1 } },
      __parameters = { y0 = { value = 0 } } },
  },
  solver = { __type = "wSolverExplEulerDescriptor", H = )" + H + R"( },
  io = { inputWires = { { name = "y", type = 2 } }, inputPorts = {},
         outputWires = { { name = "u", type = 2 }, { name = "on", type = 1 } }, outputPorts = {} },
  connections = {
    { output_block = -666, output_lead = "u", input_block = 0, input_lead = "input", port = false },
    { output_block = 1, output_lead = "y0", input_block = 0, input_lead = "output.initial", port = false },
    { output_block = 0, output_lead = "output", input_block = -666, input_lead = "y", port = false },
  },
}
)";
}

// lag("0.1") with the first `from` in its text replaced by `to`.
std::string lagWith(const std::string& from, const std::string& to) {
    std::string s = lag("0.1");
    return s.replace(s.find(from), from.size(), to);
}

// A discrete ramp with 10 bytes of saveable state (a double and two flags).
const char* const kRamp = R"(simulation_scheme = {
  blocks = {
    { __name = "inc", __type = "wBlockGo2doubleOntimerDescriptor", __parameters = { dt = { value = 0.1 },
      K_t = { value = 1 }, use_start_val = { value = true }, start_val = { value = 0 },
      activate_by_port = { value = false }, loop = { value = false } } },
    { __name = "c", __type = "wBlockConstantsDescriptor", values = { { name = "tg", type = 1 } },
      __parameters = { tg = { value = 5 } } },
  },
  io = { inputWires = { { name = "y", type = 2 } }, inputPorts = {}, outputWires = {}, outputPorts = {} },
  connections = {
    { output_block = 1, output_lead = "tg", input_block = 0, input_lead = "target", port = false },
    { output_block = 0, output_lead = "output", input_block = -666, input_lead = "y", port = false },
  },
}
)";

// An Oscilloscope named `name` (a Lua string literal) recording input u into `capacity` samples.
std::string scope(const std::string& name, const std::string& capacity = "100") {
    return R"(simulation_scheme = {
  blocks = {
    { __name = )" + name + R"(, __type = "wBlockOscilloscopeDescriptor",
      __parameters = { dt = { value = 0.1 }, capacity = { value = )" + capacity + R"( } } },
  },
  io = { inputWires = {}, inputPorts = {}, outputWires = { { name = "u", type = 2 } }, outputPorts = {} },
  connections = {
    { output_block = -666, output_lead = "u", input_block = 0, input_lead = "input1", port = false },
  },
}
)";
}

// A scheme whose output wire is named `name` (a Lua string literal).
std::string outputNamed(const std::string& name) {
    std::string s = lag("0.1");
    const std::string from = "inputWires = { { name = \"y\"";
    s.replace(s.find(from), from.size(), "inputWires = { { name = " + name);
    const std::string conn = "input_block = -666, input_lead = \"y\"";
    s.replace(s.find(conn), conn.size(), "input_block = -666, input_lead = " + name);
    return s;
}

// A state file as the host writes it: magic, the time the run ended at, the snapshot.
std::string stateFile(double time, const std::string& snapshot) {
    std::string s = "VNDRSTA2";
    s.append(reinterpret_cast<const char*>(&time), sizeof time);
    return s + snapshot;
}

// The start of a snapshot: magic, format version, scheme fingerprint.
std::string snapshotHeader(std::uint32_t version, std::uint64_t fingerprint) {
    std::string s = "VNDRSNAP";
    s.append(reinterpret_cast<const char*>(&version), sizeof version);
    s.append(reinterpret_cast<const char*>(&fingerprint), sizeof fingerprint);
    return s;
}

const double kNaN = std::numeric_limits<double>::quiet_NaN();
const double kInf = std::numeric_limits<double>::infinity();

struct Case {
    const char* name;
    std::function<void(const fs::path& dir)> setup;  // writes the inputs into the case's directory
    std::string args;                                // "{dir}" stands for that directory
    int status;
    std::string fragment;                            // must appear on stderr (or stdout when status is 0)
    std::function<void(const fs::path& dir, const Result& r)> check = nullptr;
};

std::function<void(const fs::path&)> files(std::vector<std::pair<std::string, std::string>> list) {
    return [list](const fs::path& dir) {
        for (const auto& [name, text] : list) put(dir / name, text);
    };
}

class HostileInput : public testing::Test {
protected:
    void SetUp() override {
        if (!kCli) GTEST_SKIP() << "the command-line host is not built";
        root_ = fs::path(testing::TempDir()) / ("vandrel-hostile-" + std::to_string(::getpid()));
        fs::remove_all(root_);
    }
    void TearDown() override {
        if (!root_.empty()) fs::remove_all(root_);
    }

    Result run(const fs::path& dir, std::string args) {
        for (std::size_t at; (at = args.find("{dir}")) != std::string::npos;) args.replace(at, 5, dir.string());
        // A hang ends in status 124 after the time limit, a flood of output in SIGPIPE once
        // a megabyte has been read: no case expects either.
        const std::string cmd = "cd " + dir.string() + " && (timeout 60 " + std::string(kCli) + " " + args +
                                " 2>stderr.txt; echo $? >status.txt) | head -c 1000000";
        Result r;
        std::FILE* p = ::popen(cmd.c_str(), "r");
        char buf[4096];
        std::size_t n;
        while ((n = std::fread(buf, 1, sizeof buf, p)) > 0) r.out.append(buf, n);
        ::pclose(p);
        r.err = slurp(dir / "stderr.txt");
        const std::string status = slurp(dir / "status.txt");
        r.status = status.empty() ? -1 : std::stoi(status);
        return r;
    }

    fs::path root_;
};

TEST_F(HostileInput, EveryCaseEndsWithItsStatusAndMessage) {
    const std::string blob10(10, '\0');
    const Case cases[] = {
        // A solver step that cannot integrate.
        {"H = 0/0", files({{"s.lua", lag("0/0")}}), "run s.lua --set u=1", 1,
         "simulation_scheme.solver.H must be a positive finite number of seconds"},
        {"H negative", files({{"s.lua", lag("-0.01")}}), "run s.lua", 1, "got -0.01"},
        {"H infinite", files({{"s.lua", lag("math.huge")}}), "run s.lua", 1, "got inf"},
        {"check sees H = 0/0", files({{"s.lua", lag("0/0")}}), "check s.lua", 1, "solver.H must be a positive"},
        // Times that are not finite.
        {"--until nan", files({{"s.lua", lag("0.1")}}), "run s.lua --until nan", 2, "--until must be a finite number"},
        {"--until inf", files({{"s.lua", lag("0.1")}}), "run s.lua --until inf", 2, "--until"},
        {"--every nan", files({{"s.lua", lag("0.1")}}), "run s.lua --every nan", 2, "--every must be a finite number"},
        {"state time NaN", files({{"s.lua", kRamp}, {"st.bin", stateFile(kNaN, snapshotHeader(1, 0))}}),
         "run s.lua --state-in st.bin", 1, "Corrupt state file: st.bin (time nan s"},
        {"state time infinite", files({{"s.lua", kRamp}, {"st.bin", stateFile(kInf, snapshotHeader(1, 0))}}),
         "run s.lua --state-in st.bin", 1, "Corrupt state file"},
        {"inputs time nan", files({{"s.lua", lag("0.1")}, {"in.csv", "time,u\n0,1\nnan,2\n"}}),
         "run s.lua --inputs in.csv", 2, "in.csv:3: the time must be a finite number"},
        {"inputs bool 2", files({{"s.lua", lag("0.1")}, {"in.csv", "time,on\n0,2\n"}}), "run s.lua --inputs in.csv", 2,
         "column \"on\": a boolean is 0 or 1"},
        // State files that are not what they claim.
        {"state of an older vandrel", files({{"s.lua", kRamp}, {"st.bin", "VNDRSTA1" + blob10}}),
         "run s.lua --state-in st.bin", 1, "was written by an older vandrel"},
        {"state without a snapshot", files({{"s.lua", kRamp}, {"st.bin", stateFile(0, "")}}),
         "run s.lua --state-in st.bin", 1, "State file st.bin cannot be restored: Snapshot: not a vandrel snapshot"},
        {"state of another version", files({{"s.lua", kRamp}, {"st.bin", stateFile(0, snapshotHeader(7, 0))}}),
         "run s.lua --state-in st.bin", 1, "format version 7 is not the one this library reads (1)"},
        {"state of another scheme", files({{"s.lua", kRamp}, {"st.bin", stateFile(0, snapshotHeader(1, 42))}}),
         "run s.lua --state-in st.bin", 1, "it was saved from another scheme"},
        {"state truncated in its header", files({{"s.lua", kRamp}, {"st.bin", stateFile(0, "VNDRSNAP\x01")}}),
         "run s.lua --state-in st.bin", 1, "truncated while reading version"},
        // Oscilloscope files stay inside --scope-dir whatever the block is called.
        {"scope named ../../x", files({{"s.lua", scope("\"../../x\"")}}), "run s.lua --until 0.5 --scope-dir out/a", 0,
         "time",
         [](const fs::path& dir, const Result&) {
             EXPECT_FALSE(fs::exists(dir / "x.csv"));
             EXPECT_EQ(slurp(dir / "out/a/%2E.%2F..%2Fx.csv").substr(0, 11), "time,input1");
         }},
        {"scope named by an absolute path", files({{"s.lua", scope("\"/tmp/vandrel-escape\"")}}),
         "run s.lua --until 0.5 --scope-dir out", 0, "time",
         [](const fs::path& dir, const Result&) {
             EXPECT_TRUE(fs::exists(dir / "out/%2Ftmp%2Fvandrel-escape.csv"));
         }},
        {"scope named with control characters", files({{"s.lua", scope("\"a\\nb\\27[31m\"")}}),
         "run s.lua --until 0.5 --scope-dir out", 0, "time",
         [](const fs::path& dir, const Result&) { EXPECT_TRUE(fs::exists(dir / "out/a%0Ab%1B%5B31m.csv")); }},
        {"scope file is a symlink",
         [](const fs::path& dir) {
             put(dir / "s.lua", scope("\"probe\""));
             put(dir / "victim.txt", "precious");
             fs::create_directories(dir / "out");
             fs::create_symlink(dir / "victim.txt", dir / "out/probe.csv");
         },
         "run s.lua --until 0.5 --scope-dir out", 1, "Refusing to write out/probe.csv: it is a symbolic link",
         [](const fs::path& dir, const Result&) { EXPECT_EQ(slurp(dir / "victim.txt"), "precious"); }},
        // fmt never drops content without --force.
        {"fmt with a misspelt lead",
         files({{"s.lua", lagWith("input_lead = \"input\"", "input_lead = \"inptu\"")}}),
         "fmt s.lua", 1, "connection 1 cannot be made: Block 0 has no input inptu",
         [](const fs::path& dir, const Result&) { EXPECT_NE(slurp(dir / "s.lua").find("inptu"), std::string::npos); }},
        {"fmt --force drops it",
         files({{"s.lua", lagWith("input_lead = \"input\"", "input_lead = \"inptu\"")}}),
         "fmt --force s.lua", 0, "",
         [](const fs::path& dir, const Result&) { EXPECT_EQ(slurp(dir / "s.lua").find("inptu"), std::string::npos); }},
        {"fmt with a misspelt parameter",
         files({{"s.lua", lagWith("y0 = { value = 0 }", "y0 = { value = 0 }, y1 = { value = 2 }")}}),
         "fmt s.lua", 1, "simulation_scheme.blocks[2].__parameters.y1 = a table would be dropped"},
        {"fmt of a file with comments", files({{"s.lua", "-- my notes\n" + lag("0.1")}}), "fmt s.lua", 1,
         "its comments would be dropped (the first is on line 1)"},
        // Names that would break the CSV table are quoted.
        {"output named with a comma and a quote", files({{"s.lua", outputNamed("'a,\"b'")}}),
         "run s.lua --until 0.1", 0, "time,\"a,\"\"b\"\n"},
        {"output named with a newline", files({{"s.lua", outputNamed("'l1\\nl2'")}}), "run s.lua --until 0.1", 0,
         "time,\"l1\nl2\"\n"},
        // What a scheme file may make the host allocate.
        {"scope of 2e9 samples", files({{"s.lua", scope("\"big\"", "2e9")}}), "run s.lua", 1,
         "s.lua: simulation_scheme.blocks[1]: block big (Oscilloscope) would allocate 29.8 GiB at run time"},
        {"--max-block-mib", files({{"s.lua", scope("\"small\"", "10000")}}), "check s.lua --max-block-mib 0.1", 1,
         "more than the 102.4 KiB a block may"},
        {"--max-scheme-mib nan", files({{"s.lua", scope("\"small\"")}}), "check s.lua --max-scheme-mib nan", 2,
         "--max-scheme-mib"},
        // Messages that say where.
        {"connection to block 7",
         files({{"s.lua", lagWith("input_block = 0, input_lead = \"input\"", "input_block = 7, input_lead = \"input\"")}}),
         "check s.lua", 1, "invalid input block: 7 is not a block index; use 0 to 1"},
        {"missing file", files({}), "check nosuch.lua", 1, "Error while loading nosuch.lua: Cannot open file\n"},
        {"syntax error", files({{"s.lua", "simulation_scheme = {\n  blocks = \n"}}), "check s.lua", 1,
         "Error while loading s.lua: line 3: unexpected symbol near '<eof>'"},
        {"terminal escape in a message",
         files({{"s.lua", "simulation_scheme = { blocks = { { __name = 'x', __type = '\\27[2J' } } }"}}),
         "check s.lua", 1, "Block \\x1b[2J not found"},
        {"--every finer than anyone reads", files({{"s.lua", lag("0.1")}}), "run s.lua --every 1e-300", 2,
         "would write more than 100 million rows"},
        {"unknown override", files({{"s.lua", lag("0.1")}, {"o.lua", "overrides = { yy = { H = 1 } }"}}),
         "check s.lua --overrides o.lua", 0, "warning: o.lua: overrides.yy was not used: the scheme has no block named yy"},
    };

    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        const fs::path dir = root_ / std::to_string(&c - cases);
        fs::create_directories(dir);
        c.setup(dir);
        const Result r = run(dir, c.args);
        EXPECT_EQ(r.status, c.status) << r.err;
        const std::string& where = c.status == 0 && r.err.find(c.fragment) == std::string::npos ? r.out : r.err;
        EXPECT_NE(where.find(c.fragment), std::string::npos) << "stderr: " << r.err << "\nstdout: " << r.out.substr(0, 500);
        if (c.check) c.check(dir, r);
    }
}

}  // namespace
