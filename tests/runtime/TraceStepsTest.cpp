// Block bodies trace through one cached flag; these check the flag follows the logger's
// level and stream and that the lines written are the ones a reader of a trace expects.
#include <gtest/gtest.h>

#include <sstream>
#include <string>

#include "blocks/BlockTestUtil.h"
#include "vandrel/runtime/SimulationLogger.h"

namespace {

using blocktest::inputs;

TEST(TraceSteps, BodiesTraceExactlyWhenTheLoggerTraces) {
    blocktest::Bench b;
    b.add("sd", "wBlockSummatorDescriptor<double>", "", inputs({"p", "q"}, {"2", "3"}));
    testutil::Running r(b.s.text());
    wSimulationSystem& sys = *r.system;
    wSimulationLogger& log = wSimulationLogger::instance();

    struct Case {
        int level;
        bool stream;
        bool traced;
    };
    const Case cases[] = {{0, true, false}, {2, true, false}, {3, true, true}, {4, true, true}, {3, false, false},
                          {4, false, false}};
    double t = 0.0;
    for (const Case& c : cases) {
        SCOPED_TRACE("level " + std::to_string(c.level) + (c.stream ? " with" : " without") + " a stream");
        testutil::LogCapture capture(c.level);
        if (!c.stream) log.setStream(nullptr);
        EXPECT_EQ(wSimulationLogger::tracingSteps(), c.traced);
        EXPECT_EQ(wSimulationLogger::tracingSteps(), log.enabled(LOG_TRACE));

        t += 0.5;
        sys.setInput<double>("sd.p", t);  // dirty: the Sum runs in this step
        sys.simulate(t);
        EXPECT_DOUBLE_EQ(sys.getOutput<double>("sd.output"), 2.0 * t);
        std::ostringstream sumLine;
        sumLine << "wBlockSummator<0>(" << t << ")\n";
        EXPECT_EQ(capture.text().find(sumLine.str()) != std::string::npos, c.traced) << capture.text();
    }
    // The capture restored the logger: the flag follows it back.
    EXPECT_EQ(wSimulationLogger::tracingSteps(), log.enabled(LOG_TRACE));
}

TEST(TraceSteps, StepLinesAreIndentedLikeEveryOtherLine) {
    testutil::LogCapture capture(LOG_TRACE);
    wSimulationLogger& log = wSimulationLogger::instance();
    log.setIndent(3);
    wSimulationLogger::traceStep("wBlockX", 1.25);
    log.setLevel(LOG_WARNINGS);
    wSimulationLogger::traceStep("wBlockY", 2.0);  // below the level: nothing written
    EXPECT_EQ(capture.text(), "   wBlockX(1.25)\n");
}

}  // namespace
