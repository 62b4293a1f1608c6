#include "AvahiHandler.h"

#include "Logger.h"

#include <avahi-common/error.h>
#include <net/if.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <cassert>
#include <system_error>

namespace {

constexpr int pollTimeoutMs = 1000;

// _exit, not exit: several publisher threads may fail at the same moment, and static
// destructors must not run while the other threads still use the objects.
[[noreturn]] void endProcess() {
    _exit(1);
}

void drainWake(AvahiWatch*, int fd, AvahiWatchEvent, void*) {
    uint64_t count;
    ssize_t ignored = read(fd, &count, sizeof count);
    (void)ignored;
}

} // namespace

AvahiHandler::AvahiHandler() = default;

AvahiHandler::~AvahiHandler() {
    join();
    avahi_string_list_free(txt);
    if (wakeFd >= 0)
        close(wakeFd);
}

void AvahiHandler::setName(const std::string& name) {
    std::lock_guard<std::mutex> lock(mutex);
    serviceName = name;
}

void AvahiHandler::setType(const std::string& label) {
    std::lock_guard<std::mutex> lock(mutex);
    type = label;
}

void AvahiHandler::setProtocol(const std::string& label) {
    std::lock_guard<std::mutex> lock(mutex);
    transport = label;
}

void AvahiHandler::setDomain(const std::string& domain) {
    domainText = domain;
}

void AvahiHandler::setPort(uint16_t port) {
    std::lock_guard<std::mutex> lock(mutex);
    servicePort = port;
}

void AvahiHandler::setInterface(const std::string& name) {
    interfaceName = name;
}

void AvahiHandler::addTxt(const std::string& text) {
    if (AvahiStringList* list = avahi_string_list_add(txt, text.c_str()))
        txt = list;
}

void AvahiHandler::withhold() {
    withholding = true;
}

void AvahiHandler::replaceLastTxt(const std::string& key, const std::string& value) {
    {
        std::lock_guard<std::mutex> lock(mutex);
        AvahiStringList* rest = nullptr;
        if (txt != nullptr) {
            rest = txt->next;
            txt->next = nullptr;
            avahi_string_list_free(txt);
        }
        AvahiStringList* list = avahi_string_list_add_pair(rest, key.c_str(), value.c_str());
        txt = list != nullptr ? list : rest;
    }
    ++republishCount;
}

int AvahiHandler::start() {
    if (withholding || thread.joinable())
        return -1;
    if (wakeFd < 0)
        wakeFd = eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
    else
        drainWake(nullptr, wakeFd, AVAHI_WATCH_IN, nullptr); // left over from an earlier join
    running = true;
    restartRequested = false;
    try {
        thread = std::thread(&AvahiHandler::threadMain, this);
    } catch (const std::system_error&) {
        running = false;
        LOG(1) << "Error creating avahi thread \"" << name() << "\".";
        return -1;
    }
    return 0;
}

int AvahiHandler::join() {
    if (!thread.joinable())
        return 0;
    running = false;
    // Without the wake-up the loop would notice only at the end of its poll turn.
    if (wakeFd >= 0) {
        const uint64_t one = 1;
        ssize_t ignored = write(wakeFd, &one, sizeof one);
        (void)ignored;
    }
    try {
        thread.join();
    } catch (const std::system_error&) {
        return -1;
    }
    LOG(4) << "avahi thread finished.";
    return 0;
}

std::string AvahiHandler::name() const {
    std::lock_guard<std::mutex> lock(mutex);
    return serviceName;
}

std::string AvahiHandler::serviceType() const {
    std::lock_guard<std::mutex> lock(mutex);
    return "_" + type + "._" + transport;
}

std::string AvahiHandler::domain() const {
    return domainText;
}

uint16_t AvahiHandler::port() const {
    std::lock_guard<std::mutex> lock(mutex);
    return servicePort;
}

std::vector<std::string> AvahiHandler::txtRecords() const {
    std::lock_guard<std::mutex> lock(mutex);
    std::vector<std::string> records;
    for (AvahiStringList* item = txt; item != nullptr; item = avahi_string_list_get_next(item))
        records.emplace_back(reinterpret_cast<const char*>(avahi_string_list_get_text(item)),
                             avahi_string_list_get_size(item));
    std::reverse(records.begin(), records.end());
    return records;
}

void AvahiHandler::clientCallback(AvahiClient* client, AvahiClientState state, void* handler) {
    assert(client != nullptr);
    (void)client;
    AvahiHandler* self = static_cast<AvahiHandler*>(handler);
    switch (state) {
    case AVAHI_CLIENT_S_REGISTERING:
        LOG(4) << "AVAHI_CLIENT_S_REGISTERING";
        break;
    case AVAHI_CLIENT_S_RUNNING:
        LOG(4) << "AVAHI_CLIENT_S_RUNNING";
        self->restartRequested = false;
        break;
    case AVAHI_CLIENT_S_COLLISION:
        LOG(4) << "AVAHI_CLIENT_S_COLLISION";
        break;
    case AVAHI_CLIENT_FAILURE:
        LOG(4) << "AVAHI_CLIENT_FAILURE";
        self->restartRequested = true;
        break;
    case AVAHI_CLIENT_CONNECTING:
        LOG(4) << "AVAHI_CLIENT_CONNECTING";
        break;
    }
}

