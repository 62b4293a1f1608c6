#ifndef TAVRO_MULTICASTSENDER_H
#define TAVRO_MULTICASTSENDER_H

#include <netinet/in.h>

#include <cstdint>
#include <ctime>
#include <functional>
#include <map>
#include <string>

// One UDP multicast destination: a datagram socket out of a named interface, per-context
// counts of the datagrams sent, reported about once a minute. A failed send drops the
// datagram and reopens the socket so the next one has a chance (e.g. once the interface is
// back). Used by one thread at a time; it holds no lock.
class MulticastSender {
public:
    // Seconds since the epoch; replaceable so the once-a-minute report can be tested.
    using Clock = std::function<time_t()>;

    MulticastSender(const std::string& groupAddress, const std::string& port,
                    const std::string& interfaceName, uint8_t ttl);
    MulticastSender(const std::string& groupAddress, const std::string& port,
                    const std::string& interfaceName, uint8_t ttl, Clock clock);
    ~MulticastSender();
    MulticastSender(const MulticastSender&) = delete;
    MulticastSender& operator=(const MulticastSender&) = delete;

    // (Re)creates the socket: -1 when it could not be created, else the result of setting
    // the TTL (0 on success).
    int32_t open();

    // One datagram holding data byte for byte. True when it was sent; no caller needs this.
    bool send(const std::string& data, const std::string& context);
    bool send(const std::string& data);

    int32_t socketDescriptor() const { return socketFd; }
    const struct sockaddr_in& destinationAddress() const { return destination; }

private:
    void countAndReport(const std::string& context);

    struct sockaddr_in destination;
    int32_t socketFd = -1;
    std::map<std::string, uint32_t> counters; // std::string orders byte-wise (unsigned)
    int64_t periodStart = 0;
    const std::string groupAddress;
    const std::string port;
    const std::string interfaceName;
    const uint8_t ttl;
    Clock clock;
};

#endif
