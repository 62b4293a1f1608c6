// Record handling of one connection, byte for byte, without sockets.

#include "Connection.h"
#include "FcgiRecords.h"

#include <functional>

#include <gtest/gtest.h>

using namespace fcgitest;
using Strings = std::vector<std::string>;

namespace {

class Function : public HandlerBase {
public:
    explicit Function(std::function<int(Request&)> function) : function(std::move(function)) {}
    int operator()(Request& request) override { return function(request); }

private:
    std::function<int(Request&)> function;
};

std::string bytes(std::initializer_list<int> values) {
    std::string out;
    for (int v : values)
        out += static_cast<char>(v);
    return out;
}

int limitCalls = 0;
int totalLimitCalls = 0;

class ConnectionTest : public ::testing::Test {
protected:
    ConnectionTest() {
        // Unless a test says otherwise, callbacks take the body and let the request go on.
        on(callbacks.request, "request", [](Request&) { return 0; });
        on(callbacks.data, "data", [](Request&) { return 0; });
        on(callbacks.complete, "complete", [](Request&) { return 0; });
        callbacks.limit = [](const Request&, bool allConnections) {
            ++limitCalls;
            totalLimitCalls += allConnections;
        };
        limitCalls = 0;
        totalLimitCalls = 0;
    }

    void on(std::unique_ptr<HandlerBase>& slot, const std::string& name,
            std::function<int(Request&)> function) {
        slot = std::make_unique<Function>([this, name, function](Request& r) {
            calls.push_back(name);
            const int result = function(r);
            if (name == "data" && !keepBody)
                r.in.clear();
            return result;
        });
    }

    // Feeds bytes, flushes as before a write and returns what would be sent.
    std::vector<Record> exchange(const std::string& in) {
        connection.receive(in.data(), in.size());
        connection.flushAll();
        std::vector<Record> records = parse(connection.output);
        connection.output.clear();
        return records;
    }

    bool keepBody = false;
    Callbacks callbacks;
    Limits limits;
    Connection connection{callbacks, limits};
    Strings calls;
};

} // namespace

TEST(NameValuePairs, EncodeAndDecode) {
    std::string out;
    encodeParam(out, std::string(127, 'n'), std::string(128, 'v'));
    EXPECT_EQ(out.substr(0, 5), bytes({0x7F, 0x80, 0x00, 0x00, 0x80}));
    const Pairs pairs = {{"A", ""}, {"", "x"}, {"LONG", std::string(70000, 'y')}, {"A", "2"}};
    // The first occurrence of a name wins.
    EXPECT_EQ(decodeParams(encode(pairs)),
              (ParamMap{{"A", ""}, {"", "x"}, {"LONG", std::string(70000, 'y')}}));

    // A truncated pair at the end leaves the earlier ones.
    const std::string good = encode({{"A", "1"}});
    const ParamMap expected = {{"A", "1"}};
    for (const std::string& tail :
         {bytes({0x80, 0x00}), bytes({0x01, 0x80, 0x00, 0x01}), bytes({0x05}),
          bytes({0x05, 0x01}) + "ab", bytes({0x01, 0x05}) + "Cxy",
          // Lengths of 2^31 - 1 (the shape of CVE-2025-23016) and sums that wrap 32 bits.
          bytes({0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF}) + "abcdefgh",
          bytes({0x01, 0xFF, 0xFF, 0xFF, 0xFE}) + "Bvalue"})
        EXPECT_EQ(decodeParams(good + tail), expected);
}

TEST_F(ConnectionTest, ManagementRecords) {
    const std::string asked = encode(
        {{"FCGI_MPXS_CONNS", ""}, {"FCGI_MAX_REQS", ""}, {"FCGI_MAX_CONNS", ""}, {"OTHER", ""}});
    auto records = exchange(record(GET_VALUES, 7, asked));
    ASSERT_EQ(records.size(), 1u);
    EXPECT_EQ(records[0].type, GET_VALUES_RESULT);
    EXPECT_EQ(records[0].id, 0);
    EXPECT_EQ(records[0].padding, 0);
    EXPECT_EQ(
        records[0].content,
        encode({{"FCGI_MAX_CONNS", "100"}, {"FCGI_MAX_REQS", "1000"}, {"FCGI_MPXS_CONNS", "1"}}));

    for (int type : {7, 0, 3, 6, 10, 11, 12, 255}) {
        records = exchange(record(static_cast<uint8_t>(type), 9, "xyz", 5));
        ASSERT_EQ(records.size(), 1u);
        EXPECT_EQ(records[0].type, UNKNOWN_TYPE);
        EXPECT_EQ(records[0].id, 0);
        EXPECT_EQ(records[0].content, static_cast<char>(type) + std::string(7, '\0'));
    }
    EXPECT_TRUE(exchange(record(DATA, 1, "data")).empty());
    EXPECT_FALSE(connection.closing);
}

