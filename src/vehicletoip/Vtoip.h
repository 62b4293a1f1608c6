#ifndef TAVRO_VTOIP_H
#define TAVRO_VTOIP_H

#include "CanHandler.h"
#include "CanHook.h"
#include "MulticastSender.h"
#include "Service.h"
#include "VtoIPXMLGenerator.h"
#include "VtoIpDecoder.h"

#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

// The VEHICLEtoIP service: vehicle status signals from its own mapping files, on every
// configured CAN interface, kept in one VEHICLEtoIPDelivery document that is multicast once a
// second as soon as each element has had a value. The "number" of a mapping rule is the code
// of the element it feeds.
class Vtoip : public Service, public CanHook {
public:
    explicit Vtoip(const Configuration& configuration);
    // Leaves every CAN interface (a reader shared with another service keeps running for it)
    // before the decoders go.
    ~Vtoip() override;

    // From the CAN reader threads, several at once.
    void handleFrame(DecodedFrame* frame) override;

    // What the sender thread does each second before sending: stamps the document and
    // returns it with the doors reported since the previous call; empty, and the doors kept,
    // while some element has never had a value.
    std::string takeDocument();

private:
    void sendLoop();
    std::string takeDocumentLocked();
    // False for a number the document has no place for.
    bool applyNumeric(uint16_t number, double value);
    bool applyStatus(uint16_t number, uint32_t value);

    const std::string multicastAddr;
    const std::string servicePort;
    const std::string networkInterface;
    MulticastSender sender;
    std::vector<CanHandler*> handlers;
    std::vector<std::unique_ptr<VtoIpDecoder>> decoders;
    // Guards the document and running; the sender thread sleeps on wake.
    std::mutex mutex;
    std::condition_variable wake;
    VtoIPXMLGenerator document;
    bool running = false;
    std::thread thread;
};

#endif
