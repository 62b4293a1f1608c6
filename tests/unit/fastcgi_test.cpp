// Records are built here apart from the server's own framing code, so that the tests compare
// the bytes on the wire.

#include "Connection.h"
#include "FcgiHandler.h"

#include <arpa/inet.h>

#include <functional>
#include <stdexcept>

#include <gtest/gtest.h>

using namespace FastCGIServer;

namespace {

using Pairs = std::vector<std::pair<std::string, std::string>>;

char byte(unsigned value) {
    return static_cast<char>(value & 0xFF);
}

std::string record(uint8_t type, uint16_t id, const std::string& content, uint8_t padding = 0,
                   char version = 1) {
    const std::size_t n = content.size();
    return std::string{version,      byte(type), byte(id >> 8), byte(id),
                       byte(n >> 8), byte(n),    byte(padding), 0} +
           content + std::string(padding, '\0');
}

std::string padded(uint8_t type, uint16_t id, const std::string& text) {
    return record(type, id, text, static_cast<uint8_t>((8 - text.size() % 8) % 8));
}

std::string end(uint16_t id, uint8_t app, uint8_t protocol = REQUEST_COMPLETE) {
    return record(END_REQUEST, id, std::string{0, 0, 0, byte(app), byte(protocol), 0, 0, 0});
}

std::string ending(uint16_t id, uint8_t app, uint8_t protocol = REQUEST_COMPLETE) {
    return record(STDOUT, id, "") + record(STDERR, id, "") + end(id, app, protocol);
}

std::string begin(uint16_t id, uint8_t flags = 0, char role = RESPONDER) {
    return record(BEGIN_REQUEST, id, std::string{0, role, byte(flags), 0, 0, 0, 0, 0});
}

std::string encode(const Pairs& pairs) {
    std::string out;
    for (const auto& pair : pairs)
        encodeParam(out, pair.first, pair.second);
    return out;
}

// What a web server sends for a request that came in on its HTTP port.
std::string paramsStream(uint16_t id, const std::string& uri = "/pgn",
                         const std::string& port = "8085") {
    return record(PARAMS, id, encode({{"REQUEST_URI", uri}, {"SERVER_PORT", port}})) +
           record(PARAMS, id, "");
}

std::string request(const std::string& params, const std::string& body) {
    return begin(1) + params + record(STDIN, 1, body) + record(STDIN, 1, "");
}

std::string calls;
std::function<int(char stage, Request&)> respond;

struct Stage : HandlerBase {
    explicit Stage(char name) : name(name) {}
    int operator()(Request& request) override {
        calls += name;
        return respond(name, request);
    }
    const char name;
};

class ConnectionTest : public ::testing::Test {
protected:
    ConnectionTest() {
        callbacks.request = std::make_unique<Stage>('r');
        callbacks.data = std::make_unique<Stage>('d');
        callbacks.complete = std::make_unique<Stage>('c');
        calls.clear();
        // Takes the body and lets the request go on, unless a test says otherwise.
        respond = [](char, Request& r) {
            r.in.clear();
            return 0;
        };
    }

    std::string exchange(const std::string& in) {
        connection.receive(in.data(), in.size());
        connection.flushAll();
        return std::exchange(connection.output, std::string());
    }

    Callbacks callbacks;
    Limits limits;
    Connection connection{callbacks, limits};
};

int endpoint(uint16_t port, bool listening = false) {
    sockaddr_in address = {AF_INET, htons(port), {htonl(INADDR_LOOPBACK)}, {}};
    auto* any = reinterpret_cast<sockaddr*>(&address);
    const int fd = socket(AF_INET, SOCK_STREAM, 0);
    if (listening ? bind(fd, any, sizeof address) == 0 && listen(fd, 1) == 0
                  : connect(fd, any, sizeof address) == 0)
        return fd;
    close(fd);
    return -1;
}

// A loopback TCP port that was free a moment ago.
uint16_t freePort() {
    const int fd = endpoint(0, true);
    sockaddr_in address = {};
    socklen_t length = sizeof address;
    getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length);
    close(fd);
    return ntohs(address.sin_port);
}

