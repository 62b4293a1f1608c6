#include "Fmstoip.h"

#include "AtomicFile.h"
#include "BasicCanDecoder.h"
#include "JsonCanDecoder.h"
#include "Logger.h"
#include "NetHelpers.h"
#include "SPNNumeric.h"
#include "SPNStatus.h"
#include "SPNString.h"
#include "XmlText.h"

#include <fcntl.h>
#include <pthread.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <exception>
#include <system_error>

namespace {
// FMS-standard interface identity: bytes 1 to 4 carry the FMS version as text.
constexpr uint16_t fmsVersionPgn = 0xFDD1;
constexpr uint16_t maxRequests = 100;

// A key the counter file gives back as it was written. Anything else (blanks, line breaks, the
// separators) would be read back as another key, or as several.
bool storableKey(const std::string& key) {
    if (key.empty())
        return false;
    for (char c : key) {
        const unsigned char u = static_cast<unsigned char>(c);
        if (u <= 0x20 || u >= 0x7F || c == '=' || c == '#' || c == ',')
            return false;
    }
    return true;
}
} // namespace

bool replaceFile(const std::string& path, const std::string& content) {
    return AtomicFile::replace(path, content);
}

Fmstoip::Fmstoip(const Configuration& configuration)
    : Service(configuration), multicastAddress(configuration.getString("multicast_addr")),
      servicePort(configuration.getString("service_port")),
      networkInterface(configuration.getString("network_interface")),
      counterFile(configuration.getString("pgn_counter_file")),
      sender(multicastAddress, servicePort, networkInterface,
             static_cast<uint8_t>(atoi(configuration.getString("multicast_ttl").c_str()))) {
    publisher.addTxt("multicast=" + multicastAddress);
    publisher.start();

    std::vector<std::string> mappings;
    if (configuration.hasKey("mapping_file"))
        mappings = configuration.getList("mapping_file");
    int failures = 0;
    for (const std::string& name : configuration.getList("can_interface")) {
        CanHandler* handler = CanHandler::forInterface(name);
        if (std::find(handlers.begin(), handlers.end(), handler) == handlers.end())
            handlers.push_back(handler);
        // Decoders keep transport state: each interface gets its own.
        for (const std::string& path : mappings) {
            decoders.emplace_back(new JsonCanDecoder(path));
            handler->addDecoder(this, decoders.back().get());
        }
        decoders.emplace_back(new BasicCanDecoder);
        handler->addDecoder(this, decoders.back().get());
        failures += handler->start();
    }

    const std::string periodText = configuration.getString("period_ms");
    int period = atoi(periodText.c_str());
    if (period < 0) {
        // As an unsigned period it would be weeks long: nothing would ever be sent.
        LOG(1) << "Negative period_ms " << periodText << ": immediate mode.";
        period = 0;
    }
    generator.setHook(this);
    immediate = period == 0;
    if (!immediate)
        generator.start(static_cast<uint32_t>(period));

    loadCounts();

    if (failures != 0) {
        LOG(0) << "Somthing went wrong in the CanHandler initialisation. FMStoIP will be disabled.";
        return;
    }
    try {
        worker = std::thread(&Fmstoip::run, this);
    } catch (const std::system_error&) {
        LOG(1) << "Error creating fmstoip thread";
    }
}

Fmstoip::~Fmstoip() {
    // First of all, so that no reader calls into a service being torn down; the handlers
    // themselves go on for the other services that read them.
    for (CanHandler* handler : handlers)
        handler->release(this);
    queue.close();
    if (worker.joinable()) {
        try {
            worker.join();
        } catch (const std::system_error&) {
            LOG(1) << "Error finishing fmstoip thread";
        }
    }
    {
        std::lock_guard<std::mutex> lock(requestsMutex);
        writeCounts();
    }
    LOG(4) << "fmstoip thread finished.";
}

void Fmstoip::handleFrame(DecodedFrame* frame) {
    queue.push(*frame);
}

void Fmstoip::run() {
    pthread_setname_np(pthread_self(), "fmstoip");
    while (std::unique_ptr<DecodedFrame> frame = queue.pop()) {
        try {
            process(*frame);
        } catch (const std::exception& error) {
            // Out of memory: this frame is lost, the worker goes on with the next.
            generator.clearSpns();
            LOG(0) << "FMStoIP: frame dropped: " << error.what();
        }
    }
}

