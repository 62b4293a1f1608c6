#include "JsonCanDecoder.h"

#include "DecodedFrame.h"
#include "NetHelpers.h"

#include <memory>

JsonCanDecoder::JsonCanDecoder(const std::string& path) : mapping(path, PgnMapping::Format::Fms) {}

JsonCanDecoder::~JsonCanDecoder() = default;

bool JsonCanDecoder::acceptsShared(const can_frame& frame) {
    const uint8_t pf = pduFormat(frame.can_id);
    return pf == pfTransportData || pf == pfTransportControl;
}

bool JsonCanDecoder::accepts(const can_frame& frame) {
    if (acceptsShared(frame))
        return false;
    return mapping.find(pgnOf(frame.can_id)) != nullptr;
}

DecodedFrame* JsonCanDecoder::decode(const can_frame& frame) {
    uint16_t pgn = pgnOf(frame.can_id);
    const uint8_t pf = pduFormat(frame.can_id);
    bool longMessage = false;
    if (pf == pfTransportControl) {
        transport.begin(frame);
    } else if (pf == pfTransportData && transport.append(frame)) {
        pgn = transport.pgn();
        longMessage = true;
    }

    std::unique_ptr<DecodedFrame> decoded(new DecodedFrame);
    decoded->setPgn(pgn);
    const uint64_t payload = loadU64(frame.data);
    if (longMessage)
        decoded->setData(transport.data(), static_cast<int32_t>(transport.size()));
    else
        decoded->setData(payload);

    if (const PgnMapping::Group* group = mapping.find(pgn)) {
        if (longMessage) {
            if (!PgnMapping::decodeRules(*group, transport.firstWord(), transport.data(),
                                         transport.size(), *decoded))
                return nullptr;
        } else if (group->hasStrings) {
            // Decoded now: a frame short of string fields is no frame.
            if (!PgnMapping::decodeRules(*group, payload, frame.data, 8, *decoded))
                return nullptr;
            decoded->setRules(group, false);
        } else {
            decoded->setRules(group, true);
        }
    }
    return decoded.release();
}
