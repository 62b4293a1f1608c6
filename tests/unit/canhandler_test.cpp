#include "BasicCanDecoder.h"
#include "CanHandler.h"
#include "CanTestSupport.h"
#include "JsonCanDecoder.h"
#include "TestSupport.h"
#include "VtoIpDecoder.h"

#include <linux/can/raw.h>
#include <net/if.h>
#include <sys/stat.h>

#include <gtest/gtest.h>

#include <filesystem>
#include <thread>
#include <tuple>

// Shared decoders pass the frame on, a taking one ends the walk of its hook, one that yields
// nothing leaves the frame to the next; each hook walks its own decoders.
TEST(CanHandler, DispatchWalksEachHooksDecodersInOrder) {
    JsonCanDecoder first(testData("fms_mapping.json"));
    JsonCanDecoder second(testData("fms_mapping.json"));
    VtoIpDecoder vehicle(testData("vehicle_mapping.json"));
    BasicCanDecoder rest;
    BasicCanDecoder otherRest;
    RecordingHook hook;
    RecordingHook other;
    CanHandler handler("vcan-walk");
    for (CanDecoder* decoder : std::vector<CanDecoder*>{&first, &second, &vehicle, &rest})
        handler.addDecoder(&hook, decoder);
    handler.addDecoder(&other, &otherRest);
    uint64_t time = 1700000000000;
    for (const can_frame& frame : {bamAnnounce(0xFEEC, 9, 2), canFrame(0x18FEF100, {0x04}),
                                   canFrame(0x18FEF200), canFrame(0x0CFEDA00, {1, 2, 3})})
        handler.dispatch(frame, ++time);
    // (PGN, which frame): both mapping decoders share the announcement, and the vehicle decoder
    // takes it but has no message yet; FEF1 is the first mapping decoder's, FEF2 the vehicle
    // decoder's, FEDA comes raw from the catch-all.
    std::vector<std::pair<uint16_t, uint64_t>> got;
    for (const DecodedFrame& frame : hook.waitFor())
        got.emplace_back(frame.getPgn(), frame.getTimestamp() - 1700000000000);
    EXPECT_EQ(got,
              (std::vector<std::pair<uint16_t, uint64_t>>{
                  {0xECFF, 1}, {0xECFF, 1}, {0xECFF, 1}, {0xFEF1, 2}, {0xFEF2, 3}, {0xFEDA, 4}}));
    EXPECT_EQ(other.waitFor().size(), 4u);
    EXPECT_EQ(hook.waitFor()[3].spns().size(), 6u);
    EXPECT_EQ(hook.waitFor()[5].getData()[2], 3);
}

// Names the kernel would cut are refused, and so are missing interfaces and names that would
// leave the bus directory: on the virtual bus, and on real SocketCAN in the VM stage.
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

// Real SocketCAN, where the kernel has it: the VM stage runs this with TAVRO_SOCKETCAN=vcan0.
// Each round starts the reader on a new socket, receives a frame sent on the interface with
// the kernel's stamp of it (as another socket gets it), and measures stop with no frame
// arriving (printed, bounded loosely: the machine under test may be emulated).
TEST(CanHandler, SocketCanRoundsAndStopTime) {
    const char* name = getenv("TAVRO_SOCKETCAN");
    if (name == nullptr)
        GTEST_SKIP() << "no SocketCAN interface given in TAVRO_SOCKETCAN";
    unsetenv("TAVRO_VCAN_DIR");
    const int sender = socket(AF_CAN, SOCK_RAW, CAN_RAW);
    const int witness = socket(AF_CAN, SOCK_RAW, CAN_RAW);
    sockaddr_can address = {};
    address.can_family = AF_CAN;
    address.can_ifindex = static_cast<int>(if_nametoindex(name));
    for (int fd : {sender, witness})
        ASSERT_EQ(bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address), 0) << name;
    const int one = 1;
    setsockopt(witness, SOL_SOCKET, SO_TIMESTAMP, &one, sizeof one);

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
        unsigned char control[256];
        iovec data = {&frame, sizeof frame};
        msghdr message = {};
        message.msg_iov = &data;
        message.msg_iovlen = 1;
        message.msg_control = control;
        message.msg_controllen = sizeof control;
        ASSERT_EQ(recvmsg(witness, &message, 0), static_cast<ssize_t>(sizeof frame));
        uint64_t stamp = 0;
        EXPECT_TRUE(controlTimestamp(message, stamp));
        EXPECT_EQ(got.getTimestamp(), stamp);
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

