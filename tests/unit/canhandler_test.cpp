#include "BasicCanDecoder.h"
#include "CanHandler.h"
#include "CanTestSupport.h"
#include "JsonCanDecoder.h"
#include "TestSupport.h"

#include <netinet/in.h>

#include <gtest/gtest.h>

#include <cstdlib>

namespace {

// A decoder whose answers the test sets, writing what it is asked into a shared trace.
class ScriptedDecoder : public CanDecoder {
public:
    ScriptedDecoder(const std::string& name, std::vector<std::string>& trace, bool accept,
                    bool shared, bool produce = true)
        : name(name), trace(trace), accept(accept), shared(shared), produce(produce) {}

    DecodedFrame* decode(const can_frame&) override {
        trace.push_back(name + ".decode");
        if (!produce)
            return nullptr;
        DecodedFrame* frame = new DecodedFrame;
        SPN* tag = new SPNString(name);
        frame->addSpn(tag);
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
    bool accept;
    bool shared;
    bool produce;
};

std::vector<std::string> producers(RecordingHook& hook) {
    std::vector<std::string> names;
    for (size_t i = 0; i < hook.count(); ++i) {
        const DecodedFrame frame = hook.frame(i);
        names.push_back(frame.spns().empty() ? "raw" : text(frame, 0).getValue());
    }
    return names;
}

} // namespace

TEST(CanHandler, RegistryHasOneHandlerPerName) {
    CanHandler* can0 = CanHandler::forInterface("can0");
    EXPECT_EQ(CanHandler::forInterface("can0"), can0);
    EXPECT_NE(CanHandler::forInterface("can1"), can0);
    EXPECT_NE(CanHandler::forInterface("CAN0"), can0);
    EXPECT_EQ(can0->getInterface(), "can0");
    EXPECT_FALSE(can0->isRunning());
}

TEST(CanHandler, OnlyDecodersThatTakeTheFrameAreAskedToDecode) {
    std::vector<std::string> trace;
    ScriptedDecoder ignores("a", trace, false, false);
    ScriptedDecoder takes("b", trace, true, false);
    RecordingHook hook;
    CanHandler handler("vcan-order");
    handler.addDecoder(&hook, &ignores);
    handler.addDecoder(&hook, &takes);
    handler.dispatch(canFrame(0x18FEF100), 1700000000999ULL);
    EXPECT_EQ(trace, (std::vector<std::string>{"a.acceptsShared", "a.accepts", "b.acceptsShared",
                                               "b.accepts", "b.decode"}));
    ASSERT_EQ(hook.count(), 1u);
    EXPECT_EQ(hook.frame(0).getTimestamp(), 1700000000999ULL);
}

TEST(CanHandler, FirstProducingDecoderEndsTheWalkUnlessShared) {
    struct Case {
        const char* name;
        std::vector<std::tuple<bool, bool, bool>> decoders; // accepts, shared, produces
        std::vector<std::string> delivered;
    };
    const std::vector<Case> cases = {
        {"first wins", {{true, false, true}, {true, false, true}}, {"d0"}},
        {"empty first", {{true, false, false}, {true, false, true}}, {"d1"}},
        {"shared each",
         {{false, true, true}, {false, true, true}, {true, false, true}},
         {"d0", "d1", "d2"}},
        {"shared then taken",
         {{false, true, true}, {true, false, true}, {true, false, true}},
         {"d0", "d1"}},
        {"both answers", {{true, true, true}, {true, false, true}}, {"d0", "d1"}},
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
        handler.dispatch(canFrame(0x18FEF100), 0);
        EXPECT_EQ(producers(hook), c.delivered);
    }
}

TEST(CanHandler, MappingDecodersAndCatchAll) {
    JsonCanDecoder first(testData("fms_mapping.json"));
    JsonCanDecoder second(testData("fms_mapping.json"));
    BasicCanDecoder rest;
    RecordingHook hook;
    RecordingHook other;
    CanHandler handler("vcan-fms");
    handler.addDecoder(&hook, &first);
    handler.addDecoder(&hook, &second);
    handler.addDecoder(&hook, &rest);
    BasicCanDecoder otherRest;
    handler.addDecoder(&other, &otherRest);

    // Transport frames: each mapping decoder (shared) and the catch-all.
    handler.dispatch(bamAnnounce(0xFEEC, 9, 2), 5);
    EXPECT_EQ(hook.count(), 3u);
    for (size_t i = 0; i < 3; ++i)
        EXPECT_EQ(hook.frame(i).getPgn(), 0xECFF);
    // A listed PGN: the first mapping decoder only.
    handler.dispatch(canFrame(0x18FEF100, {0x04}), 6);
    ASSERT_EQ(hook.count(), 4u);
    EXPECT_EQ(hook.frame(3).getPgn(), 0xFEF1);
    EXPECT_EQ(hook.frame(3).spns().size(), 6u);
    // Not listed: raw, from the catch-all.
    handler.dispatch(canFrame(0x18FEDA00), 7);
    ASSERT_EQ(hook.count(), 5u);
    EXPECT_EQ(hook.frame(4).getPgn(), 0xFEDA);
    EXPECT_TRUE(hook.frame(4).spns().empty());
    // Each hook walks its own decoders.
    EXPECT_EQ(other.count(), 3u);
}

TEST(CanHandler, RemovedHookIsNoLongerCalled) {
    BasicCanDecoder forFirst;
    BasicCanDecoder forSecond;
    RecordingHook first;
    RecordingHook second;
    CanHandler handler("vcan-remove");
    handler.addDecoder(&first, &forFirst);
    handler.addDecoder(&second, &forSecond);
    EXPECT_EQ(handler.removeHook(&first), 1u);
    EXPECT_EQ(handler.removeHook(&first), 1u);
    handler.dispatch(canFrame(0x18FEF100), 0);
    EXPECT_EQ(first.count(), 0u);
    EXPECT_EQ(second.count(), 1u);
    handler.release(&second);
    handler.dispatch(canFrame(0x18FEF100), 0);
    EXPECT_EQ(second.count(), 1u);
}

TEST(CanHandler, StartFailures) {
    const char* saved = getenv("TAVRO_VCAN_DIR");
    const std::string savedDir = saved ? saved : "";
    unsetenv("TAVRO_VCAN_DIR");
    struct Case {
        std::string interface;
        const char* vcan;
        std::vector<std::string> lines; // any of the alternatives in one slot, by '|'
    };
    TempDir bus;
    const std::vector<Case> cases = {
        {"can-name-of-16ch",
         nullptr,
         {"WARN: Can interface name too long: can-name-of-16ch",
          "ERR : Can: No interfaces initialized."}},
        // No SocketCAN in this kernel, or no such interface where there is.
        {"tavro-nocan0",
         nullptr,
         {"WARN: Error while opening can socket|WARN: Error in socket bind",
          "ERR : Can: No interfaces initialized."}},
        {"vcan9",
         bus.path.c_str(),
         {"WARN: Error in socket bind", "ERR : Can: No interfaces initialized."}},
        {"..",
         bus.path.c_str(),
         {"WARN: Error in socket bind", "ERR : Can: No interfaces initialized."}},
    };
    for (const Case& c : cases) {
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
        std::vector<std::string> lines;
        for (std::string line; std::getline(log, line);)
            lines.push_back(line);
        ASSERT_EQ(lines.size(), c.lines.size()) << capture.text();
        for (size_t i = 0; i < lines.size(); ++i)
            EXPECT_NE(("|" + c.lines[i] + "|").find("|" + lines[i] + "|"), std::string::npos)
                << lines[i];
    }
    if (saved)
        setenv("TAVRO_VCAN_DIR", savedDir.c_str(), 1);
    else
        unsetenv("TAVRO_VCAN_DIR");
}

namespace {

// A control buffer with the given SOL_SOCKET messages, laid out as the kernel does.
class ControlBuffer {
public:
    void add(int level, int type, const void* payload, size_t length) {
        const size_t at = bytes.size();
        bytes.resize(at + CMSG_SPACE(length));
        cmsghdr header;
        memset(&header, 0, sizeof header);
        header.cmsg_level = level;
        header.cmsg_type = type;
        header.cmsg_len = CMSG_LEN(length);
        memcpy(bytes.data() + at, &header, sizeof header);
        memcpy(bytes.data() + at + CMSG_LEN(0), payload, length);
    }
    msghdr message() {
        msghdr msg;
        memset(&msg, 0, sizeof msg);
        msg.msg_control = bytes.data();
        msg.msg_controllen = bytes.size();
        return msg;
    }

private:
    std::vector<unsigned char, std::allocator<unsigned char>> bytes;
};

template <typename T> std::vector<T> pairs(std::initializer_list<T> values) {
    return std::vector<T>(values);
}

} // namespace

TEST(ControlTimestamp, TimevalInBothWidths) {
    const auto wide = pairs<int64_t>({1700000000, 999999});
    const auto narrow = pairs<int32_t>({1700000000, 999999});
    for (int type : {29, 63}) {
        ControlBuffer buffer;
        buffer.add(SOL_SOCKET, type, wide.data(), 16);
        uint64_t stamp = 0;
        msghdr msg = buffer.message();
        ASSERT_TRUE(controlTimestamp(msg, stamp));
        EXPECT_EQ(stamp, 1700000000999ULL);
    }
    // 32-bit ARM with 32-bit time: two 4-byte fields.
    ControlBuffer buffer;
    buffer.add(SOL_SOCKET, 29, narrow.data(), 8);
    uint64_t stamp = 0;
    msghdr msg = buffer.message();
    ASSERT_TRUE(controlTimestamp(msg, stamp));
    EXPECT_EQ(stamp, 1700000000999ULL);
}

TEST(ControlTimestamp, SoftwareStampOfTimestamping) {
    // Three timespecs: software, deprecated, hardware. Only the first counts.
    const auto wide = pairs<int64_t>({1700000001, 999999999, 5, 0, 1800000000, 1});
    const auto narrow = pairs<int32_t>({1700000001, 999999999, 5, 0, 1800000000, 1});
    for (int type : {37, 65}) {
        ControlBuffer buffer;
        buffer.add(SOL_SOCKET, type, wide.data(), 48);
        uint64_t stamp = 0;
        msghdr msg = buffer.message();
        ASSERT_TRUE(controlTimestamp(msg, stamp));
        EXPECT_EQ(stamp, 1700000001999ULL);
    }
    ControlBuffer buffer;
    buffer.add(SOL_SOCKET, 37, narrow.data(), 24);
    uint64_t stamp = 0;
    msghdr msg = buffer.message();
    ASSERT_TRUE(controlTimestamp(msg, stamp));
    EXPECT_EQ(stamp, 1700000001999ULL);
}

TEST(ControlTimestamp, WalkStopsAtAnotherLevelAndSkipsOtherTypes) {
    const auto stampPair = pairs<int64_t>({1700000000, 500000});
    const int credentials[3] = {1, 0, 0};
    ControlBuffer skipped;
    skipped.add(SOL_SOCKET, SCM_CREDENTIALS, credentials, sizeof credentials);
    skipped.add(SOL_SOCKET, 29, stampPair.data(), 16);
    uint64_t stamp = 7;
    msghdr msg = skipped.message();
    EXPECT_TRUE(controlTimestamp(msg, stamp));
    EXPECT_EQ(stamp, 1700000000500ULL);

    ControlBuffer stopped;
    stopped.add(IPPROTO_IP, 29, stampPair.data(), 16);
    stopped.add(SOL_SOCKET, 29, stampPair.data(), 16);
    stamp = 7;
    msg = stopped.message();
    EXPECT_FALSE(controlTimestamp(msg, stamp));
    EXPECT_EQ(stamp, 7u);

    // A stamp of a length no layout has is not read.
    ControlBuffer odd;
    odd.add(SOL_SOCKET, 29, stampPair.data(), 12);
    msg = odd.message();
    EXPECT_FALSE(controlTimestamp(msg, stamp));

    msghdr empty;
    memset(&empty, 0, sizeof empty);
    EXPECT_FALSE(controlTimestamp(empty, stamp));
    EXPECT_EQ(stamp, 7u);
}
