#ifndef TAVRO_CONFIGURATION_H
#define TAVRO_CONFIGURATION_H

#include <cstddef>
#include <map>
#include <string>
#include <vector>

// Pieces of text between delimiters; a trailing delimiter gives no empty last piece.
std::vector<std::string> splitString(const std::string& text, char delimiter);
// The whole text as a decimal number in range of long (leading blanks and a sign allowed,
// nothing after the digits). strtol, not sscanf: an out-of-range number is no undefined
// behaviour.
bool decimalValue(const std::string& text, long& value);

// key=value settings; values of a repeated key, and of a service file read on top of the
// general file, are appended behind the ones already there.
class Configuration {
public:
    // Bounds of what one file may make the reader hold: a longer line is skipped whole, and
    // reading stops at the first line that ends beyond maxFileSize; both with a warning.
    static constexpr size_t maxLineLength = 4096;
    static constexpr size_t maxFileSize = 1024 * 1024;

    explicit Configuration(const std::string& path);
    Configuration(const Configuration& base, const std::string& path);
    virtual ~Configuration();

    // First value of key, or "" with a warning.
    std::string getString(const std::string& key) const;
    // All values of key, or an empty list with a warning.
    const std::vector<std::string>& getList(const std::string& key) const;
    bool hasKey(const std::string& key) const;
    // Every key, in byte-wise order.
    std::vector<std::string> keys() const;

private:
    void read(const std::string& path);

    std::map<std::string, std::vector<std::string>> values;
};

#endif
