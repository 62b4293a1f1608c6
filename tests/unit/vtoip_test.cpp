#include "BasicCanDecoder.h"
#include "CanTestSupport.h"
#include "TestSupport.h"
#include "VtoIpDecoder.h"
#include "Vtoip.h"

#include <sys/stat.h>

#include <gtest/gtest.h>

#include <cmath>

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

// No "service_port": the publisher stays silent, and D-Bus points at nothing should that
// break. The interface "off" has no bus directory, so its reader fails and the service runs
// without its sender thread: the tests take the documents themselves.
class VtoipTest : public ::testing::Test {
protected:
    Configuration configuration(const std::string& interfaces, const std::string& mappings = "") {
        setenv("DBUS_SYSTEM_BUS_ADDRESS", "unix:path=/nonexistent/tavro-test-bus", 1);
        setenv("TAVRO_VCAN_DIR", bus.path.c_str(), 1);
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
    {
        // A stream of frames with an SPN the document has no place for: one line per window.
        RepeatWindowScope window(std::chrono::hours(1));
        for (int i = 0; i < 1000; ++i)
            feed(vtoip, {{SPN::Status, 0, 1}});
    }
    log.restore();
    EXPECT_EQ(log.text(),
              "NOTE: SPN 0 is not of type status. Entry is ignored.\n"
              "NOTE: SPN 300 is not nummerical. Entry is ignored.\n"
              "NOTE: SPN 0 is not of type status. Entry is ignored.\n"
              "NOTE: Repeated 999 times in 3600 s: SPN 0 is not of type status. Entry is "
              "ignored.\n");

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
    // What follows the time stamp; the doors reported since the document before are in
    // test_vehicletoip.py.
    const std::string document = vtoip.takeDocument();
    EXPECT_EQ(document.substr(std::min(document.size(), document.find("</RecordedAtTime>"))),
              "</RecordedAtTime><Odospeed>12.35</Odospeed><Ododistancetotal>123456"
              "</Ododistancetotal><Ododistance>42</Ododistance><Odofault>true</Odofault>"
              "<DoorsStatus>DoorOpen</DoorsStatus><DoorsControl><Door><DoorID>3</DoorID>"
              "<DoorStatus>Closed</DoorStatus></Door><Door><DoorID>12</DoorID>"
              "<DoorStatus>Open</DoorStatus></Door></DoorsControl><ActiveCabin>Cab2"
              "</ActiveCabin><PresenceHV>true</PresenceHV><StopRequest>false"
              "</StopRequest><VehicleType>Tram</VehicleType><VehicleCapacity>180"
              "</VehicleCapacity><VehicleNumber>1234</VehicleNumber><VehicleMode>true"
              "</VehicleMode><VehicleOrder>-2</VehicleOrder></VEHICLEtoIP>"
              "</VEHICLEtoIPDelivery>");

    // Codes beyond a value table read as its last entry (ActiveCabin above too); distances are
    // bounded to 32 bits.
    feed(vtoip, {{SPN::Status, 400, 4294967295.0}, {SPN::Status, 900, 3}});
    feed(vtoip, {{SPN::Numeric, 200, 4294967296.0}, {SPN::Numeric, 100, -3}});
    const std::string bounded = vtoip.takeDocument();
    for (const char* part : {"<DoorsStatus>DoorOpen<", "<VehicleType>Ferry<",
                             ">4294967295</Ododistancetotal>", "<Ododistance>0<"})
        EXPECT_NE(bounded.find(part), std::string::npos) << part << " in " << bounded;
    feed(vtoip, {{SPN::Numeric, 200, std::nan("")}});
    EXPECT_NE(vtoip.takeDocument().find("<Ododistancetotal>0<"), std::string::npos);
}

// The first interface is shared with another service (FMStoIP in tavro-all) that started its
// reader before and outlives this one; the reader of the second stops with the service. Two
// readers feeding one document are in test_vehicletoip.py.
TEST_F(VtoipTest, ASharedReaderOutlivesTheService) {
    ASSERT_EQ(mkdir(bus.file("vtoip-a").c_str(), 0755), 0);
    ASSERT_EQ(mkdir(bus.file("vtoip-b").c_str(), 0755), 0);
    const Configuration conf =
        configuration("vtoip-a,vtoip-b,off",
                      "mapping_file=" TAVRO_TEST_DATA "/../../etc/vehicletoip-mapping.json\n");
    BasicCanDecoder raw;
    RecordingHook other;
    CanHandler* shared = CanHandler::forInterface("vtoip-a");
    shared->addDecoder(&other, &raw);
    ASSERT_EQ(shared->start(), 0);
    auto vtoip = std::make_unique<Vtoip>(conf);
    EXPECT_TRUE(CanHandler::forInterface("vtoip-b")->isRunning());
    vtoip.reset();
    EXPECT_TRUE(shared->isRunning());
    EXPECT_FALSE(CanHandler::forInterface("vtoip-b")->isRunning());
    // A frame for the mapping: had the service left its hook behind, it would be called.
    const std::string log = dir.write("frames.log", "(0.0) vtoip-a 18FF1121#005F0001FFFFFFFF\n");
    ASSERT_EQ(system((toolCommand("tavro-canplayer") + " -f " + log + " >/dev/null").c_str()), 0);
    EXPECT_EQ(other.waitFor(1).size(), 1u);
    shared->release(&other);
    EXPECT_FALSE(shared->isRunning());
}

// The "data" key only, numeric rules on whole bytes; transport frames are taken, not shared,
// and only the completing TP.DT yields a frame, with its own 8 bytes.
TEST(VtoIpDecoder, DataRulesAndTransportMessages) {
    VtoIpDecoder decoder(testData("vehicle_mapping.json"));
    EXPECT_FALSE(decoder.accepts(canFrame(0x18FEEE00)));
    auto frame = decode(decoder, canFrame(0x18FEF100, {0x00, 0x20, 0x00, 0x19}));
    ASSERT_EQ(frame->spns().size(), 3u);
    // Bytes 2-3 whatever bitOffset and bitSize say: 0x1900 / 256.
    EXPECT_EQ(numeric(*frame, 0).getValue(), 25.0);
    EXPECT_EQ(numeric(*frame, 1).getValue(), 3);        // byteSize 0 reads nothing
    EXPECT_EQ(status(*frame, 2).getDescription(), "c"); // bits 12-13 of 0x20 in byte 1

    const std::string vin = "WMA06XZZ1KP012345*";
    EXPECT_FALSE(decode(decoder, bamAnnounce(65260, 18, 3)));
    EXPECT_FALSE(decode(decoder, bamPacket(1, vin.substr(0, 7))));
    EXPECT_FALSE(decode(decoder, bamPacket(2, vin.substr(7, 7))));
    frame = decode(decoder, bamPacket(3, vin.substr(14)));
    ASSERT_TRUE(frame);
    EXPECT_EQ(frame->getPgn(), 65260);
    ASSERT_EQ(frame->getDataLength(), 8u);
    EXPECT_EQ(text(*frame, 0).getValue(), "WMA06XZZ1KP012345");
    EXPECT_EQ(numeric(*frame, 1).getValue(), 3); // byte 0 of the packet: its sequence number
}
