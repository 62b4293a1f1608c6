// avahi_publish NAME TYPE TRANSPORT PORT [TXT...]: each input line "KEY VALUE..." calls
// replaceLastTxt(KEY, VALUE) for each value back to back and answers "done"; end of input
// withdraws the service.
#include "AvahiHandler.h"
#include "Logger.h"

#include <cstdlib>
#include <iostream>
#include <sstream>
#include <string>

int main(int argc, char** argv) {
    if (argc < 5)
        return 2;
    verbosity = 4;
    AvahiHandler publisher;
    publisher.setName(argv[1]);
    publisher.setType(argv[2]);
    publisher.setProtocol(argv[3]);
    publisher.setPort(static_cast<uint16_t>(atoi(argv[4])));
    for (int i = 5; i < argc; ++i)
        publisher.addTxt(argv[i]);
    if (publisher.start() != 0)
        return 1;
    std::string line;
    while (std::getline(std::cin, line)) {
        std::istringstream words(line);
        std::string key, value;
        words >> key;
        while (words >> value)
            publisher.replaceLastTxt(key, value);
        std::cout << "done" << std::endl;
    }
    return publisher.join();
}