TEST_F(ConnectionTest, UnknownRole) {
    auto records = exchange(begin(1, 2, KEEP_CONN) + paramsStream(1, webParams()) +
                            record(STDIN, 1, "body") + record(STDIN, 1, ""));
    ASSERT_EQ(records.size(), 1u);
    EXPECT_EQ(records[0].type, END_REQUEST);
    EXPECT_EQ(records[0].appStatus(), 0u);
    EXPECT_EQ(records[0].protocolStatus(), UNKNOWN_ROLE);
    EXPECT_TRUE(connection.requests.empty());
    EXPECT_TRUE(calls.empty());
    EXPECT_FALSE(connection.closing);
    exchange(begin(2, 3));
    EXPECT_TRUE(connection.closing);
}

TEST_F(ConnectionTest, RequestLifecycle) {
    on(callbacks.request, "request", [](Request& r) {
        r.out += "uri=" + r.params.at("REQUEST_URI");
        return 0;
    });
    on(callbacks.data, "data", [](Request& r) {
        r.out += "[" + r.in + "]";
        r.err += "e";
        return 0;
    });
    on(callbacks.complete, "complete", [](Request& r) {
        r.out = std::string(100000, 'o');
        return 7;
    });
    auto records = exchange(begin(1) + paramsStream(1, webParams("/a")) + record(STDIN, 1, "one"));
    EXPECT_EQ(stream(records, STDOUT, 1), "uri=/a[one]");
    EXPECT_EQ(stream(records, STDERR, 1), "e");
    EXPECT_EQ(findEnd(records, 1), nullptr);

    records = exchange(record(STDIN, 1, ""));
    EXPECT_EQ(calls, (Strings{"request", "data", "complete"}));
    ASSERT_EQ(records.size(), 5u);
    EXPECT_EQ(records[0].content.size(), 65535u);
    EXPECT_EQ(records[0].padding, 1);
    EXPECT_EQ(records[1].content.size(), 34465u);
    EXPECT_EQ(records[1].padding, 7);
    EXPECT_EQ(records[2].type, STDOUT);
    EXPECT_EQ(records[2].content, "");
    EXPECT_EQ(records[3].type, STDERR);
    EXPECT_EQ(records[3].content, "");
    EXPECT_EQ(records[4].type, END_REQUEST);
    EXPECT_EQ(records[4].appStatus(), 7u);
    EXPECT_EQ(records[4].protocolStatus(), REQUEST_COMPLETE);
    // Without KEEP_CONN the connection ends with its request.
    EXPECT_TRUE(connection.closing);
    EXPECT_TRUE(connection.requests.empty());
}

TEST_F(ConnectionTest, KeepConnAndBodyBeforeParameters) {
    for (uint16_t id = 1; id <= 2; ++id) {
        auto records = exchange(begin(id, RESPONDER, KEEP_CONN) + record(STDIN, id, "early") +
                                record(STDIN, id, "") + paramsStream(id, webParams()));
        ASSERT_NE(findEnd(records, id), nullptr);
        EXPECT_FALSE(connection.closing);
    }
    EXPECT_EQ(calls, (Strings{"request", "data", "complete", "request", "data", "complete"}));
    // One BEGIN_REQUEST without it is enough to close after the next end.
    exchange(begin(3) + paramsStream(3, webParams()));
    EXPECT_TRUE(connection.closeAfterEnd);
    EXPECT_FALSE(connection.closing);
    exchange(record(STDIN, 3, ""));
    EXPECT_TRUE(connection.closing);
}

TEST_F(ConnectionTest, NonZeroStatusEndsTheRequestAtOnce) {
    on(callbacks.request, "request", [](Request&) { return 5; });
    auto records = exchange(begin(1, RESPONDER, KEEP_CONN) + paramsStream(1, webParams()));
    ASSERT_EQ(records.size(), 3u);
    ASSERT_NE(findEnd(records, 1), nullptr);
    EXPECT_EQ(findEnd(records, 1)->appStatus(), 5u);
    // The rest of the body has no reader: it is neither handed on nor held.
    for (int i = 0; i < 40; ++i)
        EXPECT_TRUE(exchange(record(STDIN, 1, std::string(60000, 'b'))).empty());
    EXPECT_LT(connection.heldBytes(), requestOverhead + 1000);
    EXPECT_TRUE(exchange(record(STDIN, 1, "")).empty());
    EXPECT_EQ(calls, Strings{"request"});
    EXPECT_TRUE(connection.requests.empty());
}

