#ifndef TAVRO_LOGGER_H
#define TAVRO_LOGGER_H

#include <sstream>

// Log threshold: 0 quiet, 2 default, 3 (-v), 4 (-vv), 8 (-vvv).
extern int verbosity;
// Set by -s once openlog() has been called with the invocation name.
extern bool useSyslog;

// One log line in construction; emitted to stderr or syslog when it is destroyed.
class LogLine {
public:
    explicit LogLine(int level);
    ~LogLine();
    LogLine(const LogLine&) = delete;
    LogLine& operator=(const LogLine&) = delete;

    template <typename T> LogLine& operator<<(const T& value) {
        text << value;
        return *this;
    }

    // Four-character name of a level; levels above 4 print as 4.
    static const char* levelName(int level);

private:
    int level;
    std::ostringstream text;
};

// Builds the message only when verbosity admits it, so suppressed lines cost one comparison.
#define LOG(level)                                                                                 \
    if (verbosity < (level)) {                                                                     \
    } else                                                                                         \
        LogLine(level)

// For traces that need a higher verbosity than the level they are printed with.
#define LOGV(minVerbosity, level)                                                                  \
    if (verbosity < (minVerbosity)) {                                                              \
    } else                                                                                         \
        LogLine(level)

#endif
