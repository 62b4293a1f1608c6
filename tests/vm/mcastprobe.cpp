// Multicast probe for the test machine, whose busybox has no way to join a group:
//
//   mcastprobe listen GROUP PORT [-i ADDR] [-c COUNT] [-w SECONDS] [-o DIR]
//   mcastprobe send GROUP PORT TEXT [-i ADDR]
//
// listen joins GROUP on the interface with address ADDR (default 127.0.0.1), writes
// "listening GROUP:PORT" to stderr once joined, and then for every datagram a line
// "datagram N LENGTH STAMP" and the payload (with a newline added when it has none) to
// stdout; STAMP is the kernel receive time in milliseconds since the epoch. With -o every
// payload is also written to DIR/N, N with six digits (000001). It ends after COUNT datagrams
// (status 0) or after SECONDS (status 0 without -c, else 1 when fewer than COUNT came). send sends
// TEXT once, out of the interface with ADDR, with TTL 0: it never leaves the machine.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>
#include <vector>

namespace {

struct Options {
    std::string group;
    uint16_t port = 0;
    std::string text;
    std::string interfaceAddress = "127.0.0.1";
    long count = -1;
    double seconds = -1;
    std::string directory;
};

int usage() {
    fprintf(stderr, "usage: mcastprobe listen GROUP PORT [-i ADDR] [-c COUNT] [-w SECONDS] "
                    "[-o DIR]\n       mcastprobe send GROUP PORT TEXT [-i ADDR]\n");
    return 2;
}

bool parseAddress(const std::string& text, in_addr& address) {
    return inet_pton(AF_INET, text.c_str(), &address) == 1;
}

bool parseNumber(const char* text, double& value) {
    char* end = nullptr;
    errno = 0;
    value = strtod(text, &end);
    return errno == 0 && end != text && *end == '\0' && value >= 0;
}

// Kernel receive time of the datagram, or 0 when the message carries none.
uint64_t receiveStamp(msghdr& message) {
    for (cmsghdr* c = CMSG_FIRSTHDR(&message); c != nullptr; c = CMSG_NXTHDR(&message, c)) {
        if (c->cmsg_level == SOL_SOCKET && c->cmsg_type == SCM_TIMESTAMP) {
            timeval tv;
            // The control buffer gives no alignment guarantee for the payload.
            memcpy(&tv, CMSG_DATA(c), sizeof tv);
            return static_cast<uint64_t>(tv.tv_sec) * 1000u +
                   static_cast<uint64_t>(tv.tv_usec) / 1000u;
        }
    }
    return 0;
}

int listenMode(const Options& options) {
    in_addr group{};
    in_addr local{};
    if (!parseAddress(options.group, group) || !parseAddress(options.interfaceAddress, local))
        return usage();
    int fd = socket(AF_INET, SOCK_DGRAM, 0);
    if (fd < 0) {
        perror("socket");
        return 1;
    }
    int one = 1;
    setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
    setsockopt(fd, SOL_SOCKET, SO_TIMESTAMP, &one, sizeof one);
    // Bound to the group itself: datagrams of other groups on the same port stay out.
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(options.port);
    address.sin_addr = group;
    if (bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
        perror("bind");
        return 1;
    }
    ip_mreq membership{};
    membership.imr_multiaddr = group;
    membership.imr_interface = local;
    if (setsockopt(fd, IPPROTO_IP, IP_ADD_MEMBERSHIP, &membership, sizeof membership) != 0) {
        perror("IP_ADD_MEMBERSHIP");
        return 1;
    }
    fprintf(stderr, "listening %s:%u\n", options.group.c_str(), options.port);
    fflush(stderr);

    using Clock = std::chrono::steady_clock;
    const auto deadline =
        Clock::now() + std::chrono::milliseconds(static_cast<int64_t>(options.seconds * 1000));
    std::vector<char> buffer(65536);
    alignas(cmsghdr) char control[CMSG_SPACE(sizeof(timeval)) + 64];
    long received = 0;
    while (options.count < 0 || received < options.count) {
        int wait = -1;
        if (options.seconds >= 0) {
            const auto left =
                std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
            if (left.count() <= 0)
                break;
            wait = static_cast<int>(left.count());
        }
        pollfd p{fd, POLLIN, 0};
        int ready = poll(&p, 1, wait);
        if (ready < 0 && errno != EINTR) {
            perror("poll");
            return 1;
        }
        if (ready <= 0)
            continue;
        iovec data{buffer.data(), buffer.size()};
        msghdr message{};
        message.msg_iov = &data;
        message.msg_iovlen = 1;
        message.msg_control = control;
        message.msg_controllen = sizeof control;
        ssize_t length = recvmsg(fd, &message, 0);
        if (length < 0)
            continue;
        ++received;
        const size_t size = static_cast<size_t>(length);
        printf("datagram %ld %zu %llu\n", received, size,
               static_cast<unsigned long long>(receiveStamp(message)));
        fwrite(buffer.data(), 1, size, stdout);
        if (size == 0 || buffer[size - 1] != '\n')
            fputc('\n', stdout);
        fflush(stdout);
        if (!options.directory.empty()) {
            // Zero-padded, so that a glob lists them in the order they came.
            char name[24];
            snprintf(name, sizeof name, "/%06ld", received);
            std::ofstream file(options.directory + name, std::ios::binary);
            file.write(buffer.data(), length);
        }
    }
    close(fd);
    if (options.count >= 0 && received < options.count) {
        fprintf(stderr, "mcastprobe: %ld of %ld datagrams\n", received, options.count);
        return 1;
    }
    return 0;
}

int sendMode(const Options& options) {
    in_addr group{};
    in_addr local{};
    if (!parseAddress(options.group, group) || !parseAddress(options.interfaceAddress, local))
        return usage();
    int fd = socket(AF_INET, SOCK_DGRAM, 0);
    if (fd < 0) {
        perror("socket");
        return 1;
    }
    unsigned char ttl = 0;
    setsockopt(fd, IPPROTO_IP, IP_MULTICAST_TTL, &ttl, sizeof ttl);
    if (setsockopt(fd, IPPROTO_IP, IP_MULTICAST_IF, &local, sizeof local) != 0) {
        perror("IP_MULTICAST_IF");
        return 1;
    }
    sockaddr_in destination{};
    destination.sin_family = AF_INET;
    destination.sin_port = htons(options.port);
    destination.sin_addr = group;
    ssize_t sent = sendto(fd, options.text.data(), options.text.size(), 0,
                          reinterpret_cast<sockaddr*>(&destination), sizeof destination);
    close(fd);
    if (sent != static_cast<ssize_t>(options.text.size())) {
        perror("sendto");
        return 1;
    }
    return 0;
}

} // namespace

int main(int argc, char** argv) {
    if (argc < 4)
        return usage();
    const std::string mode = argv[1];
    Options options;
    options.group = argv[2];
    double port = 0;
    if (!parseNumber(argv[3], port) || port < 1 || port > 65535 || port != static_cast<int>(port))
        return usage();
    options.port = static_cast<uint16_t>(port);
    int next = 4;
    if (mode == "send") {
        if (argc < 5)
            return usage();
        options.text = argv[next++];
    } else if (mode != "listen") {
        return usage();
    }
    for (; next < argc; next += 2) {
        const std::string flag = argv[next];
        if (next + 1 >= argc)
            return usage();
        const char* value = argv[next + 1];
        double number = 0;
        if (flag == "-i") {
            options.interfaceAddress = value;
        } else if (flag == "-o" && mode == "listen") {
            options.directory = value;
        } else if (flag == "-c" && mode == "listen" && parseNumber(value, number)) {
            options.count = static_cast<long>(number);
        } else if (flag == "-w" && mode == "listen" && parseNumber(value, number)) {
            options.seconds = number;
        } else {
            return usage();
        }
    }
    return mode == "send" ? sendMode(options) : listenMode(options);
}
