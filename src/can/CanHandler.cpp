#include "CanHandler.h"

#include "DecodedFrame.h"
#include "Heartbeat.h"
#include "Logger.h"
#include "NetHelpers.h"
#include "RealtimePriority.h"

#include <linux/can/raw.h>
#include <net/if.h>
#include <pthread.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <memory>
#include <sstream>
#include <system_error>

// The kernel's numbers where the C library does not name both time layouts.
#ifndef SO_TIMESTAMP_OLD
#define SO_TIMESTAMP_OLD 29
#endif
#ifndef SO_TIMESTAMP_NEW
#define SO_TIMESTAMP_NEW 63
#endif
#ifndef SO_TIMESTAMPING_OLD
#define SO_TIMESTAMPING_OLD 37
#endif
#ifndef SO_TIMESTAMPING_NEW
#define SO_TIMESTAMPING_NEW 65
#endif

namespace {

struct Registry {
    std::mutex mutex;
    std::map<std::string, std::unique_ptr<CanHandler>> handlers;
};

Registry& registry() {
    static Registry instance;
    return instance;
}

// Reads the (seconds, fraction) pair number index of a payload whose pairs are each two
// signed integers of width bytes, without assuming alignment.
void readPair(const unsigned char* payload, size_t width, size_t index, int64_t& seconds,
              int64_t& fraction) {
    const unsigned char* p = payload + index * 2 * width;
    if (width == 8) {
        memcpy(&seconds, p, 8);
        memcpy(&fraction, p + 8, 8);
        return;
    }
    int32_t s32;
    int32_t f32;
    memcpy(&s32, p, 4);
    memcpy(&f32, p + 4, 4);
    seconds = s32;
    fraction = f32;
}

union SocketAddress {
    sockaddr generic;
    sockaddr_can can;
    sockaddr_un local;
};

// A directory name, not a path: nothing that could leave the bus directory.
bool plainName(const std::string& name) {
    return !name.empty() && name != "." && name != ".." && name.find('/') == std::string::npos;
}

// Milliseconds since the epoch from the receive time stamp among the SOL_SOCKET control
// messages of msg (SCM_TIMESTAMP or the software stamp of SCM_TIMESTAMPING, in their
// 32- or 64-bit time layouts); false, timestamp untouched, when there is none.
bool controlTimestamp(const struct msghdr& msg, uint64_t& timestamp) {
    msghdr& walked = const_cast<msghdr&>(msg);
    const unsigned char* controlEnd =
        static_cast<const unsigned char*>(msg.msg_control) + msg.msg_controllen;
    bool found = false;
// musl's CMSG_NXTHDR compares a signed with an unsigned length.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wsign-compare"
    for (cmsghdr* c = CMSG_FIRSTHDR(&walked); c != nullptr; c = CMSG_NXTHDR(&walked, c)) {
        if (c->cmsg_level != SOL_SOCKET)
            break;
        const unsigned char* payload = CMSG_DATA(c);
        if (c->cmsg_len < CMSG_LEN(0) || payload > controlEnd)
            break;
        size_t length = c->cmsg_len - CMSG_LEN(0);
        if (length > static_cast<size_t>(controlEnd - payload))
            length = static_cast<size_t>(controlEnd - payload);
        int64_t seconds = 0;
        int64_t fraction = 0;
        if (c->cmsg_type == SO_TIMESTAMP_OLD || c->cmsg_type == SO_TIMESTAMP_NEW) {
            // struct timeval: two longs (old layout) or two 64-bit numbers.
            if (length != 16 && length != 8)
                continue;
            readPair(payload, length / 2, 0, seconds, fraction);
            timestamp = static_cast<uint64_t>(seconds * 1000 + fraction / 1000);
            found = true;
        } else if (c->cmsg_type == SO_TIMESTAMPING_OLD || c->cmsg_type == SO_TIMESTAMPING_NEW) {
            // Three timespecs, the software stamp first.
            if (length != 48 && length != 24)
                continue;
            readPair(payload, length / 6, 0, seconds, fraction);
            timestamp =
                static_cast<uint64_t>(seconds * 1000 + static_cast<int32_t>(fraction) / 1000000);
            found = true;
        }
    }
#pragma GCC diagnostic pop
    return found;
}

} // namespace

CanHandler* CanHandler::forInterface(const std::string& name) {
    Registry& r = registry();
    std::lock_guard<std::mutex> lock(r.mutex);
    std::unique_ptr<CanHandler>& slot = r.handlers[name];
    if (!slot)
        slot.reset(new CanHandler(name));
    return slot.get();
}

CanHandler::CanHandler(const std::string& name) : interface(name) {}

