#ifndef TAVRO_SERVICEMANAGER_H
#define TAVRO_SERVICEMANAGER_H

#include <signal.h>

#include <chrono>
#include <string>

// The service manager that started the daemon (systemd with Type=notify), told through the
// datagram socket that NOTIFY_SOCKET names when the services are up, and fed as a watchdog while
// every service thread makes progress (Heartbeat). Without NOTIFY_SOCKET it is not there and
// nothing is sent.
//
// The protocol is one datagram of text per notice, so it is written here rather than taken from
// libsystemd: every build, musl and cross ones included, behaves the same, and the daemon
// depends on no library that a device without systemd lacks.
class ServiceManager {
public:
    // From the environment: NOTIFY_SOCKET, and WATCHDOG_USEC when WATCHDOG_PID is absent or
    // this process.
    ServiceManager();
    ServiceManager(const ServiceManager&) = delete;
    ServiceManager& operator=(const ServiceManager&) = delete;

    // Sends one notice such as "READY=1"; false when there is no manager or the send failed.
    bool notify(const std::string& state) const;
    // The manager's watchdog timeout; zero when it has none.
    std::chrono::microseconds watchdogTimeout() const { return timeout; }
    // Returns once stop is set (by a signal handler). With a watchdog, wakes four times per
    // timeout and feeds it when no service thread has stood still for half the timeout.
    void waitFor(const volatile sig_atomic_t& stop) const;

private:
    std::string socketPath;
    std::chrono::microseconds timeout{0};
};

#endif
