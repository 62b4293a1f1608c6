#include "NetHelpers.h"

#include "Logger.h"

#include <arpa/inet.h>
#include <net/if.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>

std::string interfaceAddress(const std::string& name) {
    int fd = socket(AF_INET, SOCK_DGRAM, 0);
    struct ifreq request;
    memset(&request, 0, sizeof request);
    strncpy(request.ifr_name, name.c_str(), IFNAMSIZ - 1);
    request.ifr_addr.sa_family = AF_INET;
    int result = fd < 0 ? -1 : ioctl(fd, SIOCGIFADDR, &request);
    if (fd >= 0) {
        shutdown(fd, SHUT_RDWR);
        close(fd);
    }
    if (result < 0)
        return "0.0.0.0";
    struct sockaddr_in address;
    memcpy(&address, &request.ifr_addr, sizeof address);
    // inet_ntoa's static buffer would race between the sending threads.
    char text[INET_ADDRSTRLEN] = "0.0.0.0";
    inet_ntop(AF_INET, &address.sin_addr, text, sizeof text);
    return text;
}

int32_t openMulticastSocket(const std::string& group, uint16_t port, const std::string& interface,
                            struct sockaddr_in& destination) {
    int fd = socket(AF_INET, SOCK_DGRAM, 0);
    if (fd < 0)
        return -1;
    memset(&destination, 0, sizeof destination);
    destination.sin_family = AF_INET;
    destination.sin_addr.s_addr = inet_addr(group.c_str());
    destination.sin_port = htons(port);
    const std::string address = interfaceAddress(interface);
    LOG(2) << "ifaddr: " << address;
    struct in_addr outgoing;
    outgoing.s_addr = inet_addr(address.c_str());
    if (setsockopt(fd, IPPROTO_IP, IP_MULTICAST_IF, &outgoing, sizeof outgoing) != 0) {
        close(fd);
        return -1;
    }
    return fd;
}

double bitFieldValue(uint64_t raw, uint32_t bitOffset, uint32_t bitSize, double gain,
                     double offset) {
    uint64_t field = 0;
    // Shifts by 64 are undefined: a field outside the word reads as 0.
    if (bitSize != 0 && bitOffset < 64 && bitSize <= 64 - bitOffset) {
        const uint64_t mask = bitSize == 64 ? ~uint64_t(0) : ((uint64_t(1) << bitSize) - 1);
        field = (raw >> bitOffset) & mask;
    }
    return offset + static_cast<double>(field) * gain;
}

uint64_t loadU64(const uint8_t* bytes) {
    uint64_t value = 0;
    for (int i = 7; i >= 0; --i)
        value = (value << 8) | bytes[i];
    return value;
}

void storeU64(uint64_t value, uint8_t* bytes) {
    for (int i = 0; i < 8; ++i) {
        bytes[i] = static_cast<uint8_t>(value & 0xFF);
        value >>= 8;
    }
}

std::string toHex(const uint8_t* bytes, int32_t count) {
    static const char digits[] = "0123456789ABCDEF";
    std::string text;
    if (count <= 0)
        return text;
    text.resize(static_cast<size_t>(count) * 2);
    for (int32_t i = 0; i < count; ++i) {
        text[2 * i] = digits[bytes[i] >> 4];
        text[2 * i + 1] = digits[bytes[i] & 0x0F];
    }
    return text;
}