CanHandler::~CanHandler() {
    std::lock_guard<std::mutex> lock(controlMutex);
    halt();
}

void CanHandler::addDecoder(CanHook* hook, CanDecoder* decoder) {
    std::lock_guard<std::mutex> lock(hookMutex);
    hooks[hook].push_back(decoder);
}

size_t CanHandler::removeHook(CanHook* hook) {
    std::lock_guard<std::mutex> lock(hookMutex);
    hooks.erase(hook);
    return hooks.size();
}

void CanHandler::release(CanHook* hook) {
    std::lock_guard<std::mutex> lock(controlMutex);
    if (removeHook(hook) == 0 && running) {
        LOG(4) << "Stop can thread.";
        halt();
    }
}

int CanHandler::start() {
    std::lock_guard<std::mutex> lock(controlMutex);
    if (running)
        return 0;
    if (!openSocket()) {
        LOG(0) << "Can: No interfaces initialized.";
        return 1;
    }
    running = true;
    try {
        thread = std::thread(&CanHandler::readLoop, this);
    } catch (const std::system_error&) {
        LOG(1) << "Error creating can thread";
        running = false;
        closeSocket();
        return 1;
    }
    LOG(4) << "Start can thread.";
    return 0;
}

void CanHandler::stop() {
    LOG(4) << "Stop can thread.";
    std::lock_guard<std::mutex> lock(controlMutex);
    halt();
}

// With controlMutex held.
void CanHandler::halt() {
    running = false;
    if (thread.joinable()) {
        try {
            thread.join();
        } catch (const std::system_error&) {
            // Stopped from the reader's own hook call: it ends after that call returns.
            LOG(1) << "Error finishing can thread";
            thread.detach();
        }
    }
    closeSocket();
}

bool CanHandler::openSocket(bool report) {
    // Longer names do not fit an interface request; cutting them could bind another one.
    if (interface.size() >= IFNAMSIZ) {
        LOG(1) << "Can interface name too long: " << interface;
        return false;
    }
    const char* busRoot = getenv("TAVRO_VCAN_DIR");
    const bool virtualBus = busRoot != nullptr;
    int fd = virtualBus ? socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0)
                        : socket(AF_CAN, SOCK_RAW | SOCK_CLOEXEC, CAN_RAW);
    if (fd < 0) {
        if (report) {
            LOG(1) << "Error while opening can socket";
        }
        return false;
    }
    struct timeval timeout;
    timeout.tv_sec = 0;
    timeout.tv_usec = 10000;
    setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof timeout);
    // Frames wait here while a service's full queue holds the reader up (FrameQueue), so more
    // room than the default. The system caps it at net.core.rmem_max; a failure leaves the
    // default.
    const int room = 1 << 20;
    setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &room, sizeof room);

    SocketAddress address;
    memset(&address, 0, sizeof address);
    socklen_t addressLength = 0;
    std::string path;
    bool known = false;
    if (virtualBus) {
        const std::string bus = std::string(busRoot) + "/" + interface;
        struct stat info;
        if (plainName(interface) && stat(bus.c_str(), &info) == 0 && S_ISDIR(info.st_mode)) {
            std::ostringstream name;
            name << bus << "/tavro-" << getpid() << '-' << static_cast<const void*>(this);
            path = name.str();
            known = path.size() < sizeof address.local.sun_path;
        }
        if (known) {
            address.local.sun_family = AF_UNIX;
            memcpy(address.local.sun_path, path.c_str(), path.size());
            addressLength = sizeof address.local;
            LOG(4) << interface << " at " << bus;
        }
    } else {
        struct ifreq request;
        memset(&request, 0, sizeof request);
        memcpy(request.ifr_name, interface.c_str(), interface.size());
        known = ioctl(fd, SIOCGIFINDEX, &request) == 0;
        if (known) {
            address.can.can_family = AF_CAN;
            address.can.can_ifindex = request.ifr_ifindex;
            addressLength = sizeof address.can;
            LOG(4) << interface << " at index " << request.ifr_ifindex;
        }
    }
    // An unknown interface fails like its bind: index 0 would bind every CAN interface.
    if (!known) {
        if (report) {
            LOG(1) << "Error in socket bind";
        }
        close(fd);
        return false;
    }

    const int enable = 1;
    if (setsockopt(fd, SOL_SOCKET, SO_TIMESTAMP, &enable, sizeof enable) != 0) {
        LOG(1) << "setsockopt SO_TIMESTAMPING is not supported by your Linux kernel";
    }
    // Left behind by a process that had our pid.
    if (virtualBus)
        unlink(path.c_str());
    if (bind(fd, &address.generic, addressLength) != 0) {
        if (report) {
            LOG(1) << "Error in socket bind";
        }
        close(fd);
        return false;
    }
    struct stat bound;
    boundInode = virtualBus && stat(path.c_str(), &bound) == 0 ? bound.st_ino : 0;
    socketFd = fd;
    boundPath = path;
    return true;
}

