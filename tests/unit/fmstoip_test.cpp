#include "Fmstoip.h"

#include "CanTestSupport.h"
#include "TestSupport.h"

#include <arpa/inet.h>
#include <poll.h>
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
    // The next datagram; "" when none came within the wait.
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
    std::vector<DecodedFrame> frames = {frame(0xFEF1, 1), frame(0xF004, 2), frame(0xFEF1, 3),
                                        frame(0x00EA, 4)};
    for (DecodedFrame& f : frames)
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

    DecodedFrame version = frame(0xFDD1, 5, {0x00, '0', '4', '0', '2', '9'});
    DecodedFrame later = frame(0xFEF1, 6);
    service->handleFrame(&version);
    service->handleFrame(&later);
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
    // Texts are bounded in length and number.
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
}

// Once the consumer takes frames, a full queue holds the reader up instead of dropping, for as
// long as the allowance; past it, the oldest frames go again, at once.
TEST(FrameQueue, FullQueueHoldsTheReaderUpForTheAllowance) {
    VerbosityScope warnings(1);
    StderrCapture capture;
    FrameQueue patient(100, std::chrono::hours(1));
    std::atomic<bool> resume{false};
    std::thread consumer([&] {
        for (uint64_t next = 1; next <= 150; ++next) {
            EXPECT_EQ(patient.pop()->getTimestamp(), next);
            while (next == 1 && !resume)
                usleep(1000);
        }
    });
    // Frame 1 taken: the consumer is at work, and then stops for a while.
    patient.push(frame(0xFEF1, 1));
    while (patient.size() != 0)
        usleep(1000);
    std::thread producer([&] {
        for (uint64_t i = 2; i <= 150; ++i)
            patient.push(frame(0xFEF1, i));
    });
    while (patient.size() < 100)
        usleep(1000);
    usleep(20 * 1000);
    resume = true;
    producer.join();
    consumer.join();
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
