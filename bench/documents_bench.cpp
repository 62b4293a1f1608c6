#include "FmsXMLGenerator.h"
#include "GnssXMLGenerator.h"
#include "InventoryXMLGenerator.h"
#include "Logger.h"
#include "MulticastSender.h"
#include "VtoIPXMLGenerator.h"

#include <benchmark/benchmark.h>

namespace {
class DiscardingHook : public XMLHook {
public:
    void deliver(std::stringstream& document) override {
        bytes += document.str().size();
        benchmark::DoNotOptimize(bytes);
    }
    size_t bytes = 0;
};

// One EEC1-like frame with five decoded values, as the FMStoIP worker builds it.
void fillFrame(FmsXMLGenerator& g) {
    g.setFramePgn("F004");
    g.setFrameStatus("OK");
    g.setFrameData("F07D7D0000F07D7D");
    g.setRelativeTime(1709280000123ULL);
    static const char* const names[] = {"Engine torque mode", "Driver demand torque",
                                        "Actual engine torque", "Engine speed", "Source address"};
    static const char* const units[] = {"", "%", "%", "rpm", ""};
    for (int i = 0; i < 5; ++i) {
        g.setSpnId(899 + i);
        g.setSpnName(names[i]);
        g.setSpnUnit(units[i]);
        g.setSpnValue(1234.5678 * i);
        g.commitSpn();
    }
}
} // namespace

static void BM_FmsFrameDocument(benchmark::State& state) {
    FmsXMLGenerator g;
    for (auto _ : state) {
        fillFrame(g);
        std::string text = g.frameDocument();
        benchmark::DoNotOptimize(text);
        g.clearSpns();
    }
}
BENCHMARK(BM_FmsFrameDocument);

// Collecting state.range(0) frames and delivering them as one periodic document.
static void BM_FmsPeriodicDocument(benchmark::State& state) {
    FmsXMLGenerator g;
    DiscardingHook hook;
    g.setHook(&hook);
    for (auto _ : state) {
        for (int64_t i = 0; i < state.range(0); ++i) {
            fillFrame(g);
            g.commitFrame();
        }
        g.deliverCollected();
    }
    state.counters["bytes"] = benchmark::Counter(static_cast<double>(hook.bytes) /
                                                 static_cast<double>(state.iterations()));
}
BENCHMARK(BM_FmsPeriodicDocument)->Arg(1)->Arg(10)->Arg(40);

static void BM_GnssDocument(benchmark::State& state) {
    GnssXMLGenerator g;
    DiscardingHook hook;
    g.setHook(&hook);
    for (auto _ : state) {
        g.appendNmea("$GPGGA,092750.000,5321.6802,N,00630.3372,W,1,8,1.03,61.7,M,55.2,M,,*76\r\n");
        g.setDateTime(1, 3, 2024, 9, 5, 8);
        g.setLatitude(33.8568, "S");
        g.setLongitude(151.2153, "E");
        g.setAltitude(58.126);
        g.setSpeed(0.5);
        g.setTrack(271.3);
        g.deliverDocument();
    }
}
BENCHMARK(BM_GnssDocument);

static void BM_VtoipDocument(benchmark::State& state) {
    VtoIPXMLGenerator g;
    DateTime t;
    t.year = 2024;
    t.month = 3;
    t.day = 1;
    for (auto _ : state) {
        g.setRecordedAtTime(t);
        g.setOdospeed(12.346);
        g.setOdodistancetotal(123456.9);
        g.setOdodistance(42);
        g.setOdofault(false);
        g.setDoorsStatus(2);
        g.setActiveCabin(1);
        g.setPresenceHV(true);
        g.setStopRequest(false);
        g.setVehicleType(0);
        g.setVehicleCapacity(90);
        g.setVehicleNumber("4711");
        g.setVehicleMode(true);
        g.setVehicleOrder(1);
        for (uint32_t door = 0; door < 4; ++door)
            g.setDoor(door, 0);
        std::string text = g.toString();
        benchmark::DoNotOptimize(text);
        g.clearDoors();
    }
}
BENCHMARK(BM_VtoipDocument);

static void BM_InventoryDocument(benchmark::State& state) {
    InventoryXMLGenerator g;
    g.setModuleType("Gateway");
    g.setManufacturer("Smith & Sons");
    int status = 0;
    for (auto _ : state) {
        g.setStatus(++status & 1);
        std::string text = g.toString();
        benchmark::DoNotOptimize(text);
    }
}
BENCHMARK(BM_InventoryDocument);

// A 1 KB document through the sender: loopback with TTL 0, so nothing leaves the host.
static void BM_MulticastSend(benchmark::State& state) {
    verbosity = 0;
    MulticastSender sender("239.255.42.1", "45872", "lo", 0);
    const std::string document(1024, 'x');
    for (auto _ : state)
        sender.send(document, "bench");
}
BENCHMARK(BM_MulticastSend);

BENCHMARK_MAIN();
