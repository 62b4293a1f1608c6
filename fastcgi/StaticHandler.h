#ifndef FASTCGI_STATICHANDLER_H
#define FASTCGI_STATICHANDLER_H

#include "HandlerBase.h"

namespace FastCGIServer {

using HandlerFunction = int (*)(Request& request);

class StaticHandler : public HandlerBase {
public:
    explicit StaticHandler(HandlerFunction function);
    int operator()(Request& request) override;

private:
    HandlerFunction function;
};

} // namespace FastCGIServer

#endif
