#ifndef TAVRO_TIMESERVICE_H
#define TAVRO_TIMESERVICE_H

#include "Service.h"

// Announces the device's time server; carries only the standard TXT records.
class TimeService : public Service {
public:
    explicit TimeService(const Configuration& configuration);
    ~TimeService() override;
};

#endif
