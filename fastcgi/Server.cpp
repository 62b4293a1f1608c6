#include "Server.h"

#include <arpa/inet.h>
#include <errno.h>
#include <netinet/in.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <cstring>

namespace FastCGIServer {

namespace {

using Clock = std::chrono::steady_clock;

constexpr int backlog = 100;
constexpr std::size_t readSize = 4096;
constexpr std::size_t maxPathLength = sizeof(sockaddr_un::sun_path) - 1;

[[noreturn]] void fail(int fd, const char* message) {
    ::close(fd);
    throw std::runtime_error(message);
}

// Descriptors select() cannot watch are never kept.
void checkDescriptor(int fd) {
    if (fd >= FD_SETSIZE)
        fail(fd, "descriptor beyond FD_SETSIZE");
}

// Errors after which the listening socket is fine and simply has nothing to hand out now
// (Linux passes pending network errors of the new connection to accept()).
bool transientAcceptError(int error) {
    switch (error) {
    case EAGAIN:
#if EWOULDBLOCK != EAGAIN
    case EWOULDBLOCK:
#endif
    case EINTR:
    case ECONNABORTED:
    case EPROTO:
    case ENETDOWN:
    case ENOPROTOOPT:
    case EHOSTDOWN:
    case ENONET:
    case EHOSTUNREACH:
    case EOPNOTSUPP:
    case ENETUNREACH:
        return true;
    default:
        return false;
    }
}

} // namespace

Server::Server() = default;

Server::~Server() {
    for (int fd : listeningSockets)
        ::close(fd);
    for (const std::string& path : socketPaths)
        ::unlink(path.c_str());
    for (const auto& entry : open)
        ::close(entry.first);
    open.clear();
}

void Server::listen(uint16_t port) {
    listen(port, "0.0.0.0");
}

void Server::listen(uint16_t port, const std::string& address) {
    in_addr host;
    if (::inet_pton(AF_INET, address.c_str(), &host) != 1)
        throw std::runtime_error("bad address");
    const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0)
        throw std::runtime_error("socket() failed");
    checkDescriptor(fd);
    const int one = 1;
    if (::setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one) < 0)
        fail(fd, "setsockopt() failed");
    sockaddr_in local;
    std::memset(&local, 0, sizeof local);
    local.sin_family = AF_INET;
    local.sin_addr = host;
    local.sin_port = htons(port);
    if (::bind(fd, reinterpret_cast<const sockaddr*>(&local), sizeof local) < 0)
        fail(fd, "bind() failed");
    if (::listen(fd, backlog) < 0)
        fail(fd, "listen() failed");
    listeningSockets.push_back(fd);
}

void Server::listen(const std::string& path) {
    const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0)
        throw std::runtime_error("socket() failed");
    checkDescriptor(fd);
    if (path.size() > maxPathLength)
        fail(fd, "path too long");
    if (path.find('\0') != std::string::npos)
        fail(fd, "null character in path");
    sockaddr_un address;
    std::memset(&address, 0, sizeof address);
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path, path.data(), path.size());
    ::unlink(path.c_str());
    const auto length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + path.size() + 1);
    if (::bind(fd, reinterpret_cast<const sockaddr*>(&address), length) < 0) {
        ::unlink(path.c_str());
        fail(fd, "bind() failed");
    }
    if (::listen(fd, backlog) < 0) {
        ::unlink(path.c_str());
        fail(fd, "listen() failed");
    }
    listeningSockets.push_back(fd);
    socketPaths.push_back(path);
}

void Server::set_request_handler(HandlerFunction function) {
    callbacks.request = std::make_unique<StaticHandler>(function);
}

void Server::set_data_handler(HandlerFunction function) {
    callbacks.data = std::make_unique<StaticHandler>(function);
}

void Server::set_complete_handler(HandlerFunction function) {
    callbacks.complete = std::make_unique<StaticHandler>(function);
}

void Server::set_limit_handler(LimitFunction function) {
    callbacks.limit = function;
}

void Server::set_limits(const Limits& limits) {
    bounds = limits;
}

void Server::run() {
    for (;;)
        process(-1);
}

