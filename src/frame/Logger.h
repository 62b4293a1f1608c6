#ifndef TAVRO_LOGGER_H
#define TAVRO_LOGGER_H

#include <chrono>
#include <sstream>

// Log threshold: 0 quiet, 2 default, 3 (-v), 4 (-vv), 8 (-vvv).
extern int verbosity;
// Set by -s once openlog() has been called with the invocation name.
extern bool useSyslog;

// One log line in construction; emitted to stderr or syslog when it is destroyed.
//
// A line whose exact text was emitted less than a window ago is only counted; once the window
// is over, one line says how often it was repeated. So a fault that repeats with every CAN frame
// or datagram costs a few lines, not thousands. Debug lines (level 4) are all printed. A thread
// of the logger's own prints the summaries, so they come when due even if nothing else is
// logged.
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

    // Sets the window in which repeats are counted instead of printed, and returns the previous
    // one. 0 prints every line.
    static std::chrono::milliseconds setRepeatWindow(std::chrono::milliseconds window);
    // Prints the summaries of all counted repeats at once, as at the end of their windows, and
    // the lines still waiting for the logger's thread.
    static void flushRepeats();

    // While one exists on a thread, that thread's lines are handed to the logger's thread
    // instead of being written by it: for code that holds a lock other threads wait for (a CAN
    // reader's dispatch), which must not wait for a slow syslog or a full stderr pipe.
    class Deferral {
    public:
        Deferral();
        ~Deferral();
        Deferral(const Deferral&) = delete;
        Deferral& operator=(const Deferral&) = delete;
    };

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
