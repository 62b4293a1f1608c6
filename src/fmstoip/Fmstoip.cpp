#include "Fmstoip.h"

#include "AtomicFile.h"
#include "BasicCanDecoder.h"
#include "JsonCanDecoder.h"
#include "Logger.h"
#include "NetHelpers.h"
#include "RealtimePriority.h"
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
#include <cstring>
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

// The PGN of a text in the four-digit form ("FEF1").
bool pgnNumber(const std::string& text, uint16_t& pgn) {
    if (text.size() != 4)
        return false;
    uint16_t value = 0;
    for (char c : text) {
        if (c >= '0' && c <= '9')
            value = static_cast<uint16_t>(value * 16 + (c - '0'));
        else if (c >= 'A' && c <= 'F')
            value = static_cast<uint16_t>(value * 16 + (c - 'A' + 10));
        else
            return false;
    }
    pgn = value;
    return true;
}

std::string pgnTextOf(uint16_t pgn) {
    const uint8_t bytes[2] = {static_cast<uint8_t>(pgn >> 8), static_cast<uint8_t>(pgn)};
    return toHex(bytes, 2);
}

// Data bytes 1 to 4 of the FMS identity frame, up to a zero byte.
std::string versionOf(const DecodedFrame& frame) {
    const uint8_t* data = frame.getData();
    std::string version;
    for (uint32_t i = 1; i <= 4 && i < frame.getDataLength() && data[i] != 0; ++i)
        version += static_cast<char>(data[i]);
    return XmlText::clean(version);
}

// The frame template of generator filled with frame.
void fillFrame(FmsXMLGenerator& generator, const DecodedFrame& frame, const std::string& pgnText) {
    generator.setFramePgn(pgnText);
    generator.setFrameStatus("OK");
    generator.setFrameData(toHex(frame.getData(), static_cast<int32_t>(frame.getDataLength())));
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
             static_cast<uint8_t>(atoi(configuration.getString("multicast_ttl").c_str()))),
      pgnCounts(new std::atomic<uint16_t>[0x10000]()), fetcher(true) {
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
    countsLoaded = true;

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
    writeCounts(countsSnapshot());
    LOG(4) << "fmstoip thread finished.";
}

void Fmstoip::handleFrame(DecodedFrame* frame) {
    const uint16_t pgn = frame->getPgn();
    // Made outside the lock, and freed outside it.
    std::shared_ptr<const DecodedFrame> whole;
    std::shared_ptr<const DecodedFrame> released;
    if (frame->getDataLength() > 8 || (frame->getRules() == nullptr && !frame->withoutSpns())) {
        // Decoded before it is shared, so that no reader of the copy decodes.
        frame->spns();
        whole = std::make_shared<const DecodedFrame>(*frame);
    }
    {
        std::lock_guard<std::mutex> lock(documentsMutex);
        remember(*frame, whole, released);
    }
    // Until the counts are loaded the worker decides, as it reads them later.
    if (pgn == fmsVersionPgn || pgnCounts[pgn].load(std::memory_order_relaxed) != 0 ||
        !countsLoaded.load(std::memory_order_acquire))
        queue.push(*frame);
}

void Fmstoip::remember(const DecodedFrame& frame, std::shared_ptr<const DecodedFrame>& whole,
                       std::shared_ptr<const DecodedFrame>& released) {
    const uint16_t pgn = frame.getPgn();
    if (pgn == fmsVersionPgn)
        fmsVersion = versionOf(frame);
    Latest* slot = latestOf(pgn, true);
    if (whole && !slot->whole) {
        if (wholeFrames.size() >= maxWholeFrames)
            forgetOldestWhole();
        wholeFrames.push_back(pgn);
    } else if (!whole && slot->whole) {
        wholeFrames.erase(std::find(wholeFrames.begin(), wholeFrames.end(), pgn));
    }
    released = std::move(slot->whole);
    slot->whole = std::move(whole);
    if (!slot->whole) {
        slot->length = static_cast<uint8_t>(frame.getDataLength());
        memcpy(slot->data, frame.getData(), slot->length);
        slot->rules = frame.getRules();
    }
    slot->timestamp = frame.getTimestamp();
    slot->seen = true;
    slot->versionLength = static_cast<uint8_t>(fmsVersion.size());
    memcpy(slot->version, fmsVersion.data(), fmsVersion.size());
}

Fmstoip::Latest* Fmstoip::latestOf(uint16_t pgn, bool create) {
    std::unique_ptr<Latest[]>& page = latest[pgn / pageSize];
    if (!page) {
        if (!create)
            return nullptr;
        page.reset(new Latest[pageSize]);
    }
    return &page[pgn % pageSize];
}

void Fmstoip::forgetOldestWhole() {
    size_t oldest = wholeFrames.size();
    for (size_t i = 0; i < wholeFrames.size(); ++i) {
        const uint16_t pgn = wholeFrames[i];
        if (pgnCounts[pgn].load(std::memory_order_relaxed) != 0)
            continue;
        if (oldest == wholeFrames.size() ||
            latestOf(pgn, false)->timestamp < latestOf(wholeFrames[oldest], false)->timestamp)
            oldest = i;
    }
    if (oldest == wholeFrames.size())
        oldest = 0;
    Latest* slot = latestOf(wholeFrames[oldest], false);
    *slot = Latest();
    wholeFrames[oldest] = wholeFrames.back();
    wholeFrames.pop_back();
}

