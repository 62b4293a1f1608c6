#ifndef TAVRO_PERIODICTHREAD_H
#define TAVRO_PERIODICTHREAD_H

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <mutex>
#include <thread>

// A thread that runs one turn per period. Turns start on absolute deadlines one period apart,
// so the time a turn takes does not stretch the period, and stop() ends a wait at once instead
// of sleeping out the period in progress.
class PeriodicThread {
public:
    using Clock = std::chrono::steady_clock;

    explicit PeriodicThread(std::function<void()> turn);
    ~PeriodicThread();
    PeriodicThread(const PeriodicThread&) = delete;
    PeriodicThread& operator=(const PeriodicThread&) = delete;

    // First turn one period from now. False when the thread could not be created, when it
    // already runs, or for a period of 0 (which would spin).
    bool start(std::chrono::microseconds period);
    // Waits for a turn in progress to finish; no further turn starts. Safe to call twice.
    void stop();
    bool running() const;

    // Deadline of the turn after the one due at `deadline`: one period later. A turn that
    // overran a whole period does not cause a burst of catch-up turns: the next one starts at
    // once and the rhythm continues from there.
    static Clock::time_point nextDeadline(Clock::time_point deadline, Clock::time_point now,
                                          std::chrono::microseconds period);

private:
    void run(std::chrono::microseconds period);

    std::function<void()> turn;
    mutable std::mutex mutex;
    std::condition_variable wake;
    bool stopping = false;
    std::thread thread;
};

#endif
