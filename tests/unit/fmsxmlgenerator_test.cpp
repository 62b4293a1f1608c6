#include "FmsXMLGenerator.h"

#include "DocumentTestSupport.h"
#include "TestSupport.h"

#include <gtest/gtest.h>

namespace {
// The frame the FMStoIP worker would build for a CCVS message.
void fillVehicleSpeedFrame(FmsXMLGenerator& generator) {
    generator.setFramePgn("FEF1");
    generator.setFrameStatus("OK");
    generator.setFrameData("FF0A50FFFFFFFFFF");
    generator.setRelativeTime(1709280000123ULL);
    generator.setSpnId(84);
    generator.setSpnName("Wheel-based vehicle speed");
    generator.setSpnUnit("km/h");
    generator.setSpnValue(80.05);
    generator.commitSpn();
    generator.setSpnId(597);
    generator.setSpnName("Brake switch");
    generator.setSpnValue("Released");
    generator.commitSpn();
}
} // namespace

TEST(FmsXMLGeneratorTest, FrameDocumentIsTabIndented) {
    FmsXMLGenerator generator;
    fillVehicleSpeedFrame(generator);
    EXPECT_EQ(generator.frameDocument(), "<?xml version=\"1.0\"?>\n"
                                         "<FMStoIPDelivery version=\"1.1a\">\n"
                                         "\t<FMStoIP FMSVersion=\"0000\">\n"
                                         "\t\t<Frame Status=\"OK\">\n"
                                         "\t\t\t<PGN>FEF1</PGN>\n"
                                         "\t\t\t<Data>FF0A50FFFFFFFFFF</Data>\n"
                                         "\t\t\t<RelativeTime>1709280000123</RelativeTime>\n"
                                         "\t\t\t<SPN id=\"84\">\n"
                                         "\t\t\t\t<Name>Wheel-based vehicle speed</Name>\n"
                                         "\t\t\t\t<Unit>km/h</Unit>\n"
                                         "\t\t\t\t<Value>80.050</Value>\n"
                                         "\t\t\t</SPN>\n"
                                         "\t\t\t<SPN id=\"597\">\n"
                                         "\t\t\t\t<Name>Brake switch</Name>\n"
                                         "\t\t\t\t<Value>Released</Value>\n"
                                         "\t\t\t</SPN>\n"
                                         "\t\t</Frame>\n"
                                         "\t</FMStoIP>\n"
                                         "</FMStoIPDelivery>\n");
}

TEST(FmsXMLGeneratorTest, FrameWithoutSpnsShowsTheTemplatePlaceholders) {
    FmsXMLGenerator generator;
    EXPECT_EQ(generator.frameDocument(), "<?xml version=\"1.0\"?>\n"
                                         "<FMStoIPDelivery version=\"1.1a\">\n"
                                         "\t<FMStoIP FMSVersion=\"0000\">\n"
                                         "\t\t<Frame Status=\"OK\">\n"
                                         "\t\t\t<PGN>PGNNR</PGN>\n"
                                         "\t\t\t<Data>none</Data>\n"
                                         "\t\t\t<RelativeTime>5000</RelativeTime>\n"
                                         "\t\t</Frame>\n"
                                         "\t</FMStoIP>\n"
                                         "</FMStoIPDelivery>\n");
}

TEST(FmsXMLGeneratorTest, UnitOnlyForTheSpnThatHasOne) {
    FmsXMLGenerator generator;
    const char* const units[] = {"", "km/h", "", "%"};
    for (const char* unit : units) {
        generator.setSpnName("n");
        generator.setSpnUnit(unit);
        generator.setSpnValue(1.0);
        generator.commitSpn();
    }
    // A second unit before the commit replaces the first instead of adding an element.
    generator.setSpnUnit("rpm");
    generator.setSpnUnit("1/min");
    generator.commitSpn();
    const std::string spn = "\t\t\t<SPN id=\"123\">\n\t\t\t\t<Name>n</Name>\n";
    const std::string value = "\t\t\t\t<Value>1.000</Value>\n\t\t\t</SPN>\n";
    EXPECT_NE(generator.frameDocument().find(
                  spn + value + spn + "\t\t\t\t<Unit>km/h</Unit>\n" + value + spn + value + spn +
                  "\t\t\t\t<Unit>%</Unit>\n" + value + spn + "\t\t\t\t<Unit>1/min</Unit>\n" +
                  value + "\t\t</Frame>"),
              std::string::npos)
        << generator.frameDocument();
}

