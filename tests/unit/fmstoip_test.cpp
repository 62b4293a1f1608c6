#include "Fmstoip.h"

#include "AtomicFile.h"

#include "CanTestSupport.h"
#include "JsonCanDecoder.h"
#include "NetHelpers.h"
#include "TestSupport.h"

#include <arpa/inet.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <thread>

#include <gtest/gtest.h>

namespace {

DecodedFrame frame(uint16_t pgn, uint64_t time, std::vector<uint8_t> data = {}) {
    DecodedFrame f;
    f.setPgn(pgn);
    f.setTimestamp(time);
    data.resize(8, 0x00);
    f.setData(data.data(), 8);
    return f;
}

// The service sends to 127.0.0.1 on the port of a socket of the test: no multicast, and no
// announcement, which takes only plain decimal ports and stays off for "+PORT".
class FmstoipTest : public ::testing::Test {
protected:
    void SetUp() override {
        setenv("DBUS_SYSTEM_BUS_ADDRESS", "unix:path=/nonexistent/tavro-test-bus", 1);
        sockaddr_in address = {};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t length = sizeof address;
        ASSERT_EQ(bind(fd, reinterpret_cast<sockaddr*>(&address), length), 0);
        getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length);
        port = std::to_string(ntohs(address.sin_port));
    }
    void TearDown() override { close(fd); }

    std::unique_ptr<Fmstoip> start(const std::string& settings) {
        return std::make_unique<Fmstoip>(Configuration(dir.write(
            "fmstoip.conf", "multicast_addr=127.0.0.1\nservice_port=+" + port +
                                "\nnetwork_interface=lo\nmulticast_ttl=0\npgn_counter_file=" +
                                counterFile + "\n" + settings)));
    }
    // "" when none came within the wait.
    std::string next(int waitMs = 20000) {
        pollfd ready = {fd, POLLIN, 0};
        char buffer[65536];
        const ssize_t n = poll(&ready, 1, waitMs) == 1 ? recv(fd, buffer, sizeof buffer, 0) : 0;
        return std::string(buffer, static_cast<size_t>(std::max<ssize_t>(n, 0)));
    }

    VerbosityScope quiet{0};
    TempDir dir;
    const std::string counterFile = dir.file("counts");
    int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    std::string port;
};

} // namespace

TEST_F(FmstoipTest, PeriodicModeCollectsRequestedFramesInArrivalOrder) {
    auto service = start("period_ms=40\n");
    service->addPgn("FEF1");
    service->addPgn("00EA");
    for (DecodedFrame f : {frame(0xFEF1, 1), frame(0xF004, 2), frame(0xFEF1, 3), frame(0x00EA, 4)})
        service->handleFrame(&f);

    // The period may fall between the frames: collect until all three came.
    const std::string head = "<?xml version=\"1.0\"?><FMStoIPDelivery version=\"1.1a\"><FMStoIP "
                             "FMSVersion=\"0000\">";
    const std::string tail = "</FMStoIP></FMStoIPDelivery>";
    std::string frameTexts;
    while (frameTexts.find("<RelativeTime>4<") == std::string::npos) {
        const std::string document = next();
        ASSERT_EQ(document.rfind(head, 0), 0u) << document;
        ASSERT_EQ(document.substr(document.size() - tail.size()), tail);
        frameTexts += document.substr(head.size(), document.size() - head.size() - tail.size());
    }
    EXPECT_EQ(frameTexts, "<Frame Status=\"OK\"><PGN>FEF1</PGN><Data>0000000000000000</Data>"
                          "<RelativeTime>1</RelativeTime></Frame>"
                          "<Frame Status=\"OK\"><PGN>FEF1</PGN><Data>0000000000000000</Data>"
                          "<RelativeTime>3</RelativeTime></Frame>"
                          "<Frame Status=\"OK\"><PGN>00EA</PGN><Data>0000000000000000</Data>"
                          "<RelativeTime>4</RelativeTime></Frame>");
    EXPECT_EQ(next(200), "") << "no document for periods without frames";

    for (DecodedFrame f : {frame(0xFDD1, 5, {0x00, '0', '4', '0', '2', '9'}), frame(0xFEF1, 6)})
        service->handleFrame(&f);
    EXPECT_NE(next().find("<FMStoIP FMSVersion=\"0402\"><Frame Status=\"OK\"><PGN>FEF1</PGN>"
                          "<Data>0000000000000000</Data><RelativeTime>6<"),
              std::string::npos);
}

