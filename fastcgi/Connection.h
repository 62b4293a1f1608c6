#ifndef FASTCGI_CONNECTION_H
#define FASTCGI_CONNECTION_H

#include "HandlerBase.h"
#include "Limits.h"
#include "Request.h"

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>

namespace FastCGIServer {

// Told about a request that is ended because its connection, or all connections together
// (allConnections), would hold too much.
using LimitFunction = void (*)(const Request& request, bool allConnections);

struct Callbacks {
    Callbacks();

    std::unique_ptr<HandlerBase> request;
    std::unique_ptr<HandlerBase> data;
    std::unique_ptr<HandlerBase> complete;
    LimitFunction limit = nullptr;
};

// The protocol state of one peer, without the socket: bytes go in through receive() and
// what is to be sent collects in output, so record handling runs without any descriptor.
class Connection {
public:
    Connection(const Callbacks& callbacks, const Limits& limits);
    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;

    // Appends bytes read from the peer and acts on every whole record.
    void receive(const char* data, std::size_t size);
    // Queues what the callbacks left in out and err and, once the request is over, its end.
    void flushRequest(uint16_t id, Request& request);
    // Before each write: flushes every request in id order and releases the finished ones.
    void flushAll();
    // What the requests hold, as compared against Limits::maxHeldBytes.
    std::size_t heldBytes() const;
    // Everything the connection holds, its buffers included: its share of
    // Limits::maxTotalHeldBytes.
    std::size_t footprint() const;
    // A request waits for its PARAMS or STDIN, a record is incomplete or output waits.
    bool busy() const;
    // Drops every request and buffer and marks the connection for closing.
    void shed();

    std::map<uint16_t, std::unique_ptr<Request>> requests;
    std::string input;
    std::string output;
    bool closeAfterEnd = false;
    bool closing = false;
    // Set by a wrong version or an exceeded bound: the peer's further bytes are dropped.
    bool halted = false;
    // The peer has closed its sending side: only output is left to do.
    bool peerClosed = false;
    // Set when a record moved a request on; the server clears it.
    bool progressed = false;
    std::chrono::steady_clock::time_point lastProgress;
    std::chrono::steady_clock::time_point peerClosedAt;
    // What the server's other connections hold (their footprints), against
    // Limits::maxTotalHeldBytes; set by the server before each receive().
    std::size_t othersHeld = 0;
    // Frees at least the given bytes among the other connections if it can and returns what
    // it freed; set by the server.
    std::function<std::size_t(std::size_t)> makeRoom;

private:
    void consume();
    void onRecord(uint8_t type, uint16_t id, const char* content, std::size_t length);
    void beginRequest(uint16_t id, const char* content, std::size_t length);
    void abortRequest(uint16_t id);
    void params(uint16_t id, const char* content, std::size_t length);
    void stdinData(uint16_t id, const char* content, std::size_t length);
    void answerGetValues(const char* content, std::size_t length);
    void answerUnknownType(uint8_t type);
    // False (and the request ended) when extra more bytes would exceed the bound.
    bool admit(uint16_t id, Request& request, std::size_t extra);

    const Callbacks& callbacks;
    const Limits& limits;
};

} // namespace FastCGIServer

#endif
