#ifndef TAVRO_FMSTOIP_H
#define TAVRO_FMSTOIP_H

#include "CanDecoder.h"
#include "CanHandler.h"
#include "CanHook.h"
#include "FmsXMLGenerator.h"
#include "FrameQueue.h"
#include "MulticastSender.h"
#include "PGNHook.h"
#include "Service.h"
#include "XMLHook.h"

#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

// The FMStoIP service: turns every CAN frame into an FMStoIP Frame, keeps the latest one per
// PGN and multicasts the frames of the PGNs that clients requested, each at once (period_ms 0)
// or collected once per period. Request counts survive restarts in the counter file.
class Fmstoip : public Service, public CanHook, public XMLHook, public PGNHook {
public:
    explicit Fmstoip(const Configuration& configuration);
    ~Fmstoip() override;

    // CAN reader threads: queues a copy.
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

private:
    void run();
    void process(const DecodedFrame& frame);
    void loadCounts();
    // With requestsMutex held.
    void writeCounts();

    FrameQueue queue;
    std::mutex documentsMutex;
    // The request counts and the writing of the counter file.
    std::mutex requestsMutex;
    bool immediate = true;
    std::thread worker;
    const std::string multicastAddress;
    const std::string servicePort;
    const std::string networkInterface;
    const std::string counterFile;
    MulticastSender sender;
    std::map<std::string, std::string> latestDocuments;
    std::map<std::string, uint16_t> requestCounts;
    std::vector<CanHandler*> handlers;
    std::vector<std::unique_ptr<CanDecoder>> decoders;
    // Last, so it goes first: its document thread calls deliver, which uses the members above.
    FmsXMLGenerator generator;
};

// Replaces the content of path so that a reader, also after a crash or power cut, finds either
// the old or the new content in full (AtomicFile). False when that fails.
bool replaceFile(const std::string& path, const std::string& content);

#endif
