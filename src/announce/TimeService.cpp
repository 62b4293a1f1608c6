#include "TimeService.h"

TimeService::TimeService(const Configuration& configuration) : Service(configuration) {
    publisher.start();
}

TimeService::~TimeService() = default;
