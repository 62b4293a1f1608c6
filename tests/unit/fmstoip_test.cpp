#include "Fmstoip.h"

#include "BasicCanDecoder.h"
#include "CanTestSupport.h"
#include "TestSupport.h"

#include <arpa/inet.h>
#include <dirent.h>
#include <poll.h>
#include <sys/stat.h>
#include <sys/un.h>

#include <gtest/gtest.h>

#include <atomic>
#include <thread>

namespace {

// Datagrams sent to 127.0.0.1: the service's sender needs no multicast for that, and the host
// namespace sees none.
class Datagrams {
public:
    Datagrams() {
        fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        sockaddr_in address;
        memset(&address, 0, sizeof address);
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t length = sizeof address;
        bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address);
        getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length);
        port = std::to_string(ntohs(address.sin_port));
    }
    ~Datagrams() { close(fd); }

    // The next datagram; "" when none came within the wait.
    std::string next(int waitMs = 20000) {
        pollfd ready = {fd, POLLIN, 0};
        if (poll(&ready, 1, waitMs) != 1)
            return "";
        char buffer[65536];
        const ssize_t n = recv(fd, buffer, sizeof buffer, 0);
        return n > 0 ? std::string(buffer, static_cast<size_t>(n)) : "";
    }

    std::string port;

private:
    int fd = -1;
};

DecodedFrame frame(uint16_t pgn, uint64_t time, std::vector<uint8_t> data = {}) {
    DecodedFrame f;
    f.setPgn(pgn);
    f.setTimestamp(time);
    data.resize(8, 0x00);
    f.setData(data.data(), 8);
    return f;
}

template <typename T> SPN* named(T* spn, uint16_t number, const std::string& name) {
    spn->setNumber(number);
    spn->setName(name);
    return spn;
}

// Sends one can_frame record to every reader of a virtual bus interface.
void sendToBus(const std::string& directory, const can_frame& record) {
    const int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (DIR* d = opendir(directory.c_str())) {
        while (dirent* entry = readdir(d)) {
            sockaddr_un address;
            memset(&address, 0, sizeof address);
            address.sun_family = AF_UNIX;
            const std::string path = directory + "/" + entry->d_name;
            if (path.size() >= sizeof address.sun_path)
                continue;
            memcpy(address.sun_path, path.c_str(), path.size());
            sendto(fd, &record, sizeof record, MSG_DONTWAIT, reinterpret_cast<sockaddr*>(&address),
                   sizeof address);
        }
        closedir(d);
    }
    close(fd);
}

uint64_t wallMillis() {
    return static_cast<uint64_t>(std::chrono::duration_cast<std::chrono::milliseconds>(
                                     std::chrono::system_clock::now().time_since_epoch())
                                     .count());
}

std::string element(const std::string& document, const std::string& name) {
    const size_t begin = document.find("<" + name + ">");
    const size_t end = document.find("</" + name + ">");
    if (begin == std::string::npos || end == std::string::npos)
        return "";
    return document.substr(begin + name.size() + 2, end - begin - name.size() - 2);
}

size_t count(const std::string& text, const std::string& part) {
    size_t n = 0;
    for (size_t pos = text.find(part); pos != std::string::npos; pos = text.find(part, pos + 1))
        ++n;
    return n;
}

class FmstoipTest : public ::testing::Test {
protected:
    void SetUp() override {
        // Nothing here announces; should that break, D-Bus points at nothing.
        setenv("DBUS_SYSTEM_BUS_ADDRESS", "unix:path=/nonexistent/tavro-test-bus", 1);
        setenv("TAVRO_VCAN_DIR", dir.path.c_str(), 1);
    }
    void TearDown() override { unsetenv("TAVRO_VCAN_DIR"); }

    // The announcement takes only plain decimal ports and stays off for "+PORT"; the sender
    // reads the text with atoi and sends to PORT. So no Avahi is involved.
    std::unique_ptr<Fmstoip> start(const std::string& settings) {
        return start(settings, counterFile());
    }
    std::unique_ptr<Fmstoip> start(const std::string& settings, const std::string& counterPath) {
        const Configuration conf(dir.write(
            "fmstoip.conf", "multicast_addr=127.0.0.1\nservice_port=+" + datagrams.port +
                                "\nnetwork_interface=lo\nmulticast_ttl=0\npgn_counter_file=" +
                                counterPath + "\n" + settings));
        return std::make_unique<Fmstoip>(conf);
    }
    std::string counterFile() const { return dir.file("counts"); }
    std::string counts() const { return TempDir::read(counterFile()); }

