// Cost of record handling per request and per body byte, and how quickly the front end stops.

#include "Connection.h"
#include "FcgiHandler.h"
#include "StaticHandler.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <cstring>

#include <benchmark/benchmark.h>

namespace {

using namespace FastCGIServer;

std::string record(uint8_t type, uint16_t id, const std::string& content) {
    std::string out;
    appendHeader(out, type, id, static_cast<uint16_t>(content.size()), 0);
    return out + content;
}

std::string nginxRequest(const std::string& body) {
    std::string params;
    const char* const pairs[][2] = {{"QUERY_STRING", ""},
                                    {"REQUEST_METHOD", "POST"},
                                    {"CONTENT_TYPE", "text/xml"},
                                    {"CONTENT_LENGTH", "21"},
                                    {"SCRIPT_NAME", "/getpgn"},
                                    {"REQUEST_URI", "/getpgn"},
                                    {"DOCUMENT_URI", "/getpgn"},
                                    {"DOCUMENT_ROOT", "/var/www"},
                                    {"SERVER_PROTOCOL", "HTTP/1.1"},
                                    {"REQUEST_SCHEME", "http"},
                                    {"GATEWAY_INTERFACE", "CGI/1.1"},
                                    {"SERVER_SOFTWARE", "nginx/1.22.1"},
                                    {"REMOTE_ADDR", "10.0.0.7"},
                                    {"REMOTE_PORT", "40312"},
                                    {"SERVER_ADDR", "10.0.0.1"},
                                    {"SERVER_PORT", "8085"},
                                    {"SERVER_NAME", "_"},
                                    {"HTTP_HOST", "10.0.0.1:8085"}};
    for (const auto& pair : pairs)
        encodeParam(params, pair[0], pair[1]);
    const std::string begin("\0\1\0\0\0\0\0\0", 8);
    std::string out =
        record(BEGIN_REQUEST, 1, begin) + record(PARAMS, 1, params) + record(PARAMS, 1, "");
    for (std::size_t pos = 0; pos < body.size(); pos += 32768)
        out += record(STDIN, 1, body.substr(pos, 32768));
    return out + record(STDIN, 1, "");
}

int answer(Request& request) {
    request.out += "Status: 200\r\nContent-Type: text/xml\r\n\r\n";
    request.out += request.in;
    request.in.clear();
    return 0;
}

void feed(Callbacks& callbacks, const Limits& limits, const std::string& bytes) {
    Connection connection(callbacks, limits);
    for (std::size_t pos = 0; pos < bytes.size(); pos += 4096)
        connection.receive(bytes.data() + pos, std::min<std::size_t>(4096, bytes.size() - pos));
    connection.flushAll();
    benchmark::DoNotOptimize(connection.output.data());
}

void BM_PgnSizedRequest(benchmark::State& state) {
    Callbacks callbacks;
    callbacks.data = std::make_unique<StaticHandler>(answer);
    Limits limits;
    const std::string bytes = nginxRequest("<PGNGet>FEF1</PGNGet>");
    for (auto _ : state)
        feed(callbacks, limits, bytes);
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_PgnSizedRequest);

void BM_BodyBytes(benchmark::State& state) {
    Callbacks callbacks;
    callbacks.data = std::make_unique<StaticHandler>(answer);
    Limits limits;
    const std::string bytes =
        nginxRequest(std::string(static_cast<std::size_t>(state.range(0)), 'b'));
    for (auto _ : state)
        feed(callbacks, limits, bytes);
    state.SetBytesProcessed(state.iterations() * state.range(0));
}
BENCHMARK(BM_BodyBytes)->Arg(64 * 1024)->Arg(1024 * 1024);

void BM_DecodeParams(benchmark::State& state) {
    const std::string bytes = nginxRequest("");
    // The PARAMS content of the request above.
    const std::string params = bytes.substr(24, bytes.size() - 24 - 24);
    for (auto _ : state)
        benchmark::DoNotOptimize(decodeParams(params));
}
BENCHMARK(BM_DecodeParams);

uint16_t freePort() {
    const int fd = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address;
    std::memset(&address, 0, sizeof address);
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address);
    socklen_t length = sizeof address;
    getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length);
    close(fd);
    return ntohs(address.sin_port);
}

// Time from stop() to the joined thread, with the thread idle in its pass.
void BM_FrontEndStop(benchmark::State& state) {
    const uint16_t port = freePort();
    for (auto _ : state) {
        FcgiHandler::start(port);
        usleep(30 * 1000);
        const auto begin = std::chrono::steady_clock::now();
        FcgiHandler::stop();
        const auto end = std::chrono::steady_clock::now();
        state.SetIterationTime(std::chrono::duration<double>(end - begin).count());
    }
}
BENCHMARK(BM_FrontEndStop)->UseManualTime()->Iterations(10)->Unit(benchmark::kMillisecond);

} // namespace

BENCHMARK_MAIN();
