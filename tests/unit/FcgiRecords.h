#ifndef TAVRO_FCGI_RECORDS_H
#define TAVRO_FCGI_RECORDS_H

// Building, reading and exchanging FastCGI records in tests.

#include "Protocol.h"

#include <arpa/inet.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>
#include <string>
#include <utility>
#include <vector>

namespace fcgitest {

using namespace FastCGIServer;
using Pairs = std::vector<std::pair<std::string, std::string>>;

struct Record {
    uint8_t type = 0;
    uint16_t id = 0;
    std::string content;
    uint8_t padding = 0;

    uint32_t byte(std::size_t i) const { return static_cast<uint8_t>(content.at(i)); }
    uint32_t appStatus() const { return byte(0) << 24 | byte(1) << 16 | byte(2) << 8 | byte(3); }
    uint32_t protocolStatus() const { return byte(4); }
};

inline std::string record(uint8_t type, uint16_t id, const std::string& content,
                          uint8_t padding = 0, uint8_t version = 1) {
    std::string out;
    appendHeader(out, type, id, static_cast<uint16_t>(content.size()), padding);
    out[0] = static_cast<char>(version);
    return out + content + std::string(padding, 'P');
}

inline std::string begin(uint16_t id, uint16_t role = RESPONDER, uint8_t flags = 0) {
    const char body[8] = {static_cast<char>(role >> 8), static_cast<char>(role & 0xFF),
                          static_cast<char>(flags)};
    return record(BEGIN_REQUEST, id, std::string(body, 8));
}

inline std::string encode(const Pairs& pairs) {
    std::string out;
    for (const auto& pair : pairs)
        encodeParam(out, pair.first, pair.second);
    return out;
}

// What a web server sends for a request that came in on its HTTP port.
inline Pairs webParams(const std::string& uri = "/pgn", const std::string& port = "8085") {
    return {{"REQUEST_URI", uri}, {"SERVER_PORT", port}, {"REQUEST_METHOD", "POST"}};
}

inline std::string paramsStream(uint16_t id, const Pairs& pairs) {
    return record(PARAMS, id, encode(pairs)) + record(PARAMS, id, "");
}

// Begin, parameters, one STDIN record per body piece, end of body.
inline std::string request(uint16_t id, const Pairs& pairs, const std::vector<std::string>& body,
                           uint8_t flags = 0) {
    std::string out = begin(id, RESPONDER, flags) + paramsStream(id, pairs);
    for (const std::string& piece : body)
        out += record(STDIN, id, piece);
    return out + record(STDIN, id, "");
}

// The whole records in bytes.
inline std::vector<Record> parse(const std::string& bytes) {
    std::vector<Record> records;
    for (std::size_t pos = 0; bytes.size() - pos >= 8;) {
        const auto* h = reinterpret_cast<const uint8_t*>(bytes.data() + pos);
        const std::size_t length = static_cast<std::size_t>(h[4] << 8 | h[5]);
        if (bytes.size() - pos < 8 + length + h[6])
            break;
        records.push_back(
            {h[1], static_cast<uint16_t>(h[2] << 8 | h[3]), bytes.substr(pos + 8, length), h[6]});
        pos += 8 + length + h[6];
    }
    return records;
}

inline std::string stream(const std::vector<Record>& records, uint8_t type, uint16_t id) {
    std::string text;
    for (const Record& r : records)
        text += r.type == type && r.id == id ? r.content : "";
    return text;
}

inline const Record* findEnd(const std::vector<Record>& records, uint16_t id) {
    for (const Record& r : records) {
        if (r.type == END_REQUEST && r.id == id)
            return &r;
    }
    return nullptr;
}

// A stream socket connected to the Unix path, or with an empty path to the loopback port.
inline int connectTo(const std::string& path, uint16_t port = 0) {
    sockaddr_un unixAddress = {};
    sockaddr_in inetAddress = {};
    sockaddr* address = reinterpret_cast<sockaddr*>(&unixAddress);
    socklen_t length = sizeof unixAddress;
    if (path.empty()) {
        inetAddress.sin_family = AF_INET;
        inetAddress.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        inetAddress.sin_port = htons(port);
        address = reinterpret_cast<sockaddr*>(&inetAddress);
        length = sizeof inetAddress;
    } else {
        unixAddress.sun_family = AF_UNIX;
        std::memcpy(unixAddress.sun_path, path.data(), path.size());
    }
    const int fd = socket(address->sa_family, SOCK_STREAM, 0);
    if (connect(fd, address, length) < 0) {
        close(fd);
        return -1;
    }
    return fd;
}

// A loopback TCP port that nothing listens on right now.
inline uint16_t freePort() {
    const int fd = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    bind(fd, reinterpret_cast<sockaddr*>(&address), length);
    getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length);
    close(fd);
    return ntohs(address.sin_port);
}

inline bool sendAll(int fd, const std::string& bytes) {
    for (std::size_t done = 0; done < bytes.size();) {
        const ssize_t n = send(fd, bytes.data() + done, bytes.size() - done, MSG_NOSIGNAL);
        if (n <= 0)
            return false;
        done += static_cast<std::size_t>(n);
    }
    return true;
}

// Reads until the peer closes (closed is then set), done(bytes) holds or timeoutMs passes.
template <typename Done>
std::string receiveUntil(int fd, int timeoutMs, Done done, bool* closed = nullptr) {
    std::string bytes;
    if (closed != nullptr)
        *closed = false;
    pollfd p = {fd, POLLIN, 0};
    while (!done(bytes) && poll(&p, 1, timeoutMs) == 1) {
        char buffer[65536];
        const ssize_t n = recv(fd, buffer, sizeof buffer, 0);
        if (n <= 0) {
            if (closed != nullptr)
                *closed = true;
            break;
        }
        bytes.append(buffer, static_cast<std::size_t>(n));
    }
    return bytes;
}

} // namespace fcgitest

#endif
