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

#include <algorithm>
#include <filesystem>
#include <thread>

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
    const struct {
        can_frame frame;
        std::vector<uint16_t> pgns; // of the frames the hook gets
    } cases[] = {
        // Both mapping decoders share it; the vehicle decoder takes it but has no message yet.
        {bamAnnounce(0xFEEC, 9, 2), {0xECFF, 0xECFF, 0xECFF}},
        {canFrame(0x18FEF100, {0x04}), {0xFEF1}},    // the first mapping decoder's
        {canFrame(0x18FEF200), {0xFEF2}},            // the vehicle decoder's
        {canFrame(0x0CFEDA00, {1, 2, 3}), {0xFEDA}}, // raw, from the catch-all
    };
    uint64_t time = 1700000000000;
    size_t seen = 0;
    for (const auto& c : cases) {
        handler.dispatch(c.frame, ++time);
        const std::vector<DecodedFrame> got = hook.waitFor();
        std::vector<uint16_t> pgns;
        for (; seen < got.size(); ++seen) {
            pgns.push_back(got[seen].getPgn());
            EXPECT_EQ(got[seen].getTimestamp(), time);
        }
        EXPECT_EQ(pgns, c.pgns);
    }
    EXPECT_EQ(other.waitFor().size(), 4u);
    EXPECT_EQ(hook.waitFor()[3].spns().size(), 6u);
    EXPECT_EQ(hook.waitFor()[5].getData()[2], 3);
}

// Names the kernel would cut are refused; on the virtual bus, so are missing interfaces and
// names that would leave the bus directory.
TEST(CanHandler, StartFailures) {
    TempDir bus;
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
// its kernel stamp, and measures stop with no frame arriving (reported, bounded loosely: the
// machine under test may be emulated).
TEST(CanHandler, SocketCanRoundsAndStopTime) {
    const char* name = getenv("TAVRO_SOCKETCAN");
    if (name == nullptr)
        GTEST_SKIP() << "no SocketCAN interface given in TAVRO_SOCKETCAN";
    unsetenv("TAVRO_VCAN_DIR");
    const int sender = socket(AF_CAN, SOCK_RAW, CAN_RAW);
    sockaddr_can address = {};
    address.can_family = AF_CAN;
    address.can_ifindex = static_cast<int>(if_nametoindex(name));
    ASSERT_EQ(bind(sender, reinterpret_cast<sockaddr*>(&address), sizeof address), 0) << name;

    BasicCanDecoder decoder;
    RecordingHook hook;
    CanHandler handler(name);
    handler.addDecoder(&hook, &decoder);
    std::vector<double> stops;
    for (uint8_t round = 0; round < 5; ++round) {
        SCOPED_TRACE(round);
        ASSERT_EQ(handler.start(), 0);
        const can_frame frame = canFrame(0x18FEF100, {round});
        const uint64_t before = wallMillis();
        ASSERT_EQ(write(sender, &frame, sizeof frame), static_cast<ssize_t>(sizeof frame));
        const DecodedFrame got = hook.waitFor(round + 1u).at(round);
        EXPECT_EQ(got.getData()[0], round);
        EXPECT_GE(got.getTimestamp(), before);
        EXPECT_LE(got.getTimestamp(), wallMillis());
        // Somewhere within the reader's 10 ms receive time-out.
        std::this_thread::sleep_for(std::chrono::milliseconds(3 * round));
        const auto begin = std::chrono::steady_clock::now();
        handler.stop();
        stops.push_back(
            std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - begin)
                .count());
        EXPECT_FALSE(handler.isRunning());
    }
    close(sender);
    std::sort(stops.begin(), stops.end());
    printf("CanHandler::stop on %s: min %.1f ms, median %.1f ms, max %.1f ms\n", name, stops[0],
           stops[2], stops[4]);
    EXPECT_LT(stops[4], 1000.0);
}

