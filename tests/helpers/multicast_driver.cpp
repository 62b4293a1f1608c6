// Drives one MulticastSender from standard input, for the system tests.
//   multicast_driver GROUP PORT INTERFACE TTL VERBOSITY
// Each input line "send CONTEXT HEXDATA" sends the bytes (CONTEXT "-": the default context)
// and answers "sent" or "failed" on standard output.
#include "Logger.h"
#include "MulticastSender.h"

#include <cstdlib>
#include <iostream>
#include <sstream>
#include <string>

namespace {
bool fromHex(const std::string& hex, std::string& bytes) {
    if (hex.size() % 2 != 0)
        return false;
    bytes.clear();
    for (size_t i = 0; i < hex.size(); i += 2) {
        char* end = nullptr;
        const std::string pair = hex.substr(i, 2);
        const long value = strtol(pair.c_str(), &end, 16);
        if (*end != '\0')
            return false;
        bytes.push_back(static_cast<char>(value));
    }
    return true;
}
} // namespace

int main(int argc, char** argv) {
    if (argc != 6) {
        std::cerr << "usage: multicast_driver GROUP PORT INTERFACE TTL VERBOSITY\n";
        return 2;
    }
    verbosity = atoi(argv[5]);
    MulticastSender sender(argv[1], argv[2], argv[3], static_cast<uint8_t>(atoi(argv[4])));
    std::string line;
    while (std::getline(std::cin, line)) {
        std::istringstream words(line);
        std::string command, context, hex, data;
        words >> command >> context >> hex;
        if (command != "send" || !fromHex(hex, data)) {
            std::cout << "bad command" << std::endl;
            continue;
        }
        const bool sent = context == "-" ? sender.send(data) : sender.send(data, context);
        std::cout << (sent ? "sent" : "failed") << std::endl;
    }
    return 0;
}
