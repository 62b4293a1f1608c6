// Multicast listener for the test machine, whose busybox has no way to join a group:
//
//   mcastprobe listen GROUP PORT [-o DIR] [-c COUNT] [-w SECONDS]
//
// Joins GROUP on loopback, writes "listening GROUP:PORT" to stderr once joined, and then for
// every datagram a line "datagram N LENGTH" and the payload (and a newline) to stdout. With -o
// every payload is also written to DIR/N, N with six digits, so that a glob lists them in
// order. It ends with status 0 after COUNT datagrams; SIGALRM ends it after SECONDS.
#include <arpa/inet.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>

int main(int argc, char** argv) {
    if (argc < 4 || std::string(argv[1]) != "listen" || argc % 2 != 0)
        return 2;
    std::string directory;
    long count = -1;
    for (int i = 4; i + 1 < argc; i += 2) {
        const std::string flag = argv[i];
        if (flag == "-o")
            directory = argv[i + 1];
        else if (flag == "-c")
            count = atol(argv[i + 1]);
        else if (flag == "-w")
            alarm(static_cast<unsigned>(atoi(argv[i + 1])));
    }
    const int fd = socket(AF_INET, SOCK_DGRAM, 0);
    const int one = 1;
    setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
    // Bound to the group itself: datagrams of other groups on the same port stay out.
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<uint16_t>(atoi(argv[3])));
    if (inet_pton(AF_INET, argv[2], &address.sin_addr) != 1)
        return 2;
    ip_mreq membership{};
    membership.imr_multiaddr = address.sin_addr;
    membership.imr_interface.s_addr = htonl(INADDR_LOOPBACK);
    if (bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
        setsockopt(fd, IPPROTO_IP, IP_ADD_MEMBERSHIP, &membership, sizeof membership) != 0) {
        perror("mcastprobe");
        return 1;
    }
    fprintf(stderr, "listening %s:%s\n", argv[2], argv[3]);
    char buffer[65536];
    for (long received = 1; count < 0 || received <= count; ++received) {
        const ssize_t length = recv(fd, buffer, sizeof buffer, 0);
        if (length < 0)
            return 1;
        printf("datagram %ld %zd\n%.*s\n", received, length, static_cast<int>(length), buffer);
        fflush(stdout);
        if (!directory.empty()) {
            char name[24];
            snprintf(name, sizeof name, "/%06ld", received);
            std::ofstream(directory + name, std::ios::binary).write(buffer, length);
        }
    }
    return 0;
}
