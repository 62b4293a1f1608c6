#ifndef FASTCGI_REQUEST_H
#define FASTCGI_REQUEST_H

#include "Protocol.h"

#include <cstddef>
#include <string>

namespace FastCGIServer {

// One request of one connection, as the application callbacks see it.
struct Request {
    // CGI variables, filled once when the PARAMS stream ends.
    ParamMap params;
    // Body bytes not yet taken by the application; callbacks may clear it.
    std::string in;
    // Sent as STDOUT and STDERR after each callback.
    std::string out;
    std::string err;

    std::string paramsBuffer;
    bool paramsComplete = false;
    bool inComplete = false;
    // Result of the latest callback; the application status of END_REQUEST.
    int status = 0;
    bool endSent = false;
    // Bytes of params as counted against the connection's memory bound.
    std::size_t paramsSize = 0;
};

} // namespace FastCGIServer

#endif
