// Record handling of one connection, byte for byte, without sockets.

#include "Connection.h"
#include "FcgiRecords.h"

#include <functional>

#include <gtest/gtest.h>

using namespace fcgitest;

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

class ConnectionTest : public ::testing::Test {
protected:
    ConnectionTest() {
        // By default every callback notes its call and lets the request go on.
        on(callbacks.request, "request", [](Request&) { return 0; });
        on(callbacks.data, "data", [](Request& r) {
            r.in.clear();
            return 0;
        });
        on(callbacks.complete, "complete", [](Request&) { return 0; });
        callbacks.limit = [](const Request&) { ++limitCalls; };
        limitCalls = 0;
    }

    void on(std::unique_ptr<HandlerBase>& slot, const std::string& name,
            std::function<int(Request&)> function) {
        slot = std::make_unique<Function>([this, name, function](Request& r) {
            calls.push_back(name);
            return function(r);
        });
    }

    // Feeds bytes, flushes as before a write and returns what would be sent.
    std::vector<Record> exchange(const std::string& in) {
        connection.receive(in.data(), in.size());
        return drain();
    }
    std::vector<Record> drain() {
        connection.flushAll();
        std::vector<Record> records = parse(connection.output);
        connection.output.clear();
        return records;
    }

    static int limitCalls;
    Callbacks callbacks;
    Limits limits;
    Connection connection{callbacks, limits};
    std::vector<std::string> calls;
};

int ConnectionTest::limitCalls = 0;

using Strings = std::vector<std::string>;

} // namespace

TEST(NameValuePairs, LengthForms) {
    std::string out;
    encodeParam(out, std::string(127, 'n'), std::string(128, 'v'));
    EXPECT_EQ(out.substr(0, 5), bytes({0x7F, 0x80, 0x00, 0x00, 0x80}));
    EXPECT_EQ(out.size(), 5u + 127 + 128);
    out.clear();
    encodeParam(out, "", std::string(70000, 'v'));
    EXPECT_EQ(out.substr(0, 5), bytes({0x00, 0x80, 0x01, 0x11, 0x70}));

    const Pairs pairs = {{"A", ""},
                         {"", "empty name"},
                         {std::string(200, 'k'), "x"},
                         {"LONG", std::string(100000, 'y')}};
    const ParamMap decoded = decodeParams(encode(pairs));
    ASSERT_EQ(decoded.size(), 4u);
    for (const auto& pair : pairs)
        EXPECT_EQ(decoded.at(pair.first), pair.second);
    // The four-byte form may also carry a short length.
    EXPECT_EQ(decodeParams(bytes({0x80, 0, 0, 1, 0x01}) + "ab").at("a"), "b");
    EXPECT_TRUE(decodeParams("").empty());
}

TEST(NameValuePairs, FirstOccurrenceWins) {
    const ParamMap decoded = decodeParams(encode({{"X", "1"}, {"Y", "2"}, {"X", "3"}}));
    EXPECT_EQ(decoded, (ParamMap{{"X", "1"}, {"Y", "2"}}));
}

TEST(NameValuePairs, TruncatedPairsKeepEarlierOnes) {
    const std::string good = encode({{"A", "1"}, {"B", "2"}});
    const ParamMap expected = {{"A", "1"}, {"B", "2"}};
    // A four-byte length cut after two bytes, for the name and for the value.
    EXPECT_EQ(decodeParams(good + bytes({0x80, 0x00})), expected);
    EXPECT_EQ(decodeParams(good + bytes({0x01, 0x80, 0x00, 0x01})), expected);
    // A name length and nothing after it.
    EXPECT_EQ(decodeParams(good + bytes({0x05})), expected);
    // Name cut, and value cut (the name goes with it).
    EXPECT_EQ(decodeParams(good + bytes({0x05, 0x01}) + "ab"), expected);
    EXPECT_EQ(decodeParams(good + bytes({0x01, 0x05}) + "Cxy"), expected);
}

