#include "BasicCanDecoder.h"
#include "CanTestSupport.h"
#include "TestSupport.h"
#include "Vtoip.h"

#include <sys/stat.h>

#include <gtest/gtest.h>

#include <thread>

namespace {

struct Signal {
    SPN::Type type;
    uint16_t number;
    double value;
};

void feed(Vtoip& vtoip, std::initializer_list<Signal> signals) {
    DecodedFrame frame;
    for (const Signal& s : signals) {
        SPN* spn = s.type == SPN::Numeric ? static_cast<SPN*>(new SPNNumeric(s.value, ""))
                                          : new SPNStatus(static_cast<uint32_t>(s.value), "");
        spn->setNumber(s.number);
        frame.addSpn(spn);
    }
    vtoip.handleFrame(&frame);
}

// What follows the time stamp.
std::string afterStamp(const std::string& document) {
    return document.substr(std::min(document.size(), document.find("</RecordedAtTime>")));
}

std::string door(int id, const char* state) {
    return "<Door><DoorID>" + std::to_string(id) + "</DoorID><DoorStatus>" + state +
           "</DoorStatus></Door>";
}

// No "service_port": the publisher stays silent, and D-Bus points at nothing should that
// break. The interface "off" has no bus directory, so its reader fails and the service runs
// without its sender thread: the tests take the documents themselves.
class VtoipTest : public ::testing::Test {
protected:
    void SetUp() override {
        setenv("DBUS_SYSTEM_BUS_ADDRESS", "unix:path=/nonexistent/tavro-test-bus", 1);
        setenv("TAVRO_VCAN_DIR", bus.path.c_str(), 1);
    }
    void TearDown() override { unsetenv("TAVRO_VCAN_DIR"); }

    Configuration configuration(const std::string& interfaces, const std::string& mappings = "") {
        return Configuration(
            dir.write("vehicletoip.conf", "network_interface=lo\nmulticast_addr=239.255.0.12\n"
                                          "multicast_ttl=0\ncan_interface=" +
                                              interfaces + "\n" + mappings));
    }

    TempDir dir;
    TempDir bus;
};

} // namespace

TEST_F(VtoipTest, ElementCodesAndTheDocumentOfEachSecond) {
    Vtoip vtoip(configuration("off"));
    StderrCapture log;
    feed(vtoip, {{SPN::Status, 512, 1},
                 {SPN::Status, 0, 1},
                 {SPN::Numeric, 300, 1},
                 {SPN::Status, 503, 0}});
    log.restore();
    EXPECT_EQ(log.text(), "NOTE: SPN 0 is not of type status. Entry is ignored.\n"
                          "NOTE: SPN 300 is not nummerical. Entry is ignored.\n");

    // Nothing to send until each element has had a value; doors reported meanwhile wait.
    const std::vector<Signal> elements = {
        {SPN::Numeric, 0, 12.346},   {SPN::Numeric, 100, 42}, {SPN::Numeric, 200, 123456.9},
        {SPN::Status, 300, 2},       {SPN::Status, 400, 7},   {SPN::Status, 600, 5},
        {SPN::Status, 700, 1},       {SPN::Status, 800, 0},   {SPN::Status, 900, 1},
        {SPN::Numeric, 1000, 180.7}, {SPN::Status, 1200, 1},  {SPN::Numeric, 1300, -2.9},
    };
    for (const Signal& element : elements) {
        EXPECT_EQ(vtoip.takeDocument(), "");
        feed(vtoip, {element});
    }
    const auto expected = [](const std::string& doors) {
        return "</RecordedAtTime><Odospeed>12.35</Odospeed><Ododistancetotal>123456"
               "</Ododistancetotal><Ododistance>42</Ododistance><Odofault>true</Odofault>"
               "<DoorsStatus>DoorOpen</DoorsStatus>" +
               (doors.empty() ? "<DoorsControl/>" : "<DoorsControl>" + doors + "</DoorsControl>") +
               "<ActiveCabin>Cab2</ActiveCabin><PresenceHV>true</PresenceHV><StopRequest>false"
               "</StopRequest><VehicleType>Tram</VehicleType><VehicleCapacity>180"
               "</VehicleCapacity><VehicleNumber>1234</VehicleNumber><VehicleMode>true"
               "</VehicleMode><VehicleOrder>-2</VehicleOrder></VEHICLEtoIP></VEHICLEtoIPDelivery>";
    };
    EXPECT_EQ(afterStamp(vtoip.takeDocument()), expected(door(3, "Closed") + door(12, "Open")));
    // Each document lists only the doors reported since the one before, the last state of each.
    EXPECT_EQ(afterStamp(vtoip.takeDocument()), expected(""));
    feed(vtoip, {{SPN::Status, 540, 9}, {SPN::Status, 500, 1}, {SPN::Status, 500, 3}});
    EXPECT_EQ(afterStamp(vtoip.takeDocument()),
              expected(door(0, "NotAvailable") + door(40, "Error")));
}

// Two interfaces feed one document through two readers. The first interface is shared with
// another service (FMStoIP in tavro-all) that started its reader before and outlives this one.
TEST_F(VtoipTest, TwoReadersOneDocumentAndASharedReaderOutlivesTheService) {
    ASSERT_EQ(mkdir(bus.file("vtoip-a").c_str(), 0755), 0);
    ASSERT_EQ(mkdir(bus.file("vtoip-b").c_str(), 0755), 0);
    BasicCanDecoder raw;
    RecordingHook other;
    CanHandler* shared = CanHandler::forInterface("vtoip-a");
    shared->addDecoder(&other, &raw);
    ASSERT_EQ(shared->start(), 0);
    auto vtoip = std::make_unique<Vtoip>(configuration("vtoip-a,vtoip-b,off",
                                                       "mapping_file=" TAVRO_TEST_DATA
                                                       "/../../etc/vehicletoip-mapping.json\n"));

    const std::string player =
        toolCommand("tavro-canplayer") + " -f " +
        dir.write("frames.log", "(0.0) vtoip-a 0CFE6CEE#0210000000006B0C\n"
                                "(0.0) vtoip-a 18FEC1EE#E95F0000F4010000\n"
                                "(0.0) vtoip-a 18FE4E21#40FFFFFFFFFFFFFF\n"
                                "(0.0) vtoip-b 18FF1021#55FFFFFFFFFFFFFF\n"
                                "(0.0) vtoip-b 18FDA521#1405FDFFFFFFFFFF\n"
                                "(0.0) vtoip-b 18FF1121#005F0001FFFFFFFF\n") +
        " >/dev/null";
    ASSERT_EQ(system(player.c_str()), 0);
    std::string document;
    for (int i = 0; i < 2000 && document.empty(); ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
        document = vtoip->takeDocument();
    }
    for (const std::string part : {"<Odospeed>12.42</Odospeed><Ododistancetotal>122765<",
                                   "<VehicleCapacity>95</VehicleCapacity>",
                                   "<DoorsControl><Door><DoorID>1</DoorID><DoorStatus>Open<"})
        EXPECT_NE(document.find(part), std::string::npos) << part << " in " << document;
    ASSERT_EQ(other.waitFor(3).size(), 3u);

    vtoip.reset();
    EXPECT_TRUE(shared->isRunning());
    EXPECT_FALSE(CanHandler::forInterface("vtoip-b")->isRunning());
    ASSERT_EQ(system(player.c_str()), 0);
    EXPECT_EQ(other.waitFor(6).size(), 6u);
    shared->release(&other);
}