TEST_F(ConnectionTest, ParamsSplitOverRecords) {
    ParamMap seen;
    on(callbacks.request, "request", [&seen](Request& r) {
        seen = r.params;
        return 0;
    });
    // A repeated name, and a four-byte length cut off at the end.
    const std::string content =
        encode({{"REQUEST_URI", "/first"}, {"SERVER_PORT", "8085"}, {"REQUEST_URI", "/2"}}) +
        bytes({0x80, 0x00, 0x01});
    exchange(begin(1) + record(PARAMS, 1, content.substr(0, 5)) +
             record(PARAMS, 1, content.substr(5, 17)) + record(PARAMS, 1, content.substr(22)));
    EXPECT_TRUE(calls.empty());
    exchange(record(PARAMS, 1, ""));
    EXPECT_EQ(seen, (ParamMap{{"REQUEST_URI", "/first"}, {"SERVER_PORT", "8085"}}));
    // Once the stream has ended, further PARAMS are ignored.
    exchange(paramsStream(1, {{"LATE", "1"}}));
    EXPECT_EQ(calls, Strings{"request"});
}

TEST_F(ConnectionTest, WrongVersionClosesTheConnection) {
    const std::string getValues = record(GET_VALUES, 0, encode({{"FCGI_MAX_CONNS", ""}}));
    auto records =
        exchange(getValues + record(GET_VALUES, 0, "", 0, 2) + getValues + request(1, {}, {}));
    ASSERT_EQ(records.size(), 1u);
    EXPECT_TRUE(connection.closing);
    // Nothing the peer sends afterwards is looked at, nor kept.
    EXPECT_TRUE(exchange(getValues).empty());
    EXPECT_TRUE(connection.input.empty());
    EXPECT_TRUE(calls.empty());
}

TEST_F(ConnectionTest, RecordsSplitAnywhereGiveTheSameAnswer) {
    on(callbacks.data, "data", [](Request& r) {
        r.out += r.in;
        return 0;
    });
    const std::string conversation =
        begin(2, RESPONDER, KEEP_CONN) + begin(1, RESPONDER, KEEP_CONN) +
        record(PARAMS, 1, encode(webParams()), 3) + record(GET_VALUES, 0, encode({{"X", ""}})) +
        paramsStream(2, webParams("/two")) + record(PARAMS, 1, "") + record(STDIN, 1, "one", 7) +
        record(STDIN, 2, std::string(70, 'z'), 255) + record(STDERR, 0, "") + record(STDIN, 1, "") +
        record(ABORT_REQUEST, 2, "") + record(STDIN, 2, "");
    Connection whole(callbacks, limits);
    whole.receive(conversation.data(), conversation.size());
    whole.flushAll();
    ASSERT_EQ(parse(whole.output).size(), 8u);

    for (std::size_t i = 0; i < conversation.size(); ++i) {
        connection.receive(&conversation[i], 1);
        // A header alone, or part of a record, is kept and not acted on.
        EXPECT_LT(connection.input.size(), 8u + 70 + 255);
    }
    connection.flushAll();
    EXPECT_EQ(connection.output, whole.output);
}

TEST_F(ConnectionTest, MultiplexedRequestsKeepTheirIds) {
    on(callbacks.complete, "complete", [](Request& r) {
        r.out = "answer " + r.params.at("REQUEST_URI");
        return r.params.at("REQUEST_URI") == "/two" ? 2 : 1;
    });
    auto records =
        exchange(begin(2, RESPONDER, KEEP_CONN) + begin(1, RESPONDER, KEEP_CONN) +
                 paramsStream(2, webParams("/two")) + paramsStream(1, webParams("/one")) +
                 record(STDIN, 1, "") + record(STDIN, 2, ""));
    EXPECT_EQ(stream(records, STDOUT, 1), "answer /one");
    EXPECT_EQ(stream(records, STDOUT, 2), "answer /two");
    EXPECT_EQ(findEnd(records, 1)->appStatus(), 1u);
    EXPECT_EQ(findEnd(records, 2)->appStatus(), 2u);
    EXPECT_TRUE(connection.requests.empty());

    // What requests hold when the connection becomes writable goes out in id order.
    exchange(begin(9, RESPONDER, KEEP_CONN) + begin(4, RESPONDER, KEEP_CONN));
    connection.requests.at(9)->out = "nine";
    connection.requests.at(4)->out = "four";
    records = exchange("");
    ASSERT_EQ(records.size(), 2u);
    EXPECT_EQ(records[0].id, 4);
    EXPECT_EQ(records[1].id, 9);
}

