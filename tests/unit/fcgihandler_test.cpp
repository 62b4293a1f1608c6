// The FastCGI front end on a loopback TCP port: hook selection, results, thread life.

#include "FcgiHandler.h"
#include "FcgiRecords.h"
#include "TestSupport.h"

#include <mutex>
#include <stdexcept>

#include <gtest/gtest.h>

using namespace fcgitest;

namespace {

class Journal {
public:
    void add(const std::string& entry) {
        std::lock_guard<std::mutex> lock(mutex);
        entries.push_back(entry);
    }
    std::vector<std::string> take() {
        std::lock_guard<std::mutex> lock(mutex);
        return std::move(entries);
    }

private:
    std::mutex mutex;
    std::vector<std::string> entries;
};

class TestHook : public FcgiHook {
public:
    TestHook(const std::string& name, uint16_t port, Journal& journal, int dataResult = 0,
             int completeResult = 0)
        : name(name), journal(journal), dataResult(dataResult), completeResult(completeResult) {
        registration.register_hook(this, port);
    }
    int handle_data(Request& request) override {
        journal.add(name + " data " + request.in);
        if (request.in == "throw")
            throw std::runtime_error("hook failed");
        if (request.in == "huge")
            request.out += std::string(16 << 20, 'h');
        request.out += name + "<" + request.in + ">";
        return dataResult;
    }
    int handle_complete(Request&) override {
        journal.add(name + " complete");
        return completeResult;
    }

    std::string name;
    Journal& journal;
    int dataResult;
    int completeResult;
    FcgiHandler registration;
};

std::vector<std::string> strings(std::initializer_list<const char*> list) {
    return std::vector<std::string>(list.begin(), list.end());
}

class FcgiHandlerTest : public ::testing::Test {
protected:
    void SetUp() override { port = freePort(); }
    void TearDown() override { FcgiHandler::stop(); }

    void start() {
        FcgiHandler::start(port);
        ASSERT_TRUE(waitForListener()) << "front end not listening on " << port;
    }
    bool waitForListener() {
        for (int i = 0; i < 100; ++i) {
            const int fd = connectLoopback(port);
            if (fd >= 0) {
                close(fd);
                return true;
            }
            usleep(50 * 1000);
        }
        return false;
    }

    // One request on a fresh connection; returns everything up to the server's close.
    std::vector<Record> exchange(const std::string& bytes, bool* closed = nullptr) {
        const int fd = connectLoopback(port);
        EXPECT_GE(fd, 0);
        // A peer that is cut off while it sends still reads what came before.
        sendAll(fd, bytes);
        bool eof = false;
        auto records = parse(receiveUntilClosed(fd, 5000, &eof));
        close(fd);
        if (closed != nullptr)
            *closed = eof;
        return records;
    }

    uint16_t port = 0;
    Journal journal;
};

} // namespace

TEST_F(FcgiHandlerTest, HooksOfThePortAreCalledInOrderAndResultsAdded) {
    TestHook a("A", 8085, journal, 0, 2);
    TestHook other("O", 8086, journal, 0, 100);
    TestHook b("B", 8085, journal, 0, 3);
    start();
    auto records = exchange(request(1, webParams("/x", "8085"), {"ab"}));
    EXPECT_EQ(journal.take(), strings({"A data ab", "B data ab", "A complete", "B complete"}));
    EXPECT_EQ(stream(records, STDOUT, 1), "A<ab>B<ab>");
    const Record* end = findEnd(records, 1);
    ASSERT_NE(end, nullptr);
    EXPECT_EQ(end->appStatus(), 5u);
}

TEST_F(FcgiHandlerTest, EachStdinRecordIsHandedOnOnceWithAShiftedCopyInStderr) {
    TestHook a("A", 8085, journal);
    start();
    auto records = exchange(request(1, webParams(), {"AZ", std::string("\xFF\x00x", 3)}));
    const std::string binary("\xFF\x00x", 3);
    EXPECT_EQ(journal.take(),
              (std::vector<std::string>{"A data AZ", "A data " + binary, "A complete"}));
    EXPECT_EQ(stream(records, STDERR, 1), std::string("B[\x00\x01y", 5));
    ASSERT_NE(findEnd(records, 1), nullptr);
    EXPECT_EQ(findEnd(records, 1)->appStatus(), 0u);
}

