// The server on real sockets: Unix-domain ones in a private directory, TCP on loopback.

#include "FcgiRecords.h"
#include "Server.h"
#include "TestSupport.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/resource.h>

#include <functional>

#include <gtest/gtest.h>

using namespace fcgitest;

namespace {

int openDescriptors() {
    int count = 0;
    DIR* dir = opendir("/proc/self/fd");
    while (readdir(dir) != nullptr)
        ++count;
    closedir(dir);
    return count;
}

int answerUri(Request& request) {
    request.out += "Status: 200 OK\r\n\r\n" + request.params["REQUEST_URI"];
    return 0;
}

std::string thrown(const std::function<void()>& action) {
    try {
        action();
    } catch (const std::runtime_error& e) {
        return e.what();
    }
    return "nothing thrown";
}

class ServerTest : public ::testing::Test {
protected:
    ServerTest() {
        server.set_request_handler(answerUri);
        server.listen(path);
    }

    // Runs passes until done() or for about five seconds.
    template <typename Done> bool serveUntil(Done done) {
        for (int i = 0; i < 500 && !done(); ++i)
            server.process(10);
        return done();
    }

    // Sends bytes and serves until an END_REQUEST (or with id 0 any record) or the end of the
    // connection has come back.
    std::vector<Record> ask(int fd, const std::string& bytes, uint16_t id) {
        sendAll(fd, bytes);
        std::string got;
        serveUntil([&] {
            got += receiveUntil(fd, 0, [](const std::string& b) { return !b.empty(); });
            const auto records = parse(got);
            return findEnd(records, id) != nullptr || (id == 0 && !records.empty());
        });
        return parse(got);
    }

    bool closedByServer(int fd) {
        return serveUntil([fd] {
            char c;
            return recv(fd, &c, 1, MSG_DONTWAIT) == 0;
        });
    }

    TempDir dir;
    const std::string path = dir.file("fcgi.sock");
    Server server;
};

} // namespace

TEST_F(ServerTest, ListeningAndItsFailures) {
    const int before = openDescriptors();
    const std::string prefix = dir.path + "/";
    const std::string longest = prefix + std::string(107 - prefix.size(), 's');
    {
        Server local;
        local.listen(longest);
        EXPECT_EQ(thrown([&] { local.listen(longest + "t"); }), "path too long");
        EXPECT_EQ(thrown([&] { local.listen(prefix + std::string("a\0b", 3)); }),
                  "null character in path");
        EXPECT_EQ(thrown([&] { local.listen(dir.file("missing/x.sock")); }), "bind() failed");
        const uint16_t port = freePort();
        local.listen(port);
        EXPECT_EQ(thrown([&] { Server().listen(port); }), "bind() failed");
        // Failed calls leave no socket behind; the ones that worked serve.
        EXPECT_EQ(openDescriptors(), before + 2);
        EXPECT_EQ(access(longest.c_str(), F_OK), 0);
        const int fd = connectTo("", port);
        sendAll(fd, record(GET_VALUES, 0, encode({{"FCGI_MPXS_CONNS", ""}})));
        for (int i = 0; i < 3; ++i)
            local.process(100);
        EXPECT_EQ(
            parse(receiveUntil(fd, 1000, [](const std::string& b) { return !b.empty(); })).size(),
            1u);
        close(fd);
    }
    // Teardown removes the socket file and closes everything.
    EXPECT_NE(access(longest.c_str(), F_OK), 0);
    EXPECT_EQ(openDescriptors(), before);
}

TEST_F(ServerTest, RequestWithoutKeepConnEndsTheConnection) {
    const int fd = connectTo(path);
    auto records = ask(fd, request(1, webParams("/unix"), {"ab"}), 1);
    EXPECT_EQ(stream(records, STDOUT, 1), "Status: 200 OK\r\n\r\n/unix");
    ASSERT_NE(findEnd(records, 1), nullptr);
    EXPECT_TRUE(closedByServer(fd));
    EXPECT_TRUE(server.connections().empty());
    close(fd);
}

