#ifndef TAVRO_REALTIMEPRIORITY_H
#define TAVRO_REALTIMEPRIORITY_H

class Configuration;

// The threads that carry CAN frames to the network (the CAN readers and the FMStoIP worker)
// may run under SCHED_FIFO, so that the web server, a burst of PGN requests or anything else
// on the device's few CPUs cannot hold a frame up. A bus sends at most a few thousand frames
// a second and these threads sleep between them, so the rest of the device keeps its share.
class RealtimePriority {
public:
    // Reads "realtime_priority" of the general file: absent or 0, every thread stays on the
    // normal scheduler; 1 to 99, the SCHED_FIFO priority. Anything else is an ERR line and
    // the normal scheduler. Called before any service starts.
    static void configure(const Configuration& general);
    // Called by a frame-carrying thread when it starts. A refusal (no CAP_SYS_NICE and no
    // RLIMIT_RTPRIO) is logged once per process; the thread then runs as before.
    static void apply();
};

#endif
