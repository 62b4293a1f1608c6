#include "StaticHandler.h"

namespace FastCGIServer {

StaticHandler::StaticHandler(HandlerFunction function) : function(function) {}

int StaticHandler::operator()(Request& request) {
    return function != nullptr ? function(request) : 0;
}

} // namespace FastCGIServer
