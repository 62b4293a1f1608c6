#include "FmsXMLGenerator.h"

#include "Logger.h"
#include "SPNNumeric.h"
#include "SPNStatus.h"
#include "SPNString.h"
#include "XmlText.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <sstream>

namespace {
pugi::xml_node textElement(pugi::xml_node parent, const char* name, const char* text) {
    pugi::xml_node element = parent.append_child(name);
    element.append_child(pugi::node_pcdata).set_value(text);
    return element;
}

void setText(pugi::xml_node element, const char* text) {
    element.first_child().set_value(text);
}

void removeChildren(pugi::xml_node parent, const char* name) {
    while (pugi::xml_node child = parent.child(name))
        parent.remove_child(child);
}

pugi::xml_node appendRoot(pugi::xml_document& document, const std::string& version) {
    pugi::xml_node root = document.append_child("FMStoIPDelivery");
    root.append_attribute("version") = "1.1a";
    pugi::xml_node fms = root.append_child("FMStoIP");
    fms.append_attribute("FMSVersion") = version.c_str();
    return fms;
}

// Text that pugixml writes as it is (also empty: "<Value></Value>").
struct PlainCharacters {
    PlainCharacters() {
        for (int c = 0x20; c <= 0x7E; ++c)
            table[c] = c != '&' && c != '<' && c != '>' && c != '"' && c != '\'';
    }
    bool table[256] = {};
};

bool plain(const std::string& text) {
    static const PlainCharacters characters;
    for (char c : text) {
        if (!characters.table[static_cast<unsigned char>(c)])
            return false;
    }
    return true;
}

// Appends to a string grown ahead, without the checks of each std::string append.
class TextOut {
public:
    explicit TextOut(std::string& target) : text(target) { text.resize(2048); }
    ~TextOut() { text.resize(used); }
    template <size_t N> void put(const char (&literal)[N]) { put(literal, N - 1); }
    void put(const std::string& piece) { put(piece.data(), piece.size()); }
    void put(const char* piece, size_t length) {
        if (used + length > text.size())
            text.resize(2 * (used + length));
        memcpy(&text[used], piece, length);
        used += length;
    }
    void number(uint64_t value) {
        char digits[20];
        size_t n = 0;
        do {
            digits[sizeof digits - ++n] = static_cast<char>('0' + value % 10);
            value /= 10;
        } while (value != 0);
        put(digits + sizeof digits - n, n);
    }
    // As "%.3f" writes it.
    void thousandths(double value) {
        // The exact product differs from the rounded one by at most 2^-13 below 2^40: when the
        // rounded one is not near a half, so is the exact one, and both round to the same.
        const double scaled = value * 1000.0;
        if (!(std::fabs(scaled) < 1099511627776.0)) {
            printed(value);
            return;
        }
        const double whole = std::nearbyint(scaled);
        if (std::fabs(scaled - whole) >= 0.49) {
            printed(value);
            return;
        }
        const uint64_t n = static_cast<uint64_t>(std::fabs(whole));
        if (std::signbit(value))
            put("-");
        number(n / 1000);
        const char fraction[4] = {static_cast<char>('.'), static_cast<char>('0' + n / 100 % 10),
                                  static_cast<char>('0' + n / 10 % 10),
                                  static_cast<char>('0' + n % 10)};
        put(fraction, 4);
    }

private:
    void printed(double value) {
        char text[64];
        // Cut as the template's setter cuts it.
        const int length = snprintf(text, sizeof text, "%.3f", value);
        put(text, std::min(static_cast<size_t>(std::max(length, 0)), sizeof text - 1));
    }

    std::string& text;
    size_t used = 0;
};

// Saves straight into a string: a stringstream costs more to set up than a small document
// costs to write.
class StringWriter : public pugi::xml_writer {
public:
    explicit StringWriter(std::string& target) : text(target) {}
    void write(const void* data, size_t size) override {
        text.append(static_cast<const char*>(data), size);
    }

private:
    std::string& text;
};
} // namespace

FmsXMLGenerator::FmsXMLGenerator(bool onlySingle)
    : singleOnly(onlySingle), thread([this] { deliverCollected(); }) {
    fmstoip = appendRoot(collected, fmsVersion);
    singleFmstoip = appendRoot(single, fmsVersion);

    frame = singleFmstoip.append_child("Frame");
    frame.append_attribute("Status") = "OK";
    framePgn = textElement(frame, "PGN", "PGNNR");
    frameData = textElement(frame, "Data", "none");
    frameTime = textElement(frame, "RelativeTime", "5000");
    spn = working.append_child("SPN");
    spn.append_attribute("id") = 123u;
    spnName = textElement(spn, "Name", "undef.");
    spnValue = textElement(spn, "Value", "undef.");
}

FmsXMLGenerator::~FmsXMLGenerator() {
    {
        std::lock_guard<std::mutex> lock(mutex);
        hook = nullptr;
    }
    thread.stop();
    if (!singleOnly) {
        LOG(4) << "FmsXMLGenerator thread finished.";
    }
}

void FmsXMLGenerator::setHook(XMLHook* receiver) {
    std::lock_guard<std::mutex> lock(mutex);
    hook = receiver;
}

void FmsXMLGenerator::start(uint32_t periodMs) {
    if (periodMs == 0 || singleOnly)
        return;
    if (!thread.start(std::chrono::microseconds(uint64_t(periodMs) * 1000))) {
        LOG(1) << "Error creating fms XML thread.";
    }
}

