// The PGN request interface with a stand-in service and hand-built requests.

#include "FmstoipFcgi.h"
#include "TestSupport.h"

#include <gtest/gtest.h>

#include <cstdlib>

using FastCGIServer::Request;
using Strings = std::vector<std::string>;

namespace {

const std::string feF1Document = "<FMStoIPDelivery>FEF1</FMStoIPDelivery>\n";

class FakeService : public PGNHook {
public:
    void addPgn(const std::string& pgn) override { calls.push_back("add " + pgn); }
    void removePgn(const std::string& pgn) override { calls.push_back("remove " + pgn); }
    std::string getPgnDocument(const std::string& pgn) override {
        calls.push_back("get " + pgn);
        return pgn == "FEF1" ? feF1Document : "";
    }
    Strings calls;
};

std::string html(const std::string& status, const std::string& text) {
    return "Status: " + status + "\r\nContent-Type: text/html\r\n\r\n<html><body>" + text +
           "</body></html>\n";
}

class FmstoipFcgiTest : public ::testing::Test {
protected:
    // The announcements have no port and so never publish; D-Bus points at nothing anyway.
    void SetUp() override {
        setenv("DBUS_SYSTEM_BUS_ADDRESS", "unix:path=/nonexistent/tavro-test-bus", 1);
    }

    std::unique_ptr<FmstoipFcgi> make(const std::string& addPath = "/add") {
        StderrCapture quiet;
        return std::make_unique<FmstoipFcgi>(conf("add", addPath), conf("remove", "/remove"),
                                             conf("get", "/get"));
    }
    Configuration conf(const std::string& name, const std::string& path) {
        return Configuration(dir.write(name, "service_path=" + path + "\n"));
    }
    static Request request(const std::string& uri, const std::string& body) {
        Request r;
        r.params = {{"REQUEST_URI", uri},
                    {"REQUEST_METHOD", "POST"},
                    {"REMOTE_ADDR", "10.0.0.7"},
                    {"SERVER_PORT", "8085"}};
        r.in = body;
        return r;
    }

    TempDir dir;
    FakeService service;
};

} // namespace

TEST_F(FmstoipFcgiTest, AnswersByPathAndRootElement) {
    const std::string ok = html("200", "Ok");
    const std::string bad = html("400", "Bad Request");
    const std::string noPacket = html("408", "No can packet with the requested pgn is available.");
    struct Case {
        std::string uri, body, out, call, logged;
    } cases[] = {
        {"/get", "<PGNGet>FEF1</PGNGet>",
         "Status: 200\r\nContent-Type: text/xml\r\n\r\n" + feF1Document, "get FEF1", "html ok."},
        {"/get", "<?xml version=\"1.0\"?><PGNGet>F004</PGNGet>", noPacket, "get F004",
         "html error, no package. 408"},
        // The text goes on as it is: blanks and all.
        {"/get", "<PGNGet> FEF1 </PGNGet>", noPacket, "get  FEF1 ", "html error, no package. 408"},
        {"/add", "<PGNReq>FEF1</PGNReq>", ok, "add FEF1", "html ok."},
        {"/remove", "<PGNRem>x</PGNRem>", ok, "remove x", "html ok."},
        {"/add", "<PGNRem>FEF1</PGNRem>", bad, "",
         "request: <PGNRem>FEF1</PGNRem> is invalid.\nINFO: html req error. 400"},
        // A document cut off after a whole element is no request.
        {"/add", std::string("<PGNReq>FEF1</PGNReq><!-- cut\0x", 31), bad, "",
         "request: <PGNReq>FEF1</PGNReq><!-- cut is invalid.\nINFO: html req error. 400"},
        {"/get", "", bad, "", "request:  is invalid.\nINFO: html req error. 400"},
        {"/nope", "<PGNGet>FEF1</PGNGet>", html("404", "Not Found"), "",
         "path: /nope is invalid.\nINFO: html req error. 404"},
        {"/get?pgn=FEF1", "<PGNGet>FEF1</PGNGet>", html("404", "Not Found"), "",
         "path: /get?pgn=FEF1 is invalid.\nINFO: html req error. 404"},
    };
    auto fcgi = make();
    fcgi->set_pgn_hook(&service);
    VerbosityScope verbose(3);
    for (const Case& c : cases) {
        SCOPED_TRACE(c.uri + " " + c.body);
        Request r = request(c.uri, c.body);
        StderrCapture capture;
        EXPECT_EQ(fcgi->handle_data(r), 0);
        EXPECT_EQ(r.out, c.out);
        EXPECT_EQ(service.calls, c.call.empty() ? Strings{} : Strings{c.call});
        // What follows the four lines that every request logs.
        std::string log = capture.text();
        for (int line = 0; line < 4; ++line)
            log.erase(0, log.find('\n') + 1);
        EXPECT_EQ(log, "INFO: " + c.logged + "\n");
        service.calls.clear();
    }
}

TEST_F(FmstoipFcgiTest, LogLinesOfOneRequest) {
    auto fcgi = make();
    fcgi->set_pgn_hook(&service);
    VerbosityScope verbose(4);
    Request r = request("/get", "<PGNReq>FEF1</PGNReq>");
    r.err = "e";
    StderrCapture capture;
    fcgi->handle_data(r);
    r.in.clear();
    EXPECT_EQ(fcgi->handle_complete(r), 0);
    EXPECT_EQ(capture.text(), "INFO: handle_data request.in: <PGNReq>FEF1</PGNReq>\n"
                              "INFO: html POST request from: 10.0.0.7 on port 8085\n"
                              "INFO: path: /get\n"
                              "INFO: PGNReq : FEF1\n"
                              "INFO: request: <PGNReq>FEF1</PGNReq> is invalid.\n"
                              "INFO: html req error. 400\n"
                              "DBG : request.out: " +
                                  html("400", "Bad Request") +
                                  "\n"
                                  "DBG : request.err: e\n"
                                  "DBG : handle_complete request.in: \n");
}

TEST_F(FmstoipFcgiTest, GetPathComesFirstAndNoServiceIsNoCrash) {
    auto fcgi = make("/get");
    VerbosityScope quiet(0);
    Request r = request("/get", "<PGNGet>FEF1</PGNGet>");
    fcgi->handle_data(r);
    EXPECT_EQ(r.out, html("503", "Service Unavailable"));
    fcgi->set_pgn_hook(&service);
    r = request("/get", "<PGNReq>FEF1</PGNReq>");
    fcgi->handle_data(r);
    EXPECT_EQ(r.out, html("400", "Bad Request"));
    EXPECT_TRUE(service.calls.empty());
}
