#ifndef TAVRO_VTOIPDECODER_H
#define TAVRO_VTOIPDECODER_H

#include "CanDecoder.h"
#include "PgnMapping.h"
#include "TransportAssembler.h"

#include <string>

// The vehicle status decoder: a mapping file with rules under "data" and byte-aligned
// numeric fields. Transport frames are taken (never shared) but only the TP.DT that
// completes a message yields a frame: the announced PGN, or 0 when the file has no entry for
// it, with that packet's own 8 bytes as data and raw word.
class VtoIpDecoder : public CanDecoder {
public:
    explicit VtoIpDecoder(const std::string& path);
    ~VtoIpDecoder() override;

    DecodedFrame* decode(const can_frame& frame) override;
    bool accepts(const can_frame& frame) override;
    bool acceptsShared(const can_frame& frame) override;

private:
    PgnMapping mapping;
    TransportAssembler transport;
};

#endif
