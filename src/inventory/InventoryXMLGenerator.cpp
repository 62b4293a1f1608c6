#include "InventoryXMLGenerator.h"

#include <cstdio>
#include <sstream>

namespace {
pugi::xml_node textElement(pugi::xml_node parent, const char* name) {
    pugi::xml_node element = parent.append_child(name);
    element.append_child(pugi::node_pcdata);
    return element;
}
} // namespace

InventoryXMLGenerator::InventoryXMLGenerator() {
    root = document.append_child("ModulesDelivery");
    root.append_attribute("version") = "1.1a";
    module = root.append_child("Module");
    type = textElement(module, "Type");
    model = textElement(module, "Model");
    manufacturer = textElement(module, "Manufacturer");
    serialNumber = textElement(module, "SerialNumber");
    softwareVersion = textElement(module, "SoftwareVersion");
    hardwareVersion = textElement(module, "HardwareVersion");
    macAddress = textElement(module, "MACAddress");
    status = textElement(module, "Status");
}

InventoryXMLGenerator::~InventoryXMLGenerator() = default;

void InventoryXMLGenerator::setModuleType(const std::string& text) {
    type.first_child().set_value(text.c_str());
}

void InventoryXMLGenerator::setModel(const std::string& text) {
    model.first_child().set_value(text.c_str());
}

void InventoryXMLGenerator::setManufacturer(const std::string& text) {
    manufacturer.first_child().set_value(text.c_str());
}

void InventoryXMLGenerator::setSerialNumber(const std::string& text) {
    serialNumber.first_child().set_value(text.c_str());
}

void InventoryXMLGenerator::setSoftwareVersion(const std::string& text) {
    softwareVersion.first_child().set_value(text.c_str());
}

void InventoryXMLGenerator::setHardwareVersion(const std::string& text) {
    hardwareVersion.first_child().set_value(text.c_str());
}

void InventoryXMLGenerator::setMacAddress(const std::string& text) {
    macAddress.first_child().set_value(text.c_str());
}

void InventoryXMLGenerator::setStatus(int value) {
    snprintf(statusText, sizeof statusText, "%d", value);
    status.first_child().set_value(statusText);
}

std::string InventoryXMLGenerator::toString() const {
    std::stringstream text;
    document.save(text, "\t", pugi::format_indent, pugi::encoding_auto);
    return text.str();
}
