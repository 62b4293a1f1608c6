#ifndef TAVRO_SERVICE_H
#define TAVRO_SERVICE_H

#include "AvahiHandler.h"
#include "Configuration.h"

#include <cstdint>
#include <string>

// Root of every announced service: reads the announcement settings and the standard TXT
// records. The derived class adds its own records and starts the publisher.
class Service {
public:
    explicit Service(const Configuration& configuration);
    virtual ~Service();
    Service(const Service&) = delete;
    Service& operator=(const Service&) = delete;

    // Starts the announcement as it stands, for owners that add no records of their own.
    void announce();

protected:
    AvahiHandler publisher;
};

// A port of 0 to 65535 in plain decimal digits; false for anything else.
bool parsePort(const std::string& text, uint16_t& port);

#endif
