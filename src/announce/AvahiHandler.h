#ifndef TAVRO_AVAHIHANDLER_H
#define TAVRO_AVAHIHANDLER_H

#include <avahi-client/client.h>
#include <avahi-client/publish.h>
#include <avahi-common/simple-watch.h>
#include <avahi-common/strlst.h>

#include <atomic>
#include <cstdint>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

// Publishes one DNS-SD service through the local Avahi daemon and keeps it published: it waits
// for the daemon, and announces anew when the TXT records change, when the client fails or when
// the named network interface is re-created. Runs a thread with its own Avahi poll loop.
class AvahiHandler {
public:
    AvahiHandler();
    virtual ~AvahiHandler();
    AvahiHandler(const AvahiHandler&) = delete;
    AvahiHandler& operator=(const AvahiHandler&) = delete;

    void setName(const std::string& name);
    // Label without underscore and transport: "ntp" is published as "_ntp._" + transport.
    void setType(const std::string& type);
    void setProtocol(const std::string& transport);
    void setDomain(const std::string& domain);
    void setPort(uint16_t port);
    // Empty (the default) publishes on all interfaces. Only before start().
    void setInterface(const std::string& name);
    // One complete "key=value" record. Only before start().
    void addTxt(const std::string& text);
    // Keeps the publisher from ever announcing: start() then starts no thread.
    void withhold();

    // Replaces the most recently added TXT record by key=value; published on the next turn.
    void replaceLastTxt(const std::string& key, const std::string& value);

    int start();
    int join();

    std::string name() const;
    // The full type as published, e.g. "_mqtt._tcp".
    std::string serviceType() const;
    std::string domain() const;
    uint16_t port() const;
    // TXT records in the order they were added.
    std::vector<std::string> txtRecords() const;

private:
    static void clientCallback(AvahiClient* client, AvahiClientState state, void* handler);
    static void entryGroupCallback(AvahiEntryGroup* group, AvahiEntryGroupState state,
                                   void* handler);

    void threadMain();
    int publish();
    void newClient();
    void releaseClient();
    void pauseBeforeRetry();

    std::string interfaceName;
    AvahiEntryGroup* group = nullptr;
    AvahiClient* client = nullptr;
    AvahiSimplePoll* simplePoll = nullptr;
    std::atomic<bool> running{false};
    std::atomic<bool> restartRequested{false};
    std::atomic<int> republishCount{0};
    std::string serviceName;
    std::string type;
    std::string transport;
    std::string domainText;
    int interfaceIndex = 0;
    uint16_t servicePort = 0;
    bool withholding = false;
    AvahiStringList* txt = nullptr;
    std::thread thread;
    // Written by join() to wake the poll loop at once; outlives every poll object.
    int wakeFd = -1;
    // Guards the settings, the TXT list and changes of the Avahi handles; publish() takes it
    // while it builds, not while it waits for the daemon.
    mutable std::mutex mutex;
};

#endif
