// libFuzzer target for the gpsd line handler: the input is split into lines as the reader
// splits gpsd's stream, each line is handled, and a document is built after every line.
#include "Gnss.h"

#include "Logger.h"

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

namespace {
class DiscardingHook : public XMLHook {
public:
    void deliver(std::stringstream& document) override { size += document.str().size(); }
    size_t size = 0;
};
} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static GnssXMLGenerator generator;
    static DiscardingHook hook;
    static const std::unique_ptr<Json::CharReader> reader(newGpsdReader());
    static bool ready = false;
    if (!ready) {
        generator.setHook(&hook);
        verbosity = -1;
        ready = true;
    }
    const std::string input(reinterpret_cast<const char*>(data), size);
    size_t begin = 0;
    while (begin < input.size()) {
        size_t end = input.find('\n', begin);
        end = end == std::string::npos ? input.size() : end + 1;
        handleGpsdLine(input.substr(begin, end - begin), *reader, generator);
        generator.deliverDocument();
        begin = end;
    }
    return 0;
}