TEST_F(FcgiHandlerTest, RequestsForOtherPortsGetAnEmptyAnswer) {
    TestHook a("A", 8085, journal, 7, 7);
    start();
    for (const char* serverPort : {"8086", "x8085", "", "99999999999999999999"}) {
        auto records = exchange(request(1, webParams("/x", serverPort), {"body"}));
        EXPECT_EQ(stream(records, STDOUT, 1), "") << serverPort;
        ASSERT_NE(findEnd(records, 1), nullptr);
        EXPECT_EQ(findEnd(records, 1)->appStatus(), 0u);
    }
    EXPECT_TRUE(journal.take().empty());
    // Read like "%d": blanks before, anything after the digits.
    exchange(request(1, webParams("/x", " 8085;"), {}));
    EXPECT_EQ(journal.take(), strings({"A complete"}));
}

TEST_F(FcgiHandlerTest, PositiveDataSumEndsTheRequestEarly) {
    TestHook a("A", 8085, journal, 0);
    TestHook b("B", 8085, journal, 2);
    start();
    // No end of body is sent: the answer comes from the data results alone.
    const int fd = connectLoopback(port);
    sendAll(fd, begin(1) + paramsStream(1, webParams()) + record(STDIN, 1, "go"));
    auto records = parse(receiveUntilClosed(fd, 5000));
    close(fd);
    ASSERT_NE(findEnd(records, 1), nullptr);
    EXPECT_EQ(findEnd(records, 1)->appStatus(), 1u);
    EXPECT_EQ(journal.take(), strings({"A data go", "B data go"}));
}

TEST_F(FcgiHandlerTest, NegativeDataSumGoesOn) {
    TestHook a("A", 8085, journal, -1, 0);
    TestHook b("B", 8085, journal, 0, 0);
    start();
    auto records = exchange(request(1, webParams(), {"one", "two"}));
    EXPECT_EQ(journal.take(), strings({"A data one", "B data one", "A data two", "B data two",
                                       "A complete", "B complete"}));
    EXPECT_EQ(findEnd(records, 1)->appStatus(), 0u);
}

TEST_F(FcgiHandlerTest, RequestWithoutUriReachesNoHook) {
    TestHook a("A", 8085, journal);
    start();
    auto records = exchange(request(1, {{"SERVER_PORT", "8085"}}, {"body"}));
    ASSERT_NE(findEnd(records, 1), nullptr);
    EXPECT_EQ(findEnd(records, 1)->appStatus(), 1u);
    EXPECT_TRUE(journal.take().empty());
}

TEST_F(FcgiHandlerTest, RegistrationsComeAndGo) {
    auto a = std::make_unique<TestHook>("A", 8085, journal);
    auto b = std::make_unique<TestHook>("B", 8085, journal);
    auto c = std::make_unique<TestHook>("C", 8085, journal);
    b.reset();
    // Registering anew replaces the object's earlier entry.
    a->registration.register_hook(a.get(), 8085);
    start();
    exchange(request(1, webParams(), {}));
    EXPECT_EQ(journal.take(), strings({"C complete", "A complete"}));
    FcgiHandler::stop();
    a->registration.register_hook(nullptr, 8085);
    start();
    exchange(request(1, webParams(), {}));
    EXPECT_EQ(journal.take(), strings({"C complete"}));
}

