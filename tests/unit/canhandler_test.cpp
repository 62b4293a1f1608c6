#include "BasicCanDecoder.h"
#include "CanHandler.h"
#include "CanTestSupport.h"
#include "JsonCanDecoder.h"
#include "TestSupport.h"

#include <linux/can/raw.h>
#include <net/if.h>
#include <netinet/in.h>
#include <sys/ioctl.h>
#include <sys/time.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <thread>
#include <tuple>

namespace {

// Answers as the test says and writes what it is asked into a shared trace.
class ScriptedDecoder : public CanDecoder {
public:
    ScriptedDecoder(const std::string& name, std::vector<std::string>& trace, bool accept,
                    bool shared, bool produce)
        : name(name), trace(trace), accept(accept), shared(shared), produce(produce) {}

    DecodedFrame* decode(const can_frame&) override {
        trace.push_back(name + ".decode");
        if (!produce)
            return nullptr;
        DecodedFrame* frame = new DecodedFrame;
        frame->addSpn(new SPNString(name));
        return frame;
    }
    bool accepts(const can_frame&) override {
        trace.push_back(name + ".accepts");
        return accept;
    }
    bool acceptsShared(const can_frame&) override {
        trace.push_back(name + ".acceptsShared");
        return shared;
    }

private:
    std::string name;
    std::vector<std::string>& trace;
    bool accept, shared, produce;
};

} // namespace

TEST(CanHandler, RegistryHasOneHandlerPerName) {
    CanHandler* can0 = CanHandler::forInterface("can0");
    EXPECT_EQ(CanHandler::forInterface("can0"), can0);
    EXPECT_NE(CanHandler::forInterface("can1"), can0);
    EXPECT_NE(CanHandler::forInterface("CAN0"), can0);
    EXPECT_EQ(can0->getInterface(), "can0");
    EXPECT_FALSE(can0->isRunning());
}

