#ifndef TAVRO_GNSS_H
#define TAVRO_GNSS_H

#include "GnssXMLGenerator.h"
#include "MulticastSender.h"
#include "Service.h"
#include "XMLHook.h"

#include <json/json.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

// Follows the local gpsd (JSON reports and raw NMEA) and multicasts the vehicle position as
// a GNSSLocationDelivery document once a second. The reader thread reconnects by itself
// whenever gpsd goes away.
class Gnss : public Service, public XMLHook {
public:
    explicit Gnss(const Configuration& configuration);
    ~Gnss() override;

    // Sends one finished document; called by the generator's thread.
    void deliver(std::stringstream& document) override;

    // One line from gpsd, as the reader thread handles it.
    void handleLine(const std::string& line);

    // Longest line taken from gpsd, line end included; a longer one is dropped whole.
    static constexpr size_t maxLineLength = 65536;
    // Deepest JSON nesting of a gpsd line (gpsd's own go 3 deep). JsonCpp parses by recursion
    // and by default allows 1000 levels, more than a 128 KiB musl thread stack holds.
    static constexpr int maxJsonDepth = 64;
    // A reader waiting on a silent gpsd looks at the running flag this often.
    static constexpr std::chrono::milliseconds pollInterval{200};
    // Waits after a connection that gpsd closed before any report, doubling per such connection.
    static constexpr std::chrono::seconds minBackoff{1};
    static constexpr std::chrono::seconds maxBackoff{30};
    // A connect that neither succeeds nor fails in this time (a host that is gone) has failed.
    static constexpr std::chrono::seconds connectTimeout{5};
    // A gpsd host that answers no keepalive probe is given up after idle + probes x interval.
    static constexpr std::chrono::seconds keepaliveIdle{10};
    static constexpr std::chrono::seconds keepaliveInterval{5};
    static constexpr int keepaliveProbes = 3;

private:
    enum class ReadResult { Line, Failed, Stopped };
    enum class Attempt { Connected, Failed, Fatal, Stopped };
    enum class ReadyResult { Ready, TimedOut, Stopped };

    void startReader();
    void stopReader();
    void readerMain();
    // One connection attempt with a fresh socket. Fatal: no socket or address at all.
    Attempt connectOnce();
    ReadResult readLine(std::string& line);
    // Waits for the socket to become ready for events, until the deadline.
    ReadyResult waitReady(short events, std::chrono::steady_clock::time_point deadline);
    // False when stopped before the time was up.
    bool pause(std::chrono::milliseconds duration);
    void closeSocket();

    std::atomic<bool> running{false};
    std::thread reader;
    const std::string multicastAddress;
    const std::string servicePort;
    const std::string networkInterface;
    const uint8_t multicastTtl;
    const std::string gpsdAddress;
    const std::string gpsdPort;
    // Used by the reader thread only.
    int socketFd = -1;
    // Declared before the generator, whose thread sends through it until it is joined.
    MulticastSender sender;
    GnssXMLGenerator generator;
    const std::unique_ptr<Json::CharReader> jsonReader;
    // Lets stop() end the reader's pause between connection attempts at once.
    std::mutex mutex;
    std::condition_variable wake;
};

// The JSON reader for gpsd lines, with nesting bounded to Gnss::maxJsonDepth.
std::unique_ptr<Json::CharReader> newGpsdReader();

// Hands one line of gpsd output to the generator: an NMEA sentence ('$' first) goes into
// the document's Data, a TPV or SKY report gives position and quality values. Anything else
// is logged and dropped; nothing is thrown.
void handleGpsdLine(const std::string& line, Json::CharReader& reader, GnssXMLGenerator& generator);

#endif