TEST(NameValuePairs, HugeLengthsNeitherCrashNorWrap) {
    const std::string good = encode({{"A", "1"}});
    // Lengths of 2^31 - 1 on a short buffer (the shape of CVE-2025-23016).
    const std::string huge = bytes({0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF});
    EXPECT_EQ(decodeParams(good + huge + "abcdefgh"), (ParamMap{{"A", "1"}}));
    // A name that fits with a value length that would wrap a 32-bit sum.
    EXPECT_EQ(decodeParams(good + bytes({0x01, 0xFF, 0xFF, 0xFF, 0xFE}) + "Bvalue"),
              (ParamMap{{"A", "1"}}));
    EXPECT_EQ(decodeParams(bytes({0xFF, 0xFF, 0xFF, 0xF0, 0x01})), ParamMap());
}

TEST(Streams, RecordsArePaddedToEightBytes) {
    std::string out;
    writeStream(out, STDOUT, 3, std::string(10, 'a'));
    auto records = parse(out);
    ASSERT_EQ(records.size(), 1u);
    EXPECT_EQ(records[0].padding, 6);
    EXPECT_EQ(out.size(), 24u);

    out.clear();
    writeStream(out, STDERR, 0x0102, "");
    EXPECT_EQ(out, bytes({1, STDERR, 1, 2, 0, 0, 0, 0}));

    out.clear();
    const std::string text(100000, 't');
    writeStream(out, STDOUT, 1, text);
    records = parse(out);
    ASSERT_EQ(records.size(), 2u);
    EXPECT_EQ(records[0].content.size(), 65535u);
    EXPECT_EQ(records[0].padding, 1);
    EXPECT_EQ(records[1].content.size(), 34465u);
    EXPECT_EQ(records[1].padding, 7);
    EXPECT_EQ(stream(records, STDOUT, 1), text);

    // Exactly one full record needs no empty one behind it.
    out.clear();
    writeStream(out, STDOUT, 1, std::string(65535, 'x'));
    EXPECT_EQ(parse(out).size(), 1u);
}

TEST_F(ConnectionTest, GetValuesAnswer) {
    const std::string asked = encode(
        {{"FCGI_MPXS_CONNS", ""}, {"FCGI_MAX_REQS", ""}, {"FCGI_MAX_CONNS", ""}, {"OTHER", ""}});
    auto records = exchange(record(GET_VALUES, 7, asked));
    ASSERT_EQ(records.size(), 1u);
    EXPECT_EQ(records[0].type, GET_VALUES_RESULT);
    EXPECT_EQ(records[0].id, 0);
    EXPECT_EQ(records[0].padding, 0);
    const std::string expected =
        encode({{"FCGI_MAX_CONNS", "100"}, {"FCGI_MAX_REQS", "1000"}, {"FCGI_MPXS_CONNS", "1"}});
    EXPECT_EQ(records[0].content, expected);

    records = exchange(record(GET_VALUES, 0, ""));
    ASSERT_EQ(records.size(), 1u);
    EXPECT_EQ(records[0].content, "");
    EXPECT_FALSE(connection.closing);
}

TEST_F(ConnectionTest, UnknownTypesAreAnsweredAndDataIgnored) {
    for (int type : {7, 0, 3, 6, 10, 11, 12, 255}) {
        auto records = exchange(record(static_cast<uint8_t>(type), 9, "xyz", 5));
        ASSERT_EQ(records.size(), 1u) << type;
        EXPECT_EQ(records[0].type, UNKNOWN_TYPE);
        EXPECT_EQ(records[0].id, 0);
        EXPECT_EQ(records[0].content, static_cast<char>(type) + std::string(7, '\0'));
    }
    EXPECT_TRUE(exchange(record(DATA, 1, "data")).empty());
    EXPECT_TRUE(calls.empty());
}

