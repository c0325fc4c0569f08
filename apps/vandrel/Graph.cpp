// `vandrel graph`: the scheme as a Graphviz diagram, as dot text or drawn by `dot`.
#include <filesystem>
#include <fstream>
#include <iostream>
#include <sstream>
#include <stdexcept>

#include "Commands.h"
#include "GraphDot.h"
#include "HostIO.h"
#include "Process.h"
#include "vandrel/vandrel.h"

namespace host {

namespace {

// What Graphviz draws from an extension; empty for the dot text itself.
std::string graphvizFormat(const std::string& file) {
    const std::string ext = lowerExtension(file);
    if (ext == ".dot" || ext == ".gv") return "";
    if (ext == ".svg" || ext == ".png" || ext == ".pdf") return ext.substr(1);
    throw UsageError{"graph: cannot tell the format of \"" + file +
                     "\" from its extension; use .svg, .png or .pdf to draw it, .dot or .gv for the dot text"};
}

}  // namespace

int graphCommand(const std::string& file, const std::string& out) {
    const std::string format = out.empty() ? "" : graphvizFormat(out);
    wSimulationSystemScheme scheme;
    zo::vector<int> discarded;
    scheme.loadForEdit(file, discarded);
    for (int p : discarded)
        std::cerr << "vandrel: " << file << ": connections[" << p + 1
                  << "] is not drawn: it names a block or lead that does not exist\n";

    std::ostringstream dot;
    writeDot(dot, scheme, std::filesystem::path(file).stem().string());
    if (out.empty()) {
        std::cout << dot.str();
        return kExitOk;
    }
    if (format.empty()) {
        std::ofstream f(out, std::ios::binary);
        f << dot.str();
        if (!f.flush()) throw std::runtime_error("Cannot write " + out);
        return kExitOk;
    }
    // Graphviz's own warnings (a label it had to shrink, a font it replaced) are not the
    // user's concern; its errors are reported with what it said.
    const ProcessResult r = runProcess({"dot", "-T" + format, "-o", out}, dot.str());
    if (!r.started)
        throw std::runtime_error("Cannot draw " + out + ": " + r.output +
                                 " (Graphviz's dot program is needed: install the graphviz package,"
                                 " or write the dot text with -o FILE.dot)");
    if (r.exitStatus != 0) throw std::runtime_error("Graphviz could not draw " + out + ": " + outputExcerpt(r.output));
    return kExitOk;
}

}  // namespace host
