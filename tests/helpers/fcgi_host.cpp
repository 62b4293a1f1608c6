// Runs the FastCGI front end with a test hook until SIGINT or SIGTERM, so that system tests
// can put a real web server in front of it.
//
//   fcgi_host FCGI_PORT [VERBOSITY]
//
// The hook answers requests that the web server received on HTTP port 8085:
//   /status/<text>  "Status: <text>" (%20 read as a blank)
//   /huge           16 MiB of text
//   /early          an answer at the first body record, which also ends the request
//   anything else   method, URI, CONTENT_LENGTH, the size of each STDIN record, then the body

#include "FcgiHandler.h"
#include "Logger.h"

#include <signal.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <map>
#include <sstream>
#include <string>
#include <vector>

namespace {

using FastCGIServer::Request;

volatile sig_atomic_t stopped = 0;

void onSignal(int) {
    stopped = 1;
}

std::string param(const Request& request, const char* name) {
    auto found = request.params.find(name);
    return found != request.params.end() ? found->second : std::string();
}

const char* const okHeader = "Status: 200 OK\r\nContent-Type: text/plain\r\n\r\n";

class TestHook : public FcgiHook {
public:
    TestHook() { registration.register_hook(this, 8085); }

    int handle_data(Request& request) override {
        if (param(request, "REQUEST_URI") == "/early") {
            request.out += okHeader;
            request.out += "early\n";
            return 1;
        }
        Body& body = bodyOf(request);
        body.sizes.push_back(request.in.size());
        body.text += request.in;
        return 0;
    }

    int handle_complete(Request& request) override {
        const Body body = bodyOf(request);
        bodies.erase(&request);
        const std::string uri = param(request, "REQUEST_URI");
        if (uri.compare(0, 8, "/status/") == 0) {
            std::string status = uri.substr(8);
            for (std::size_t at; (at = status.find("%20")) != std::string::npos;)
                status.replace(at, 3, " ");
            request.out += "Status: " + status + "\r\nContent-Type: text/plain\r\n\r\n";
            request.out += "status " + status + "\n";
            return 0;
        }
        request.out += okHeader;
        if (uri == "/huge") {
            request.out += std::string(16 << 20, 'h');
            return 0;
        }
        std::ostringstream text;
        text << "method=" << param(request, "REQUEST_METHOD") << "\nuri=" << uri
             << "\ncontent_length=" << param(request, "CONTENT_LENGTH")
             << "\nserver_port=" << param(request, "SERVER_PORT") << "\nrecords=";
        for (std::size_t i = 0; i < body.sizes.size(); ++i)
            text << (i > 0 ? "," : "") << body.sizes[i];
        text << "\n\n" << body.text;
        request.out += text.str();
        return 0;
    }

private:
    struct Body {
        std::string peer;
        std::vector<std::size_t> sizes;
        std::string text;
    };

    // A request whose connection went away never completes; its entry is taken over by the
    // next request that lives at the same address.
    Body& bodyOf(const Request& request) {
        const std::string peer =
            param(request, "REMOTE_PORT") + " " + param(request, "REQUEST_URI");
        Body& body = bodies[&request];
        if (body.peer != peer)
            body = Body{peer, {}, {}};
        return body;
    }

    std::map<const Request*, Body> bodies;
    FcgiHandler registration;
};

} // namespace

int main(int argc, char** argv) {
    if (argc < 2) {
        fprintf(stderr, "usage: %s FCGI_PORT [VERBOSITY]\n", argv[0]);
        return 2;
    }
    if (argc > 2)
        verbosity = atoi(argv[2]);
    TestHook hook;
    signal(SIGINT, onSignal);
    signal(SIGTERM, onSignal);
    FcgiHandler::start(static_cast<uint16_t>(atoi(argv[1])));
    while (stopped == 0)
        usleep(20 * 1000);
    FcgiHandler::stop();
    return 0;
}
