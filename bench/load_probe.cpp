// Both ends of the FMStoIP path for load_bench.py: a reader on each virtual CAN bus directory
// and a listener on the service's multicast group. Every frame of the load log carries its bus
// and sequence number in data bytes 4 to 7; the probe matches each frame of a document to the
// frame on the bus and reports, once stopped by SIGINT or SIGTERM, the frames seen, lost and
// the latency from bus to datagram. Both time stamps are the kernel's receive stamps, so the
// figures do not depend on when this program gets the CPU.
//
//     load_probe GROUP PORT INTERFACE_ADDRESS BUS_DIRECTORY...

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

namespace {

volatile sig_atomic_t stopped = 0;

void onSignal(int) {
    stopped = 1;
}

[[noreturn]] void fail(const char* what) {
    fprintf(stderr, "load_probe: %s: %s\n", what, strerror(errno));
    exit(1);
}

int64_t stampOf(msghdr& message) {
    for (cmsghdr* c = CMSG_FIRSTHDR(&message); c != nullptr; c = CMSG_NXTHDR(&message, c)) {
        if (c->cmsg_level == SOL_SOCKET && c->cmsg_type == SO_TIMESTAMPNS) {
            timespec t;
            memcpy(&t, CMSG_DATA(c), sizeof t);
            return int64_t(t.tv_sec) * 1000000000 + t.tv_nsec;
        }
    }
    return -1;
}

// The socket's count of datagrams the kernel dropped for want of room, when it came along.
void overflowOf(msghdr& message, uint32_t& dropped) {
    for (cmsghdr* c = CMSG_FIRSTHDR(&message); c != nullptr; c = CMSG_NXTHDR(&message, c)) {
        if (c->cmsg_level == SOL_SOCKET && c->cmsg_type == SO_RXQ_OVFL)
            memcpy(&dropped, CMSG_DATA(c), sizeof dropped);
    }
}

int hex(char c) {
    if (c >= '0' && c <= '9')
        return c - '0';
    if (c >= 'A' && c <= 'F')
        return c - 'A' + 10;
    if (c >= 'a' && c <= 'f')
        return c - 'a' + 10;
    return -1;
}

struct Bus {
    int fd;
    std::string path;
    // Receive stamp per sequence number, -1 until seen.
    std::vector<int64_t> stamps;
    // Receive stamps in arrival order, for the bus's burstiness.
    std::vector<int64_t> arrivals;
    uint64_t frames = 0;
    uint64_t foreign = 0; // frames of another bus, or without a sequence number
    int64_t first = -1;
    int64_t last = -1;
};

int64_t percentile(const std::vector<int64_t>& sorted, double p) {
    if (sorted.empty())
        return -1;
    size_t index = static_cast<size_t>(p * static_cast<double>(sorted.size() - 1) + 0.5);
    return sorted[std::min(index, sorted.size() - 1)];
}

} // namespace

