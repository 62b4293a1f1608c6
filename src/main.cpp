#include "Configuration.h"
#include "FcgiHandler.h"
#include "Fmstoip.h"
#include "FmstoipFcgi.h"
#include "Gnss.h"
#include "Logger.h"
#include "ModuleInventory.h"
#include "MqttBroker.h"
#include "RealtimePriority.h"
#include "ServiceManager.h"
#include "TimeService.h"
#include "Vtoip.h"

#include <arpa/inet.h>
#include <getopt.h>
#include <signal.h>
#include <syslog.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>

volatile sig_atomic_t caughtSignal = 0;

namespace {

const char* const serviceEntries[] = {"all",  "inventory",   "fmstoip", "time",
                                      "gnss", "vehicletoip", "mqtt"};
constexpr int serviceCount = 7;
enum ServiceIndex { All, Inventory, FmsToIp, Time, GnssIndex, VehicleToIp, Mqtt };

const char* const optionHelp[] = {
    "OPTIONS:",
    "  -v[v[v]], --verbose  : verbose",
    "  -q, --quiet          : quiet",
    "  -s, --syslog         : write log to syslog",
    "  -h, --help           : show USAGE",
    "  --version            : show VERSION",
};

const std::string configDir = "/etc/tavro/";

void printServices() {
    printf("Available services:\n");
    for (const char* entry : serviceEntries)
        printf("tavro-%s\n", entry);
    fflush(stdout);
}

void printUsage(const char* argv0) {
    printf("USAGE: %s [OPTIONS]\n\n", argv0);
    fflush(stdout);
    for (const char* line : optionHelp) {
        printf("%s\n", line);
        fflush(stdout);
    }
}

void printVersion() {
    printf("tavro unknown-version\n");
    printf("Copyright (C) 2026 The tavro developers. All rights reserved.\n");
    fflush(stdout);
}

// Only async-signal-safe calls here: the main loop does the rest.
void onSignal(int sig) {
    char text[32] = "Caught signal ";
    size_t len = 14;
    char digits[12];
    size_t n = 0;
    unsigned value = static_cast<unsigned>(sig);
    do {
        digits[n++] = static_cast<char>('0' + value % 10);
        value /= 10;
    } while (value != 0 && n < sizeof digits);
    while (n > 0)
        text[len++] = digits[--n];
    text[len++] = '\n';
    ssize_t ignored = write(STDOUT_FILENO, text, len);
    (void)ignored;
    caughtSignal = sig;
}

void raiseVerbosity() {
    if (verbosity == 2)
        verbosity = 3;
    else if (verbosity == 3)
        verbosity = 4;
    else if (verbosity == 4)
        verbosity = 8;
}

// Services of this process, released at shutdown in a fixed order.
struct Services {
    std::shared_ptr<ModuleInventory> inventory;
    std::shared_ptr<Fmstoip> fmstoip;
    std::shared_ptr<FmstoipFcgi> fmstoipFcgi;
    std::shared_ptr<TimeService> timeService;
    std::shared_ptr<Gnss> gnss;
    std::shared_ptr<Vtoip> vtoip;
    std::shared_ptr<MqttBroker> mqttBroker;
};

// "fcgi_port" must be a decimal number; without one the FastCGI front end stays off
// rather than listening on a port nobody configured.
bool fcgiPort(const Configuration& general, uint16_t& port) {
    const std::string text = general.getString("fcgi_port");
    long value = 0;
    if (!decimalValue(text, value) || value < INT32_MIN || value > INT32_MAX) {
        LOG(0) << "No valid \"fcgi_port\" in configuration (\"" << text
               << "\"). FastCGI front end not started.";
        return false;
    }
    port = static_cast<uint16_t>(value);
    return true;
}

// "fcgi_address", when there, must be an IPv4 address: a typo must not open the port to the
// whole vehicle network.
bool fcgiAddress(const Configuration& general, std::string& address) {
    if (!general.hasKey("fcgi_address"))
        return true;
    address = general.getString("fcgi_address");
    in_addr parsed;
    if (inet_pton(AF_INET, address.c_str(), &parsed) == 1)
        return true;
    LOG(0) << "No valid \"fcgi_address\" in configuration (\"" << address
           << "\"). FastCGI front end not started.";
    return false;
}

void startInventory(const Configuration& general, Services& services) {
    Configuration conf(general, configDir + "inventory.conf");
    LOG(3) << "Starting inventory service.";
    services.inventory = std::shared_ptr<ModuleInventory>(new ModuleInventory(conf));
}

void startFmstoip(const Configuration& general, Services& services) {
    Configuration conf(general, configDir + "fmstoip.conf");
    Configuration addConf(general, configDir + "addpgn.conf");
    Configuration removeConf(general, configDir + "removepgn.conf");
    Configuration getConf(general, configDir + "getpgn.conf");
    LOG(3) << "Starting fmstoip service.";
    services.fmstoipFcgi =
        std::shared_ptr<FmstoipFcgi>(new FmstoipFcgi(addConf, removeConf, getConf));
    services.fmstoip = std::shared_ptr<Fmstoip>(new Fmstoip(conf));
    services.fmstoipFcgi->set_pgn_hook(services.fmstoip.get());
    uint16_t port = 0;
    std::string address;
    if (fcgiPort(general, port) && fcgiAddress(general, address))
        FcgiHandler::start(port, address);
}

void startTime(const Configuration& general, Services& services) {
    Configuration conf(general, configDir + "time.conf");
    LOG(3) << "Starting time service.";
    services.timeService = std::shared_ptr<TimeService>(new TimeService(conf));
}

void startGnss(const Configuration& general, Services& services) {
    Configuration conf(general, configDir + "gnss.conf");
    LOG(3) << "Starting gnss service.";
    services.gnss = std::shared_ptr<Gnss>(new Gnss(conf));
}

void startVehicleToIp(const Configuration& general, Services& services) {
    Configuration conf(general, configDir + "vehicletoip.conf");
    LOG(3) << "Starting vtoip service.";
    services.vtoip = std::shared_ptr<Vtoip>(new Vtoip(conf));
}

void startMqtt(const Configuration& general, Services& services) {
    Configuration conf(general, configDir + "mqttbroker.conf");
    LOG(3) << "Starting mqttbroker service.";
    services.mqttBroker = std::shared_ptr<MqttBroker>(new MqttBroker(conf));
}

// Each release joins the service's threads and withdraws its announcement.
void releaseServices(Services& services) {
    services.mqttBroker.reset();
    services.vtoip.reset();
    services.gnss.reset();
    services.fmstoipFcgi.reset();
    services.timeService.reset();
    services.fmstoip.reset();
    services.inventory.reset();
}

} // namespace

