// Tables and plots of `vandrel run` through a real process: number precision, the plot's
// format, title, step drawing and range, and gnuplot kept quiet.
#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>
#include <charconv>
#include <cmath>
#include <sstream>
#include <string>
#include <vector>

#include "support/CliProcess.h"
#include "support/SchemeFiles.h"

namespace {

using testutil::kIO;
using testutil::slurp;

class Plot : public testutil::CliProcess {
protected:
    void SetUp() override {
        CliProcess::SetUp();
        if (!IsSkipped() && !testutil::onPath("gnuplot")) GTEST_SKIP() << "gnuplot is not installed";
    }
};

// y' = 1/3, y(0) = 0, H = 0.1: numbers that have no short exact form.
std::string thirds() {
    testutil::SchemeText s;
    const int c = s.block("c", "wBlockConstantsDescriptor", "k = { value = 1/3 }, y0 = { value = 0 }",
                          "values = { { name = \"k\", type = 1 }, { name = \"y0\", type = 1 } }");
    const int y = s.block("y", "wBlockIntegratorDescriptor<double>");
    s.solver("__type = \"wSolverExplEulerDescriptor\", H = 0.1");
    s.outputWire(y, "output", "y", LEAD_DOUBLE);
    s.wire(c, "k", y, "input");
    s.wire(c, "y0", y, "output.initial");
    return s.text();
}

// on: false until t > 2, then true (a boolean along the top of its range); level: a held
// double that steps with it; ramp: a continuous double. Time runs to 4 s.
std::string switching() {
    testutil::SchemeText s;
    const int c = s.block("c", "wBlockConstantsDescriptor", "one = { value = 1 }, zero = { value = 0 }",
                          "values = { { name = \"one\", type = 1 }, { name = \"zero\", type = 1 } }");
    const int on = s.block("on", "wBlockDelayTriggerWireDescriptor", "dt = { value = 0.5 }, delay_par = { value = 2 }");
    const int level = s.block("level", "wBlockI2ODescriptor<bool CMA double>");
    const int ramp = s.block("ramp", "wBlockIntegratorDescriptor<double>");
    s.solver("__type = \"wSolverExplEulerDescriptor\", H = 0.25");
    s.outputWire(ramp, "output", "ramp", LEAD_DOUBLE);
    s.outputWire(on, "triggered", "on", LEAD_BOOL);
    s.outputWire(level, "output", "level", LEAD_DOUBLE);
    s.wire(c, "one", ramp, "input");
    s.wire(c, "zero", ramp, "output.initial");
    s.wire(on, "triggered", level, "input");
    return s.text();
}

// The lines of a text, or with ',' the cells of a line.
std::vector<std::string> split(const std::string& text, char sep = '\n') {
    std::vector<std::string> v;
    std::istringstream in(text);
    for (std::string l; std::getline(in, l, sep);) v.push_back(l);
    return v;
}

struct Point {
    double x, y;
};

// Where gnuplot's SVG starts the series titled `name`: its group, whose first text is
// its key entry.
std::size_t seriesAt(const std::string& svg, const std::string& name) {
    for (auto g = svg.find("<g id=\"gnuplot_plot_"); g != std::string::npos; g = svg.find("<g id=\"gnuplot_plot_", g + 1))
        if (svg.find("<text>", g) == svg.find("<text>" + name + "</text>", g)) return g;
    return std::string::npos;
}

// The points a path draws, from `d='` at or after `from`, skipping the first `skip` subpaths.
std::vector<Point> pathPoints(const std::string& svg, std::size_t from, int skip) {
    std::vector<Point> points;
    const auto d = svg.find("d='", from);
    if (d == std::string::npos) return points;
    std::istringstream in(svg.substr(d + 3, svg.find('\'', d + 3) - d - 3));
    int moves = 0;
    for (std::string tok; in >> tok;) {
        if (tok[0] == 'M') ++moves;
        Point p{};
        if (moves > skip && std::sscanf(tok.c_str() + 1, "%lf,%lf", &p.x, &p.y) == 2) points.push_back(p);
    }
    return points;
}

// The points drawn for the series titled `name` (the sample line of its key dropped).
std::vector<Point> seriesPoints(const std::string& svg, const std::string& name) {
    const auto at = seriesAt(svg, name);
    return at == std::string::npos ? std::vector<Point>{} : pathPoints(svg, at, 1);
}

// The top and bottom of the panel the series `name` is drawn in: its closed border path.
std::pair<double, double> panelOf(const std::string& svg, const std::string& name) {
    const auto z = svg.rfind(" Z ", seriesAt(svg, name));
    double top = 1e9, bottom = -1e9;
    for (const Point& p : pathPoints(svg, svg.rfind("d='", z), 0)) {
        top = std::min(top, p.y);
        bottom = std::max(bottom, p.y);
    }
    return {top, bottom};
}

// Whether every segment between consecutive points is horizontal or vertical.
bool axisAligned(const std::vector<Point>& pts) {
    for (std::size_t i = 1; i < pts.size(); ++i)
        if (pts[i].x != pts[i - 1].x && pts[i].y != pts[i - 1].y) return false;
    return true;
}

TEST_F(Plot, PrecisionRoundsNumbersAndTheDefaultReadsBackExactly) {
    const auto scheme = write("thirds.lua", thirds()).string();
    auto r = run("run " + scheme + " --until 0.3 -q");
    ASSERT_EQ(r.status, 0) << r.err;
    // Shortest round trip: each cell is the shortest text that reads back to the value
    // that 17 digits show.
    const auto exact = run("run " + scheme + " --until 0.3 --precision 17 -q");
    ASSERT_EQ(exact.status, 0) << exact.err;
    const auto rows = split(r.out), exactRows = split(exact.out);
    ASSERT_EQ(rows.size(), 4u);
    ASSERT_EQ(exactRows.size(), 4u);
    EXPECT_EQ(exactRows[1], "0.10000000000000001,0.033333333333333333");
    for (std::size_t n = 1; n < rows.size(); ++n) {
        std::string expected;
        for (const std::string& cell : split(exactRows[n], ',')) {
            char buf[32];
            const auto end = std::to_chars(buf, buf + sizeof buf, std::stod(cell)).ptr;
            expected += (expected.empty() ? "" : ",") + std::string(buf, end);
        }
        EXPECT_EQ(rows[n], expected);
    }
    EXPECT_EQ(rows[1], "0.1,0.03333333333333333");
    EXPECT_EQ(rows[3].substr(0, 20), "0.30000000000000004,");

    r = run("run " + scheme + " --until 0.3 --precision 3 -q");
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.out, "time,y\n0.1,0.0333\n0.2,0.0667\n0.3,0.1\n");
    // Oscilloscope recordings follow the same option.
    r = run("run " + example("projectile.lua") + " --until 1 --precision 3 -q --scope-dir " + dir_.string());
    ASSERT_EQ(r.status, 0) << r.err;
    const auto scope = split(slurp(dir_ / "scope.csv"));
    ASSERT_GE(scope.size(), 10u);
    for (std::size_t n = 1; n < scope.size(); ++n)
        for (const std::string& cell : split(scope[n], ',')) {
            std::string digits;
            for (char ch : cell.substr(0, cell.find('e')))
                if (std::isdigit(static_cast<unsigned char>(ch)) && !(digits.empty() && ch == '0')) digits += ch;
            EXPECT_LE(digits.size(), 3u) << cell;
        }
    for (const char* bad : {"0", "18", "x"}) {
        r = run("run " + scheme + " --precision " + bad + " -q");
        EXPECT_EQ(r.status, 2) << bad;
        EXPECT_EQ(r.out, "") << bad;
    }
}

