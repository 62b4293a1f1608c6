#include "Heartbeat.h"

#include <pthread.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cstdint>
#include <list>
#include <mutex>

namespace {

struct Slot {
    std::atomic<uint64_t> turns{0};
    std::string name;
    // Only the checking thread touches these.
    uint64_t seenTurns = 0;
    Heartbeat::Clock::time_point seenAt;
    bool seen = false;
};

struct Registry {
    std::mutex mutex;
    std::list<Slot> slots;
};

// Never destroyed: a thread may still end after main has returned.
Registry& registry() {
    static Registry* r = new Registry;
    return *r;
}

// One per thread that has beaten; leaves the registry when its thread ends.
struct Membership {
    std::list<Slot>::iterator slot;

    Membership() {
        char name[16] = "";
        pthread_getname_np(pthread_self(), name, sizeof name);
        Registry& r = registry();
        std::lock_guard<std::mutex> lock(r.mutex);
        slot = r.slots.emplace(r.slots.end());
        slot->name = std::string(name) + " (" + std::to_string(syscall(SYS_gettid)) + ")";
    }
    ~Membership() {
        Registry& r = registry();
        std::lock_guard<std::mutex> lock(r.mutex);
        r.slots.erase(slot);
    }
    Membership(const Membership&) = delete;
    Membership& operator=(const Membership&) = delete;
};

} // namespace

void Heartbeat::beat() {
    thread_local Membership membership;
    membership.slot->turns.fetch_add(1, std::memory_order_relaxed);
}

std::string Heartbeat::stalled(Clock::duration limit, Clock::time_point now) {
    Registry& r = registry();
    std::lock_guard<std::mutex> lock(r.mutex);
    std::string name;
    for (Slot& slot : r.slots) {
        const uint64_t turns = slot.turns.load(std::memory_order_relaxed);
        if (!slot.seen || turns != slot.seenTurns) {
            slot.seen = true;
            slot.seenTurns = turns;
            slot.seenAt = now;
        } else if (name.empty() && now - slot.seenAt > limit) {
            name = slot.name;
        }
    }
    return name;
}