// SCM_TIMESTAMP as 64-bit timeval (old and new type) or 32-bit one; SCM_TIMESTAMPING as the
// first of three timespecs, in both widths.
TEST(ControlTimestamp, LayoutsOfTheKernel) {
    const int64_t wide[6] = {1700000000, 999999, 5, 0, 1800000000, 1};
    const int32_t narrow[6] = {1700000000, 999999, 5, 0, 1800000000, 1};
    const int64_t wideNs[6] = {1700000001, 999999999, 5, 0, 1800000000, 1};
    const int32_t narrowNs[6] = {1700000001, 999999999, 5, 0, 1800000000, 1};
    struct Message {
        int level, type;
        const void* payload;
        size_t length;
    };
    const struct {
        std::vector<Message> messages;
        uint64_t stamp; // 7: none found
    } cases[] = {
        {{{SOL_SOCKET, 29, wide, 16}}, 1700000000999},
        {{{SOL_SOCKET, 29, narrow, 8}}, 1700000000999},
        {{{SOL_SOCKET, 65, wideNs, 48}}, 1700000001999},
        {{{SOL_SOCKET, 37, narrowNs, 24}}, 1700000001999},
        {{{SOL_SOCKET, SCM_CREDENTIALS, wide, 12}, {SOL_SOCKET, 29, wide, 16}}, 1700000000999},
    };
    for (const auto& c : cases) {
        std::vector<unsigned char> buffer;
        for (const Message& m : c.messages) {
            const size_t at = buffer.size();
            buffer.resize(at + CMSG_SPACE(m.length));
            // By name: musl's cmsghdr has padding between the length and the level.
            cmsghdr header = {};
            header.cmsg_len = CMSG_LEN(m.length);
            header.cmsg_level = m.level;
            header.cmsg_type = m.type;
            memcpy(buffer.data() + at, &header, sizeof header);
            memcpy(buffer.data() + at + CMSG_LEN(0), m.payload, m.length);
        }
        msghdr msg = {};
        msg.msg_control = buffer.empty() ? nullptr : buffer.data();
        msg.msg_controllen = buffer.size();
        uint64_t stamp = 7;
        EXPECT_EQ(controlTimestamp(msg, stamp), c.stamp != 7);
        EXPECT_EQ(stamp, c.stamp) << &c - cases;
    }
}

// Real readers on the virtual bus, fed by the log player. Each reader of an interface gets every
// frame with its own receive stamp; hooks come and go while a reader runs; stop closes the socket
// after no more than the receive time-out.
TEST(VirtualBus, ReadersHooksAndStop) {
    TempDir root;
    const std::string bus = root.file("vcan0");
    ASSERT_EQ(mkdir(bus.c_str(), 0755), 0);
    setenv("TAVRO_VCAN_DIR", root.path.c_str(), 1);
    BasicCanDecoder decoders[3];
    RecordingHook first, second, late;
    CanHandler one("vcan0");
    CanHandler two("vcan0");
    one.addDecoder(&first, &decoders[0]);
    two.addDecoder(&second, &decoders[1]);
    ASSERT_EQ(one.start(), 0);
    ASSERT_EQ(two.start(), 0);
    EXPECT_EQ(one.start(), 0); // running: no second socket
    EXPECT_EQ(std::distance(std::filesystem::directory_iterator(bus), {}), 2u);

    const std::string player = toolCommand("tavro-canplayer") + " -f -m can0=vcan0 " +
                               root.file("frames.log") + " >/dev/null";
    const auto play = [&](const std::string& log) {
        root.write("frames.log", log);
        ASSERT_EQ(system(player.c_str()), 0);
    };
    const uint64_t before = wallMillis();
    play("(1700000000.000000) can0 18FEF100#0102030405060708\n"
         "(1700000000.010000) can0 123#DEAD\n");
    for (RecordingHook* hook : {&first, &second}) {
        const std::vector<DecodedFrame> frames = hook->waitFor(2);
        ASSERT_EQ(frames.size(), 2u);
        EXPECT_EQ(frames[0].getData()[7], 8);
        EXPECT_EQ(frames[1].getData()[1], 0xAD);
        // The kernel's receive time, not the time in the log.
        for (const DecodedFrame& frame : frames) {
            EXPECT_GE(frame.getTimestamp(), before);
            EXPECT_LE(frame.getTimestamp(), wallMillis());
        }
    }

    two.addDecoder(&late, &decoders[2]);
    EXPECT_EQ(two.removeHook(&second), 1u);
    play("(0.0) can0 18FEF100#\n");
    EXPECT_EQ(late.waitFor(1).size(), 1u);
    two.release(&late); // the last hook: stops the reader
    EXPECT_FALSE(two.isRunning());
    EXPECT_EQ(second.waitFor().size(), 2u);

    // Without frames, stop waits out the receive time-out and no more.
    const auto begin = std::chrono::steady_clock::now();
    one.stop();
    const auto took = std::chrono::steady_clock::now() - begin;
    printf("stop took %lld us\n", static_cast<long long>(took / std::chrono::microseconds(1)));
    EXPECT_LT(took, std::chrono::seconds(2));
    EXPECT_FALSE(one.isRunning());
    EXPECT_EQ(std::distance(std::filesystem::directory_iterator(bus), {}), 0u);
    unsetenv("TAVRO_VCAN_DIR");
}
