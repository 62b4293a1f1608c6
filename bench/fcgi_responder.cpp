// The yardstick for the daemon's FastCGI path: a minimal responder on Debian's libfcgi that
// sends what the daemon sends, one request at a time: the bytes of a file as STDOUT, and the
// body with every byte one higher as STDERR.
//
//   fcgi_responder PORT ANSWER_FILE
#include <fcgiapp.h>

#include <cstdio>
#include <fstream>
#include <sstream>
#include <string>

int main(int argc, char** argv) {
    if (argc != 3) {
        fprintf(stderr, "usage: %s PORT ANSWER_FILE\n", argv[0]);
        return 2;
    }
    std::ifstream file(argv[2], std::ios::binary);
    std::stringstream content;
    content << file.rdbuf();
    const std::string answer = content.str();
    if (!file || FCGX_Init() != 0)
        return 1;
    const int listening = FCGX_OpenSocket((std::string(":") + argv[1]).c_str(), 100);
    if (listening < 0)
        return 1;
    FCGX_Request request;
    FCGX_InitRequest(&request, listening, 0);
    while (FCGX_Accept_r(&request) >= 0) {
        char buffer[4096];
        int n;
        while ((n = FCGX_GetStr(buffer, sizeof buffer, request.in)) > 0) {
            for (int i = 0; i < n; ++i)
                buffer[i] = static_cast<char>(static_cast<unsigned char>(buffer[i]) + 1);
            FCGX_PutStr(buffer, n, request.err);
        }
        FCGX_PutStr(answer.data(), static_cast<int>(answer.size()), request.out);
        FCGX_Finish_r(&request);
    }
    return 0;
}
