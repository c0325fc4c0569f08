// vandrel: the command-line host of the vandrel simulation library.
#include <exception>
#include <iostream>

#include <CLI/CLI.hpp>

#include "Commands.h"
#include "Csv.h"
#include "vandrel/vandrel.h"

int main(int argc, char** argv) {
    CLI::App app{"vandrel: run, check and edit block-diagram simulation schemes"};
    app.require_subcommand(1);
    app.set_version_flag("--version", "vandrel 0.1.0");

    host::RunOptions run;
    auto* runCmd = app.add_subcommand("run", "Simulate a scheme and write its outputs as CSV");
    runCmd->add_option("scheme", run.scheme, "Scheme file")->required();
    runCmd->add_option("--overrides", run.overrides, "Lua file defining the table `overrides` of parameter values");
    runCmd->add_option("--until", run.until, "End time in seconds")->capture_default_str()->check(CLI::NonNegativeNumber);
    runCmd->add_option("--every", run.every, "Output sampling period in seconds (default: one row per step)")
        ->check(CLI::NonNegativeNumber);
    runCmd->add_option("--set", run.sets, "Set a scheme input to a constant: NAME=VALUE (vectors: NAME=1,2,3)");
    runCmd->add_option("--inputs", run.inputs, "CSV time series of scheme inputs (header: time,NAME,...)");
    runCmd->add_option("--out,-o", run.out, "CSV output file (default: standard output)");
    runCmd->add_option("--state-in", run.stateIn, "Restore discrete state and time from this file");
    runCmd->add_option("--state-out", run.stateOut, "Save discrete state and time to this file at the end");
    runCmd->add_option("--plot", run.plot, "Draw the outputs with gnuplot; the extension gives the format: .png, .svg, .pdf");
    runCmd->add_option("--precision", run.precision,
                       "Significant digits of numbers (default: the shortest form that reads back exactly)")
        ->check(CLI::Range(1, 17));
    runCmd->add_option("--scope-dir", run.scopeDir, "Write each oscilloscope block's recording to DIR/<block>.csv");
    runCmd->add_flag("--quiet,-q", run.quiet, "No progress bar");
    runCmd->add_flag("!--no-initial-values", run.initialValues,
                     "Start continuous states at zero instead of their initial-value inputs");
    bool safeScripts = false;
    runCmd->add_flag("--safe-scripts", safeScripts,
                     "Lua script blocks get only libraries that reach neither files nor the process");

    // Memory limits for what a scheme file may make the host allocate (MiB; 0: default).
    double maxBlockMib = 0, maxSchemeMib = 0;
    auto addLimitOptions = [&](CLI::App* cmd) {
        cmd->add_option("--max-block-mib", maxBlockMib,
                        "Largest run-time allocation one block may ask for, in MiB (default 256)")
            ->check(CLI::PositiveNumber);
        cmd->add_option("--max-scheme-mib", maxSchemeMib,
                        "Largest run-time allocation of the whole scheme, in MiB (default 1024)")
            ->check(CLI::PositiveNumber);
    };
    addLimitOptions(runCmd);

    std::string scheme, overrides, out;
    bool verbose = false, checkOnly = false, force = false;
    auto* checkCmd = app.add_subcommand("check", "Load a scheme for running and report OK or the error");
    checkCmd->add_option("scheme", scheme, "Scheme file")->required();
    checkCmd->add_option("--overrides", overrides, "Lua file defining the table `overrides`");
    checkCmd->add_flag("--safe-scripts", safeScripts, "As for run: loading runs each script's chunk");
    addLimitOptions(checkCmd);

    auto* blocksCmd = app.add_subcommand("blocks", "List the registered block classes");
    blocksCmd->add_flag("--verbose,-v", verbose, "Show each block's leads and parameters");

    auto* fmtCmd = app.add_subcommand("fmt", "Rewrite a scheme file in canonical form");
    fmtCmd->add_option("scheme", scheme, "Scheme file")->required();
    fmtCmd->add_option("-o,--out", out, "Write here instead of rewriting the file in place");
    fmtCmd->add_flag("--check", checkOnly, "Change nothing; exit 1 if the file is not in canonical form");
    fmtCmd->add_flag("--force", force,
                     "Rewrite even when the canonical form loses something (a connection that cannot be made, "
                     "unknown entries, comments)");

    auto* dumpCmd = app.add_subcommand("dump", "Load a scheme for running and print its debug dump");
    dumpCmd->add_option("scheme", scheme, "Scheme file")->required();
    dumpCmd->add_option("--overrides", overrides, "Lua file defining the table `overrides`");
    dumpCmd->add_flag("--safe-scripts", safeScripts, "As for run: loading runs each script's chunk");

    std::string graphOut;
    auto* graphCmd = app.add_subcommand("graph", "Write the scheme as a Graphviz diagram (dot text, or drawn by Graphviz)");
    graphCmd->add_option("scheme", scheme, "Scheme file")->required();
    graphCmd->add_option("-o,--out", graphOut,
                         "Output file: .svg, .png or .pdf drawn by Graphviz, .dot or .gv for the text (default: "
                         "dot text on standard output)");

    try {
        app.parse(argc, argv);
    } catch (const CLI::CallForHelp& e) {
        return app.exit(e);
    } catch (const CLI::CallForAllHelp& e) {
        return app.exit(e);
    } catch (const CLI::CallForVersion& e) {
        return app.exit(e);
    } catch (const CLI::ParseError& e) {
        app.exit(e);
        return host::kExitUsage;
    }

    try {
        if (safeScripts) {
            Lua::ScriptSettings settings = Lua::getDefaultScriptSettings();
            settings.safeScripts = true;
            Lua::setDefaultScriptSettings(settings);
        }
        host::applyResourceLimits(maxBlockMib, maxSchemeMib);
        if (*runCmd) return host::runCommand(run);
        if (*checkCmd) return host::checkCommand(scheme, overrides);
        if (*blocksCmd) return host::blocksCommand(verbose);
        if (*fmtCmd) return host::fmtCommand(scheme, out, checkOnly, force);
        if (*dumpCmd) return host::dumpCommand(scheme, overrides);
        if (*graphCmd) return host::graphCommand(scheme, graphOut);
    } catch (const host::UsageError& e) {
        std::cerr << "vandrel: " << host::printable(e.message) << "\n";
        return host::kExitUsage;
    } catch (const std::exception& e) {
        std::cerr << "vandrel: " << host::printable(e.what()) << "\n";
        return host::kExitError;
    }
    return host::kExitUsage;
}
