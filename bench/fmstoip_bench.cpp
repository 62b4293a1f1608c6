// The FMStoIP service as a whole: CAN frames decoded, turned into documents and sent, and the
// time from the virtual CAN bus to the received datagram. The service sends to 127.0.0.1 (the
// host namespace gets no multicast) and reads the shared J1939 mapping file when it is there.
#include "CanHandler.h"
#include "Fmstoip.h"
#include "Logger.h"
#include "LoopbackReceiver.h"
#include "NetHelpers.h"

#include <arpa/inet.h>
#include <dirent.h>
#include <poll.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <fstream>
#include <string>
#include <vector>

namespace {

struct BusFrame {
    canid_t id;
    uint8_t data[8];
};

// One 100 ms slice of a city bus: engine and retarder messages at 10-20 ms, vehicle speed,
// transmission and tachograph at 50-100 ms, a few slow ones.
const BusFrame fmsMix[] = {
    {0x0CF00400, {0xF0, 0x7D, 0x82, 0x40, 0x1F, 0xFF, 0xF0, 0x7D}}, // EEC1
    {0x0CF00300, {0xD1, 0x00, 0x14, 0xFF, 0xFF, 0x0F, 0x72, 0x7D}}, // EEC2
    {0x0CF00400, {0xF0, 0x7D, 0x83, 0x48, 0x1F, 0xFF, 0xF0, 0x7D}},
    {0x18F00010, {0xF0, 0x7D, 0x7D, 0xFF, 0xFF, 0x00, 0xFF, 0xFF}}, // ERC1
    {0x0CF00400, {0xF0, 0x7D, 0x84, 0x50, 0x1F, 0xFF, 0xF0, 0x7D}},
    {0x18FEF100, {0x04, 0x80, 0x14, 0x10, 0x00, 0x00, 0x00, 0xC0}}, // CCVS
    {0x0CF00300, {0xD1, 0x00, 0x16, 0xFF, 0xFF, 0x0F, 0x72, 0x7D}},
    {0x18F00503, {0x7E, 0x00, 0x00, 0x7E, 0x00, 0x00, 0xFF, 0xFF}}, // ETC2
    {0x0CF00400, {0xF0, 0x7D, 0x85, 0x58, 0x1F, 0xFF, 0xF0, 0x7D}},
    {0x0CFE6CEE, {0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x80, 0x14}}, // TCO1
    {0x0CF00300, {0xD1, 0x00, 0x18, 0xFF, 0xFF, 0x0F, 0x72, 0x7D}},
    {0x18FEF200, {0x20, 0x00, 0x40, 0x01, 0x00, 0x00, 0x00, 0xFF}}, // LFE
    {0x0CF00400, {0xF0, 0x7D, 0x86, 0x60, 0x1F, 0xFF, 0xF0, 0x7D}},
    {0x18FEEE00, {0x5A, 0x50, 0x00, 0x00, 0xFF, 0xFF, 0xFF, 0xFF}}, // ET1
    {0x18FEFC17, {0xFF, 0x96, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF}}, // DD
    {0x18FEF500, {0xFF, 0xFF, 0xFF, 0x40, 0x25, 0xFF, 0xFF, 0xFF}}, // AMB
    {0x18FEE900, {0x00, 0x00, 0x00, 0x00, 0x10, 0x27, 0x00, 0x00}}, // LFC
    {0x18FEC1EE, {0x40, 0x42, 0x0F, 0x00, 0x40, 0x42, 0x0F, 0x00}}, // VDHR
    {0x18FEF100, {0x04, 0x90, 0x14, 0x10, 0x00, 0x00, 0x00, 0xC0}},
    {0x18FEE500, {0x10, 0x27, 0x00, 0x00, 0xFF, 0xFF, 0xFF, 0xFF}}, // HOURS
};
constexpr size_t mixSize = sizeof fmsMix / sizeof fmsMix[0];

can_frame canFrame(const BusFrame& f) {
    can_frame frame;
    memset(&frame, 0, sizeof frame);
    frame.can_id = f.id | CAN_EFF_FLAG;
    frame.can_dlc = 8;
    memcpy(frame.data, f.data, 8);
    return frame;
}

std::string mappingFile() {
    const std::string shared = std::string(TAVRO_SHARED_DATA) + "/j1939-framework/frames.json";
    return access(shared.c_str(), R_OK) == 0 ? shared
                                             : std::string(TAVRO_TEST_DATA) + "/fms_mapping.json";
}

// A running service on a virtual bus interface of its own, every PGN of the mix requested, and
// the socket its documents arrive at.
class Pipeline {
public:
    explicit Pipeline(uint32_t periodMs) {
        // Below 0: not even the error line about the withheld announcement.
        verbosity = -1;
        setenv("DBUS_SYSTEM_BUS_ADDRESS", "unix:path=/nonexistent/tavro-bench-bus", 1);
        char name[] = "/tmp/tavro-bench-XXXXXX";
        root = mkdtemp(name);
        bus = root + "/vcan-bench";
        mkdir(bus.c_str(), 0755);
        setenv("TAVRO_VCAN_DIR", root.c_str(), 1);

        uint16_t port = 0;
        receiver = loopbackReceiver(port);

        // "+PORT": no announcement (no plain decimal port), the sender still reads the port.
        const std::string conf = root + "/fmstoip.conf";
        std::ofstream(conf) << "multicast_addr=127.0.0.1\nservice_port=+" << port
                            << "\nnetwork_interface=lo\nmulticast_ttl=0\npgn_counter_file=" << root
                            << "/counts\ncan_interface=vcan-bench\nmapping_file=" << mappingFile()
                            << "\nperiod_ms=" << periodMs << "\n";
        service.reset(new Fmstoip(Configuration(conf)));
        for (const BusFrame& f : fmsMix) {
            const uint16_t pgn = static_cast<uint16_t>(f.id >> 8);
            const uint8_t bytes[2] = {static_cast<uint8_t>(pgn >> 8), static_cast<uint8_t>(pgn)};
            service->addPgn(toHex(bytes, 2));
        }
        handler = CanHandler::forInterface("vcan-bench");
    }
    ~Pipeline() {
        service.reset();
        close(receiver);
        unsetenv("TAVRO_VCAN_DIR");
        const std::string command = "rm -rf '" + root + "'";
        if (system(command.c_str()) != 0)
            fprintf(stderr, "could not remove %s\n", root.c_str());
    }