TEST_F(FmstoipTest, RequestCountsAndTheCounterFile) {
    // Counts load at start, above 100 as they are, one that does not parse as 0.
    dir.write("counts", "F004=120\nFEF1=x\n0100=7\n");
    VerbosityScope warnings(1);
    StderrCapture capture;
    auto service = start("");
    capture.restore();
    EXPECT_NE(capture.text().find("WARN: Invalid request count \"x\" of PGN FEF1 in " +
                                  counterFile + ": taken as 0.\n"),
              std::string::npos);
    for (int i = 0; i < 3; ++i)
        service->addPgn("FEF1");
    service->removePgn("FEF1");
    service->removePgn("F004");
    EXPECT_EQ(TempDir::read(counterFile), "0100=7\nF004=119\nFEF1=2\n");
    for (int i = 0; i < 150; ++i)
        service->addPgn("0200");
    StderrCapture bounds;
    service->addPgn(std::string(Fmstoip::maxRequestLength + 1, 'A'));
    for (size_t i = 5; i <= Fmstoip::maxRequestedPgns + 1; ++i)
        service->addPgn("X" + std::to_string(i));
    bounds.restore();
    EXPECT_EQ(bounds.text(), "WARN: Request for a PGN text of 65 bytes not counted (at most 64).\n"
                             "WARN: Request for PGN \"X1025\" not counted: 1024 PGNs are "
                             "requested already.\n");
    service.reset();
    const std::string counts = TempDir::read(counterFile);
    EXPECT_EQ(counts.rfind("0100=7\n0200=100\nF004=119\nFEF1=2\nX10=1\n", 0), 0u);
    EXPECT_EQ(std::count(counts.begin(), counts.end(), '\n'), 1024);
}

// PGNGet gives what immediate mode sent. Frames longer than 8 bytes are kept whole up to a
// bound, beyond which the least recently seen of a PGN not requested goes.
TEST_F(FmstoipTest, LatestFramesAndTheBoundOfWholeOnes) {
    auto service = start("period_ms=0\n");
    service->addPgn("FEF1");
    DecodedFrame requested = frame(0xFEF1, 5, {0x01, 0x02});
    service->handleFrame(&requested);
    EXPECT_EQ(next(), service->getPgnDocument("FEF1"));

    const uint8_t bytes[9] = {1, 2, 3, 4, 5, 6, 7, 8, 9};
    DecodedFrame whole = frame(0xFEF1, 1);
    whole.setData(bytes, 9);
    service->handleFrame(&whole);
    EXPECT_NE(next(), "");
    for (uint16_t i = 0; i < Fmstoip::maxWholeFrames; ++i) {
        whole.setPgn(0x1000 + i);
        whole.setTimestamp(100 + i);
        service->handleFrame(&whole);
    }
    EXPECT_EQ(service->getPgnDocument("1000"), "");
    EXPECT_NE(service->getPgnDocument("1001").find("<Data>010203040506070809</Data>"),
              std::string::npos);
    EXPECT_NE(service->getPgnDocument("FEF1").find("<RelativeTime>1<"), std::string::npos);
}

// The counter and module files may be links to another place (a persistent partition), with a
// mode of their own: a replacement keeps both.
TEST(AtomicFile, LinksAndModesStay) {
    TempDir dir;
    const std::string target = dir.write("target", "old");
    chmod(target.c_str(), 0600);
    ASSERT_EQ(symlink("target", dir.file("relative").c_str()), 0);
    ASSERT_EQ(symlink(dir.file("absent").c_str(), dir.file("dangling").c_str()), 0);
    std::string error;
    EXPECT_TRUE(AtomicFile::replace(dir.file("relative"), "new\n", &error)) << error;
    EXPECT_TRUE(AtomicFile::replace(dir.file("dangling"), "first\n", &error)) << error;
    struct stat info;
    ASSERT_EQ(lstat(dir.file("relative").c_str(), &info), 0);
    EXPECT_TRUE(S_ISLNK(info.st_mode));
    ASSERT_EQ(stat(target.c_str(), &info), 0);
    EXPECT_EQ(info.st_mode & 07777, 0600u);
    EXPECT_EQ(TempDir::read(target), "new\n");
    EXPECT_EQ(TempDir::read(dir.file("absent")), "first\n");
}

