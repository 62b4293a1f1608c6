#include "TransportAssembler.h"

#include "Logger.h"

TransportAssembler::TransportAssembler() {
    // Reserved once, so that reassembling never allocates on the reader thread.
    buffer.reserve(maxBytes);
}

void TransportAssembler::begin(const can_frame& frame) {
    longPgn = static_cast<uint16_t>(frame.data[5] | (frame.data[6] << 8));
    totalPackets = frame.data[3];
    receivedPackets = 0;
    buffer.clear();
    LOGV(6, 4) << "start of long frame.";
}

bool TransportAssembler::append(const can_frame& frame) {
    for (int i = 1; i < 8 && buffer.size() < maxBytes; ++i)
        buffer.push_back(frame.data[i]);
    ++receivedPackets;
    LOGV(6, 4) << "long frame. frame nr: " << unsigned(receivedPackets) << " of "
               << unsigned(totalPackets);
    if (receivedPackets < totalPackets)
        return false;
    LOGV(6, 4) << "end of long frame.";
    return true;
}

uint64_t TransportAssembler::firstWord() const {
    uint64_t word = 0;
    const size_t count = buffer.size() < 8 ? buffer.size() : 8;
    for (size_t i = 0; i < count; ++i)
        word |= uint64_t(buffer[i]) << (8 * i);
    return word;
}
