// NVolume: a cached volume file (the input is its start, zero-padded to 256 KiB: a volume file has
// more than 128 KiB) and the head string parser on the same bytes.
#include "fuzzinput.h"
#include "nvolume.h"

#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    fuzz::setUp();
    {
        NVolume volume;
        volume.stringToVolumeHead(QString::fromLatin1(reinterpret_cast<const char*>(data), int(size)));
        volume.volumeHeadtoString(*volume.getHead());
    }
    std::vector<uint8_t> file(data, data + size);
    if (file.size() < 0x40000)
        file.resize(0x40000, 0);
    NVolume volume;
    volume.loadVolume(fuzz::writeInput(file.data(), file.size(), ".vol"));
    return 0;
}
