#include "GnssXMLGenerator.h"

#include "Logger.h"

#include <pugixml.hpp>

#include <algorithm>
#include <cstdio>
#include <sstream>

namespace {
void textElement(pugi::xml_node parent, const char* name, const std::string& text) {
    parent.append_child(name).append_child(pugi::node_pcdata).set_value(text.c_str());
}
} // namespace

GnssXMLGenerator::GnssXMLGenerator(ClockFunction clockFunction)
    : clock(clockFunction), thread([this] { deliverDocument(); }) {}

GnssXMLGenerator::~GnssXMLGenerator() {
    thread.stop();
}

std::string GnssXMLGenerator::format(const char* pattern, double value) {
    snprintf(formatBuffer, sizeof formatBuffer, pattern, value);
    return formatBuffer;
}

void GnssXMLGenerator::setLatitude(double value, const std::string& direction) {
    std::lock_guard<std::mutex> lock(mutex);
    latitudeDegree = format("%g", value);
    latitudeDirection = direction;
    latitudeFresh = true;
    positionSeen[0] = true;
    latitudeAt = clock();
}

void GnssXMLGenerator::setLongitude(double value, const std::string& direction) {
    std::lock_guard<std::mutex> lock(mutex);
    longitudeDegree = format("%g", value);
    longitudeDirection = direction;
    longitudeFresh = true;
    positionSeen[1] = true;
    longitudeAt = clock();
}

void GnssXMLGenerator::setDateTime(int day, int month, int year, int second, int minute, int hour) {
    std::lock_guard<std::mutex> lock(mutex);
    dateTime.day = day;
    dateTime.month = month;
    dateTime.year = year;
    dateTime.second = second;
    dateTime.minute = minute;
    dateTime.hour = hour;
}

void GnssXMLGenerator::setAltitude(double value) {
    std::lock_guard<std::mutex> lock(mutex);
    altitude = format("%.2f", value);
}

void GnssXMLGenerator::setSpeed(double value) {
    std::lock_guard<std::mutex> lock(mutex);
    speed = format("%g", value);
}

void GnssXMLGenerator::setTrack(double value) {
    std::lock_guard<std::mutex> lock(mutex);
    track = format("%g", value);
}

void GnssXMLGenerator::setHdop(double value) {
    std::lock_guard<std::mutex> lock(mutex);
    hdop = format("%g", value);
}

void GnssXMLGenerator::setVdop(double value) {
    std::lock_guard<std::mutex> lock(mutex);
    vdop = format("%g", value);
}

void GnssXMLGenerator::setNumberOfSatellites(int count) {
    std::lock_guard<std::mutex> lock(mutex);
    satellites = std::to_string(count == 0 ? 1 : count);
}

void GnssXMLGenerator::appendNmea(const std::string& line) {
    size_t end = line.find('*');
    end = end == std::string::npos ? line.size() : std::min(end + 3, line.size());
    while (end > 0 && (line[end - 1] == '\r' || line[end - 1] == '\n'))
        --end;
    std::lock_guard<std::mutex> lock(mutex);
    nmea.append(line, 0, end);
}

void GnssXMLGenerator::setHook(XMLHook* receiver) {
    std::lock_guard<std::mutex> lock(mutex);
    hook = receiver;
}

void GnssXMLGenerator::start(uint32_t periodMs) {
    if (periodMs == 0)
        return;
    {
        std::lock_guard<std::mutex> lock(mutex);
        period = std::chrono::microseconds(uint64_t(periodMs) * 1000);
    }
    if (!thread.start(std::chrono::microseconds(uint64_t(periodMs) * 1000))) {
        LOG(1) << "Error creating gnss XML thread.";
    }
}

void GnssXMLGenerator::deliverDocument() {
    std::stringstream text;
    XMLHook* receiver;
    {
        std::lock_guard<std::mutex> lock(mutex);
        const Clock::time_point oldest = clock() - period - lateReportTolerance;
        const bool recent =
            positionSeen[0] && positionSeen[1] && latitudeAt >= oldest && longitudeAt >= oldest;
        if ((latitudeFresh && longitudeFresh) || recent) {
            signalQuality = "GPS";
        } else {
            dateTime = now();
            signalQuality = "NotValid";
            speed = format("%g", 0.0);
            satellites = "1";
        }
        receiver = hook;
        if (receiver == nullptr)
            return;
        buildDocument(text);
        nmea.clear();
        latitudeFresh = false;
        longitudeFresh = false;
    }
    receiver->deliver(text);
}

void GnssXMLGenerator::buildDocument(std::ostream& out) const {
    pugi::xml_document document;
    pugi::xml_node root = document.append_child("GNSSLocationDelivery");
    root.append_attribute("version") = "1.1a";
    pugi::xml_node location = root.append_child("GNSSLocation");
    textElement(location, "Data", nmea);
    pugi::xml_node latitude = location.append_child("Latitude");
    textElement(latitude, "Degree", latitudeDegree);
    textElement(latitude, "Direction", latitudeDirection);
    pugi::xml_node longitude = location.append_child("Longitude");
    textElement(longitude, "Degree", longitudeDegree);
    textElement(longitude, "Direction", longitudeDirection);
    textElement(location, "Altitude", altitude);
    textElement(location, "Time", formatTime(dateTime));
    textElement(location, "Date", formatDate(dateTime));
    textElement(location, "SpeedOverGround", speed);
    textElement(location, "SignalQuality", signalQuality);
    textElement(location, "NumberOfSatellites", satellites);
    textElement(location, "HorizontalDilutionOfPrecision", hdop);
    textElement(location, "VerticalDilutionOfPrecision", vdop);
    textElement(location, "TrackDegreeTrue", track);
    textElement(location, "GNSSType", gnssType);
    textElement(location, "GNSSCoordinateSystem", coordinateSystem);
    document.save(out, "", pugi::format_raw, pugi::encoding_auto);
}
