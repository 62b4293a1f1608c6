#include "VtoIPXMLGenerator.h"

#include "DocumentTestSupport.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <cstring>
#include <functional>

namespace {
std::string doorsControl(const std::string& document) {
    if (document.find("<DoorsControl/>") != std::string::npos)
        return "";
    return element(document, "DoorsControl");
}

void setAllButDoors(VtoIPXMLGenerator& g) {
    DateTime t;
    t.year = 2024;
    t.month = 3;
    t.day = 1;
    t.hour = 8;
    t.minute = 5;
    t.second = 9;
    g.setRecordedAtTime(t);
    g.setOdospeed(12.346);
    g.setOdodistancetotal(123456.9);
    g.setOdodistance(42);
    g.setOdofault(false);
    g.setDoorsStatus(7);
    g.setActiveCabin(1);
    g.setPresenceHV(true);
    g.setStopRequest(false);
    g.setVehicleType(1);
    g.setVehicleCapacity(180);
    g.setVehicleNumber("4711");
    g.setVehicleMode(true);
    g.setVehicleOrder(-2);
}
} // namespace

TEST(VtoIPXMLGeneratorTest, FullDocumentOnOneLine) {
    VtoIPXMLGenerator g;
    setAllButDoors(g);
    g.setDoor(1, 0);
    EXPECT_EQ(g.toString(), "<?xml version=\"1.0\"?><VEHICLEtoIPDelivery version=\"1.1a\">"
                            "<VEHICLEtoIP><RecordedAtTime>2024-03-01T08:05:09</RecordedAtTime>"
                            "<Odospeed>12.35</Odospeed><Ododistancetotal>123456</Ododistancetotal>"
                            "<Ododistance>42</Ododistance><Odofault>false</Odofault>"
                            "<DoorsStatus>DoorOpen</DoorsStatus><DoorsControl><Door><DoorID>1"
                            "</DoorID><DoorStatus>Closed</DoorStatus></Door></DoorsControl>"
                            "<ActiveCabin>Cab1</ActiveCabin><PresenceHV>true</PresenceHV>"
                            "<StopRequest>false</StopRequest><VehicleType>Tram</VehicleType>"
                            "<VehicleCapacity>180</VehicleCapacity><VehicleNumber>4711"
                            "</VehicleNumber><VehicleMode>true</VehicleMode><VehicleOrder>-2"
                            "</VehicleOrder></VEHICLEtoIP></VEHICLEtoIPDelivery>");
}

TEST(VtoIPXMLGeneratorTest, CompleteOnlyOnceEveryTextElementIsSet) {
    const std::vector<std::function<void(VtoIPXMLGenerator&)>> setters = {
        [](VtoIPXMLGenerator& g) { g.setRecordedAtTime(DateTime()); },
        [](VtoIPXMLGenerator& g) { g.setOdospeed(0); },
        [](VtoIPXMLGenerator& g) { g.setOdodistancetotal(0); },
        [](VtoIPXMLGenerator& g) { g.setOdodistance(0); },
        [](VtoIPXMLGenerator& g) { g.setOdofault(false); },
        [](VtoIPXMLGenerator& g) { g.setDoorsStatus(0); },
        [](VtoIPXMLGenerator& g) { g.setActiveCabin(0); },
        [](VtoIPXMLGenerator& g) { g.setPresenceHV(false); },
        [](VtoIPXMLGenerator& g) { g.setStopRequest(false); },
        [](VtoIPXMLGenerator& g) { g.setVehicleType(0); },
        [](VtoIPXMLGenerator& g) { g.setVehicleCapacity(0); },
        [](VtoIPXMLGenerator& g) { g.setVehicleNumber("7"); },
        [](VtoIPXMLGenerator& g) { g.setVehicleMode(false); },
        [](VtoIPXMLGenerator& g) { g.setVehicleOrder(0); },
    };
    ASSERT_EQ(setters.size(), 14u);
    // Leaving out any one setter leaves the document incomplete; doors do not matter.
    for (size_t skipped = 0; skipped < setters.size(); ++skipped) {
        VtoIPXMLGenerator g;
        g.setDoor(0, 1);
        for (size_t i = 0; i < setters.size(); ++i)
            if (i != skipped)
                setters[i](g);
        EXPECT_FALSE(g.isComplete()) << "without setter " << skipped;
        setters[skipped](g);
        EXPECT_TRUE(g.isComplete());
    }
}

