// The server on real sockets: Unix-domain ones in a private directory, TCP on loopback.

#include "FcgiRecords.h"
#include "Server.h"
#include "TestSupport.h"

#include <dirent.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <atomic>
#include <thread>

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

bool exists(const std::string& path) {
    struct stat info;
    return lstat(path.c_str(), &info) == 0;
}

int echoBody(Request& request) {
    request.out += request.in;
    request.in.clear();
    return 0;
}

int answerUri(Request& request) {
    request.out += "Status: 200 OK\r\n\r\n" + request.params["REQUEST_URI"];
    return 0;
}

// Runs passes until done() holds or about five seconds went by.
template <typename Done> bool serveUntil(Server& server, Done done) {
    for (int i = 0; i < 500; ++i) {
        if (done())
            return true;
        server.process(10);
    }
    return done();
}

class ServerTest : public ::testing::Test {
protected:
    std::string socketPath() { return dir.file("fcgi.sock"); }

    // Sends bytes and serves until the answer for id (or the end of the connection) is in;
    // id 0 waits for any record.
    std::vector<Record> ask(int fd, const std::string& bytes, uint16_t id) {
        return askOf(server, fd, bytes, id);
    }
    static std::vector<Record> askOf(Server& server, int fd, const std::string& bytes,
                                     uint16_t id) {
        EXPECT_TRUE(sendAll(fd, bytes));
        std::string got;
        serveUntil(server, [&] {
            char buffer[65536];
            ssize_t n;
            while ((n = recv(fd, buffer, sizeof buffer, MSG_DONTWAIT)) > 0)
                got.append(buffer, static_cast<std::size_t>(n));
            const auto records = parse(got);
            return n == 0 || findEnd(records, id) != nullptr || (id == 0 && !records.empty());
        });
        return parse(got);
    }

    bool peerClosed(int fd) {
        return serveUntil(server, [fd] {
            char c;
            return recv(fd, &c, 1, MSG_DONTWAIT) == 0;
        });
    }

    TempDir dir;
    Server server;
};

} // namespace

TEST_F(ServerTest, UnixPathLengths) {
    const int before = openDescriptors();
    const std::string prefix = dir.path + "/";
    const std::string longest = prefix + std::string(107 - prefix.size(), 's');
    ASSERT_EQ(longest.size(), 107u);
    {
        Server local;
        local.listen(longest);
        EXPECT_TRUE(exists(longest));
        try {
            local.listen(longest + "t");
            FAIL() << "108 bytes accepted";
        } catch (const std::runtime_error& e) {
            EXPECT_STREQ(e.what(), "path too long");
        }
        try {
            local.listen(prefix + std::string("a\0b", 3));
            FAIL() << "NUL accepted";
        } catch (const std::runtime_error& e) {
            EXPECT_STREQ(e.what(), "null character in path");
        }
        // The sockets of failed calls are closed again.
        EXPECT_EQ(openDescriptors(), before + 1);
        // The one that worked still serves.
        const int fd = connectUnix(longest);
        ASSERT_GE(fd, 0);
        auto records = askOf(local, fd, request(1, webParams(), {}, KEEP_CONN), 1);
        EXPECT_NE(findEnd(records, 1), nullptr);
        records = askOf(local, fd, record(GET_VALUES, 0, encode({{"FCGI_MAX_REQS", ""}})), 0);
        ASSERT_EQ(records.size(), 1u);
        EXPECT_EQ(records[0].content, encode({{"FCGI_MAX_REQS", "1000"}}));
        close(fd);
    }
    // Teardown removes the socket file and closes everything.
    EXPECT_FALSE(exists(longest));
    EXPECT_EQ(openDescriptors(), before);
}

TEST_F(ServerTest, BindFailures) {
    const int before = openDescriptors();
    try {
        server.listen(dir.file("missing/fcgi.sock"));
        FAIL();
    } catch (const std::runtime_error& e) {
        EXPECT_STREQ(e.what(), "bind() failed");
    }
    EXPECT_FALSE(exists(dir.file("missing/fcgi.sock")));

    const uint16_t port = freePort();
    server.listen(port);
    Server second;
    try {
        second.listen(port);
        FAIL() << "port bound twice";
    } catch (const std::runtime_error& e) {
        EXPECT_STREQ(e.what(), "bind() failed");
    }
    EXPECT_EQ(openDescriptors(), before + 1);
}

TEST_F(ServerTest, RequestOverUnixSocketWithoutKeepConn) {
    server.set_request_handler(answerUri);
    server.set_data_handler(echoBody);
    server.listen(socketPath());
    const int fd = connectUnix(socketPath());
    ASSERT_GE(fd, 0);
    auto records = ask(fd, request(1, webParams("/unix"), {"ab", "cd"}), 1);
    EXPECT_EQ(stream(records, STDOUT, 1), "Status: 200 OK\r\n\r\n/unixabcd");
    ASSERT_NE(findEnd(records, 1), nullptr);
    EXPECT_TRUE(peerClosed(fd));
    EXPECT_TRUE(server.connections().empty());
    close(fd);
}

