// libFuzzer target for the configuration reader: the input is a whole file, read on its own
// and on top of a base. Whatever the bytes, keys and values hold no whitespace and the
// lookups agree with each other.
#include "Configuration.h"

#include "Logger.h"

#include <sys/mman.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <string>

namespace {

// isspace() of the C locale: the reader drops all of it.
const std::string blanks = " \t\n\v\f\r";

void check(const Configuration& conf) {
    for (const std::string& key : conf.keys()) {
        const std::vector<std::string>& values = conf.getList(key);
        if (key.find_first_of(blanks + "#=") != std::string::npos || values.empty() ||
            !conf.hasKey(key) || conf.getString(key) != values.front())
            abort();
        for (const std::string& value : values)
            if (value.find_first_of(blanks + "#,") != std::string::npos)
                abort();
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    // The reader wants a path: the input lives in a memory file.
    static const int fd = memfd_create("configuration", 0);
    static const std::string path = "/proc/self/fd/" + std::to_string(fd);
    static const Configuration* base = nullptr;
    if (base == nullptr) {
        verbosity = -1;
        const char seed[] = "shared=1\nnetwork_interface=eth1\n";
        if (pwrite(fd, seed, sizeof seed - 1, 0) != static_cast<ssize_t>(sizeof seed - 1))
            abort();
        base = new Configuration(path);
    }
    if (ftruncate(fd, 0) != 0 ||
        (size > 0 && pwrite(fd, data, size, 0) != static_cast<ssize_t>(size)))
        abort();

    const Configuration alone(path);
    check(alone);
    const Configuration layered(*base, path);
    check(layered);
    // The base comes first, the file's values behind it.
    if (layered.getString("shared") != "1" ||
        layered.getList("shared").size() !=
            1 + (alone.hasKey("shared") ? alone.getList("shared").size() : 0))
        abort();
    return 0;
}
