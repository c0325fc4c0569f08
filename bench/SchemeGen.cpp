#include "SchemeGen.h"

#include <cmath>
#include <filesystem>
#include <fstream>
#include <sstream>

namespace bench {

namespace {

void connection(std::ostringstream& s, int from, const char* fromLead, int to, const std::string& toLead) {
    s << "    { output_block = " << from << ", output_lead = \"" << fromLead << "\", input_block = " << to
      << ", input_lead = \"" << toLead << "\", port = false },\n";
}

// Period of the i-th event block: 1..10 ms.
double period(int i) { return 0.001 * (1 + i % 10); }

}  // namespace

std::string lagsScheme(int n, double H) {
    std::ostringstream s;
    s.precision(17);
    s << "simulation_scheme = {\n  blocks = {\n";
    s << "    { __name = \"u\", __type = \"wBlockConstantsDescriptor\",\n"
         "      values = { { name = \"u\", type = 1 }, { name = \"x0\", type = 1 } },\n"
         "      __parameters = { u = { value = 1 }, x0 = { value = 0 } } },\n";
    for (int i = 0; i < n; ++i) {
        s << "    { __name = \"e" << i << "\", __type = \"wBlockSummatorDescriptor<double>\", __parameters = {},\n"
          << "      inputs = { { name = \"input1\", coeff = 1 }, { name = \"input2\", coeff = -1 } } },\n";
        s << "    { __name = \"x" << i << "\", __type = \"wBlockIntegratorDescriptor<double>\", __parameters = {} },\n";
    }
    s << "  },\n  solver = { __type = \"wSolverExplEulerDescriptor\", H = " << H << " },\n";
    s << "  io = { inputWires = { { name = \"x0\", type = 2 } }, inputPorts = {}, outputWires = {}, outputPorts = {} },\n";
    s << "  connections = {\n";
    for (int i = 0; i < n; ++i) {
        const int sum = 1 + 2 * i, integ = 2 + 2 * i;
        connection(s, 0, "u", sum, "input1");
        connection(s, integ, "output", sum, "input2");
        connection(s, sum, "output", integ, "input");
        connection(s, 0, "x0", integ, "output.initial");
    }
    connection(s, 2, "output", -666, "x0");
    s << "  },\n}\n";
    return s.str();
}

std::string eventsScheme(int n) {
    std::ostringstream s;
    s << "simulation_scheme = {\n  blocks = {\n";
    s << "    { __name = \"target\", __type = \"wBlockConstantsDescriptor\",\n"
         "      values = { { name = \"target\", type = 1 } }, __parameters = { target = { value = 1 } } },\n";
    for (int i = 0; i < n; ++i) {
        if (i % 2 == 0)
            s << "    { __name = \"r" << i << "\", __type = \"wBlockRampDescriptor\", __parameters = { dt = { value = "
              << period(i) << " }, slope = { value = 0.5 } } },\n";
        else
            s << "    { __name = \"w" << i << "\", __type = \"wBlockDelayTriggerWireDescriptor\", __parameters = { dt = { value = "
              << period(i) << " }, delay_par = { value = 0.5 } } },\n";
    }
    s << "  },\n  io = { inputWires = {}, inputPorts = {}, outputWires = {}, outputPorts = {} },\n";
    s << "  connections = {\n";
    for (int i = 0; i < n; i += 2) connection(s, 0, "target", 1 + i, "target");
    s << "  },\n}\n";
    return s.str();
}

long long eventsIn(int n, double T) {
    long long total = 0;
    for (int i = 0; i < n; ++i) total += static_cast<long long>(std::floor(T / period(i) + 1e-9)) + 1;
    return total;
}

std::string writeTemp(const std::string& name, const std::string& text) {
    const auto path = std::filesystem::temp_directory_path() / name;
    std::ofstream(path) << text;
    return path.string();
}

}  // namespace bench
