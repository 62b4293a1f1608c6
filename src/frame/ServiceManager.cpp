#include "ServiceManager.h"

#include "Heartbeat.h"
#include "Logger.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <ctime>

ServiceManager::ServiceManager() {
    const char* path = getenv("NOTIFY_SOCKET");
    if (path == nullptr || (path[0] != '/' && path[0] != '@'))
        return;
    socketPath = path;
    // Inherited by a child that the manager does not watch.
    const char* pid = getenv("WATCHDOG_PID");
    if (pid != nullptr && strtol(pid, nullptr, 10) != getpid())
        return;
    const char* usec = getenv("WATCHDOG_USEC");
    if (usec == nullptr)
        return;
    char* end = nullptr;
    errno = 0;
    const unsigned long long value = strtoull(usec, &end, 10);
    if (errno == 0 && *end == '\0' && end != usec)
        timeout = std::chrono::microseconds(value);
}

bool ServiceManager::notify(const std::string& state) const {
    if (socketPath.empty())
        return false;
    sockaddr_un address;
    memset(&address, 0, sizeof address);
    address.sun_family = AF_UNIX;
    if (socketPath.size() >= sizeof address.sun_path)
        return false;
    memcpy(address.sun_path, socketPath.data(), socketPath.size());
    // An abstract socket name: the leading '@' stands for a zero byte and the name has no end
    // mark.
    socklen_t length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + socketPath.size());
    if (address.sun_path[0] == '@')
        address.sun_path[0] = '\0';
    else
        ++length;
    const int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (fd < 0)
        return false;
    const ssize_t sent = sendto(fd, state.data(), state.size(), MSG_NOSIGNAL,
                                reinterpret_cast<const sockaddr*>(&address), length);
    close(fd);
    return sent == static_cast<ssize_t>(state.size());
}

void ServiceManager::waitFor(const volatile sig_atomic_t& stop) const {
    if (timeout.count() == 0) {
        while (stop == 0)
            pause();
        return;
    }
    const auto step = std::max(timeout / 4, std::chrono::microseconds(10000));
    std::string stalled;
    while (stop == 0) {
        const std::string now = Heartbeat::stalled(timeout / 2);
        if (now != stalled) {
            if (!now.empty())
                LOG(1) << "Thread " << now << " has made no progress for "
                       << timeout.count() / 2000000.0 << " s: watchdog not fed.";
            else
                LOG(2) << "Thread " << stalled << " makes progress again.";
            stalled = now;
        }
        if (stalled.empty())
            notify("WATCHDOG=1");
        // A signal ends the sleep early.
        timespec rest;
        rest.tv_sec = static_cast<time_t>(step.count() / 1000000);
        rest.tv_nsec = static_cast<long>(step.count() % 1000000 * 1000);
        nanosleep(&rest, nullptr);
    }
}
