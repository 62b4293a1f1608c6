#include "FrameQueue.h"

#include "Logger.h"

FrameQueue::FrameQueue(size_t limit) : capacity(limit) {}

void FrameQueue::push(const DecodedFrame& frame) {
    // Copy and free outside the lock: the readers only contend for the append itself.
    std::unique_ptr<DecodedFrame> copy(new DecodedFrame(frame));
    std::unique_ptr<DecodedFrame> dropped;
    {
        std::lock_guard<std::mutex> lock(mutex);
        frames.push_back(std::move(copy));
        if (frames.size() > capacity) {
            dropped = std::move(frames.front());
            frames.pop_front();
        }
    }
    arrived.notify_one();
    if (dropped) {
        LOG(1) << "Dropped can frame!";
    }
}

std::unique_ptr<DecodedFrame> FrameQueue::pop() {
    std::unique_lock<std::mutex> lock(mutex);
    arrived.wait(lock, [this] { return closed || !frames.empty(); });
    if (closed)
        return nullptr;
    std::unique_ptr<DecodedFrame> frame = std::move(frames.front());
    frames.pop_front();
    return frame;
}

void FrameQueue::close() {
    {
        std::lock_guard<std::mutex> lock(mutex);
        closed = true;
    }
    arrived.notify_all();
}

size_t FrameQueue::size() const {
    std::lock_guard<std::mutex> lock(mutex);
    return frames.size();
}
