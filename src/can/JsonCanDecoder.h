#ifndef TAVRO_JSONCANDECODER_H
#define TAVRO_JSONCANDECODER_H

#include "CanDecoder.h"
#include "PgnMapping.h"
#include "TransportAssembler.h"

#include <string>

// Decodes the PGNs of one mapping file (rules under "spns") and reassembles transport
// messages for itself. Every transport frame is accepted shared and also yields a frame of
// its own; a completed message yields its announced PGN with the reassembled payload.
// Numeric and status rules of a completed message read the first 8 bytes of its payload.
class JsonCanDecoder : public CanDecoder {
public:
    explicit JsonCanDecoder(const std::string& path);
    ~JsonCanDecoder() override;

    DecodedFrame* decode(const can_frame& frame) override;
    bool accepts(const can_frame& frame) override;
    bool acceptsShared(const can_frame& frame) override;

private:
    PgnMapping mapping;
    TransportAssembler transport;
};

#endif
