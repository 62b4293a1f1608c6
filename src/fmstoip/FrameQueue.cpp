#include "FrameQueue.h"

#include "Heartbeat.h"
#include "Logger.h"

FrameQueue::FrameQueue(size_t limit, std::chrono::milliseconds allowance,
                       std::chrono::microseconds gather)
    : capacity(limit), stallAllowance(allowance), gathering(gather) {}

void FrameQueue::push(const DecodedFrame& frame) {
    // Copy and free outside the lock: the readers only contend for the append itself.
    std::unique_ptr<DecodedFrame> copy(new DecodedFrame(frame));
    std::unique_ptr<DecodedFrame> dropped;
    bool wake;
    {
        std::unique_lock<std::mutex> lock(mutex);
        if (frames.size() >= capacity && consuming && !closed) {
            if (!behind) {
                behind = true;
                behindSince = Clock::now();
            }
            ++waitingProducers;
            taken.wait_until(lock, behindSince + stallAllowance,
                             [this] { return closed || frames.size() < capacity; });
            --waitingProducers;
        }
        frames.push_back(std::move(copy));
        if (frames.size() > capacity) {
            dropped = std::move(frames.front());
            frames.pop_front();
        }
        wake = sleeping || frames.size() >= capacity / 2;
    }
    if (wake)
        arrived.notify_one();
    if (dropped) {
        LOG(1) << "Dropped can frame!";
    }
}

std::unique_ptr<DecodedFrame> FrameQueue::pop() {
    Heartbeat::beat();
    std::unique_lock<std::mutex> lock(mutex);
    consuming = true;
    // At a pace where waking the consumer for each frame costs more than the frame itself, an
    // emptied queue gets the gathering time to fill before the consumer asks to be woken: it
    // then takes frames in runs and the readers save a wake-up call per frame. Half a queue
    // cuts the wait short. Below that pace (fewer than gatheringPace frames in the window)
    // every frame wakes it at once again.
    if (frames.empty() && gatheringRuns) {
        arrived.wait_for(lock, gathering,
                         [this] { return closed || frames.size() >= capacity / 2; });
        if (frames.size() < gatheringPace) {
            gatheringRuns = false;
            // The frames of the window waited because of it: they do not count as quick.
            quickFrames = -static_cast<int>(frames.size());
        }
    }
    if (frames.empty()) {
        sleeping = true;
        const Clock::time_point since = Clock::now();
        // Waiting for frames is progress too (once a second), so idle is not hung.
        while (!arrived.wait_for(lock, std::chrono::seconds(1),
                                 [this] { return closed || !frames.empty(); }))
            Heartbeat::beat();
        sleeping = false;
        if (Clock::now() - since >= gathering / gatheringPace)
            quickFrames = 0;
    }
    if (!gatheringRuns && ++quickFrames >= quickFramesToGather)
        gatheringRuns = true;
    if (closed)
        return nullptr;
    std::unique_ptr<DecodedFrame> frame = std::move(frames.front());
    frames.pop_front();
    if (behind && frames.size() <= capacity / 2)
        behind = false;
    // Held-up readers go on once there is room for a run of frames, not at every frame taken.
    const bool wake = waitingProducers != 0 && frames.size() <= capacity - capacity / 4;
    lock.unlock();
    if (wake)
        taken.notify_all();
    return frame;
}

void FrameQueue::close() {
    {
        std::lock_guard<std::mutex> lock(mutex);
        closed = true;
    }
    arrived.notify_all();
    taken.notify_all();
}

size_t FrameQueue::size() const {
    std::lock_guard<std::mutex> lock(mutex);
    return frames.size();
}