    VerbosityScope quiet{0};
    TempDir dir;
    Datagrams datagrams;
};

} // namespace

TEST_F(FmstoipTest, ImmediateModeSendsEachRequestedFrameAsItsOwnDocument) {
    // A negative period, as an unsigned one weeks long, means immediate mode too.
    auto service = start("period_ms=-40\n");
    // A periodic document only goes out while some PGN is requested.
    std::stringstream dropped("<dropped/>");
    std::stringstream kept("<kept/>");
    service->deliver(dropped);
    service->addPgn("FEF1");
    service->deliver(kept);
    EXPECT_EQ(datagrams.next(), "<kept/>");
    service->addPgn("00EA");

    DecodedFrame speed = frame(0xFEF1, 1700000000123ULL, {0x04, 0x50, 0x14});
    speed.addSpn(named(new SPNStatus(1, "set"), 70, "Parking brake"));
    speed.addSpn(named(new SPNNumeric(80.05, " km/h"), 84, "Wheel speed"));
    speed.addSpn(named(new SPNNumeric(-5, ""), 9002, "Outside"));
    speed.addSpn(named(new SPNString("A&B"), 237, "VIN"));
    DecodedFrame unrequested = frame(0xF004, 1700000000124ULL);
    DecodedFrame version = frame(0xFDD1, 1700000000125ULL, {0x01, '0', '4', '0', '2', 0x00});
    DecodedFrame request = frame(0x00EA, 1700000000126ULL, {0xF1, 0xFE, 0x00});
    for (DecodedFrame* f : {&speed, &unrequested, &version, &request})
        service->handleFrame(f);

    const std::string frameHead = "<?xml version=\"1.0\"?>\n"
                                  "<FMStoIPDelivery version=\"1.1a\">\n"
                                  "\t<FMStoIP FMSVersion=\"";
    const std::string frameTail = "\t\t</Frame>\n"
                                  "\t</FMStoIP>\n"
                                  "</FMStoIPDelivery>\n";
    EXPECT_EQ(datagrams.next(), frameHead +
                                    "0000\">\n"
                                    "\t\t<Frame Status=\"OK\">\n"
                                    "\t\t\t<PGN>FEF1</PGN>\n"
                                    "\t\t\t<Data>0450140000000000</Data>\n"
                                    "\t\t\t<RelativeTime>1700000000123</RelativeTime>\n"
                                    "\t\t\t<SPN id=\"70\">\n"
                                    "\t\t\t\t<Name>Parking brake</Name>\n"
                                    "\t\t\t\t<Value>set</Value>\n"
                                    "\t\t\t</SPN>\n"
                                    "\t\t\t<SPN id=\"84\">\n"
                                    "\t\t\t\t<Name>Wheel speed</Name>\n"
                                    "\t\t\t\t<Unit> km/h</Unit>\n"
                                    "\t\t\t\t<Value>80.050</Value>\n"
                                    "\t\t\t</SPN>\n"
                                    "\t\t\t<SPN id=\"9002\">\n"
                                    "\t\t\t\t<Name>Outside</Name>\n"
                                    "\t\t\t\t<Value>-5.000</Value>\n"
                                    "\t\t\t</SPN>\n"
                                    "\t\t\t<SPN id=\"237\">\n"
                                    "\t\t\t\t<Name>VIN</Name>\n"
                                    "\t\t\t\t<Value>A&amp;B</Value>\n"
                                    "\t\t\t</SPN>\n" +
                                    frameTail);
    // The unrequested frames in between sent nothing; the version frame counts from then on.
    const std::string second = datagrams.next();
    EXPECT_EQ(second, frameHead +
                          "0402\">\n"
                          "\t\t<Frame Status=\"OK\">\n"
                          "\t\t\t<PGN>00EA</PGN>\n"
                          "\t\t\t<Data>F1FE000000000000</Data>\n"
                          "\t\t\t<RelativeTime>1700000000126</RelativeTime>\n" +
                          frameTail);

    // Every PGN seen can be fetched, requested or not; only the exact PGN text matches.
    EXPECT_EQ(service->getPgnDocument("00EA"), second);
    EXPECT_NE(service->getPgnDocument("F004").find("<PGN>F004</PGN>"), std::string::npos);
    EXPECT_NE(service->getPgnDocument("FDD1").find("<Data>0130343032000000</Data>"),
              std::string::npos);
    for (const char* unknown : {"fef1", "65265", "EA", "FEF1 ", "0000"})
        EXPECT_EQ(service->getPgnDocument(unknown), "") << unknown;
}