void AvahiHandler::entryGroupCallback(AvahiEntryGroup*, AvahiEntryGroupState state, void*) {
    switch (state) {
    case AVAHI_ENTRY_GROUP_UNCOMMITED:
        LOG(4) << "AVAHI_ENTRY_GROUP_UNCOMMITED";
        break;
    case AVAHI_ENTRY_GROUP_REGISTERING:
        LOG(4) << "AVAHI_ENTRY_GROUP_REGISTERING";
        break;
    case AVAHI_ENTRY_GROUP_ESTABLISHED:
        LOG(4) << "AVAHI_ENTRY_GROUP_ESTABLISHED";
        break;
    case AVAHI_ENTRY_GROUP_COLLISION:
        LOG(4) << "Service name collision";
        break;
    case AVAHI_ENTRY_GROUP_FAILURE:
        LOG(4) << "Entry group failure";
        break;
    }
}

void AvahiHandler::threadMain() {
    republishCount = 0;
    publish();
    while (running) {
        if (simplePoll == nullptr) {
            // No poll object could be made: run no loop, try the whole publication again later.
            pauseBeforeRetry();
            if (running) {
                // The publication below takes the latest settings, so nothing pending is lost.
                republishCount = 0;
                restartRequested = false;
                publish();
            }
            continue;
        }
        if (avahi_simple_poll_iterate(simplePoll, pollTimeoutMs) != 0)
            running = false;
        if (!interfaceName.empty()) {
            const unsigned index = if_nametoindex(interfaceName.c_str());
            if (index != 0 && static_cast<int>(index) != interfaceIndex)
                ++republishCount;
        }
        if (restartRequested)
            ++republishCount;
        if (running && republishCount > 0) {
            releaseClient();
            publish();
            --republishCount;
        }
    }
    releaseClient();
}

void AvahiHandler::pauseBeforeRetry() {
    if (wakeFd < 0) {
        for (int i = 0; i < 10 && running; ++i)
            usleep(pollTimeoutMs * 100);
        return;
    }
    struct pollfd wake = {wakeFd, POLLIN, 0};
    ::poll(&wake, 1, pollTimeoutMs);
}

void AvahiHandler::newClient() {
    int error = 0;
    client = avahi_client_new(avahi_simple_poll_get(simplePoll), AVAHI_CLIENT_NO_FAIL,
                              clientCallback, this, &error);
    if (client == nullptr) {
        LOG(0) << "avahi_client_new() failed.";
        LOG(0) << "Is the avahi-daemon running?";
        endProcess();
    }
}

int AvahiHandler::publish() {
    {
        std::lock_guard<std::mutex> lock(mutex);
        simplePoll = avahi_simple_poll_new();
        if (simplePoll == nullptr) {
            LOG(0) << "Failed to create simple poll object.";
            return 1;
        }
        const AvahiPoll* api = avahi_simple_poll_get(simplePoll);
        if (wakeFd >= 0)
            api->watch_new(api, wakeFd, AVAHI_WATCH_IN, drainWake, nullptr);
        newClient();
    }

    // The wait runs without the mutex: a caller of replaceLastTxt (the inventory watchdog)
    // would otherwise block until the daemon comes, and its owner's destructor, which joins
    // that caller before this thread, would never return. Only this thread touches the client
    // and the poll object.
    LOG(2) << "waiting for avahi to start...";
    while (avahi_client_get_state(client) != AVAHI_CLIENT_S_RUNNING) {
        if (!running)
            return -1;
        if (avahi_simple_poll_iterate(simplePoll, pollTimeoutMs) != 0) {
            running = false;
            return -1;
        }
        if (!running)
            return -1;
        // A client that failed while connecting never comes back: start over with a new one.
        if (avahi_client_get_state(client) == AVAHI_CLIENT_FAILURE) {
            std::lock_guard<std::mutex> lock(mutex);
            avahi_client_free(client);
            client = nullptr;
            newClient();
        }
    }

    std::lock_guard<std::mutex> lock(mutex);
    group = avahi_entry_group_new(client, entryGroupCallback, this);
    if (group == nullptr) {
        LOG(0) << "avahi_entry_group_new() failed";
        endProcess();
    }
    const std::string fullType = "_" + type + "._" + transport;
    interfaceIndex = interfaceName.empty()
                         ? AVAHI_IF_UNSPEC
                         : static_cast<int>(if_nametoindex(interfaceName.c_str()));
    // Printed as 32 bits on every platform, so "unspecified" always reads 4294967295.
    LOG(4) << "ifname: " << interfaceName << " ifindex: " << static_cast<uint32_t>(interfaceIndex);
    const int added = avahi_entry_group_add_service_strlst(
        group, interfaceIndex, AVAHI_PROTO_INET, static_cast<AvahiPublishFlags>(0),
        serviceName.c_str(), fullType.c_str(), nullptr, nullptr, servicePort, txt);
    if (added < 0) {
        // Bad names, types or TXT records would otherwise leave the service silently unannounced.
        LOG(1) << "Service \"" << serviceName << "\" of type " << fullType
               << " not announced: " << avahi_strerror(added);
        return 0;
    }
    avahi_entry_group_commit(group);
    return 0;
}

void AvahiHandler::releaseClient() {
    std::lock_guard<std::mutex> lock(mutex);
    if (simplePoll != nullptr)
        avahi_simple_poll_quit(simplePoll);
    if (client != nullptr) {
        // Frees the entry group too, which withdraws the service.
        avahi_client_free(client);
        client = nullptr;
        group = nullptr;
    }
    if (simplePoll != nullptr) {
        avahi_simple_poll_free(simplePoll);
        simplePoll = nullptr;
    }
}
