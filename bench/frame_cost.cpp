// The decode-and-document path of one CAN frame, for counting instructions with callgrind
// (load_bench.py runs it): the reader's dispatch (decoders, copy into the queue) and the
// FMStoIP worker (single-frame document, datagram) of a real Fmstoip in immediate mode with
// every PGN of the log requested. The frames of a candump log are played in turn until N have
// gone through; the reader thread is stopped and the frames are dispatched directly, a batch
// below the queue bound at a time, each batch waiting for its datagrams, so no frame is dropped
// and no timer runs. With --unrequested no PGN is requested: the path of a frame that nobody
// asked for.
//
//     frame_cost [--unrequested] LOG N MAPPING...

#include "CanHandler.h"
#include "Fmstoip.h"
#include "Logger.h"
#include "LoopbackReceiver.h"
#include "NetHelpers.h"

#include <arpa/inet.h>
#include <poll.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <fstream>
#include <memory>
#include <set>
#include <string>
#include <vector>

namespace {

std::vector<can_frame> readLog(const char* path) {
    std::vector<can_frame> frames;
    std::ifstream in(path);
    std::string line;
    while (std::getline(in, line)) {
        char stamp[32], interface[32], text[64];
        if (sscanf(line.c_str(), "%31s %31s %63s", stamp, interface, text) != 3)
            continue;
        const char* hash = strchr(text, '#');
        if (hash == nullptr)
            continue;
        can_frame frame;
        memset(&frame, 0, sizeof frame);
        frame.can_id = static_cast<canid_t>(strtoul(text, nullptr, 16));
        if (hash - text == 8)
            frame.can_id |= CAN_EFF_FLAG;
        for (const char* p = hash + 1; p[0] != 0 && p[1] != 0 && frame.can_dlc < 8; p += 2) {
            const char pair[3] = {p[0], p[1], 0};
            frame.data[frame.can_dlc++] = static_cast<uint8_t>(strtoul(pair, nullptr, 16));
        }
        frames.push_back(frame);
    }
    return frames;
}

} // namespace

int main(int argc, char** argv) {
    const bool unrequested = argc > 1 && strcmp(argv[1], "--unrequested") == 0;
    if (unrequested) {
        --argc;
        ++argv;
    }
    if (argc < 4) {
        fprintf(stderr, "usage: frame_cost [--unrequested] LOG N MAPPING...\n");
        return 2;
    }
    const std::vector<can_frame> frames = readLog(argv[1]);
    const long count = atol(argv[2]);
    if (frames.empty() || count <= 0) {
        fprintf(stderr, "frame_cost: no frames in %s\n", argv[1]);
        return 2;
    }

    // No announcement and no log lines: neither is part of the path.
    verbosity = -1;
    setenv("DBUS_SYSTEM_BUS_ADDRESS", "unix:path=/nonexistent/tavro-frame-cost", 1);
    char name[] = "/tmp/tavro-frame-cost-XXXXXX";
    const std::string root = mkdtemp(name);
    mkdir((root + "/frames").c_str(), 0755);
    setenv("TAVRO_VCAN_DIR", root.c_str(), 1);

    uint16_t port = 0;
    const int receiver = loopbackReceiver(port);

    // "+PORT" is no plain decimal port, so nothing is announced; the sender still reads it.
    std::string conf = root + "/fmstoip.conf";
    std::ofstream file(conf);
    file << "multicast_addr=127.0.0.1\nservice_port=+" << port
         << "\nnetwork_interface=lo\nmulticast_ttl=0\npgn_counter_file=" << root
         << "/counts\ncan_interface=frames\nperiod_ms=0\nmapping_file=";
    for (int i = 3; i < argc; ++i)
        file << (i > 3 ? "," : "") << argv[i];
    file << "\n";
    file.close();

    int status = 0;
    {
        Fmstoip service{Configuration(conf)};
        CanHandler* handler = CanHandler::forInterface("frames");
        handler->stop();
        std::set<std::string> requested;
        for (const can_frame& frame : frames) {
            const uint16_t pgn = static_cast<uint16_t>((frame.can_id & CAN_EFF_MASK) >> 8);
            const uint8_t bytes[2] = {static_cast<uint8_t>(pgn >> 8), static_cast<uint8_t>(pgn)};
            if (!unrequested && requested.insert(toHex(bytes, 2)).second)
                service.addPgn(toHex(bytes, 2));
        }

        static char buffer[65536];
        uint64_t stamp = 1700000000000ULL;
        for (long done = 0; done < count && status == 0;) {
            const long batch = std::min(50L, count - done);
            for (long i = 0; i < batch; ++i)
                handler->dispatch(frames[static_cast<size_t>(done + i) % frames.size()], ++stamp);
            for (long i = 0; i < batch && !unrequested; ++i) {
                pollfd ready = {receiver, POLLIN, 0};
                if (poll(&ready, 1, 10000) != 1 || recv(receiver, buffer, sizeof buffer, 0) <= 0) {
                    fprintf(stderr, "frame_cost: datagrams missing after %ld frames\n", done);
                    status = 1;
                    break;
                }
            }
            done += batch;
        }
    }
    close(receiver);
    const std::string command = "rm -rf '" + root + "'";
    if (system(command.c_str()) != 0)
        fprintf(stderr, "frame_cost: could not remove %s\n", root.c_str());
    if (status == 0)
        printf("frames=%ld\n", count);
    return status;
}
