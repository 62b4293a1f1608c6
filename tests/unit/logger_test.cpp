#include "Logger.h"
#include "TestSupport.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <unistd.h>

#include <chrono>
#include <future>
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

// A CAN reader logs under locks that other readers and services wait for: with a stderr that
// nobody reads (a stuck syslog alike), its line must go through the logger's thread and the
// reader go on.
TEST(Logger, DeferredLinesDoNotWaitForAStuckStderr) {
    int fds[2];
    ASSERT_EQ(pipe(fds), 0);
    fcntl(fds[1], F_SETFL, O_NONBLOCK);
    while (write(fds[1], "x", 1) == 1) {
    }
    fcntl(fds[1], F_SETFL, 0);
    const int saved = dup(STDERR_FILENO);
    dup2(fds[1], STDERR_FILENO);
    auto logged = std::async(std::launch::async, [] {
        LogLine::Deferral deferral;
        LOG(1) << "deferred " << 1;
    });
    const bool wentOn = logged.wait_for(std::chrono::seconds(5)) == std::future_status::ready;
    std::string drained;
    char buffer[4096];
    while (drained.find("WARN: deferred 1\n") == std::string::npos) {
        const ssize_t n = read(fds[0], buffer, sizeof buffer);
        if (n <= 0)
            break;
        drained.append(buffer, static_cast<size_t>(n));
    }
    dup2(saved, STDERR_FILENO);
    for (int fd : {saved, fds[0], fds[1]})
        close(fd);
    EXPECT_TRUE(wentOn);
    EXPECT_NE(drained.find("WARN: deferred 1\n"), std::string::npos);
}