// Once the consumer takes frames, a full queue holds the reader up for the allowance; past it,
// the oldest frames go at once, with one line and a count per window, not a line per frame.
TEST(FrameQueue, FullQueueHoldsTheReaderUpForTheAllowanceThenDropsTheOldest) {
    VerbosityScope warnings(1);
    StderrCapture capture;
    FrameQueue patient(100, std::chrono::hours(1));
    std::thread consumer([&] {
        EXPECT_EQ(patient.pop()->getTimestamp(), 1u);
        // At work again only once the queue is full.
        while (patient.size() < 100)
            usleep(1000);
        for (uint64_t next = 2; next <= 150; ++next)
            EXPECT_EQ(patient.pop()->getTimestamp(), next);
    });
    patient.push(frame(0xFEF1, 1));
    while (patient.size() != 0)
        usleep(1000);
    for (uint64_t i = 2; i <= 150; ++i)
        patient.push(frame(0xFEF1, i));
    consumer.join();
    EXPECT_EQ(capture.text(), "");

    FrameQueue stalled(100, std::chrono::milliseconds(50));
    std::thread first([&] { EXPECT_EQ(stalled.pop()->getTimestamp(), 1u); });
    stalled.push(frame(0xFEF1, 1));
    first.join();
    {
        RepeatWindowScope window(std::chrono::hours(1));
        for (uint64_t i = 2; i <= 1101; ++i)
            stalled.push(frame(0xFEF1, i));
        EXPECT_EQ(capture.text(), "WARN: Dropped can frame!\n");
    }
    EXPECT_EQ(capture.text(), "WARN: Dropped can frame!\n"
                              "WARN: Repeated 999 times in 3600 s: Dropped can frame!\n");
    ASSERT_EQ(stalled.size(), 100u);
    for (uint64_t i = 1002; i <= 1101; ++i)
        EXPECT_EQ(stalled.pop()->getTimestamp(), i);
}

// Frames coming quickly one by one are taken at once until the eighth; from then on an emptied
// queue waits for the gathering time, cut short only by half a queue or close.
TEST(FrameQueue, AQuickPaceIsGatheredUpToHalfAQueue) {
    FrameQueue queue(100, std::chrono::hours(1), std::chrono::hours(1));
    std::atomic<uint64_t> last{0};
    std::thread consumer([&] {
        while (std::unique_ptr<DecodedFrame> taken = queue.pop())
            last = taken->getTimestamp();
    });
    for (uint64_t i = 1; i <= 8; ++i) {
        queue.push(frame(0xFEF1, i));
        while (last != i)
            usleep(1000);
    }
    for (uint64_t i = 9; i <= 57; ++i)
        queue.push(frame(0xFEF1, i));
    usleep(20000);
    EXPECT_EQ(last, 8u);
    queue.push(frame(0xFEF1, 58));
    while (last != 58)
        usleep(1000);
    queue.close();
    consumer.join();
}

// The text written straight for delivered and fetched frames is the template's, byte for byte;
// texts that XML would escape are left to the template.
TEST(FmsXMLGenerator, PlainDocumentsAreTheTemplatesOwn) {
    auto check = [](const DecodedFrame& frame, const std::string& version, bool plain) {
        SCOPED_TRACE(version);
        FmsXMLGenerator generator(true);
        generator.setFmsVersion(version);
        std::string text = "untouched";
        EXPECT_EQ(generator.plainFrameDocument(text, "FEF1", frame.getData(), 8, 1700000000123,
                                               frame.spns()),
                  plain);
        generator.setFramePgn("FEF1");
        generator.setFrameStatus("OK");
        generator.setFrameData(toHex(frame.getData(), 8));
        generator.setRelativeTime(1700000000123);
        for (const SPN* spn : frame.spns()) {
            generator.setSpnId(spn->getNumber());
            generator.setSpnName(spn->getName());
            if (auto* number = dynamic_cast<const SPNNumeric*>(spn)) {
                generator.setSpnUnit(number->getUnit());
                generator.setSpnValue(number->getValue());
            } else if (auto* state = dynamic_cast<const SPNStatus*>(spn)) {
                generator.setSpnValue(state->getDescription());
            } else {
                generator.setSpnValue(static_cast<const SPNString*>(spn)->getValue());
            }
            generator.commitSpn();
        }
        EXPECT_EQ(text, plain ? generator.frameDocument() : "untouched");
    };
    JsonCanDecoder decoder(testData("fms_mapping.json"));
    // Units, numbers, status texts, one of them empty, an empty string and version; a text that
    // XML escapes.
    check(*decode(decoder, canFrame(0x18FEF100, {0x04, 0x80, 0x14})), "0402", true);
    check(*decode(decoder, canFrame(0x18FE6B00, {'A', 'B', 'C', '*', '*'})), "", true);
    check(*decode(decoder, canFrame(0x18FE6B00, {'A', '&', 'C', '*', 'x', '*'})), "04", false);
    // Numbers as "%.3f" writes them: half a thousandth, a negative that rounds to zero, a 64-bit
    // field's largest, and a seeded sweep over common gains (1: integers) and an offset.
    DecodedFrame numbers;
    for (double value : {0.0005, -0.0001, 1.8e19})
        numbers.addSpn(new SPNNumeric(value, " u"));
    const double gains[] = {0.05, 0.03125, 1.0 / 3, 1.0};
    for (uint32_t i = 0, seed = 1; i < 200; ++i) {
        seed = seed * 1103515245 + 12345;
        numbers.addSpn(
            new SPNNumeric((seed >> 8) % 70000 * gains[i % 4] - 40.0 * (i / 4 % 2), " u"));
    }
    check(numbers, "0000", true);
}
