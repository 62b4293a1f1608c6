#include "Logger.h"
#include "TestSupport.h"

#include <gtest/gtest.h>

TEST(Logger, LevelNamesAreFourCharactersAndClamp) {
    EXPECT_STREQ(LogLine::levelName(0), "ERR ");
    EXPECT_STREQ(LogLine::levelName(1), "WARN");
    EXPECT_STREQ(LogLine::levelName(2), "NOTE");
    EXPECT_STREQ(LogLine::levelName(3), "INFO");
    EXPECT_STREQ(LogLine::levelName(4), "DBG ");
    EXPECT_STREQ(LogLine::levelName(8), "DBG ");
}

TEST(Logger, GuardFollowsVerbosity) {
    StderrCapture capture;
    {
        VerbosityScope v(2);
        LOG(3) << "hidden info";
        LOG(2) << "note " << 42;
        LOG(6) << "hidden trace";
    }
    {
        VerbosityScope v(8);
        LOG(6) << "trace";
        LOGV(8, 4) << "needs eight";
    }
    {
        VerbosityScope v(0);
        LOG(1) << "hidden warning";
        LOG(0) << "error";
    }
    EXPECT_EQ(capture.text(), "NOTE: note 42\nDBG : trace\nDBG : needs eight\nERR : error\n");
}

TEST(Logger, GuardSkipsFormatting) {
    VerbosityScope v(2);
    int evaluated = 0;
    auto count = [&evaluated]() { return ++evaluated; };
    StderrCapture capture;
    LOG(3) << count();
    EXPECT_EQ(evaluated, 0);
    LOG(2) << count();
    EXPECT_EQ(evaluated, 1);
}

TEST(Logger, UnguardedLineIsAlwaysEmitted) {
    VerbosityScope v(0);
    StderrCapture capture;
    { LogLine(3) << "forced"; }
    EXPECT_EQ(capture.text(), "INFO: forced\n");
}
