#include "GnssXMLGenerator.h"

#include "DocumentTestSupport.h"
#include "TestSupport.h"

#include <gtest/gtest.h>

namespace {
struct GnssTest : ::testing::Test {
    GnssXMLGenerator generator;
    RecordingHook hook;

    GnssTest() { generator.setHook(&hook); }

    std::string next() {
        generator.deliverDocument();
        auto documents = hook.received();
        return documents.empty() ? "(none)" : documents.back();
    }

    void fix3d() {
        generator.setDateTime(1, 3, 2024, 9, 5, 8);
        generator.setLatitude(33.8568, "S");
        generator.setLongitude(151.2153, "E");
        generator.setAltitude(58.126);
        generator.setSpeed(0.5);
        generator.setTrack(271.3);
    }
};

// The system clock's time and date may move on while the document is built.
void expectSystemTime(const std::string& document, const DateTime& before) {
    const DateTime after = now();
    const std::string time = element(document, "Time");
    const std::string date = element(document, "Date");
    EXPECT_TRUE(time == formatTime(before) || time == formatTime(after)) << time;
    EXPECT_TRUE(date == formatDate(before) || date == formatDate(after)) << date;
}

std::string document(const std::string& data, const std::string& position, const std::string& time,
                     const std::string& rest) {
    return "<?xml version=\"1.0\"?><GNSSLocationDelivery version=\"1.1a\"><GNSSLocation><Data>" +
           data + "</Data>" + position + time + rest +
           "<GNSSType>MixedGNSSTypes</GNSSType><GNSSCoordinateSystem>WGS84</"
           "GNSSCoordinateSystem></GNSSLocation></GNSSLocationDelivery>";
}
} // namespace

TEST_F(GnssTest, BeforeAnyReportTheDocumentIsNotValidWithTheSystemClock) {
    const DateTime before = now();
    const std::string text = next();
    const std::string time =
        "<Time>" + element(text, "Time") + "</Time><Date>" + element(text, "Date") + "</Date>";
    EXPECT_EQ(text, document("",
                             "<Latitude><Degree>0</Degree><Direction>N</Direction></Latitude>"
                             "<Longitude><Degree>0</Degree><Direction>E</Direction></Longitude>"
                             "<Altitude>0</Altitude>",
                             time,
                             "<SpeedOverGround>0</SpeedOverGround><SignalQuality>NotValid</"
                             "SignalQuality><NumberOfSatellites>1</NumberOfSatellites>"
                             "<HorizontalDilutionOfPrecision>0</HorizontalDilutionOfPrecision>"
                             "<VerticalDilutionOfPrecision>0</VerticalDilutionOfPrecision>"
                             "<TrackDegreeTrue>0</TrackDegreeTrue>"));
    expectSystemTime(text, before);
}

TEST_F(GnssTest, FixGivesFormattedValuesAndGps) {
    fix3d();
    generator.setHdop(0.9);
    generator.setVdop(1.25);
    generator.setNumberOfSatellites(7);
    EXPECT_EQ(next(), document("",
                               "<Latitude><Degree>33.8568</Degree><Direction>S</Direction>"
                               "</Latitude><Longitude><Degree>151.215</Degree><Direction>E"
                               "</Direction></Longitude><Altitude>58.13</Altitude>",
                               "<Time>08:05:09</Time><Date>2024-03-01</Date>",
                               "<SpeedOverGround>0.5</SpeedOverGround><SignalQuality>GPS</"
                               "SignalQuality><NumberOfSatellites>7</NumberOfSatellites>"
                               "<HorizontalDilutionOfPrecision>0.9</"
                               "HorizontalDilutionOfPrecision><VerticalDilutionOfPrecision>1.25"
                               "</VerticalDilutionOfPrecision><TrackDegreeTrue>271.3"
                               "</TrackDegreeTrue>"));
}

