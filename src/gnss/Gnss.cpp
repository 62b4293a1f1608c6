#include "Gnss.h"

#include "Heartbeat.h"
#include "Logger.h"
#include "XmlText.h"

#include <arpa/inet.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <pthread.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <system_error>

namespace {

const char watchCommand[] = "?WATCH={\"class\":\"WATCH\", \"json\":true, \"nmea\":true};";
constexpr size_t watchCommandLength = sizeof watchCommand - 1;
static_assert(watchCommandLength == 51, "gpsd expects the whole WATCH command");

// Field readers for one report. A missing field reads as 0, false or empty text; a present
// field of another JSON type makes the reader return false, and the report is skipped.
bool numberField(const Json::Value& report, const char* key, double& value) {
    value = 0;
    if (!report.isMember(key))
        return true;
    const Json::Value& field = report[key];
    if (!field.isNumeric())
        return false;
    value = field.asDouble();
    return true;
}

bool intField(const Json::Value& report, const char* key, int& value) {
    value = 0;
    if (!report.isMember(key))
        return true;
    const Json::Value& field = report[key];
    if (!field.isInt())
        return false;
    value = field.asInt();
    return true;
}

bool textField(const Json::Value& report, const char* key, std::string& value) {
    value.clear();
    if (!report.isMember(key))
        return true;
    const Json::Value& field = report[key];
    if (!field.isString())
        return false;
    value = field.asString();
    return true;
}

// Satellites in the solution; false when "satellites" is not an array of objects whose
// "used" is a boolean.
bool usedSatellites(const Json::Value& report, int& count) {
    count = 0;
    if (!report.isMember("satellites"))
        return true;
    const Json::Value& satellites = report["satellites"];
    if (!satellites.isArray())
        return false;
    for (const Json::Value& satellite : satellites) {
        if (!satellite.isObject())
            return false;
        if (!satellite.isMember("used"))
            continue;
        const Json::Value& used = satellite["used"];
        if (!used.isBool())
            return false;
        if (used.asBool())
            ++count;
    }
    return true;
}

void skipReport(const char* reportClass, const char* key) {
    LOG(1) << "Skipping gpsd " << reportClass << (*reportClass ? " " : "") << "report: \"" << key
           << "\" has an unexpected type.";
}

void handleTpv(const Json::Value& report, GnssXMLGenerator& generator) {
    int mode = 0;
    if (!intField(report, "mode", mode))
        return skipReport("TPV", "mode");
    if (mode < 2) {
        LOG(4) << "Gps position not fixed.";
        return;
    }
    double latitude = 0, longitude = 0, altitude = 0, speed = 0, track = 0;
    std::string time;
    // All fields are checked before anything is handed over: a report counts whole or not.
    if (!numberField(report, "lat", latitude))
        return skipReport("TPV", "lat");
    if (!numberField(report, "lon", longitude))
        return skipReport("TPV", "lon");
    if (!textField(report, "time", time))
        return skipReport("TPV", "time");
    if (!numberField(report, "alt", altitude))
        return skipReport("TPV", "alt");
    if (!numberField(report, "speed", speed))
        return skipReport("TPV", "speed");
    if (!numberField(report, "track", track))
        return skipReport("TPV", "track");

    const char* latitudeDirection = "N";
    if (latitude < 0) {
        latitude = -latitude;
        latitudeDirection = "S";
    }
    const char* longitudeDirection = "E";
    if (longitude < 0) {
        longitude = -longitude;
        longitudeDirection = "W";
    }
    int year, month, day, hour, minute, second;
    if (sscanf(time.c_str(), "%4d-%2d-%2dT%2d:%2d:%2d", &year, &month, &day, &hour, &minute,
               &second) == 6) {
        generator.setDateTime(day, month, year, second, minute, hour);
    } else {
        // gpsd leaves "time" out until it knows the date; the last one read stays.
        LOG(4) << "gpsd time not readable: \"" << time << "\"";
    }
    generator.setLatitude(latitude, latitudeDirection);
    generator.setLongitude(longitude, longitudeDirection);
    if (mode == 3)
        generator.setAltitude(altitude);
    generator.setSpeed(speed);
    generator.setTrack(track);
    LOGV(8, 4) << "\n";
}

void handleSky(const Json::Value& report, GnssXMLGenerator& generator) {
    double hdop = 0, vdop = 0;
    int used = 0;
    if (!numberField(report, "hdop", hdop))
        return skipReport("SKY", "hdop");
    if (!numberField(report, "vdop", vdop))
        return skipReport("SKY", "vdop");
    if (!usedSatellites(report, used))
        return skipReport("SKY", "satellites");
    generator.setHdop(hdop);
    generator.setVdop(vdop);
    generator.setNumberOfSatellites(used);
}

} // namespace