bool waitFor(const std::function<bool()>& done) {
    for (int i = 0; i < 250 && !done(); ++i)
        usleep(20 * 1000);
    return done();
}

// What came back until the server closed the connection.
std::string exchange(const std::string& bytes, uint16_t port) {
    const int fd = endpoint(port);
    send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL);
    timeval timeout = {5, 0};
    setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof timeout);
    std::string got;
    char buffer[65536];
    ssize_t n;
    while ((n = recv(fd, buffer, sizeof buffer, 0)) > 0)
        got.append(buffer, static_cast<std::size_t>(n));
    const bool closed = n == 0 || errno != EAGAIN;
    close(fd);
    return closed ? got : "still open";
}

} // namespace

TEST_F(ConnectionTest, UnknownTypesAndRoleAndARequestEndedAtOnce) {
    // STDERR, and the other types only a responder sends, are unknown coming from the peer.
    for (int type : {0, 3, 6, 7, 10, 11, 255})
        EXPECT_EQ(exchange(record(static_cast<uint8_t>(type), 9, "xyz", 5)),
                  record(UNKNOWN_TYPE, 0, static_cast<char>(type) + std::string(7, '\0')));
    EXPECT_EQ(exchange(begin(1, KEEP_CONN, 2) + paramsStream(1) + record(STDIN, 1, "body")),
              end(1, 0, UNKNOWN_ROLE));
    EXPECT_FALSE(connection.closing);
    // The request callback's result ends the request, and without KEEP_CONN the connection.
    respond = [](char, Request&) { return 5; };
    EXPECT_EQ(exchange(request(paramsStream(1), "body")), ending(1, 5));
    EXPECT_EQ(calls, "r");
    EXPECT_TRUE(connection.closing);
}

TEST_F(ConnectionTest, ParamsSplitOverRecordsThenAWrongVersion) {
    const Pairs pairs = {{"A", "first"}, {"B", std::string(300, 'b')}, {"A", "2"}};
    respond = [&pairs](char, Request& r) {
        return r.params == ParamMap(pairs.begin(), pairs.begin() + 2) ? 0 : 9;
    };
    // A four-byte length, a repeated name (the first wins), and a pair cut off at the end
    // (the earlier ones stay).
    const std::string content = encode(pairs) + "\x80\x01";
    exchange(begin(1, KEEP_CONN) + record(PARAMS, 1, content.substr(0, 3)) +
             record(PARAMS, 1, content.substr(3, 9)) + record(PARAMS, 1, content.substr(12)));
    EXPECT_EQ(calls, "");
    EXPECT_EQ(exchange(record(PARAMS, 1, "") + record(STDIN, 1, "")), ending(1, 0));
    // Once the stream has ended, further PARAMS are ignored.
    exchange(record(PARAMS, 1, encode({{"LATE", "1"}})) + record(PARAMS, 1, ""));
    // A wrong version closes the connection: nothing the peer sends afterwards is looked at.
    const std::string getValues = record(GET_VALUES, 0, "");
    EXPECT_EQ(exchange(getValues + record(GET_VALUES, 0, "", 0, 2) + getValues +
                       request(paramsStream(1), "body")),
              record(GET_VALUES_RESULT, 0, ""));
    EXPECT_TRUE(connection.closing);
    EXPECT_EQ(exchange(getValues), "");
    EXPECT_EQ(calls, "rc");
}

