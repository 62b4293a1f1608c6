// libFuzzer target for the mapping loader and both decoders. The input's first byte says how
// many CAN frames (13 bytes each: identifier word, length code, 8 data bytes) stand at its
// end; the bytes between are the mapping file, loaded as an FMStoIP and as a VEHICLEtoIP
// mapping. Every frame goes to both decoders as a CAN reader hands it over.
#include "DecodedFrame.h"
#include "JsonCanDecoder.h"
#include "Logger.h"
#include "VtoIpDecoder.h"

#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static const int fd = memfd_create("mapping", 0);
    static const std::string path = "/proc/self/fd/" + std::to_string(fd);
    verbosity = -1;
    if (size == 0)
        return 0;
    const size_t frames = std::min<size_t>(data[0] % 32, (size - 1) / 13);
    const size_t mappingSize = size - 1 - frames * 13;
    if (ftruncate(fd, 0) != 0 ||
        pwrite(fd, data + 1, mappingSize, 0) != static_cast<ssize_t>(mappingSize))
        abort();

    JsonCanDecoder fms(path);
    VtoIpDecoder vehicle(path);
    for (const uint8_t* record = data + 1 + mappingSize; record < data + size; record += 13) {
        can_frame frame = {};
        memcpy(&frame.can_id, record, 4);
        frame.can_dlc = record[4];
        memcpy(frame.data, record + 5, 8);
        for (CanDecoder* decoder : std::initializer_list<CanDecoder*>{&fms, &vehicle}) {
            const bool shared = decoder->acceptsShared(frame);
            if (!decoder->accepts(frame) && !shared)
                continue;
            std::unique_ptr<DecodedFrame> decoded(decoder->decode(frame));
            if (!decoded)
                continue;
            // The SPNs of a single frame are decoded when first asked for.
            decoded->spns();
            if (decoded->getDataLength() > DecodedFrame::maxData)
                abort();
        }
    }
    return 0;
}
