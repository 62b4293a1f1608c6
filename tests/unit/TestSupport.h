#ifndef TAVRO_TEST_SUPPORT_H
#define TAVRO_TEST_SUPPORT_H

#include "Logger.h"

#include <fcntl.h>
#include <netinet/in.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <fstream>
#include <sstream>
#include <string>

// Tests compare whole log texts: every line is printed unless a test asks for summaries.
inline const std::chrono::milliseconds defaultRepeatWindow =
    LogLine::setRepeatWindow(std::chrono::milliseconds(0));

// Counts repeated log lines in windows of the given length for one test; the summaries of
// everything counted come out when it ends (or at flushRepeats()).
class RepeatWindowScope {
public:
    explicit RepeatWindowScope(std::chrono::milliseconds window)
        : previous(LogLine::setRepeatWindow(window)) {}
    ~RepeatWindowScope() { LogLine::setRepeatWindow(previous); }

private:
    std::chrono::milliseconds previous;
};

// A private directory, removed with everything in it.
class TempDir {
public:
    TempDir() {
        char name[] = "/tmp/tavro-test-XXXXXX";
        path = mkdtemp(name);
    }
    ~TempDir() {
        int ignored = system(("rm -rf '" + path + "'").c_str());
        (void)ignored;
    }
    std::string file(const std::string& name) const { return path + "/" + name; }
    std::string write(const std::string& name, const std::string& content) const {
        std::ofstream(file(name), std::ios::binary) << content;
        return file(name);
    }
    static std::string read(const std::string& path) {
        std::stringstream ss;
        ss << std::ifstream(path, std::ios::binary).rdbuf();
        return ss.str();
    }

    std::string path;
};

// Collects what the logger writes to stderr while it lives.
class StderrCapture {
public:
    StderrCapture() {
        char name[] = "/tmp/tavro-stderr-XXXXXX";
        fd = mkstemp(name);
        unlink(name);
        saved = dup(STDERR_FILENO);
        dup2(fd, STDERR_FILENO);
    }
    ~StderrCapture() {
        restore();
        close(fd);
    }
    std::string text() const { return TempDir::read("/proc/self/fd/" + std::to_string(fd)); }
    void restore() {
        if (saved >= 0) {
            dup2(saved, STDERR_FILENO);
            close(saved);
            saved = -1;
        }
    }

private:
    int fd = -1;
    int saved = -1;
};

// Sets verbosity for one test and puts the previous value back.
class VerbosityScope {
public:
    explicit VerbosityScope(int level) : previous(verbosity) { verbosity = level; }
    ~VerbosityScope() { verbosity = previous; }

private:
    int previous;
};

// The shell command that starts a program of the build's tools/ folder; in a cross build it
// runs under the build's emulator.
inline std::string toolCommand(const std::string& name) {
    const std::string emulator = TAVRO_TOOL_EMULATOR;
    return (emulator.empty() ? "" : emulator + " ") + TAVRO_TOOLS_DIR + "/" + name;
}

#endif