TEST_F(ConnectionTest, UnknownRole) {
    auto records = exchange(begin(1, 2, KEEP_CONN) + paramsStream(1, webParams()) +
                            record(STDIN, 1, "body") + record(STDIN, 1, ""));
    ASSERT_EQ(records.size(), 1u);
    EXPECT_EQ(records[0].type, END_REQUEST);
    EXPECT_EQ(records[0].id, 1);
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
        r.in.clear();
        return 0;
    });
    on(callbacks.complete, "complete", [](Request&) { return 7; });

    auto records = exchange(begin(1) + paramsStream(1, webParams("/a")));
    EXPECT_EQ(calls, Strings{"request"});
    EXPECT_EQ(stream(records, STDOUT, 1), "uri=/a");
    EXPECT_EQ(findEnd(records, 1), nullptr);

    records = exchange(record(STDIN, 1, "one") + record(STDIN, 1, "two"));
    EXPECT_EQ(stream(records, STDOUT, 1), "[one][two]");
    EXPECT_EQ(stream(records, STDERR, 1), "ee");
    EXPECT_FALSE(connection.closing);

    records = exchange(record(STDIN, 1, ""));
    EXPECT_EQ(calls, (Strings{"request", "data", "data", "complete"}));
    ASSERT_EQ(records.size(), 3u);
    EXPECT_EQ(records[0].type, STDOUT);
    EXPECT_EQ(records[0].content, "");
    EXPECT_EQ(records[1].type, STDERR);
    EXPECT_EQ(records[1].content, "");
    EXPECT_EQ(records[2].type, END_REQUEST);
    EXPECT_EQ(records[2].appStatus(), 7u);
    EXPECT_EQ(records[2].protocolStatus(), REQUEST_COMPLETE);
    // Without KEEP_CONN the connection ends with its request.
    EXPECT_TRUE(connection.closing);
    EXPECT_TRUE(connection.requests.empty());
}

TEST_F(ConnectionTest, BodyBeforeParametersIsHandedOnWhenTheyEnd) {
    auto records = exchange(begin(1, RESPONDER, KEEP_CONN) + record(STDIN, 1, "early") +
                            record(STDIN, 1, "") + paramsStream(1, webParams()));
    EXPECT_EQ(calls, (Strings{"request", "data", "complete"}));
    ASSERT_NE(findEnd(records, 1), nullptr);
    EXPECT_FALSE(connection.closing);
    EXPECT_TRUE(connection.requests.empty());
}

TEST_F(ConnectionTest, LongOutputIsSplitIntoRecords) {
    on(callbacks.complete, "complete", [](Request& r) {
        r.out = std::string(100000, 'o');
        return 0;
    });
    auto records = exchange(request(1, webParams(), {}));
    ASSERT_EQ(records.size(), 5u);
    EXPECT_EQ(records[0].content.size(), 65535u);
    EXPECT_EQ(records[0].padding, 1);
    EXPECT_EQ(records[1].content.size(), 34465u);
    EXPECT_EQ(records[1].padding, 7);
    EXPECT_EQ(records[2].type, STDOUT);
    EXPECT_EQ(records[2].content, "");
    EXPECT_EQ(records[3].type, STDERR);
    EXPECT_EQ(records[4].type, END_REQUEST);

    on(callbacks.complete, "complete", [](Request& r) {
        r.out = "0123456789";
        return 0;
    });
    records = exchange(request(2, webParams(), {}));
    EXPECT_EQ(records[0].content, "0123456789");
    EXPECT_EQ(records[0].padding, 6);
}

TEST_F(ConnectionTest, NonZeroStatusEndsTheRequestAtOnce) {
    on(callbacks.request, "request", [](Request&) { return 5; });
    auto records = exchange(begin(1, RESPONDER, KEEP_CONN) + paramsStream(1, webParams()));
    const Record* end = findEnd(records, 1);
    ASSERT_NE(end, nullptr);
    EXPECT_EQ(end->appStatus(), 5u);
    ASSERT_EQ(records.size(), 3u);

    // The rest of the body has no reader: it is neither handed on nor held.
    const std::string piece(60000, 'b');
    for (int i = 0; i < 40; ++i)
        EXPECT_TRUE(exchange(record(STDIN, 1, piece)).empty());
    EXPECT_LT(connection.heldBytes(), requestOverhead + 1000);
    EXPECT_TRUE(exchange(record(STDIN, 1, "")).empty());
    EXPECT_EQ(calls, Strings{"request"});
    EXPECT_TRUE(connection.requests.empty());
    EXPECT_EQ(limitCalls, 0);
}

TEST_F(ConnectionTest, DataResultEndsTheRequestBeforeTheBodyIsComplete) {
    on(callbacks.data, "data", [](Request& r) { return r.in == "stop" ? -3 : 0; });
    auto records = exchange(begin(1) + paramsStream(1, webParams()) + record(STDIN, 1, "stop"));
    ASSERT_NE(findEnd(records, 1), nullptr);
    EXPECT_EQ(findEnd(records, 1)->appStatus(), static_cast<uint32_t>(-3));
    exchange(record(STDIN, 1, "more") + record(STDIN, 1, ""));
    EXPECT_EQ(calls, (Strings{"request", "data"}));
}