TEST_F(ServerTest, VanishedPeerIsDroppedWithoutSigpipe) {
    const int gone = connectTo(path);
    sendAll(gone, request(1, webParams(), {"body"}));
    close(gone);
    std::string error = "nothing thrown";
    for (int i = 0; i < 100 && error == "nothing thrown"; ++i)
        error = thrown([&] { server.process(10); });
    EXPECT_EQ(error, "write() failed");
    EXPECT_TRUE(server.connections().empty());
    // The server goes on with the next peer.
    const int fd = connectTo(path);
    EXPECT_NE(findEnd(ask(fd, request(1, webParams(), {}), 1), 1), nullptr);
    close(fd);
}

TEST_F(ServerTest, ConnectionBoundIdlePeersAndPendingOutput) {
    Limits limits;
    limits.maxConnections = 2;
    limits.idleTimeoutMs = 500;
    limits.maxPendingOutput = 4096;
    server.set_limits(limits);
    const std::string getValues = record(GET_VALUES, 0, encode({{"FCGI_MPXS_CONNS", ""}}));
    const int first = connectTo(path);
    const int second = connectTo(path);
    EXPECT_EQ(ask(second, getValues, 0).size(), 1u);
    EXPECT_EQ(ask(first, getValues, 0).size(), 1u);
    // A third peer takes the place of the one quiet for longest.
    const int third = connectTo(path);
    EXPECT_EQ(ask(third, getValues, 0).size(), 1u);
    EXPECT_TRUE(closedByServer(second));
    EXPECT_EQ(server.connections().size(), 2u);
    // A peer that sends half a header and then nothing goes when it has been idle.
    sendAll(first, getValues.substr(0, 4));
    EXPECT_TRUE(closedByServer(first));
    EXPECT_TRUE(closedByServer(third));

    // Each 8-byte record earns a 16-byte answer, which this peer never reads.
    const int deaf = connectTo(path);
    std::string burst;
    for (int i = 0; i < 8192; ++i)
        burst += record(20, 0, "");
    std::size_t largest = 0;
    for (int i = 0; i < 200; ++i) {
        send(deaf, burst.data(), burst.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
        server.process(1);
        for (const auto& entry : server.connections())
            largest = std::max(largest, entry.second->output.size());
    }
    EXPECT_GT(largest, limits.maxPendingOutput);
    // One read of 4096 bytes adds at most 512 answers on top of the bound.
    EXPECT_LE(largest, limits.maxPendingOutput + 512 * 16);
    for (int fd : {first, second, third, deaf})
        close(fd);
}

TEST_F(ServerTest, HeldBytesOfAllConnectionsTogetherAreBounded) {
    Limits limits;
    limits.maxTotalHeldBytes = 3 * requestOverhead;
    server.set_limits(limits);
    const std::string two = begin(1, RESPONDER, KEEP_CONN) + begin(2, RESPONDER, KEEP_CONN);
    const int first = connectTo(path);
    sendAll(first, two);
    ASSERT_TRUE(serveUntil([&] {
        return !server.connections().empty() &&
               server.connections().begin()->second->requests.size() == 2;
    }));
    const int second = connectTo(path);
    const auto records = ask(second, two, 2);
    ASSERT_NE(findEnd(records, 2), nullptr);
    EXPECT_EQ(findEnd(records, 2)->protocolStatus(), OVERLOADED);
    EXPECT_TRUE(closedByServer(second));
    EXPECT_EQ(ask(first, record(GET_VALUES, 0, encode({{"FCGI_MPXS_CONNS", ""}})), 0).size(), 1u);
    close(first);
    close(second);
}

TEST_F(ServerTest, DescriptorsSelectCannotWatchAreRefused) {
    struct rlimit limit;
    getrlimit(RLIMIT_NOFILE, &limit);
    limit.rlim_cur = std::max(limit.rlim_cur, std::min<rlim_t>(limit.rlim_max, FD_SETSIZE + 64));
    setrlimit(RLIMIT_NOFILE, &limit);
    if (limit.rlim_cur < FD_SETSIZE + 64)
        GTEST_SKIP() << "descriptor limit too low";
    std::vector<int> fillers;
    while (fillers.empty() || fillers.back() < FD_SETSIZE - 1)
        fillers.push_back(open("/dev/null", O_RDONLY));
    EXPECT_EQ(thrown([&] { server.listen(dir.file("high.sock")); }),
              "descriptor beyond FD_SETSIZE");
    const int client = connectTo(path);
    EXPECT_TRUE(closedByServer(client));
    EXPECT_TRUE(server.connections().empty());
    close(client);
    for (int fd : fillers)
        close(fd);
}
