#ifndef TAVRO_FCGI_RECORDS_H
#define TAVRO_FCGI_RECORDS_H

// Building, reading and exchanging FastCGI records in tests.

#include "Protocol.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <string>
#include <utility>
#include <vector>

namespace fcgitest {

using namespace FastCGIServer;
using Pairs = std::vector<std::pair<std::string, std::string>>;

struct Record {
    uint8_t version = 0;
    uint8_t type = 0;
    uint16_t id = 0;
    std::string content;
    uint8_t padding = 0;

    uint32_t appStatus() const {
        return (static_cast<uint32_t>(static_cast<uint8_t>(content[0])) << 24) |
               (static_cast<uint32_t>(static_cast<uint8_t>(content[1])) << 16) |
               (static_cast<uint32_t>(static_cast<uint8_t>(content[2])) << 8) |
               static_cast<uint32_t>(static_cast<uint8_t>(content[3]));
    }
    uint8_t protocolStatus() const { return static_cast<uint8_t>(content[4]); }
};

inline std::string record(uint8_t type, uint16_t id, const std::string& content,
                          uint8_t padding = 0, uint8_t version = 1) {
    std::string out;
    out += static_cast<char>(version);
    out += static_cast<char>(type);
    out += static_cast<char>(id >> 8);
    out += static_cast<char>(id & 0xFF);
    out += static_cast<char>(content.size() >> 8);
    out += static_cast<char>(content.size() & 0xFF);
    out += static_cast<char>(padding);
    out += '\0';
    out += content;
    out.append(padding, '\x5A');
    return out;
}

inline std::string begin(uint16_t id, uint16_t role = RESPONDER, uint8_t flags = 0) {
    std::string body(8, '\0');
    body[0] = static_cast<char>(role >> 8);
    body[1] = static_cast<char>(role & 0xFF);
    body[2] = static_cast<char>(flags);
    return record(BEGIN_REQUEST, id, body);
}

inline std::string encode(const Pairs& pairs) {
    std::string out;
    for (const auto& pair : pairs)
        encodeParam(out, pair.first, pair.second);
    return out;
}

// The parameters a web server sends for a request that came in on port 8085.
inline Pairs webParams(const std::string& uri = "/pgn", const std::string& port = "8085") {
    return {{"REQUEST_METHOD", "POST"},
            {"REQUEST_URI", uri},
            {"SERVER_PORT", port},
            {"REMOTE_ADDR", "127.0.0.1"}};
}

inline std::string paramsStream(uint16_t id, const Pairs& pairs) {
    return record(PARAMS, id, encode(pairs)) + record(PARAMS, id, "");
}

// A whole request: begin, parameters, the body in one STDIN record per piece, end of body.
inline std::string request(uint16_t id, const Pairs& pairs, const std::vector<std::string>& body,
                           uint8_t flags = 0) {
    std::string out = begin(id, RESPONDER, flags) + paramsStream(id, pairs);
    for (const std::string& piece : body)
        out += record(STDIN, id, piece);
    return out + record(STDIN, id, "");
}

// Whole records of bytes; a trailing partial record is left out.
inline std::vector<Record> parse(const std::string& bytes) {
    std::vector<Record> records;
    std::size_t pos = 0;
    while (bytes.size() - pos >= 8) {
        const auto* h = reinterpret_cast<const uint8_t*>(bytes.data() + pos);
        const std::size_t length = static_cast<std::size_t>(h[4] << 8 | h[5]);
        if (bytes.size() - pos < 8 + length + h[6])
            break;
        Record r;
        r.version = h[0];
        r.type = h[1];
        r.id = static_cast<uint16_t>(h[2] << 8 | h[3]);
        r.content = bytes.substr(pos + 8, length);
        r.padding = h[6];
        records.push_back(r);
        pos += 8 + length + h[6];
    }
    return records;
}

// Concatenated content of one stream of one request.
inline std::string stream(const std::vector<Record>& records, uint8_t type, uint16_t id) {
    std::string text;
    for (const Record& r : records) {
        if (r.type == type && r.id == id)
            text += r.content;
    }
    return text;
}

inline const Record* findEnd(const std::vector<Record>& records, uint16_t id) {
    for (const Record& r : records) {
        if (r.type == END_REQUEST && r.id == id)
            return &r;
    }
    return nullptr;
}

inline int connectUnix(const std::string& path) {
    const int fd = socket(AF_UNIX, SOCK_STREAM, 0);
    sockaddr_un address;
    std::memset(&address, 0, sizeof address);
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path, path.data(), path.size());
    if (connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) < 0) {
        close(fd);
        return -1;
    }
    return fd;
}

inline int connectLoopback(uint16_t port) {
    const int fd = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address;
    std::memset(&address, 0, sizeof address);
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(port);
    if (connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) < 0) {
        close(fd);
        return -1;
    }
    return fd;
}

// A TCP port on loopback that nothing listens on right now.
inline uint16_t freePort() {
    const int fd = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address;
    std::memset(&address, 0, sizeof address);
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address);
    socklen_t length = sizeof address;
    getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length);
    close(fd);
    return ntohs(address.sin_port);
}

inline bool sendAll(int fd, const std::string& bytes) {
    std::size_t done = 0;
    while (done < bytes.size()) {
        const ssize_t n = send(fd, bytes.data() + done, bytes.size() - done, MSG_NOSIGNAL);
        if (n <= 0)
            return false;
        done += static_cast<std::size_t>(n);
    }
    return true;
}

// What arrives until the peer closes, until done(bytes) holds, or until timeoutMs passes.
template <typename Done>
std::string receiveUntil(int fd, int timeoutMs, Done done, bool* closed = nullptr) {
    std::string bytes;
    if (closed != nullptr)
        *closed = false;
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
    while (!done(bytes)) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
                              deadline - std::chrono::steady_clock::now())
                              .count();
        pollfd p = {fd, POLLIN, 0};
        if (left <= 0 || poll(&p, 1, static_cast<int>(left)) <= 0)
            break;
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

inline std::string receiveUntilClosed(int fd, int timeoutMs, bool* closed = nullptr) {
    return receiveUntil(
        fd, timeoutMs, [](const std::string&) { return false; }, closed);
}

// Up to and including the END_REQUEST of the request id.
inline std::vector<Record> receiveUntilEnd(int fd, uint16_t id, int timeoutMs = 5000) {
    return parse(receiveUntil(fd, timeoutMs, [id](const std::string& bytes) {
        return findEnd(parse(bytes), id) != nullptr;
    }));
}

} // namespace fcgitest

#endif
