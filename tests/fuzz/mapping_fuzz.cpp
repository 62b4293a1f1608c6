// libFuzzer target for the mapping loader and both decoders. The input's first byte says how
// many CAN frames (13 bytes each: identifier word, length code, 8 data bytes) stand at its
// end; the bytes between are the mapping file, loaded as an FMStoIP and as a VEHICLEtoIP
// mapping. Every frame goes to both decoders as a CAN reader hands it over.
#include "BasicCanDecoder.h"
#include "DecodedFrame.h"
#include "JsonCanDecoder.h"
#include "Logger.h"
#include "VtoIpDecoder.h"

#include <sys/mman.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

namespace {

constexpr size_t frameSize = 13;

void offer(CanDecoder& decoder, const can_frame& frame) {
    const bool shared = decoder.acceptsShared(frame);
    if (!decoder.accepts(frame) && !shared)
        return;
    std::unique_ptr<DecodedFrame> decoded(decoder.decode(frame));
    if (!decoded)
        return;
    // The SPNs of a single frame are decoded when first asked for.
    decoded->spns();
    if (decoded->getDataLength() > DecodedFrame::maxData)
        abort();
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static const int fd = memfd_create("mapping", 0);
    static const std::string path = "/proc/self/fd/" + std::to_string(fd);
    verbosity = -1;
    if (size == 0)
        return 0;
    size_t frames = data[0] % 32;
    if (frames * frameSize > size - 1)
        frames = (size - 1) / frameSize;
    const size_t mappingSize = size - 1 - frames * frameSize;
    if (ftruncate(fd, 0) != 0 || (mappingSize > 0 && pwrite(fd, data + 1, mappingSize, 0) !=
                                                         static_cast<ssize_t>(mappingSize)))
        abort();

    JsonCanDecoder fms(path);
    VtoIpDecoder vehicle(path);
    BasicCanDecoder basic;
    const uint8_t* record = data + 1 + mappingSize;
    for (size_t i = 0; i < frames; ++i, record += frameSize) {
        can_frame frame;
        memset(&frame, 0, sizeof frame);
        memcpy(&frame.can_id, record, 4);
        frame.can_dlc = record[4];
        memcpy(frame.data, record + 5, 8);
        offer(fms, frame);
        offer(vehicle, frame);
        offer(basic, frame);
    }
    return 0;
}
