#ifndef TAVRO_INVENTORYXMLGENERATOR_H
#define TAVRO_INVENTORYXMLGENERATOR_H

#include <pugixml.hpp>

#include <string>

// The ModulesDelivery document describing this module. No lock: filled before any other
// thread exists, later only the status changes, from one thread.
class InventoryXMLGenerator {
public:
    InventoryXMLGenerator();
    virtual ~InventoryXMLGenerator();
    InventoryXMLGenerator(const InventoryXMLGenerator&) = delete;
    InventoryXMLGenerator& operator=(const InventoryXMLGenerator&) = delete;

    void setModuleType(const std::string& type);
    void setModel(const std::string& model);
    void setManufacturer(const std::string& manufacturer);
    void setSerialNumber(const std::string& serialNumber);
    void setSoftwareVersion(const std::string& version);
    void setHardwareVersion(const std::string& version);
    void setMacAddress(const std::string& address);
    void setStatus(int status);

    // The document, one element per line, indented by tabs.
    std::string toString() const;

private:
    char statusText[40] = {};
    pugi::xml_document document;
    pugi::xml_node root;
    pugi::xml_node module;
    pugi::xml_node type;
    pugi::xml_node model;
    pugi::xml_node manufacturer;
    pugi::xml_node serialNumber;
    pugi::xml_node softwareVersion;
    pugi::xml_node hardwareVersion;
    pugi::xml_node macAddress;
    pugi::xml_node status;
};

#endif
