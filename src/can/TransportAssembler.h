#ifndef TAVRO_TRANSPORTASSEMBLER_H
#define TAVRO_TRANSPORTASSEMBLER_H

#include <linux/can.h>

#include <cstddef>
#include <cstdint>
#include <vector>

// Reassembly of one J1939 transport-protocol message (TP.CM announces, TP.DT carries 7 bytes
// each). There is one reassembly per decoder: source addresses and sequence numbers are not
// examined.
class TransportAssembler {
public:
    // The largest transport message, 255 packets of 7 bytes. Packets beyond it still count
    // but add no bytes, so a stream of TP.DT without TP.CM cannot grow the buffer unbounded.
    static constexpr size_t maxBytes = 255 * 7;

    TransportAssembler();

    // A TP.CM of any control byte starts a new message.
    void begin(const can_frame& frame);
    // Appends a TP.DT; true once the announced number of packets has been reached. Later
    // TP.DT frames without a new TP.CM extend the message and complete it again.
    bool append(const can_frame& frame);

    uint16_t pgn() const { return longPgn; }
    const uint8_t* data() const { return buffer.data(); }
    size_t size() const { return buffer.size(); }
    // The first 8 bytes of the message, least significant first; missing bytes are 0.
    uint64_t firstWord() const;

private:
    std::vector<uint8_t> buffer;
    uint16_t longPgn = 0;
    uint8_t totalPackets = 0;
    uint8_t receivedPackets = 0;
};

#endif
