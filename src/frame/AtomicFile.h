#ifndef TAVRO_ATOMICFILE_H
#define TAVRO_ATOMICFILE_H

#include <string>

// Replaces a file's content so that a reader or a power cut finds either the old or the new
// content, never an empty or half-written file: the content goes into a temporary file in the
// same folder, is flushed to disk and renamed over the old one, and the folder is flushed so
// the rename itself lasts. A symbolic link stays a link: its target is replaced. The file keeps
// its mode (a new one gets 0644 less the umask).
class AtomicFile {
public:
    // False when the content may not be in place; error then says which step failed and why.
    static bool replace(const std::string& path, const std::string& content,
                        std::string* error = nullptr);

private:
    // The file a path names after following symbolic links; the path itself when it names
    // nothing yet.
    static std::string resolve(const std::string& path);
    static bool writeAll(int fd, const std::string& content);
};

#endif
