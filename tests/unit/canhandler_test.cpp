#include "BasicCanDecoder.h"
#include "CanHandler.h"
#include "CanTestSupport.h"
#include "TestSupport.h"

#include <linux/can/raw.h>
#include <linux/sockios.h>
#include <net/if.h>
#include <sys/ioctl.h>
#include <sys/stat.h>

#include <gtest/gtest.h>

#include <filesystem>
#include <thread>

// Names the kernel would cut, missing interfaces and names that would leave the bus directory:
// on the virtual bus, and on real SocketCAN in the VM stage.
TEST(CanHandler, StartFailures) {
    TempDir bus;
    if (getenv("TAVRO_SOCKETCAN") == nullptr)
        setenv("TAVRO_VCAN_DIR", bus.path.c_str(), 1);
    for (const std::string name : {"can-name-of-16ch", "vcan9", ".."}) {
        CanHandler handler(name);
        StderrCapture capture;
        EXPECT_EQ(handler.start(), 1);
        capture.restore();
        EXPECT_FALSE(handler.isRunning());
        EXPECT_EQ(capture.text(), (name.size() > 15 ? "WARN: Can interface name too long: " + name
                                                    : "WARN: Error in socket bind") +
                                      "\nERR : Can: No interfaces initialized.\n");
    }
    unsetenv("TAVRO_VCAN_DIR");
}

// The VM stage runs this with TAVRO_SOCKETCAN=vcan0. Each round: a new socket, a frame with the
// stamp another socket gets for it, and stop, timed (bounded loosely: the VM may be emulated).
TEST(CanHandler, SocketCanRoundsAndStopTime) {
    const char* name = getenv("TAVRO_SOCKETCAN");
    if (name == nullptr)
        GTEST_SKIP() << "no SocketCAN interface given in TAVRO_SOCKETCAN";
    unsetenv("TAVRO_VCAN_DIR");
    const int sender = socket(AF_CAN, SOCK_RAW, CAN_RAW);
    const int witness = socket(AF_CAN, SOCK_RAW, CAN_RAW);
    sockaddr_can address = {AF_CAN, static_cast<int>(if_nametoindex(name)), {}};
    for (int fd : {sender, witness})
        ASSERT_EQ(bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address), 0) << name;
    timeval stamp = {};
    ioctl(witness, SIOCGSTAMP, &stamp); // from now on the socket keeps each frame's stamp

    BasicCanDecoder decoder;
    RecordingHook hook;
    CanHandler handler(name);
    handler.addDecoder(&hook, &decoder);
    for (uint8_t round = 0; round < 5; ++round) {
        SCOPED_TRACE(round);
        ASSERT_EQ(handler.start(), 0);
        can_frame frame = canFrame(0x18FEF100, {round});
        ASSERT_EQ(write(sender, &frame, sizeof frame), static_cast<ssize_t>(sizeof frame));
        const DecodedFrame got = hook.waitFor(round + 1u).at(round);
        EXPECT_EQ(got.getData()[0], round);
        ASSERT_EQ(read(witness, &frame, sizeof frame), static_cast<ssize_t>(sizeof frame));
        ASSERT_EQ(ioctl(witness, SIOCGSTAMP, &stamp), 0);
        EXPECT_EQ(got.getTimestamp(), uint64_t(stamp.tv_sec * 1000 + stamp.tv_usec / 1000));
        // Somewhere within the reader's 10 ms receive time-out.
        std::this_thread::sleep_for(std::chrono::milliseconds(3 * round));
        const auto begin = std::chrono::steady_clock::now();
        handler.stop();
        const std::chrono::duration<double, std::milli> took =
            std::chrono::steady_clock::now() - begin;
        printf("CanHandler::stop on %s: %.1f ms\n", name, took.count());
        EXPECT_LT(took.count(), 1000.0);
        EXPECT_FALSE(handler.isRunning());
    }
    close(sender);
    close(witness);
}

// Each reader of a virtual bus gets every frame of the log player, a second start opens no
// second socket, and stop closes the socket.
TEST(VirtualBus, ReadersAndStop) {
    TempDir root;
    const std::string bus = root.file("vcan0");
    ASSERT_EQ(mkdir(bus.c_str(), 0755), 0);
    setenv("TAVRO_VCAN_DIR", root.path.c_str(), 1);
    BasicCanDecoder decoders[2];
    RecordingHook hooks[2];
    CanHandler handlers[2] = {CanHandler("vcan0"), CanHandler("vcan0")};
    for (int i : {0, 1}) {
        handlers[i].addDecoder(&hooks[i], &decoders[i]);
        ASSERT_EQ(handlers[i].start(), 0);
    }
    EXPECT_EQ(handlers[0].start(), 0);
    EXPECT_EQ(std::distance(std::filesystem::directory_iterator(bus), {}), 2u);

    const std::string log =
        root.write("frames.log", "(1700000000.0) vcan0 18FEF100#0102030405060708\n"
                                 "(1700000000.01) vcan0 123#DEAD\n");
    ASSERT_EQ(system((toolCommand("tavro-canplayer") + " -f " + log + " >/dev/null").c_str()), 0);
    for (RecordingHook& hook : hooks) {
        const std::vector<DecodedFrame> frames = hook.waitFor(2);
        ASSERT_EQ(frames.size(), 2u);
        EXPECT_EQ(frames[0].getData()[7], 8);
        EXPECT_EQ(frames[1].getData()[1], 0xAD);
        // The receive time (through each platform's control message layout), not the log's.
        for (const DecodedFrame& frame : frames)
            EXPECT_NEAR(frame.getTimestamp() / 1000.0, time(nullptr), 60);
    }
    for (CanHandler& handler : handlers)
        handler.stop();
    EXPECT_EQ(std::distance(std::filesystem::directory_iterator(bus), {}), 0u);
    unsetenv("TAVRO_VCAN_DIR");
}
