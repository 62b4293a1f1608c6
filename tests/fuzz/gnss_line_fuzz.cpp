// libFuzzer: gpsd lines, split as the reader splits them, each followed by a document.
#include "Gnss.h"

#include "Logger.h"

#include <algorithm>
#include <cstdint>
#include <memory>
#include <string>

namespace {
struct DiscardingHook : XMLHook {
    void deliver(std::stringstream&) override {}
};
} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static DiscardingHook hook;
    static GnssXMLGenerator generator;
    static const std::unique_ptr<Json::CharReader> reader(newGpsdReader());
    verbosity = -1;
    generator.setHook(&hook);
    const std::string input(reinterpret_cast<const char*>(data), size);
    for (size_t begin = 0, end = 0; begin < input.size(); begin = end) {
        end = std::min(input.find('\n', begin), input.size() - 1) + 1;
        handleGpsdLine(input.substr(begin, end - begin), *reader, generator);
        generator.deliverDocument();
    }
    return 0;
}