std::unique_ptr<Json::CharReader> newGpsdReader() {
    Json::CharReaderBuilder settings;
    settings["stackLimit"] = Gnss::maxJsonDepth;
    return std::unique_ptr<Json::CharReader>(settings.newCharReader());
}

void handleGpsdLine(const std::string& line, Json::CharReader& reader,
                    GnssXMLGenerator& generator) {
    if (!line.empty() && line[0] == '$') {
        // The only gpsd text that goes into the document as it comes.
        generator.appendNmea(XmlText::clean(line));
        return;
    }
    Json::Value report;
    std::string errors;
    bool parsed;
    try {
        parsed = reader.parse(line.data(), line.data() + line.size(), &report, &errors);
    } catch (const std::exception& e) {
        // JsonCpp throws instead of reporting when nesting goes too deep.
        parsed = false;
        errors = e.what();
    }
    if (!parsed) {
        LOG(0) << "File parsing failed!";
        LOG(0) << errors;
        return;
    }
    if (verbosity >= 8) {
        Json::StreamWriterBuilder writer;
        LOG(4) << "\n" << Json::writeString(writer, report);
    }
    if (!report.isObject()) {
        LOG(1) << "Skipping gpsd report: not a JSON object.";
        return;
    }
    std::string reportClass;
    if (!textField(report, "class", reportClass))
        return skipReport("", "class");
    if (reportClass == "TPV")
        handleTpv(report, generator);
    else if (reportClass == "SKY")
        handleSky(report, generator);
    else
        LOG(4) << "gpsd class not supported: " << reportClass;
}

Gnss::Gnss(const Configuration& configuration)
    : Service(configuration), multicastAddress(configuration.getString("multicast_addr")),
      servicePort(configuration.getString("service_port")),
      networkInterface(configuration.getString("network_interface")),
      multicastTtl(static_cast<uint8_t>(atoi(configuration.getString("multicast_ttl").c_str()))),
      gpsdAddress(configuration.getString("gpsd_addr")),
      gpsdPort(configuration.getString("gpsd_port")),
      sender(multicastAddress, servicePort, networkInterface, multicastTtl),
      jsonReader(newGpsdReader()) {
    publisher.addTxt("multicast=" + multicastAddress);
    publisher.start();
    generator.setHook(this);
    generator.start(1000);
    startReader();
}

Gnss::~Gnss() {
    stopReader();
}

void Gnss::deliver(std::stringstream& document) {
    sender.send(document.str(), "gnss");
}

void Gnss::handleLine(const std::string& line) {
    handleGpsdLine(line, *jsonReader, generator);
}

void Gnss::startReader() {
    // Set before the thread exists, so that a stop right after construction is not lost.
    running = true;
    try {
        reader = std::thread(&Gnss::readerMain, this);
    } catch (const std::system_error&) {
        running = false;
        LOG(1) << "Error creating Gnss thread";
    }
}

void Gnss::stopReader() {
    {
        std::lock_guard<std::mutex> lock(mutex);
        running = false;
    }
    wake.notify_all();
    if (!reader.joinable())
        return;
    try {
        reader.join();
    } catch (const std::system_error&) {
        LOG(1) << "Error finishing Gnss thread";
    }
}

void Gnss::readerMain() {
    pthread_setname_np(pthread_self(), "gpsd reader");
    std::string line;
    // Wait after a connection that ended before any report: a gpsd at its client limit, or
    // something else on the port, accepts and closes at once and is not to be hammered.
    std::chrono::seconds backoff = minBackoff;
    while (running) {
        const Attempt attempt = connectOnce();
        if (attempt == Attempt::Fatal) {
            closeSocket();
            return;
        }
        if (attempt == Attempt::Stopped)
            break;
        if (attempt == Attempt::Failed) {
            // Nobody listening (yet): gpsd is picked up within a second of its start.
            if (!pause(std::chrono::seconds(1)))
                break;
            continue;
        }
        // Nothing comes without the WATCH; if it is lost, gpsd closes or stays silent.
        ssize_t ignored = send(socketFd, watchCommand, watchCommandLength, MSG_NOSIGNAL);
        (void)ignored;
        bool delivered = false;
        for (;;) {
            const ReadResult result = readLine(line);
            if (result != ReadResult::Line)
                break;
            delivered = true;
            try {
                handleLine(line);
            } catch (const std::exception& e) {
                // Only running out of memory gets here; the next line may fare better.
                LOG(0) << "gpsd line dropped: " << e.what();
            }
        }
        // Gone or stopped: a fresh socket, connection and WATCH while running.
        closeSocket();
        if (!running)
            break;
        if (delivered)
            backoff = minBackoff;
        else
            LOG(3) << "gpsd closed before any report: next attempt in " << backoff.count() << " s.";
        if (!pause(backoff))
            break;
        backoff = std::min(2 * backoff, maxBackoff);
    }
    closeSocket();
}

