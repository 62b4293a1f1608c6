#include "Gnss.h"

#include "DocumentTestSupport.h"
#include "TestSupport.h"

#include <arpa/inet.h>
#include <poll.h>

#include <gtest/gtest.h>
#include <pugixml.hpp>

#include <thread>

namespace {

const std::string fix3d =
    R"({"class":"TPV","mode":3,"lat":-33.8568,"lon":151.2153,"alt":58.126,"speed":0.5,)"
    R"("track":271.3,"time":"2024-03-01T08:05:09.000Z"})";
const std::string sky = R"({"class":"SKY","hdop":0.9,"vdop":1.25,"satellites":[)"
                        R"({"used":true},{"used":true},{"used":false},{"PRN":4},{"used":true}]})";
const std::string gga = "$GPGGA,092750.000,5321.6802,N,00630.3372,W,1,8,1.03,61.7,M,55.2,M,,*76";

struct Handled {
    std::string values; // of the next document, in order; the system clock's time is "now"
    std::string log;
};

Handled handle(const std::vector<std::string>& lines, int level = 4) {
    GnssXMLGenerator generator;
    RecordingHook hook;
    generator.setHook(&hook);
    const std::unique_ptr<Json::CharReader> reader = newGpsdReader();
    VerbosityScope scope(level);
    StderrCapture capture;
    for (const std::string& line : lines)
        EXPECT_NO_THROW(handleGpsdLine(line, *reader, generator)) << line;
    generator.deliverDocument();
    pugi::xml_document document;
    document.load_string(hook.received().at(0).c_str());
    std::string values;
    for (const pugi::xpath_node& leaf : document.select_nodes(
             "//GNSSLocation//*[not(*) and not(self::GNSSType or self::GNSSCoordinateSystem)]"))
        values += std::string(leaf.node().text().get()) + "|";
    const std::string clock = formatTime(now()) + "|" + formatDate(now());
    const size_t at = values.find(clock);
    if (at != std::string::npos)
        values.replace(at, clock.size(), "now");
    return {values, capture.text()};
}

} // namespace

TEST(GnssLines, ReportsAndSentencesGiveTheDocument) {
    struct Case {
        std::vector<std::string> lines;
        std::string values;
        std::string log;
    } cases[] = {
        // Sentences up to their checksum, in order; a fix with its satellites in use.
        {{gga + "\r\n", "$GPGSA,A,3,10,07,,1.72,1.03,1.38*0A\r\n", sky + "\r\n", fix3d + "\r\n"},
         gga + "$GPGSA,A,3,10,07,,1.72,1.03,1.38*0A|33.8568|S|151.215|E|58.13|08:05:09|"
               "2024-03-01|0.5|GPS|3|0.9|1.25|271.3|",
         ""},
        // North and west; a 2D fix keeps the altitude of the 3D fix before it.
        {{fix3d, R"({"class":"TPV","mode":2,"lat":47.376887,"lon":-8.54,"alt":999,"speed":11,)"
                 R"("track":0,"time":"2025-01-23T12:00:03.000Z"})"},
         "|47.3769|N|8.54|W|58.13|12:00:03|2025-01-23|11|GPS|1|0|0|0|",
         ""},
        // A time that cannot be read keeps the one before; a missing field reads as 0.
        {{fix3d, R"({"class":"TPV","mode":3,"lat":1,"lon":2,"time":"12:00:03"})"},
         "|1|N|2|E|0.00|08:05:09|2024-03-01|0|GPS|1|0|0|0|",
         "DBG : gpsd time not readable: \"12:00:03\"\n"},
        // No fix: nothing handed over. No satellite in use is written as one.
        {{R"({"class":"TPV","mode":1})", R"({"class":"SKY","hdop":2,"satellites":[]})"},
         "|0|N|0|E|0|now|0|NotValid|1|2|0|0|",
         "DBG : Gps position not fixed.\n"},
        {{R"({"class":"VERSION","release":"3.22"})"},
         "|0|N|0|E|0|now|0|NotValid|1|0|0|0|",
         "DBG : gpsd class not supported: VERSION\n"},
    };
    for (const Case& c : cases) {
        const Handled got = handle(c.lines);
        EXPECT_EQ(got.values, c.values) << c.lines.back();
        EXPECT_NE(got.log.find(c.log), std::string::npos) << got.log;
    }
}

