// A real reader on the virtual bus, fed by the log player.
#include "BasicCanDecoder.h"
#include "CanHandler.h"
#include "CanTestSupport.h"
#include "TestSupport.h"

#include <dirent.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <thread>

namespace {

uint64_t wallMillis() {
    return static_cast<uint64_t>(std::chrono::duration_cast<std::chrono::milliseconds>(
                                     std::chrono::system_clock::now().time_since_epoch())
                                     .count());
}

std::vector<std::string> socketsIn(const std::string& dir) {
    std::vector<std::string> names;
    if (DIR* d = opendir(dir.c_str())) {
        while (dirent* entry = readdir(d)) {
            struct stat info;
            if (stat((dir + "/" + entry->d_name).c_str(), &info) == 0 && S_ISSOCK(info.st_mode))
                names.push_back(entry->d_name);
        }
        closedir(d);
    }
    return names;
}

class VirtualBus : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_EQ(mkdir(root.file("vcan0").c_str(), 0755), 0);
        setenv("TAVRO_VCAN_DIR", root.path.c_str(), 1);
    }
    void TearDown() override { unsetenv("TAVRO_VCAN_DIR"); }

    // Runs the player on a log text; returns its standard output.
    std::string play(const std::string& log, const std::string& options = "-f -m can0=vcan0") {
        const std::string path = root.write("frames.log", log);
        const std::string command = toolCommand("tavro-canplayer") + " " + options + " " + path;
        FILE* pipe = popen(command.c_str(), "r");
        EXPECT_NE(pipe, nullptr);
        std::string out;
        char buffer[256];
        while (fgets(buffer, sizeof buffer, pipe))
            out += buffer;
        EXPECT_EQ(pclose(pipe), 0) << command;
        return out;
    }

    // Sends one frame to every reader of vcan0, as the player does.
    void send(const can_frame& frame) {
        const int fd = socket(AF_UNIX, SOCK_DGRAM, 0);
        for (const std::string& name : socketsIn(root.file("vcan0"))) {
            sockaddr_un address;
            memset(&address, 0, sizeof address);
            address.sun_family = AF_UNIX;
            const std::string path = root.file("vcan0/" + name);
            memcpy(address.sun_path, path.c_str(), path.size());
            sendto(fd, &frame, sizeof frame, 0, reinterpret_cast<sockaddr*>(&address),
                   sizeof address);
        }
        close(fd);
    }

    TempDir root;
};

} // namespace

TEST_F(VirtualBus, EveryReaderGetsEveryFrameWithItsReceiveTime) {
    BasicCanDecoder decoderA;
    BasicCanDecoder decoderB;
    RecordingHook hookA;
    RecordingHook hookB;
    CanHandler readerA("vcan0");
    CanHandler readerB("vcan0");
    readerA.addDecoder(&hookA, &decoderA);
    readerB.addDecoder(&hookB, &decoderB);
    ASSERT_EQ(readerA.start(), 0);
    ASSERT_EQ(readerB.start(), 0);
    EXPECT_EQ(socketsIn(root.file("vcan0")).size(), 2u);

    const uint64_t before = wallMillis();
    const std::string out = play("(1700000000.000000) can0 18FEF100#0102030405060708\n"
                                 "(1700000000.010000) can0 0CF00400#F07D914000\n"
                                 "(1700000000.020000) can0 123#DEAD\n"
                                 "(1700000000.030000) can1 18FEEE00#FF\n"
                                 "(1700000000.040000) can0 18FEC1EE#\n");
    EXPECT_EQ(out, "Sent 4 frames.\n");
    ASSERT_TRUE(hookA.waitFor(4));
    ASSERT_TRUE(hookB.waitFor(4));
    const uint64_t after = wallMillis();

    for (RecordingHook* hook : {&hookA, &hookB}) {
        ASSERT_EQ(hook->count(), 4u);
        const uint16_t pgns[] = {0xFEF1, 0xF004, 0x0001, 0xFEC1};
        for (size_t i = 0; i < 4; ++i) {
            const DecodedFrame frame = hook->frame(i);
            EXPECT_EQ(frame.getPgn(), pgns[i]);
            // The kernel's receive time, not the time in the log.
            EXPECT_GE(frame.getTimestamp(), before);
            EXPECT_LE(frame.getTimestamp(), after);
        }
        EXPECT_EQ(hook->frame(0).getData()[7], 8);
        EXPECT_EQ(hook->frame(1).getData()[4], 0x00);
        EXPECT_EQ(hook->frame(2).getData()[1], 0xAD);
    }
    readerA.stop();
    readerB.stop();
}

