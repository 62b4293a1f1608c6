#include "ModuleInventory.h"

#include "AtomicFile.h"
#include "Heartbeat.h"
#include "Logger.h"
#include "XmlText.h"

#include <sys/stat.h>

#include <chrono>
#include <fstream>
#include <system_error>

namespace {
bool markerPresent() {
    struct stat info;
    return stat(ModuleInventory::markerPath, &info) == 0;
}
} // namespace

std::string ModuleInventory::macAddress(const std::string& interface) {
    // An interface name never holds '/': anything else would read some other file.
    if (interface.empty() || interface.find('/') != std::string::npos || interface == "." ||
        interface == "..")
        return std::string();
    std::ifstream file("/sys/class/net/" + interface + "/address");
    std::string line;
    if (!file.is_open() || !std::getline(file, line))
        return std::string();
    if (!line.empty() && line.back() == '\r')
        line.pop_back();
    return XmlText::clean(line);
}

ModuleInventory::ModuleInventory(const Configuration& configuration) : Service(configuration) {
    status = markerPresent() ? 1 : 0;

    // Configuration texts go into the document as they are, so they are made fit for XML once.
    const std::string type = XmlText::clean(configuration.getString("device_type"));
    const std::string model = XmlText::clean(configuration.getString("device_model"));
    const std::string manufacturer = XmlText::clean(configuration.getString("device_manufacturer"));
    const std::string serial = XmlText::clean(configuration.getString("device_serial"));
    const std::string software = XmlText::clean(configuration.getString("device_software_rev"));
    const std::string hardware = XmlText::clean(configuration.getString("device_hardware_rev"));
    const std::string interface = configuration.getString("network_interface");
    publisher.addTxt("type=" + type);
    publisher.addTxt("model=" + model);
    publisher.addTxt("manufacturer=" + manufacturer);
    publisher.addTxt("serialnumber=" + serial);
    publisher.addTxt("softwareversion=" + software);
    publisher.addTxt("hardwareversion=" + hardware);
    publisher.addTxt("macaddress=" + macAddress(interface));
    // Last on purpose: the watchdog replaces the most recently added record.
    publisher.addTxt("status=" + std::to_string(status));

    document.setModuleType(type);
    document.setModel(model);
    document.setManufacturer(manufacturer);
    document.setSerialNumber(serial);
    document.setSoftwareVersion(software);
    document.setHardwareVersion(hardware);
    document.setMacAddress(macAddress(interface));
    document.setStatus(status);

    const std::string path = configuration.getString("moduleinfo_file_path");
    // Replaced whole, so that a reader or a power cut never finds it empty or half written.
    const std::string text = document.toString();
    std::string error;
    if (AtomicFile::replace(path, text, &error)) {
        LOG(4) << "Writing to file: " << path;
        LOG(4) << text;
    } else {
        LOG(1) << "Cannot write to file: " << path;
        LOG(1) << error;
    }

    watchdogRunning = true;
    try {
        watchdogThread = std::thread(&ModuleInventory::watchdog, this);
    } catch (const std::system_error&) {
        watchdogRunning = false;
        LOG(1) << "Error creating thread \"ModuleInventory\".";
    }
    publisher.start();
}

ModuleInventory::~ModuleInventory() {
    {
        std::lock_guard<std::mutex> lock(mutex);
        watchdogRunning = false;
    }
    wake.notify_all();
    if (watchdogThread.joinable())
        watchdogThread.join();
}

void ModuleInventory::watchdog() {
    std::unique_lock<std::mutex> lock(mutex);
    while (watchdogRunning) {
        Heartbeat::beat();
        lock.unlock();
        checkStatus();
        lock.lock();
        wake.wait_for(lock, std::chrono::seconds(1), [this] { return !watchdogRunning; });
    }
}

void ModuleInventory::checkStatus() {
    const int present = markerPresent() ? 1 : 0;
    if (present == status)
        return;
    status = present;
    publisher.replaceLastTxt("status", present ? "1" : "0");
    document.setStatus(present);
}
