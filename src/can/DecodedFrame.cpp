#include "DecodedFrame.h"

#include "NetHelpers.h"
#include "SPNNumeric.h"
#include "SPNStatus.h"
#include "SPNString.h"

#include <cstring>

DecodedFrame::DecodedFrame() = default;

DecodedFrame::DecodedFrame(const DecodedFrame& other)
    : pgn(other.pgn), timestamp(other.timestamp), dataLength(other.dataLength), rules(other.rules),
      pendingSpns(other.pendingSpns) {
    memcpy(data, other.data, dataLength + 1);
    copySpns(other);
}

DecodedFrame& DecodedFrame::operator=(const DecodedFrame& other) {
    if (this == &other)
        return *this;
    clearSpns();
    pgn = other.pgn;
    timestamp = other.timestamp;
    dataLength = other.dataLength;
    memcpy(data, other.data, dataLength + 1);
    rules = other.rules;
    pendingSpns = other.pendingSpns;
    copySpns(other);
    return *this;
}

DecodedFrame::~DecodedFrame() {
    clearSpns();
}

void DecodedFrame::setData(uint64_t raw) {
    storeU64(raw, data);
    dataLength = 8;
    data[8] = 0;
}

void DecodedFrame::setData(const uint8_t* bytes, int32_t length) {
    uint32_t count = static_cast<uint32_t>(length);
    if (count > maxData)
        count = maxData;
    if (count > 0)
        memcpy(data, bytes, count);
    dataLength = count;
    data[count] = 0;
}

const std::vector<SPN*>& DecodedFrame::spns() const {
    if (pendingSpns) {
        pendingSpns = false;
        PgnMapping::decodeRules(*rules, loadU64(data), data, 8, const_cast<DecodedFrame&>(*this));
    }
    return spnList;
}

void DecodedFrame::setRules(const PgnMapping::Group* group, bool pending) {
    rules = group;
    pendingSpns = pending && group != nullptr;
}

void DecodedFrame::addSpn(SPN* spn) {
    spnList.push_back(spn);
}

void DecodedFrame::clearSpns() {
    for (SPN* spn : spnList)
        delete spn;
    spnList.clear();
}

void DecodedFrame::copySpns(const DecodedFrame& other) {
    spnList.reserve(other.spnList.size());
    for (const SPN* spn : other.spnList) {
        switch (spn->getType()) {
        case SPN::Numeric:
            spnList.push_back(new SPNNumeric(*static_cast<const SPNNumeric*>(spn)));
            break;
        case SPN::Status:
            spnList.push_back(new SPNStatus(*static_cast<const SPNStatus*>(spn)));
            break;
        case SPN::String:
            spnList.push_back(new SPNString(*static_cast<const SPNString*>(spn)));
            break;
        default:
            break;
        }
    }
}

std::ostream& operator<<(std::ostream& out, const DecodedFrame& frame) {
    out << "_can frame_\n"
        << "pgn: " << frame.getPgn() << " ts: " << frame.getTimestamp() << '\n'
        << "data (" << frame.getDataLength()
        << "): " << reinterpret_cast<const char*>(frame.getData()) << '\n';
    for (const SPN* spn : frame.spns())
        out << spn->toString();
    return out;
}
