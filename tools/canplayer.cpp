// tavro-canplayer: replays candump log files onto SocketCAN interfaces or onto the virtual
// CAN bus of tavro (a directory of Unix datagram sockets, one per reader, each receiving the
// 16-byte can_frame records).

#include <dirent.h>
#include <getopt.h>
#include <linux/can.h>
#include <linux/can/raw.h>
#include <net/if.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/un.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iostream>
#include <map>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

namespace {

const char* const usageText =
    "Usage: tavro-canplayer [OPTIONS] [FILE...]\n"
    "Replays candump log files, lines like\n"
    "  (1700000000.123456) can0 18FEF100#0102030405060708\n"
    "onto SocketCAN interfaces, or onto the virtual CAN bus when TAVRO_VCAN_DIR (or -d) names\n"
    "its root directory. Without FILE, or with -, it reads standard input.\n"
    "\n"
    "  -m, --map FROM=TO   send frames logged on FROM to TO (repeatable); with any mapping,\n"
    "                      frames of unmapped interfaces are skipped\n"
    "  -r, --rate N        N frames per second instead of the recorded pace\n"
    "  -f, --fast          as fast as possible\n"
    "  -l, --loop N        play everything N times, 0 until interrupted (default 1)\n"
    "  -d, --vcan-dir DIR  root of the virtual bus (instead of TAVRO_VCAN_DIR)\n"
    "  -v, --verbose       print every frame as it is sent\n"
    "  -h, --help          this text\n"
    "\n"
    "At the end it prints \"Sent N frames.\"; exit status 0, or 1 on an error.\n";

volatile sig_atomic_t interrupted = 0;

void onSignal(int) {
    interrupted = 1;
}

struct LoggedFrame {
    int64_t micros; // recorded time stamp
    std::string interface;
    can_frame frame;
};

int hexDigit(char c) {
    if (c >= '0' && c <= '9')
        return c - '0';
    if (c >= 'a' && c <= 'f')
        return c - 'a' + 10;
    if (c >= 'A' && c <= 'F')
        return c - 'A' + 10;
    return -1;
}

// "(seconds.fraction)" in microseconds.
bool parseStamp(const std::string& text, int64_t& micros) {
    if (text.size() < 3 || text.front() != '(' || text.back() != ')')
        return false;
    const std::string inner = text.substr(1, text.size() - 2);
    const size_t dot = inner.find('.');
    const std::string whole = inner.substr(0, dot);
    const std::string fraction = dot == std::string::npos ? "" : inner.substr(dot + 1);
    if (whole.empty() || whole.size() > 12)
        return false;
    int64_t seconds = 0;
    for (char c : whole) {
        if (c < '0' || c > '9')
            return false;
        seconds = seconds * 10 + (c - '0');
    }
    int64_t sub = 0;
    int digits = 0;
    for (char c : fraction) {
        if (c < '0' || c > '9')
            return false;
        if (digits < 6) {
            sub = sub * 10 + (c - '0');
            ++digits;
        }
    }
    for (; digits < 6; ++digits)
        sub *= 10;
    micros = seconds * 1000000 + sub;
    return true;
}

// "ID#DATA", "ID#R" or "ID#Rn"; 3 hex digits for a standard, 8 for an extended identifier.
bool parseFrame(const std::string& text, can_frame& frame, std::string& error) {
    memset(&frame, 0, sizeof frame);
    const size_t hash = text.find('#');
    if (hash == std::string::npos) {
        error = "no '#' in frame \"" + text + "\"";
        return false;
    }
    if (text.compare(hash, 2, "##") == 0) {
        error = "CAN FD frame \"" + text + "\" (##) is not supported";
        return false;
    }
    const std::string id = text.substr(0, hash);
    if (id.size() != 3 && id.size() != 8) {
        error = "identifier \"" + id + "\" must have 3 or 8 hex digits";
        return false;
    }
    uint32_t value = 0;
    for (char c : id) {
        const int d = hexDigit(c);
        if (d < 0) {
            error = "identifier \"" + id + "\" is not hexadecimal";
            return false;
        }
        value = (value << 4) | static_cast<uint32_t>(d);
    }
    if (id.size() == 3) {
        if (value > CAN_SFF_MASK) {
            error = "standard identifier \"" + id + "\" above 7FF";
            return false;
        }
        frame.can_id = value;
    } else {
        // As can-utils writes them: error frames carry their flag instead of the EFF flag.
        frame.can_id = (value & CAN_ERR_FLAG) ? value : (value & CAN_EFF_MASK) | CAN_EFF_FLAG;
    }

    const std::string data = text.substr(hash + 1);
    if (!data.empty() && (data[0] == 'R' || data[0] == 'r')) {
        frame.can_id |= CAN_RTR_FLAG;
        if (data.size() == 2 && data[1] >= '0' && data[1] <= '8')
            frame.can_dlc = static_cast<uint8_t>(data[1] - '0');
        else if (data.size() != 1) {
            error = "remote frame \"" + text + "\" has a bad length";
            return false;
        }
        return true;
    }
    size_t count = 0;
    for (size_t i = 0; i < data.size();) {
        if (data[i] == '.') {
            ++i;
            continue;
        }
        if (i + 1 >= data.size() || hexDigit(data[i]) < 0 || hexDigit(data[i + 1]) < 0) {
            error = "data \"" + data + "\" is not pairs of hex digits";
            return false;
        }
        if (count == 8) {
            error = "more than 8 data bytes in \"" + text + "\"";
            return false;
        }
        frame.data[count++] = static_cast<uint8_t>(hexDigit(data[i]) << 4 | hexDigit(data[i + 1]));
        i += 2;
    }
    frame.can_dlc = static_cast<uint8_t>(count);
    return true;
}

bool readLog(std::istream& in, const std::string& name, std::vector<LoggedFrame>& frames) {
    std::string line;
    unsigned number = 0;
    while (std::getline(in, line)) {
        ++number;
        std::istringstream words(line);
        std::string stamp;
        std::string interface;
        std::string text;
        if (!(words >> stamp) || stamp[0] == '#')
            continue; // blank line or comment
        LoggedFrame logged;
        std::string error;
        if (!(words >> interface >> text))
            error = "expected \"(time) interface frame\"";
        else if (!parseStamp(stamp, logged.micros))
            error = "bad time stamp \"" + stamp + "\"";
        else
            parseFrame(text, logged.frame, error);
        if (!error.empty()) {
            std::cerr << "tavro-canplayer: " << name << ":" << number << ": " << error << "\n";
            return false;
        }
        logged.interface = interface;
        frames.push_back(logged);
    }
    return true;
}

// Where the frames of one interface go.
class Target {
public:
    virtual ~Target() = default;
    virtual bool send(const can_frame& frame) = 0;
    unsigned long dropped = 0;
};

class SocketCanTarget : public Target {
public:
    ~SocketCanTarget() override {
        if (fd >= 0)
            close(fd);
    }
    bool open(const std::string& name) {
        if (name.size() >= IFNAMSIZ) {
            std::cerr << "tavro-canplayer: interface name " << name << " is too long\n";
            return false;
        }
        fd = socket(AF_CAN, SOCK_RAW | SOCK_CLOEXEC, CAN_RAW);
        if (fd < 0) {
            std::cerr << "tavro-canplayer: cannot open a CAN socket for " << name << ": "
                      << strerror(errno) << "\n";
            return false;
        }
        struct ifreq request;
        memset(&request, 0, sizeof request);
        memcpy(request.ifr_name, name.c_str(), name.size());
        struct sockaddr_can address;
        memset(&address, 0, sizeof address);
        address.can_family = AF_CAN;
        if (ioctl(fd, SIOCGIFINDEX, &request) != 0) {
            std::cerr << "tavro-canplayer: no CAN interface " << name << "\n";
            return false;
        }
        address.can_ifindex = request.ifr_ifindex;
        if (bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
            std::cerr << "tavro-canplayer: cannot bind to " << name << ": " << strerror(errno)
                      << "\n";
            return false;
        }
        return true;
    }
    bool send(const can_frame& frame) override {
        while (write(fd, &frame, sizeof frame) != static_cast<ssize_t>(sizeof frame)) {
            if (errno == EINTR && !interrupted)
                continue;
            if (errno == ENOBUFS) {
                // The interface queue is full: wait for it like a real sender would.
                usleep(1000);
                continue;
            }
            std::cerr << "tavro-canplayer: write failed: " << strerror(errno) << "\n";
            return false;
        }
        return true;
    }

private:
    int fd = -1;
};

int64_t monotonicMicros() {
    struct timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return int64_t(now.tv_sec) * 1000000 + now.tv_nsec / 1000;
}

// One socket connected to each reader of the bus directory: a send then costs no look-up of
// the reader's path, which takes longer than the send itself.
class VirtualBusTarget : public Target {
public:
    ~VirtualBusTarget() override {
        for (const auto& receiver : receivers)
            close(receiver.second);
    }
    bool open(const std::string& root, const std::string& name) {
        directory = root + "/" + name;
        struct stat info;
        if (name.empty() || name.find('/') != std::string::npos ||
            stat(directory.c_str(), &info) != 0 || !S_ISDIR(info.st_mode)) {
            std::cerr << "tavro-canplayer: no virtual bus directory " << directory << "\n";
            return false;
        }
        return true;
    }
    bool send(const can_frame& frame) override {
        // Readers come and go: look at the directory again now and then.
        const int64_t now = monotonicMicros();
        if (now - scanned > 100000) {
            scan();
            scanned = now;
        }
        for (auto receiver = receivers.begin(); receiver != receivers.end();) {
            const ssize_t sent = ::send(receiver->second, &frame, sizeof frame, 0);
            if (sent == static_cast<ssize_t>(sizeof frame)) {
                ++receiver;
                continue;
            }
            if (errno == EINTR && !interrupted)
                continue;
            if (errno == EAGAIN || errno == EWOULDBLOCK) {
                std::cerr << "tavro-canplayer: " << receiver->first
                          << " is not reading, frame dropped for it\n";
                ++dropped;
                ++receiver;
                continue;
            }
            // A socket nobody holds any more (ECONNREFUSED): a new one there is found by a scan.
            close(receiver->second);
            receiver = receivers.erase(receiver);
        }
        return true;
    }

private:
    void scan() {
        DIR* dir = opendir(directory.c_str());
        if (dir == nullptr)
            return;
        std::map<std::string, int> found;
        while (struct dirent* entry = readdir(dir)) {
            const std::string path = directory + "/" + entry->d_name;
            struct stat info;
            if (stat(path.c_str(), &info) != 0 || !S_ISSOCK(info.st_mode))
                continue;
            auto known = receivers.find(path);
            if (known != receivers.end()) {
                found.insert(*known);
                receivers.erase(known);
                continue;
            }
            sockaddr_un address;
            memset(&address, 0, sizeof address);
            address.sun_family = AF_UNIX;
            if (path.size() >= sizeof address.sun_path)
                continue;
            memcpy(address.sun_path, path.c_str(), path.size());
            const int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
            if (fd < 0)
                continue;
            // A reader that stopped reading holds the player up for at most this long per frame.
            struct timeval timeout = {1, 0};
            setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &timeout, sizeof timeout);
            // Refused: a socket left behind by a reader that is gone.
            if (connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
                close(fd);
                continue;
            }
            found[path] = fd;
        }
        closedir(dir);
        // Sockets no longer in the directory.
        for (const auto& receiver : receivers)
            close(receiver.second);
        receivers.swap(found);
    }

