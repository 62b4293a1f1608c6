#ifndef TAVRO_DECODEDFRAME_H
#define TAVRO_DECODEDFRAME_H

#include "PgnMapping.h"
#include "SPN.h"

#include <cstdint>
#include <ostream>
#include <vector>

// One CAN frame or reassembled transport message with its decoded signal values. Owns its
// SPNs; copies are deep. The SPNs of a single frame may be left to be decoded from its 8 data
// bytes when first asked for (setRules): most frames are never looked at. Asking is a change,
// so a frame that threads share has its SPNs asked for before.
class DecodedFrame {
public:
    static constexpr uint32_t maxData = 256;

    DecodedFrame();
    DecodedFrame(const DecodedFrame& other);
    DecodedFrame& operator=(const DecodedFrame& other);
    virtual ~DecodedFrame();

    uint16_t getPgn() const { return pgn; }
    // Keeps the low 16 bits.
    void setPgn(int32_t value) { pgn = static_cast<uint16_t>(value & 0xFFFF); }
    uint64_t getTimestamp() const { return timestamp; }
    void setTimestamp(uint64_t value) { timestamp = value; }
    uint32_t getDataLength() const { return dataLength; }
    // Always followed by a zero byte.
    const uint8_t* getData() const { return data; }

    // The 8 payload bytes of a raw word, least significant first.
    void setData(uint64_t raw);
    // The length is taken as unsigned and cut to maxData.
    void setData(const uint8_t* bytes, int32_t length);

    // A copy of the list; the frame keeps ownership of the SPNs.
    std::vector<SPN*> getSpns() const { return spns(); }
    const std::vector<SPN*>& spns() const;
    // Takes ownership.
    void addSpn(SPN* spn);

    // The mapping rules the SPNs come from, or nullptr. With pending set, the frame holds no
    // SPNs yet: they are decoded from the 8 data bytes when first asked for, so the rules must
    // be of the same 8 bytes and outlive every look at them, and must not fail (no strings
    // that the data could lack).
    void setRules(const PgnMapping::Group* group, bool pending);
    const PgnMapping::Group* getRules() const { return rules; }
    // Without decoding pending SPNs: true when the frame has or will have none.
    bool withoutSpns() const { return spnList.empty() && (!pendingSpns || rules->rules.empty()); }

private:
    void clearSpns();
    void copySpns(const DecodedFrame& other);

    uint16_t pgn = 0;
    uint64_t timestamp = 0;
    uint32_t dataLength = 0;
    uint8_t data[maxData + 1] = {};
    const PgnMapping::Group* rules = nullptr;
    mutable bool pendingSpns = false;
    mutable std::vector<SPN*> spnList;
};

// "_can frame_", pgn and time stamp, the data as text, then every SPN's line.
std::ostream& operator<<(std::ostream& out, const DecodedFrame& frame);

#endif