TEST_F(FcgiHandlerTest, StartTwiceAndStop) {
    TestHook a("A", 8085, journal);
    VerbosityScope verbose(4);
    StderrCapture capture;
    start();
    FcgiHandler::start(port);
    exchange(request(1, webParams(), {}));
    EXPECT_EQ(journal.take(), strings({"A complete"}));
    FcgiHandler::stop();
    FcgiHandler::stop();
    const std::string log = capture.text();
    EXPECT_NE(log.find("INFO: FcgiHandler already running.\n"), std::string::npos);
    // The request line, then one line for the one thread that finished.
    EXPECT_NE(log.find("DBG : 8085\n"), std::string::npos);
    EXPECT_EQ(log.find("DBG : fcgi thread finished."), log.rfind("DBG : fcgi thread finished."));
    EXPECT_NE(log.find("DBG : fcgi thread finished.\n"), std::string::npos);
    EXPECT_LT(connectLoopback(port), 0);
}

TEST_F(FcgiHandlerTest, BindIsRetriedAndStopEndsTheRetries) {
    const int blocker = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_ANY);
    address.sin_port = htons(port);
    ASSERT_EQ(bind(blocker, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    ASSERT_EQ(::listen(blocker, 1), 0);
    VerbosityScope verbose(3);
    StderrCapture capture;
    FcgiHandler::start(port);
    for (int i = 0; i < 100 && capture.text().find("retrying") == std::string::npos; ++i)
        usleep(20 * 1000);
    FcgiHandler::stop();
    EXPECT_NE(capture.text().find("INFO: Bind to fcgi socket failed. retrying...\n"),
              std::string::npos);

    // Once the port is free, a retry gets it.
    FcgiHandler::start(port);
    usleep(100 * 1000);
    close(blocker);
    ASSERT_TRUE(waitForListener());
}

TEST_F(FcgiHandlerTest, FailingServerIsRestarted) {
    TestHook a("A", 8085, journal);
    StderrCapture capture;
    start();
    bool closed = false;
    exchange(request(1, webParams(), {"throw"}), &closed);
    EXPECT_TRUE(closed);
    EXPECT_TRUE(waitForListener());
    journal.take();
    auto records = exchange(request(1, webParams(), {"again"}));
    EXPECT_EQ(stream(records, STDOUT, 1), "A<again>");
    EXPECT_NE(capture.text().find("ERR : FastCGI server failed: hook failed. Restarting it.\n"),
              std::string::npos);
}

TEST_F(FcgiHandlerTest, OversizedRequestIsEndedAndLogged) {
    TestHook a("A", 8085, journal);
    StderrCapture capture;
    start();
    std::string bytes = begin(1) + record(PARAMS, 1, encode({{"REQUEST_URI", "/big"}}));
    const std::string chunk = record(PARAMS, 1, std::string(65000, 'p'));
    while (bytes.size() < 1100 * 1000)
        bytes += chunk;
    bool closed = false;
    auto records = exchange(bytes, &closed);
    EXPECT_TRUE(closed);
    const Record* end = findEnd(records, 1);
    ASSERT_NE(end, nullptr);
    EXPECT_EQ(end->protocolStatus(), OVERLOADED);
    EXPECT_NE(capture.text().find("WARN: FastCGI request for \"\" ended: its connection held more "
                                  "than 1048576 bytes. Connection closed.\n"),
              std::string::npos);
    EXPECT_TRUE(journal.take().empty());
}

TEST_F(FcgiHandlerTest, VanishedPeerIsLoggedAndOthersAreServed) {
    TestHook a("A", 8085, journal);
    StderrCapture capture;
    start();
    // The peer leaves in the middle of a long answer (and SIGPIPE would end this test).
    const int gone = connectLoopback(port);
    sendAll(gone, request(1, webParams(), {"huge"}));
    receiveUntil(gone, 5000, [](const std::string& b) { return !b.empty(); });
    close(gone);
    for (int i = 0; i < 250 && capture.text().find("dropped") == std::string::npos; ++i)
        usleep(20 * 1000);
    EXPECT_NE(capture.text().find("WARN: FastCGI connection dropped: write() failed\n"),
              std::string::npos);
    auto records = exchange(request(1, webParams(), {"next"}));
    EXPECT_EQ(stream(records, STDOUT, 1), "A<next>");
}
