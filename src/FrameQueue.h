#ifndef TAVRO_FRAMEQUEUE_H
#define TAVRO_FRAMEQUEUE_H

#include "DecodedFrame.h"

#include <condition_variable>
#include <cstddef>
#include <deque>
#include <memory>
#include <mutex>

// Copies of received frames on their way from the CAN readers to one consumer thread. Bounded:
// on overload the oldest frame is dropped, so the consumer always sees the most recent ones. The
// consumer is woken as soon as a frame arrives rather than polling.
class FrameQueue {
public:
    static constexpr size_t defaultCapacity = 100;

    explicit FrameQueue(size_t capacity = defaultCapacity);
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
    const size_t capacity;
    mutable std::mutex mutex;
    std::condition_variable arrived;
    std::deque<std::unique_ptr<DecodedFrame>> frames;
    bool closed = false;
};

#endif
