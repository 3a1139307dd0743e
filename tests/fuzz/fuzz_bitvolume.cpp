// NBitVolume::ReadFromFile: the input's first line is the ".txt" header, the rest the ".dat" voxels.
#include "fuzzinput.h"
#include "nbitvolume.h"

#include <cstring>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    fuzz::setUp();
    const uint8_t* newline = static_cast<const uint8_t*>(std::memchr(data, '\n', size));
    const size_t headLength = newline ? size_t(newline - data) : size;
    const QString header = fuzz::writeInput(data, headLength, ".txt");
    const size_t rest = newline ? size - headLength - 1 : 0;
    fuzz::writeInput(newline ? newline + 1 : data, rest, ".dat");
    NBitVolume mask(16, 12, 5);
    mask.ReadFromFile(header.toLocal8Bit().constData());
    return 0;
}