TEST(FmsXMLGeneratorTest, NumericValuesHaveThreeDecimals) {
    const struct {
        double value;
        const char* text;
    } cases[] = {
        {0.0004, "0.000"}, {0.0005, "0.001"},        {99.9996, "100.000"}, {-40.5, "-40.500"},
        {13, "13.000"},    {80.05, "80.050"},        {0, "0.000"},         {1e9, "1000000000.000"},
        {-0.25, "-0.250"}, {65535.875, "65535.875"},
    };
    FmsXMLGenerator generator;
    for (const auto& c : cases) {
        generator.clearSpns();
        generator.setSpnValue(c.value);
        generator.commitSpn();
        EXPECT_EQ(element(generator.frameDocument(), "Value"), c.text) << c.value;
    }
}

TEST(FmsXMLGeneratorTest, FmsVersionDefaultsAndIsCutToSixCharacters) {
    FmsXMLGenerator generator;
    RecordingHook hook;
    generator.setHook(&hook);
    generator.setFmsVersion("0400");
    EXPECT_NE(generator.frameDocument().find("<FMStoIP FMSVersion=\"0400\">"), std::string::npos);
    generator.setFmsVersion("12345678");
    EXPECT_NE(generator.frameDocument().find("<FMStoIP FMSVersion=\"123456\">"), std::string::npos);
    generator.commitFrame();
    generator.deliverCollected();
    ASSERT_EQ(hook.received().size(), 1u);
    EXPECT_NE(hook.received()[0].find("<FMStoIP FMSVersion=\"123456\">"), std::string::npos);
}

TEST(FmsXMLGeneratorTest, CollectedFramesAreDeliveredOnceInOrder) {
    FmsXMLGenerator generator;
    RecordingHook hook;
    generator.setHook(&hook);
    generator.deliverCollected();
    EXPECT_TRUE(hook.received().empty()) << "nothing collected, nothing delivered";

    fillVehicleSpeedFrame(generator);
    generator.commitFrame();
    generator.setFrameData("FF0B50FFFFFFFFFF");
    generator.setRelativeTime(1709280000223ULL);
    generator.commitFrame();
    // The single-frame document of the template is empty of SPNs after the commit.
    EXPECT_EQ(generator.frameDocument().find("<SPN"), std::string::npos);
    generator.deliverCollected();
    generator.deliverCollected();
    ASSERT_EQ(hook.received().size(), 1u);
    EXPECT_EQ(hook.received()[0],
              "<?xml version=\"1.0\"?><FMStoIPDelivery version=\"1.1a\"><FMStoIP "
              "FMSVersion=\"0000\"><Frame "
              "Status=\"OK\"><PGN>FEF1</PGN><Data>FF0A50FFFFFFFFFF</Data><RelativeTime>"
              "1709280000123</RelativeTime><SPN id=\"84\"><Name>Wheel-based vehicle "
              "speed</Name><Unit>km/h</Unit><Value>80.050</Value></SPN><SPN "
              "id=\"597\"><Name>Brake switch</Name><Value>Released</Value></SPN></Frame><Frame "
              "Status=\"OK\"><PGN>FEF1</PGN><Data>FF0B50FFFFFFFFFF</Data><RelativeTime>"
              "1709280000223</RelativeTime></Frame></FMStoIP></FMStoIPDelivery>");

    // Uncommitted SPNs can be dropped; the next document holds only the new frame.
    generator.commitSpn();
    generator.clearSpns();
    generator.commitFrame();
    generator.deliverCollected();
    ASSERT_EQ(hook.received().size(), 2u);
    EXPECT_NE(hook.received()[1].find("<FMStoIP FMSVersion=\"0000\"><Frame Status=\"OK\"><PGN>"
                                      "FEF1</PGN><Data>FF0B50FFFFFFFFFF</Data><RelativeTime>"
                                      "1709280000223</RelativeTime></Frame></FMStoIP>"),
              std::string::npos);
}

TEST(FmsXMLGeneratorTest, DocumentThreadDeliversAndStopsQuickly) {
    RecordingHook hook;
    auto generator = std::make_unique<FmsXMLGenerator>();
    generator->setHook(&hook);
    generator->start(10);
    generator->commitFrame();
    ASSERT_TRUE(hook.waitFor(1));
    generator->commitFrame();
    ASSERT_TRUE(hook.waitFor(2));

    // A long period does not hold up the destruction.
    generator = std::make_unique<FmsXMLGenerator>();
    generator->setHook(&hook);
    generator->start(3600 * 1000);
    generator->start(0);
    VerbosityScope scope(4);
    StderrCapture capture;
    EXPECT_TRUE(finishesSoon([&] { generator.reset(); }));
    EXPECT_EQ(capture.text(), "DBG : FmsXMLGenerator thread finished.\n");
}
