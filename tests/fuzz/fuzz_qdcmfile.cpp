// QDcmFile::loadhead on one file.
#include "fuzzinput.h"
#include "qdcmfile.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    fuzz::setUp();
    QDcmFile file;
    file.loadhead(fuzz::writeInput(data, size), false);
    return 0;
}