TEST_F(ServerTest, TcpConnectionWithKeepConnStaysOpen) {
    server.set_request_handler(answerUri);
    const uint16_t port = freePort();
    server.listen(port);
    const int fd = connectLoopback(port);
    ASSERT_GE(fd, 0);
    for (uint16_t id = 1; id <= 3; ++id) {
        auto records = ask(fd, request(id, webParams("/tcp"), {}, KEEP_CONN), id);
        EXPECT_EQ(stream(records, STDOUT, id), "Status: 200 OK\r\n\r\n/tcp");
        ASSERT_NE(findEnd(records, id), nullptr);
    }
    EXPECT_EQ(server.connections().size(), 1u);
    // End of file from the peer closes the connection.
    shutdown(fd, SHUT_WR);
    EXPECT_TRUE(peerClosed(fd));
    EXPECT_TRUE(server.connections().empty());
    close(fd);
}

TEST_F(ServerTest, QuietPassesAndInterruptedWaits) {
    server.listen(socketPath());
    server.process(0);
    server.process(20);

    struct sigaction action = {};
    action.sa_handler = [](int) {};
    struct sigaction previous;
    sigaction(SIGUSR1, &action, &previous);
    const pthread_t self = pthread_self();
    std::atomic<bool> returned{false};
    std::thread interrupter([&] {
        while (!returned) {
            usleep(20 * 1000);
            pthread_kill(self, SIGUSR1);
        }
    });
    // Without the signal this would wait for ever.
    EXPECT_NO_THROW(server.process(-1));
    returned = true;
    interrupter.join();
    sigaction(SIGUSR1, &previous, nullptr);
}

TEST_F(ServerTest, VanishedPeerIsDroppedWithoutSigpipe) {
    server.set_request_handler(answerUri);
    server.listen(socketPath());
    const int gone = connectUnix(socketPath());
    ASSERT_TRUE(sendAll(gone, request(1, webParams(), {"body"})));
    close(gone);
    std::string error;
    for (int i = 0; i < 100 && error.empty(); ++i) {
        try {
            server.process(10);
        } catch (const ConnectionError& e) {
            error = e.what();
        }
    }
    EXPECT_EQ(error, "write() failed");
    EXPECT_TRUE(server.connections().empty());

    // The server goes on with the next peer.
    const int fd = connectUnix(socketPath());
    auto records = ask(fd, request(1, webParams("/next"), {}), 1);
    EXPECT_NE(findEnd(records, 1), nullptr);
    close(fd);
}

TEST_F(ServerTest, ConnectionBeyondTheBoundReplacesTheQuietest) {
    Limits limits;
    limits.maxConnections = 2;
    server.set_limits(limits);
    server.listen(socketPath());
    const std::string getValues = record(GET_VALUES, 0, encode({{"FCGI_MPXS_CONNS", ""}}));
    const int first = connectUnix(socketPath());
    const int second = connectUnix(socketPath());
    EXPECT_EQ(ask(first, getValues, 0).size(), 1u);
    EXPECT_EQ(ask(second, getValues, 0).size(), 1u);
    EXPECT_EQ(ask(first, getValues, 0).size(), 1u);
    EXPECT_EQ(server.connections().size(), 2u);

    const int third = connectUnix(socketPath());
    EXPECT_EQ(ask(third, getValues, 0).size(), 1u);
    EXPECT_EQ(server.connections().size(), 2u);
    EXPECT_TRUE(peerClosed(second));
    EXPECT_EQ(ask(first, getValues, 0).size(), 1u);
    for (int fd : {first, second, third})
        close(fd);
}

TEST_F(ServerTest, SilentPeerIsClosedWhenIdle) {
    Limits limits;
    limits.idleTimeoutMs = 50;
    server.set_limits(limits);
    server.listen(socketPath());
    const int fd = connectUnix(socketPath());
    // A header promising content that never comes.
    sendAll(fd, record(STDIN, 1, std::string(100, 'x')).substr(0, 8));
    EXPECT_TRUE(peerClosed(fd));
    EXPECT_TRUE(server.connections().empty());
    close(fd);
}

