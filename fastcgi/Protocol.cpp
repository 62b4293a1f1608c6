#include "Protocol.h"

#include <algorithm>

namespace FastCGIServer {

namespace {

// Reads a one- or four-byte length at pos. Lengths stay below 2^31 and every comparison
// is done against the bytes left, so no sum of lengths can wrap.
bool readLength(const std::string& buffer, std::size_t& pos, uint32_t& length) {
    if (pos >= buffer.size())
        return false;
    const auto first = static_cast<uint8_t>(buffer[pos]);
    if ((first & 0x80) == 0) {
        length = first;
        pos += 1;
        return true;
    }
    if (buffer.size() - pos < 4)
        return false;
    length = (static_cast<uint32_t>(first & 0x7F) << 24) |
             (static_cast<uint32_t>(static_cast<uint8_t>(buffer[pos + 1])) << 16) |
             (static_cast<uint32_t>(static_cast<uint8_t>(buffer[pos + 2])) << 8) |
             static_cast<uint32_t>(static_cast<uint8_t>(buffer[pos + 3]));
    pos += 4;
    return true;
}

void appendLength(std::string& out, std::size_t length) {
    if (length < 128) {
        out += static_cast<char>(length);
        return;
    }
    const auto value = static_cast<uint32_t>(length);
    out += static_cast<char>(((value >> 24) & 0x7F) | 0x80);
    out += static_cast<char>((value >> 16) & 0xFF);
    out += static_cast<char>((value >> 8) & 0xFF);
    out += static_cast<char>(value & 0xFF);
}

} // namespace

bool readPair(const std::string& buffer, std::size_t& pos, std::string& name, std::string& value) {
    std::size_t at = pos;
    uint32_t nameLength = 0;
    uint32_t valueLength = 0;
    if (!readLength(buffer, at, nameLength) || at >= buffer.size())
        return false;
    if (!readLength(buffer, at, valueLength))
        return false;
    if (buffer.size() - at < nameLength || buffer.size() - at - nameLength < valueLength)
        return false;
    name.assign(buffer, at, nameLength);
    value.assign(buffer, at + nameLength, valueLength);
    pos = at + nameLength + valueLength;
    return true;
}

ParamMap decodeParams(const std::string& buffer) {
    ParamMap params;
    std::size_t pos = 0;
    std::string name;
    std::string value;
    while (readPair(buffer, pos, name, value))
        params.emplace(name, value);
    return params;
}

void encodeParam(std::string& out, const std::string& name, const std::string& value) {
    appendLength(out, name.size());
    appendLength(out, value.size());
    out += name;
    out += value;
}

void appendHeader(std::string& out, uint8_t type, uint16_t requestId, uint16_t contentLength,
                  uint8_t paddingLength) {
    const char header[headerLength] = {
        static_cast<char>(protocolVersion),    static_cast<char>(type),
        static_cast<char>(requestId >> 8),     static_cast<char>(requestId & 0xFF),
        static_cast<char>(contentLength >> 8), static_cast<char>(contentLength & 0xFF),
        static_cast<char>(paddingLength),      0};
    out.append(header, headerLength);
}

void writeStream(std::string& out, uint8_t type, uint16_t requestId, const std::string& text) {
    if (text.empty()) {
        appendHeader(out, type, requestId, 0, 0);
        return;
    }
    for (std::size_t pos = 0; pos < text.size(); pos += maxContentLength) {
        const std::size_t length = std::min(maxContentLength, text.size() - pos);
        const auto padding = static_cast<uint8_t>((8 - length % 8) % 8);
        out.reserve(out.size() + headerLength + length + padding);
        appendHeader(out, type, requestId, static_cast<uint16_t>(length), padding);
        out.append(text, pos, length);
        out.append(padding, '\0');
    }
}

void appendEndRequest(std::string& out, uint16_t requestId, uint32_t appStatus,
                      uint8_t protocolStatus) {
    appendHeader(out, END_REQUEST, requestId, 8, 0);
    const char body[8] = {static_cast<char>(appStatus >> 24),
                          static_cast<char>((appStatus >> 16) & 0xFF),
                          static_cast<char>((appStatus >> 8) & 0xFF),
                          static_cast<char>(appStatus & 0xFF),
                          static_cast<char>(protocolStatus),
                          0,
                          0,
                          0};
    out.append(body, sizeof body);
}

} // namespace FastCGIServer
