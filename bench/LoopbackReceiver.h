#pragma once

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <cstdint>

// A datagram socket on 127.0.0.1 at a free port, with room for bursts of documents: what the
// FMStoIP benches point the service's sender at instead of a multicast group.
inline int loopbackReceiver(uint16_t& port) {
    const int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    const int room = 4 << 20;
    setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &room, sizeof room);
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address);
    getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length);
    port = ntohs(address.sin_port);
    return fd;
}
