#ifndef TAVRO_PGNHOOK_H
#define TAVRO_PGNHOOK_H

#include <string>

// The FMStoIP service as the PGN request interface sees it. PGN texts are four upper-case
// hex digits ("FEF1") and are taken unchanged. Never deleted through this interface.
class PGNHook {
public:
    virtual void addPgn(const std::string& pgn) = 0;
    virtual void removePgn(const std::string& pgn) = 0;
    // Latest single-frame document of the PGN, or "" when none was seen.
    virtual std::string getPgnDocument(const std::string& pgn) = 0;

protected:
    ~PGNHook() = default;
};

#endif
