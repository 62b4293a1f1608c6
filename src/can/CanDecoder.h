#ifndef TAVRO_CANDECODER_H
#define TAVRO_CANDECODER_H

#include <linux/can.h>

#include <cstdint>

class DecodedFrame;

// Turns raw frames into decoded ones. A decoder is registered with one handler and called
// from its reader thread only.
class CanDecoder {
public:
    virtual ~CanDecoder() = default;

    // A new frame owned by the caller, or nullptr.
    virtual DecodedFrame* decode(const can_frame& frame) = 0;
    // Takes the frame; once it has produced one, later decoders of the same hook are not asked.
    virtual bool accepts(const can_frame& frame) = 0;
    // Takes the frame and leaves it to the later decoders as well.
    virtual bool acceptsShared(const can_frame& frame) = 0;
};

// The J1939 parameter group number of an identifier: PDU format and PDU specific byte. The
// destination address of a PDU1 group stays part of it.
inline uint16_t pgnOf(canid_t id) {
    return static_cast<uint16_t>((id >> 8) & 0xFFFF);
}
// The PDU format byte.
inline uint8_t pduFormat(canid_t id) {
    return static_cast<uint8_t>((id >> 16) & 0xFF);
}

// Transport protocol data transfer and connection management.
constexpr uint8_t pfTransportData = 0xEB;
constexpr uint8_t pfTransportControl = 0xEC;

#endif
