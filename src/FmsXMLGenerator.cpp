#include "FmsXMLGenerator.h"

#include "Logger.h"
#include "XmlText.h"

#include <cstdio>
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

FmsXMLGenerator::FmsXMLGenerator() : thread([this] { deliverCollected(); }) {
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
    LOG(4) << "FmsXMLGenerator thread finished.";
}

void FmsXMLGenerator::setHook(XMLHook* receiver) {
    std::lock_guard<std::mutex> lock(mutex);
    hook = receiver;
}

void FmsXMLGenerator::start(uint32_t periodMs) {
    if (periodMs == 0)
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
