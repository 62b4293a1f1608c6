#include "Logger.h"
#include "TestSupport.h"

#include <gtest/gtest.h>

#include <chrono>
#include <thread>

// The first line prints, repeats within the window are counted, and one line at the end of the
// window says how many, without waiting for another line; other lines pass meanwhile.
TEST(Logger, RepeatsWithinAWindowAreSummarised) {
    VerbosityScope v(4);
    StderrCapture capture;
    const std::string first =
        "WARN: flood 7\nNOTE: other\nNOTE: flood 7\nDBG : trace\nDBG : trace\n"
        "WARN: Repeated 999 times in 1 s: flood 7\n";
    {
        RepeatWindowScope window(std::chrono::milliseconds(500));
        for (int i = 0; i < 1000; ++i)
            LOG(1) << "flood " << 7;
        LOG(2) << "other";
        LOG(2) << "flood 7"; // same text, other level
        LOG(4) << "trace";
        LOG(4) << "trace";
        for (int i = 0; i < 500 && capture.text() != first; ++i)
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        EXPECT_EQ(capture.text(), first);
        LOG(1) << "flood 7";
        LOG(1) << "flood 7";
    }
    EXPECT_EQ(capture.text(), first + "WARN: flood 7\nWARN: Repeated 1 times in 1 s: flood 7\n");
}
