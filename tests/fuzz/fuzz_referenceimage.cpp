// NDicomImage::readReferenceFileInfo: header and pixels of one file.
#include "fuzzinput.h"
#include "ndicomimage.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    fuzz::setUp();
    NDicomImage image;
    image.readReferenceFileInfo(fuzz::writeInput(data, size), true);
    return 0;
}
