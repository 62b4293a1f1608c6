#ifndef TAVRO_HEARTBEAT_H
#define TAVRO_HEARTBEAT_H

#include <chrono>
#include <string>

// Progress of the service threads, for the service manager's watchdog. Each service thread's
// loop calls beat() once per turn, and every loop turns at least once a second even when idle,
// so a thread whose count stands still is hung. A thread takes part from its first beat until
// it ends.
class Heartbeat {
public:
    using Clock = std::chrono::steady_clock;

    // A lock-free count after the thread's first call.
    static void beat();
    // Name and thread id of a thread that has not beaten for longer than limit by now, or empty
    // text. Called by one thread only (the main thread), which keeps what it has seen between
    // calls.
    static std::string stalled(Clock::duration limit, Clock::time_point now = Clock::now());
};

#endif
