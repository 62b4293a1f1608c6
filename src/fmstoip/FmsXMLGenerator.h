#ifndef TAVRO_FMSXMLGENERATOR_H
#define TAVRO_FMSXMLGENERATOR_H

#include "PeriodicThread.h"
#include "SPN.h"
#include "XMLHook.h"

#include <pugixml.hpp>

#include <cstdint>
#include <mutex>
#include <string>
#include <vector>

// Builds FMStoIPDelivery documents. The FMStoIP worker fills a frame template and an SPN
// template through the setters; commitFrame collects the frame for periodic delivery, and
// frameDocument gives the frame on its own as an indented document. In periodic mode the
// document thread hands the collected frames to the hook once per period.
class FmsXMLGenerator {
public:
    // singleOnly: a generator for single-frame documents only, never started, that says
    // nothing when it goes.
    explicit FmsXMLGenerator(bool singleOnly = false);
    virtual ~FmsXMLGenerator();
    FmsXMLGenerator(const FmsXMLGenerator&) = delete;
    FmsXMLGenerator& operator=(const FmsXMLGenerator&) = delete;

    // Called once, before start.
    void setHook(XMLHook* hook);
    // Starts the document thread; a period of 0 starts none.
    void start(uint32_t periodMs);

    // The first six characters count.
    void setFmsVersion(const std::string& version);
    void setFramePgn(const std::string& pgn);
    void setFrameStatus(const std::string& status);
    void setFrameData(const std::string& data);
    void setRelativeTime(uint64_t time);
    void setSpnId(uint32_t id);
    void setSpnName(const std::string& name);
    // An empty unit leaves the SPN without Unit; a second unit replaces the first.
    void setSpnUnit(const std::string& unit);
    void setSpnValue(const std::string& value);
    // Three decimals, rounded to the nearest thousandth.
    void setSpnValue(double value);
    // Adds the SPN template to the frame template and drops its unit.
    void commitSpn();
    // Adds the frame template to the collected document and empties it of SPNs.
    void commitFrame();
    void clearSpns();
    // The frame template alone in a document, tab-indented.
    std::string frameDocument() const;
    // The document that frameDocument gives once these values are set, written straight as
    // text, skipping the template: the path of every delivered frame. False, text unchanged,
    // when a text holds a character that XML escapes or that is not printable ASCII; the
    // setters take those.
    bool plainFrameDocument(std::string& text, const std::string& pgn, const uint8_t* data,
                            uint32_t length, uint64_t time, const std::vector<SPN*>& spns) const;

    // One period's work of the document thread: hands the collected frames, if any, to the
    // hook and empties the collected document.
    void deliverCollected();

private:
    const bool singleOnly;
    uint32_t frameCount = 0;
    std::string fmsVersion = "0000";
    pugi::xml_document collected;
    // The frame template inside a document of its own, so that frameDocument only saves it;
    // the SPN template lives in working.
    pugi::xml_document single;
    pugi::xml_document working;
    pugi::xml_node fmstoip;
    pugi::xml_node singleFmstoip;
    pugi::xml_node frame;
    pugi::xml_node framePgn;
    pugi::xml_node frameData;
    pugi::xml_node frameTime;
    pugi::xml_node spn;
    pugi::xml_node spnName;
    pugi::xml_node spnUnit;
    pugi::xml_node spnValue;
    // Guards the collected document, the frame count and the hook.
    std::mutex mutex;
    XMLHook* hook = nullptr;
    PeriodicThread thread;
};

#endif
