#include "PeriodicThread.h"

#include "DocumentTestSupport.h"

#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <memory>

using namespace std::chrono;
using Clock = PeriodicThread::Clock;

TEST(PeriodicThreadTest, DeadlinesKeepTheRhythmUnlessAWholePeriodWasMissed) {
    const Clock::time_point t0;
    const microseconds period(1000000);
    // A turn that took a while does not shift the next deadline.
    EXPECT_EQ(PeriodicThread::nextDeadline(t0, t0 + milliseconds(10), period), t0 + period);
    EXPECT_EQ(PeriodicThread::nextDeadline(t0, t0 + period, period), t0 + period);
    // One that overran a whole period: no burst of turns to catch up, the next comes at once.
    EXPECT_EQ(PeriodicThread::nextDeadline(t0, t0 + milliseconds(3500), period),
              t0 + milliseconds(3500));
}

TEST(PeriodicThreadTest, RunsTurnsUntilStopped) {
    std::atomic<int> turns{0};
    std::promise<void> third;
    PeriodicThread thread([&] {
        if (++turns == 3)
            third.set_value();
    });
    EXPECT_FALSE(thread.start(microseconds(0))) << "would spin";
    EXPECT_FALSE(thread.running());
    ASSERT_TRUE(thread.start(milliseconds(5)));
    EXPECT_TRUE(thread.running());
    EXPECT_FALSE(thread.start(milliseconds(5))) << "already running";
    ASSERT_EQ(third.get_future().wait_for(seconds(30)), std::future_status::ready);
    thread.stop();
    EXPECT_FALSE(thread.running());
    const int after = turns;
    std::this_thread::sleep_for(milliseconds(20));
    EXPECT_EQ(turns, after) << "no turn after stop";
    thread.stop();
}

TEST(PeriodicThreadTest, StopDoesNotWaitForThePeriod) {
    std::atomic<int> turns{0};
    auto thread = std::make_unique<PeriodicThread>([&] { ++turns; });
    ASSERT_TRUE(thread->start(hours(1)));
    EXPECT_TRUE(finishesSoon([&] { thread.reset(); }));
    EXPECT_EQ(turns, 0);
}
