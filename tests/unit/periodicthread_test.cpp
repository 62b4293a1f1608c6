#include "PeriodicThread.h"

#include "Heartbeat.h"

#include <gtest/gtest.h>

#include <pthread.h>

#include <future>
#include <thread>

using namespace std::chrono;

// The watchdog's view: a thread idle for a long period still turns once a second, a thread
// held up is named once it has stood still for the limit, and an ended thread is forgotten.
TEST(PeriodicThreadTest, HeartbeatTellsAHeldUpThreadFromAnIdleOne) {
    PeriodicThread idle([] {});
    ASSERT_TRUE(idle.start(hours(1)));
    std::promise<void> release, beaten;
    std::thread held([&] {
        pthread_setname_np(pthread_self(), "held up");
        Heartbeat::beat();
        beaten.set_value();
        release.get_future().wait();
    });
    beaten.get_future().wait();
    const Heartbeat::Clock::time_point start = Heartbeat::Clock::now();
    EXPECT_EQ(Heartbeat::stalled(seconds(2), start), "");
    std::this_thread::sleep_for(seconds(4)); // the idle one turns about four times
    const std::string name = Heartbeat::stalled(seconds(2), start + seconds(3));
    EXPECT_EQ(name.substr(0, 9), "held up (") << "not the idle periodic thread: " << name;
    release.set_value();
    held.join();
    idle.stop();
    EXPECT_EQ(Heartbeat::stalled(seconds(2), start + hours(1)), "");
}