Gnss::Attempt Gnss::connectOnce() {
    // Non-blocking, so that neither a connect nor a read can hold up stop(). A fresh socket for
    // each attempt: one whose connect failed fails every later connect at once.
    socketFd = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (socketFd < 0) {
        LOG(1) << "Error opening Gnss socket.";
        return Attempt::Fatal;
    }

    struct addrinfo hints;
    memset(&hints, 0, sizeof hints);
    hints.ai_family = AF_INET;
    hints.ai_socktype = SOCK_STREAM;
    struct addrinfo* found = nullptr;
    if (getaddrinfo(gpsdAddress.c_str(), nullptr, &hints, &found) != 0 || found == nullptr) {
        LOG(1) << "ERROR, no such host";
        return Attempt::Fatal;
    }
    struct sockaddr_in address;
    memcpy(&address, found->ai_addr, sizeof address);
    freeaddrinfo(found);
    address.sin_port = htons(static_cast<uint16_t>(atoi(gpsdPort.c_str())));

    int result = connect(socketFd, reinterpret_cast<struct sockaddr*>(&address), sizeof address);
    if (result != 0 && (errno == EINPROGRESS || errno == EINTR)) {
        // A host that has gone away answers nothing; the kernel would try for minutes.
        const ReadyResult ready =
            waitReady(POLLOUT, std::chrono::steady_clock::now() + connectTimeout);
        if (ready == ReadyResult::Stopped)
            return Attempt::Stopped;
        int error = ETIMEDOUT;
        if (ready == ReadyResult::Ready) {
            socklen_t length = sizeof error;
            getsockopt(socketFd, SOL_SOCKET, SO_ERROR, &error, &length);
        }
        result = error == 0 ? 0 : -1;
    }
    if (result != 0) {
        LOG(1) << "Error while connecting to Gnss socket. " << result << "= " << result
               << "retrying...";
        closeSocket();
        return Attempt::Failed;
    }
    // A gpsd without a receiver is silent but alive; a host that lost power or its cable is
    // found by its missing answers to keepalive probes.
    const int on = 1;
    const int idle = static_cast<int>(keepaliveIdle.count());
    const int interval = static_cast<int>(keepaliveInterval.count());
    const int probes = keepaliveProbes;
    const unsigned userTimeout =
        static_cast<unsigned>((keepaliveIdle + keepaliveProbes * keepaliveInterval).count() * 1000);
    setsockopt(socketFd, SOL_SOCKET, SO_KEEPALIVE, &on, sizeof on);
    setsockopt(socketFd, IPPROTO_TCP, TCP_KEEPIDLE, &idle, sizeof idle);
    setsockopt(socketFd, IPPROTO_TCP, TCP_KEEPINTVL, &interval, sizeof interval);
    setsockopt(socketFd, IPPROTO_TCP, TCP_KEEPCNT, &probes, sizeof probes);
    // The same bound for the WATCH command, should it stay unacknowledged.
    setsockopt(socketFd, IPPROTO_TCP, TCP_USER_TIMEOUT, &userTimeout, sizeof userTimeout);
    return Attempt::Connected;
}

Gnss::ReadResult Gnss::readLine(std::string& line) {
    line.clear();
    bool dropping = false;
    for (;;) {
        Heartbeat::beat();
        if (!running)
            return ReadResult::Stopped;
        char byte;
        const ssize_t n = recv(socketFd, &byte, 1, 0);
        if (n == 1) {
            if (!dropping && line.size() == maxLineLength) {
                LOG(1) << "Dropping gpsd line longer than " << maxLineLength << " bytes.";
                dropping = true;
                line.clear();
            }
            if (!dropping)
                line.push_back(byte);
            if (byte != '\n')
                continue;
            if (!dropping)
                return ReadResult::Line;
            dropping = false;
            continue;
        }
        if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR)) {
            if (waitReady(POLLIN, std::chrono::steady_clock::time_point::max()) ==
                ReadyResult::Stopped)
                return ReadResult::Stopped;
            continue;
        }
        LOG(2) << "Reading from socket failed.";
        return ReadResult::Failed;
    }
}

Gnss::ReadyResult Gnss::waitReady(short events, std::chrono::steady_clock::time_point deadline) {
    struct pollfd ready;
    ready.fd = socketFd;
    ready.events = events;
    while (running) {
        Heartbeat::beat();
        if (std::chrono::steady_clock::now() >= deadline)
            return ReadyResult::TimedOut;
        ready.revents = 0;
        if (poll(&ready, 1, static_cast<int>(pollInterval.count())) != 0)
            return running ? ReadyResult::Ready : ReadyResult::Stopped;
    }
    return ReadyResult::Stopped;
}

bool Gnss::pause(std::chrono::milliseconds duration) {
    Heartbeat::beat();
    std::unique_lock<std::mutex> lock(mutex);
    return !wake.wait_for(lock, duration, [this] { return !running; });
}

void Gnss::closeSocket() {
    if (socketFd >= 0)
        close(socketFd);
    socketFd = -1;
}