// When the connection is closed unless it moves on: what is still to be sent after the
// peer closed its side has the drain time, a connection that owes or is owed something the
// progress time, any other the idle time.
Clock::time_point Server::deadline(const Connection& connection) const {
    auto after = [](Clock::time_point from, int ms) {
        return ms > 0 ? from + std::chrono::milliseconds(ms) : Clock::time_point::max();
    };
    if (connection.peerClosed)
        return after(connection.peerClosedAt, bounds.drainTimeoutMs);
    if (connection.busy())
        return after(connection.lastProgress, bounds.progressTimeoutMs);
    return after(connection.lastProgress, bounds.idleTimeoutMs);
}

void Server::process(int timeout_ms) {
    fd_set readSet;
    fd_set writeSet;
    FD_ZERO(&readSet);
    FD_ZERO(&writeSet);
    int highest = -1;
    for (int fd : listeningSockets) {
        FD_SET(fd, &readSet);
        highest = std::max(highest, fd);
    }
    Clock::time_point next = Clock::time_point::max();
    for (const auto& entry : open) {
        const int fd = entry.first;
        const Connection& connection = *entry.second;
        // A peer that has closed its side stays readable for ever: watching it would spin.
        if (!connection.peerClosed && connection.output.size() <= bounds.maxPendingOutput)
            FD_SET(fd, &readSet);
        if (!connection.output.empty())
            FD_SET(fd, &writeSet);
        highest = std::max(highest, fd);
        next = std::min(next, deadline(connection));
    }

    // Wake up in time to close the connection whose time runs out first.
    int wait = timeout_ms;
    if (next != Clock::time_point::max()) {
        const auto left =
            std::chrono::duration_cast<std::chrono::milliseconds>(next - Clock::now()).count();
        const int untilNext = static_cast<int>(std::min<decltype(left)>(
                                  std::max<decltype(left)>(0, left), 24 * 3600 * 1000)) +
                              1;
        if (wait < 0 || untilNext < wait)
            wait = untilNext;
    }
    timeval timeout;
    timeval* timeoutPointer = nullptr;
    if (wait >= 0) {
        timeout.tv_sec = wait / 1000;
        timeout.tv_usec = (wait % 1000) * 1000;
        timeoutPointer = &timeout;
    }
    if (::select(highest + 1, &readSet, &writeSet, nullptr, timeoutPointer) < 0) {
        if (errno == EINTR)
            return;
        throw std::runtime_error("select() failed");
    }
    const Clock::time_point now = Clock::now();

    // A descriptor freed by an eviction may come back from the next accept(): what select()
    // reported for it belongs to the old connection.
    std::vector<int> accepted;
    for (int fd : listeningSockets) {
        if (!FD_ISSET(fd, &readSet))
            continue;
        const int client = ::accept4(fd, nullptr, nullptr, SOCK_CLOEXEC);
        if (client < 0) {
            if (transientAcceptError(errno))
                continue;
            throw std::runtime_error("accept() failed");
        }
        if (client >= FD_SETSIZE) {
            ::close(client);
            continue;
        }
        if (open.size() >= bounds.maxConnections)
            evictQuietest();
        auto connection = std::make_unique<Connection>(callbacks, bounds);
        connection->lastProgress = now;
        connection->makeRoom = [this, client](std::size_t wanted) {
            return shedOthers(client, wanted);
        };
        open[client] = std::move(connection);
        accepted.push_back(client);
    }

    std::size_t held = 0;
    for (const auto& entry : open)
        held += entry.second->footprint();
    char buffer[readSize];
    for (auto it = open.begin(); it != open.end();) {
        const int fd = it->first;
        Connection& connection = *it->second;
        ++it;
        if (std::find(accepted.begin(), accepted.end(), fd) != accepted.end())
            continue;
        if (FD_ISSET(fd, &readSet) && !connection.peerClosed) {
            const ssize_t got = ::read(fd, buffer, sizeof buffer);
            if (got < 0) {
                if (errno == ECONNRESET) {
                    closeConnection(fd);
                    continue;
                }
                if (errno != EINTR && errno != EAGAIN && errno != EWOULDBLOCK) {
                    dropConnection(fd);
                    throw ConnectionError("read() on socket failed");
                }
            } else if (got == 0) {
                connection.peerClosed = true;
                connection.peerClosedAt = now;
                connection.closing = true;
            } else {
                connection.othersHeld = held - std::min(held, connection.footprint());
                connection.progressed = false;
                connection.receive(buffer, static_cast<std::size_t>(got));
                if (connection.progressed)
                    connection.lastProgress = now;
                held = connection.othersHeld + connection.footprint();
                // Output and input grow without asking: the others make room if need be.
                if (held > bounds.maxTotalHeldBytes)
                    held -= std::min(held, shedOthers(fd, held - bounds.maxTotalHeldBytes));
            }
        }
        if (connection.output.empty()) {
            if (connection.closing)
                closeConnection(fd);
            continue;
        }
        if (!FD_ISSET(fd, &writeSet))
            continue;
        connection.flushAll();
        // Without MSG_NOSIGNAL a vanished peer would end the process by SIGPIPE; without
        // MSG_DONTWAIT a peer that stops reading would stall every other connection.
        ssize_t sent = ::send(fd, connection.output.data(), connection.output.size(),
                              MSG_NOSIGNAL | MSG_DONTWAIT);
        if (sent < 0) {
            if (errno != EAGAIN && errno != EWOULDBLOCK && errno != EINTR) {
                dropConnection(fd);
                throw ConnectionError("write() failed");
            }
            sent = 0;
        }
        // Output taken is no progress: a peer that reads a little now and then must not keep
        // its answers, nor itself, here for ever.
        if (sent > 0) {
            connection.output.erase(0, static_cast<std::size_t>(sent));
            if (connection.output.empty() && connection.output.capacity() > 16 * 1024)
                std::string().swap(connection.output);
        }
        if (connection.closing && connection.output.empty())
            closeConnection(fd);
    }

    // Connections shed for others, and those whose time has run out.
    for (auto it = open.begin(); it != open.end();) {
        const int fd = it->first;
        const Connection& connection = *it->second;
        const bool over = (connection.closing && connection.output.empty()) ||
                          (now >= deadline(connection) &&
                           std::find(accepted.begin(), accepted.end(), fd) == accepted.end());
        ++it;
        if (over)
            closeConnection(fd);
    }
}