// SCM_TIMESTAMP as 64-bit timeval (old and new type) or 32-bit one; SCM_TIMESTAMPING as the
// first of three timespecs, in both widths; a stamp after another message.
TEST(ControlTimestamp, LayoutsOfTheKernel) {
    const int64_t wide[6] = {1700000000, 999999, 5, 0, 1800000000, 1};
    const int32_t narrow[6] = {1700000000, 999999, 5, 0, 1800000000, 1};
    const int64_t wideNs[6] = {1700000001, 999999999, 5, 0, 1800000000, 1};
    const int32_t narrowNs[6] = {1700000001, 999999999, 5, 0, 1800000000, 1};
    const struct {
        std::vector<std::tuple<int, const void*, size_t>> messages; // type, payload, length
        uint64_t stamp;                                             // 7: none found
    } cases[] = {
        {{{29, wide, 16}}, 1700000000999},
        {{{29, narrow, 8}}, 1700000000999},
        {{{65, wideNs, 48}}, 1700000001999},
        {{{37, narrowNs, 24}}, 1700000001999},
        {{{SCM_CREDENTIALS, wide, 12}, {29, wide, 16}}, 1700000000999},
    };
    for (const auto& c : cases) {
        std::vector<unsigned char> buffer;
        for (const auto& [type, payload, length] : c.messages) {
            const size_t at = buffer.size();
            buffer.resize(at + CMSG_SPACE(length));
            // By name: musl's cmsghdr has padding between the length and the level.
            cmsghdr header = {};
            header.cmsg_len = CMSG_LEN(length);
            header.cmsg_level = SOL_SOCKET;
            header.cmsg_type = type;
            memcpy(buffer.data() + at, &header, sizeof header);
            memcpy(buffer.data() + at + CMSG_LEN(0), payload, length);
        }
        msghdr msg = {};
        msg.msg_control = buffer.data();
        msg.msg_controllen = buffer.size();
        uint64_t stamp = 7;
        EXPECT_EQ(controlTimestamp(msg, stamp), c.stamp != 7);
        EXPECT_EQ(stamp, c.stamp) << &c - cases;
    }
}

// Real readers on the virtual bus, fed by the log player: each reader of an interface gets every
// frame, a second start opens no second socket, and stop closes the socket after no more than
// the receive time-out. Hooks that come and go while a reader runs are in vtoip_test.cpp.
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

    root.write("frames.log", "(1700000000.000000) can0 18FEF100#0102030405060708\n"
                             "(1700000000.010000) can0 123#DEAD\n");
    ASSERT_EQ(system((toolCommand("tavro-canplayer") + " -f -m can0=vcan0 " +
                      root.file("frames.log") + " >/dev/null")
                         .c_str()),
              0);
    for (RecordingHook& hook : hooks) {
        const std::vector<DecodedFrame> frames = hook.waitFor(2);
        ASSERT_EQ(frames.size(), 2u);
        EXPECT_EQ(frames[0].getData()[7], 8);
        EXPECT_EQ(frames[1].getData()[1], 0xAD);
        // The receive time (through each platform's control message layout), not the log's.
        for (const DecodedFrame& frame : frames)
            EXPECT_NEAR(frame.getTimestamp() / 1000.0, time(nullptr), 60);
    }
    for (CanHandler& handler : handlers) {
        const auto begin = std::chrono::steady_clock::now();
        handler.stop();
        EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(2));
        EXPECT_FALSE(handler.isRunning());
    }
    EXPECT_EQ(std::distance(std::filesystem::directory_iterator(bus), {}), 0u);
    unsetenv("TAVRO_VCAN_DIR");
}
