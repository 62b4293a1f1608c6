#include "Logger.h"

#include <syslog.h>
#include <unistd.h>

#include <cerrno>

int verbosity = 2;
bool useSyslog = false;

namespace {
const char* const levelNames[5] = {"ERR ", "WARN", "NOTE", "INFO", "DBG "};
const int syslogPriorities[5] = {LOG_ERR, LOG_WARNING, LOG_NOTICE, LOG_INFO, LOG_DEBUG};

int clampLevel(int level) {
    if (level > 4)
        return 4;
    return level < 0 ? 0 : level;
}
} // namespace

const char* LogLine::levelName(int level) {
    return levelNames[clampLevel(level)];
}

LogLine::LogLine(int requested) : level(clampLevel(requested)) {
    text << levelNames[level] << ": ";
}

LogLine::~LogLine() {
    text << '\n';
    const std::string line = text.str();
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