void Fmstoip::process(const DecodedFrame& frame) {
    const uint16_t pgn = frame.getPgn();
    const uint8_t pgnBytes[2] = {static_cast<uint8_t>(pgn >> 8), static_cast<uint8_t>(pgn)};
    const std::string pgnText = toHex(pgnBytes, 2);
    uint16_t requests;
    {
        std::lock_guard<std::mutex> lock(requestsMutex);
        requests = requestCounts[pgnText];
    }

    const uint8_t* data = frame.getData();
    if (pgn == fmsVersionPgn) {
        std::string version;
        for (uint32_t i = 1; i <= 4 && i < frame.getDataLength() && data[i] != 0; ++i)
            version += static_cast<char>(data[i]);
        generator.setFmsVersion(XmlText::clean(version));
    }
    generator.setFramePgn(pgnText);
    generator.setFrameStatus("OK");
    generator.setFrameData(toHex(data, static_cast<int32_t>(frame.getDataLength())));
    generator.setRelativeTime(frame.getTimestamp());
    for (const SPN* spn : frame.spns()) {
        generator.setSpnId(spn->getNumber());
        generator.setSpnName(spn->getName());
        switch (spn->getType()) {
        case SPN::Numeric: {
            const SPNNumeric* numeric = static_cast<const SPNNumeric*>(spn);
            generator.setSpnUnit(numeric->getUnit());
            generator.setSpnValue(numeric->getValue());
            break;
        }
        case SPN::Status:
            generator.setSpnValue(static_cast<const SPNStatus*>(spn)->getDescription());
            break;
        case SPN::String:
            generator.setSpnValue(static_cast<const SPNString*>(spn)->getValue());
            break;
        }
        generator.commitSpn();
    }

    const std::string document = generator.frameDocument();
    {
        std::lock_guard<std::mutex> lock(documentsMutex);
        latestDocuments[pgnText] = document;
    }
    if (requests != 0) {
        if (immediate)
            sender.send(document, pgnText);
        else
            generator.commitFrame();
    }
    generator.clearSpns();
}

void Fmstoip::deliver(std::stringstream& document) {
    bool requested;
    {
        std::lock_guard<std::mutex> lock(requestsMutex);
        requested = std::any_of(requestCounts.begin(), requestCounts.end(),
                                [](const auto& entry) { return entry.second != 0; });
    }
    if (requested)
        sender.send(document.str(), "fms-mixed");
}

void Fmstoip::addPgn(const std::string& pgn) {
    LOG(3) << "adding PGN: " << pgn;
    std::lock_guard<std::mutex> lock(requestsMutex);
    auto entry = requestCounts.find(pgn);
    if (entry == requestCounts.end() || entry->second == 0) {
        if (pgn.size() > maxRequestLength) {
            LOG(1) << "Request for a PGN text of " << pgn.size() << " bytes not counted (at most "
                   << maxRequestLength << ").";
            return;
        }
        const auto requested =
            std::count_if(requestCounts.begin(), requestCounts.end(),
                          [](const auto& counted) { return counted.second != 0; });
        if (static_cast<size_t>(requested) >= maxRequestedPgns) {
            LOG(1) << "Request for PGN \"" << pgn << "\" not counted: " << maxRequestedPgns
                   << " PGNs are requested already.";
            return;
        }
        requestCounts[pgn] = 1;
    } else if (entry->second < maxRequests) {
        ++entry->second;
    }
    writeCounts();
}

void Fmstoip::removePgn(const std::string& pgn) {
    LOG(3) << "removing PGN: " << pgn;
    std::lock_guard<std::mutex> lock(requestsMutex);
    auto entry = requestCounts.find(pgn);
    // An entry at 0 is as good as none: dropping it keeps texts that clients added and
    // removed again from piling up (the worker makes its PGN's entry anew).
    if (entry != requestCounts.end() && entry->second > 0 && --entry->second == 0)
        requestCounts.erase(entry);
    writeCounts();
}

std::string Fmstoip::getPgnDocument(const std::string& pgn) {
    LOG(3) << "getting PGN: " << pgn;
    std::lock_guard<std::mutex> lock(documentsMutex);
    auto entry = latestDocuments.find(pgn);
    return entry == latestDocuments.end() ? std::string() : entry->second;
}

void Fmstoip::loadCounts() {
    const Configuration file(counterFile);
    std::lock_guard<std::mutex> lock(requestsMutex);
    for (const std::string& key : file.keys()) {
        const std::string value = file.getString(key);
        uint16_t count = 0;
        // A count has the form and range of a port number.
        if (!parsePort(value, count)) {
            LOG(1) << "Invalid request count \"" << value << "\" of PGN " << key << " in "
                   << counterFile << ": taken as 0.";
            count = 0;
        }
        requestCounts[key] = count;
    }
}

void Fmstoip::writeCounts() {
    std::string content;
    for (const auto& entry : requestCounts) {
        if (entry.second != 0 && storableKey(entry.first))
            content += entry.first + "=" + std::to_string(entry.second) + "\n";
    }
    if (!replaceFile(counterFile, content)) {
        LOG(1) << "Cannot write to file: " << counterFile;
    }
}