int main(int argc, char** argv) {
    if (argc < 5) {
        fprintf(stderr, "usage: load_probe GROUP PORT INTERFACE_ADDRESS BUS_DIRECTORY...\n");
        return 2;
    }
    const int on = 1;
    std::vector<Bus> buses;
    for (int i = 4; i < argc; ++i) {
        Bus bus;
        bus.path = std::string(argv[i]) + "/load-probe";
        bus.fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
        sockaddr_un address;
        memset(&address, 0, sizeof address);
        address.sun_family = AF_UNIX;
        if (bus.fd < 0 || bus.path.size() >= sizeof address.sun_path)
            fail("bus socket");
        memcpy(address.sun_path, bus.path.c_str(), bus.path.size());
        unlink(bus.path.c_str());
        if (bind(bus.fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0)
            fail("bind to the bus");
        setsockopt(bus.fd, SOL_SOCKET, SO_TIMESTAMPNS, &on, sizeof on);
        buses.push_back(bus);
    }

    const int group = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (group < 0)
        fail("socket");
    setsockopt(group, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    // Room for seconds of documents, so that a late turn of this program loses nothing.
    const int room = 64 << 20;
    if (setsockopt(group, SOL_SOCKET, SO_RCVBUFFORCE, &room, sizeof room) != 0)
        setsockopt(group, SOL_SOCKET, SO_RCVBUF, &room, sizeof room);
    setsockopt(group, SOL_SOCKET, SO_TIMESTAMPNS, &on, sizeof on);
    setsockopt(group, SOL_SOCKET, SO_RXQ_OVFL, &on, sizeof on);
    sockaddr_in local;
    memset(&local, 0, sizeof local);
    local.sin_family = AF_INET;
    local.sin_port = htons(static_cast<uint16_t>(atoi(argv[2])));
    if (bind(group, reinterpret_cast<sockaddr*>(&local), sizeof local) != 0)
        fail("bind to the port");
    ip_mreq membership;
    inet_pton(AF_INET, argv[1], &membership.imr_multiaddr);
    inet_pton(AF_INET, argv[3], &membership.imr_interface);
    if (setsockopt(group, IPPROTO_IP, IP_ADD_MEMBERSHIP, &membership, sizeof membership) != 0)
        fail("IP_ADD_MEMBERSHIP");

    struct sigaction action;
    memset(&action, 0, sizeof action);
    action.sa_handler = onSignal;
    sigaction(SIGINT, &action, nullptr);
    sigaction(SIGTERM, &action, nullptr);
    printf("ready\n");
    fflush(stdout);

    std::vector<pollfd> watched;
    for (const Bus& bus : buses)
        watched.push_back({bus.fd, POLLIN, 0});
    watched.push_back({group, POLLIN, 0});

    static char buffer[1 << 16];
    union {
        cmsghdr align;
        char bytes[256];
    } control;
    iovec vector = {buffer, sizeof buffer};
    msghdr message;
    uint64_t datagrams = 0;
    uint64_t documentFrames = 0;
    uint64_t unmatched = 0;
    uint64_t duplicates = 0;
    uint32_t overflows = 0;
    std::vector<int64_t> latencies;
    // Frames of documents that came before this program had read their bus frame.
    std::vector<std::pair<uint32_t, int64_t>> early;

    auto match = [&](uint32_t key, int64_t stamp) {
        const size_t index = key >> 24;
        const uint32_t sequence = key & 0xFFFFFF;
        if (index >= buses.size()) {
            ++unmatched;
            return true;
        }
        std::vector<int64_t>& stamps = buses[index].stamps;
        if (sequence >= stamps.size() || stamps[sequence] < 0)
            return false;
        if (stamps[sequence] == INT64_MIN) {
            ++duplicates;
            return true;
        }
        latencies.push_back(stamp - stamps[sequence]);
        stamps[sequence] = INT64_MIN; // matched once
        return true;
    };

    while (!stopped) {
        // Reads in turns of 2 ms rather than waking for every datagram: the stamps are the
        // kernel's, and a probe woken 40 000 times a second would take the CPU from the daemon
        // it measures (the queues hold far more than 2 ms).
        const timespec turn = {0, 2000000};
        nanosleep(&turn, nullptr);
        if (poll(watched.data(), watched.size(), 100) <= 0)
            continue;
        for (size_t w = 0; w < watched.size(); ++w) {
            if (!(watched[w].revents & POLLIN))
                continue;
            for (;;) {
                memset(&message, 0, sizeof message);
                message.msg_iov = &vector;
                message.msg_iovlen = 1;
                message.msg_control = control.bytes;
                message.msg_controllen = sizeof control.bytes;
                const ssize_t n = recvmsg(watched[w].fd, &message, MSG_DONTWAIT);
                if (n < 0)
                    break;
                const int64_t stamp = stampOf(message);
                if (w < buses.size()) {
                    Bus& bus = buses[w];
                    const unsigned char* data = reinterpret_cast<unsigned char*>(buffer) + 8;
                    if (n < 16 || buffer[4] != 8 || data[4] != w) {
                        ++bus.foreign;
                        continue;
                    }
                    ++bus.frames;
                    bus.arrivals.push_back(stamp);
                    if (bus.first < 0)
                        bus.first = stamp;
                    bus.last = stamp;
                    const uint32_t sequence = uint32_t(data[5]) << 16 | data[6] << 8 | data[7];
                    if (sequence >= bus.stamps.size())
                        bus.stamps.resize(std::max<size_t>(sequence + 1, bus.stamps.size() * 2),
                                          -1);
                    bus.stamps[sequence] = stamp;
                    continue;
                }
                ++datagrams;
                overflowOf(message, overflows);
                const std::string text(buffer, static_cast<size_t>(n));
                for (size_t at = text.find("<Data>"); at != std::string::npos;
                     at = text.find("<Data>", at + 6)) {
                    ++documentFrames;
                    uint32_t key = 0;
                    bool valid = at + 6 + 16 <= text.size();
                    for (size_t i = at + 6 + 8; valid && i < at + 6 + 16; ++i) {
                        const int digit = hex(text[i]);
                        valid = digit >= 0;
                        key = key << 4 | static_cast<uint32_t>(digit);
                    }
                    if (!valid)
                        ++unmatched;
                    else if (!match(key, stamp))
                        early.emplace_back(key, stamp);
                }
            }
        }
    }
    for (const auto& [key, stamp] : early) {
        if (!match(key, stamp))
            ++unmatched;
    }

    uint64_t busFrames = 0;
    uint64_t lost = 0;
    for (size_t i = 0; i < buses.size(); ++i) {
        const Bus& bus = buses[i];
        busFrames += bus.frames;
        // Where the undelivered frames were: runs of them, by time since the first frame.
        std::string runs;
        size_t shown = 0;
        for (size_t s = 0; s < bus.stamps.size(); ++s) {
            if (bus.stamps[s] < 0)
                continue;
            size_t end = s;
            while (end + 1 < bus.stamps.size() && bus.stamps[end + 1] >= 0)
                ++end;
            lost += end - s + 1;
            if (++shown <= 20) {
                char run[64];
                snprintf(run, sizeof run, "%s%.3fs:%zu", runs.empty() ? "" : ",",
                         static_cast<double>(bus.stamps[s] - bus.first) / 1e9, end - s + 1);
                runs += run;
            }
            s = end;
        }
        printf("bus%zu_lost_runs=%s\n", i, runs.empty() ? "-" : runs.c_str());
        const double seconds = static_cast<double>(bus.last - bus.first) / 1e9;
        // Most frames within any 2 ms: a bus at its rate never bunches them.
        size_t peak = 0;
        for (size_t from = 0, to = 0; to < bus.arrivals.size(); ++to) {
            while (bus.arrivals[to] - bus.arrivals[from] >= 2000000)
                ++from;
            peak = std::max(peak, to - from + 1);
        }
        printf("bus%zu_frames=%" PRIu64 "\nbus%zu_foreign=%" PRIu64 "\nbus%zu_seconds=%.3f\n"
               "bus%zu_peak_2ms=%zu\n",
               i, bus.frames, i, bus.foreign, i, seconds, i, peak);
        close(bus.fd);
        unlink(bus.path.c_str());
    }
    std::sort(latencies.begin(), latencies.end());
    printf("bus_frames=%" PRIu64 "\ndatagrams=%" PRIu64 "\ndocument_frames=%" PRIu64
           "\nmatched=%zu\nnot_delivered=%" PRIu64 "\nunmatched=%" PRIu64 "\nduplicates=%" PRIu64
           "\nlistener_overflows=%" PRIu32 "\n",
           busFrames, datagrams, documentFrames, latencies.size(), lost, unmatched, duplicates,
           overflows);
    const double points[] = {0.5, 0.9, 0.99, 0.999, 1.0};
    const char* names[] = {"p50", "p90", "p99", "p999", "max"};
    for (size_t i = 0; i < 5; ++i)
        printf("latency_%s_us=%.1f\n", names[i],
               static_cast<double>(percentile(latencies, points[i])) / 1000.0);
    return 0;
}
