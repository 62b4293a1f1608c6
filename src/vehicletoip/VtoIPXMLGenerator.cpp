#include "VtoIPXMLGenerator.h"

#include <cmath>
#include <cstdio>
#include <sstream>

namespace {
pugi::xml_node textElement(pugi::xml_node parent, const char* name) {
    pugi::xml_node element = parent.append_child(name);
    element.append_child(pugi::node_pcdata);
    return element;
}

// The value as a whole number of 32 bits: truncated, clamped at both ends, NaN as 0.
unsigned long wholeU32(double value) {
    if (!(value > 0))
        return 0;
    if (value >= 4294967296.0)
        return 4294967295UL;
    return static_cast<unsigned long>(static_cast<uint32_t>(value));
}

const char* doorStateText(int32_t state) {
    switch (state) {
    case 0:
        return "Closed";
    case 1:
        return "Open";
    case 3:
        return "NotAvailable";
    default:
        return "Error";
    }
}
} // namespace

VtoIPXMLGenerator::VtoIPXMLGenerator() {
    for (int32_t& state : doors)
        state = noState;
    pugi::xml_node root = document.append_child("VEHICLEtoIPDelivery");
    root.append_attribute("version") = "1.1a";
    vehicle = root.append_child("VEHICLEtoIP");
    recordedAtTime = textElement(vehicle, "RecordedAtTime");
    odospeed = textElement(vehicle, "Odospeed");
    ododistancetotal = textElement(vehicle, "Ododistancetotal");
    ododistance = textElement(vehicle, "Ododistance");
    odofault = textElement(vehicle, "Odofault");
    doorsStatus = textElement(vehicle, "DoorsStatus");
    doorsControl = vehicle.append_child("DoorsControl");
    activeCabin = textElement(vehicle, "ActiveCabin");
    presenceHV = textElement(vehicle, "PresenceHV");
    stopRequest = textElement(vehicle, "StopRequest");
    vehicleType = textElement(vehicle, "VehicleType");
    vehicleCapacity = textElement(vehicle, "VehicleCapacity");
    vehicleNumber = textElement(vehicle, "VehicleNumber");
    vehicleMode = textElement(vehicle, "VehicleMode");
    vehicleOrder = textElement(vehicle, "VehicleOrder");

    door = doorTemplate.append_child("Door");
    doorId = textElement(door, "DoorID");
    doorStatus = textElement(door, "DoorStatus");
}

VtoIPXMLGenerator::~VtoIPXMLGenerator() = default;

void VtoIPXMLGenerator::setText(pugi::xml_node element, const char* text) {
    element.first_child().set_value(text);
}

void VtoIPXMLGenerator::setNumber(pugi::xml_node element, const char* format, long long value) {
    snprintf(scratch, sizeof scratch, format, value);
    setText(element, scratch);
}

void VtoIPXMLGenerator::setTruth(pugi::xml_node element, bool value) {
    setText(element, value ? "true" : "false");
}

void VtoIPXMLGenerator::setRecordedAtTime(const DateTime& time) {
    setText(recordedAtTime, formatDateTime(time).c_str());
}

void VtoIPXMLGenerator::setOdospeed(double speed) {
    snprintf(scratch, sizeof scratch, "%.2f", speed);
    setText(odospeed, scratch);
}

void VtoIPXMLGenerator::setOdodistancetotal(double distance) {
    snprintf(scratch, sizeof scratch, "%lu", wholeU32(distance));
    setText(ododistancetotal, scratch);
}

void VtoIPXMLGenerator::setOdodistance(double distance) {
    snprintf(scratch, sizeof scratch, "%lu", wholeU32(distance));
    setText(ododistance, scratch);
}

void VtoIPXMLGenerator::setOdofault(bool fault) {
    setTruth(odofault, fault);
}

void VtoIPXMLGenerator::setDoorsStatus(uint32_t status) {
    static const char* const texts[] = {"AllDoorsClosedLocked", "DoorUnlocked", "DoorOpen"};
    setText(doorsStatus, texts[status < 2 ? status : 2]);
}

void VtoIPXMLGenerator::setDoor(uint32_t id, int32_t state) {
    if (id < doorCount)
        doors[id] = state;
}

void VtoIPXMLGenerator::setActiveCabin(uint32_t cabin) {
    static const char* const texts[] = {"NoCab", "Cab1", "Cab2"};
    setText(activeCabin, texts[cabin < 2 ? cabin : 2]);
}

void VtoIPXMLGenerator::setPresenceHV(bool present) {
    setTruth(presenceHV, present);
}

void VtoIPXMLGenerator::setStopRequest(bool requested) {
    setTruth(stopRequest, requested);
}

void VtoIPXMLGenerator::setVehicleType(uint32_t type) {
    static const char* const texts[] = {"Bus", "Tram", "Ferry"};
    setText(vehicleType, texts[type < 2 ? type : 2]);
}

void VtoIPXMLGenerator::setVehicleCapacity(int32_t capacity) {
    setNumber(vehicleCapacity, "%lld", capacity);
}

void VtoIPXMLGenerator::setVehicleNumber(const std::string& number) {
    setText(vehicleNumber, number.c_str());
}

void VtoIPXMLGenerator::setVehicleMode(bool mode) {
    setTruth(vehicleMode, mode);
}

void VtoIPXMLGenerator::setVehicleOrder(int32_t order) {
    setNumber(vehicleOrder, "%lld", order);
}

bool VtoIPXMLGenerator::isComplete() const {
    for (pugi::xml_node child = vehicle.first_child(); child; child = child.next_sibling()) {
        pugi::xml_node text = child.first_child();
        if (text.type() == pugi::node_pcdata && *text.value() == '\0')
            return false;
    }
    return true;
}

std::string VtoIPXMLGenerator::toString() {
    for (int id = 0; id < doorCount; ++id) {
        if (doors[id] == noState)
            continue;
        setNumber(doorId, "%lld", id);
        setText(doorStatus, doorStateText(doors[id]));
        doorsControl.append_copy(door);
        doors[id] = noState;
    }
    std::stringstream text;
    document.save(text, "", pugi::format_raw, pugi::encoding_auto);
    return text.str();
}

void VtoIPXMLGenerator::clearDoors() {
    while (pugi::xml_node child = doorsControl.first_child())
        doorsControl.remove_child(child);
}
