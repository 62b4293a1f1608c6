#include "HandlerBase.h"

namespace FastCGIServer {

HandlerBase::~HandlerBase() = default;

int HandlerBase::operator()(Request&) {
    return 0;
}

} // namespace FastCGIServer