TEST_F(Plot, FormatComesFromTheExtensionOrIsRefused) {
    const auto scheme = write("switching.lua", switching()).string();
    const struct {
        const char* file;
        std::string magic;  // first bytes of the file
    } cases[] = {{"p.png", "\x89PNG"}, {"p.SVG", "<?xml"}, {"p.pdf", "%PDF"}};
    for (const auto& c : cases) {
        const auto file = dir_ / c.file;
        const auto r = run("run " + scheme + " --until 4 -q --plot " + file.string());
        ASSERT_EQ(r.status, 0) << c.file << ": " << r.err;
        EXPECT_EQ(r.err, "") << c.file;
        EXPECT_EQ(slurp(file).substr(0, c.magic.size()), c.magic) << c.file;
    }
    // Refused before anything runs: no table, no file.
    for (const char* file : {"p.jpg", "p", "p.png.txt"}) {
        const auto r = run("run " + scheme + " --until 4 -q --plot " + (dir_ / file).string());
        EXPECT_EQ(r.status, 2) << file;
        EXPECT_EQ(r.out, "") << file;
        EXPECT_NE(r.err.find("cannot tell the format of"), std::string::npos) << r.err;
        EXPECT_NE(r.err.find("use .png, .svg or .pdf"), std::string::npos) << r.err;
        EXPECT_FALSE(std::filesystem::exists(dir_ / file)) << file;
    }
    // So is a plot that cannot be written.
    const auto r = run("run " + scheme + " --until 4 -q --plot " + (dir_ / "nodir" / "p.png").string());
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.out, "");
    EXPECT_EQ(r.err, "vandrel: Cannot write the plot " + (dir_ / "nodir" / "p.png").string() + "\n");
}

