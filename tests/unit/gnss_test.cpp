#include "Gnss.h"

#include "DocumentTestSupport.h"
#include "TestSupport.h"

#include <map>
#include <random>

#include <gtest/gtest.h>

namespace {

const std::string fix3d =
    R"({"class":"TPV","mode":3,"lat":-33.8568,"lon":151.2153,"alt":58.126,"speed":0.5,)"
    R"("track":271.3,"time":"2024-03-01T08:05:09.000Z"})";
const std::string sky = R"({"class":"SKY","hdop":0.9,"vdop":1.25,"satellites":[)"
                        R"({"used":true},{"used":true},{"used":false},{"PRN":4},{"used":true}]})";

// The next document and the log.
std::pair<std::string, std::string> handle(const std::vector<std::string>& lines, int level = 4) {
    GnssXMLGenerator generator;
    RecordingHook hook;
    generator.setHook(&hook);
    const std::unique_ptr<Json::CharReader> reader = newGpsdReader();
    VerbosityScope scope(level);
    StderrCapture capture;
    for (const std::string& line : lines)
        EXPECT_NO_THROW(handleGpsdLine(line, *reader, generator)) << line;
    generator.deliverDocument();
    return {hook.documents.at(0), capture.text()};
}

} // namespace

TEST(GnssLines, ReportsAndSentencesGiveTheDocument) {
    // The whole document, so that no misspelled name or misplaced element ships: sentences cut
    // after the checksum (kept whole without one), in order; a fix with its satellites in use.
    EXPECT_EQ(
        handle(
            {"$GPRMC,A*1F trailing\r\n", "$GPXYZ,no checksum\r\n", "$GPTXT,<&>*00\r\n", sky, fix3d})
            .first,
        "<?xml version=\"1.0\"?><GNSSLocationDelivery version=\"1.1a\"><GNSSLocation><Data>"
        "$GPRMC,A*1F$GPXYZ,no checksum$GPTXT,&lt;&amp;&gt;*00</Data><Latitude><Degree>33.8568"
        "</Degree><Direction>S</Direction></Latitude><Longitude><Degree>151.215</Degree>"
        "<Direction>E</Direction></Longitude><Altitude>58.13</Altitude><Time>08:05:09</Time>"
        "<Date>2024-03-01</Date><SpeedOverGround>0.5</SpeedOverGround><SignalQuality>GPS"
        "</SignalQuality><NumberOfSatellites>3</NumberOfSatellites>"
        "<HorizontalDilutionOfPrecision>0.9</HorizontalDilutionOfPrecision>"
        "<VerticalDilutionOfPrecision>1.25</VerticalDilutionOfPrecision><TrackDegreeTrue>271.3"
        "</TrackDegreeTrue><GNSSType>MixedGNSSTypes</GNSSType><GNSSCoordinateSystem>WGS84"
        "</GNSSCoordinateSystem></GNSSLocation></GNSSLocationDelivery>");
    // An empty text is still an element with a text child.
    EXPECT_NE(handle({}).first.find("<Data></Data><Latitude>"), std::string::npos);

    // West; a missing field reads as 0, not as the one before.
    const std::string west = handle({fix3d, R"({"class":"TPV","mode":3,"lat":1,"lon":-8})"}).first;
    EXPECT_EQ(element(element(west, "Longitude"), "Direction"), "W");
    EXPECT_EQ(element(west, "SpeedOverGround"), "0");
    // Bytes XML cannot carry in a sentence: one U+FFFD each.
    EXPECT_EQ(element(handle({"$GPTXT,K\xfchl\x01*00\r\n"}).first, "Data"),
              "$GPTXT,K\xEF\xBF\xBDhl\xEF\xBF\xBD*00");
}

// Each bad line after a good fix (and a lost fix): skipped whole, with its log line.
TEST(GnssLines, BadLinesAreSkippedWholeWithALogLine) {
    const std::string reference = handle({fix3d, sky}).first;
    const std::pair<std::string, std::string> cases[] = {
        {R"({"class":"TPV","mode":3,"lat":"47.1","lon":8})", R"(TPV report: "lat" has)"},
        {R"({"class":"TPV","mode":1e300})", R"(TPV report: "mode" has)"},
        {R"({"class":"TPV","mode":1,"lat":0,"lon":0})", "Gps position not fixed."},
        {R"({"class":"SKY","hdop":1,"satellites":[{"used":1}]})", R"("satellites" has)"},
        {R"({"class":["TPV"],"mode":3,"lat":1,"lon":2})",
         "WARN: Skipping gpsd report: \"class\" has an unexpected type.\n"},
        {std::string("\xff\xfe\0\x01garbage\n", 12), "ERR : File parsing failed!\n"},
        // Far below JsonCpp's own bound of 1000, which overflows a small thread stack.
        {std::string(Gnss::maxJsonDepth + 1, '['), "ERR : File parsing failed!\nERR : Exceeded"},
    };
    for (const auto& c : cases) {
        const auto got = handle({fix3d, sky, c.first}, 8);
        EXPECT_EQ(got.first, reference) << c.first;
        EXPECT_NE(got.second.find(c.second), std::string::npos) << c.first << "\n" << got.second;
    }
}

// A 1 Hz receiver at a fixed offset to the document deadlines, with up to 50 ms of jitter: GPS
// while the reports come, whatever the offset, and NotValid two periods after the last one.
TEST(GnssGenerator, OneHertzReportsStayValidAtAnyPhase) {
    static GnssXMLGenerator::Clock::time_point now;
    for (int offset : {0, 3, -3, 15, -15, 500, -500}) {
        GnssXMLGenerator generator([] { return now; });
        RecordingHook hook;
        generator.setHook(&hook);
        std::mt19937 random(static_cast<unsigned>(offset + 1000));
        std::uniform_int_distribution<int> jitter(-50, 50);
        // Twice the time in ms, odd for a deadline, so that a report comes first at a tie.
        std::map<int, bool> isReport;
        for (int k = 1; k <= 24; ++k)
            isReport[2 * k * 1000 + 1] = false;
        int first = 0, last = 0;
        for (int j = 1; j <= 18; ++j) {
            last = j * 1000 + offset + jitter(random);
            first = j == 1 ? last : first;
            isReport[2 * last] = true;
        }
        for (const auto& [key, report] : isReport) {
            const int at = key / 2;
            now = GnssXMLGenerator::Clock::time_point(std::chrono::hours(1)) +
                  std::chrono::milliseconds(at);
            if (report) {
                generator.setLatitude(47.1, "N");
                generator.setLongitude(8.5, "E");
            } else {
                generator.deliverDocument();
                if ((at >= first && at <= last) || at >= last + 2000) {
                    EXPECT_EQ(element(hook.documents.back(), "SignalQuality"),
                              at <= last ? "GPS" : "NotValid")
                        << "offset " << offset << ", document at " << at;
                }
            }
        }
        EXPECT_EQ(hook.documents.size(), 24u);
    }
}
