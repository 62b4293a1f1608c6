// Arbitrary bytes from a peer, fed to the record handling of one connection.

#include "Connection.h"
#include "StaticHandler.h"

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <string>

namespace {

using namespace FastCGIServer;

// What an application may do: read params and in, write out and err, take the body or
// leave it, end a request early.
int callback(Request& request) {
    request.out += request.in.substr(0, 3);
    request.err.append(request.in, 0, 16);
    if (request.in.size() % 3 == 0)
        request.in.clear();
    return static_cast<int>(request.params.size() % 5 == 4 || request.in.size() == 7);
}

std::string feed(const uint8_t* data, std::size_t size, std::size_t step) {
    Callbacks callbacks;
    callbacks.request = std::make_unique<StaticHandler>(callback);
    callbacks.data = std::make_unique<StaticHandler>(callback);
    callbacks.complete = std::make_unique<StaticHandler>(callback);
    Limits limits;
    // Small, so that inputs reach the bound.
    limits.maxHeldBytes = 16 * 1024;
    Connection connection(callbacks, limits);
    for (std::size_t pos = 0; pos < size; pos += step) {
        const std::size_t length = std::min(step, size - pos);
        connection.receive(reinterpret_cast<const char*>(data + pos), length);
        if (connection.heldBytes() > limits.maxHeldBytes ||
            connection.input.size() >= headerLength + maxContentLength + 255 + length)
            abort();
    }
    connection.flushAll();
    return connection.output;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
    // How the bytes are cut into reads must not change the answer.
    if (feed(data, size, std::max<std::size_t>(size, 1)) != feed(data, size, 1 + size % 13))
        abort();
    return 0;
}