TEST_F(ServerTest, PeerThatDoesNotReadIsNotReadFromEither) {
    Limits limits;
    limits.maxPendingOutput = 4096;
    server.set_limits(limits);
    server.listen(socketPath());
    const int fd = connectUnix(socketPath());
    // Each 8-byte record earns a 16-byte answer that the peer never reads.
    const std::string unknown = record(20, 0, "");
    std::string burst;
    for (int i = 0; i < 8192; ++i)
        burst += unknown;
    std::size_t largest = 0;
    for (int i = 0; i < 400; ++i) {
        send(fd, burst.data(), burst.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
        server.process(1);
        for (const auto& entry : server.connections())
            largest = std::max(largest, entry.second->output.size());
    }
    ASSERT_EQ(server.connections().size(), 1u);
    EXPECT_GT(largest, limits.maxPendingOutput);
    // One read of 4096 bytes adds at most 512 answers on top of the bound.
    EXPECT_LE(largest, limits.maxPendingOutput + 512 * 16);
    close(fd);
}

TEST_F(ServerTest, DescriptorsSelectCannotWatchAreRefused) {
    struct rlimit limit;
    getrlimit(RLIMIT_NOFILE, &limit);
    if (limit.rlim_cur < FD_SETSIZE + 64) {
        limit.rlim_cur = std::min<rlim_t>(limit.rlim_max, FD_SETSIZE + 256);
        setrlimit(RLIMIT_NOFILE, &limit);
        getrlimit(RLIMIT_NOFILE, &limit);
    }
    if (limit.rlim_cur < FD_SETSIZE + 64)
        GTEST_SKIP() << "descriptor limit too low";

    server.listen(socketPath());
    // Fill every descriptor below FD_SETSIZE.
    std::vector<int> fillers;
    for (;;) {
        const int fd = open("/dev/null", O_RDONLY);
        if (fd >= FD_SETSIZE - 1) {
            fillers.push_back(fd);
            break;
        }
        fillers.push_back(fd);
    }
    try {
        server.listen(dir.file("high.sock"));
        FAIL() << "listening socket beyond FD_SETSIZE kept";
    } catch (const std::runtime_error& e) {
        EXPECT_STREQ(e.what(), "descriptor beyond FD_SETSIZE");
    }
    const int client = connectUnix(socketPath());
    ASSERT_GE(client, FD_SETSIZE);
    bool closed = false;
    for (int i = 0; i < 50 && !closed; ++i) {
        server.process(5);
        char c;
        closed = recv(client, &c, 1, MSG_DONTWAIT) == 0;
    }
    EXPECT_TRUE(closed);
    EXPECT_TRUE(server.connections().empty());
    close(client);
    for (int fd : fillers)
        close(fd);
}

TEST_F(ServerTest, ThousandsOfConnections) {
    struct rlimit limit;
    getrlimit(RLIMIT_NOFILE, &limit);
    const rlim_t wanted = 4000;
    if (limit.rlim_cur < wanted) {
        limit.rlim_cur = std::min(limit.rlim_max, wanted);
        setrlimit(RLIMIT_NOFILE, &limit);
        getrlimit(RLIMIT_NOFILE, &limit);
    }
    const int count = static_cast<int>(std::min<rlim_t>(3000, limit.rlim_cur - 100));
    if (count < 1200)
        GTEST_SKIP() << "descriptor limit too low";

    server.listen(socketPath());
    // The peers live in a child, so that their descriptors do not push the server's up.
    int report[2];
    int release[2];
    ASSERT_EQ(pipe(report), 0);
    ASSERT_EQ(pipe(release), 0);
    const std::string path = socketPath();
    const pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        close(report[0]);
        close(release[1]);
        // Peers that send half a header and then keep quiet.
        const std::string half = record(GET_VALUES, 0, "").substr(0, 4);
        int connected = 0;
        for (int i = 0; i < count; ++i) {
            for (int attempt = 0; attempt < 200; ++attempt) {
                const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0);
                sockaddr_un address = {};
                address.sun_family = AF_UNIX;
                std::strcpy(address.sun_path, path.c_str());
                if (connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0) {
                    send(fd, half.data(), half.size(), MSG_NOSIGNAL);
                    ++connected;
                    break;
                }
                close(fd);
                usleep(1000);
            }
        }
        ssize_t ignored = write(report[1], &connected, sizeof connected);
        char c;
        ignored = read(release[0], &c, 1);
        (void)ignored;
        _exit(0);
    }
    close(report[1]);
    close(release[0]);
    int connected = 0;
    for (;;) {
        server.process(1);
        ASSERT_LE(server.connections().size(), Limits().maxConnections);
        pollfd p = {report[0], POLLIN, 0};
        if (poll(&p, 1, 0) == 1) {
            ASSERT_EQ(read(report[0], &connected, sizeof connected),
                      static_cast<ssize_t>(sizeof connected));
            break;
        }
    }
    EXPECT_EQ(connected, count);
    EXPECT_EQ(server.connections().size(), Limits().maxConnections);

    // A peer that comes now is served all the same, once the backlog ahead of it is taken.
    int fd = -1;
    for (int i = 0; i < 1000 && fd < 0; ++i) {
        fd = socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0);
        sockaddr_un address = {};
        address.sun_family = AF_UNIX;
        std::strcpy(address.sun_path, path.c_str());
        if (connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) < 0) {
            close(fd);
            fd = -1;
            server.process(1);
        }
    }
    ASSERT_GE(fd, 0);
    fcntl(fd, F_SETFL, 0);
    auto records = ask(fd, request(1, webParams(), {}), 1);
    EXPECT_NE(findEnd(records, 1), nullptr);
    close(fd);

    close(release[1]);
    close(report[0]);
    int status = 0;
    waitpid(child, &status, 0);
    EXPECT_TRUE(serveUntil(server, [&] { return server.connections().empty(); }));
}
