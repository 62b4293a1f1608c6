#ifndef FASTCGI_SERVER_H
#define FASTCGI_SERVER_H

#include "Connection.h"
#include "Limits.h"
#include "StaticHandler.h"

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

namespace FastCGIServer {

// A failure of one connection's socket (read, write or close). The connection has been
// closed already; the server itself is fine and can go on.
class ConnectionError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

// FastCGI responder on TCP ports and Unix-domain sockets, driven by select() in the
// calling thread. Socket failures throw std::runtime_error; faults of the peer are answered
// in the protocol or end its connection.
class Server {
public:
    Server();
    ~Server();
    Server(const Server&) = delete;
    Server& operator=(const Server&) = delete;

    // On every IPv4 address.
    void listen(uint16_t port);
    // On one IPv4 address, given in dotted form ("bad address" otherwise).
    void listen(uint16_t port, const std::string& address);
    void listen(const std::string& path);

    void set_request_handler(HandlerFunction function);
    void set_data_handler(HandlerFunction function);
    void set_complete_handler(HandlerFunction function);
    void set_limit_handler(LimitFunction function);
    void set_limits(const Limits& limits);
    const Limits& limits() const { return bounds; }

    // One pass of waiting (at most timeout_ms, without limit when negative) and work.
    void process(int timeout_ms);
    [[noreturn]] void run();

    const std::map<int, std::unique_ptr<Connection>>& connections() const { return open; }

private:
    void closeConnection(int fd);
    // After a socket failure of the connection: closed without a further report.
    void dropConnection(int fd);
    void evictQuietest();
    std::size_t shedOthers(int asking, std::size_t wanted);
    std::chrono::steady_clock::time_point deadline(const Connection& connection) const;

    std::vector<int> listeningSockets;
    std::vector<std::string> socketPaths;
    std::map<int, std::unique_ptr<Connection>> open;
    Callbacks callbacks;
    Limits bounds;
};

} // namespace FastCGIServer

#endif