// Each bad line after a good fix: skipped whole, with its log line, nothing thrown.
TEST(GnssLines, BadLinesAreSkippedWholeWithALogLine) {
    const std::string reference = handle({fix3d, sky}).values;
    const std::pair<std::string, std::string> cases[] = {
        {R"({"class":"TPV","mode":3,"lat":"47.1","lon":8})", R"(TPV report: "lat" has)"},
        {R"({"class":"TPV","mode":3,"lat":1,"lon":true})", R"(TPV report: "lon" has)"},
        {R"({"class":"TPV","mode":"3","lat":1,"lon":2})", R"(TPV report: "mode" has)"},
        {R"({"class":"TPV","mode":2.5})", R"(TPV report: "mode" has)"},
        {R"({"class":"TPV","mode":1e300})", R"(TPV report: "mode" has)"},
        {R"({"class":"TPV","mode":3,"lat":1,"lon":2,"time":20240301})", R"("time" has)"},
        {R"({"class":"TPV","mode":3,"lat":1,"lon":2,"alt":null})", R"(TPV report: "alt" has)"},
        {R"({"class":"TPV","mode":3,"lat":1,"lon":2,"speed":[1]})", R"("speed" has)"},
        {R"({"class":"TPV","mode":3,"lat":1,"lon":2,"track":{}})", R"("track" has)"},
        {R"({"class":"SKY","hdop":"1","satellites":[]})", R"(SKY report: "hdop" has)"},
        {R"({"class":"SKY","vdop":false})", R"(SKY report: "vdop" has)"},
        {R"({"class":"SKY","hdop":1,"satellites":{"used":true}})", R"("satellites" has)"},
        {R"({"class":"SKY","hdop":1,"satellites":[{"used":1}]})", R"("satellites" has)"},
        {R"({"class":"SKY","hdop":1,"satellites":[true]})", R"("satellites" has)"},
        {R"({"class":["TPV"],"mode":3,"lat":1,"lon":2})",
         "WARN: Skipping gpsd report: \"class\" has an unexpected type.\n"},
        {R"([{"class":"TPV","mode":3,"lat":1,"lon":2}])", "WARN: Skipping gpsd report: not a"},
        {"42\r\n", "WARN: Skipping gpsd report: not a JSON object.\n"},
        {R"({"class":"TPV","mode":3,"lat":1)", "ERR : File parsing failed!\nERR : * Line 1"},
        {"\r\n", "ERR : File parsing failed!\n"},
        {std::string("\xff\xfe\0\x01garbage\n", 12), "ERR : File parsing failed!\n"},
        // Far below JsonCpp's own bound of 1000, which overflows a small thread stack.
        {std::string(Gnss::maxJsonDepth + 1, '['), "ERR : File parsing failed!\nERR : Exceeded"},
    };
    for (const auto& c : cases) {
        const Handled got = handle({fix3d, sky, c.first}, 8);
        EXPECT_EQ(got.values, reference) << c.first;
        EXPECT_NE(got.log.find(c.second), std::string::npos) << c.first << "\n" << got.log;
    }
}

namespace {
// Waits until the captured log holds text.
bool logShows(StderrCapture& capture, const std::string& text) {
    for (int i = 0; i < 3000; ++i) {
        if (capture.text().find(text) != std::string::npos)
            return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return false;
}

// Accepts the next connection on listener and returns it with what it sent in its first
// moments.
std::pair<int, std::string> acceptClient(int listener) {
    struct pollfd ready = {listener, POLLIN, 0};
    if (poll(&ready, 1, 30000) != 1)
        return {-1, "(no connection)"};
    const int client = accept(listener, nullptr, nullptr);
    std::string got;
    char buffer[256];
    ssize_t n;
    ready = {client, POLLIN, 0};
    while (poll(&ready, 1, 300) == 1 && (n = recv(client, buffer, sizeof buffer, 0)) > 0)
        got.append(buffer, static_cast<size_t>(n));
    return {client, got};
}
} // namespace

TEST(GnssReader, WatchesDropsOversizedLinesReconnectsAndStopsOnASilentGpsd) {
    // gpsd's stand-in on loopback.
    const int listener = socket(AF_INET, SOCK_STREAM, 0);
    struct sockaddr_in address {};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    ASSERT_EQ(bind(listener, reinterpret_cast<struct sockaddr*>(&address), length), 0);
    listen(listener, 2);
    getsockname(listener, reinterpret_cast<struct sockaddr*>(&address), &length);
    TempDir dir;
    // No service_port: nothing is announced, and the documents (to port 0) go nowhere.
    const Configuration conf(
        dir.write("gnss.conf", "multicast_addr=239.255.0.1\nnetwork_interface=lo\nmulticast_ttl=0\n"
                               "gpsd_addr=127.0.0.1\ngpsd_port=" +
                                   std::to_string(ntohs(address.sin_port)) + "\n"));
    const std::string watch = "?WATCH={\"class\":\"WATCH\", \"json\":true, \"nmea\":true};";
    VerbosityScope scope(4);
    StderrCapture capture;
    auto gnss = std::make_unique<Gnss>(conf);

    auto client = acceptClient(listener);
    EXPECT_EQ(client.second, watch) << "exactly the command, nothing after it";
    // Too long by one byte, then just long enough (line end included).
    const std::string lines = std::string(Gnss::maxLineLength - 13, ' ') + "{\"class\":\"A\"}\n" +
                              std::string(Gnss::maxLineLength - 14, ' ') + "{\"class\":\"B\"}\n";
    send(client.first, lines.data(), lines.size(), MSG_NOSIGNAL);
    EXPECT_TRUE(logShows(capture, "DBG : gpsd class not supported: B\n"));
    EXPECT_NE(capture.text().find("WARN: Dropping gpsd line longer than 65536 bytes.\n"),
              std::string::npos);
    EXPECT_EQ(capture.text().find("class not supported: A"), std::string::npos);

    // gpsd goes away: a new connection, and the WATCH again.
    close(client.first);
    EXPECT_TRUE(logShows(capture, "NOTE: Reading from socket failed.\n"));
    client = acceptClient(listener);
    EXPECT_EQ(client.second, watch);

    // gpsd stays silent: the reader must not hold up the end.
    EXPECT_TRUE(finishesSoon([&] { gnss.reset(); }));
    close(client.first);
    close(listener);
}