TEST_F(Plot, HeldSignalsAreStepsInsideAPaddedRangeUnderTheSchemesName) {
    const auto scheme = write("switching.lua", switching()).string();
    const auto svgFile = dir_ / "p.svg";
    const auto r = run("run " + scheme + " --until 4 -q --plot " + svgFile.string());
    ASSERT_EQ(r.status, 0) << r.err;
    const std::string svg = slurp(svgFile);
    EXPECT_NE(svg.find("<text>switching</text>"), std::string::npos);  // the name, not the path
    EXPECT_EQ(svg.find(dir_.string()), std::string::npos);
    EXPECT_NE(svg.find("<text>time (s)</text>"), std::string::npos);

    const auto ramp = seriesPoints(svg, "ramp"), on = seriesPoints(svg, "on"), level = seriesPoints(svg, "level");
    ASSERT_EQ(ramp.size(), 8u);  // one row per 0.5 s event
    ASSERT_GE(on.size(), 4u);
    EXPECT_FALSE(axisAligned(ramp)) << "a continuous signal is drawn as straight segments";
    EXPECT_TRUE(axisAligned(on)) << "a boolean is drawn as steps";
    EXPECT_TRUE(std::any_of(on.begin() + 1, on.end(), [&](const Point& p) { return p.x == (&p - 1)->x; }))
        << "it rises along a vertical edge";
    EXPECT_TRUE(axisAligned(level)) << "a double from a discrete block is drawn as steps";
    // The ramp's last value (4) is the top of its range: padded, it stays off the border.
    // The boolean has a strip of its own below.
    const auto rampPanel = panelOf(svg, "ramp"), onPanel = panelOf(svg, "on");
    EXPECT_EQ(panelOf(svg, "level"), rampPanel);
    EXPECT_GT(onPanel.first, rampPanel.second) << "the boolean's strip is under the values";
    for (const auto* series : {&ramp, &on}) {
        const auto [top, bottom] = series == &ramp ? rampPanel : onPanel;
        ASSERT_LT(top, bottom);
        const auto highest = std::min_element(series->begin(), series->end(), [](Point a, Point b) { return a.y < b.y; });
        EXPECT_GT(highest->y - top, 0.02 * (bottom - top));
        const auto lowest = std::max_element(series->begin(), series->end(), [](Point a, Point b) { return a.y < b.y; });
        EXPECT_GT(bottom - lowest->y, 0.02 * (bottom - top));
    }
}

TEST_F(Plot, BooleansHaveLanesOfTheirOwn) {
    testutil::SchemeText s;
    const int on = s.block("on", "wBlockDelayTriggerWireDescriptor", "dt = { value = 0.5 }, delay_par = { value = 1 }");
    const int off = s.block("off", "wBlockNOTDescriptor");
    s.outputWire(on, "triggered", "on", LEAD_BOOL);
    s.outputWire(off, "output", "off", LEAD_BOOL);
    s.wire(on, "triggered", off, "input");
    const auto svgFile = dir_ / "p.svg";
    const auto r = run("run " + write("lanes.lua", s.text()).string() + " --until 3 -q --plot " + svgFile.string());
    ASSERT_EQ(r.status, 0) << r.err;
    const std::string svg = slurp(svgFile);
    const auto a = seriesPoints(svg, "on"), b = seriesPoints(svg, "off");
    ASSERT_FALSE(a.empty());
    ASSERT_FALSE(b.empty());
    const auto byY = [](Point p, Point q) { return p.y < q.y; };
    // SVG y grows downwards: the first boolean's lane lies wholly above the second's.
    EXPECT_LT(std::max_element(a.begin(), a.end(), byY)->y, std::min_element(b.begin(), b.end(), byY)->y);
}

TEST_F(Plot, GnuplotWarningsStayQuietAndAMissingGnuplotIsNamed) {
    // One constant output: gnuplot warns about the empty value range and copes.
    testutil::SchemeText s;
    const int c = s.block("c", "wBlockConstantsDescriptor", "k = { value = 2 }", "values = { { name = \"k\", type = 1 } }");
    s.outputWire(c, "k", "k", LEAD_DOUBLE);
    const auto scheme = write("constant.lua", s.text()).string();
    const auto png = dir_ / "c.png";
    auto r = run("run " + scheme + " --until 3 --every 1 -q --plot " + png.string());
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.err, "");
    EXPECT_EQ(r.out, "time,k\n0,2\n1,2\n2,2\n3,2\n");
    EXPECT_EQ(slurp(png).substr(1, 3), "PNG");

    r = run("run " + scheme + " --until 3 --every 1 -q --plot " + png.string(), "PATH=/nonexistent");
    EXPECT_EQ(r.status, 1);
    EXPECT_NE(r.err.find("Cannot draw " + png.string() + ": cannot run gnuplot: No such file or directory"),
              std::string::npos)
        << r.err;
    EXPECT_NE(r.err.find("install the gnuplot package"), std::string::npos) << r.err;
}

}  // namespace
