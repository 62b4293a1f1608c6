#ifndef TAVRO_FMSTOIP_H
#define TAVRO_FMSTOIP_H

#include "CanDecoder.h"
#include "CanHandler.h"
#include "CanHook.h"
#include "FmsXMLGenerator.h"
#include "FrameQueue.h"
#include "MulticastSender.h"
#include "PGNHook.h"
#include "PgnMapping.h"
#include "Service.h"
#include "XMLHook.h"

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

// The FMStoIP service: turns every CAN frame into an FMStoIP Frame, keeps the latest one per
// PGN and multicasts the frames of the PGNs that clients requested, each at once (period_ms 0)
// or collected once per period. Request counts survive restarts in the counter file.
//
// Most frames are of PGNs nobody requested: the reader thread only notes what their latest
// document is built from (Latest) and queues nothing, and the document is built when a
// PGNGet asks for it. Only requested frames, and those carrying the FMS version, go through
// the queue to the worker. Whatever the bus sends, what is kept is bounded: one Latest per
// 16-bit PGN (about 3 MB for all of them) plus at most maxWholeFrames frames that 8 data bytes
// do not describe (transport messages), beyond which the one of a PGN not requested and
// least recently seen is forgotten.
class Fmstoip : public Service, public CanHook, public XMLHook, public PGNHook {
public:
    explicit Fmstoip(const Configuration& configuration);
    ~Fmstoip() override;

    // CAN reader threads: notes the frame as its PGN's latest; queues a copy for the worker
    // when the PGN is requested or carries the FMS version.
    void handleFrame(DecodedFrame* frame) override;
    // The document thread, with the generator's lock held: sends the periodic document.
    void deliver(std::stringstream& document) override;

    // A count stops at 100; every change is written to the counter file. Any text is
    // counted, so a new one is refused (with a warning) when it is longer than
    // maxRequestLength or when maxRequestedPgns texts have a count already.
    void addPgn(const std::string& pgn) override;
    void removePgn(const std::string& pgn) override;
    std::string getPgnDocument(const std::string& pgn) override;

    static constexpr size_t maxRequestLength = 64;
    static constexpr size_t maxRequestedPgns = 1024;
    static constexpr size_t maxWholeFrames = 4096;

private:
    // What the latest single-frame document of one PGN is built from.
    struct Latest {
        uint64_t timestamp = 0;
        // The SPNs, decoded again from data when the document is built.
        const PgnMapping::Group* rules = nullptr;
        // Instead of the fields above, a frame that 8 data bytes do not describe.
        std::shared_ptr<const DecodedFrame> whole;
        uint8_t data[8] = {};
        uint8_t length = 0;
        bool seen = false;
        uint8_t versionLength = 0;
        char version[12] = {}; // four characters, each cleaned to at most three bytes
    };
    static constexpr size_t pageSize = 256;

    void run();
    void process(const DecodedFrame& frame);
    // With documentsMutex held.
    void remember(const DecodedFrame& frame, std::shared_ptr<const DecodedFrame>& whole,
                  std::shared_ptr<const DecodedFrame>& released);
    Latest* latestOf(uint16_t pgn, bool create);
    void forgetOldestWhole();
    // With requestsMutex held.
    uint16_t countOf(const std::string& pgn) const;
    void setCount(const std::string& pgn, uint16_t count);
    // The counter file's content at one moment; generation orders the moments.
    struct CountsSnapshot {
        uint64_t generation = 0;
        std::string content;
    };
    void loadCounts();
    // Change the counts under requestsMutex; the snapshot after the change, or one of
    // generation 0 (nothing to write) when the request was refused.
    CountsSnapshot countPgn(const std::string& pgn);
    CountsSnapshot uncountPgn(const std::string& pgn);
    CountsSnapshot countsSnapshot();
    // With requestsMutex held.
    CountsSnapshot countsSnapshotLocked();
    // Without requestsMutex: the worker and deliver never wait for the disk.
    void writeCounts(const CountsSnapshot& snapshot);

    FrameQueue queue;
    // The latest frames; held by the readers only to note one.
    std::mutex documentsMutex;
    // The request counts.
    std::mutex requestsMutex;
    uint64_t countsGeneration = 0; // of the last snapshot taken, under requestsMutex
    // The writing of the counter file.
    std::mutex fileMutex;
    uint64_t writtenGeneration = 0; // under fileMutex
    bool immediate = true;
    std::thread worker;
    const std::string multicastAddress;
    const std::string servicePort;
    const std::string networkInterface;
    const std::string counterFile;
    MulticastSender sender;
    // Under documentsMutex: pages of pageSize PGNs, made when one of them is first seen.
    std::unique_ptr<Latest[]> latest[0x10000 / pageSize];
    std::vector<uint16_t> wholeFrames; // the PGNs whose Latest holds a whole frame
    std::string fmsVersion = "0000";   // as the readers saw it last
    // Request counts, changed under requestsMutex and read without it: those of PGN texts
    // by PGN, the other texts by text.
    std::unique_ptr<std::atomic<uint16_t>[]> pgnCounts;
    std::set<uint16_t> requestedPgns;
    std::map<std::string, uint16_t> otherCounts;
    std::atomic<size_t> requestedTexts{0}; // with a count above 0
    std::atomic<bool> countsLoaded{false}; // from the counter file, at start
    // Builds the documents that PGNGet asks for, under fetchMutex.
    std::mutex fetchMutex;
    FmsXMLGenerator fetcher;
    std::vector<CanHandler*> handlers;
    std::vector<std::unique_ptr<CanDecoder>> decoders;
    // Last, so it goes first: its document thread calls deliver, which uses the members above.
    FmsXMLGenerator generator;
};

// Replaces the content of path so that a reader, also after a crash or power cut, finds either
// the old or the new content in full (AtomicFile). False when that fails.
bool replaceFile(const std::string& path, const std::string& content);

#endif
