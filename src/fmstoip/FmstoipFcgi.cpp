#include "FmstoipFcgi.h"

#include "Logger.h"

#include <cstdint>

namespace {

using FastCGIServer::Request;

constexpr uint16_t httpPort = 8085;

const char* const okPage = "<html><body>Ok</body></html>\n";
const char* const noPacketPage =
    "<html><body>No can packet with the requested pgn is available.</body></html>\n";
const char* const badRequestPage = "<html><body>Bad Request</body></html>\n";
const char* const notFoundPage = "<html><body>Not Found</body></html>\n";
const char* const unavailablePage = "<html><body>Service Unavailable</body></html>\n";

std::string param(const Request& request, const char* name) {
    auto found = request.params.find(name);
    return found != request.params.end() ? found->second : std::string();
}

void answer(Request& request, const char* status, const char* mediaType, const std::string& body,
            const char* logLine) {
    FmstoipFcgi::sendResponse(request, status, mediaType, body);
    LOG(3) << logLine;
}

} // namespace

FmstoipFcgi::FmstoipFcgi(const Configuration& addConf, const Configuration& removeConf,
                         const Configuration& getConf)
    : addService(addConf), removeService(removeConf), getService(getConf),
      addPath(addConf.getString("service_path")), removePath(removeConf.getString("service_path")),
      getPath(getConf.getString("service_path")) {
    addService.announce();
    removeService.announce();
    getService.announce();
    registration.register_hook(this, httpPort);
}

FmstoipFcgi::~FmstoipFcgi() {
    registration.register_hook(nullptr, httpPort);
}

void FmstoipFcgi::set_pgn_hook(PGNHook* hook) {
    pgnHook = hook;
}

int FmstoipFcgi::handle_data(Request& request) {
    LOG(3) << "handle_data request.in: " << request.in;
    std::string operation;
    std::string argument;
    // pugixml keeps what it read up to an error: a cut-off body must not pass for a whole one.
    if (document.load_string(request.in.c_str())) {
        const pugi::xml_node root = document.first_child();
        operation = root.name();
        argument = root.child_value();
    } else {
        document.reset();
    }
    response.clear();
    const std::string uri = param(request, "REQUEST_URI");
    LOG(3) << "html " << param(request, "REQUEST_METHOD")
           << " request from: " << param(request, "REMOTE_ADDR") << " on port "
           << param(request, "SERVER_PORT");
    LOG(3) << "path: " << uri;
    LOG(3) << operation << " : " << argument;

    const char* expected = uri == getPath      ? "PGNGet"
                           : uri == addPath    ? "PGNReq"
                           : uri == removePath ? "PGNRem"
                                               : nullptr;
    if (expected == nullptr) {
        LOG(3) << "path: " << uri << " is invalid.";
        answer(request, "404", "text/html", notFoundPage, "html req error. 404");
    } else if (operation != expected) {
        LOG(3) << "request: " << request.in.c_str() << " is invalid.";
        answer(request, "400", "text/html", badRequestPage, "html req error. 400");
    } else if (pgnHook == nullptr) {
        // Only when the front end was started before the service was linked in.
        answer(request, "503", "text/html", unavailablePage, "html req error. 503");
    } else if (operation == "PGNGet") {
        response = pgnHook->getPgnDocument(argument);
        if (!response.empty())
            answer(request, "200", "text/xml", response, "html ok.");
        else
            answer(request, "408", "text/html", noPacketPage, "html error, no package. 408");
    } else {
        if (operation == "PGNReq")
            pgnHook->addPgn(argument);
        else
            pgnHook->removePgn(argument);
        answer(request, "200", "text/html", okPage, "html ok.");
    }

    LOG(4) << "request.out: " << request.out;
    LOG(4) << "request.err: " << request.err;
    return 0;
}

int FmstoipFcgi::handle_complete(Request& request) {
    LOG(4) << "handle_complete request.in: " << request.in;
    return 0;
}

void FmstoipFcgi::sendResponse(Request& request, const std::string& status,
                               const std::string& mediaType, const std::string& body) {
    request.out += "Status: " + status + "\r\nContent-Type: " + mediaType + "\r\n\r\n" + body;
}
