#ifndef FASTCGI_HANDLERBASE_H
#define FASTCGI_HANDLERBASE_H

namespace FastCGIServer {

struct Request;

// An application callback; the result becomes the request's status (non-zero ends it).
class HandlerBase {
public:
    virtual ~HandlerBase();
    virtual int operator()(Request& request);
};

} // namespace FastCGIServer

#endif