TEST_F(ConnectionTest, ParamsSplitOverRecords) {
    ParamMap seen;
    on(callbacks.request, "request", [&seen](Request& r) {
        seen = r.params;
        return 0;
    });
    const std::string content =
        encode({{"REQUEST_URI", "/first"}, {"SERVER_PORT", "8085"}, {"REQUEST_URI", "/second"}});
    exchange(begin(1) + record(PARAMS, 1, content.substr(0, 5)) +
             record(PARAMS, 1, content.substr(5, 17)));
    exchange(record(PARAMS, 1, content.substr(22)));
    EXPECT_TRUE(calls.empty());
    exchange(record(PARAMS, 1, ""));
    EXPECT_EQ(seen, (ParamMap{{"REQUEST_URI", "/first"}, {"SERVER_PORT", "8085"}}));
    // After the end of the stream further PARAMS are ignored.
    exchange(record(PARAMS, 1, encode({{"LATE", "1"}})) + record(PARAMS, 1, ""));
    EXPECT_EQ(calls, Strings{"request"});
}

TEST_F(ConnectionTest, TruncatedParamsKeepEarlierPairs) {
    ParamMap seen;
    on(callbacks.request, "request", [&seen](Request& r) {
        seen = r.params;
        return 0;
    });
    exchange(begin(1) + record(PARAMS, 1, encode({{"A", "1"}}) + bytes({0x80, 0x00, 0x01})) +
             record(PARAMS, 1, ""));
    EXPECT_EQ(seen, (ParamMap{{"A", "1"}}));
}

TEST_F(ConnectionTest, WrongVersionClosesTheConnection) {
    const std::string getValues = record(GET_VALUES, 0, encode({{"FCGI_MAX_CONNS", ""}}));
    auto records =
        exchange(getValues + record(GET_VALUES, 0, "", 0, 2) + getValues + request(1, {}, {}));
    ASSERT_EQ(records.size(), 1u);
    EXPECT_EQ(records[0].type, GET_VALUES_RESULT);
    EXPECT_TRUE(connection.closing);
    EXPECT_TRUE(connection.input.empty());
    // Nothing the peer sends afterwards is looked at, nor kept.
    EXPECT_TRUE(exchange(getValues).empty());
    EXPECT_TRUE(connection.input.empty());
    EXPECT_TRUE(calls.empty());
}

TEST_F(ConnectionTest, RecordsSplitAnywhereGiveTheSameAnswer) {
    on(callbacks.data, "data", [](Request& r) {
        r.out += r.in;
        r.in.clear();
        return 0;
    });
    const std::string conversation =
        begin(2, RESPONDER, KEEP_CONN) + begin(1, RESPONDER, KEEP_CONN) +
        record(PARAMS, 1, encode(webParams()), 3) + record(GET_VALUES, 0, encode({{"X", ""}})) +
        paramsStream(2, webParams("/two")) + record(PARAMS, 1, "") + record(STDIN, 1, "one", 7) +
        record(STDIN, 2, std::string(70, 'z'), 255) + record(STDERR, 0, "") + record(STDIN, 1, "") +
        record(ABORT_REQUEST, 2, "") + record(STDIN, 2, "");

    const std::string whole = [&] {
        Connection other(callbacks, limits);
        other.receive(conversation.data(), conversation.size());
        other.flushAll();
        return other.output;
    }();
    ASSERT_FALSE(whole.empty());

    for (std::size_t i = 0; i < conversation.size(); ++i)
        connection.receive(&conversation[i], 1);
    connection.flushAll();
    EXPECT_EQ(connection.output, whole);
    EXPECT_TRUE(connection.input.empty());
}

