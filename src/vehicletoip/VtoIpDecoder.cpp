#include "VtoIpDecoder.h"

#include "DecodedFrame.h"
#include "NetHelpers.h"

#include <memory>

VtoIpDecoder::VtoIpDecoder(const std::string& path) : mapping(path, PgnMapping::Format::Vehicle) {}

VtoIpDecoder::~VtoIpDecoder() = default;

bool VtoIpDecoder::acceptsShared(const can_frame&) {
    return false;
}

bool VtoIpDecoder::accepts(const can_frame& frame) {
    const uint8_t pf = pduFormat(frame.can_id);
    if (pf == pfTransportData || pf == pfTransportControl)
        return true;
    return mapping.find(pgnOf(frame.can_id)) != nullptr;
}

DecodedFrame* VtoIpDecoder::decode(const can_frame& frame) {
    uint16_t pgn = pgnOf(frame.can_id);
    const uint8_t pf = pduFormat(frame.can_id);
    bool longMessage = false;
    if (pf == pfTransportControl) {
        transport.begin(frame);
        return nullptr;
    }
    if (pf == pfTransportData) {
        if (!transport.append(frame))
            return nullptr;
        pgn = transport.pgn();
        longMessage = true;
    }

    std::unique_ptr<DecodedFrame> decoded(new DecodedFrame);
    const uint64_t payload = loadU64(frame.data);
    decoded->setData(payload);
    const PgnMapping::Group* group = mapping.find(pgn);
    if (group == nullptr)
        return decoded.release();
    decoded->setPgn(pgn);
    const bool ok = longMessage ? PgnMapping::decodeRules(*group, payload, transport.data(),
                                                          transport.size(), *decoded)
                                : PgnMapping::decodeRules(*group, payload, frame.data, 8, *decoded);
    return ok ? decoded.release() : nullptr;
}
