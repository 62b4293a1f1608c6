#ifndef TAVRO_FRAMEQUEUE_H
#define TAVRO_FRAMEQUEUE_H

#include "DecodedFrame.h"

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <deque>
#include <memory>
#include <mutex>

// Copies of received frames on their way from the CAN readers to one consumer thread. Bounded:
// on overload the oldest frame is dropped, so the consumer always sees the most recent ones. The
// consumer is woken as soon as a frame arrives, up to ten frames per millisecond of gathering
// time; above that pace it takes them in runs, each frame waiting at most the gathering time.
//
// A full queue first holds the readers up, while frames wait in their sockets, so that a
// consumer kept off the CPU for a few milliseconds loses nothing: at ten times a full bus on
// two interfaces the 100 frames last 2.6 ms. Only a queue that has been behind for the stall
// allowance (full, and not back to half since) drops frames; from then on until it is back to
// half, frames are dropped at once as without the allowance. There is no holding up before the
// consumer has asked for its first frame, nor after close.
class FrameQueue {
public:
    static constexpr size_t defaultCapacity = 100;
    // Well below what a reader's socket holds at ten times a full bus.
    static constexpr std::chrono::milliseconds defaultStallAllowance{20};

    // Shorter windows cost more than they save: a timed wake-up for a few frames.
    static constexpr std::chrono::microseconds defaultGathering{1000};
    // Frames per gathering time above which the consumer gathers.
    static constexpr size_t gatheringPace = 10;
    // Frames in a row, each waiting or come sooner than gathering / gatheringPace, that start
    // gathering; so that the bursts of a normal bus do not.
    static constexpr int quickFramesToGather = 8;

    explicit FrameQueue(size_t capacity = defaultCapacity,
                        std::chrono::milliseconds stallAllowance = defaultStallAllowance,
                        std::chrono::microseconds gathering = defaultGathering);
    FrameQueue(const FrameQueue&) = delete;
    FrameQueue& operator=(const FrameQueue&) = delete;

    // Appends a deep copy of frame; beyond the capacity the oldest frame is dropped with
    // "Dropped can frame!". Safe from several threads.
    void push(const DecodedFrame& frame);
    // The oldest frame; waits for one. Nothing (also with frames left) once closed.
    std::unique_ptr<DecodedFrame> pop();
    // Wakes the consumer for good; frames still queued are freed with the queue.
    void close();
    size_t size() const;

private:
    using Clock = std::chrono::steady_clock;

    const size_t capacity;
    const std::chrono::milliseconds stallAllowance;
    const std::chrono::microseconds gathering;
    mutable std::mutex mutex;
    std::condition_variable arrived;
    std::condition_variable taken;
    std::deque<std::unique_ptr<DecodedFrame>> frames;
    bool closed = false;
    bool consuming = false; // pop has been called
    bool behind = false;    // full since behindSince, not back to half yet
    Clock::time_point behindSince;
    size_t waitingProducers = 0;
    bool sleeping = false; // the consumer waits to be woken by the next frame
    bool gatheringRuns = false;
    int quickFrames = 0;
};

#endif
