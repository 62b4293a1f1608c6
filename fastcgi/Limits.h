#ifndef FASTCGI_LIMITS_H
#define FASTCGI_LIMITS_H

#include <cstddef>

namespace FastCGIServer {

// Bounds that keep one peer, or many, from making the server hold unbounded memory,
// descriptors or time.
struct Limits {
    // Connections served at once; a further one replaces the one quiet for longest.
    std::size_t maxConnections = 100;
    // What the requests of one connection hold: parameters with their storage, bodies not
    // yet taken by the application and per-request bookkeeping. A record that would go
    // beyond ends its request and closes the connection.
    std::size_t maxHeldBytes = 1024 * 1024;
    // All connections together, their buffers included. A connection that needs more sheds
    // the others that hold the most, so a newcomer is never refused for what others hold.
    std::size_t maxTotalHeldBytes = 8 * 1024 * 1024;
    // While more output than this waits for a peer, nothing more is read from it.
    std::size_t maxPendingOutput = 64 * 1024;
    // A connection without an unfinished request, input or output that made no progress
    // for this long is closed; 0 keeps it for ever.
    int idleTimeoutMs = 60000;
    // A connection with an unfinished request, part of a record or output waiting must make
    // progress (a new request, its PARAMS or STDIN) within this time: its answers must be
    // taken within this time of the request's last record.
    int progressTimeoutMs = 5000;
    // After the peer has closed its side, what is still to be sent has this long.
    int drainTimeoutMs = 5000;
};

// What a request costs before it holds any parameter or body byte.
constexpr std::size_t requestOverhead = 1024;
// What the storage of one decoded parameter costs besides its name and value bytes (a map
// node with two strings and the allocator's headers).
constexpr std::size_t pairOverhead = 160;
// An open connection without any buffer.
constexpr std::size_t connectionOverhead = 1024;

} // namespace FastCGIServer

#endif
