#include "BasicCanDecoder.h"
#include "CanTestSupport.h"
#include "TestSupport.h"
#include "Vtoip.h"

#include <dirent.h>
#include <sys/stat.h>
#include <unistd.h>

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
        SPN* spn = nullptr;
        if (s.type == SPN::Numeric)
            spn = new SPNNumeric(s.value, "");
        else if (s.type == SPN::Status)
            spn = new SPNStatus(static_cast<uint32_t>(s.value), "");
        else
            spn = new SPNString("text");
        spn->setNumber(s.number);
        frame.addSpn(spn);
    }
    vtoip.handleFrame(&frame);
}

// The document with its time stamp, checked to be the current UTC time, replaced by "T".
std::string stamped(const std::string& document, const std::string& before) {
    const std::string after = formatDateTime(now());
    const size_t begin = document.find("<RecordedAtTime>") + 16;
    const size_t end = document.find("</RecordedAtTime>");
    if (begin < 16 || end == std::string::npos)
        return document;
    const std::string stamp = document.substr(begin, end - begin);
    EXPECT_LE(before, stamp);
    EXPECT_LE(stamp, after);
    return document.substr(0, begin) + "T" + document.substr(end);
}

std::string expectedDocument(const std::string& values, const std::string& doors,
                             const std::string& more) {
    return "<?xml version=\"1.0\"?><VEHICLEtoIPDelivery version=\"1.1a\"><VEHICLEtoIP>"
           "<RecordedAtTime>T</RecordedAtTime>" +
           values +
           (doors.empty() ? "<DoorsControl/>" : "<DoorsControl>" + doors + "</DoorsControl>") +
           more + "</VEHICLEtoIP></VEHICLEtoIPDelivery>";
}

std::string door(int id, const char* state) {
    return "<Door><DoorID>" + std::to_string(id) + "</DoorID><DoorStatus>" + state +
           "</DoorStatus></Door>";
}

size_t openSockets() {
    size_t count = 0;
    DIR* fds = opendir("/proc/self/fd");
    while (dirent* entry = readdir(fds)) {
        char target[64] = {};
        const std::string link = std::string("/proc/self/fd/") + entry->d_name;
        if (readlink(link.c_str(), target, sizeof target - 1) > 0 &&
            std::string(target).rfind("socket:", 0) == 0)
            ++count;
    }
    closedir(fds);
    return count;
}

class VtoipTest : public ::testing::Test {
protected:
    // No "service_port": the publisher stays silent, and D-Bus points at nothing should that
    // break. The interface "off" has no bus directory, so its reader fails and the service
    // runs without its sender thread: the tests take the documents themselves.
    void SetUp() override {
        setenv("DBUS_SYSTEM_BUS_ADDRESS", "unix:path=/nonexistent/tavro-test-bus", 1);
        setenv("TAVRO_VCAN_DIR", bus.path.c_str(), 1);
    }
    void TearDown() override { unsetenv("TAVRO_VCAN_DIR"); }

    Configuration configuration(const std::string& interfaces, const std::string& mappings = "") {
        return Configuration(dir.write("vehicletoip.conf", "network_interface=lo\n"
                                                           "multicast_addr=239.255.0.12\n"
                                                           "multicast_ttl=0\n"
                                                           "can_interface=" +
                                                               interfaces + "\n" + mappings));
    }

    TempDir dir;
    TempDir bus;
};

} // namespace

