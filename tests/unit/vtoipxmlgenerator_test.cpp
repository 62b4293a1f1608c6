#include "VtoIPXMLGenerator.h"

#include "DocumentTestSupport.h"

#include <gtest/gtest.h>

#include <cmath>

// The whole document, its number formats and the doors are pinned through the service in
// vtoip_test.cpp.
TEST(VtoIPXMLGeneratorTest, CompleteOnlyOnceEveryTextElementIsSet) {
    using G = VtoIPXMLGenerator;
    const std::vector<std::function<void(G&)>> setters = {
        [](G& g) { g.setRecordedAtTime(DateTime()); },
        [](G& g) { g.setOdospeed(0); },
        [](G& g) { g.setOdodistancetotal(0); },
        [](G& g) { g.setOdodistance(0); },
        [](G& g) { g.setOdofault(false); },
        [](G& g) { g.setDoorsStatus(0); },
        [](G& g) { g.setActiveCabin(0); },
        [](G& g) { g.setPresenceHV(false); },
        [](G& g) { g.setStopRequest(false); },
        [](G& g) { g.setVehicleType(0); },
        [](G& g) { g.setVehicleCapacity(0); },
        [](G& g) { g.setVehicleNumber("7"); },
        [](G& g) { g.setVehicleMode(false); },
        [](G& g) { g.setVehicleOrder(0); },
    };
    // Leaving out any one setter leaves the document incomplete; doors do not matter.
    for (size_t skipped = 0; skipped < setters.size(); ++skipped) {
        G g;
        g.setDoor(0, 1);
        for (size_t i = 0; i < setters.size(); ++i)
            if (i != skipped)
                setters[i](g);
        EXPECT_FALSE(g.isComplete()) << "without setter " << skipped;
        setters[skipped](g);
        EXPECT_TRUE(g.isComplete());
    }
}

TEST(VtoIPXMLGeneratorTest, ValueTablesAndDistanceBounds) {
    VtoIPXMLGenerator g;
    const struct {
        uint32_t code;
        const char *doors, *cabin, *type;
    } tables[] = {{0, "AllDoorsClosedLocked", "NoCab", "Bus"},
                  {1, "DoorUnlocked", "Cab1", "Tram"},
                  {2, "DoorOpen", "Cab2", "Ferry"},
                  {4294967295u, "DoorOpen", "Cab2", "Ferry"}};
    for (const auto& c : tables) {
        g.setDoorsStatus(c.code);
        g.setActiveCabin(c.code);
        g.setVehicleType(c.code);
        const std::string text = g.toString();
        EXPECT_EQ(element(text, "DoorsStatus"), c.doors) << c.code;
        EXPECT_EQ(element(text, "ActiveCabin"), c.cabin) << c.code;
        EXPECT_EQ(element(text, "VehicleType"), c.type) << c.code;
    }
    const std::pair<double, const char*> distances[] = {
        {-3.5, "0"}, {4294967296.0, "4294967295"}, {std::nan(""), "0"}};
    for (const auto& d : distances) {
        g.setOdodistancetotal(d.first);
        g.setOdodistance(d.first);
        EXPECT_EQ(element(g.toString(), "Ododistancetotal"), d.second) << d.first;
        EXPECT_EQ(element(g.toString(), "Ododistance"), d.second) << d.first;
    }
}
