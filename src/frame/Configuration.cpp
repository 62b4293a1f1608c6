#include "Configuration.h"

#include "Logger.h"

#include <cctype>
#include <cerrno>
#include <cstdlib>
#include <exception>
#include <fstream>
#include <sstream>

std::vector<std::string> splitString(const std::string& text, char delimiter) {
    std::vector<std::string> pieces;
    std::istringstream stream(text);
    std::string piece;
    while (std::getline(stream, piece, delimiter))
        pieces.push_back(piece);
    return pieces;
}

bool decimalValue(const std::string& text, long& value) {
    char* end = nullptr;
    errno = 0;
    value = strtol(text.c_str(), &end, 10);
    return !text.empty() && *end == '\0' && errno == 0;
}

namespace {
const std::vector<std::string> noValues;

// One line without its "\n" into line, at most Configuration::maxLineLength bytes of it;
// false at the end of the file. consumed grows by every byte taken, kept or not; the line
// ends early once consumed is beyond Configuration::maxFileSize.
bool readLine(std::streambuf& in, std::string& line, bool& tooLong, size_t& consumed) {
    line.clear();
    tooLong = false;
    int c = in.sbumpc();
    if (c == std::char_traits<char>::eof())
        return false;
    for (; c != std::char_traits<char>::eof() && c != '\n'; c = in.sbumpc()) {
        if (++consumed > Configuration::maxFileSize)
            return true;
        if (line.size() < Configuration::maxLineLength)
            line += static_cast<char>(c);
        else
            tooLong = true;
    }
    if (c == '\n')
        ++consumed;
    return true;
}
} // namespace

Configuration::Configuration(const std::string& path) {
    read(path);
}

Configuration::Configuration(const Configuration& base, const std::string& path)
    : values(base.values) {
    read(path);
}

Configuration::~Configuration() = default;

void Configuration::read(const std::string& path) {
    LOG(4) << "Loading " << path;
    std::ifstream file(path);
    if (!file.is_open()) {
        LOG(1) << "File " << path << " could not be opened.";
        return;
    }
    // The file buffer throws on a read error (a directory, say): what came before stays.
    try {
        std::string raw;
        unsigned lineNumber = 0;
        bool tooLong = false;
        size_t consumed = 0;
        while (readLine(*file.rdbuf(), raw, tooLong, consumed)) {
            ++lineNumber;
            if (consumed > maxFileSize) {
                LOG(1) << path << " is larger than " << maxFileSize << " bytes: line " << lineNumber
                       << " and the rest are not read.";
                break;
            }
            if (tooLong) {
                LOG(1) << "Skipping line " << lineNumber << " of " << path << ": longer than "
                       << maxLineLength << " bytes.";
                continue;
            }
            std::string line;
            line.reserve(raw.size());
            for (char c : raw)
                if (!std::isspace(static_cast<unsigned char>(c)))
                    line += c;
            if (line.empty()) {
                LOGV(6, 6) << lineNumber << ": Skip line because its empty.";
                continue;
            }
            line = line.substr(0, line.find('#'));
            if (line.empty()) {
                LOGV(6, 6) << lineNumber << ": Skip line because its comment.";
                continue;
            }
            const std::vector<std::string> pair = splitString(line, '=');
            if (pair.size() != 2) {
                LOGV(6, 6) << lineNumber << ": Skip line because of multiple '='.";
                continue;
            }
            for (const std::string& value : splitString(pair[1], ',')) {
                values[pair[0]].push_back(value);
                LOGV(6, 6) << lineNumber << ": Got " << pair[0] << " = " << value;
            }
        }
    } catch (const std::exception&) {
        LOG(1) << "File " << path << " could not be read.";
    }
}

std::string Configuration::getString(const std::string& key) const {
    auto it = values.find(key);
    if (it == values.end()) {
        LOG(1) << "Value \"" << key << "\" not found in configuration.";
        return std::string();
    }
    return it->second.front();
}

const std::vector<std::string>& Configuration::getList(const std::string& key) const {
    auto it = values.find(key);
    if (it == values.end()) {
        LOG(1) << "Value \"" << key << "\" not found in configuration.";
        return noValues;
    }
    return it->second;
}

bool Configuration::hasKey(const std::string& key) const {
    return values.count(key) != 0;
}

std::vector<std::string> Configuration::keys() const {
    std::vector<std::string> names;
    names.reserve(values.size());
    for (const auto& entry : values)
        names.push_back(entry.first);
    return names;
}
