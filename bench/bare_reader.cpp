// What reading the virtual CAN bus costs at the least, to compare tavro-fmstoip with
// (frame_ratio.py): a socket in the bus directory as the daemon's reader binds it, recvmsg
// with the kernel's receive stamp (SO_TIMESTAMP) and nothing else. With a port it is the bare
// receive-and-send program: each frame goes on as one datagram of SIZE bytes (about a
// single-frame document; the frame's hex at its start) to 127.0.0.1:PORT.
//
//     bare_reader BUS_DIR [PORT [SIZE]]
//
// Prints "ready" once bound, and "frames=N" on SIGTERM or SIGINT.

#include <arpa/inet.h>
#include <linux/can.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

namespace {
volatile sig_atomic_t stopping = 0;

void onSignal(int) {
    stopping = 1;
}
} // namespace

int main(int argc, char** argv) {
    if (argc < 2) {
        fprintf(stderr, "usage: bare_reader BUS_DIR [PORT [SIZE]]\n");
        return 2;
    }
    struct sigaction action = {};
    action.sa_handler = onSignal;
    sigaction(SIGTERM, &action, nullptr);
    sigaction(SIGINT, &action, nullptr);

    const int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    const int room = 1 << 20;
    setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &room, sizeof room);
    const int enable = 1;
    setsockopt(fd, SOL_SOCKET, SO_TIMESTAMP, &enable, sizeof enable);
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    const std::string path = std::string(argv[1]) + "/bare-" + std::to_string(getpid());
    if (path.size() >= sizeof address.sun_path) {
        fprintf(stderr, "bare_reader: %s too long\n", path.c_str());
        return 1;
    }
    memcpy(address.sun_path, path.c_str(), path.size());
    if (bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
        perror("bare_reader: bind");
        return 1;
    }

    const int out = argc > 2 ? socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0) : -1;
    sockaddr_in target = {};
    target.sin_family = AF_INET;
    target.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    target.sin_port = htons(static_cast<uint16_t>(argc > 2 ? atoi(argv[2]) : 0));
    std::vector<char> datagram(argc > 3 ? static_cast<size_t>(atoi(argv[3])) : 600, ' ');
    printf("ready\n");
    fflush(stdout);

    can_frame frame;
    union {
        cmsghdr align;
        unsigned char bytes[80];
    } control;
    iovec vector = {&frame, sizeof frame};
    uint64_t frames = 0;
    uint64_t stamps = 0;
    while (!stopping) {
        msghdr message = {};
        message.msg_iov = &vector;
        message.msg_iovlen = 1;
        message.msg_control = control.bytes;
        message.msg_controllen = sizeof control.bytes;
        if (recvmsg(fd, &message, 0) != static_cast<ssize_t>(sizeof frame))
            continue;
        for (cmsghdr* c = CMSG_FIRSTHDR(&message); c != nullptr; c = CMSG_NXTHDR(&message, c)) {
            if (c->cmsg_level == SOL_SOCKET && c->cmsg_type == SO_TIMESTAMP) {
                timeval stamp;
                memcpy(&stamp, CMSG_DATA(c), sizeof stamp);
                stamps += static_cast<uint64_t>(stamp.tv_sec) * 1000 + stamp.tv_usec / 1000;
            }
        }
        ++frames;
        if (out >= 0) {
            snprintf(datagram.data(), datagram.size(), "%08X#%02X%02X%02X%02X%02X%02X%02X%02X",
                     frame.can_id & CAN_EFF_MASK, frame.data[0], frame.data[1], frame.data[2],
                     frame.data[3], frame.data[4], frame.data[5], frame.data[6], frame.data[7]);
            sendto(out, datagram.data(), datagram.size(), 0, reinterpret_cast<sockaddr*>(&target),
                   sizeof target);
        }
    }
    unlink(path.c_str());
    printf("frames=%llu stamps=%llu\n", static_cast<unsigned long long>(frames),
           static_cast<unsigned long long>(stamps % 1000));
    return 0;
}