TEST_F(FmstoipTest, PeriodicModeCollectsRequestedFramesInArrivalOrder) {
    auto service = start("period_ms=40\n");
    service->addPgn("FEF1");
    std::vector<DecodedFrame> frames = {frame(0xFEF1, 1), frame(0xF004, 2), frame(0xFEF1, 3),
                                        frame(0xFEF1, 4)};
    frames[2].addSpn(named(new SPNNumeric(13, "%"), 96, "Fuel"));
    for (DecodedFrame& f : frames)
        service->handleFrame(&f);

    // The period may fall between the frames: collect until all three came.
    std::string frameTexts;
    const std::string head = "<?xml version=\"1.0\"?><FMStoIPDelivery version=\"1.1a\"><FMStoIP "
                             "FMSVersion=\"0000\">";
    const std::string tail = "</FMStoIP></FMStoIPDelivery>";
    for (int i = 0; i < 3 && count(frameTexts, "<Frame ") < 3; ++i) {
        const std::string document = datagrams.next();
        ASSERT_EQ(document.compare(0, head.size(), head), 0) << document;
        ASSERT_GE(document.size(), head.size() + tail.size());
        ASSERT_EQ(document.substr(document.size() - tail.size()), tail);
        EXPECT_EQ(count(document, "\n"), 0u) << "one line";
        frameTexts += document.substr(head.size(), document.size() - head.size() - tail.size());
    }
    EXPECT_EQ(frameTexts, "<Frame Status=\"OK\"><PGN>FEF1</PGN><Data>0000000000000000</Data>"
                          "<RelativeTime>1</RelativeTime></Frame>"
                          "<Frame Status=\"OK\"><PGN>FEF1</PGN><Data>0000000000000000</Data>"
                          "<RelativeTime>3</RelativeTime><SPN id=\"96\"><Name>Fuel</Name>"
                          "<Unit>%</Unit><Value>13.000</Value></SPN></Frame>"
                          "<Frame Status=\"OK\"><PGN>FEF1</PGN><Data>0000000000000000</Data>"
                          "<RelativeTime>4</RelativeTime></Frame>");
    EXPECT_EQ(datagrams.next(200), "") << "no document for periods without frames";

    DecodedFrame version = frame(0xFDD1, 5, {0x00, '0', '4', '0', '2', '9'});
    DecodedFrame later = frame(0xFEF1, 6);
    service->handleFrame(&version);
    service->handleFrame(&later);
    EXPECT_NE(datagrams.next().find("<FMStoIP FMSVersion=\"0402\"><Frame Status=\"OK\"><PGN>FEF1"
                                    "</PGN><Data>0000000000000000</Data><RelativeTime>6<"),
              std::string::npos);
}

