#ifndef FASTCGI_PROTOCOL_H
#define FASTCGI_PROTOCOL_H

#include <cstddef>
#include <cstdint>
#include <map>
#include <string>

namespace FastCGIServer {

constexpr uint8_t protocolVersion = 1;
constexpr std::size_t headerLength = 8;
constexpr std::size_t maxContentLength = 65535;

enum RecordType : uint8_t {
    BEGIN_REQUEST = 1,
    ABORT_REQUEST = 2,
    END_REQUEST = 3,
    PARAMS = 4,
    STDIN = 5,
    STDOUT = 6,
    STDERR = 7,
    DATA = 8,
    GET_VALUES = 9,
    GET_VALUES_RESULT = 10,
    UNKNOWN_TYPE = 11,
};

constexpr uint16_t RESPONDER = 1;
constexpr uint8_t KEEP_CONN = 1;

enum ProtocolStatus : uint8_t {
    REQUEST_COMPLETE = 0,
    CANT_MPX_CONN = 1,
    OVERLOADED = 2,
    UNKNOWN_ROLE = 3,
};

using ParamMap = std::map<std::string, std::string>;

// The whole pair at pos, which then moves past it; false (pos unchanged) when the buffer
// ends before the pair does.
bool readPair(const std::string& buffer, std::size_t& pos, std::string& name, std::string& value);

// Name-value pairs up to the last whole one; the first occurrence of a name wins.
ParamMap decodeParams(const std::string& buffer);

// Appends one name-value pair.
void encodeParam(std::string& out, const std::string& name, const std::string& value);

// Appends a record header.
void appendHeader(std::string& out, uint8_t type, uint16_t requestId, uint16_t contentLength,
                  uint8_t paddingLength);

// Appends text as records of at most 65535 bytes, each padded to a multiple of 8; an empty
// text gives the end-of-stream record alone.
void writeStream(std::string& out, uint8_t type, uint16_t requestId, const std::string& text);

void appendEndRequest(std::string& out, uint16_t requestId, uint32_t appStatus,
                      uint8_t protocolStatus);

} // namespace FastCGIServer

#endif
