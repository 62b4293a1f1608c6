#include "MulticastSender.h"

#include "Logger.h"
#include "NetHelpers.h"

#include <arpa/inet.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

namespace {
time_t systemTime() {
    return time(nullptr);
}
} // namespace

MulticastSender::MulticastSender(const std::string& group, const std::string& portText,
                                 const std::string& interface, uint8_t timeToLive)
    : MulticastSender(group, portText, interface, timeToLive, systemTime) {}

MulticastSender::MulticastSender(const std::string& group, const std::string& portText,
                                 const std::string& interface, uint8_t timeToLive, Clock timeSource)
    : groupAddress(group), port(portText), interfaceName(interface), ttl(timeToLive),
      clock(timeSource ? std::move(timeSource) : Clock(systemTime)) {
    memset(&destination, 0, sizeof destination);
    periodStart = static_cast<int64_t>(clock());
    open();
}

MulticastSender::~MulticastSender() {
    if (socketFd >= 0)
        close(socketFd);
}

int32_t MulticastSender::open() {
    if (socketFd >= 0)
        close(socketFd);
    socketFd = socket(AF_INET, SOCK_DGRAM, 0);
    if (socketFd < 0) {
        socketFd = -1;
        return -1;
    }
    memset(&destination, 0, sizeof destination);
    destination.sin_family = AF_INET;
    destination.sin_addr.s_addr = inet_addr(groupAddress.c_str());
    destination.sin_port = htons(static_cast<uint16_t>(atoi(port.c_str())));

    LOG(2) << "ifaddr: " << interfaceAddress(interfaceName);
    struct in_addr outgoing;
    outgoing.s_addr = inet_addr(interfaceAddress(interfaceName).c_str());
    // Not checked: an interface without an address falls back to any interface.
    setsockopt(socketFd, IPPROTO_IP, IP_MULTICAST_IF, &outgoing, sizeof outgoing);
    return setsockopt(socketFd, IPPROTO_IP, IP_MULTICAST_TTL, &ttl, 1);
}

bool MulticastSender::send(const std::string& data) {
    return send(data, "no-context");
}

bool MulticastSender::send(const std::string& data, const std::string& context) {
    LOG(8) << "sending packet to: " << groupAddress << ":" << port;
    LOG(8) << "data:\n" << data;
    ssize_t sent =
        sendto(socketFd, data.data(), data.size(), 0,
               reinterpret_cast<const struct sockaddr*>(&destination), sizeof destination);
    if (sent == -1) {
        const int error = errno;
        LOG(1) << "Multicast could not be sent! (port = " << port << "interface = " << interfaceName
               << " ) errno: " << strerror(error) << "(" << error << ")";
        LOG(3) << "Reopening socket!";
        open();
        return false;
    }
    countAndReport(context);
    return true;
}

void MulticastSender::countAndReport(const std::string& context) {
    ++counters[context];
    const int64_t current = static_cast<int64_t>(clock());
    if (current <= periodStart + 59)
        return;

    const time_t start = static_cast<time_t>(periodStart);
    struct tm broken;
    char since[50] = "";
    if (gmtime_r(&start, &broken) != nullptr)
        strftime(since, sizeof since, "%X", &broken);
    LOG(3) << "multicast-stat for port " << port << " since " << since;
    for (auto& entry : counters) {
        LOG(3) << entry.first << " = " << entry.second;
        entry.second = 0;
    }
    periodStart = static_cast<int64_t>(clock());
}
