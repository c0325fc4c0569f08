#include <gtest/gtest.h>

#include <sstream>
#include <stdexcept>

#include "vandrel/runtime/SimulationLogger.h"

namespace {

class SimulationLogger : public testing::Test {
protected:
    void TearDown() override {
        log_.setLevel(LOG_NONE);
        log_.setStream(nullptr);
        log_.setIndent(0);
    }
    wSimulationLogger& log_ = wSimulationLogger::instance();
    std::ostringstream out_;
};

TEST_F(SimulationLogger, Indentation) {
    log_.setStream(&out_);
    log_.addIndent(4);
    log_.addIndent(4);
    log_ << wSimulationLogger::Indenter() << "a" << 1 << std::endl;
    log_.setIndent(0);
    EXPECT_EQ(log_.getIndent(), 0);
    log_ << wSimulationLogger::Indenter() << "b" << std::endl;
    {
        wLogIndentScope nested;
        log_ << wSimulationLogger::Indenter() << "c" << std::endl;
    }
    EXPECT_EQ(out_.str(), "        a1\nb\n    c\n");

    // A negative width is refused and leaves the indentation as it was.
    log_.setIndent(2);
    EXPECT_THROW(log_.addIndent(-4), std::length_error);
    EXPECT_EQ(log_.getIndent(), 2);
}

TEST_F(SimulationLogger, TraceNeedsLevelThreeAndAStream) {
    EXPECT_EQ(&wSimulationLogger::instance(), &log_);
    log_.setLevel(LOG_TRACE);
    EXPECT_FALSE(log_.enabled(LOG_TRACE));  // no stream yet
    log_.setStream(&out_);
    EXPECT_TRUE(log_.enabled(LOG_TRACE));
    log_.setLevel(2);
    EXPECT_FALSE(log_.enabled(LOG_TRACE));
    EXPECT_TRUE(log_.enabled(LOG_WARNINGS));
}

}  // namespace