TEST_F(ConnectionTest, MultiplexedRequestsAndAbort) {
    respond = [](char stage, Request& r) {
        r.out = stage + std::to_string(r.in.size());
        r.in.clear();
        return stage == 'c' ? 1 : 0;
    };
    // The largest record and padding, ABORT_REQUEST; unknown ids, a short BEGIN_REQUEST ignored.
    const std::string in = begin(2, KEEP_CONN) + begin(1, KEEP_CONN) + begin(3, KEEP_CONN) +
                           record(PARAMS, 1, encode({{"REQUEST_URI", "/"}}), 3) + paramsStream(2) +
                           record(PARAMS, 1, "") + record(STDIN, 2, std::string(65535, 'z'), 255) +
                           record(ABORT_REQUEST, 3, "") + record(STDIN, 1, "", 7) +
                           record(STDIN, 2, "") + record(ABORT_REQUEST, 4, "") +
                           record(BEGIN_REQUEST, 5, "\1\1\1") + paramsStream(5);
    const std::string answer = padded(STDOUT, 2, "r0") + padded(STDOUT, 1, "r0") +
                               padded(STDOUT, 2, "d65535") + end(3, 1) + padded(STDOUT, 1, "c0") +
                               ending(1, 1) + padded(STDOUT, 2, "c0") + ending(2, 1);
    EXPECT_EQ(exchange(in), answer);
    EXPECT_TRUE(connection.requests.empty());
    EXPECT_FALSE(connection.closing);
}

// Writes its name and the body, or throws if its name is t; the test sets its results.
struct NamedHook : FcgiHook {
    NamedHook(char name, uint16_t port) : name(name) { registration.register_hook(this, port); }
    int handle_data(Request& request) override {
        if (name == 't')
            throw std::runtime_error("hook failed");
        request.out += name + request.in;
        return dataResult;
    }
    int handle_complete(Request& request) override {
        request.out += name;
        return completeResult;
    }

    const char name;
    int dataResult = 0;
    int completeResult = 0;
    FcgiHandler registration;
};

TEST(FrontEnd, HooksOfTheRequestsPortInRegistrationOrderAndARestart) {
    const uint16_t port = freePort();
    auto a = std::make_unique<NamedHook>('a', 8085);
    NamedHook b('b', 8086);
    NamedHook c('c', 8085);
    NamedHook thrower('t', 8089);
    a->completeResult = 3;
    c.completeResult = 4;
    const std::string body = "A\xFF";
    auto listening = [port] { return close(endpoint(port)) == 0; };
    // The registry only changes while the front end is stopped.
    auto ask = [&](const std::string& serverPort) {
        FcgiHandler::start(port);
        waitFor(listening);
        const std::string got = exchange(request(paramsStream(1, "/pgn", serverPort), body), port);
        // Serving goes on, after a hook that threw with a server started anew.
        EXPECT_TRUE(waitFor(listening));
        FcgiHandler::stop();
        return got;
    };
    EXPECT_EQ(ask("8089"), "");
    // The web server logs the body, every byte one higher, from STDERR.
    const std::string err = padded(STDERR, 1, std::string("B\0", 2));
    // Data results -1 and 0 go on, the complete results add up.
    a->dataResult = -1;
    EXPECT_EQ(ask("8085"), padded(STDOUT, 1, "a" + body + "c" + body) + err +
                               padded(STDOUT, 1, "ac") + ending(1, 7));
    // 0 and 2 end the request before its body is complete.
    a->dataResult = 0;
    c.dataResult = 2;
    EXPECT_EQ(ask("8085"), padded(STDOUT, 1, "a" + body + "c" + body) + err + ending(1, 1));
    for (const char* none : {"8087", "", "http"})
        EXPECT_EQ(ask(none), err + ending(1, 0)) << none;
    // A hook that goes takes only its own entry; registering again moves a hook to the end.
    a.reset();
    b.registration.register_hook(&b, 8085);
    c.dataResult = 0;
    EXPECT_EQ(ask("8085"), padded(STDOUT, 1, "c" + body + "b" + body) + err +
                               padded(STDOUT, 1, "cb") + ending(1, 4));
}
