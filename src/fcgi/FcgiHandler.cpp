#include "FcgiHandler.h"

#include "Heartbeat.h"
#include "Logger.h"
#include "Server.h"

#include <errno.h>
#include <pthread.h>
#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <climits>
#include <cstdlib>
#include <string>
#include <system_error>
#include <thread>
#include <vector>

namespace {

using FastCGIServer::Request;

struct Registry {
    std::vector<FcgiHook*> hooks;
    std::vector<uint16_t> ports;
    std::atomic<bool> running{false};
    std::thread thread;
};

// Built on first use, so hooks constructed before main() still find it.
Registry& registry() {
    static Registry instance;
    return instance;
}

std::string param(const Request& request, const char* name) {
    auto found = request.params.find(name);
    return found != request.params.end() ? found->second : std::string();
}

// The web server's "SERVER_PORT" read like "%d": leading blanks and a sign are allowed,
// whatever follows the digits is ignored; absent, not a number or out of range: none.
bool serverPort(const Request& request, int& port) {
    const std::string text = param(request, "SERVER_PORT");
    char* end = nullptr;
    errno = 0;
    const long value = std::strtol(text.c_str(), &end, 10);
    if (end == text.c_str() || errno == ERANGE || value < INT_MIN || value > INT_MAX)
        return false;
    port = static_cast<int>(value);
    return true;
}

std::vector<FcgiHook*> hooksFor(const Request& request) {
    std::vector<FcgiHook*> selected;
    int port = 0;
    if (!serverPort(request, port))
        return selected;
    const Registry& r = registry();
    for (std::size_t i = 0; i < r.hooks.size(); ++i) {
        if (static_cast<int>(r.ports[i]) == port)
            selected.push_back(r.hooks[i]);
    }
    return selected;
}

int onRequest(Request& request) {
    LOG(4) << param(request, "SERVER_PORT");
    return request.params.count("REQUEST_URI") != 0 ? 0 : 1;
}

int onData(Request& request) {
    std::string copy = request.in;
    for (char& byte : copy)
        byte = static_cast<char>(static_cast<uint8_t>(byte) + 1);
    request.err += copy;
    long long sum = 0;
    for (FcgiHook* hook : hooksFor(request))
        sum += hook->handle_data(request);
    // Each record is handed on once; nothing accumulates here.
    request.in.clear();
    return sum > 0 ? 1 : 0;
}

int onComplete(Request& request) {
    // Unsigned, so that results of any size wrap instead of overflowing.
    unsigned sum = 0;
    for (FcgiHook* hook : hooksFor(request))
        sum += static_cast<unsigned>(hook->handle_complete(request));
    return static_cast<int>(sum);
}

void onLimit(const Request& request, bool allConnections) {
    const FastCGIServer::Limits limits;
    LOG(1) << "FastCGI request for \"" << param(request, "REQUEST_URI")
           << "\" ended: " << (allConnections ? "all connections together" : "its connection")
           << " held more than "
           << (allConnections ? limits.maxTotalHeldBytes : limits.maxHeldBytes)
           << " bytes. Connection closed.";
}

// Sleeps up to ms, in steps short enough for stop() to be quick.
void sleepWhileRunning(int ms) {
    for (int slept = 0; slept < ms && registry().running; slept += 100) {
        Heartbeat::beat();
        usleep(100 * 1000);
    }
}

// Serves until stop() (true) or until the server fails as a whole (false).
bool serve(uint16_t port, const std::string& address) {
    FastCGIServer::Server server;
    server.set_request_handler(onRequest);
    server.set_data_handler(onData);
    server.set_complete_handler(onComplete);
    server.set_limit_handler(onLimit);
    for (;;) {
        if (!registry().running)
            return true;
        try {
            if (address.empty())
                server.listen(port);
            else
                server.listen(port, address);
            break;
        } catch (const std::runtime_error&) {
            LOG(3) << "Bind to fcgi socket failed. retrying...";
            sleepWhileRunning(1000);
        }
    }
    try {
        while (registry().running) {
            Heartbeat::beat();
            try {
                server.process(100);
            } catch (const FastCGIServer::ConnectionError& error) {
                // Only that peer is gone; the others are served on.
                LOG(1) << "FastCGI connection dropped: " << error.what();
            }
        }
    } catch (const std::exception& error) {
        LOG(0) << "FastCGI server failed: " << error.what() << ". Restarting it.";
        return false;
    } catch (...) {
        LOG(0) << "FastCGI server failed. Restarting it.";
        return false;
    }
    return true;
}

void threadBody(uint16_t port, const std::string& address) {
    pthread_setname_np(pthread_self(), "fastcgi");
    // A fresh server drops every connection and so frees their descriptors; the pause keeps
    // a lasting fault from spinning.
    while (!serve(port, address))
        sleepWhileRunning(1000);
}

} // namespace

FcgiHandler::FcgiHandler() = default;

FcgiHandler::~FcgiHandler() {
    unregister();
}

void FcgiHandler::register_hook(FcgiHook* hook, uint16_t port) {
    unregister();
    if (hook == nullptr)
        return;
    Registry& r = registry();
    r.hooks.push_back(hook);
    r.ports.push_back(port);
    registered = hook;
}

void FcgiHandler::unregister() {
    if (registered == nullptr)
        return;
    Registry& r = registry();
    for (std::size_t i = 0; i < r.hooks.size(); ++i) {
        if (r.hooks[i] == registered) {
            r.hooks.erase(r.hooks.begin() + static_cast<std::ptrdiff_t>(i));
            r.ports.erase(r.ports.begin() + static_cast<std::ptrdiff_t>(i));
            break;
        }
    }
    registered = nullptr;
}

void FcgiHandler::start(uint16_t port, const std::string& address) {
    Registry& r = registry();
    if (r.running) {
        LOG(3) << "FcgiHandler already running.";
        return;
    }
    r.running = true;
    // SIGINT is for the main thread's pause(): the new thread starts with it blocked.
    sigset_t blocked;
    sigset_t previous;
    sigemptyset(&blocked);
    sigaddset(&blocked, SIGINT);
    sigaddset(&blocked, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &blocked, &previous);
    try {
        r.thread = std::thread(threadBody, port, address);
    } catch (const std::system_error&) {
        LOG(1) << "Error creating fcgi thread";
        r.running = false;
    }
    pthread_sigmask(SIG_SETMASK, &previous, nullptr);
}

void FcgiHandler::stop() {
    Registry& r = registry();
    r.running = false;
    if (!r.thread.joinable())
        return;
    try {
        r.thread.join();
    } catch (const std::system_error&) {
        LOG(1) << "Error finishing fcgi thread";
        // Never left joinable: that would end the process when the registry goes.
        if (r.thread.joinable())
            r.thread.detach();
    }
    LOG(4) << "fcgi thread finished.";
}
