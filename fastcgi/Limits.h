#ifndef FASTCGI_LIMITS_H
#define FASTCGI_LIMITS_H

#include <cstddef>

namespace FastCGIServer {

// Bounds that keep one peer, or many, from making the server hold unbounded memory or
// descriptors.
struct Limits {
    // Connections served at once; a further one replaces the one quiet for longest.
    std::size_t maxConnections = 100;
    // Parameters, bodies not yet taken by the application and per-request bookkeeping of one
    // connection. A record that would go beyond ends its request and closes the connection.
    std::size_t maxHeldBytes = 1024 * 1024;
    // The same for all connections together, so that many peers cannot add up to more.
    std::size_t maxTotalHeldBytes = 8 * 1024 * 1024;
    // While more output than this waits for a peer, nothing more is read from it.
    std::size_t maxPendingOutput = 256 * 1024;
    // A connection that moved no byte for this long is closed; 0 keeps it for ever.
    int idleTimeoutMs = 60000;
};

// What a request costs against maxHeldBytes before it holds any parameter or body byte.
constexpr std::size_t requestOverhead = 1024;

} // namespace FastCGIServer

#endif