TEST_F(ConnectionTest, PartialRecordWaitsForTheRest) {
    const std::string full = record(STDIN, 1, "hello");
    exchange(begin(1, RESPONDER, KEEP_CONN) + paramsStream(1, webParams()));
    calls.clear();
    EXPECT_TRUE(exchange(full.substr(0, 8)).empty());
    EXPECT_TRUE(calls.empty());
    EXPECT_EQ(connection.input.size(), 8u);
    exchange(full.substr(8));
    EXPECT_EQ(calls, Strings{"data"});
    EXPECT_TRUE(connection.input.empty());
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
    ASSERT_NE(findEnd(records, 1), nullptr);
    ASSERT_NE(findEnd(records, 2), nullptr);
    EXPECT_EQ(findEnd(records, 1)->appStatus(), 1u);
    EXPECT_EQ(findEnd(records, 2)->appStatus(), 2u);
    EXPECT_TRUE(connection.requests.empty());

    // What requests hold when the connection becomes writable goes out in id order.
    exchange(begin(9, RESPONDER, KEEP_CONN) + begin(4, RESPONDER, KEEP_CONN));
    connection.requests.at(9)->out = "nine";
    connection.requests.at(4)->out = "four";
    records = drain();
    ASSERT_EQ(records.size(), 2u);
    EXPECT_EQ(records[0].id, 4);
    EXPECT_EQ(records[1].id, 9);
    EXPECT_EQ(connection.requests.size(), 2u);
}

TEST_F(ConnectionTest, AbortRequest) {
    exchange(begin(3, RESPONDER, KEEP_CONN) + paramsStream(3, webParams()));
    connection.requests.at(3)->out = "never sent";
    auto records = exchange(record(ABORT_REQUEST, 3, ""));
    ASSERT_EQ(records.size(), 1u);
    EXPECT_EQ(records[0].type, END_REQUEST);
    EXPECT_EQ(records[0].id, 3);
    EXPECT_EQ(records[0].appStatus(), 1u);
    EXPECT_EQ(records[0].protocolStatus(), REQUEST_COMPLETE);
    EXPECT_TRUE(connection.requests.empty());
    EXPECT_FALSE(connection.closing);

    EXPECT_TRUE(exchange(record(ABORT_REQUEST, 4, "")).empty());
    exchange(begin(5) + record(ABORT_REQUEST, 5, ""));
    EXPECT_TRUE(connection.closing);
}

TEST_F(ConnectionTest, KeepConnServesSeveralRequestsUntilOneLacksIt) {
    for (uint16_t id = 1; id <= 3; ++id) {
        auto records = exchange(request(id, webParams(), {"x"}, KEEP_CONN));
        ASSERT_NE(findEnd(records, id), nullptr);
        EXPECT_FALSE(connection.closing);
    }
    exchange(begin(4) + paramsStream(4, webParams()));
    EXPECT_TRUE(connection.closeAfterEnd);
    EXPECT_FALSE(connection.closing);
    exchange(record(STDIN, 4, ""));
    EXPECT_TRUE(connection.closing);
}

TEST_F(ConnectionTest, IgnoredRecords) {
    // A BEGIN_REQUEST body shorter than 8 bytes creates nothing.
    exchange(record(BEGIN_REQUEST, 1, bytes({0, 1, 0, 0, 0})) + paramsStream(1, webParams()));
    EXPECT_TRUE(connection.requests.empty());
    EXPECT_FALSE(connection.closeAfterEnd);
    // Streams of unknown ids.
    EXPECT_TRUE(exchange(paramsStream(8, webParams()) + record(STDIN, 8, "b")).empty());
    EXPECT_TRUE(calls.empty());
}

TEST_F(ConnectionTest, RepeatedBeginStartsAfresh) {
    exchange(begin(1, RESPONDER, KEEP_CONN) + record(PARAMS, 1, encode({{"OLD", "1"}})) +
             record(STDIN, 1, "old body"));
    ParamMap seen;
    on(callbacks.data, "data", [&seen](Request& r) {
        seen["in"] = r.in;
        r.in.clear();
        return 0;
    });
    auto records = exchange(begin(1, RESPONDER, KEEP_CONN) + paramsStream(1, webParams()) +
                            record(STDIN, 1, "new"));
    EXPECT_TRUE(records.empty());
    EXPECT_EQ(seen["in"], "new");
    EXPECT_EQ(connection.requests.size(), 1u);
}

TEST_F(ConnectionTest, LargestRecordWithPadding) {
    std::size_t got = 0;
    on(callbacks.data, "data", [&got](Request& r) {
        got += r.in.size();
        r.in.clear();
        return 0;
    });
    exchange(begin(1, RESPONDER, KEEP_CONN) + paramsStream(1, webParams()));
    const std::string big = record(STDIN, 1, std::string(65535, 'p'), 255);
    std::string twice = big + big + record(STDIN, 1, "");
    for (std::size_t pos = 0; pos < twice.size(); pos += 4096) {
        exchange(twice.substr(pos, 4096));
        // Never more than one record and one read are kept unconsumed.
        EXPECT_LT(connection.input.size(), big.size() + 4096);
    }
    EXPECT_EQ(got, 2u * 65535);
    EXPECT_TRUE(connection.input.empty());
}