TEST(VtoIPXMLGeneratorTest, ValueTables) {
    VtoIPXMLGenerator g;
    const char* const doorsStatus[] = {"AllDoorsClosedLocked", "DoorUnlocked", "DoorOpen",
                                       "DoorOpen", "DoorOpen"};
    const char* const cabins[] = {"NoCab", "Cab1", "Cab2", "Cab2", "Cab2"};
    const char* const types[] = {"Bus", "Tram", "Ferry", "Ferry", "Ferry"};
    const uint32_t inputs[] = {0, 1, 2, 7, 4294967295u};
    for (int i = 0; i < 5; ++i) {
        g.setDoorsStatus(inputs[i]);
        g.setActiveCabin(inputs[i]);
        g.setVehicleType(inputs[i]);
        const std::string text = g.toString();
        EXPECT_EQ(element(text, "DoorsStatus"), doorsStatus[i]);
        EXPECT_EQ(element(text, "ActiveCabin"), cabins[i]);
        EXPECT_EQ(element(text, "VehicleType"), types[i]);
    }
}

TEST(VtoIPXMLGeneratorTest, Numbers) {
    VtoIPXMLGenerator g;
    const struct {
        double value;
        const char* speed;
        const char* distance;
    } cases[] = {
        {12.346, "12.35", "12"},
        {123456.9, "123456.90", "123456"},
        {-3.5, "-3.50", "0"},
        {4294967295.9, "4294967295.90", "4294967295"},
        {4294967296.0, "4294967296.00", "4294967295"},
        {std::nan(""), "nan", "0"},
    };
    for (const auto& c : cases) {
        g.setOdospeed(c.value);
        g.setOdodistancetotal(c.value);
        g.setOdodistance(c.value);
        const std::string text = g.toString();
        EXPECT_EQ(element(text, "Odospeed"), c.speed) << c.value;
        EXPECT_EQ(element(text, "Ododistancetotal"), c.distance) << c.value;
        EXPECT_EQ(element(text, "Ododistance"), c.distance) << c.value;
    }
    g.setVehicleCapacity(-2147483647 - 1);
    EXPECT_EQ(element(g.toString(), "VehicleCapacity"), "-2147483648");
}

TEST(VtoIPXMLGeneratorTest, NumericTextsAreCutTo39Characters) {
    VtoIPXMLGenerator g;
    g.setOdospeed(1e40);
    char full[80];
    snprintf(full, sizeof full, "%.2f", 1e40);
    ASSERT_GT(strlen(full), 39u);
    EXPECT_EQ(element(g.toString(), "Odospeed"), std::string(full, 39));
    // Texts are not numbers and stay whole.
    const std::string number(100, '9');
    g.setVehicleNumber(number);
    EXPECT_EQ(element(g.toString(), "VehicleNumber"), number);
}

TEST(VtoIPXMLGeneratorTest, DoorsInIdOrderUntilCleared) {
    VtoIPXMLGenerator g;
    g.setDoor(3, 1);
    g.setDoor(0, 9);
    const std::string both = "<Door><DoorID>0</DoorID><DoorStatus>Error</DoorStatus></Door>"
                             "<Door><DoorID>3</DoorID><DoorStatus>Open</DoorStatus></Door>";
    EXPECT_EQ(doorsControl(g.toString()), both);
    EXPECT_EQ(doorsControl(g.toString()), both) << "kept until clearDoors, not added again";
    g.clearDoors();
    EXPECT_EQ(doorsControl(g.toString()), "");

    g.setDoor(5, 0);
    g.setDoor(5, 3); // reported twice: listed once, with the last state
    g.setDoor(63, 2);
    g.setDoor(64, 1); // out of range
    g.setDoor(10, -7);
    EXPECT_EQ(doorsControl(g.toString()),
              "<Door><DoorID>5</DoorID><DoorStatus>NotAvailable</DoorStatus></Door>"
              "<Door><DoorID>10</DoorID><DoorStatus>Error</DoorStatus></Door>"
              "<Door><DoorID>63</DoorID><DoorStatus>Error</DoorStatus></Door>");
}