    std::string directory;
    int64_t scanned = -1000000000;
    std::map<std::string, int> receivers; // path, connected socket
};

void sleepUntil(int64_t micros) {
    struct timespec when;
    when.tv_sec = static_cast<time_t>(micros / 1000000);
    when.tv_nsec = static_cast<long>(micros % 1000000) * 1000;
    while (!interrupted &&
           clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &when, nullptr) == EINTR) {
    }
}

// Waits until a frame is due, as a bus would carry it. A wake-up costs several times what
// sending a frame does, so the player wakes at most once per wakeInterval and then sends every
// frame that is due: at high rates frames go out in small groups, none early. A bus cannot
// carry what a stalled sender missed any faster, so frames are never more than maxLate behind:
// after a stall the rest of the schedule moves later instead of going out in a burst.
class Pacer {
public:
    static constexpr int64_t wakeInterval = 500; // microseconds
    static constexpr int64_t maxLate = 1000;

    void waitFor(int64_t due) {
        due += delay;
        const int64_t now = monotonicMicros();
        if (now - due > maxLate) {
            delay += now - due - maxLate;
            lost += now - due - maxLate;
            due = now - maxLate;
        }
        if (now >= due)
            return;
        sleepUntil(due > lastWake + wakeInterval ? due : lastWake + wakeInterval);
        lastWake = monotonicMicros();
    }
    // A schedule of its own begins (the next turn of the log at its recorded pace).
    void restart() { delay = 0; }
    // How far the schedule moved in all: time the player could not keep the pace.
    int64_t behind() const { return lost; }

private:
    int64_t lastWake = 0;
    int64_t delay = 0;
    int64_t lost = 0;
};