TEST_F(FmstoipTest, RequestCountsAndTheCounterFile) {
    // Counts above 100 load as they are; a count that does not parse loads as 0.
    dir.write("counts", "F004=120\nFEF1=x\n0100=7\nFE6C=70000\n");
    std::unique_ptr<Fmstoip> service;
    {
        VerbosityScope warnings(1);
        StderrCapture capture;
        service = start("");
        const std::string log = capture.text();
        for (const std::string& line : {"WARN: Invalid request count \"x\" of PGN FEF1 in " +
                                            counterFile() + ": taken as 0.\n",
                                        "WARN: Invalid request count \"70000\" of PGN FE6C in " +
                                            counterFile() + ": taken as 0.\n"})
            EXPECT_EQ(count(log, line), 1u) << log;
    }
    EXPECT_EQ(counts(), "F004=120\nFEF1=x\n0100=7\nFE6C=70000\n") << "not written at start";

    const struct {
        int adds;
        int removes;
        std::string pgn;
        std::string file;
    } steps[] = {
        {3, 1, "FEF1", "0100=7\nF004=120\nFEF1=2\n"},
        {0, 2, "FEF1", "0100=7\nF004=120\n"},
        {0, 1, "FEF1", "0100=7\nF004=120\n"},
        {0, 1, "0000", "0100=7\nF004=120\n"},
        {1, 0, "F004", "0100=7\nF004=120\n"},
        {0, 1, "F004", "0100=7\nF004=119\n"},
        // Never matches a frame, but is counted under its own text.
        {1, 0, "fef1", "0100=7\nF004=119\nfef1=1\n"},
        {2, 0, "65265", "0100=7\n65265=2\nF004=119\nfef1=1\n"},
        // Would read back as another PGN: counted, not written.
        {1, 0, " FEF1", "0100=7\n65265=2\nF004=119\nfef1=1\n"},
        {1, 0, "X\nFEF1", "0100=7\n65265=2\nF004=119\nfef1=1\n"},
        {150, 0, "0200", "0100=7\n0200=100\n65265=2\nF004=119\nfef1=1\n"},
    };
    for (const auto& step : steps) {
        for (int i = 0; i < step.adds; ++i)
            service->addPgn(step.pgn);
        for (int i = 0; i < step.removes; ++i)
            service->removePgn(step.pgn);
        EXPECT_EQ(counts(), step.file) << step.pgn;
    }
    struct stat info;
    EXPECT_NE(stat((counterFile() + ".tmp").c_str(), &info), 0) << "no temporary file left";

    // Written at the end too, and loaded by the next start.
    remove(counterFile().c_str());
    service.reset();
    EXPECT_EQ(counts(), "0100=7\n0200=100\n65265=2\nF004=119\nfef1=1\n");
    service = start("");
    service->addPgn("0200");
    service->removePgn("0100");
    EXPECT_EQ(counts(), "0100=6\n0200=100\n65265=2\nF004=119\nfef1=1\n");

    // Texts are bounded in length and number; one that drops to 0 makes room for another.
    const std::string before = counts();
    VerbosityScope warnings(1);
    StderrCapture capture;
    service->addPgn(std::string(Fmstoip::maxRequestLength + 1, 'A'));
    std::string last;
    // Five texts have a count already.
    for (size_t i = 6; i <= Fmstoip::maxRequestedPgns; ++i)
        service->addPgn(last = "X" + std::to_string(i));
    EXPECT_EQ(capture.text(),
              "WARN: Request for a PGN text of 65 bytes not counted (at most 64).\n");
    service->addPgn("Y");
    EXPECT_EQ(count(capture.text(), "WARN: Request for PGN \"Y\" not counted: 1024 PGNs are "
                                    "requested already.\n"),
              1u);
    for (int i = 0; i < 2; ++i) {
        service->removePgn(last);
        service->addPgn("Y");
    }
    const std::string after = counts();
    EXPECT_EQ(after.find(last + "="), std::string::npos);
    EXPECT_NE(after.find("\nY=2\n"), std::string::npos);
    EXPECT_EQ(std::count(after.begin(), after.end(), '\n'), 1024);
    EXPECT_EQ(after.find(std::string(Fmstoip::maxRequestLength, 'A')), std::string::npos);
    EXPECT_EQ(after.rfind(before.substr(0, 7), 0), 0u);
}

TEST_F(FmstoipTest, CounterFileThatCannotBeWritten) {
    ASSERT_EQ(mkdir(counterFile().c_str(), 0755), 0);
    for (const std::string& path : {dir.file("missing/counts"), counterFile(), std::string()}) {
        SCOPED_TRACE(path);
        VerbosityScope warnings(1);
        StderrCapture capture;
        auto service = start("", path);
        service->addPgn("FEF1");
        capture.restore();
        EXPECT_EQ(count(capture.text(), "WARN: Cannot write to file: " + path + "\n"), 1u)
            << capture.text();
        // The count is kept in memory and the service runs on.
        DecodedFrame requested = frame(0xFEF1, 7);
        service->handleFrame(&requested);
        EXPECT_NE(datagrams.next().find("<RelativeTime>7</RelativeTime>"), std::string::npos);
    }
}

TEST(FrameQueue, OverloadDropsTheOldestFrame) {
    FrameQueue queue;
    VerbosityScope warnings(1);
    StderrCapture capture;
    for (uint64_t i = 1; i <= 101; ++i)
        queue.push(frame(0xFEF1, i));
    EXPECT_EQ(capture.text(), "WARN: Dropped can frame!\n");
    ASSERT_EQ(queue.size(), 100u);
    for (uint64_t i = 2; i <= 101; ++i)
        EXPECT_EQ(queue.pop()->getTimestamp(), i);

    // Closing wakes a waiting consumer; frames left are freed with the queue.
    FrameQueue idle;
    std::thread consumer([&] { EXPECT_EQ(idle.pop(), nullptr); });
    idle.close();
    consumer.join();
    queue.push(frame(0xFEF1, 102));
    queue.close();
    EXPECT_EQ(queue.pop(), nullptr);
}