TEST(CanHandler, DecoderWalkOfOneHook) {
    struct Case {
        const char* name;
        std::vector<std::tuple<bool, bool, bool>> decoders; // accepts, shared, produces
        std::vector<std::string> delivered;
        std::vector<std::string> trace; // checked when given
    };
    const std::vector<Case> cases = {
        {"neither answer: never asked to decode",
         {{false, false, true}, {true, false, true}},
         {"d1"},
         {"d0.acceptsShared", "d0.accepts", "d1.acceptsShared", "d1.accepts", "d1.decode"}},
        {"first frame wins", {{true, false, true}, {true, false, true}}, {"d0"}, {}},
        {"no frame: next asked", {{true, false, false}, {true, false, true}}, {"d1"}, {}},
        {"shared each",
         {{false, true, true}, {false, true, true}, {true, false, true}},
         {"d0", "d1", "d2"},
         {}},
        {"shared then taken",
         {{false, true, true}, {true, false, true}, {true, false, true}},
         {"d0", "d1"},
         {}},
        {"both answers count as shared",
         {{true, true, true}, {true, false, true}},
         {"d0", "d1"},
         {}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        std::vector<std::string> trace;
        std::vector<std::unique_ptr<ScriptedDecoder>> decoders;
        RecordingHook hook;
        CanHandler handler("vcan-walk");
        for (const auto& [accept, shared, produce] : c.decoders) {
            decoders.emplace_back(new ScriptedDecoder("d" + std::to_string(decoders.size()), trace,
                                                      accept, shared, produce));
            handler.addDecoder(&hook, decoders.back().get());
        }
        handler.dispatch(canFrame(0x18FEF100), 1700000000999ULL);
        std::vector<std::string> delivered;
        for (size_t i = 0; i < hook.count(); ++i) {
            EXPECT_EQ(hook.frame(i).getTimestamp(), 1700000000999ULL);
            delivered.push_back(text(hook.frame(i), 0).getValue());
        }
        EXPECT_EQ(delivered, c.delivered);
        if (!c.trace.empty()) {
            EXPECT_EQ(trace, c.trace);
        }
    }
}

TEST(CanHandler, MappingDecodersAndCatchAll) {
    JsonCanDecoder first(testData("fms_mapping.json"));
    JsonCanDecoder second(testData("fms_mapping.json"));
    BasicCanDecoder rest;
    BasicCanDecoder otherRest;
    RecordingHook hook;
    RecordingHook other;
    CanHandler handler("vcan-fms");
    handler.addDecoder(&hook, &first);
    handler.addDecoder(&hook, &second);
    handler.addDecoder(&hook, &rest);
    handler.addDecoder(&other, &otherRest);

    // A transport frame: from each mapping decoder (shared) and from the catch-all.
    handler.dispatch(bamAnnounce(0xFEEC, 9, 2), 5);
    ASSERT_EQ(hook.count(), 3u);
    for (size_t i = 0; i < 3; ++i)
        EXPECT_EQ(hook.frame(i).getPgn(), 0xECFF);
    // A listed PGN: from the first mapping decoder only.
    handler.dispatch(canFrame(0x18FEF100, {0x04}), 6);
    ASSERT_EQ(hook.count(), 4u);
    EXPECT_EQ(hook.frame(3).spns().size(), 6u);
    // Not listed: raw data from the catch-all.
    handler.dispatch(canFrame(0x0CFEDA00, {1, 2, 3, 4, 5, 6, 7, 8}), 7);
    ASSERT_EQ(hook.count(), 5u);
    EXPECT_EQ(hook.frame(4).getPgn(), 0xFEDA);
    EXPECT_EQ(hook.frame(4).getData()[7], 8);
    EXPECT_TRUE(hook.frame(4).spns().empty());
    EXPECT_EQ(other.count(), 3u); // each hook walks its own decoders

    // A removed hook is not called any more; release of the last one stops nothing here.
    EXPECT_EQ(handler.removeHook(&hook), 1u);
    EXPECT_EQ(handler.removeHook(&hook), 1u);
    handler.dispatch(canFrame(0x18FEF100), 8);
    EXPECT_EQ(hook.count(), 5u);
    EXPECT_EQ(other.count(), 4u);
    handler.release(&other);
    handler.dispatch(canFrame(0x18FEF100), 9);
    EXPECT_EQ(other.count(), 4u);
}

TEST(CanHandler, StartFailures) {
    TempDir bus;
    const struct {
        std::string interface;
        const char* vcan;
        std::string firstLine; // alternatives separated by '|'
    } cases[] = {
        {"can-name-of-16ch", nullptr, "WARN: Can interface name too long: can-name-of-16ch"},
        // No SocketCAN in this kernel, or no such interface where there is.
        {"tavro-nocan0", nullptr,
         "WARN: Error while opening can socket|WARN: Error in socket bind"},
        {"vcan9", bus.path.c_str(), "WARN: Error in socket bind"},
        {"..", bus.path.c_str(), "WARN: Error in socket bind"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.interface);
        if (c.vcan)
            setenv("TAVRO_VCAN_DIR", c.vcan, 1);
        else
            unsetenv("TAVRO_VCAN_DIR");
        CanHandler handler(c.interface);
        StderrCapture capture;
        EXPECT_EQ(handler.start(), 1);
        handler.stop(); // nothing to wait for
        capture.restore();
        EXPECT_FALSE(handler.isRunning());
        std::istringstream log(capture.text());
        std::string first, second, rest;
        std::getline(log, first);
        std::getline(log, second);
        EXPECT_NE(("|" + c.firstLine + "|").find("|" + first + "|"), std::string::npos) << first;
        EXPECT_EQ(second, "ERR : Can: No interfaces initialized.");
        EXPECT_FALSE(std::getline(log, rest));
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
    ASSERT_GE(sender, 0);
    struct ifreq request;
    memset(&request, 0, sizeof request);
    strncpy(request.ifr_name, name, IFNAMSIZ - 1);
    ASSERT_EQ(ioctl(sender, SIOCGIFINDEX, &request), 0) << name;
    sockaddr_can address;
    memset(&address, 0, sizeof address);
    address.can_family = AF_CAN;
    address.can_ifindex = request.ifr_ifindex;
    ASSERT_EQ(bind(sender, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    const auto wallMs = [] {
        struct timeval now;
        gettimeofday(&now, nullptr);
        return static_cast<uint64_t>(now.tv_sec) * 1000 + static_cast<uint64_t>(now.tv_usec) / 1000;
    };

    BasicCanDecoder decoder;
    RecordingHook hook;
    CanHandler handler(name);
    handler.addDecoder(&hook, &decoder);
    std::vector<double> stops;
    for (uint8_t round = 0; round < 5; ++round) {
        SCOPED_TRACE(round);
        ASSERT_EQ(handler.start(), 0);
        const can_frame frame = canFrame(0x18FEF100, {round});
        const uint64_t before = wallMs();
        ASSERT_EQ(write(sender, &frame, sizeof frame), static_cast<ssize_t>(sizeof frame));
        ASSERT_TRUE(hook.waitFor(round + 1u));
        const uint64_t after = wallMs();
        const DecodedFrame got = hook.frame(round);
        EXPECT_EQ(got.getPgn(), 0xFEF1);
        EXPECT_EQ(got.getData()[0], round);
        EXPECT_GE(got.getTimestamp(), before);
        EXPECT_LE(got.getTimestamp(), after);
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

TEST(ControlTimestamp, LayoutsOfTheKernel) {
    const int64_t wide[6] = {1700000000, 999999, 5, 0, 1800000000, 1};
    const int32_t narrow[6] = {1700000000, 999999, 5, 0, 1800000000, 1};
    const int64_t wideNs[6] = {1700000001, 999999999, 5, 0, 1800000000, 1};
    const int32_t narrowNs[6] = {1700000001, 999999999, 5, 0, 1800000000, 1};
    const int credentials[3] = {1, 0, 0};
    struct Message {
        int level, type;
        const void* payload;
        size_t length;
    };
    const struct {
        const char* name;
        std::vector<Message> messages;
        bool found;
        uint64_t stamp;
    } cases[] = {
        // SCM_TIMESTAMP: 64-bit timeval (old layout on 64-bit, new on 32-bit with 64-bit time)
        // and the 32-bit one; SCM_TIMESTAMPING: the first of three timespecs.
        {"timeval old", {{SOL_SOCKET, 29, wide, 16}}, true, 1700000000999ULL},
        {"timeval new", {{SOL_SOCKET, 63, wide, 16}}, true, 1700000000999ULL},
        {"timeval 32", {{SOL_SOCKET, 29, narrow, 8}}, true, 1700000000999ULL},
        {"timespec old", {{SOL_SOCKET, 37, wideNs, 48}}, true, 1700000001999ULL},
        {"timespec new", {{SOL_SOCKET, 65, wideNs, 48}}, true, 1700000001999ULL},
        {"timespec 32", {{SOL_SOCKET, 37, narrowNs, 24}}, true, 1700000001999ULL},
        {"other type skipped",
         {{SOL_SOCKET, SCM_CREDENTIALS, credentials, 12}, {SOL_SOCKET, 29, wide, 16}},
         true,
         1700000000999ULL},
        {"walk stops at another level",
         {{IPPROTO_IP, 29, wide, 16}, {SOL_SOCKET, 29, wide, 16}},
         false,
         7},
        {"length of no layout", {{SOL_SOCKET, 29, wide, 12}}, false, 7},
        {"none", {}, false, 7},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        std::vector<unsigned char> buffer;
        for (const Message& m : c.messages) {
            const size_t at = buffer.size();
            buffer.resize(at + CMSG_SPACE(m.length));
            cmsghdr header;
            memset(&header, 0, sizeof header);
            header.cmsg_level = m.level;
            header.cmsg_type = m.type;
            header.cmsg_len = CMSG_LEN(m.length);
            memcpy(buffer.data() + at, &header, sizeof header);
            memcpy(buffer.data() + at + CMSG_LEN(0), m.payload, m.length);
        }
        msghdr msg;
        memset(&msg, 0, sizeof msg);
        msg.msg_control = buffer.empty() ? nullptr : buffer.data();
        msg.msg_controllen = buffer.size();
        uint64_t stamp = 7; // kept when the message carries none
        EXPECT_EQ(controlTimestamp(msg, stamp), c.found);
        EXPECT_EQ(stamp, c.stamp);
    }
}
