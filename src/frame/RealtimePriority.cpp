#include "RealtimePriority.h"

#include "Configuration.h"
#include "Logger.h"

#include <pthread.h>
#include <sched.h>

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <string>

namespace {
std::atomic<int> priority{0};
std::atomic<bool> refusalLogged{false};
} // namespace

void RealtimePriority::configure(const Configuration& general) {
    priority = 0;
    if (!general.hasKey("realtime_priority"))
        return;
    const std::string text = general.getString("realtime_priority");
    long value = 0;
    if (!decimalValue(text, value) || value < 0 || value > sched_get_priority_max(SCHED_FIFO)) {
        LOG(0) << "No valid \"realtime_priority\" in configuration (\"" << text
               << "\"). CAN threads stay on the normal scheduler.";
        return;
    }
    priority = static_cast<int>(value);
}

void RealtimePriority::apply() {
    const int wanted = priority.load();
    if (wanted == 0)
        return;
    sched_param param;
    memset(&param, 0, sizeof param);
    param.sched_priority = wanted;
    const int error = pthread_setschedparam(pthread_self(), SCHED_FIFO, &param);
    if (error != 0 && !refusalLogged.exchange(true)) {
        LOG(1) << "Real-time priority " << wanted << " refused (" << strerror(error)
               << "). CAN threads stay on the normal scheduler.";
    }
}