// Once the consumer takes frames, a full queue holds the producer up instead of dropping, for
// as long as the allowance; past it, the oldest frames go again, at once.
TEST(FrameQueue, FullQueueHoldsTheProducerUpForTheStallAllowance) {
    VerbosityScope warnings(1);
    StderrCapture capture;
    FrameQueue patient(100, std::chrono::hours(1));
    std::atomic<bool> resume{false};
    std::vector<uint64_t> taken;
    std::thread consumer([&] {
        taken.push_back(patient.pop()->getTimestamp());
        while (!resume)
            usleep(1000);
        while (taken.size() < 150)
            taken.push_back(patient.pop()->getTimestamp());
    });
    std::thread producer([&] {
        for (uint64_t i = 1; i <= 150; ++i)
            patient.push(frame(0xFEF1, i));
    });
    while (patient.size() < 100)
        usleep(1000);
    resume = true;
    producer.join();
    consumer.join();
    std::vector<uint64_t> expected;
    for (uint64_t i = 1; i <= 150; ++i)
        expected.push_back(i);
    EXPECT_EQ(taken, expected);
    EXPECT_EQ(capture.text(), "");

    FrameQueue stalled(100, std::chrono::milliseconds(50));
    std::thread first([&] { EXPECT_EQ(stalled.pop()->getTimestamp(), 1u); });
    stalled.push(frame(0xFEF1, 1));
    first.join();
    for (uint64_t i = 2; i <= 103; ++i)
        stalled.push(frame(0xFEF1, i));
    EXPECT_EQ(capture.text(), "WARN: Dropped can frame!\nWARN: Dropped can frame!\n");
    EXPECT_EQ(stalled.pop()->getTimestamp(), 4u);
}

TEST_F(FmstoipTest, FailedCanStartDisablesTheService) {
    ASSERT_EQ(mkdir(dir.file("vcan-fms1").c_str(), 0755), 0);
    StderrCapture capture;
    auto service = start("can_interface=vcan-fms1,vcan-missing\n");
    EXPECT_NE(capture.text().find("ERR : Somthing went wrong in the CanHandler initialisation. "
                                  "FMStoIP will be disabled.\n"),
              std::string::npos)
        << capture.text();
    service->addPgn("FEF1");
    VerbosityScope warnings(1);
    for (uint64_t i = 0; i < 105; ++i) {
        DecodedFrame f = frame(0xFEF1, i);
        service->handleFrame(&f);
    }
    EXPECT_EQ(count(capture.text(), "WARN: Dropped can frame!\n"), 5u);
    EXPECT_EQ(service->getPgnDocument("FEF1"), "") << "nothing is processed";
    // The queued frames go with the service.
    service.reset();
}

TEST_F(FmstoipTest, BusFramesUntilTheServiceGoesWhileTheReaderStays) {
    const std::string bus = dir.file("vcan-fms2");
    ASSERT_EQ(mkdir(bus.c_str(), 0755), 0);
    auto service =
        start("can_interface=vcan-fms2\nmapping_file=" + testData("fms_mapping.json") + "\n");
    service->addPgn("FEF1");
    // Another service reading the same interface.
    BasicCanDecoder otherDecoder;
    RecordingHook other;
    CanHandler* reader = CanHandler::forInterface("vcan-fms2");
    reader->addDecoder(&other, &otherDecoder);

    const uint64_t before = wallMillis();
    std::atomic<bool> sending{true};
    std::thread sender([&] {
        while (sending) {
            sendToBus(bus, canFrame(0x18FEF100, {0x04, 0x00, 0x14}));
            std::this_thread::sleep_for(std::chrono::microseconds(200));
        }
    });
    // Decoded by the mapping file, stamped by the reader.
    const std::string document = datagrams.next();
    EXPECT_NE(document.find("<Name>Parking brake</Name>\n\t\t\t\t<Value>set</Value>"),
              std::string::npos)
        << document;
    const uint64_t stamp = std::stoull("0" + element(document, "RelativeTime"));
    EXPECT_LE(before, stamp);
    EXPECT_LE(stamp, wallMillis());

    // Gone while frames keep coming: the reader no longer calls it, and serves the other.
    service.reset();
    const size_t seen = other.count();
    EXPECT_TRUE(other.waitFor(seen + 20));
    EXPECT_TRUE(reader->isRunning());
    sending = false;
    sender.join();
    reader->release(&other);
}
