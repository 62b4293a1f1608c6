#include "PeriodicThread.h"

#include "Heartbeat.h"

#include <algorithm>
#include <system_error>

namespace {
constexpr std::chrono::seconds beatInterval{1};
}

PeriodicThread::PeriodicThread(std::function<void()> turnFunction)
    : turn(std::move(turnFunction)) {}

PeriodicThread::~PeriodicThread() {
    stop();
}

bool PeriodicThread::start(std::chrono::microseconds period) {
    std::lock_guard<std::mutex> lock(mutex);
    if (period.count() <= 0 || thread.joinable())
        return false;
    stopping = false;
    try {
        thread = std::thread(&PeriodicThread::run, this, period);
    } catch (const std::system_error&) {
        return false;
    }
    return true;
}

void PeriodicThread::stop() {
    std::thread finished;
    {
        std::lock_guard<std::mutex> lock(mutex);
        stopping = true;
        finished = std::move(thread);
    }
    wake.notify_all();
    if (finished.joinable())
        finished.join();
}

bool PeriodicThread::running() const {
    std::lock_guard<std::mutex> lock(mutex);
    return thread.joinable() && !stopping;
}

PeriodicThread::Clock::time_point PeriodicThread::nextDeadline(Clock::time_point deadline,
                                                               Clock::time_point now,
                                                               std::chrono::microseconds period) {
    Clock::time_point next = deadline + period;
    return next < now ? now : next;
}

void PeriodicThread::run(std::chrono::microseconds period) {
    Clock::time_point deadline = Clock::now() + period;
    for (;;) {
        Heartbeat::beat();
        {
            // Wakes at least once a second, so that a long period does not look hung.
            std::unique_lock<std::mutex> lock(mutex);
            const Clock::time_point wakeUp = std::min(deadline, Clock::now() + beatInterval);
            if (wake.wait_until(lock, wakeUp, [this] { return stopping; }))
                return;
            if (Clock::now() < deadline)
                continue;
        }
        turn();
        deadline = nextDeadline(deadline, Clock::now(), period);
    }
}
