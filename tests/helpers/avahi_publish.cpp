// Publishes one service with AvahiHandler for the system tests.
//   avahi_publish [-v LEVEL] [-i INTERFACE] NAME TYPE TRANSPORT PORT [TXT...]
// Commands on standard input, one a line:
//   replace KEY VALUE          replaceLastTxt(KEY, VALUE)
//   replace2 KEY VALUE1 VALUE2 two replaceLastTxt calls back to back
// End of input withdraws the service and ends with status 0.
#include "AvahiHandler.h"
#include "Logger.h"

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <sstream>
#include <string>

int main(int argc, char** argv) {
    std::string interface;
    int opt;
    while ((opt = getopt(argc, argv, "v:i:")) != -1) {
        if (opt == 'v') {
            verbosity = atoi(optarg);
        } else if (opt == 'i') {
            interface = optarg;
        } else {
            return 2;
        }
    }
    if (argc - optind < 4) {
        fprintf(stderr, "usage: %s [-v LEVEL] [-i IFACE] NAME TYPE TRANSPORT PORT [TXT...]\n",
                argv[0]);
        return 2;
    }
    AvahiHandler publisher;
    publisher.setName(argv[optind]);
    publisher.setType(argv[optind + 1]);
    publisher.setProtocol(argv[optind + 2]);
    publisher.setPort(static_cast<uint16_t>(atoi(argv[optind + 3])));
    publisher.setInterface(interface);
    for (int i = optind + 4; i < argc; ++i)
        publisher.addTxt(argv[i]);
    if (publisher.start() != 0)
        return 1;

    std::string line;
    while (std::getline(std::cin, line)) {
        std::istringstream words(line);
        std::string command, key, value, second;
        words >> command >> key >> value >> second;
        if (command == "replace") {
            publisher.replaceLastTxt(key, value);
        } else if (command == "replace2") {
            publisher.replaceLastTxt(key, value);
            publisher.replaceLastTxt(key, second);
        }
        printf("done %s\n", command.c_str());
        fflush(stdout);
    }
    return publisher.join();
}