TEST_F(ConnectionTest, HeaderWithoutContentHoldsOnlyItself) {
    auto header = record(STDIN, 1, std::string(65535, 'q')).substr(0, 8);
    EXPECT_TRUE(exchange(header).empty());
    EXPECT_EQ(connection.input, header);
    EXPECT_EQ(connection.heldBytes(), 0u);
}

TEST_F(ConnectionTest, ParametersBeyondTheBoundEndTheRequest) {
    limits.maxHeldBytes = 64 * 1024;
    std::string out = begin(1, RESPONDER, KEEP_CONN);
    // Claims of 2^31 - 1 bytes cost nothing until the bytes arrive.
    out += record(PARAMS, 1, bytes({0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF}));
    for (int i = 0; i < 4; ++i)
        out += record(PARAMS, 1, std::string(20000, 'v'));
    auto records = exchange(out + record(GET_VALUES, 0, ""));
    EXPECT_EQ(limitCalls, 1);
    ASSERT_EQ(records.size(), 3u);
    EXPECT_EQ(records[0].type, STDOUT);
    EXPECT_EQ(records[1].type, STDERR);
    EXPECT_EQ(records[2].type, END_REQUEST);
    EXPECT_EQ(records[2].appStatus(), 1u);
    EXPECT_EQ(records[2].protocolStatus(), OVERLOADED);
    EXPECT_TRUE(connection.closing);
    EXPECT_TRUE(connection.requests.empty());
    EXPECT_TRUE(connection.input.empty());
    EXPECT_TRUE(exchange(record(GET_VALUES, 0, "")).empty());
    EXPECT_TRUE(calls.empty());
}

TEST_F(ConnectionTest, HugeParameterLengthsReachTheApplicationAsNothing) {
    ParamMap seen = {{"unset", ""}};
    on(callbacks.request, "request", [&seen](Request& r) {
        seen = r.params;
        return 0;
    });
    exchange(begin(1) +
             record(PARAMS, 1, bytes({0xFF, 0xFF, 0xFF, 0xFF, 0x7F, 0xFF, 0xFF, 0xFF, 0x41})) +
             record(PARAMS, 1, ""));
    EXPECT_TRUE(seen.empty());
    EXPECT_EQ(limitCalls, 0);
}

TEST_F(ConnectionTest, ManyRequestsOnOneConnectionAreBounded) {
    limits.maxHeldBytes = 50 * requestOverhead;
    std::string out;
    for (uint16_t id = 1; id <= 60; ++id)
        out += begin(id, RESPONDER, KEEP_CONN);
    auto records = exchange(out);
    const Record* end = findEnd(records, 51);
    ASSERT_NE(end, nullptr);
    EXPECT_EQ(end->protocolStatus(), OVERLOADED);
    EXPECT_EQ(limitCalls, 1);
    EXPECT_EQ(connection.requests.size(), 50u);
    EXPECT_LE(connection.heldBytes(), limits.maxHeldBytes);
    EXPECT_TRUE(connection.closing);
}

TEST_F(ConnectionTest, BodyKeptByTheApplicationIsBounded) {
    limits.maxHeldBytes = 256 * 1024;
    // An application that never takes the body out of "in".
    on(callbacks.data, "data", [](Request&) { return 0; });
    exchange(begin(1, RESPONDER, KEEP_CONN) + paramsStream(1, webParams()));
    for (int i = 0; i < 10 && !connection.closing; ++i)
        exchange(record(STDIN, 1, std::string(60000, 'k')));
    EXPECT_TRUE(connection.closing);
    EXPECT_EQ(limitCalls, 1);
    EXPECT_TRUE(connection.requests.empty());

    // The same holds for a body that arrives before the parameters end.
    Connection early(callbacks, limits);
    std::string bytesIn = begin(1, RESPONDER, KEEP_CONN);
    for (int i = 0; i < 10; ++i)
        bytesIn += record(STDIN, 1, std::string(60000, 'k'));
    early.receive(bytesIn.data(), bytesIn.size());
    EXPECT_TRUE(early.closing);
    EXPECT_EQ(limitCalls, 2);
}
