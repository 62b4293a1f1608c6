#ifndef TAVRO_FCGIHOOK_H
#define TAVRO_FCGIHOOK_H

#include "Request.h"

// Answers the HTTP requests that the web server received on one port. Called on the FastCGI
// thread; an implementation locks what it shares with its service's other threads.
class FcgiHook {
public:
    // Body bytes of one STDIN record are in request.in. A result above 0 ends the request.
    virtual int handle_data(FastCGIServer::Request& request) = 0;
    // The body is complete; the result is added into the request's application status.
    virtual int handle_complete(FastCGIServer::Request& request) = 0;
    virtual ~FcgiHook() = default;
};

#endif
