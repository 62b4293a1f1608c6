#ifndef TAVRO_VTOIPXMLGENERATOR_H
#define TAVRO_VTOIPXMLGENERATOR_H

#include "DateTime.h"

#include <pugixml.hpp>

#include <cstdint>
#include <string>

// The VEHICLEtoIPDelivery document, kept up to date value by value. Door states are
// collected per door id and become Door elements when the document is serialised. No lock:
// the owner serialises every call.
class VtoIPXMLGenerator {
public:
    VtoIPXMLGenerator();
    virtual ~VtoIPXMLGenerator();
    VtoIPXMLGenerator(const VtoIPXMLGenerator&) = delete;
    VtoIPXMLGenerator& operator=(const VtoIPXMLGenerator&) = delete;

    void setRecordedAtTime(const DateTime& time);
    void setOdospeed(double speed);
    // Whole units, clamped to 0 .. 4294967295.
    void setOdodistancetotal(double distance);
    void setOdodistance(double distance);
    void setOdofault(bool fault);
    void setDoorsStatus(uint32_t status);
    // Door ids above 63 are ignored.
    void setDoor(uint32_t id, int32_t state);
    void setActiveCabin(uint32_t cabin);
    void setPresenceHV(bool present);
    void setStopRequest(bool requested);
    void setVehicleType(uint32_t type);
    void setVehicleCapacity(int32_t capacity);
    void setVehicleNumber(const std::string& number);
    void setVehicleMode(bool mode);
    void setVehicleOrder(int32_t order);

    // True once every text element has a value.
    bool isComplete() const;
    // Adds a Door element per door reported since the last call, forgets those reports, and
    // returns the document on one line.
    std::string toString();
    // Removes the Door elements added by toString.
    void clearDoors();

private:
    static const int doorCount = 64;
    static const int32_t noState = -1;

    void setText(pugi::xml_node element, const char* text);
    void setNumber(pugi::xml_node element, const char* format, long long value);
    void setTruth(pugi::xml_node element, bool value);

    char scratch[40] = {};
    int32_t doors[doorCount];
    pugi::xml_document document;
    pugi::xml_document doorTemplate;
    pugi::xml_node vehicle;
    pugi::xml_node recordedAtTime;
    pugi::xml_node odospeed;
    pugi::xml_node ododistancetotal;
    pugi::xml_node ododistance;
    pugi::xml_node odofault;
    pugi::xml_node doorsStatus;
    pugi::xml_node doorsControl;
    pugi::xml_node activeCabin;
    pugi::xml_node presenceHV;
    pugi::xml_node stopRequest;
    pugi::xml_node vehicleType;
    pugi::xml_node vehicleCapacity;
    pugi::xml_node vehicleNumber;
    pugi::xml_node vehicleMode;
    pugi::xml_node vehicleOrder;
    pugi::xml_node door;
    pugi::xml_node doorId;
    pugi::xml_node doorStatus;
};

#endif
