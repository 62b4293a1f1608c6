#ifndef TAVRO_FCGIHANDLER_H
#define TAVRO_FCGIHANDLER_H

#include "FcgiHook.h"

#include <cstdint>
#include <string>

// Runs the FastCGI server in a thread of its own and hands each request to the hooks
// registered for the HTTP port it came in on ("SERVER_PORT").
//
// A hook object holds an FcgiHandler as member and registers itself through it; the member
// takes the registration back when the hook object goes. The registry is not locked: hooks
// are registered before start() and removed after stop().
class FcgiHandler {
public:
    FcgiHandler();
    virtual ~FcgiHandler();
    FcgiHandler(const FcgiHandler&) = delete;
    FcgiHandler& operator=(const FcgiHandler&) = delete;

    // Replaces this object's earlier registration, if any; a null hook only removes it.
    void register_hook(FcgiHook* hook, uint16_t port);

    // Serves on the TCP port until stop(), on every IPv4 address or on the one given in
    // dotted form; binding is retried every second.
    static void start(uint16_t port, const std::string& address = std::string());
    static void stop();

private:
    void unregister();

    FcgiHook* registered = nullptr;
};

#endif