    // Frames in the datagrams received until count of them came in.
    void receiveFrames(size_t count) {
        static char buffer[65536];
        while (count > 0) {
            pollfd ready = {receiver, POLLIN, 0};
            if (poll(&ready, 1, 5000) != 1) {
                fprintf(stderr, "datagrams missing\n");
                abort();
            }
            const ssize_t n = recv(receiver, buffer, sizeof buffer, 0);
            const std::string text(buffer, n > 0 ? static_cast<size_t>(n) : 0);
            for (size_t at = text.find("<Frame "); at != std::string::npos && count > 0;
                 at = text.find("<Frame ", at + 1))
                --count;
        }
    }

    // As the player does: the record to every reader socket of the bus interface.
    void sendToBus(const can_frame& frame) {
        if (readers.empty()) {
            DIR* d = opendir(bus.c_str());
            while (dirent* entry = readdir(d)) {
                if (strncmp(entry->d_name, "tavro-", 6) == 0)
                    readers.push_back(bus + "/" + entry->d_name);
            }
            closedir(d);
            busSocket = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        }
        for (const std::string& path : readers) {
            sockaddr_un address;
            memset(&address, 0, sizeof address);
            address.sun_family = AF_UNIX;
            memcpy(address.sun_path, path.c_str(), path.size());
            sendto(busSocket, &frame, sizeof frame, 0, reinterpret_cast<sockaddr*>(&address),
                   sizeof address);
        }
    }

    CanHandler* handler = nullptr;

private:
    std::string root;
    std::string bus;
    int receiver = -1;
    int busSocket = -1;
    std::vector<std::string> readers;
    std::unique_ptr<Fmstoip> service;
};

} // namespace

// Frames per second of CPU time of the whole process (reader, worker, document thread and the
// receiving side): decode, queue, documents, send. Batches stay below the queue bound.
static void BM_FmstoipThroughput(benchmark::State& state) {
    Pipeline pipeline(static_cast<uint32_t>(state.range(0)));
    std::vector<can_frame> frames;
    for (const BusFrame& f : fmsMix)
        frames.push_back(canFrame(f));
    uint64_t stamp = 1700000000000ULL;
    for (auto _ : state) {
        for (int round = 0; round < 4; ++round) {
            for (const can_frame& frame : frames)
                pipeline.handler->dispatch(frame, ++stamp);
        }
        pipeline.receiveFrames(4 * mixSize);
    }
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * 4 * mixSize));
}
BENCHMARK(BM_FmstoipThroughput)
    ->ArgName("period_ms")
    ->Arg(0)
    ->Arg(1)
    ->MeasureProcessCPUTime()
    ->Unit(benchmark::kMicrosecond);

// From the frame on the virtual bus to its document at the receiver, one frame at a time
// (immediate mode). With a gap of 2 ms the service is idle when each frame arrives; with none
// each frame comes while the worker gathers.
static void BM_FmstoipLatency(benchmark::State& state) {
    Pipeline pipeline(0);
    std::vector<double> latencies;
    size_t next = 0;
    for (auto _ : state) {
        state.PauseTiming();
        usleep(static_cast<useconds_t>(state.range(0)));
        state.ResumeTiming();
        const can_frame frame = canFrame(fmsMix[next++ % mixSize]);
        const auto sent = std::chrono::steady_clock::now();
        pipeline.sendToBus(frame);
        pipeline.receiveFrames(1);
        const std::chrono::duration<double> took = std::chrono::steady_clock::now() - sent;
        state.SetIterationTime(took.count());
        latencies.push_back(took.count() * 1e6);
    }
    std::sort(latencies.begin(), latencies.end());
    state.counters["median_us"] = latencies[latencies.size() / 2];
    state.counters["p99_us"] = latencies[latencies.size() * 99 / 100];
}
BENCHMARK(BM_FmstoipLatency)
    ->ArgName("gap_us")
    ->Arg(2000)
    ->Arg(0)
    ->UseManualTime()
    ->Unit(benchmark::kMicrosecond);

BENCHMARK_MAIN();