TEST_F(GnssTest, LostFixKeepsThePositionButSaysNotValid) {
    fix3d();
    generator.setNumberOfSatellites(9);
    next();
    const DateTime before = now();
    const std::string text = next();
    EXPECT_EQ(element(text, "SignalQuality"), "NotValid");
    EXPECT_EQ(element(text, "Degree"), "33.8568");
    EXPECT_NE(text.find("<Degree>151.215</Degree>"), std::string::npos);
    EXPECT_EQ(element(text, "SpeedOverGround"), "0");
    EXPECT_EQ(element(text, "NumberOfSatellites"), "1");
    expectSystemTime(text, before);
}

TEST_F(GnssTest, BothCoordinatesMustBeFreshForANewPosition) {
    fix3d();
    next();
    generator.setLatitude(48.1, "N");
    EXPECT_EQ(element(next(), "SignalQuality"), "NotValid");
    // The latitude's freshness went with that document; a longitude alone is not enough.
    generator.setLongitude(11.5, "E");
    const std::string text = next();
    EXPECT_EQ(element(text, "SignalQuality"), "NotValid");
    EXPECT_NE(text.find("<Degree>48.1</Degree><Direction>N</Direction></Latitude><Longitude>"
                        "<Degree>11.5</Degree><Direction>E</Direction>"),
              std::string::npos);
    generator.setLongitude(11.6, "E");
    generator.setLatitude(48.2, "N");
    EXPECT_EQ(element(next(), "SignalQuality"), "GPS");
}

TEST_F(GnssTest, NumbersAreFormattedOnArrival) {
    generator.setNumberOfSatellites(0);
    generator.setLatitude(47.376887, "N");
    generator.setLongitude(0.000012345678, "W");
    generator.setHdop(1e7);
    const std::string text = next();
    EXPECT_EQ(element(text, "NumberOfSatellites"), "1") << "0 satellites is written as 1";
    EXPECT_NE(text.find("<Degree>47.3769</Degree>"), std::string::npos);
    EXPECT_NE(text.find("<Degree>1.23457e-05</Degree><Direction>W</Direction>"), std::string::npos);
    EXPECT_EQ(element(text, "HorizontalDilutionOfPrecision"), "1e+07");
}

TEST_F(GnssTest, NmeaSentencesGoIntoTheNextDocumentOnly) {
    generator.appendNmea("$GPGGA,092750.000,5321.6802,N,00630.3372,W,1,8,1.03,61.7,M,55.2,M,,*76"
                         "\r\n");
    generator.appendNmea("$GPGSA,A,3,10,07,05,02,29,04,08,13,,,,,1.72,1.03,1.38*0A\r\n");
    EXPECT_EQ(element(next(), "Data"),
              "$GPGGA,092750.000,5321.6802,N,00630.3372,W,1,8,1.03,61.7,M,55.2,M,,*76"
              "$GPGSA,A,3,10,07,05,02,29,04,08,13,,,,,1.72,1.03,1.38*0A");
    EXPECT_NE(next().find("<Data></Data>"), std::string::npos);
    // Cut after the two checksum characters; without '*' the line is kept, without line end.
    generator.appendNmea("$GPRMC,A*1F trailing\n");
    generator.appendNmea("$GPXYZ,no checksum\r\n");
    generator.appendNmea("$A*7\r\n");
    generator.appendNmea("$GPTXT,<&>*00");
    EXPECT_EQ(element(next(), "Data"), "$GPRMC,A*1F$GPXYZ,no checksum$A*7$GPTXT,&lt;&amp;&gt;*00");
}

TEST(GnssThreadTest, DeliversEveryPeriodAndStopsQuickly) {
    RecordingHook hook;
    auto generator = std::make_unique<GnssXMLGenerator>();
    generator->setHook(&hook);
    generator->start(10);
    EXPECT_TRUE(hook.waitFor(3));

    generator = std::make_unique<GnssXMLGenerator>();
    generator->setHook(&hook);
    generator->start(3600 * 1000);
    EXPECT_TRUE(finishesSoon([&] { generator.reset(); }));
}
