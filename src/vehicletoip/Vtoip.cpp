#include "Vtoip.h"

#include "DecodedFrame.h"
#include "Heartbeat.h"
#include "Logger.h"
#include "NetHelpers.h"
#include "SPNNumeric.h"
#include "SPNStatus.h"

#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdlib>
#include <limits>
#include <system_error>
#include <utility>
#include <vector>

namespace {

// The lookups in this order, so that missing keys are reported in it.
MulticastSender senderFor(const Configuration& configuration) {
    const std::string group = configuration.getString("multicast_addr");
    const std::string port = configuration.getString("service_port");
    const std::string interface = configuration.getString("network_interface");
    const int ttl = atoi(configuration.getString("multicast_ttl").c_str());
    return MulticastSender(group, port, interface, static_cast<uint8_t>(ttl));
}

// Truncated towards zero; out of range values are clamped and NaN is 0, where a plain
// conversion would be undefined.
int32_t truncatedInt32(double value) {
    if (std::isnan(value))
        return 0;
    if (value <= static_cast<double>(std::numeric_limits<int32_t>::min()))
        return std::numeric_limits<int32_t>::min();
    if (value >= static_cast<double>(std::numeric_limits<int32_t>::max()))
        return std::numeric_limits<int32_t>::max();
    return static_cast<int32_t>(value);
}

constexpr uint16_t firstDoorCode = 500;
constexpr uint16_t lastDoorCode = 540;

} // namespace

Vtoip::Vtoip(const Configuration& configuration)
    : Service(configuration), multicastAddr(configuration.getString("multicast_addr")),
      servicePort(configuration.getString("service_port")),
      networkInterface(configuration.getString("network_interface")),
      sender(senderFor(configuration)) {
    publisher.addTxt("multicast=" + multicastAddr);
    publisher.start();

    // Nothing is ever sent through this socket; it is opened only for its "ifaddr" line, the
    // same check of the interface as the sender's, and closed at once rather than kept idle.
    struct sockaddr_in destination;
    const int plainSocket =
        openMulticastSocket(multicastAddr, static_cast<uint16_t>(atoi(servicePort.c_str())),
                            networkInterface, destination);
    if (plainSocket >= 0)
        close(plainSocket);

    std::vector<std::string> mappingFiles;
    if (configuration.hasKey("mapping_file"))
        mappingFiles = configuration.getList("mapping_file");
    int failures = 0;
    for (const std::string& name : configuration.getList("can_interface")) {
        CanHandler* handler = CanHandler::forInterface(name);
        handlers.push_back(handler);
        // Each interface has decoders of its own: a decoder keeps the reassembly state of
        // one reader.
        for (const std::string& path : mappingFiles) {
            decoders.push_back(std::make_unique<VtoIpDecoder>(path));
            handler->addDecoder(this, decoders.back().get());
        }
        failures += handler->start();
    }
    if (failures != 0) {
        LOG(0) << "Somthing went wrong in the CanHandler initialisation. Vtoip will be disabled.";
        return;
    }

    std::lock_guard<std::mutex> lock(mutex);
    running = true;
    try {
        thread = std::thread(&Vtoip::sendLoop, this);
    } catch (const std::system_error&) {
        LOG(1) << "Error creating Vtoip thread";
        running = false;
    }
}

Vtoip::~Vtoip() {
    {
        std::lock_guard<std::mutex> lock(mutex);
        running = false;
    }
    wake.notify_all();
    if (thread.joinable()) {
        try {
            thread.join();
        } catch (const std::system_error&) {
            LOG(1) << "Error finishing Vtoip thread";
            thread.detach();
        }
    }
    // The handlers are shared with the FMStoIP service, which outlives this one: only this
    // service's hook leaves them, and a reader stops only when no other hook is left. After
    // release no reader calls this hook or uses its decoders any more.
    for (CanHandler* handler : handlers)
        handler->release(this);
    LOG(4) << "Vtoip thread finished.";
}

void Vtoip::handleFrame(DecodedFrame* frame) {
    // Numbers the document has no place for; logged once the document is released, so that a
    // slow log never holds up the sender thread or another CAN reader.
    std::vector<std::pair<uint16_t, uint32_t>> ignored;
    {
        std::lock_guard<std::mutex> lock(mutex);
        for (const SPN* spn : frame->spns()) {
            bool applied = true;
            if (spn->getType() == SPN::Numeric)
                applied =
                    applyNumeric(spn->getNumber(), static_cast<const SPNNumeric*>(spn)->getValue());
            else if (spn->getType() == SPN::Status)
                applied =
                    applyStatus(spn->getNumber(), static_cast<const SPNStatus*>(spn)->getValue());
            if (!applied)
                ignored.emplace_back(spn->getNumber(), spn->getType());
        }
    }
    for (const auto& spn : ignored) {
        if (spn.second == SPN::Numeric)
            LOG(2) << "SPN " << spn.first << " is not nummerical. Entry is ignored.";
        else
            LOG(2) << "SPN " << spn.first << " is not of type status. Entry is ignored.";
    }
}

bool Vtoip::applyNumeric(uint16_t number, double value) {
    switch (number) {
    case 0:
        document.setOdospeed(value);
        break;
    case 100:
        document.setOdodistance(value);
        break;
    case 200:
        document.setOdodistancetotal(value);
        break;
    case 1000:
        document.setVehicleCapacity(truncatedInt32(value));
        break;
    case 1300:
        document.setVehicleOrder(truncatedInt32(value));
        break;
    default:
        return false;
    }
    return true;
}

bool Vtoip::applyStatus(uint16_t number, uint32_t value) {
    if (number >= firstDoorCode && number <= lastDoorCode) {
        // -1 would read as "nothing reported": larger values stay an (erroneous) report.
        const uint32_t state = std::min<uint32_t>(value, std::numeric_limits<int32_t>::max());
        document.setDoor(number - firstDoorCode, static_cast<int32_t>(state));
        return true;
    }
    switch (number) {
    case 300:
        document.setOdofault(value != 0);
        break;
    case 400:
        document.setDoorsStatus(value);
        break;
    case 600:
        document.setActiveCabin(value);
        break;
    case 700:
        document.setPresenceHV(value != 0);
        break;
    case 800:
        document.setStopRequest(value != 0);
        break;
    case 900:
        document.setVehicleType(value);
        break;
    case 1200:
        document.setVehicleMode(value != 0);
        break;
    default:
        return false;
    }
    return true;
}

std::string Vtoip::takeDocument() {
    std::lock_guard<std::mutex> lock(mutex);
    return takeDocumentLocked();
}

std::string Vtoip::takeDocumentLocked() {
    document.setRecordedAtTime(now());
    document.setVehicleNumber("1234");
    if (!document.isComplete())
        return std::string();
    std::string text = document.toString();
    document.clearDoors();
    return text;
}

// A second's sleep after each turn, so datagrams are at least a second apart; a stop ends the
// sleep at once.
void Vtoip::sendLoop() {
    std::unique_lock<std::mutex> lock(mutex);
    while (running) {
        Heartbeat::beat();
        wake.wait_for(lock, std::chrono::seconds(1), [this] { return !running; });
        if (!running)
            break;
        const std::string text = takeDocumentLocked();
        if (text.empty())
            continue;
        lock.unlock();
        sender.send(text);
        lock.lock();
    }
}
