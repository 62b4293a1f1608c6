#include "BasicCanDecoder.h"
#include "CanHandler.h"
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

} // namespace

// No "service_port", D-Bus pointing at nothing: the publisher stays silent. The interface "off"
// has no bus directory: no sender thread runs, the test takes the documents itself.
TEST(Vtoip, ElementCodesAndTheDocumentOfEachSecond) {
    TempDir dir;
    setenv("DBUS_SYSTEM_BUS_ADDRESS", "unix:path=/nonexistent/tavro-test-bus", 1);
    setenv("TAVRO_VCAN_DIR", dir.path.c_str(), 1);
    Vtoip vtoip(Configuration(dir.write("vehicletoip.conf",
                                        "network_interface=lo\nmulticast_ttl=0\n"
                                        "multicast_addr=239.255.0.12\ncan_interface=off\n")));
    StderrCapture log;
    feed(vtoip, {{SPN::Status, 512, 1}, {SPN::Status, 0, 1}});
    feed(vtoip, {{SPN::Numeric, 300, 1}, {SPN::Status, 503, 0}});
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
    // What follows the time stamp (doors sent once: test_vehicletoip.py).
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

// Transport frames are taken, not shared, and only the completing TP.DT yields a frame, with
// its own 8 bytes. (The numeric and status rules: test_vehicletoip.py.)
TEST(VtoIpDecoder, TransportMessages) {
    VtoIpDecoder decoder(testData("vehicle_mapping.json"));
    EXPECT_FALSE(decoder.accepts(canFrame(0x18FEEE00)));
    const std::string vin = "WMA06XZZ1KP012345*";
    EXPECT_FALSE(decode(decoder, bamAnnounce(65260, 18, 3)));
    EXPECT_FALSE(decode(decoder, bamPacket(1, vin.substr(0, 7))));
    EXPECT_FALSE(decode(decoder, bamPacket(2, vin.substr(7, 7))));
    const auto frame = decode(decoder, bamPacket(3, vin.substr(14)));
    ASSERT_TRUE(frame);
    EXPECT_EQ(frame->getPgn(), 65260);
    ASSERT_EQ(frame->getDataLength(), 8u);
    EXPECT_EQ(text(*frame, 0).getValue(), "WMA06XZZ1KP012345");
    EXPECT_EQ(numeric(*frame, 1).getValue(), 3); // byte 0 of the packet: its sequence number
}

// The first interface's reader is shared with a service that started it before and outlives
// this one (FMStoIP in tavro-all); the second's stops with the service. A hook left behind
// would be called for the next frame after the service is gone.
TEST(Vtoip, ASharedReaderOutlivesTheServiceWithoutItsHook) {
    TempDir bus;
    setenv("DBUS_SYSTEM_BUS_ADDRESS", "unix:path=/nonexistent/tavro-test-bus", 1);
    setenv("TAVRO_VCAN_DIR", bus.path.c_str(), 1);
    ASSERT_EQ(mkdir(bus.file("vt-a").c_str(), 0755) + mkdir(bus.file("vt-b").c_str(), 0755), 0);
    BasicCanDecoder raw;
    RecordingHook other;
    CanHandler* shared = CanHandler::forInterface("vt-a");
    shared->addDecoder(&other, &raw);
    ASSERT_EQ(shared->start(), 0);
    auto vtoip = std::make_unique<Vtoip>(Configuration(bus.write(
        "vehicletoip.conf", "network_interface=lo\nmulticast_ttl=0\nmulticast_addr=239.255.0.12\n"
                            "can_interface=vt-a,vt-b\nmapping_file=" TAVRO_TEST_DATA
                            "/../../etc/vehicletoip-mapping.json\n")));
    vtoip.reset();
    EXPECT_TRUE(shared->isRunning());
    EXPECT_FALSE(CanHandler::forInterface("vt-b")->isRunning());
    const std::string log = bus.write("frames.log", "(0.0) vt-a 18FF1121#005F0001FFFFFFFF\n");
    ASSERT_EQ(system((toolCommand("tavro-canplayer") + " -f " + log + " >/dev/null").c_str()), 0);
    EXPECT_EQ(other.waitFor(1).size(), 1u);
    shared->release(&other);
}
