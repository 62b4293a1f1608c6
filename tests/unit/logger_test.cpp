#include "Logger.h"
#include "TestSupport.h"

#include <gtest/gtest.h>

TEST(Logger, LevelNamesClampingAndGuard) {
    StderrCapture capture;
    int formatted = 0;
    {
        VerbosityScope v(2);
        LOG(3) << "hidden info " << ++formatted;
        LOG(2) << "note " << 42;
    }
    {
        VerbosityScope v(8);
        LOG(1) << "warning";
        LOG(4) << "debug";
        LOG(6) << "trace";
        LOGV(8, 3) << "needs eight";
    }
    {
        VerbosityScope v(0);
        LOG(1) << "hidden warning";
        LOG(0) << "error";
        // Unguarded lines are always emitted.
        LogLine(3) << "forced";
    }
    EXPECT_EQ(formatted, 0) << "a suppressed line is not formatted";
    EXPECT_EQ(capture.text(), "NOTE: note 42\nWARN: warning\nDBG : debug\nDBG : trace\n"
                              "INFO: needs eight\nERR : error\nINFO: forced\n");
}