bool CanHandler::boundPathLost() const {
    if (boundPath.empty())
        return false;
    struct stat info;
    return stat(boundPath.c_str(), &info) != 0 || info.st_ino != boundInode;
}

void CanHandler::closeSocket() {
    if (socketFd >= 0)
        close(socketFd);
    socketFd = -1;
    if (!boundPath.empty())
        unlink(boundPath.c_str());
    boundPath.clear();
}

void CanHandler::readLoop() {
    // Names the thread in top -H and ps -L; the kernel keeps 15 characters.
    pthread_setname_np(pthread_self(), ("can " + interface).substr(0, 15).c_str());
    RealtimePriority::apply();
    can_frame frame;
    memset(&frame, 0, sizeof frame);
    SocketAddress source;
    union {
        cmsghdr align;
        unsigned char bytes[80];
    } control;
    struct iovec vector;
    vector.iov_base = &frame;
    vector.iov_len = sizeof frame;
    struct msghdr message;
    memset(&message, 0, sizeof message);
    message.msg_iov = &vector;
    message.msg_iovlen = 1;
    uint64_t timestamp = 0;
    // A lost interface is looked for again, and a virtual bus socket checked, once a second.
    using Clock = std::chrono::steady_clock;
    Clock::time_point nextCheck = Clock::now() + std::chrono::seconds(1);
    bool lost = false;

    while (running) {
        Heartbeat::beat();
        if (lost) {
            if (Clock::now() < nextCheck) {
                usleep(10000);
                continue;
            }
            nextCheck = Clock::now() + std::chrono::seconds(1);
            if (openSocket(false)) {
                lost = false;
                LOG(2) << "Can: " << interface << " is back.";
            }
            continue;
        }
        message.msg_name = &source.can;
        message.msg_namelen = sizeof source.can;
        message.msg_control = control.bytes;
        message.msg_controllen = sizeof control.bytes;
        message.msg_flags = 0;
        const ssize_t received = recvmsg(socketFd, &message, 0);
        if (received < 0) {
            const int error = errno;
            const char* reason = nullptr;
            if (error == EAGAIN || error == EWOULDBLOCK || error == EINTR) {
                // Nothing says that a virtual bus directory went away but its silence.
                if (Clock::now() < nextCheck)
                    continue;
                nextCheck = Clock::now() + std::chrono::seconds(1);
                if (!boundPathLost())
                    continue;
                reason = "its bus socket was removed";
            } else if (error == ENETDOWN) {
                // Still bound: frames come again once the interface is up.
                LOG(1) << "Can: " << interface << " is down.";
                continue;
            } else {
                reason = strerror(error);
            }
            LOG(1) << "Can: " << interface << " is gone (" << reason
                   << "). Opening it again every second.";
            closeSocket();
            lost = true;
            nextCheck = Clock::now() + std::chrono::seconds(1);
            continue;
        }
        // A record too short to be a frame.
        if (received < static_cast<ssize_t>(sizeof frame))
            continue;
        controlTimestamp(message, timestamp);
        LOGV(8, 4) << std::hex << (frame.can_id & CAN_EFF_MASK) << " [" << unsigned(frame.can_dlc)
                   << "] " << toHex(frame.data, 8);
        dispatch(frame, timestamp);
    }
}

void CanHandler::dispatch(const can_frame& frame, uint64_t timestamp) {
    // The hooks log under hookMutex and locks of their own, which other readers and services
    // wait for: the logger's thread does the writing.
    LogLine::Deferral deferral;
    std::lock_guard<std::mutex> lock(hookMutex);
    try {
        for (auto& [hook, decoders] : hooks) {
            for (CanDecoder* decoder : decoders) {
                const bool shared = decoder->acceptsShared(frame);
                const bool taken = decoder->accepts(frame);
                if (!shared && !taken)
                    continue;
                std::unique_ptr<DecodedFrame> decoded(decoder->decode(frame));
                if (!decoded)
                    continue;
                decoded->setTimestamp(timestamp);
                hook->handleFrame(decoded.get());
                if (!shared)
                    break;
            }
        }
    } catch (const std::exception& error) {
        // Out of memory in a decoder or hook: this frame is lost, the reader goes on.
        LOG(0) << "Can: frame on " << interface << " dropped: " << error.what();
    }
}