void Server::closeConnection(int fd) {
    open.erase(fd);
    if (::close(fd) < 0 && errno != ECONNRESET && errno != EINTR)
        throw ConnectionError("close() failed");
}

// Peers that hold connections without using them cannot lock out the web server: the
// newcomer takes the place of the connection that has been quiet longest.
void Server::evictQuietest() {
    auto quietest = open.begin();
    for (auto it = open.begin(); it != open.end(); ++it) {
        if (it->second->lastProgress < quietest->second->lastProgress)
            quietest = it;
    }
    if (quietest == open.end())
        return;
    const int fd = quietest->first;
    open.erase(quietest);
    ::close(fd);
}

// The connections that hold the most go first, of equals the one that has waited longest
// for progress; they are closed at the end of the pass.
std::size_t Server::shedOthers(int asking, std::size_t wanted) {
    static const Request none;
    std::size_t freed = 0;
    while (freed < wanted) {
        Connection* victim = nullptr;
        std::size_t most = 0;
        for (const auto& entry : open) {
            Connection& candidate = *entry.second;
            if (entry.first == asking || (candidate.halted && candidate.output.empty()))
                continue;
            const std::size_t size = candidate.footprint();
            if (victim == nullptr || size > most ||
                (size == most && candidate.lastProgress < victim->lastProgress)) {
                victim = &candidate;
                most = size;
            }
        }
        if (victim == nullptr)
            break;
        if (callbacks.limit != nullptr)
            callbacks.limit(victim->requests.empty() ? none : *victim->requests.begin()->second,
                            true);
        victim->shed();
        freed += most - std::min(most, victim->footprint());
    }
    return freed;
}

void Server::dropConnection(int fd) {
    const int error = errno;
    open.erase(fd);
    ::close(fd);
    errno = error;
}

} // namespace FastCGIServer
