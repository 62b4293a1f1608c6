#ifndef TAVRO_CAN_TEST_SUPPORT_H
#define TAVRO_CAN_TEST_SUPPORT_H

#include "CanDecoder.h"
#include "CanHook.h"
#include "DecodedFrame.h"
#include "SPNNumeric.h"
#include "SPNStatus.h"
#include "SPNString.h"

#include <linux/can.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

// An extended frame with up to 8 data bytes; missing bytes are 0xFF (not available).
inline can_frame canFrame(uint32_t id, std::initializer_list<uint8_t> bytes = {}) {
    can_frame frame = {};
    frame.can_id = id | CAN_EFF_FLAG;
    frame.can_dlc = 8;
    memset(frame.data, 0xFF, 8);
    std::copy(bytes.begin(), bytes.end(), frame.data);
    return frame;
}

// A BAM: TP.CM announcing pgn with packets, then TP.DT frames from the given payload.
inline can_frame bamAnnounce(uint16_t pgn, uint16_t size, uint8_t packets) {
    return canFrame(0x1CECFF00, {0x20, uint8_t(size & 0xFF), uint8_t(size >> 8), packets, 0xFF,
                                 uint8_t(pgn & 0xFF), uint8_t(pgn >> 8), 0x00});
}
inline can_frame bamPacket(uint8_t sequence, const std::string& bytes) {
    can_frame frame = canFrame(0x1CEBFF00, {sequence});
    memcpy(frame.data + 1, bytes.data(), std::min<size_t>(bytes.size(), 7));
    return frame;
}

inline std::unique_ptr<DecodedFrame> decode(CanDecoder& decoder, const can_frame& frame) {
    return std::unique_ptr<DecodedFrame>(decoder.decode(frame));
}

inline const SPNNumeric& numeric(const DecodedFrame& frame, size_t i) {
    return dynamic_cast<const SPNNumeric&>(*frame.spns().at(i));
}
inline const SPNStatus& status(const DecodedFrame& frame, size_t i) {
    return dynamic_cast<const SPNStatus&>(*frame.spns().at(i));
}
inline const SPNString& text(const DecodedFrame& frame, size_t i) {
    return dynamic_cast<const SPNString&>(*frame.spns().at(i));
}

// Keeps a copy of every frame it is handed; safe for several reader threads.
struct RecordingHook : CanHook {
    void handleFrame(DecodedFrame* frame) override {
        std::lock_guard<std::mutex> lock(mutex);
        frames.push_back(*frame);
        arrived.notify_all();
    }
    // The frames so far, once there are at least n or a generous time has passed.
    std::vector<DecodedFrame> waitFor(size_t n = 0) {
        std::unique_lock<std::mutex> lock(mutex);
        arrived.wait_for(lock, std::chrono::seconds(20), [&] { return frames.size() >= n; });
        return frames;
    }
    std::mutex mutex;
    std::condition_variable arrived;
    std::vector<DecodedFrame> frames;
};

inline std::string testData(const std::string& name) {
    return std::string(TAVRO_TEST_DATA) + "/" + name;
}

#endif
