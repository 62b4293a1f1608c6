// The FastCGI front end on a loopback TCP port: hook selection, results, thread life.

#include "FcgiHandler.h"
#include "FcgiRecords.h"
#include "TestSupport.h"

#include <mutex>
#include <stdexcept>

#include <gtest/gtest.h>

using namespace fcgitest;
using Strings = std::vector<std::string>;

namespace {

// What the hooks saw, written on the FastCGI thread and read by the test.
class Journal {
public:
    void add(const std::string& entry) {
        std::lock_guard<std::mutex> lock(mutex);
        entries.push_back(entry);
    }
    Strings take() {
        std::lock_guard<std::mutex> lock(mutex);
        return std::move(entries);
    }

private:
    std::mutex mutex;
    Strings entries;
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
        request.out += request.in == "huge" ? std::string(16 << 20, 'h') : name + request.in;
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

class FcgiHandlerTest : public ::testing::Test {
protected:
    void TearDown() override { FcgiHandler::stop(); }

    void start() {
        FcgiHandler::start(port);
        ASSERT_TRUE(listening()) << "front end not listening on " << port;
    }
    bool listening() {
        for (int i = 0; i < 100; ++i) {
            const int fd = connectTo("", port);
            if (fd >= 0)
                return close(fd) == 0;
            usleep(50 * 1000);
        }
        return false;
    }

    // Sends on a fresh connection; returns what came back until the server closed it.
    std::vector<Record> exchange(const std::string& bytes, bool* closed = nullptr) {
        const int fd = connectTo("", port);
        // A peer cut off while it sends still reads what came before.
        sendAll(fd, bytes);
        auto records = parse(receiveUntil(
            fd, 5000, [](const std::string&) { return false; }, closed));
        close(fd);
        return records;
    }
    uint32_t status(const std::vector<Record>& records) {
        const Record* end = findEnd(records, 1);
        return end != nullptr ? end->appStatus() : 0xDEAD;
    }