std::string frameText(const can_frame& frame) {
    char text[64];
    const bool extended = frame.can_id & CAN_EFF_FLAG;
    int n =
        snprintf(text, sizeof text, extended ? "%08" PRIX32 "#" : "%03" PRIX32 "#",
                 static_cast<uint32_t>(frame.can_id & (extended ? CAN_EFF_MASK : CAN_SFF_MASK)));
    if (frame.can_id & CAN_RTR_FLAG)
        return std::string(text) + "R";
    for (int i = 0; i < frame.can_dlc && i < 8; ++i)
        n += snprintf(text + n, sizeof text - static_cast<size_t>(n), "%02X", frame.data[i]);
    return text;
}

} // namespace

int main(int argc, char** argv) {
    std::map<std::string, std::string> mapping;
    double rate = 0;
    bool fast = false;
    long loops = 1;
    bool verbose = false;
    const char* root = getenv("TAVRO_VCAN_DIR");

    static const struct option options[] = {
        {"map", required_argument, nullptr, 'm'},      {"rate", required_argument, nullptr, 'r'},
        {"fast", no_argument, nullptr, 'f'},           {"loop", required_argument, nullptr, 'l'},
        {"vcan-dir", required_argument, nullptr, 'd'}, {"verbose", no_argument, nullptr, 'v'},
        {"help", no_argument, nullptr, 'h'},           {nullptr, 0, nullptr, 0},
    };
    int option;
    while ((option = getopt_long(argc, argv, "m:r:fl:d:vh", options, nullptr)) != -1) {
        char* end = nullptr;
        switch (option) {
        case 'm': {
            const std::string pair = optarg;
            const size_t eq = pair.find('=');
            if (eq == std::string::npos || eq == 0 || eq + 1 == pair.size()) {
                std::cerr << "tavro-canplayer: mapping \"" << pair << "\" is not FROM=TO\n";
                return 1;
            }
            mapping[pair.substr(0, eq)] = pair.substr(eq + 1);
            break;
        }
        case 'r':
            rate = strtod(optarg, &end);
            if (end == optarg || *end != 0 || !(rate > 0) || rate > 1e9) {
                std::cerr << "tavro-canplayer: rate \"" << optarg
                          << "\" is not a positive number\n";
                return 1;
            }
            break;
        case 'f':
            fast = true;
            break;
        case 'l':
            loops = strtol(optarg, &end, 10);
            if (end == optarg || *end != 0 || loops < 0) {
                std::cerr << "tavro-canplayer: loop count \"" << optarg << "\" is not a number\n";
                return 1;
            }
            break;
        case 'd':
            root = optarg;
            break;
        case 'v':
            verbose = true;
            break;
        case 'h':
            std::cout << usageText;
            return 0;
        default:
            std::cerr << usageText;
            return 1;
        }
    }

    std::vector<LoggedFrame> frames;
    if (optind >= argc) {
        if (!readLog(std::cin, "-", frames))
            return 1;
    }
    for (int i = optind; i < argc; ++i) {
        const std::string name = argv[i];
        if (name == "-") {
            if (!readLog(std::cin, name, frames))
                return 1;
            continue;
        }
        std::ifstream file(name);
        if (!file.is_open()) {
            std::cerr << "tavro-canplayer: cannot read " << name << "\n";
            return 1;
        }
        if (!readLog(file, name, frames))
            return 1;
    }

    // Open every target first, so that a wrong interface fails before anything is sent.
    std::map<std::string, std::unique_ptr<Target>> targets;
    std::vector<Target*> route(frames.size(), nullptr);
    for (size_t i = 0; i < frames.size(); ++i) {
        std::string name = frames[i].interface;
        if (!mapping.empty()) {
            auto it = mapping.find(name);
            if (it == mapping.end())
                continue;
            name = it->second;
        }
        std::unique_ptr<Target>& target = targets[name];
        if (!target) {
            if (root != nullptr) {
                auto bus = std::make_unique<VirtualBusTarget>();
                if (!bus->open(root, name))
                    return 1;
                target = std::move(bus);
            } else {
                auto can = std::make_unique<SocketCanTarget>();
                if (!can->open(name))
                    return 1;
                target = std::move(can);
            }
        }
        route[i] = target.get();
    }

    struct sigaction action;
    memset(&action, 0, sizeof action);
    action.sa_handler = onSignal;
    sigaction(SIGINT, &action, nullptr);
    sigaction(SIGTERM, &action, nullptr);
    // A reader that vanished mid-send must not kill the player.
    signal(SIGPIPE, SIG_IGN);

    unsigned long sent = 0;
    unsigned long skipped = 0;
    bool failed = false;
    const int64_t begin = monotonicMicros();
    int64_t loopStart = begin;
    Pacer pacer;
    for (long loop = 0; (loops == 0 || loop < loops) && !interrupted && !failed; ++loop) {
        for (size_t i = 0; i < frames.size() && !interrupted; ++i) {
            if (route[i] == nullptr) {
                ++skipped;
                continue;
            }
            if (rate > 0 && !fast)
                pacer.waitFor(begin + static_cast<int64_t>(static_cast<double>(sent) * 1e6 / rate));
            else if (!fast)
                pacer.waitFor(loopStart + (frames[i].micros - frames[0].micros));
            if (interrupted)
                break;
            if (!route[i]->send(frames[i].frame)) {
                failed = true;
                break;
            }
            ++sent;
            if (verbose)
                std::cout << frames[i].interface << " " << frameText(frames[i].frame) << "\n";
        }
        loopStart = monotonicMicros();
        // At a fixed rate the schedule runs on across turns.
        if (!(rate > 0))
            pacer.restart();
        if (frames.empty())
            break;
    }

    unsigned long dropped = 0;
    for (auto& entry : targets)
        dropped += entry.second->dropped;
    std::cout << "Sent " << sent << " frames." << std::endl;
    if (skipped > 0)
        std::cerr << "tavro-canplayer: skipped " << skipped << " frames of unmapped interfaces\n";
    if (dropped > 0)
        std::cerr << "tavro-canplayer: " << dropped << " deliveries dropped\n";
    if (pacer.behind() >= 1000)
        std::cerr << "tavro-canplayer: fell " << pacer.behind() / 1000 << " ms behind the pace\n";
    return failed ? 1 : 0;
}