TEST_F(VirtualBus, StopClosesTheSocketAndStartOpensANewOne) {
    BasicCanDecoder decoder;
    RecordingHook hook;
    CanHandler reader("vcan0");
    reader.addDecoder(&hook, &decoder);
    ASSERT_EQ(reader.start(), 0);
    EXPECT_EQ(reader.start(), 0); // running: no second socket
    EXPECT_EQ(socketsIn(root.file("vcan0")).size(), 1u);

    // Without frames, stop waits out the receive time-out and no more.
    const auto begin = std::chrono::steady_clock::now();
    reader.stop();
    const auto took = std::chrono::duration_cast<std::chrono::microseconds>(
        std::chrono::steady_clock::now() - begin);
    RecordProperty("stop_us", static_cast<int>(took.count()));
    printf("stop took %lld us\n", static_cast<long long>(took.count()));
    EXPECT_LT(took, std::chrono::seconds(2));
    EXPECT_FALSE(reader.isRunning());
    EXPECT_TRUE(socketsIn(root.file("vcan0")).empty());

    ASSERT_EQ(reader.start(), 0);
    EXPECT_EQ(socketsIn(root.file("vcan0")).size(), 1u);
    send(canFrame(0x18FEF100));
    EXPECT_TRUE(hook.waitFor(1));
    reader.stop();
}

TEST_F(VirtualBus, HooksComeAndGoWhileTheReaderRuns) {
    BasicCanDecoder forLeaving;
    BasicCanDecoder forStaying;
    BasicCanDecoder forLate;
    // Counts calls made after its service has gone.
    class LeavingHook : public RecordingHook {
    public:
        void handleFrame(DecodedFrame* frame) override {
            if (gone)
                ++afterRemoval;
            RecordingHook::handleFrame(frame);
        }
        std::atomic<bool> gone{false};
        std::atomic<int> afterRemoval{0};
    } leaving;
    RecordingHook staying;
    RecordingHook late;
    CanHandler reader("vcan0");
    reader.addDecoder(&leaving, &forLeaving);
    reader.addDecoder(&staying, &forStaying);
    ASSERT_EQ(reader.start(), 0);

    std::atomic<bool> sending{true};
    std::thread sender([&] {
        while (sending) {
            send(canFrame(0x18FEF100));
            std::this_thread::sleep_for(std::chrono::microseconds(200));
        }
    });
    ASSERT_TRUE(leaving.waitFor(20));
    reader.addDecoder(&late, &forLate);
    EXPECT_EQ(reader.removeHook(&leaving), 2u);
    leaving.gone = true;
    const size_t stayed = staying.count();
    EXPECT_TRUE(staying.waitFor(stayed + 20));
    EXPECT_TRUE(late.waitFor(20));
    sending = false;
    sender.join();
    reader.release(&staying);
    EXPECT_TRUE(reader.isRunning()); // late is still registered
    reader.release(&late);
    EXPECT_FALSE(reader.isRunning());
    EXPECT_EQ(leaving.afterRemoval, 0);
}

TEST_F(VirtualBus, TraceLineOfEveryFrame) {
    BasicCanDecoder decoder;
    RecordingHook hook;
    CanHandler reader("vcan0");
    reader.addDecoder(&hook, &decoder);
    VerbosityScope verbose(8);
    StderrCapture capture;
    ASSERT_EQ(reader.start(), 0);
    can_frame frame = canFrame(0x18FEF100, {0xFF, 0x00});
    frame.can_dlc = 2;
    send(frame);
    ASSERT_TRUE(hook.waitFor(1));
    reader.stop();
    capture.restore();
    const std::string log = capture.text();
    EXPECT_NE(log.find("DBG : vcan0 at " + root.file("vcan0") + "\n"), std::string::npos) << log;
    EXPECT_NE(log.find("DBG : Start can thread.\n"), std::string::npos) << log;
    EXPECT_NE(log.find("DBG : 18fef100 [2] FF00FFFFFFFFFFFF\n"), std::string::npos) << log;
    EXPECT_NE(log.find("DBG : Stop can thread.\n"), std::string::npos) << log;
}
