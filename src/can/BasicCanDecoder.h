#ifndef TAVRO_BASICCANDECODER_H
#define TAVRO_BASICCANDECODER_H

#include "CanDecoder.h"

// The catch-all: every frame as raw data, without signals. Registered after the mapping
// decoders of a hook, it passes on what none of them claimed.
class BasicCanDecoder : public CanDecoder {
public:
    DecodedFrame* decode(const can_frame& frame) override;
    bool accepts(const can_frame& frame) override;
    bool acceptsShared(const can_frame& frame) override;
};

#endif
