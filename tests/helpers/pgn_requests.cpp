// pgn_requests CONF PGN...: an FMStoIP service from CONF prints "ready", then adds each PGN
// once and removes each once until it is killed, so that a kill can land in a write.
#include "Fmstoip.h"

#include <iostream>
#include <string>
#include <vector>

int main(int argc, char** argv) {
    if (argc < 3)
        return 2;
    const std::vector<std::string> pgns(argv + 2, argv + argc);
    Fmstoip service{Configuration(argv[1])};
    std::cout << "ready" << std::endl;
    for (size_t i = 0;; ++i) {
        const std::string& pgn = pgns[i % pgns.size()];
        if ((i / pgns.size()) % 2 == 0)
            service.addPgn(pgn);
        else
            service.removePgn(pgn);
    }
}
