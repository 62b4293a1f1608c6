#ifndef TAVRO_GNSSXMLGENERATOR_H
#define TAVRO_GNSSXMLGENERATOR_H

#include "DateTime.h"
#include "PeriodicThread.h"
#include "XMLHook.h"

#include <chrono>
#include <cstdint>
#include <mutex>
#include <ostream>
#include <string>

// Holds the latest GNSS values as ready-formatted texts and hands a GNSSLocationDelivery
// document to the hook once per period. A period without a new position still gives a
// document, marked NotValid and stamped with the system clock.
//
// A position counts for a document when it arrived since the one before, or when it is at most
// a period and a tolerance old. A receiver reporting once a period keeps a fixed phase to the
// document clock; with the first rule alone, jitter around a deadline would put two reports in
// one period and none in the next, and that document would say NotValid though the fix held.
class GnssXMLGenerator {
public:
    using Clock = std::chrono::steady_clock;
    using ClockFunction = Clock::time_point (*)();

    // How late a report may be for the document before: more than a receiver's jitter, well
    // below a period.
    static constexpr std::chrono::milliseconds lateReportTolerance{250};

    explicit GnssXMLGenerator(ClockFunction clock = Clock::now);
    virtual ~GnssXMLGenerator();
    GnssXMLGenerator(const GnssXMLGenerator&) = delete;
    GnssXMLGenerator& operator=(const GnssXMLGenerator&) = delete;

    void setLatitude(double value, const std::string& direction);
    void setLongitude(double value, const std::string& direction);
    void setDateTime(int day, int month, int year, int second, int minute, int hour);
    void setAltitude(double value);
    void setSpeed(double value);
    void setTrack(double value);
    void setHdop(double value);
    void setVdop(double value);
    // 0 satellites is written as 1.
    void setNumberOfSatellites(int count);
    // Keeps the sentence up to its checksum (the two characters after the first '*'), without
    // the line end; a line without '*' is kept whole, without its line end.
    void appendNmea(const std::string& line);

    void setHook(XMLHook* hook);
    // Starts the document thread; a period of 0 starts none.
    void start(uint32_t periodMs);

    // One period's work of the document thread: decides whether the period brought a new
    // position, then builds the document and hands it to the hook, if one is set.
    void deliverDocument();

private:
    std::string format(const char* format, double value);
    void buildDocument(std::ostream& out) const;

    const ClockFunction clock;
    XMLHook* hook = nullptr;
    char formatBuffer[120] = {};
    std::chrono::microseconds period{1000000};
    bool latitudeFresh = false;
    bool longitudeFresh = false;
    // When each was last set; meaningful once set at all.
    bool positionSeen[2] = {false, false};
    Clock::time_point latitudeAt;
    Clock::time_point longitudeAt;
    std::string nmea;
    std::string latitudeDegree = "0";
    std::string latitudeDirection = "N";
    std::string longitudeDegree = "0";
    std::string longitudeDirection = "E";
    const std::string gnssType = "MixedGNSSTypes";
    std::string altitude = "0";
    DateTime dateTime;
    std::string speed = "0";
    std::string signalQuality = "NotValid";
    std::string satellites = "1";
    std::string hdop = "0";
    std::string vdop = "0";
    std::string track = "0";
    const std::string coordinateSystem = "WGS84";
    // Guards every value above and the hook.
    std::mutex mutex;
    PeriodicThread thread;
};

#endif