void Fmstoip::run() {
    pthread_setname_np(pthread_self(), "fmstoip");
    RealtimePriority::apply();
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
    if (pgn == fmsVersionPgn)
        generator.setFmsVersion(versionOf(frame));
    if (pgnCounts[pgn].load(std::memory_order_relaxed) == 0)
        return;
    const std::string pgnText = pgnTextOf(pgn);
    if (immediate) {
        std::string document;
        if (!generator.plainFrameDocument(document, pgnText, frame.getData(), frame.getDataLength(),
                                          frame.getTimestamp(), frame.spns())) {
            fillFrame(generator, frame, pgnText);
            document = generator.frameDocument();
            generator.clearSpns();
        }
        sender.send(document, pgnText);
        return;
    }
    fillFrame(generator, frame, pgnText);
    generator.commitFrame();
    generator.clearSpns();
}

void Fmstoip::deliver(std::stringstream& document) {
    if (requestedTexts.load() != 0)
        sender.send(document.str(), "fms-mixed");
}

void Fmstoip::addPgn(const std::string& pgn) {
    LOG(3) << "adding PGN: " << pgn;
    writeCounts(countPgn(pgn));
}

Fmstoip::CountsSnapshot Fmstoip::countPgn(const std::string& pgn) {
    std::lock_guard<std::mutex> lock(requestsMutex);
    const uint16_t count = countOf(pgn);
    if (count == 0) {
        if (pgn.size() > maxRequestLength) {
            LOG(1) << "Request for a PGN text of " << pgn.size() << " bytes not counted (at most "
                   << maxRequestLength << ").";
            return CountsSnapshot();
        }
        if (requestedTexts.load() >= maxRequestedPgns) {
            LOG(1) << "Request for PGN \"" << pgn << "\" not counted: " << maxRequestedPgns
                   << " PGNs are requested already.";
            return CountsSnapshot();
        }
        setCount(pgn, 1);
    } else if (count < maxRequests) {
        setCount(pgn, count + 1);
    }
    return countsSnapshotLocked();
}

void Fmstoip::removePgn(const std::string& pgn) {
    LOG(3) << "removing PGN: " << pgn;
    writeCounts(uncountPgn(pgn));
}

Fmstoip::CountsSnapshot Fmstoip::uncountPgn(const std::string& pgn) {
    std::lock_guard<std::mutex> lock(requestsMutex);
    const uint16_t count = countOf(pgn);
    if (count > 0)
        setCount(pgn, count - 1);
    return countsSnapshotLocked();
}

uint16_t Fmstoip::countOf(const std::string& pgn) const {
    uint16_t number = 0;
    if (pgnNumber(pgn, number))
        return pgnCounts[number].load();
    auto entry = otherCounts.find(pgn);
    return entry == otherCounts.end() ? 0 : entry->second;
}

void Fmstoip::setCount(const std::string& pgn, uint16_t count) {
    const uint16_t before = countOf(pgn);
    uint16_t number = 0;
    if (pgnNumber(pgn, number)) {
        pgnCounts[number].store(count);
        if (count != 0)
            requestedPgns.insert(number);
        else
            requestedPgns.erase(number);
    } else if (count != 0) {
        otherCounts[pgn] = count;
    } else {
        // An entry at 0 is as good as none: texts that clients added and removed again
        // do not pile up.
        otherCounts.erase(pgn);
    }
    if (before == 0 && count != 0)
        ++requestedTexts;
    else if (before != 0 && count == 0)
        --requestedTexts;
}

std::string Fmstoip::getPgnDocument(const std::string& pgn) {
    LOG(3) << "getting PGN: " << pgn;
    uint16_t number = 0;
    if (!pgnNumber(pgn, number))
        return std::string();
    DecodedFrame frame;
    std::shared_ptr<const DecodedFrame> whole;
    std::string version;
    {
        std::lock_guard<std::mutex> lock(documentsMutex);
        const Latest* slot = latestOf(number, false);
        if (slot == nullptr || !slot->seen)
            return std::string();
        whole = slot->whole;
        if (!whole) {
            frame.setPgn(number);
            frame.setData(slot->data, slot->length);
            frame.setRules(slot->rules, true);
            frame.setTimestamp(slot->timestamp);
        }
        version.assign(slot->version, slot->versionLength);
    }
    const DecodedFrame& kept = whole ? *whole : frame;
    std::lock_guard<std::mutex> lock(fetchMutex);
    fetcher.setFmsVersion(version);
    std::string document;
    if (!fetcher.plainFrameDocument(document, pgn, kept.getData(), kept.getDataLength(),
                                    kept.getTimestamp(), kept.spns())) {
        fillFrame(fetcher, kept, pgn);
        document = fetcher.frameDocument();
        fetcher.clearSpns();
    }
    return document;
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
        setCount(key, count);
    }
}

Fmstoip::CountsSnapshot Fmstoip::countsSnapshot() {
    std::lock_guard<std::mutex> lock(requestsMutex);
    return countsSnapshotLocked();
}

Fmstoip::CountsSnapshot Fmstoip::countsSnapshotLocked() {
    CountsSnapshot snapshot;
    snapshot.generation = ++countsGeneration;
    std::vector<std::pair<std::string, uint16_t>> counts(otherCounts.begin(), otherCounts.end());
    for (uint16_t pgn : requestedPgns)
        counts.emplace_back(pgnTextOf(pgn), pgnCounts[pgn].load());
    std::sort(counts.begin(), counts.end());
    for (const auto& entry : counts) {
        if (storableKey(entry.first))
            snapshot.content += entry.first + "=" + std::to_string(entry.second) + "\n";
    }
    return snapshot;
}

void Fmstoip::writeCounts(const CountsSnapshot& snapshot) {
    std::lock_guard<std::mutex> lock(fileMutex);
    // A snapshot taken before the one written last would put older counts back.
    if (snapshot.generation <= writtenGeneration)
        return;
    writtenGeneration = snapshot.generation;
    if (!replaceFile(counterFile, snapshot.content)) {
        LOG(1) << "Cannot write to file: " << counterFile;
    }
}