int main(int argc, char** argv) {
    // SIGINT and SIGTERM are for the main thread's pause(): every thread started from here on
    // inherits them blocked. Taken by another thread, a signal would leave main paused for ever.
    sigset_t stopSignals;
    sigemptyset(&stopSignals);
    sigaddset(&stopSignals, SIGINT);
    sigaddset(&stopSignals, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &stopSignals, nullptr);
    const std::vector<std::string> pathPieces = splitString(argc > 0 ? argv[0] : "", '/');
    // openlog keeps the pointer: the ident lives until main returns.
    const std::string invocation = pathPieces.empty() ? std::string() : pathPieces.back();
    int index = -1;
    for (int i = 0; i < serviceCount; ++i) {
        if (invocation == std::string("tavro-") + serviceEntries[i]) {
            index = i;
            break;
        }
    }
    if (index < 0) {
        printServices();
        return 1;
    }

    static const struct option longOptions[] = {
        {"version", no_argument, nullptr, 0},  {"verbose", no_argument, nullptr, 'v'},
        {"syslog", no_argument, nullptr, 's'}, {"help", no_argument, nullptr, 'h'},
        {"quiet", no_argument, nullptr, 'q'},  {nullptr, 0, nullptr, 0}};
    int opt;
    while ((opt = getopt_long(argc, argv, "shqv03", longOptions, nullptr)) != -1) {
        switch (opt) {
        case 's':
            openlog(invocation.c_str(), 0, LOG_USER);
            useSyslog = true;
            break;
        case 'v':
            raiseVerbosity();
            break;
        case 'q':
            verbosity = 0;
            break;
        case 0:
            printVersion();
            return 0;
        default: // -h, -0, -3 and unknown options
            printUsage(argv[0]);
            return 1;
        }
    }

    auto general = std::make_unique<Configuration>(configDir + "tavro.conf");
    RealtimePriority::configure(*general);
    Services services;
    if (index == All || index == Inventory)
        startInventory(*general, services);
    if (index == All || index == FmsToIp)
        startFmstoip(*general, services);
    if (index == All || index == Time)
        startTime(*general, services);
    if (index == All || index == GnssIndex)
        startGnss(*general, services);
    if (index == All || index == VehicleToIp)
        startVehicleToIp(*general, services);
    if (index == All || index == Mqtt)
        startMqtt(*general, services);

    // Cleared before the handler exists, so that no caught signal can be overwritten.
    caughtSignal = 0;
    signal(SIGINT, onSignal);
    // How init systems stop a daemon.
    signal(SIGTERM, onSignal);
    pthread_sigmask(SIG_UNBLOCK, &stopSignals, nullptr);
    const ServiceManager manager;
    manager.notify("READY=1");
    manager.waitFor(caughtSignal);

    manager.notify("STOPPING=1");
    LOG(2) << "Closing program...";
    FcgiHandler::stop();
    closelog();
    LOGV(8, 8) << "Returning " << caughtSignal;
    releaseServices(services);
    general.reset();
    LogLine::flushRepeats();
    return caughtSignal;
}
