#include "AtomicFile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>

namespace {
std::string folderOf(const std::string& path) {
    const size_t slash = path.rfind('/');
    if (slash == std::string::npos)
        return ".";
    return slash == 0 ? "/" : path.substr(0, slash);
}

bool fail(std::string* error, const std::string& step, int code) {
    if (error != nullptr)
        *error = step + " failed: " + strerror(code);
    return false;
}
} // namespace

std::string AtomicFile::resolve(const std::string& path) {
    char resolved[PATH_MAX];
    if (realpath(path.c_str(), resolved) != nullptr)
        return resolved;
    // A dangling link still names where the file is to be.
    std::string current = path;
    for (int hops = 0; hops < 40; ++hops) {
        char target[PATH_MAX];
        const ssize_t n = readlink(current.c_str(), target, sizeof target - 1);
        if (n < 0)
            return current;
        target[n] = '\0';
        current = target[0] == '/' ? std::string(target) : folderOf(current) + "/" + target;
    }
    return current;
}

bool AtomicFile::writeAll(int fd, const std::string& content) {
    size_t done = 0;
    while (done < content.size()) {
        const ssize_t n = write(fd, content.data() + done, content.size() - done);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0) {
            if (n == 0)
                errno = EIO;
            return false;
        }
        done += static_cast<size_t>(n);
    }
    return true;
}

bool AtomicFile::replace(const std::string& path, const std::string& content, std::string* error) {
    if (path.empty())
        return fail(error, "open", ENOENT);
    const std::string target = resolve(path);
    const std::string temporary = target + ".tmp";

    mode_t mode = 0644;
    struct stat info;
    const bool existed = stat(target.c_str(), &info) == 0;
    if (existed)
        mode = info.st_mode & 07777;

    // A new file gets 0644 less the umask, as any other; an old one keeps what it had.
    const int fd = open(temporary.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, mode);
    if (fd < 0)
        return fail(error, "open " + temporary, errno);
    const char* step = nullptr;
    int code = 0;
    if (existed && fchmod(fd, mode) != 0)
        step = "chmod", code = errno;
    else if (!writeAll(fd, content))
        step = "write", code = errno;
    else if (fsync(fd) != 0)
        step = "fsync", code = errno;
    if (close(fd) != 0 && step == nullptr)
        step = "close", code = errno;
    if (step == nullptr && rename(temporary.c_str(), target.c_str()) != 0)
        step = "rename", code = errno;
    if (step != nullptr) {
        unlink(temporary.c_str());
        return fail(error, std::string(step) + " " + temporary, code);
    }
    const int folder = open(folderOf(target).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (folder < 0)
        return fail(error, "open folder of " + target, errno);
    const bool synced = fsync(folder) == 0;
    code = errno;
    close(folder);
    if (!synced)
        return fail(error, "fsync folder of " + target, code);
    return true;
}