TEST_F(VtoipTest, ElementCodesAndTheDocumentOfEachSecond) {
    const size_t socketsBefore = openSockets();
    StderrCapture startLog;
    Vtoip vtoip(configuration("off"));
    startLog.restore();
    // The sender's socket only: the plain one is closed once opened.
    EXPECT_EQ(openSockets(), socketsBefore + 1);
    const std::string log = startLog.text();
    for (const char* line :
         {"NOTE: ifaddr: 127.0.0.1\nNOTE: ifaddr: 127.0.0.1\n",
          "ERR : Can: No interfaces initialized.\n",
          "ERR : Somthing went wrong in the CanHandler initialisation. Vtoip will be disabled.\n"})
        EXPECT_NE(log.find(line), std::string::npos) << line << " in\n" << log;

    StderrCapture ignored;
    feed(vtoip, {{SPN::Status, 512, 1},
                 {SPN::Status, 541, 1},
                 {SPN::Status, 0, 1},
                 {SPN::Numeric, 300, 1},
                 {SPN::String, 0, 0},
                 {SPN::Status, 503, 0}});
    ignored.restore();
    EXPECT_EQ(ignored.text(), "NOTE: SPN 541 is not of type status. Entry is ignored.\n"
                              "NOTE: SPN 0 is not of type status. Entry is ignored.\n"
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
    const std::string values = "<Odospeed>12.35</Odospeed><Ododistancetotal>123456"
                               "</Ododistancetotal><Ododistance>42</Ododistance>"
                               "<Odofault>true</Odofault><DoorsStatus>DoorOpen</DoorsStatus>";
    const std::string more = "<ActiveCabin>Cab2</ActiveCabin><PresenceHV>true</PresenceHV>"
                             "<StopRequest>false</StopRequest><VehicleType>Tram</VehicleType>"
                             "<VehicleCapacity>180</VehicleCapacity><VehicleNumber>1234"
                             "</VehicleNumber><VehicleMode>true</VehicleMode>"
                             "<VehicleOrder>-2</VehicleOrder>";
    const std::string before = formatDateTime(now());
    EXPECT_EQ(stamped(vtoip.takeDocument(), before),
              expectedDocument(values, door(3, "Closed") + door(12, "Open"), more));
    // Each document lists only the doors reported since the one before, the last state of each.
    EXPECT_EQ(stamped(vtoip.takeDocument(), before), expectedDocument(values, "", more));
    feed(vtoip, {{SPN::Status, 540, 9}, {SPN::Status, 500, 1}, {SPN::Status, 500, 3}});
    EXPECT_EQ(stamped(vtoip.takeDocument(), before),
              expectedDocument(values, door(0, "NotAvailable") + door(40, "Error"), more));
}

// Two interfaces feed one document through two readers, with the example mapping behind a
// first file that maps a BAM. The first interface is shared with another service (FMStoIP in
// tavro-all) that started its reader before and outlives this one.
TEST_F(VtoipTest, TwoReadersOneDocumentAndASharedReaderOutlivesTheService) {
    ASSERT_EQ(mkdir(bus.file("vtoip-a").c_str(), 0755), 0);
    ASSERT_EQ(mkdir(bus.file("vtoip-b").c_str(), 0755), 0);
    BasicCanDecoder raw;
    RecordingHook other;
    CanHandler* shared = CanHandler::forInterface("vtoip-a");
    shared->addDecoder(&other, &raw);
    ASSERT_EQ(shared->start(), 0);

    // Door 10 gets byte 0 of the packet that completes the message: its sequence number.
    const std::string bam = dir.write(
        "bam.json", R"([{"pgn": 65260, "data": [{"type": 1, "number": 510, "bitSize": 8}]}])");
    auto vtoip = std::make_unique<Vtoip>(configuration(
        "vtoip-a,vtoip-b,off",
        "mapping_file=" + bam + "," TAVRO_TEST_DATA "/../../etc/vehicletoip-mapping.json\n"));

    // On vtoip-b the doors come before the frame that completes the document.
    const std::string log = dir.write("frames.log", "(0.0) vtoip-a 0CFE6CEE#0210000000006B0C\n"
                                                    "(0.0) vtoip-a 18FEC1EE#E95F0000F4010000\n"
                                                    "(0.0) vtoip-a 18FE4E21#40FFFFFFFFFFFFFF\n"
                                                    "(0.0) vtoip-b 18FF1021#55FFFFFFFFFFFFFF\n"
                                                    "(0.0) vtoip-b 18FDA521#1405FDFFFFFFFFFF\n"
                                                    "(0.0) vtoip-b 1CECFF00#20120003FFECFE00\n"
                                                    "(0.0) vtoip-b 1CEBFF00#01574D413036585A\n"
                                                    "(0.0) vtoip-b 1CEBFF00#025A314B50303132\n"
                                                    "(0.0) vtoip-b 1CEBFF00#033334352AFFFFFF\n"
                                                    "(0.0) vtoip-b 18FF1121#005F0001FFFFFFFF\n");
    const std::string player = toolCommand("tavro-canplayer") + " -f " + log;
    ASSERT_EQ(system((player + " >/dev/null").c_str()), 0);
    const std::string before = formatDateTime(now());
    std::string document;
    for (int i = 0; i < 2000 && document.empty(); ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
        document = vtoip->takeDocument();
    }
    EXPECT_EQ(stamped(document, before),
              expectedDocument("<Odospeed>12.42</Odospeed><Ododistancetotal>122765"
                               "</Ododistancetotal><Ododistance>2500</Ododistance>"
                               "<Odofault>false</Odofault><DoorsStatus>DoorUnlocked</DoorsStatus>",
                               door(1, "Open") + door(2, "Open") + door(3, "Closed") +
                                   door(10, "NotAvailable"),
                               "<ActiveCabin>Cab1</ActiveCabin><PresenceHV>true</PresenceHV>"
                               "<StopRequest>true</StopRequest><VehicleType>Bus</VehicleType>"
                               "<VehicleCapacity>95</VehicleCapacity><VehicleNumber>1234"
                               "</VehicleNumber><VehicleMode>true</VehicleMode>"
                               "<VehicleOrder>1</VehicleOrder>"));
    ASSERT_TRUE(other.waitFor(3));

    vtoip.reset();
    EXPECT_TRUE(shared->isRunning());
    EXPECT_FALSE(CanHandler::forInterface("vtoip-b")->isRunning());
    ASSERT_EQ(system((player + " >/dev/null").c_str()), 0);
    EXPECT_TRUE(other.waitFor(6));
    shared->release(&other);
    EXPECT_FALSE(shared->isRunning());
}