TEST_F(ConnectionTest, AbortAndIgnoredRecords) {
    exchange(begin(3, RESPONDER, KEEP_CONN) + paramsStream(3, webParams()));
    connection.requests.at(3)->out = "never sent";
    auto records = exchange(record(ABORT_REQUEST, 3, ""));
    ASSERT_EQ(records.size(), 1u);
    EXPECT_EQ(records[0].type, END_REQUEST);
    EXPECT_EQ(records[0].id, 3);
    EXPECT_EQ(records[0].appStatus(), 1u);
    EXPECT_EQ(records[0].protocolStatus(), REQUEST_COMPLETE);
    EXPECT_TRUE(connection.requests.empty());

    // Unknown ids, and a BEGIN_REQUEST body shorter than 8 bytes.
    EXPECT_TRUE(exchange(record(ABORT_REQUEST, 4, "") + paramsStream(4, webParams()) +
                         record(BEGIN_REQUEST, 5, bytes({0, 1, 0, 0, 0})) +
                         paramsStream(5, webParams()) + record(STDIN, 5, "b"))
                    .empty());
    EXPECT_TRUE(connection.requests.empty());
    EXPECT_FALSE(connection.closeAfterEnd);
    EXPECT_EQ(calls, Strings{"request"});
}

TEST_F(ConnectionTest, LargestRecordsPassWhole) {
    std::size_t got = 0;
    on(callbacks.data, "data", [&got](Request& r) {
        got += r.in.size();
        return 0;
    });
    exchange(begin(1, RESPONDER, KEEP_CONN) + paramsStream(1, webParams()));
    const std::string big = record(STDIN, 1, std::string(65535, 'p'), 255);
    const std::string stream = big + big + record(STDIN, 1, "");
    for (std::size_t pos = 0; pos < stream.size(); pos += 4096) {
        exchange(stream.substr(pos, 4096));
        // Never more than one record and one read are kept unconsumed.
        EXPECT_LT(connection.input.size(), big.size() + 4096);
    }
    EXPECT_EQ(got, 2u * 65535);
    EXPECT_TRUE(connection.input.empty());
}

TEST_F(ConnectionTest, ParametersBeyondTheBoundEndTheRequest) {
    limits.maxHeldBytes = 64 * 1024;
    std::string in = begin(1, RESPONDER, KEEP_CONN) +
                     record(PARAMS, 1, bytes({0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF}));
    for (int i = 0; i < 4; ++i)
        in += record(PARAMS, 1, std::string(20000, 'v'));
    auto records = exchange(in + record(GET_VALUES, 0, ""));
    EXPECT_EQ(limitCalls, 1);
    ASSERT_EQ(records.size(), 3u);
    EXPECT_EQ(records[0].type, STDOUT);
    EXPECT_EQ(records[1].type, STDERR);
    EXPECT_EQ(records[2].appStatus(), 1u);
    EXPECT_EQ(records[2].protocolStatus(), OVERLOADED);
    EXPECT_TRUE(connection.closing);
    EXPECT_TRUE(connection.requests.empty());
    EXPECT_TRUE(exchange(record(GET_VALUES, 0, "")).empty());
    EXPECT_TRUE(calls.empty());
}

TEST_F(ConnectionTest, RequestsAndBodiesAreBounded) {
    limits.maxHeldBytes = 50 * requestOverhead;
    std::string in;
    for (uint16_t id = 1; id <= 60; ++id)
        in += begin(id, RESPONDER, KEEP_CONN);
    auto records = exchange(in);
    ASSERT_NE(findEnd(records, 51), nullptr);
    EXPECT_EQ(findEnd(records, 51)->protocolStatus(), OVERLOADED);
    EXPECT_EQ(connection.requests.size(), 50u);

    // An application that never takes the body out of "in".
    keepBody = true;
    limits.maxHeldBytes = 256 * 1024;
    Connection other(callbacks, limits);
    in = begin(1, RESPONDER, KEEP_CONN) + paramsStream(1, webParams());
    for (int i = 0; i < 5; ++i)
        in += record(STDIN, 1, std::string(60000, 'k'));
    other.receive(in.data(), in.size());
    EXPECT_TRUE(other.closing);
    EXPECT_LE(other.heldBytes(), limits.maxHeldBytes);
    EXPECT_EQ(limitCalls, 2);

    // What the other connections hold counts against the bound of all together.
    Connection crowded(callbacks, limits);
    crowded.othersHeld = limits.maxTotalHeldBytes - 2 * requestOverhead;
    in = begin(1, RESPONDER, KEEP_CONN) + begin(2, RESPONDER, KEEP_CONN) +
         begin(3, RESPONDER, KEEP_CONN);
    crowded.receive(in.data(), in.size());
    EXPECT_EQ(crowded.requests.size(), 2u);
    EXPECT_TRUE(crowded.closing);
    EXPECT_EQ(totalLimitCalls, 1);
}
