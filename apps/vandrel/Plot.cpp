#include "Plot.h"

#include <cctype>
#include <cstdio>
#include <filesystem>
#include <set>
#include <stdexcept>
#include <string>

#include "Csv.h"
#include "Files.h"
#include "vandrel/blocks/Oscilloscope.h"
#include "vandrel/core/BlockParameter.h"
#include "vandrel/runtime/SimulationSystem.h"

namespace host {

namespace {

// A gnuplot single-quoted string: quotes are doubled, and control characters (a newline
// would end the command and start another) become '?'.
std::string quoted(const std::string& s) {
    std::string q = "'";
    for (char c : s) {
        if (c == '\'') q += "''";
        else if (static_cast<unsigned char>(c) < 0x20 || c == 0x7f) q += '?';
        else q += c;
    }
    return q + "'";
}

bool endsWith(const std::string& s, const char* suffix) {
    const std::string x(suffix);
    return s.size() >= x.size() && s.compare(s.size() - x.size(), x.size(), x) == 0;
}

}  // namespace

bool drawPlot(const std::string& csvFile, int columns, const std::string& plotFile, const std::string& title) {
    if (columns <= 0) return false;
    std::FILE* gp = ::popen("gnuplot 2>&1", "w");
    if (!gp) return false;
    const bool svg = endsWith(plotFile, ".svg") || endsWith(plotFile, ".SVG");
    std::fprintf(gp, "set terminal %s size 1000,600 noenhanced\n", svg ? "svg" : "pngcairo");
    std::fprintf(gp, "set output %s\n", quoted(plotFile).c_str());
    std::fprintf(gp, "set datafile separator ','\n");
    std::fprintf(gp, "set title %s\n", quoted(title).c_str());
    std::fprintf(gp, "set xlabel 'time (s)'\nset grid\nset key outside right top\n");
    std::fprintf(gp, "plot for [i=2:%d] %s using 1:i with lines title columnhead(i)\n", columns + 1,
                 quoted(csvFile).c_str());
    std::fprintf(gp, "set output\n");
    return ::pclose(gp) == 0;
}


std::string scopeFileName(std::string_view blockName) {
    // Percent-escaping keeps the mapping one-to-one, so distinct blocks get distinct
    // files; only characters that are plain in any file system pass unchanged.
    constexpr std::size_t kMaxStem = 200;  // bytes; leaves room below NAME_MAX (255)
    static const char* const hex = "0123456789ABCDEF";
    std::string stem;
    for (std::size_t i = 0; i < blockName.size(); ++i) {
        const auto c = static_cast<unsigned char>(blockName[i]);
        const bool plain = std::isalnum(c) != 0 || c == '_' || c == '-' || (c == '.' && i > 0) || (c == ' ' && i > 0);
        if (plain) {
            stem += static_cast<char>(c);
        } else {
            stem += '%';
            stem += hex[c >> 4];
            stem += hex[c & 15];
        }
    }
    if (stem.empty()) stem = "%unnamed";
    if (stem.size() > kMaxStem) stem.resize(kMaxStem);
    return stem;
}

void writeScopeRecordings(const wSimulationSystem& system, const std::string& dir) {
    if (dir.empty()) return;
    std::filesystem::create_directories(dir);
    std::set<std::string> used;
    for (int i = 0; i < system.getBlockCount(); ++i) {
        const auto* scope = dynamic_cast<const wBlockOscilloscope*>(system.getBlock(i));
        if (!scope) continue;
        // Names that only differ beyond the length limit (or were cut) get a counter.
        const std::string stem = scopeFileName(scope->getDescriptor()->getName());
        std::string name = stem + ".csv";
        for (int k = 2; !used.insert(name).second; ++k) name = stem + "~" + std::to_string(k) + ".csv";
        const std::string file = (std::filesystem::path(dir) / name).string();

        std::FILE* out = openForWriting(file);
        const auto& names = scope->columnNames();
        for (std::size_t c = 0; c < names.size(); ++c)
            std::fprintf(out, "%s%s", c ? "," : "", csvField(std::string_view(names[c].data(), names[c].size())).c_str());
        std::fputc('\n', out);
        for (int k = 0; k < scope->sampleCount(); ++k) {
            const double* row = scope->sample(k);
            for (int c = 0; c < scope->width(); ++c)
                std::fprintf(out, "%s%s", c ? "," : "", doubleToString(row[c]).c_str());
            std::fputc('\n', out);
        }
        const bool failed = std::ferror(out) != 0;
        if (std::fclose(out) != 0 || failed) throw std::runtime_error("Cannot write " + file);
    }
}

}  // namespace host
