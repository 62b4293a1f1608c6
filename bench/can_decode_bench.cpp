// Decode cost per CAN frame: what a reader spends per frame and hook (accepts, decode and
// destroying the decoded frame).
#include "BasicCanDecoder.h"
#include "CanHandler.h"
#include "DecodedFrame.h"
#include "JsonCanDecoder.h"
#include "Logger.h"

#include <linux/can.h>

#include <benchmark/benchmark.h>

#include <cstring>
#include <fstream>
#include <initializer_list>
#include <memory>
#include <string>
#include <vector>

namespace {

can_frame frameOf(uint32_t id, std::initializer_list<uint8_t> bytes) {
    can_frame frame;
    memset(&frame, 0xFF, sizeof frame);
    frame.can_id = id | CAN_EFF_FLAG;
    frame.can_dlc = 8;
    size_t i = 0;
    for (uint8_t b : bytes)
        frame.data[i++] = b;
    return frame;
}

const std::string sharedMapping = TAVRO_SHARED_DATA "/j1939-framework/frames.json";
const std::string ownMapping = TAVRO_TEST_DATA "/fms_mapping.json";

void perFrameCounters(benchmark::State& state, int64_t framesPerIteration) {
    const double frames = static_cast<double>(state.iterations() * framesPerIteration);
    state.SetItemsProcessed(static_cast<int64_t>(frames));
    state.counters["ns_per_frame"] =
        benchmark::Counter(frames, benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
}

void decodeOne(benchmark::State& state, const can_frame frame) {
    JsonCanDecoder decoder(sharedMapping);
    for (auto _ : state) {
        const bool shared = decoder.acceptsShared(frame);
        const bool taken = decoder.accepts(frame);
        if (shared || taken) {
            DecodedFrame* decoded = decoder.decode(frame);
            benchmark::DoNotOptimize(decoded);
            delete decoded;
        }
    }
    perFrameCounters(state, 1);
}

// TP.CM and three TP.DT: a 21-byte vehicle identification.
void bamOfThree(benchmark::State& state) {
    JsonCanDecoder decoder(ownMapping);
    const can_frame packets[] = {
        frameOf(0x1CECFF00, {0x20, 21, 0, 3, 0xFF, 0xEC, 0xFE, 0}),
        frameOf(0x1CEBFF00, {1, 'W', 'D', 'B', '9', '6', '3', '4'}),
        frameOf(0x1CEBFF00, {2, '0', '3', '1', 'L', '1', '2', '3'}),
        frameOf(0x1CEBFF00, {3, '4', '5', '6', '*'}),
    };
    for (auto _ : state) {
        for (const can_frame& packet : packets) {
            if (decoder.acceptsShared(packet) || decoder.accepts(packet)) {
                DecodedFrame* decoded = decoder.decode(packet);
                benchmark::DoNotOptimize(decoded);
                delete decoded;
            }
        }
    }
    perFrameCounters(state, 4);
}

// The reader's whole dispatch for one hook with a mapping decoder and the catch-all.
void dispatchMix(benchmark::State& state) {
    class NullHook : public CanHook {
    public:
        void handleFrame(DecodedFrame* frame) override { benchmark::DoNotOptimize(frame); }
    } hook;
    JsonCanDecoder decoder(sharedMapping);
    BasicCanDecoder rest;
    CanHandler handler("bench0");
    handler.addDecoder(&hook, &decoder);
    handler.addDecoder(&hook, &rest);
    const can_frame frames[] = {
        frameOf(0x18FEF100, {0x04, 0x00, 0x32, 0x10, 0xFF, 0xFF, 0x1F}),
        frameOf(0x0CF00400, {0xF0, 0x7D, 0x91, 0x40, 0x1F}),
        frameOf(0x18FEEE00, {0x78, 0xFF, 0x00, 0x2E}),
        frameOf(0x18FECA00, {0x00}), // not in the file: raw
    };
    for (auto _ : state)
        for (const can_frame& frame : frames)
            handler.dispatch(frame, 1);
    perFrameCounters(state, 4);
}

} // namespace

int main(int argc, char** argv) {
    verbosity = 0;
    benchmark::Initialize(&argc, argv);
    if (std::ifstream(sharedMapping).good()) {
        struct Named {
            const char* name;
            can_frame frame;
        };
        const Named singles[] = {
            {"single/CCVS_5_spns", frameOf(0x18FEF100, {0x04, 0x00, 0x32, 0x10, 0xFF, 0xFF, 0x1F})},
            {"single/EEC1_2_spns", frameOf(0x0CF00400, {0xF0, 0x7D, 0x91, 0x40, 0x1F})},
            {"single/TRF1_10_spns", frameOf(0x18FEF803, {0x0A, 0x7D, 0x19, 0x0B, 0x00, 0x2E})},
            {"single/VI_string", frameOf(0x18FEEC00, {'A', 'B', 'C', '*'})},
            {"single/unlisted", frameOf(0x18FECA00, {0x00})},
        };
        for (const Named& single : singles)
            benchmark::RegisterBenchmark(single.name, decodeOne, single.frame);
        benchmark::RegisterBenchmark("dispatch/mapping_and_catch_all", dispatchMix);
    } else {
        fprintf(stderr, "no %s: single-frame benchmarks skipped\n", sharedMapping.c_str());
    }
    benchmark::RegisterBenchmark("bam/3_packets", bamOfThree);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
