#include "Logger.h"

#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <condition_variable>
#include <mutex>
#include <string>
#include <system_error>
#include <thread>
#include <unordered_map>
#include <utility>
#include <vector>

int verbosity = 2;
bool useSyslog = false;

namespace {
const char* const levelNames[5] = {"ERR ", "WARN", "NOTE", "INFO", "DBG "};
const int syslogPriorities[5] = {LOG_ERR, LOG_WARNING, LOG_NOTICE, LOG_INFO, LOG_DEBUG};
// Distinct lines tracked at once; lines beyond are printed untracked, so texts that carry
// changing values cannot make the table grow.
constexpr size_t maxTrackedLines = 64;
// Lines handed to the logger's thread and not printed yet; beyond, the caller prints itself.
constexpr size_t maxDeferredLines = 256;
thread_local int deferring = 0;

using Clock = std::chrono::steady_clock;

struct Repeat {
    Clock::time_point since;
    unsigned long count;
    // Summaries come out in the order the lines first did.
    unsigned long long order;
};

// Lines are keyed by their whole text, level name included.
struct RepeatTable {
    std::mutex mutex;
    std::chrono::milliseconds window{10000};
    unsigned long long lineCount = 0;
    std::unordered_map<std::string, std::pair<int, Repeat>> lines;
    // Wakes the flusher when a line is first counted or deferred.
    std::condition_variable counted;
    bool flusherStarted = false;
    std::vector<std::pair<int, std::string>> deferred;
};

RepeatTable& repeatTable() {
    // Never destroyed: threads may still log while static objects go away at exit.
    static RepeatTable* table = new RepeatTable;
    return *table;
}

int clampLevel(int level) {
    if (level > 4)
        return 4;
    return level < 0 ? 0 : level;
}

std::string summary(const std::string& line, unsigned long count,
                    std::chrono::milliseconds window) {
    // line is "LEVL: message\n".
    std::string text = line.substr(0, 6) + "Repeated " + std::to_string(count) + " times in " +
                       std::to_string((window.count() + 999) / 1000) + " s: " + line.substr(6);
    return text;
}

// Summaries of every window that is over (all of them when flushing); the caller prints them.
void takeEnded(RepeatTable& table, Clock::time_point now, bool all,
               std::vector<std::pair<int, std::string>>& out) {
    std::vector<std::pair<unsigned long long, std::pair<int, std::string>>> ended;
    for (auto entry = table.lines.begin(); entry != table.lines.end();) {
        const Repeat& repeat = entry->second.second;
        if (!all && now - repeat.since < table.window) {
            ++entry;
            continue;
        }
        if (repeat.count > 0)
            ended.emplace_back(repeat.order,
                               std::make_pair(entry->second.first,
                                              summary(entry->first, repeat.count, table.window)));
        entry = table.lines.erase(entry);
    }
    std::sort(ended.begin(), ended.end());
    for (auto& line : ended)
        out.push_back(std::move(line.second));
}

void emit(int level, const std::string& line);
void flusherMain();

// Under the table's mutex. False when no thread could be started: the caller prints itself,
// and summaries then come with the next line after the window.
bool startFlusher(RepeatTable& table) {
    if (!table.flusherStarted) {
        try {
            std::thread(flusherMain).detach();
            table.flusherStarted = true;
        } catch (const std::system_error&) {
        }
    }
    return table.flusherStarted;
}

// Prints each summary when its window ends, also when nothing else is logged. Runs for the
// life of the process, like the table.
void flusherMain() {
    RepeatTable& table = repeatTable();
    std::vector<std::pair<int, std::string>> out;
    std::unique_lock<std::mutex> lock(table.mutex);
    for (;;) {
        if (!table.deferred.empty()) {
            out.swap(table.deferred);
            lock.unlock();
            for (const auto& line : out)
                emit(line.first, line.second);
            out.clear();
            lock.lock();
            continue;
        }
        bool waiting = false;
        Clock::time_point due;
        for (const auto& entry : table.lines) {
            const Repeat& repeat = entry.second.second;
            if (repeat.count > 0 && (!waiting || repeat.since + table.window < due)) {
                due = repeat.since + table.window;
                waiting = true;
            }
        }
        if (!waiting) {
            table.counted.wait(lock);
            continue;
        }
        if (Clock::now() < due) {
            table.counted.wait_until(lock, due);
            continue;
        }
        takeEnded(table, Clock::now(), false, out);
        lock.unlock();
        for (const auto& line : out)
            emit(line.first, line.second);
        out.clear();
        lock.lock();
    }
}

void emit(int level, const std::string& line) {
    if (useSyslog) {
        syslog(syslogPriorities[level], "%s", line.c_str());
        return;
    }
    // One write per line, so lines of concurrent threads do not interleave.
    const char* p = line.data();
    size_t left = line.size();
    while (left > 0) {
        ssize_t n = ::write(STDERR_FILENO, p, left);
        if (n < 0) {
            if (errno == EINTR)
                continue;
            return;
        }
        p += n;
        left -= static_cast<size_t>(n);
    }
}
} // namespace

const char* LogLine::levelName(int level) {
    return levelNames[clampLevel(level)];
}

std::chrono::milliseconds LogLine::setRepeatWindow(std::chrono::milliseconds window) {
    flushRepeats();
    RepeatTable& table = repeatTable();
    std::lock_guard<std::mutex> lock(table.mutex);
    const std::chrono::milliseconds previous = table.window;
    table.window = window;
    return previous;
}

void LogLine::flushRepeats() {
    std::vector<std::pair<int, std::string>> out;
    RepeatTable& table = repeatTable();
    {
        std::lock_guard<std::mutex> lock(table.mutex);
        out.swap(table.deferred);
        takeEnded(table, Clock::now(), true, out);
    }
    for (const auto& line : out)
        emit(line.first, line.second);
}

LogLine::LogLine(int requested) : level(clampLevel(requested)) {
    text << levelNames[level] << ": ";
}

LogLine::~LogLine() {
    text << '\n';
    std::string line = text.str();
    std::vector<std::pair<int, std::string>> out;
    RepeatTable& table = repeatTable();
    {
        // Only the decision is made under the lock; a slow syslog holds up no other thread.
        std::lock_guard<std::mutex> lock(table.mutex);
        const Clock::time_point now = Clock::now();
        takeEnded(table, now, false, out);
        auto seen = table.lines.find(line);
        if (seen != table.lines.end()) {
            if (++seen->second.second.count == 1 && startFlusher(table))
                table.counted.notify_one();
        } else {
            // Debug lines are a trace someone asked for: each one counts.
            if (table.window.count() > 0 && level < 4 && table.lines.size() < maxTrackedLines)
                table.lines.emplace(line, std::make_pair(level, Repeat{now, 0, ++table.lineCount}));
            out.emplace_back(level, std::move(line));
        }
        if (deferring > 0 && !out.empty() &&
            table.deferred.size() + out.size() <= maxDeferredLines && startFlusher(table)) {
            for (auto& entry : out)
                table.deferred.push_back(std::move(entry));
            out.clear();
            table.counted.notify_one();
        }
    }
    for (const auto& entry : out)
        emit(entry.first, entry.second);
}

LogLine::Deferral::Deferral() {
    ++deferring;
}

LogLine::Deferral::~Deferral() {
    --deferring;
}
