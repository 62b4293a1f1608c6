#include "BasicCanDecoder.h"

#include "DecodedFrame.h"
#include "NetHelpers.h"

DecodedFrame* BasicCanDecoder::decode(const can_frame& frame) {
    DecodedFrame* decoded = new DecodedFrame;
    decoded->setPgn(pgnOf(frame.can_id));
    decoded->setData(loadU64(frame.data));
    return decoded;
}

bool BasicCanDecoder::accepts(const can_frame&) {
    return true;
}

bool BasicCanDecoder::acceptsShared(const can_frame&) {
    return false;
}