    const uint16_t port = freePort();
    Journal journal;
};

} // namespace

TEST_F(FcgiHandlerTest, HooksAreChosenByServerPort) {
    TestHook a("A", 8085, journal, 0, 2);
    TestHook other("O", 8086, journal, 0, 100);
    TestHook b("B", 8085, journal, -1, 3);
    start();
    auto records = exchange(request(1, webParams("/x", "8085"), {"ab"}));
    EXPECT_EQ(journal.take(), (Strings{"A data ab", "B data ab", "A complete", "B complete"}));
    EXPECT_EQ(stream(records, STDOUT, 1), "AabBab");
    EXPECT_EQ(status(records), 5u);

    // Read like "%d": blanks before and anything after the digits are fine.
    exchange(request(1, webParams("/x", " 8086;"), {}));
    EXPECT_EQ(journal.take(), Strings{"O complete"});
    for (const char* unknown : {"8087", "x8085", "", "99999999999999999999"}) {
        records = exchange(request(1, webParams("/x", unknown), {"body"}));
        EXPECT_EQ(stream(records, STDOUT, 1), "");
        EXPECT_EQ(status(records), 0u);
    }
    // Without REQUEST_URI no hook sees the request.
    records = exchange(request(1, {{"SERVER_PORT", "8085"}}, {"body"}));
    EXPECT_EQ(status(records), 1u);
    EXPECT_TRUE(journal.take().empty());
}

TEST_F(FcgiHandlerTest, EachStdinRecordReachesTheHooksOnce) {
    TestHook a("A", 8085, journal);
    start();
    const std::string binary("\xFF\x00x", 3);
    auto records = exchange(request(1, webParams(), {"AZ", binary}));
    EXPECT_EQ(journal.take(), (Strings{"A data AZ", "A data " + binary, "A complete"}));
    // The web server gets each record again as STDERR, every byte one higher.
    EXPECT_EQ(stream(records, STDERR, 1), std::string("B[\x00\x01y", 5));
}

TEST_F(FcgiHandlerTest, PositiveDataResultsEndTheRequestEarly) {
    TestHook a("A", 8085, journal, 0);
    TestHook b("B", 8085, journal, 2);
    start();
    // No end of body is sent: the END_REQUEST comes from the data results alone.
    auto records = exchange(begin(1) + paramsStream(1, webParams()) + record(STDIN, 1, "go"));
    EXPECT_EQ(status(records), 1u);
    EXPECT_EQ(journal.take(), (Strings{"A data go", "B data go"}));
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
    EXPECT_EQ(journal.take(), (Strings{"C complete", "A complete"}));
    FcgiHandler::stop();
    a->registration.register_hook(nullptr, 8085);
    start();
    exchange(request(1, webParams(), {}));
    EXPECT_EQ(journal.take(), Strings{"C complete"});
}

TEST_F(FcgiHandlerTest, StartTwiceAndStop) {
    TestHook a("A", 8085, journal);
    VerbosityScope verbose(4);
    StderrCapture capture;
    start();
    FcgiHandler::start(port);
    exchange(request(1, webParams(), {}));
    EXPECT_EQ(journal.take(), Strings{"A complete"});
    FcgiHandler::stop();
    FcgiHandler::stop();
    EXPECT_LT(connectTo("", port), 0);
    const std::string log = capture.text();
    EXPECT_NE(log.find("INFO: FcgiHandler already running.\n"), std::string::npos);
    EXPECT_NE(log.find("DBG : 8085\n"), std::string::npos);
    // One line for the one thread that finished.
    EXPECT_NE(log.find("DBG : fcgi thread finished.\n"), std::string::npos);
    EXPECT_EQ(log.find("fcgi thread finished."), log.rfind("fcgi thread finished."));
}

TEST_F(FcgiHandlerTest, BindIsRetriedUntilStop) {
    const int blocker = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    ASSERT_EQ(bind(blocker, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    ASSERT_EQ(::listen(blocker, 1), 0);
    VerbosityScope verbose(3);
    StderrCapture capture;
    FcgiHandler::start(port);
    for (int i = 0; i < 100 && capture.text().find("retrying") == std::string::npos; ++i)
        usleep(20 * 1000);
    // Stops although the port is still taken.
    FcgiHandler::stop();
    EXPECT_NE(capture.text().find("INFO: Bind to fcgi socket failed. retrying...\n"),
              std::string::npos);
    FcgiHandler::start(port);
    close(blocker);
    EXPECT_TRUE(listening());
    // Before the verbosity goes back: the front end's thread reads it.
    FcgiHandler::stop();
}

TEST_F(FcgiHandlerTest, FailuresAreLoggedAndServingGoesOn) {
    TestHook a("A", 8085, journal);
    StderrCapture capture;
    start();
    // A hook that throws: the server is started anew.
    bool closed = false;
    exchange(request(1, webParams(), {"throw"}), &closed);
    EXPECT_TRUE(closed);
    EXPECT_TRUE(listening());
    EXPECT_EQ(stream(exchange(request(1, webParams(), {"again"})), STDOUT, 1), "Aagain");

    // A request over the bound of one connection.
    std::string big = begin(1) + record(PARAMS, 1, encode({{"REQUEST_URI", "/big"}}));
    while (big.size() < 1100 * 1000)
        big += record(PARAMS, 1, std::string(65000, 'p'));
    auto records = exchange(big, &closed);
    EXPECT_TRUE(closed);
    ASSERT_NE(findEnd(records, 1), nullptr);
    EXPECT_EQ(findEnd(records, 1)->protocolStatus(), OVERLOADED);

    // A peer that leaves in the middle of a long answer (SIGPIPE would end this test).
    const int gone = connectTo("", port);
    sendAll(gone, request(1, webParams(), {"huge"}));
    receiveUntil(gone, 5000, [](const std::string& b) { return !b.empty(); });
    close(gone);
    for (int i = 0; i < 250 && capture.text().find("dropped") == std::string::npos; ++i)
        usleep(20 * 1000);
    EXPECT_EQ(stream(exchange(request(1, webParams(), {"next"})), STDOUT, 1), "Anext");

    const std::string log = capture.text();
    EXPECT_NE(log.find("ERR : FastCGI server failed: hook failed. Restarting it.\n"),
              std::string::npos);
    EXPECT_NE(log.find("WARN: FastCGI request for \"\" ended: its connection held more than "
                       "1048576 bytes. Connection closed.\n"),
              std::string::npos);
    EXPECT_NE(log.find("WARN: FastCGI connection dropped: write() failed\n"), std::string::npos);
}
