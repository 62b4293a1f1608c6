#ifndef TAVRO_MODULEINVENTORY_H
#define TAVRO_MODULEINVENTORY_H

#include "InventoryXMLGenerator.h"
#include "Service.h"

#include <condition_variable>
#include <mutex>
#include <string>
#include <thread>

// Describes this module: announced as TXT records, written once to the module file, and its
// health status ("status=" record) kept up to date from the marker file every second.
class ModuleInventory : public Service {
public:
    explicit ModuleInventory(const Configuration& configuration);
    ~ModuleInventory() override;

    static constexpr const char* markerPath = "/tmp/status/watchdog/services-dead";

    // First line of /sys/class/net/<interface>/address, or "" when there is none.
    static std::string macAddress(const std::string& interface);

private:
    void watchdog();
    void checkStatus();

    InventoryXMLGenerator document;
    int status = 0;
    bool watchdogRunning = false;
    std::thread watchdogThread;
    // Lets the destructor end the watchdog's one-second sleep at once.
    std::mutex mutex;
    std::condition_variable wake;
};

#endif