void FmsXMLGenerator::setFmsVersion(const std::string& version) {
    std::lock_guard<std::mutex> lock(mutex);
    fmsVersion = XmlText::firstCharacters(version, 6);
    fmstoip.attribute("FMSVersion").set_value(fmsVersion.c_str());
    singleFmstoip.attribute("FMSVersion").set_value(fmsVersion.c_str());
}

void FmsXMLGenerator::setFramePgn(const std::string& pgn) {
    setText(framePgn, pgn.c_str());
}

void FmsXMLGenerator::setFrameStatus(const std::string& status) {
    frame.attribute("Status").set_value(status.c_str());
}

void FmsXMLGenerator::setFrameData(const std::string& data) {
    setText(frameData, data.c_str());
}

void FmsXMLGenerator::setRelativeTime(uint64_t time) {
    setText(frameTime, std::to_string(static_cast<unsigned long long>(time)).c_str());
}

void FmsXMLGenerator::setSpnId(uint32_t id) {
    spn.attribute("id").set_value(static_cast<unsigned int>(id));
}

void FmsXMLGenerator::setSpnName(const std::string& name) {
    setText(spnName, name.c_str());
}

void FmsXMLGenerator::setSpnUnit(const std::string& unit) {
    if (unit.empty())
        return;
    if (!spnUnit) {
        spnUnit = spn.insert_child_after("Unit", spnName);
        spnUnit.append_child(pugi::node_pcdata);
    }
    setText(spnUnit, unit.c_str());
}

void FmsXMLGenerator::setSpnValue(const std::string& value) {
    setText(spnValue, value.c_str());
}

void FmsXMLGenerator::setSpnValue(double value) {
    char text[64];
    snprintf(text, sizeof text, "%.3f", value);
    setText(spnValue, text);
}

void FmsXMLGenerator::commitSpn() {
    frame.append_copy(spn);
    if (spnUnit) {
        spn.remove_child(spnUnit);
        spnUnit = pugi::xml_node();
    }
}

void FmsXMLGenerator::commitFrame() {
    std::lock_guard<std::mutex> lock(mutex);
    ++frameCount;
    fmstoip.append_copy(frame);
    removeChildren(frame, "SPN");
}

void FmsXMLGenerator::clearSpns() {
    removeChildren(frame, "SPN");
}

std::string FmsXMLGenerator::frameDocument() const {
    std::string text;
    text.reserve(2048);
    StringWriter writer(text);
    single.save(writer, "\t", pugi::format_indent, pugi::encoding_auto);
    return text;
}

bool FmsXMLGenerator::plainFrameDocument(std::string& text, const std::string& pgn,
                                         const uint8_t* data, uint32_t length, uint64_t time,
                                         const std::vector<SPN*>& spns) const {
    if (!plain(fmsVersion) || !plain(pgn))
        return false;
    for (const SPN* spn : spns) {
        if (!plain(spn->getName()))
            return false;
        switch (spn->getType()) {
        case SPN::Numeric:
            if (!plain(static_cast<const SPNNumeric*>(spn)->getUnit()))
                return false;
            break;
        case SPN::Status:
            if (!plain(static_cast<const SPNStatus*>(spn)->getDescription()))
                return false;
            break;
        case SPN::String:
            if (!plain(static_cast<const SPNString*>(spn)->getValue()))
                return false;
            break;
        }
    }
    std::string document;
    {
        TextOut out(document);
        out.put("<?xml version=\"1.0\"?>\n<FMStoIPDelivery version=\"1.1a\">\n\t<FMStoIP "
                "FMSVersion=\"");
        out.put(fmsVersion);
        out.put("\">\n\t\t<Frame Status=\"OK\">\n\t\t\t<PGN>");
        out.put(pgn);
        out.put("</PGN>\n\t\t\t<Data>");
        static const char hex[] = "0123456789ABCDEF";
        for (uint32_t i = 0; i < length; ++i) {
            const char pair[2] = {hex[data[i] >> 4], hex[data[i] & 0x0F]};
            out.put(pair, 2);
        }
        out.put("</Data>\n\t\t\t<RelativeTime>");
        out.number(time);
        out.put("</RelativeTime>\n");
        for (const SPN* spn : spns) {
            out.put("\t\t\t<SPN id=\"");
            out.number(spn->getNumber());
            out.put("\">\n\t\t\t\t<Name>");
            out.put(spn->getName());
            out.put("</Name>\n\t\t\t\t");
            switch (spn->getType()) {
            case SPN::Numeric: {
                const SPNNumeric* numeric = static_cast<const SPNNumeric*>(spn);
                if (!numeric->getUnit().empty()) {
                    out.put("<Unit>");
                    out.put(numeric->getUnit());
                    out.put("</Unit>\n\t\t\t\t");
                }
                out.put("<Value>");
                out.thousandths(numeric->getValue());
                break;
            }
            case SPN::Status:
                out.put("<Value>");
                out.put(static_cast<const SPNStatus*>(spn)->getDescription());
                break;
            case SPN::String:
                out.put("<Value>");
                out.put(static_cast<const SPNString*>(spn)->getValue());
                break;
            }
            out.put("</Value>\n\t\t\t</SPN>\n");
        }
        out.put("\t\t</Frame>\n\t</FMStoIP>\n</FMStoIPDelivery>\n");
    }
    text.swap(document);
    return true;
}

void FmsXMLGenerator::deliverCollected() {
    std::lock_guard<std::mutex> lock(mutex);
    if (hook == nullptr || frameCount == 0)
        return;
    std::stringstream text;
    collected.save(text, "", pugi::format_raw, pugi::encoding_auto);
    removeChildren(fmstoip, "Frame");
    // Under the lock, so a frame committed meanwhile goes into the next document, not lost.
    hook->deliver(text);
    frameCount = 0;
}
