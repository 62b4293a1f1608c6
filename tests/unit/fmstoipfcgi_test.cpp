#include "FmstoipFcgi.h"

#include "TestSupport.h"

#include <gtest/gtest.h>

namespace {
struct RecordingPgns : PGNHook {
    void addPgn(const std::string& pgn) override { calls += "add " + pgn + "|"; }
    void removePgn(const std::string& pgn) override { calls += "remove " + pgn + "|"; }
    std::string getPgnDocument(const std::string& pgn) override {
        calls += "get " + pgn + "|";
        return pgn == "FEF1" ? "<FMStoIPDelivery/>" : "";
    }
    std::string calls;
};
} // namespace

// The get path is compared first, and every answer has its log lines.
TEST(FmstoipFcgi, PathOrderAnswersAndLogLines) {
    // URI and body; status, the log after the path line, the calls that reach the service.
    const std::pair<std::string, std::string> cases[] = {
        {"/g <PGNGet>FEF1</PGNGet>", "200 PGNGet : FEF1\nINFO: html ok.\nget FEF1|"},
        {"/g <PGNGet> FEF1</PGNGet>",
         "408 PGNGet :  FEF1\nINFO: html error, no package. 408\nget  FEF1|"},
        {"/g <PGNReq>F004</PGNReq>", "400 PGNReq : F004\nINFO: request: <PGNReq>F004</PGNReq> "
                                     "is invalid.\nINFO: html req error. 400\n"},
        {"/r <PGNRem>F004</PGNRem>", "200 PGNRem : F004\nINFO: html ok.\nremove F004|"},
        // No prefix matching; a cut-off body is no request.
        {"/g/ <PGNGet>FEF1</PGNGet>",
         "404 PGNGet : FEF1\nINFO: path: /g/ is invalid.\nINFO: html req error. 404\n"},
        {"/g <PGNGet>FEF1", "400  : \nINFO: request: <PGNGet>FEF1 is invalid.\n"
                            "INFO: html req error. 400\n"},
    };
    TempDir dir;
    VerbosityScope verbose(3);
    FmstoipFcgi fcgi(Configuration(dir.write("a", "service_path=/g")),
                     Configuration(dir.write("r", "service_path=/r")),
                     Configuration(dir.write("g", "service_path=/g")));
    for (const auto& c : cases) {
        RecordingPgns pgns;
        fcgi.set_pgn_hook(&pgns);
        FastCGIServer::Request request;
        const std::string uri = c.first.substr(0, c.first.find(' '));
        request.params = {{"REQUEST_URI", uri}, {"REQUEST_METHOD", "POST"}};
        // Parameters that are missing read as empty texts.
        if (uri != "/g/")
            request.params.insert({{"REMOTE_ADDR", "10.0.0.9"}, {"SERVER_PORT", "8085"}});
        request.in = c.first.substr(uri.size() + 1);
        StderrCapture capture;
        EXPECT_EQ(fcgi.handle_data(request), 0);
        const std::string from = uri != "/g/" ? "10.0.0.9 on port 8085" : " on port ";
        EXPECT_EQ(request.out.substr(8, 3) + capture.text() + pgns.calls,
                  c.second.substr(0, 3) + "INFO: handle_data request.in: " + request.in +
                      "\nINFO: html POST request from: " + from + "\nINFO: path: " + uri +
                      "\nINFO: " + c.second.substr(4));
    }
}
